#include "libio-macOS/ParentLoop.h"

#include "libio-macOS/RvKQueue.h"

// Compares owners instead of locking the weak reference: endpoints ask with each message.
bool ParentLoop::isHere() const noexcept {
    const std::shared_ptr<RvKQueue>* const here = RvKQueue::current();
    return here != nullptr && !loop.owner_before(*here) && !here->owner_before(loop);
}

void ParentLoop::submit(const struct kevent& change) const noexcept {
    if (isHere()) {
        (*RvKQueue::current())->submitChange(change);
    } else if (const auto parent = loop.lock()) {
        parent->submitChange(change);
    }
}
