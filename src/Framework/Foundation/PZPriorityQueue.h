#ifndef PZ_FRAMEWORK_FOUNDATION_PZPRIORITYQUEUE_H
#define PZ_FRAMEWORK_FOUNDATION_PZPRIORITYQUEUE_H

#include <vector>

/// Records of type T in the order of their priority: 0 is served first, 255 last; equal ones in the
/// order in which they came.
///
/// Bounded:   by its user. The queue stores the limit, but push never refuses.
/// Threads:   no lock of its own.
/// Ownership: records are copied in and out; what they point at stays the user's.
/// Memory:    grows with the number of records that wait together, and is kept. A push without
///            memory throws std::bad_alloc and stores nothing; nothing else throws.
template <typename T>
class PZPriorityQueue {
public:
    /// A stored record.
    struct que : T {
        unsigned int priority;  ///< 0 to 255; push keeps the low 8 bits
    };

    /// Empty; `max` is the limit that its user keeps.
    explicit PZPriorityQueue(unsigned int max) noexcept : max_(max) {}

    /// Number of stored records.
    unsigned int size() const noexcept { return count_; }

    /// Whether there is no record.
    bool empty() const noexcept { return count_ == 0; }

    /// The limit given to the constructor.
    unsigned int capacity() const noexcept { return max_; }

    /// Stores a copy after all records that are served before it.
    void push(const que& element) {
        que& stored = Insert(element.priority);
        static_cast<T&>(stored) = element;
    }

    /// As push, without a copy: the caller fills in all but the priority of the answer, before
    /// anything else is called.
    que& Insert(unsigned int priority) {
        if (count_ == ring_.size()) Grow();
        // In front of all older elements of its level, because service is from the back.
        que& stored = NewSlot(priority & 0xFFU);
        stored.priority = priority & 0xFFU;
        return stored;
    }

    /// The element to be served next. The queue must not be empty.
    const que& top() const noexcept { return ring_[IndexOf(count_ - 1)]; }

    /// Removes it. The queue must not be empty.
    void pop() noexcept { --count_; }

    /// Removes every element, from the back to the front.
    void Clear() noexcept {
        for (unsigned int left = size(); left > 0; --left) pop();
    }

private:
    static constexpr unsigned int kFirstSize = 8;

    unsigned int IndexOf(unsigned int position) const noexcept {
        return (front_ + position) & mask_;
    }
    que& Slot(unsigned int position) noexcept { return ring_[IndexOf(position)]; }

    void Grow() {
        std::vector<que> larger(ring_.empty() ? kFirstSize : ring_.size() * 2);
        for (unsigned int i = 0; i < count_; ++i) larger[i] = Slot(i);
        ring_.swap(larger);
        mask_ = static_cast<unsigned int>(ring_.size()) - 1;
        front_ = 0;
    }

    /// Makes room for an element; mostly it is the least urgent one.
    que& NewSlot(unsigned int priority) noexcept {
        if (count_ != 0 && Slot(0).priority > priority) return Slot(MakeRoom(PositionOf(priority)));
        ++count_;
        --front_;
        return Slot(0);
    }

    /// The first position whose priority is not above `priority`, which that of position 0 is; the
    /// size when there is none.
    unsigned int PositionOf(unsigned int priority) noexcept {
        unsigned int low = 1;
        unsigned int high = count_;
        while (low < high) {
            const unsigned int middle = low + (high - low) / 2;
            if (Slot(middle).priority > priority) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        return low;
    }

    /// Moves the shorter part aside; answers `position`.
    unsigned int MakeRoom(unsigned int position) noexcept {
        ++count_;
        if (position < count_ / 2) {
            --front_;
            for (unsigned int i = 0; i < position; ++i) Slot(i) = Slot(i + 1);
        } else {
            for (unsigned int i = count_ - 1; i > position; --i) Slot(i) = Slot(i - 1);
        }
        return position;
    }

    std::vector<que> ring_{};
    unsigned int mask_ = 0;   // the ring's size, a power of two, less 1
    unsigned int front_ = 0;  // where the ring begins, modulo its size
    unsigned int count_ = 0;  // priorities descend from front to back
    unsigned int max_;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZPRIORITYQUEUE_H
