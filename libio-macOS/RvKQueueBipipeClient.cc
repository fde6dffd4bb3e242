#include "libio-macOS/RvKQueueBipipeClient.h"

#include <unistd.h>

#include <utility>

#include "libio-macOS/BufferedInput.h"
#include "libio-macOS/FilterRecord.h"
#include "libio-macOS/MakeEndpoint.h"
#include "libio-macOS/RvKQueue.h"

std::shared_ptr<RvKQueueBipipeClient> RvKQueue::createBipipeClient(const std::int32_t* descriptors,
                                                                   bool closeOnStop) noexcept {
    const std::int32_t indesc = descriptors[0];
    const std::int32_t outdesc = descriptors[1];
    auto endpoint =
        RvKQueueBipipeClient::initWithIndesc(indesc, outdesc, closeOnStop, shared_from_this(), logger);
    if (!endpoint) {
        RV_LOG_ERROR(logger, "cannot initialize bipipe object");
        return nullptr;
    }
    addActiveObject(endpoint);
    RV_LOG_DEBUG(logger, "<%p>: bipipe(%d,%d) created", static_cast<void*>(endpoint.get()), indesc, outdesc);
    return endpoint;
}

std::shared_ptr<RvKQueueBipipeClient> RvKQueueBipipeClient::initWithIndesc(
    std::int32_t indesc, std::int32_t outdesc, bool closeOnStop, const std::shared_ptr<RvKQueue>& parent,
    const OsLog& logger) noexcept {
    auto endpoint = makeEndpoint<RvKQueueBipipeClient>(indesc, outdesc, closeOnStop, parent, logger);
    return endpoint && endpoint->tx.isUsable() ? endpoint : nullptr;
}

RvKQueueBipipeClient::RvKQueueBipipeClient(std::int32_t indesc, std::int32_t outdesc, bool shouldCloseOnStop,
                                           std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept
    : parent(std::move(parentLoop)),
      logger(log),
      infd(indesc),
      outfd(outdesc),
      closeOnStop(shouldCloseOnStop) {}

void RvKQueueBipipeClient::enableOnData(EventBlock block) noexcept {
    // The pointer keeps the block alive should it stop its own endpoint from within event 0.
    const EventBlockSlot::Pointer stored = eventBlock.set(std::move(block));
    if (!stored) return;
    if (*stored) (void)(*stored)(this, nullptr, 0, nullptr, kEventConnected);
    submitRead(kArmFlags);
}

void RvKQueueBipipeClient::kevent(const struct kevent* record) noexcept {
    if (isRefusedFilter(*record)) {
        callEvent(kEventClosed);
    } else if (record->filter == EVFILT_READ) {
        const Received received = readAvailable(infd, record->data, &rx);
        if (received != Received::kNothing)
            callEvent(received == Received::kBytes ? kEventData : kEventClosed);
    } else if (record->filter == EVFILT_WRITE) {
        flush(record->data);
    }
}

// Deliberate: write(2) is called even when nothing is queued, and its 0 is reported as event 2, unlike on a
// stream socket: owners of descriptor pairs are written for that. Held by
// RvKQueueBipipeClientOutput.ReadinessWithNothingQueuedReportsClosed.
void RvKQueueBipipeClient::flush(std::int64_t room) noexcept {
    const PendingOutput::Flushed result = tx.flush(outfd, room, true);
    if (result.written < 1 && !result.isFull) callEvent(kEventClosed);
    if (result.remaining == 0) disarmWrite();
}

// Another thread may have queued bytes since the flush, and its arming may stand before the disarming in the
// list of changes: the filter is then armed once more. Held by
// LifecycleStress.AWriteThatMeetsTheEndOfAFlushIsSent.
void RvKQueueBipipeClient::disarmWrite() noexcept {
    submitWrite(kDisarmFlags);
    if (!tx.isEmpty()) submitWrite(kArmFlags);
}

void RvKQueueBipipeClient::write(const void* bytes, std::uint64_t size) noexcept {
    if (size == 0) return;
    tx.append(bytes, size, parent.isHere());
    submitWrite(kArmFlags);
}

void RvKQueueBipipeClient::stop() noexcept {
    RV_LOG_DEBUG(logger, "<%p>: stop", static_cast<void*>(this));
    if (closeOnStop) {
        (void)close(infd);  // nothing is left to undo
        if (outfd != infd) (void)close(outfd);
    } else {
        submitRead(kDisarmFlags);
        submitWrite(kDisarmFlags);
    }
    eventBlock.clear();
}

void RvKQueueBipipeClient::callEvent(std::int32_t event) noexcept {
    deliverBuffered(eventBlock, this, &rx, event);
}

void RvKQueueBipipeClient::initReadEvent(struct kevent* record, std::uint16_t flags) noexcept {
    initFilterRecord(record, infd, EVFILT_READ, flags, this);
}

void RvKQueueBipipeClient::initWriteEvent(struct kevent* record, std::uint16_t flags) noexcept {
    initFilterRecord(record, outfd, EVFILT_WRITE, flags, this);
}

void RvKQueueBipipeClient::submitRead(std::uint16_t flags) noexcept {
    struct kevent record;
    initReadEvent(&record, flags);
    parent.submit(record);
}

void RvKQueueBipipeClient::submitWrite(std::uint16_t flags) noexcept {
    struct kevent record;
    initWriteEvent(&record, flags);
    parent.submit(record);
}
