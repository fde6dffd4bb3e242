#include "libio-macOS/RvKQueueTCPServer.h"

#include <unistd.h>

#include <utility>

#include "libio-macOS/AcceptedConnection.h"
#include "libio-macOS/FilterRecord.h"
#include "libio-macOS/Listening.h"
#include "libio-macOS/MakeEndpoint.h"
#include "libio-macOS/RvKQueue.h"
#include "platform/socket_address.h"
#include "platform/stream_socket.h"

std::shared_ptr<RvKQueueTCPServer> RvKQueue::createTCPServer(const struct sockaddr* address) noexcept {
    auto endpoint = RvKQueueTCPServer::initWithSockaddr(address, shared_from_this(), logger);
    if (!endpoint) {
        RV_LOG_ERROR(logger, "cannot initialize TCP server socket object");
        return nullptr;
    }
    addActiveObject(endpoint);
    logInet("TCP Server", address, endpoint.get());
    return endpoint;
}

std::int32_t RvKQueueTCPServer::listenSocket(const struct sockaddr* address) noexcept {
    const int made = makeStreamSocket(address->sa_family);
    if (made == -1) return -1;
    const std::int32_t on = 1;
    // Without these the bind below may fail, which is then reported.
    (void)setsockopt(made, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    (void)setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(made, address, socketAddressLength(address)) == 0 && listen(made, kListenBacklog) == 0)
        return made;
    (void)close(made);  // nothing is left to undo
    return -1;
}

std::shared_ptr<RvKQueueTCPServer> RvKQueueTCPServer::initWithSockaddr(
    const struct sockaddr* address, const std::shared_ptr<RvKQueue>& parent, const OsLog& logger) noexcept {
    auto endpoint = makeEndpoint<RvKQueueTCPServer>(parent, logger);
    if (!endpoint) return nullptr;
    endpoint->sock = listenSocket(address);
    return endpoint->sock != -1 ? endpoint : nullptr;
}

RvKQueueTCPServer::RvKQueueTCPServer(std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept
    : parent(std::move(parentLoop)), logger(log) {}

void RvKQueueTCPServer::enableOnData(EventBlock block) noexcept {
    if (eventBlock.set(std::move(block))) submitRead(kArmFlags);
}

void RvKQueueTCPServer::kevent(const struct kevent* record) noexcept {
    if (record->filter != EVFILT_READ) return;
    AcceptedConnection accepted = {};
    socklen_t length = sizeof accepted.peer.address;
    auto* const peer = reinterpret_cast<struct sockaddr*>(&accepted.peer.address);
    accepted.descriptor = isRefusedFilter(*record) ? -1 : acceptStreamSocket(sock, peer, &length);
    if (accepted.descriptor == -1) {
        RV_LOG_ERROR(logger, "<%p>: cannot accept inet connection", static_cast<void*>(this));
        return;
    }
    offerConnection(eventBlock, this, accepted);
}

void RvKQueueTCPServer::write(const void*, std::uint64_t) noexcept {}

void RvKQueueTCPServer::stop() noexcept {
    RV_LOG_DEBUG(logger, "<%p>: stop", static_cast<void*>(this));
    submitRead(kDisarmFlags);
    (void)close(sock);  // nothing is left to undo
    eventBlock.clear();
}

void RvKQueueTCPServer::initReadEvent(struct kevent* record, std::uint16_t flags) noexcept {
    initFilterRecord(record, sock, EVFILT_READ, flags, this);
}

void RvKQueueTCPServer::submitRead(std::uint16_t flags) noexcept {
    struct kevent record;
    initReadEvent(&record, flags);
    parent.submit(record);
}
