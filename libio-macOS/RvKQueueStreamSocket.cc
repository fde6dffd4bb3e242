#include "libio-macOS/RvKQueueStreamSocket.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "libio-macOS/BufferedInput.h"
#include "libio-macOS/FilterRecord.h"
#include "libio-macOS/MakeEndpoint.h"
#include "libio-macOS/RvKQueue.h"
#include "platform/socket_address.h"
#include "platform/stream_socket.h"

std::shared_ptr<RvKQueueStreamSocket> RvKQueue::createStreamSocket(std::int32_t sock,
                                                                   bool closeOnStop) noexcept {
    auto endpoint = RvKQueueStreamSocket::initWithSocket(sock, closeOnStop, shared_from_this(), logger);
    if (!endpoint) {
        RV_LOG_ERROR(logger, "cannot initialize stream socket object");
        return nullptr;
    }
    addActiveObject(endpoint);
    RV_LOG_DEBUG(logger, "<%p>: stream socket(%d) created", static_cast<void*>(endpoint.get()), sock);
    return endpoint;
}

std::shared_ptr<RvKQueueStreamSocket> RvKQueueStreamSocket::initWithSocket(
    std::int32_t sock, bool closeOnStop, const std::shared_ptr<RvKQueue>& parent,
    const OsLog& logger) noexcept {
    auto endpoint = makeEndpoint<RvKQueueStreamSocket>(sock, closeOnStop, true, parent, logger);
    return endpoint && endpoint->isUsable() ? endpoint : nullptr;
}

RvKQueueStreamSocket::RvKQueueStreamSocket(std::int32_t ownedSock, bool shouldCloseOnStop, bool connected,
                                           std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept
    : parent(std::move(parentLoop)),
      logger(log),
      sock(ownedSock),
      closeOnStop(shouldCloseOnStop),
      isConnected(connected) {}

bool RvKQueueStreamSocket::connectTo(const struct sockaddr* address) noexcept {
    isConnected = false;
    const int flags = fcntl(sock, F_GETFL);
    if (flags == -1) return false;
    if (fcntl(sock, F_SETFL, flags | O_NONBLOCK) == -1) return false;
    const int result = connectStreamSocket(sock, address, socketAddressLength(address));
    const int error = errno;
    // Deliberate: blocking mode whatever the mode was before; reads and writes never ask for more than is
    // there. Held by RvKQueueUnixClientConnect.SocketIsBlockingAfterwards.
    (void)fcntl(sock, F_SETFL, flags & ~O_NONBLOCK);
    isConnected = result == 0;
    return result == 0 || error == EINPROGRESS;
}

void RvKQueueStreamSocket::enableOnData(EventBlock block) noexcept {
    // The pointer keeps the block alive should it stop its own endpoint from within event 0.
    const EventBlockSlot::Pointer stored = eventBlock.set(std::move(block));
    if (!stored) return;
    if (!isConnected) {
        submitWrite(kArmFlags);
    } else if (*stored) {
        (void)(*stored)(this, nullptr, 0, nullptr, kEventConnected);
    }
    submitRead(kArmFlags);
}

void RvKQueueStreamSocket::kevent(const struct kevent* record) noexcept {
    if (isRefusedFilter(*record)) {
        failToArm();
    } else if (record->filter == EVFILT_READ && isConnected) {
        receive(record->data);
    } else if (record->filter == EVFILT_WRITE && !isConnected) {
        finishConnecting(record->flags);
    } else if (record->filter == EVFILT_WRITE) {
        flush(record->data);
    }
}

// Without its filter the endpoint would be silent for ever. The record's data is an error number, not a
// count.
void RvKQueueStreamSocket::failToArm() noexcept {
    if (isConnected) {
        callEvent(kEventClosed);
    } else {
        deliverPlain(eventBlock, this, kEventConnectFailed);
    }
}

// Deliberate: the filter stays armed after the end, which is reported each turn until the owner stops the
// endpoint. Held by RvKQueueStreamSocketRun.ThePeersCloseIsEventTwoUntilRetired.
void RvKQueueStreamSocket::receive(std::int64_t available) noexcept {
    const Received received = readAvailable(sock, available, &rx);
    if (received != Received::kNothing) callEvent(received == Received::kBytes ? kEventData : kEventClosed);
}

// The write filter stays armed: it goes away when it fires next and finds nothing to send.
void RvKQueueStreamSocket::finishConnecting(std::uint16_t flags) noexcept {
    if ((flags & EV_EOF) != 0) {
        deliverPlain(eventBlock, this, kEventConnectFailed);
    } else {
        isConnected = true;
        deliverPlain(eventBlock, this, kEventConnected);
    }
}

void RvKQueueStreamSocket::flush(std::int64_t room) noexcept {
    const PendingOutput::Flushed result = tx.flush(sock, room, false);
    if (result.tried >= 1 && result.written < 1) callEvent(kEventClosed);
    if (result.remaining == 0) disarmWrite();
}

// Another thread may have queued bytes since the flush, and its arming may stand before the disarming in the
// list of changes: the filter is then armed once more. Held by
// LifecycleStress.AWriteThatMeetsTheEndOfAFlushIsSent.
void RvKQueueStreamSocket::disarmWrite() noexcept {
    submitWrite(kDisarmFlags);
    if (!tx.isEmpty()) submitWrite(kArmFlags);
}

void RvKQueueStreamSocket::write(const void* bytes, std::uint64_t size) noexcept {
    if (size == 0) return;
    tx.append(bytes, size, parent.isHere());
    submitWrite(kArmFlags);
}

void RvKQueueStreamSocket::writeShared(std::string_view head, SharedBytes body,
                                       std::string_view tail) noexcept {
    tx.append(head, std::move(body), tail);
    submitWrite(kArmFlags);
}

void RvKQueueStreamSocket::stop() noexcept {
    RV_LOG_DEBUG(logger, "<%p>: stop", static_cast<void*>(this));
    if (sock != -1) {
        if (closeOnStop) {
            (void)shutdown(sock, SHUT_RDWR);  // fails when the peer is gone already
            (void)close(sock);                // nothing is left to undo
        } else {
            submitRead(kDisarmFlags);
            submitWrite(kDisarmFlags);
        }
    }
    eventBlock.clear();
}

void RvKQueueStreamSocket::callEvent(std::int32_t event) noexcept {
    deliverBuffered(eventBlock, this, &rx, event);
}

void RvKQueueStreamSocket::initReadEvent(struct kevent* record, std::uint16_t flags) noexcept {
    initFilterRecord(record, sock, EVFILT_READ, flags, this);
}

void RvKQueueStreamSocket::initWriteEvent(struct kevent* record, std::uint16_t flags) noexcept {
    initFilterRecord(record, sock, EVFILT_WRITE, flags, this);
}

void RvKQueueStreamSocket::submitRead(std::uint16_t flags) noexcept {
    struct kevent record;
    initReadEvent(&record, flags);
    parent.submit(record);
}

void RvKQueueStreamSocket::submitWrite(std::uint16_t flags) noexcept {
    struct kevent record;
    initWriteEvent(&record, flags);
    parent.submit(record);
}
