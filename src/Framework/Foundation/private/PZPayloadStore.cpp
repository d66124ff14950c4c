#include "PZPayloadStore.h"

#include <new>

PZPayloadStore::~PZPayloadStore() {
    while (all_ != nullptr) {
        Slots* const slots = all_;
        all_ = slots->next;
        if (slots->taken == 0) delete slots;
    }
}

void* PZPayloadStore::Take() noexcept {
    if (free_ == nullptr) Grow();
    Slot* const slot = free_;
    if (slot == nullptr) return nullptr;
    free_ = slot->next;
    ++slot->home->taken;
    return slot->bytes.data();
}

void PZPayloadStore::Give(const void* bytes) noexcept {
    if (bytes == nullptr) return;
    auto* const address = static_cast<unsigned char*>(const_cast<void*>(bytes));
    auto* const slot = reinterpret_cast<Slot*>(address - offsetof(Slot, bytes));
    --slot->home->taken;
    slot->next = free_;
    free_ = slot;
}

void PZPayloadStore::Grow() noexcept {
    auto* const slots = new (std::nothrow) Slots;
    if (slots == nullptr) return;
    slots->taken = 0;
    slots->next = all_;
    all_ = slots;
    // The first one is taken first.
    for (auto slot = slots->slots.rbegin(); slot != slots->slots.rend(); ++slot) {
        slot->home = slots;
        slot->next = free_;
        free_ = &*slot;
    }
}
