#include "PZPayloadStore.h"

#include <functional>
#include <new>

PZPayloadStore::~PZPayloadStore() {
    CountFree(free_);
    CountFree(given_.load(std::memory_order_acquire));
    while (all_ != nullptr) {
        Slots* const slots = all_;
        all_ = slots->next;
        if (slots->free == slots->slots.size()) delete slots;
    }
}

/// Counts the free slots from `slot` on in their own Slots.
void PZPayloadStore::CountFree(const Slot* slot) noexcept {
    for (; slot != nullptr; slot = slot->next) {
        Slots* home = all_;
        while (std::less<>()(slot, home->slots.begin()) ||
               !std::less<>()(slot, home->slots.end())) {
            home = home->next;
        }
        ++home->free;
    }
}

/// Fetches what was given back, or makes more; free_ stays null without memory.
void PZPayloadStore::Refill() noexcept {
    free_ = given_.exchange(nullptr, std::memory_order_acquire);
    if (free_ == nullptr) Grow();
}

void PZPayloadStore::GiveBack(const void* bytes) noexcept {
    auto* const slot = static_cast<Slot*>(const_cast<void*>(bytes));
    slot->next = free_;
    free_ = slot;
}

void PZPayloadStore::Give(Spent& spent) noexcept {
    if (spent.first_ == nullptr) return;
    Slot*& next = spent.last_->next;
    next = given_.load(std::memory_order_relaxed);
    while (!given_.compare_exchange_weak(next, spent.first_, std::memory_order_release,
                                         std::memory_order_relaxed)) {
    }
    spent = Spent();
}

void PZPayloadStore::Grow() noexcept {
    auto* const slots = new (std::nothrow) Slots;
    if (slots == nullptr) return;
    slots->free = 0;
    slots->next = all_;
    all_ = slots;
    // The first one is taken first.
    for (auto slot = slots->slots.rbegin(); slot != slots->slots.rend(); ++slot) {
        slot->next = free_;
        free_ = &*slot;
    }
}
