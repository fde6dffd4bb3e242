/// The place where an endpoint keeps its event block.
#ifndef RV_LIBIO_EVENT_BLOCK_SLOT_H
#define RV_LIBIO_EVENT_BLOCK_SLOT_H

#include <atomic>
#include <memory>
#include <utility>

#include "libio-macOS/RvKQueueEventProtocol.h"
#include "platform/lock.h"

/// Holds at most one block. Any thread may set or clear it, also while it runs: whoever calls it keeps it
/// alive.
class EventBlockSlot {
  public:
    using Pointer = std::shared_ptr<const EventBlock>;

    /// The block for the time of one call, which it survives. The I/O thread, or another one while there is
    /// no such thread.
    class Use {
      public:
        explicit Use(EventBlockSlot& usedSlot) noexcept : slot(usedSlot), block(usedSlot.take()) {}
        ~Use() { slot.giveBack(std::move(block)); }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;

        /// Whether there is a block to call.
        explicit operator bool() const noexcept { return block && *block; }
        const EventBlock& operator*() const noexcept { return *block; }

      private:
        EventBlockSlot& slot;
        Pointer block;
    };

    /// Takes the memory for the first block, so that a lack of it shows while the owner can still be refused.
    EventBlockSlot() noexcept;
    /// False when there was none; set() then tries again.
    bool isUsable() const noexcept;

    /// Stores the block in the place of the one before and returns it; null without memory, and then the slot
    /// is as it was. The first block of a usable slot is always stored. What the one before had captured goes
    /// away with the next use.
    Pointer set(EventBlock block) noexcept;
    /// Drops the block. Its captures go away on the calling thread, or when the running call returns. The
    /// thread that uses the block, or another one while there is no such thread.
    void clear() noexcept;

  private:
    Pointer take() noexcept;
    void giveBack(Pointer block) noexcept;
    Pointer exchange(Pointer next) noexcept;
    std::shared_ptr<EventBlock> takeSpare() noexcept;

    mutable Lock slotLock;
    std::shared_ptr<EventBlock> spare RV_GUARDED_BY(slotLock);  ///< for the first block; null once it is used
    Pointer block RV_GUARDED_BY(slotLock);
    /// The address of `block`, written under the lock: shows the user of the block whether it is another one.
    std::atomic<const EventBlock*> current = nullptr;
    /// The block that was used last: as long as it is the current one, a use needs neither lock nor count.
    Pointer lastUsed;
};

#endif
