/// The endpoint for one timer.
#ifndef RV_LIBIO_RVKQUEUE_TIMER_H
#define RV_LIBIO_RVKQUEUE_TIMER_H

#include <cstdint>
#include <memory>

#include "libio-macOS/EventBlockSlot.h"
#include "libio-macOS/ParentLoop.h"
#include "libio-macOS/RvKQueueEventProtocol.h"
#include "platform/oslog.h"

class RvKQueue;

/// Reports event 1, without a buffer, on each turn of the loop in which it has expired: once, however many
/// periods went by. It runs from startObject on. A one-shot timer fires once and stays registered until its
/// owner calls stopObject.
///
/// RvKQueue::createTimer(ms, oneShot) makes one:
///
/// ms       period, or delay of a one-shot timer, in milliseconds; its low 32 bits count, as a signed number.
///          0 or less fires at once and only once.
/// oneShot  whether it fires once only
/// See docs/engine.md, "Timer".
class RvKQueueTimer : public RvKQueueEventProtocol {
  public:
    /// A timer; null without memory.
    ///
    /// number  the timer's ident, unique among the loop's timers
    static std::shared_ptr<RvKQueueTimer> initWithIdent(std::int32_t number, std::int32_t millisec, bool once,
                                                        const std::shared_ptr<RvKQueue>& parent,
                                                        const OsLog& logger) noexcept;
    /// For initWithIdent.
    RvKQueueTimer(std::int32_t number, std::int32_t millisec, bool once, std::weak_ptr<RvKQueue> parentLoop,
                  const OsLog& log) noexcept;

    void enableOnData(EventBlock block) noexcept override;
    void kevent(const struct kevent* record) noexcept override;
    /// Does nothing: a timer takes no output.
    void write(const void* bytes, std::uint64_t size) noexcept override;
    void stop() noexcept override;

    std::int32_t timerIdent() const noexcept override { return ident; }

    /// Fills in a change record for the kernel's timer.
    ///
    /// data  milliseconds
    void initEvent(struct kevent* record, std::int32_t data, std::uint16_t flags) noexcept;

  private:
    void submit(std::int32_t data, std::uint16_t flags) noexcept;

    ParentLoop parent;
    OsLog logger;
    const std::int32_t ident;
    const std::int32_t ms;
    const bool oneShot;
    EventBlockSlot eventBlock;
};

#endif
