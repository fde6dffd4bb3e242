/// Ticker over timerfd(2).
#include "platform/ticker.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <ctime>

namespace {

constexpr std::int64_t kNsPerSecond = 1'000'000'000;

}  // namespace

Ticker::Ticker(std::int64_t periodNs) noexcept
    : fd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    if (fd == -1) return;
    const timespec period = {periodNs / kNsPerSecond, periodNs % kNsPerSecond};
    const itimerspec ticks = {period, period};
    (void)timerfd_settime(fd, 0, &ticks, nullptr);  // fails for an invalid period only
}

Ticker::~Ticker() {
    if (fd != -1) (void)close(fd);  // nothing is left to undo
}
