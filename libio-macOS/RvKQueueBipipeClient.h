/// The endpoint for a bidirectional channel made of two descriptors, one read and one written.
#ifndef RV_LIBIO_RVKQUEUE_BIPIPE_CLIENT_H
#define RV_LIBIO_RVKQUEUE_BIPIPE_CLIENT_H

#include <cstdint>
#include <memory>

#include "libio-macOS/ByteBuffer.h"
#include "libio-macOS/EventBlockSlot.h"
#include "libio-macOS/ParentLoop.h"
#include "libio-macOS/PendingOutput.h"
#include "libio-macOS/RvKQueueEventProtocol.h"
#include "platform/oslog.h"

class RvKQueue;

/// Works as a connected RvKQueueStreamSocket does, on the ends of two pipes for instance.
///
/// Events: 0 inside startObject, 1 with received bytes, 2 at the end of input and when a read or write has
/// failed. After 2 the endpoint is not disarmed: the owner calls stopObject.
///
/// RvKQueue::createBipipeClient(descriptors, closeOnStop) makes one:
///
/// descriptors  two of them: what to read from, then what to write to; their blocking mode is left alone
/// closeOnStop  whether the endpoint owns and closes both; otherwise stop only removes the filters
/// See docs/engine.md, "Descriptor pair", also for the event 2 of a write side that is ready without need.
class RvKQueueBipipeClient : public RvKQueueEventProtocol {
  public:
    /// An endpoint; null without memory.
    static std::shared_ptr<RvKQueueBipipeClient> initWithIndesc(std::int32_t indesc, std::int32_t outdesc,
                                                                bool closeOnStop,
                                                                const std::shared_ptr<RvKQueue>& parent,
                                                                const OsLog& logger) noexcept;
    /// For initWithIndesc.
    RvKQueueBipipeClient(std::int32_t indesc, std::int32_t outdesc, bool shouldCloseOnStop,
                         std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept;

    void enableOnData(EventBlock block) noexcept override;
    void kevent(const struct kevent* record) noexcept override;
    void write(const void* bytes, std::uint64_t size) noexcept override;
    void stop() noexcept override;
    bool takesUncounted() const noexcept override { return true; }

    /// Buffered delivery of all received bytes with the given event code. The I/O thread.
    void callEvent(std::int32_t event) noexcept;

    /// Fill in a change record for the read filter of the one descriptor or the write filter of the other.
    void initReadEvent(struct kevent* record, std::uint16_t flags) noexcept;
    void initWriteEvent(struct kevent* record, std::uint16_t flags) noexcept;

  private:
    void flush(std::int64_t room) noexcept;
    void disarmWrite() noexcept;
    void submitRead(std::uint16_t flags) noexcept;
    void submitWrite(std::uint16_t flags) noexcept;

    ParentLoop parent;
    OsLog logger;
    const std::int32_t infd;
    const std::int32_t outfd;
    const bool closeOnStop;
    ByteBuffer rx;     ///< received and not yet consumed; the I/O thread's alone
    PendingOutput tx;  ///< with its lock, txlock
    EventBlockSlot eventBlock;
};

#endif
