#ifndef PZ_FRAMEWORK_FOUNDATION_PZPRIORITYQUEUE_H
#define PZ_FRAMEWORK_FOUNDATION_PZPRIORITYQUEUE_H

#include <algorithm>
#include <deque>

/// Records of type T in the order of their priority: 0 is served first, 255 last; among equals
/// the one that came first.
///
/// Bounded:   by its user. The queue keeps the limit, but push never refuses.
/// Threads:   no lock of its own.
/// Ownership: records are copied in and out; what they point at stays the user's.
template <typename T>
class PZPriorityQueue {
public:
    /// A stored record.
    struct que : T {
        unsigned int priority;  ///< 0 to 255; push keeps the low 8 bits
    };

    /// Empty; `max` is the limit that its user keeps.
    explicit PZPriorityQueue(unsigned int max) : max_(max) {}

    /// Number of stored records.
    unsigned int size() const noexcept { return static_cast<unsigned int>(ques_.size()); }

    /// Whether there is no record.
    bool empty() const noexcept { return ques_.empty(); }

    /// The limit given to the constructor.
    unsigned int capacity() const noexcept { return max_; }

    /// Stores a copy behind all records that are served before it.
    void push(const que& element) {
        que stored = element;
        stored.priority &= 0xFFU;
        // In front of all older elements of its level, because service is from the back.
        const auto position = std::lower_bound(
            ques_.begin(), ques_.end(), stored.priority,
            [](const que& older, unsigned int priority) { return older.priority > priority; });
        ques_.insert(position, stored);
    }

    /// The element to be served next. The queue must not be empty.
    const que& top() const { return ques_.back(); }

    /// Removes it. The queue must not be empty.
    void pop() { ques_.pop_back(); }

    /// Removes every element, from the back to the front.
    void Clear() {
        for (unsigned int left = size(); left > 0; --left) pop();
    }

private:
    std::deque<que> ques_;  // priorities descend from front to back
    unsigned int max_;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZPRIORITYQUEUE_H
