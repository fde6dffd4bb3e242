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

    /// Stores the block in the place of the one before and returns it; null without memory, and then the slot
    /// is as it was.
    Pointer set(EventBlock block) noexcept;
    /// Drops the block. Its captures go away on the calling thread, or when the last running call returns.
    void clear() noexcept;
    /// The block, or null when there is none.
    Pointer get() const noexcept;

  private:
    Pointer exchange(Pointer next) noexcept;

    mutable Lock slotLock;
    Pointer block RV_GUARDED_BY(slotLock);
};

#endif
