#include "libio-macOS/RvKQueueUnixClient.h"

#include <cstring>
#include <utility>

#include "libio-macOS/MakeEndpoint.h"
#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/UnixPath.h"
#include "platform/socket_address.h"
#include "platform/stream_socket.h"

std::shared_ptr<RvKQueueUnixClient> RvKQueue::createUnixClient(const char* path) noexcept {
    auto endpoint = RvKQueueUnixClient::initWithParent(shared_from_this(), logger);
    if (endpoint && !endpoint->connectToPath(path)) {
        endpoint->stop();
        endpoint.reset();
    }
    if (endpoint) addActiveObject(endpoint);
    if (endpoint && !isActive(endpoint.get())) {
        endpoint->stop();  // without being registered it would be silent for ever
        endpoint.reset();
    }
    if (!endpoint) {
        RV_LOG_ERROR(logger, "cannot initialize unix socket object");
        return nullptr;
    }
    RV_LOG_DEBUG(logger, "<%p>: unix(%s) created", static_cast<void*>(endpoint.get()), path);
    return endpoint;
}

std::shared_ptr<RvKQueueUnixClient> RvKQueueUnixClient::initWithParent(
    const std::shared_ptr<RvKQueue>& parent, const OsLog& logger) noexcept {
    auto endpoint = makeEndpoint<RvKQueueUnixClient>(parent, logger);
    return endpoint && endpoint->isUsable() ? endpoint : nullptr;
}

RvKQueueUnixClient::RvKQueueUnixClient(std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept
    : RvKQueueStreamSocket(-1, true, false, std::move(parentLoop), log) {}

bool RvKQueueUnixClient::connectToPath(const char* path) noexcept {
    sock = makeStreamSocket(AF_UNIX);
    if (sock == -1) return false;
    if (std::strlen(path) > kMaxUnixPathBytes) return false;
    struct sockaddr_un address;
    makeUnixAddress(path, &address);
    return connectTo(reinterpret_cast<const struct sockaddr*>(&address));
}
