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

/// A queue with a ticker and a descriptor that always has something to read.
class TickingQueue : public testing::Test {
  protected:
    void SetUp() override {
        keventTick(kq, ticker.descriptor(), kPeriodNs);
        ASSERT_EQ(0, pipe(ends));
        ASSERT_EQ(1, write(ends[1], "x", 1));
        setReady(EV_ADD | EV_ENABLE);
    }
    void TearDown() override {
        for (const int fd : {kq, ends[0], ends[1]}) EXPECT_EQ(0, close(fd));
    }

    void setReady(unsigned flags) {
        const struct kevent change = {static_cast<std::uint64_t>(ends[0]),
                                      EVFILT_READ,
                                      static_cast<std::uint16_t>(flags),
                                      0,
                                      0,
                                      nullptr};
        ASSERT_EQ(0, kevent(kq, &change, 1, nullptr, 0, nullptr));
    }
    /// Enough short waits for the queue to count as busy.
    void makeBusy() {
        for (int i = 0; i < 100; ++i) EXPECT_EQ(1, wait(kq, kPeriod));
    }

    const int kq = kqueue();
    const Ticker ticker{kPeriodNs};
    int ends[2] = {-1, -1};
};

TEST_F(TickingQueue, WaitsOfABusyQueueStillEnd) {
    makeBusy();
    setReady(EV_DISABLE);
    EXPECT_EQ(0, wait(kq, kPeriod));
}

TEST_F(TickingQueue, WaitsOfAnIdleQueueLastTheirTime) {
    makeBusy();
    setReady(EV_DISABLE);
    EXPECT_EQ(0, wait(kq, kPeriod));  // short, perhaps: the tick was on its way
    const auto begin = Clock::now();
    for (int i = 0; i < 10; ++i) EXPECT_EQ(0, wait(kq, kPeriod));
    EXPECT_GE(Clock::now() - begin, milliseconds(5 * 10));
}

TEST_F(TickingQueue, TicksAsLongAsItIsBusy) {
    const auto begin = Clock::now();
    while (Clock::now() - begin < milliseconds(40)) makeBusy();
    setReady(EV_DISABLE);
    EXPECT_EQ(0, wait(kq, kPeriod));
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
