/// The place where an endpoint keeps its event block.
#ifndef RV_LIBIO_EVENT_BLOCK_SLOT_H
#define RV_LIBIO_EVENT_BLOCK_SLOT_H

#include <memory>

#include "libio-macOS/RvKQueueEventProtocol.h"
#include "platform/lock.h"

/// Holds at most one block. Any thread may set, clear or get: whoever is calling the block keeps it alive by
/// the pointer that get returned, so that a block may be replaced or dropped while it runs.
class EventBlockSlot {
  public:
    using Pointer = std::shared_ptr<const EventBlock>;

    /// Takes the memory for the first block, so that a lack of it shows while the owner can still be refused.
    EventBlockSlot() noexcept;
    /// False when there was none; set() then tries again.
    bool isUsable() const noexcept;

    /// Stores the block in the place of the one before and returns it; null without memory, and then the slot
    /// is as it was. The first block of a usable slot is always stored.
    Pointer set(EventBlock block) noexcept;
    /// Drops the block. Its captures go away on the calling thread, or when the last running call returns.
    void clear() noexcept;
    /// The block, or null when there is none.
    Pointer get() const noexcept;

  private:
    Pointer exchange(Pointer next) noexcept;

    std::shared_ptr<EventBlock> takeSpare() noexcept;

    mutable Lock slotLock;
    std::shared_ptr<EventBlock> spare RV_GUARDED_BY(slotLock);  ///< for the first block; null once it is used
    Pointer block RV_GUARDED_BY(slotLock);
};

#endif
