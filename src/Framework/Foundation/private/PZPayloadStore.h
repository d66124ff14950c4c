#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZPAYLOADSTORE_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZPAYLOADSTORE_H

#include <array>
#include <atomic>
#include <cstddef>

/// The memory of a message box's payload copies: slots of the largest size, kept for the next copy.
///
/// Memory:  grows with the number of copies that live together, slot by slot as far as pages are
///          touched. A copy that was never given back outlives the store, with its neighbours.
/// Threads: one at a time takes; any thread gives back meanwhile.
class PZPayloadStore {
public:
    static constexpr std::size_t kSlotSize = 256;

private:
    union Slot {
        std::array<unsigned char, kSlotSize> bytes;
        Slot* next;  // of a free one
    };

public:
    /// Copies that are to be given back together.
    class Spent {
    public:
        /// Null is nothing to give back.
        void Add(const void* bytes) noexcept {
            if (bytes == nullptr) return;
            auto* const slot = static_cast<Slot*>(const_cast<void*>(bytes));
            slot->next = first_;
            if (first_ == nullptr) last_ = slot;
            first_ = slot;
            ++count_;
        }

        unsigned int Count() const noexcept { return count_; }

    private:
        friend class PZPayloadStore;

        Slot* first_ = nullptr;
        Slot* last_ = nullptr;
        unsigned int count_ = 0;
    };

    PZPayloadStore() noexcept = default;
    ~PZPayloadStore();

    PZPayloadStore(const PZPayloadStore&) = delete;
    PZPayloadStore& operator=(const PZPayloadStore&) = delete;

    /// Room for `size` bytes, at most `kSlotSize`; null when there is no memory.
    void* Take(std::size_t size) noexcept {
        if (free_ == nullptr) Refill();
        Slot* const slot = free_;
        if (slot == nullptr) return nullptr;
        free_ = slot->next;
        Prefetch<kToWrite>(free_, size);  // whose lines its last reader has
        return slot->bytes.data();
    }

    /// Takes back what was taken last.
    void GiveBack(const void* bytes) noexcept;

    /// Takes back many, and leaves none in `spent`.
    void Give(Spent& spent) noexcept;

    /// Before a copy of about this size is read on another processor than it was written on.
    static void PrefetchToRead(const void* bytes, std::size_t size) noexcept {
        Prefetch<kToRead>(bytes, size);
    }

private:
    /// As many as are allocated together.
    struct Slots {
        std::array<Slot, 8> slots;
        std::size_t free;  // at the store's end
        Slots* next;
    };

    static constexpr int kToRead = 0;
    static constexpr int kToWrite = 1;

    /// The first two lines, as far as they are needed.
    template <int kWhatFor>
    static void Prefetch(const void* bytes, std::size_t size) noexcept {
        __builtin_prefetch(bytes, kWhatFor);
        if (size > 64) __builtin_prefetch(static_cast<const unsigned char*>(bytes) + 64, kWhatFor);
    }

    void Refill() noexcept;
    void Grow() noexcept;
    void CountFree(const Slot* slot) noexcept;

    Slot* free_ = nullptr;  // taken next
    Slots* all_ = nullptr;
    std::atomic<Slot*> given_{nullptr};  // given back since free_ was last empty
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZPAYLOADSTORE_H
