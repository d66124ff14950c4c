#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZPAYLOADSTORE_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZPAYLOADSTORE_H

#include <array>
#include <cstddef>

/// The memory of a message box's payload copies: slots of the largest size, kept for the next copy.
///
/// Memory:  grows with the number of copies that live together, slot by slot as far as pages are
///          touched. A copy that was never given back outlives the store, with its neighbours.
/// Threads: no lock of its own.
class PZPayloadStore {
public:
    static constexpr std::size_t kSlotSize = 256;

    PZPayloadStore() noexcept = default;
    ~PZPayloadStore();

    PZPayloadStore(const PZPayloadStore&) = delete;
    PZPayloadStore& operator=(const PZPayloadStore&) = delete;

    /// `kSlotSize` bytes; null when there is no memory.
    void* Take() noexcept;

    /// Takes back what Take has given; null is nothing to take back.
    void Give(const void* bytes) noexcept;

private:
    struct Slots;

    struct Slot {
        Slots* home;
        union {
            std::array<unsigned char, kSlotSize> bytes;
            Slot* next;  // of a free one
        };
    };

    /// As many as are allocated together.
    struct Slots {
        std::array<Slot, 8> slots;
        unsigned int taken;
        Slots* next;
    };

    void Grow() noexcept;

    Slot* free_ = nullptr;  // given back last, taken next
    Slots* all_ = nullptr;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZPAYLOADSTORE_H
