#include "libio-macOS/RvKQueueTimer.h"

#include <exception>
#include <optional>
#include <utility>

#include "libio-macOS/BufferedInput.h"
#include "libio-macOS/FilterRecord.h"
#include "libio-macOS/MakeEndpoint.h"
#include "libio-macOS/RvKQueue.h"

std::shared_ptr<RvKQueueTimer> RvKQueue::createTimer(std::uint64_t ms, bool oneShot) noexcept {
    std::int32_t ident = 0;
    auto timer = addTimer(ms, &ident, oneShot);
    if (!timer) {
        RV_LOG_ERROR(logger, "cannot initialize timer object");
        return nullptr;
    }
    addActiveObject(timer);
    RV_LOG_DEBUG(logger, "<%p>: timer #%d created", static_cast<void*>(timer.get()), ident);
    return timer;
}

std::shared_ptr<RvKQueueTimer> RvKQueue::addTimer(std::uint64_t ms, std::int32_t* ident,
                                                  bool oneShot) noexcept {
    const LockGuard guard(timersLock);
    std::optional<std::int32_t> free;
    if (!timerIdents.findFree(&free)) {
        RV_LOG_ERROR(logger, "cannot allocate number for timer");
        return nullptr;
    }
    if (!free) return nullptr;
    auto timer = RvKQueueTimer::initWithIdent(*free, static_cast<std::int32_t>(ms), oneShot,
                                              shared_from_this(), logger);
    if (!timer || !listTimer(timer, *free)) {
        RV_LOG_ERROR(logger, "cannot allocate timer");
        return nullptr;
    }
    *ident = *free;
    return timer;
}

bool RvKQueue::listTimer(const std::shared_ptr<RvKQueueTimer>& timer, std::int32_t ident) noexcept try {
    const auto place = static_cast<std::size_t>(ident);
    if (place >= timerObjects.size()) timerObjects.resize(place + 1);
    timerObjects[place] = timer;
    timerIdents.insert(ident);
    return true;
} catch (const std::exception&) {
    return false;
}

std::shared_ptr<RvKQueueTimer> RvKQueueTimer::initWithIdent(std::int32_t number, std::int32_t millisec,
                                                            bool once,
                                                            const std::shared_ptr<RvKQueue>& parent,
                                                            const OsLog& logger) noexcept {
    return makeEndpoint<RvKQueueTimer>(number, millisec, once, parent, logger);
}

RvKQueueTimer::RvKQueueTimer(std::int32_t number, std::int32_t millisec, bool once,
                             std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept
    : parent(std::move(parentLoop)), logger(log), ident(number), ms(millisec), oneShot(once) {}

void RvKQueueTimer::enableOnData(EventBlock block) noexcept {
    const std::uint16_t once = oneShot ? EV_ONESHOT : 0;
    if (eventBlock.set(std::move(block))) submit(ms, static_cast<std::uint16_t>(kArmFlags | once));
}

// How often the timer has expired since the last turn stands in the record's data, and does not matter here.
void RvKQueueTimer::kevent(const struct kevent* record) noexcept {
    if (record->filter == EVFILT_TIMER) deliverPlain(eventBlock, this, kEventData);
}

void RvKQueueTimer::write(const void*, std::uint64_t) noexcept {}

// The deletion fails when a one-shot timer has fired; the loop ignores that.
void RvKQueueTimer::stop() noexcept {
    RV_LOG_DEBUG(logger, "<%p>: stop timer #%d", static_cast<void*>(this), ident);
    submit(0, kDisarmFlags);
    eventBlock.clear();
}

void RvKQueueTimer::initEvent(struct kevent* record, std::int32_t data, std::uint16_t flags) noexcept {
    initFilterRecord(record, ident, EVFILT_TIMER, flags, this);
    record->fflags = NOTE_BACKGROUND;
    record->data = data;
}

void RvKQueueTimer::submit(std::int32_t data, std::uint16_t flags) noexcept {
    struct kevent record;
    initEvent(&record, data, flags);
    parent.submit(record);
}
