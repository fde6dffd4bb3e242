/// The endpoint for a listening Unix-domain socket.
#ifndef RV_LIBIO_RVKQUEUE_UNIX_SERVER_H
#define RV_LIBIO_RVKQUEUE_UNIX_SERVER_H

#include <cstdint>
#include <memory>

#include "libio-macOS/EventBlockSlot.h"
#include "libio-macOS/ParentLoop.h"
#include "libio-macOS/RvKQueueEventProtocol.h"
#include "platform/oslog.h"

class RvKQueue;

/// Accepts one connection for each event and offers it as an AcceptedConnection with the peer's credentials.
/// A block that returns true owns the descriptor, typically by wrapping it with createStreamSocket; after
/// false the endpoint shuts it down and closes it. A peer without readable credentials is turned away
/// unoffered.
///
/// RvKQueue::createUnixServer(path, perm) makes one:
///
/// path  zero-terminated, 1 to 103 bytes; whatever is there is unlinked first. The socket file stays behind
///       when the endpoint stops.
/// perm  the file's mode, exactly: the process's umask does not apply
/// Up to 128 connections wait to be accepted. See docs/engine.md, "Unix server".
class RvKQueueUnixServer : public RvKQueueEventProtocol {
  public:
    /// Makes a socket listening at `path`. Returns its descriptor, which the caller owns, or -1. Any thread.
    static std::int32_t listenSocket(const char* path, std::uint16_t perm) noexcept;

    /// A listening endpoint; null when listenSocket fails or without memory.
    static std::shared_ptr<RvKQueueUnixServer> initWithPath(const char* path, std::uint16_t perm,
                                                            const std::shared_ptr<RvKQueue>& parent,
                                                            const OsLog& logger) noexcept;
    /// For initWithPath.
    RvKQueueUnixServer(std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept;

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
