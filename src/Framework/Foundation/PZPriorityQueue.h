#ifndef PZ_FRAMEWORK_FOUNDATION_PZPRIORITYQUEUE_H
#define PZ_FRAMEWORK_FOUNDATION_PZPRIORITYQUEUE_H

// PZPriorityQueue<T>: written with the class itself.
template <typename T>
class PZPriorityQueue;

#endif  // PZ_FRAMEWORK_FOUNDATION_PZPRIORITYQUEUE_H
