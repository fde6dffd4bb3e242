#include "libio-macOS/RvKQueueBPF.h"

#include <utility>

#include "libio-macOS/BufferedInput.h"
#include "libio-macOS/FilterRecord.h"
#include "libio-macOS/MakeEndpoint.h"
#include "libio-macOS/RvKQueue.h"

std::shared_ptr<RvKQueueBPF> RvKQueue::createBPF(const char* interfaceName,
                                                 std::uint32_t blockLength) noexcept {
    auto endpoint = RvKQueueBPF::initWithParent(shared_from_this(), logger);
    if (endpoint && !endpoint->openInterface(interfaceName, blockLength)) {
        endpoint->stop();
        endpoint.reset();
    }
    if (!endpoint) {
        RV_LOG_ERROR(logger, "cannot initialize BPF");
        return nullptr;
    }
    addActiveObject(endpoint);
    RV_LOG_DEBUG(logger, "<%p>: %s monitoring started", static_cast<void*>(endpoint.get()), interfaceName);
    return endpoint;
}

std::shared_ptr<RvKQueueBPF> RvKQueueBPF::initWithParent(const std::shared_ptr<RvKQueue>& parent,
                                                         const OsLog& logger) noexcept {
    return makeEndpoint<RvKQueueBPF>(parent, logger);
}

RvKQueueBPF::RvKQueueBPF(std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept
    : parent(std::move(parentLoop)), logger(log) {}

bool RvKQueueBPF::openInterface(const char* interfaceName, std::uint32_t wantedBlockLength) noexcept {
    blockLength = wantedBlockLength;
    return fd.open(interfaceName, &blockLength);
}

void RvKQueueBPF::enableOnData(EventBlock block) noexcept {
    // The pointer keeps the block alive should it stop its own endpoint from within event 0.
    const EventBlockSlot::Pointer stored = eventBlock.set(std::move(block));
    if (!stored) return;
    // The record is made first: once stopped, the endpoint has no descriptor any more.
    struct kevent record;
    initReadEvent(&record, kArmFlags);
    if (*stored) (void)(*stored)(this, nullptr, 0, nullptr, kEventConnected);
    parent.submit(record);
}

void RvKQueueBPF::kevent(const struct kevent* record) noexcept {
    if (record->filter != EVFILT_READ) return;
    if (isRefusedFilter(*record)) {
        callEvent(kEventClosed);
        return;
    }
    const bool hadLinks = fd.linkDescriptor() != -1;
    // A whole block, whatever the record's data says: that counts one packet, and a read may bring many.
    char* const end = rx.prepare(blockLength);
    std::size_t stored = 0;
    const auto outcome = end == nullptr ? PacketCapture::Outcome::kEnded : fd.read(end, blockLength, &stored);
    // The capture has met an interface that is down for the first time; whether it is removed is told there.
    if (!hadLinks && fd.linkDescriptor() != -1) {
        struct kevent change;
        initFilterRecord(&change, fd.linkDescriptor(), EVFILT_READ, kArmFlags, this);
        parent.submit(change);
    }
    if (outcome == PacketCapture::Outcome::kPackets) {
        rx.commit(stored);
        callEvent(kEventData);
    } else if (outcome == PacketCapture::Outcome::kEnded) {
        callEvent(kEventClosed);
    }
}

void RvKQueueBPF::write(const void*, std::uint64_t) noexcept {}

void RvKQueueBPF::stop() noexcept {
    fd.close();
    eventBlock.clear();
}

void RvKQueueBPF::callEvent(std::int32_t event) noexcept {
    deliverBuffered(eventBlock, this, &rx, event);
}

void RvKQueueBPF::initReadEvent(struct kevent* record, std::uint16_t flags) noexcept {
    initFilterRecord(record, fd.descriptor(), EVFILT_READ, flags, this);
}
