#include "libio-macOS/EventBlockSlot.h"

#include <new>
#include <utility>

// What was stored before is destroyed by the callers of exchange, after the lock is released: its captures
// may have destructors that come back to the endpoint.
EventBlockSlot::Pointer EventBlockSlot::exchange(Pointer next) noexcept {
    const LockGuard guard(slotLock);
    block.swap(next);
    return next;
}

EventBlockSlot::Pointer EventBlockSlot::set(EventBlock newBlock) noexcept try {
    auto next = std::make_shared<const EventBlock>(std::move(newBlock));
    (void)exchange(next);
    return next;
} catch (const std::bad_alloc&) {
    return nullptr;
}

void EventBlockSlot::clear() noexcept {
    (void)exchange(nullptr);
}

EventBlockSlot::Pointer EventBlockSlot::get() const noexcept {
    const LockGuard guard(slotLock);
    return block;
}
