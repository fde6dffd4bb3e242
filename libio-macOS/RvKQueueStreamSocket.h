/// The endpoint for one connected, or connecting, stream socket.
#ifndef RV_LIBIO_RVKQUEUE_STREAM_SOCKET_H
#define RV_LIBIO_RVKQUEUE_STREAM_SOCKET_H

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>

#include "libio-macOS/ByteBuffer.h"
#include "libio-macOS/EventBlockSlot.h"
#include "libio-macOS/OutputRun.h"
#include "libio-macOS/ParentLoop.h"
#include "libio-macOS/PendingOutput.h"
#include "libio-macOS/RvKQueueEventProtocol.h"
#include "platform/oslog.h"

class RvKQueue;

/// Buffers input and offers it to the event block, buffers output and writes it as the kernel reports room.
///
/// Events: 0 once the connection stands (inside startObject if it does already), 1 with received bytes, 2
/// when the peer has closed or a read or write has failed, 3 when the pending connection attempt has failed.
/// After 2 and 3 the endpoint is not disarmed: the same event comes again each turn until the owner calls
/// stopObject.
///
/// The socket is in blocking mode and yet never blocks, because a read or write never asks for more bytes
/// than the kernel has just reported. The process must ignore SIGPIPE.
///
/// RvKQueue::createStreamSocket(sock, closeOnStop) makes one from a connected socket, for instance an
/// accepted one. With closeOnStop the endpoint owns the descriptor, and stop shuts it down and closes it;
/// without, stop only removes the filters and the descriptor stays the caller's. Output that is queued when
/// the endpoint is stopped is not sent.
///
/// See docs/engine.md, "Stream socket".
class RvKQueueStreamSocket : public RvKQueueEventProtocol {
  public:
    /// A connected endpoint; null without memory. Nothing is logged and nothing registered: use the factory.
    static std::shared_ptr<RvKQueueStreamSocket> initWithSocket(std::int32_t sock, bool closeOnStop,
                                                                const std::shared_ptr<RvKQueue>& parent,
                                                                const OsLog& logger) noexcept;

    /// For initWithSocket and the like.
    RvKQueueStreamSocket(std::int32_t ownedSock, bool shouldCloseOnStop, bool connected,
                         std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept;

    void enableOnData(EventBlock block) noexcept override;
    void kevent(const struct kevent* record) noexcept override;
    void write(const void* bytes, std::uint64_t size) noexcept override;
    void stop() noexcept override;
    bool takesUncounted() const noexcept override { return true; }

    /// Queues copies of `head` and `tail` and between them the bytes of `body` themselves, which are not
    /// copied: for output so large that a copy costs more than the bookkeeping. The owner is released once
    /// they are sent, or with the endpoint. Without memory for a copy the stream has a hole, which shows as
    /// event 2. Any thread.
    void writeShared(std::string_view head, SharedBytes body, std::string_view tail) noexcept;

    /// Buffered delivery of all received bytes with the given event code. The I/O thread.
    void callEvent(std::int32_t event) noexcept;

    /// Fill in a change record for the socket's read or write filter.
    void initReadEvent(struct kevent* record, std::uint16_t flags) noexcept;
    void initWriteEvent(struct kevent* record, std::uint16_t flags) noexcept;

  protected:
    /// False when a lock or the memory for a block could not be had; the endpoint must then not be used.
    bool isUsable() const noexcept { return tx.isUsable() && eventBlock.isUsable(); }

    /// Starts a connection of `sock` and leaves the socket in blocking mode.
    /// Returns true when the connection stands or is pending, false when it cannot be tried.
    bool connectTo(const struct sockaddr* address) noexcept;

    ParentLoop parent;
    OsLog logger;
    std::int32_t sock;  ///< -1 until a client has made its socket; not reset by stop
    bool closeOnStop;

  private:
    void failToArm() noexcept;
    void receive(std::int64_t available) noexcept;
    void finishConnecting(std::uint16_t flags) noexcept;
    void flush(std::int64_t room) noexcept;
    void disarmWrite() noexcept;
    void submitRead(std::uint16_t flags) noexcept;
    void submitWrite(std::uint16_t flags) noexcept;

    ByteBuffer rx;  ///< received and not yet consumed; the I/O thread's alone
    std::atomic<bool> isConnected;
    PendingOutput tx;  ///< with its lock, txlock
    EventBlockSlot eventBlock;
};

#endif
