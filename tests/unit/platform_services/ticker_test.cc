#include "platform/ticker.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>

#include "platform/kevent.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::int64_t kPeriodNs = 5'000'000;
constexpr struct timespec kPeriod = {0, kPeriodNs};

int wait(int kq, const struct timespec& limit) {
    struct kevent event;
    return kevent(kq, nullptr, 0, &event, 1, &limit);
}

TEST(Ticker, IsCloseOnExec) {
    const Ticker ticker(kPeriodNs);
    ASSERT_TRUE(ticker.isUsable());
    EXPECT_NE(0, fcntl(ticker.descriptor(), F_GETFD) & FD_CLOEXEC);
}

TEST(Ticker, WithoutDescriptorsItIsNotUsable) {
    struct rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    const struct rlimit none = {0, limit.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    const Ticker ticker(kPeriodNs);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    EXPECT_FALSE(ticker.isUsable());
}

TEST(Ticker, EndsWaitsOfItsPeriod) {
    const int kq = kqueue();
    const Ticker ticker(kPeriodNs);
    keventTick(kq, ticker.descriptor(), kPeriodNs);
    const auto begin = Clock::now();
    for (int i = 0; i < 20; ++i) EXPECT_EQ(0, wait(kq, kPeriod));
    // The first wait may be short, the others are whole periods.
    EXPECT_GE(Clock::now() - begin, milliseconds(5 * 18));
    EXPECT_EQ(0, close(kq));
}

TEST(Ticker, LeavesOtherWaitsAlone) {
    const int kq = kqueue();
    const Ticker ticker(kPeriodNs);
    keventTick(kq, ticker.descriptor(), kPeriodNs);
    const auto begin = Clock::now();
    EXPECT_EQ(0, wait(kq, {0, 30'000'000}));
    EXPECT_GE(Clock::now() - begin, milliseconds(30));
    EXPECT_EQ(0, wait(kq, {0, 0}));
    EXPECT_EQ(0, close(kq));
}

TEST(Ticker, TimersAreNotLateForIt) {
    const int kq = kqueue();
    const Ticker ticker(60'000'000'000);
    keventTick(kq, ticker.descriptor(), 60'000'000'000);
    struct kevent change = {1, EVFILT_TIMER, EV_ADD | EV_ENABLE | EV_ONESHOT, 0, 1, nullptr};
    ASSERT_EQ(0, kevent(kq, &change, 1, nullptr, 0, nullptr));
    EXPECT_EQ(1, wait(kq, {60, 0}));
    EXPECT_EQ(0, close(kq));
}

TEST(Ticker, ANumberThatIsNoQueueIsIgnored) {
    const Ticker ticker(kPeriodNs);
    errno = 0;
    keventTick(-1, ticker.descriptor(), kPeriodNs);
    EXPECT_EQ(0, errno);
}

}  // namespace
