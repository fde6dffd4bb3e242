#include "libio-macOS/RvKQueueUnixServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "libio-macOS/AcceptedConnection.h"
#include "libio-macOS/FilterRecord.h"
#include "libio-macOS/Listening.h"
#include "libio-macOS/MakeEndpoint.h"
#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/UnixPath.h"
#include "platform/peer_credentials.h"
#include "platform/socket_address.h"
#include "platform/stream_socket.h"

std::shared_ptr<RvKQueueUnixServer> RvKQueue::createUnixServer(const char* path,
                                                               std::uint16_t perm) noexcept {
    auto endpoint = RvKQueueUnixServer::initWithPath(path, perm, shared_from_this(), logger);
    if (!endpoint) {
        RV_LOG_ERROR(logger, "cannot initialize unix server socket object");
        return nullptr;
    }
    addActiveObject(endpoint);
    RV_LOG_DEBUG(logger, "<%p>: unix server(%s) created", static_cast<void*>(endpoint.get()), path);
    return endpoint;
}

std::int32_t RvKQueueUnixServer::listenSocket(const char* path, std::uint16_t perm) noexcept {
    const std::size_t pathBytes = std::strlen(path);
    // Without a name some systems make up an address that no file shows; others refuse it. Refuse it on all.
    if (pathBytes == 0 || pathBytes > kMaxUnixPathBytes) return -1;
    const int made = makeStreamSocket(AF_UNIX);
    if (made == -1) return -1;
    (void)unlink(path);  // usually there is none
    struct sockaddr_un address;
    makeUnixAddress(path, &address);
    const auto* const bindable = reinterpret_cast<const struct sockaddr*>(&address);
    if (bind(made, bindable, socketAddressLength(bindable)) == 0) {
        (void)chmod(path, perm);  // whoever may not connect will notice
        if (listen(made, kListenBacklog) == 0) return made;
    }
    (void)close(made);  // nothing is left to undo
    return -1;
}

std::shared_ptr<RvKQueueUnixServer> RvKQueueUnixServer::initWithPath(const char* path, std::uint16_t perm,
                                                                     const std::shared_ptr<RvKQueue>& parent,
                                                                     const OsLog& logger) noexcept {
    auto endpoint = makeEndpoint<RvKQueueUnixServer>(parent, logger);
    if (!endpoint) return nullptr;
    endpoint->sock = listenSocket(path, perm);
    return endpoint->sock != -1 ? endpoint : nullptr;
}

RvKQueueUnixServer::RvKQueueUnixServer(std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept
    : parent(std::move(parentLoop)), logger(log) {}

void RvKQueueUnixServer::enableOnData(EventBlock block) noexcept {
    if (eventBlock.set(std::move(block))) submitRead(kArmFlags);
}

void RvKQueueUnixServer::kevent(const struct kevent* record) noexcept {
    if (record->filter != EVFILT_READ) return;
    AcceptedConnection accepted = {};
    struct sockaddr_storage address;
    socklen_t length = sizeof address;
    auto* const peer = reinterpret_cast<struct sockaddr*>(&address);
    accepted.descriptor = isRefusedFilter(*record) ? -1 : acceptStreamSocket(sock, peer, &length);
    if (accepted.descriptor == -1) {
        RV_LOG_ERROR(logger, "<%p>: cannot accept unix connection", static_cast<void*>(this));
        return;
    }
    if (!getPeerCredentials(accepted.descriptor, &accepted.peer.credentials)) {
        refuseConnection(accepted.descriptor);
        return;
    }
    offerConnection(eventBlock, this, accepted);
}

void RvKQueueUnixServer::write(const void*, std::uint64_t) noexcept {}

void RvKQueueUnixServer::stop() noexcept {
    RV_LOG_DEBUG(logger, "<%p>: stop", static_cast<void*>(this));
    submitRead(kDisarmFlags);
    (void)close(sock);  // nothing is left to undo
    eventBlock.clear();
}

void RvKQueueUnixServer::initReadEvent(struct kevent* record, std::uint16_t flags) noexcept {
    initFilterRecord(record, sock, EVFILT_READ, flags, this);
}

void RvKQueueUnixServer::submitRead(std::uint16_t flags) noexcept {
    struct kevent record;
    initReadEvent(&record, flags);
    parent.submit(record);
}
