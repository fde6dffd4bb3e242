#include "libio-macOS/EventBlockSlot.h"

#include <new>
#include <utility>

namespace {

std::shared_ptr<EventBlock> makeBlock() noexcept try {
    return std::make_shared<EventBlock>();
} catch (const std::bad_alloc&) {
    return nullptr;
}

}  // namespace

EventBlockSlot::EventBlockSlot() noexcept : spare(makeBlock()) {}

bool EventBlockSlot::isUsable() const noexcept {
    const LockGuard guard(slotLock);
    return spare || block;
}

std::shared_ptr<EventBlock> EventBlockSlot::takeSpare() noexcept {
    const LockGuard guard(slotLock);
    return std::move(spare);
}

// What was stored before is destroyed by the callers of exchange, after the lock is released: its captures
// may have destructors that come back to the endpoint.
EventBlockSlot::Pointer EventBlockSlot::exchange(Pointer next) noexcept {
    const LockGuard guard(slotLock);
    block.swap(next);
    current.store(block.get(), std::memory_order_relaxed);
    return next;
}

EventBlockSlot::Pointer EventBlockSlot::set(EventBlock newBlock) noexcept {
    std::shared_ptr<EventBlock> next = takeSpare();
    if (!next) next = makeBlock();
    if (!next) return nullptr;
    *next = std::move(newBlock);
    (void)exchange(next);
    return next;
}

void EventBlockSlot::clear() noexcept {
    const Pointer dropped = std::move(lastUsed);
    (void)exchange(nullptr);
}

// The reference that lastUsed holds keeps its address from being given to another block.
EventBlockSlot::Pointer EventBlockSlot::take() noexcept {
    if (lastUsed && lastUsed.get() == current.load(std::memory_order_relaxed)) return std::move(lastUsed);
    const LockGuard guard(slotLock);
    return block;
}

void EventBlockSlot::giveBack(Pointer used) noexcept {
    if (used.get() == current.load(std::memory_order_relaxed)) lastUsed = std::move(used);
}
