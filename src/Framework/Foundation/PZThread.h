#ifndef PZ_FRAMEWORK_FOUNDATION_PZTHREAD_H
#define PZ_FRAMEWORK_FOUNDATION_PZTHREAD_H

// PZThread<T>: written with the class itself.
template <typename T>
class PZThread;

#endif  // PZ_FRAMEWORK_FOUNDATION_PZTHREAD_H
