#include "libio-macOS/RvKQueueTCPClient.h"

#include <utility>

#include "libio-macOS/MakeEndpoint.h"
#include "libio-macOS/RvKQueue.h"
#include "platform/stream_socket.h"

std::shared_ptr<RvKQueueTCPClient> RvKQueue::createTCPClient(const struct sockaddr* address) noexcept {
    auto endpoint = RvKQueueTCPClient::initWithParent(shared_from_this(), logger);
    if (endpoint && !endpoint->connectToAddress(address)) {
        endpoint->stop();
        endpoint.reset();
    }
    if (!endpoint) {
        RV_LOG_ERROR(logger, "cannot initialize TCP socket object");
        return nullptr;
    }
    addActiveObject(endpoint);
    logInet("TCP Client", address, endpoint.get());
    return endpoint;
}

std::shared_ptr<RvKQueueTCPClient> RvKQueueTCPClient::initWithParent(const std::shared_ptr<RvKQueue>& parent,
                                                                     const OsLog& logger) noexcept {
    auto endpoint = makeEndpoint<RvKQueueTCPClient>(parent, logger);
    return endpoint && endpoint->isUsable() ? endpoint : nullptr;
}

RvKQueueTCPClient::RvKQueueTCPClient(std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept
    : RvKQueueStreamSocket(-1, true, false, std::move(parentLoop), log) {}

bool RvKQueueTCPClient::connectToAddress(const struct sockaddr* address) noexcept {
    sock = makeStreamSocket(address->sa_family);
    return sock != -1 && connectTo(address);
}
