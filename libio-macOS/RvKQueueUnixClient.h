/// The endpoint for an outgoing Unix-domain connection.
#ifndef RV_LIBIO_RVKQUEUE_UNIX_CLIENT_H
#define RV_LIBIO_RVKQUEUE_UNIX_CLIENT_H

#include <memory>

#include "libio-macOS/RvKQueueStreamSocket.h"

/// A stream socket that makes and owns its socket. RvKQueue::createUnixClient(path) makes one and connects
/// it:
///
/// path  zero-terminated, at most 103 bytes; copied. A longer one fails at creation.
/// A peer that refuses, or is not there, shows as event 3 after startObject. See docs/engine.md, "TCP client
/// and Unix client".
class RvKQueueUnixClient : public RvKQueueStreamSocket {
  public:
    /// An endpoint without a socket; null without memory.
    static std::shared_ptr<RvKQueueUnixClient> initWithParent(const std::shared_ptr<RvKQueue>& parent,
                                                              const OsLog& logger) noexcept;
    /// For initWithParent.
    RvKQueueUnixClient(std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept;

    /// Makes the socket and starts the connection. Returns false when there is no descriptor left or the path
    /// is too long; the socket, if there is one, is then closed by stop.
    bool connectToPath(const char* path) noexcept;
};

#endif
