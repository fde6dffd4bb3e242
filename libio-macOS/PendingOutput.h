/// Output that any thread queues and the I/O thread writes.
#ifndef RV_LIBIO_PENDING_OUTPUT_H
#define RV_LIBIO_PENDING_OUTPUT_H

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "libio-macOS/ByteBuffer.h"
#include "libio-macOS/OutputRun.h"
#include "platform/lock.h"

/// The send queue of an endpoint with the lock that guards it. No other lock is taken while it is held, and
/// it is not held during a write: the reader that a write wakes is often the thread that queues next.
class PendingOutput {
  public:
    /// What one flush did.
    struct Flushed {
        std::size_t tried;      ///< bytes handed to write(2)
        ssize_t written;        ///< what it returned; -1 also when queued bytes were lost for lack of memory
        std::size_t remaining;  ///< bytes still queued
        bool isFull = false;    ///< there was no room after all: no event to speak of
    };

    /// False when the lock could not be created.
    bool isUsable() const noexcept { return txlock.isUsable(); }

    /// Queues a copy. Without memory the bytes are lost and every later flush reports a write error: the
    /// stream has a hole and must not go on. Any thread.
    ///
    /// onIoThread  whether the caller is the I/O thread, which needs no lock to queue behind its own bytes
    void append(const void* bytes, std::uint64_t size, bool onIoThread) noexcept;

    /// Queues a copy of `head`, then the bytes of `body` themselves, then a copy of `tail`, with nothing
    /// between. A body that meets another one in the queue is copied as well. Any thread; without memory as
    /// above.
    void append(std::string_view head, SharedBytes body, std::string_view tail) noexcept;

    /// Whether nothing is queued. The I/O thread.
    bool isEmpty() const noexcept { return remaining() == 0; }

    /// Writes queued bytes to the descriptor: one write(2) of at most `room` bytes, and none if there is
    /// nothing to write unless `evenIfEmpty`, in which case a write of 0 bytes is made. What was written
    /// leaves the queue. The I/O thread.
    ///
    /// room  bytes that the kernel has reported to take without blocking; less than 0 counts as 0.
    ///       KEVENT_UNCOUNTED stands for as many as a write that does not wait gets rid of
    Flushed flush(int fd, std::int64_t room, bool evenIfEmpty) noexcept;

  private:
    bool takeQueued(std::size_t wanted) noexcept;
    void appendCopy(const void* bytes, std::size_t size) noexcept RV_REQUIRES(txlock);
    void noteQueued() noexcept RV_REQUIRES(txlock);
    std::size_t remaining() const noexcept { return sending.size() + queued.load(std::memory_order_relaxed); }

    mutable RecursiveLock txlock;
    OutputRun tx RV_GUARDED_BY(txlock);
    ByteBuffer behind RV_GUARDED_BY(txlock);  ///< goes out after tx, which is closed while there is any
    /// Bytes in both, for those who only ask whether there are any; lost ones count as one. Written under
    /// txlock.
    std::atomic<std::size_t> queued = 0;
    OutputRun sending;  ///< goes out before tx; the I/O thread's alone
    bool lostBytes RV_GUARDED_BY(txlock) = false;
};

#endif
