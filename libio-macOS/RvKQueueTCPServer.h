/// The endpoint for a listening TCP socket.
#ifndef RV_LIBIO_RVKQUEUE_TCP_SERVER_H
#define RV_LIBIO_RVKQUEUE_TCP_SERVER_H

#include <sys/socket.h>

#include <cstdint>
#include <memory>

#include "libio-macOS/EventBlockSlot.h"
#include "libio-macOS/ParentLoop.h"
#include "libio-macOS/RvKQueueEventProtocol.h"
#include "platform/oslog.h"

class RvKQueue;

/// Accepts one connection for each event and offers it as an AcceptedConnection with the peer's address. A
/// block that returns true owns the descriptor, typically by wrapping it with createStreamSocket; after false
/// the endpoint shuts it down and closes it.
///
/// RvKQueue::createTCPServer(address) makes one:
///
/// address  IPv4 or IPv6 address and port to listen at, in network byte order; copied. It may be in use by
///          other sockets that have, like this one, SO_REUSEPORT.
/// Up to 128 connections wait to be accepted. See docs/engine.md, "TCP server".
class RvKQueueTCPServer : public RvKQueueEventProtocol {
  public:
    /// Makes a socket listening at `address`. Returns its descriptor, which the caller owns, or -1. Any
    /// thread.
    static std::int32_t listenSocket(const struct sockaddr* address) noexcept;

    /// A listening endpoint; null when listenSocket fails or without memory.
    static std::shared_ptr<RvKQueueTCPServer> initWithSockaddr(const struct sockaddr* address,
                                                               const std::shared_ptr<RvKQueue>& parent,
                                                               const OsLog& logger) noexcept;
    /// For initWithSockaddr.
    RvKQueueTCPServer(std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept;

    void enableOnData(EventBlock block) noexcept override;
    void kevent(const struct kevent* record) noexcept override;
    /// Does nothing: a listening socket takes no output.
    void write(const void* bytes, std::uint64_t size) noexcept override;
    void stop() noexcept override;

    /// Fills in a change record for the socket's read filter.
    void initReadEvent(struct kevent* record, std::uint16_t flags) noexcept;

  private:
    void submitRead(std::uint16_t flags) noexcept;

    ParentLoop parent;
    OsLog logger;
    std::int32_t sock = -1;  ///< owned; closed by stop
    EventBlockSlot eventBlock;
};

#endif
