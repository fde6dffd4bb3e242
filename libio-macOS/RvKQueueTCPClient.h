/// The endpoint for an outgoing TCP connection.
#ifndef RV_LIBIO_RVKQUEUE_TCP_CLIENT_H
#define RV_LIBIO_RVKQUEUE_TCP_CLIENT_H

#include <sys/socket.h>

#include <memory>

#include "libio-macOS/RvKQueueStreamSocket.h"

/// A stream socket that makes and owns its socket. RvKQueue::createTCPClient(address) makes one and starts
/// the connection:
///
/// address  IPv4 or IPv6 address and port, in network byte order; copied
/// A peer that refuses, or never answers, shows as event 3 after startObject; an address that cannot be tried
/// at all fails at creation. See docs/engine.md, "TCP client and Unix client".
class RvKQueueTCPClient : public RvKQueueStreamSocket {
  public:
    /// An endpoint without a socket; null without memory.
    static std::shared_ptr<RvKQueueTCPClient> initWithParent(const std::shared_ptr<RvKQueue>& parent,
                                                             const OsLog& logger) noexcept;
    /// For initWithParent.
    RvKQueueTCPClient(std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept;

    /// Makes the socket and starts the connection. Returns false when there is no descriptor left or the
    /// connection cannot be tried; the socket, if there is one, is then closed by stop.
    bool connectToAddress(const struct sockaddr* address) noexcept;
};

#endif
