/// Waits that a descriptor of the caller's ends: when the queue leaves them to it, and what it reads from it.
/// An eventfd stands for the ticker, so that it ticks when the test says so.
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "kevent_support.h"

namespace {

using namespace keventtest;

uint64_t ident(const Fd& fd) {
    return static_cast<uint64_t>(fd.get());
}

constexpr int kPeriodMs = 60'000;  // longer than any test: a wait that ends was ended by the tick
constexpr int64_t kPeriodNs = 60'000'000'000;

class KeventTick : public testing::Test {
  protected:
    void tick() {
        const uint64_t one = 1;
        ASSERT_EQ(write(ticker.get(), &one, sizeof one), static_cast<ssize_t>(sizeof one));
    }

    /// Enough calls with events for the queue to leave its waits to the tick, and none to come.
    void makeBusy() {
        writeAll(pair.writer.get(), "x");
        ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
        for (int i = 0; i < 40; ++i) {
            EXPECT_THAT(queue.collect(), testing::ElementsAre(IsEvent(ident(pair.reader), EVFILT_READ)));
        }
        ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, EV_DELETE)), 0);
        EXPECT_EQ(readSome(pair.reader.get()), "x");
    }

    Queue queue;
    Fd ticker{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    Pair pair = unixPair();
};

TEST_F(KeventTick, EndsTheWaitsOfABusyQueue) {
    keventTick(queue.fd(), ticker.get(), kPeriodNs);
    tick();
    makeBusy();
    for (int i = 0; i < 2; ++i) {
        tick();
        EXPECT_TRUE(queue.collect(kPeriodMs).empty());
        makeBusy();
    }
}

TEST_F(KeventTick, IsLeftOnceTheQueueIsNotBusyAnyMore) {
    keventTick(queue.fd(), ticker.get(), 5'000'000);
    tick();
    makeBusy();
    for (int i = 0; i < 2; ++i) {
        tick();
        EXPECT_TRUE(queue.collect(5).empty());
    }
    EXPECT_TRUE(queue.collect(5).empty()) << "by a time-out of its own: no tick comes";
}

TEST_F(KeventTick, EventsEndTheSameWaits) {
    keventTick(queue.fd(), ticker.get(), kPeriodNs);
    tick();
    makeBusy();
    writeAll(pair.writer.get(), "x");
    const auto read = change(ident(pair.reader), EVFILT_READ, kArm);
    EXPECT_EQ(queue.collect(kPeriodMs, 8, {read}).size(), 1U);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, EV_DELETE)), 0);
    EXPECT_EQ(queue.collect(kPeriodMs, 8, {change(1, EVFILT_TIMER, kArm | EV_ONESHOT, 1)}).size(), 1U);
}

TEST_F(KeventTick, LeavesWaitsOfAnotherLengthAlone) {
    keventTick(queue.fd(), ticker.get(), kPeriodNs);
    tick();
    makeBusy();
    tick();
    const int64_t begin = nowMs();
    EXPECT_TRUE(queue.collect(50).empty());
    EXPECT_GE(nowMs() - begin, 49);
}

TEST_F(KeventTick, DoesNotLengthenWaitsOfAnotherLength) {
    keventTick(queue.fd(), ticker.get(), kPeriodNs);
    tick();
    makeBusy();
    const int64_t begin = nowMs();
    std::atomic<bool> done{false};
    std::thread ticking([&] {
        while (!done && nowMs() < begin + kLimitMs) tick();
    });
    EXPECT_TRUE(queue.collect(20).empty());
    done = true;
    ticking.join();
    EXPECT_LT(nowMs(), begin + kLimitMs);
}

TEST_F(KeventTick, IsNotWaitedForByAQueueThatIsNotBusy) {
    keventTick(queue.fd(), ticker.get(), 5'000'000);
    tick();
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(queue.collect(5).empty());
    uint64_t ticks = 0;
    EXPECT_EQ(read(ticker.get(), &ticks, sizeof ticks), static_cast<ssize_t>(sizeof ticks));
}

/// Events now and then make no busy queue.
TEST_F(KeventTick, IsNotWaitedForWhereWaitsLastTheirTime) {
    keventTick(queue.fd(), ticker.get(), 5'000'000);
    tick();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(queue.collect(5, 1, {change(1, EVFILT_TIMER, kArm | EV_ONESHOT, 0)}).size(), 1U);
        writeAll(pair.writer.get(), "x");
        const auto read = change(ident(pair.reader), EVFILT_READ, kArm | EV_ONESHOT);
        EXPECT_EQ(queue.collect(5, 1, {read}).size(), 1U);
        EXPECT_TRUE(queue.collect(5).empty());
    }
    uint64_t ticks = 0;
    EXPECT_EQ(read(ticker.get(), &ticks, sizeof ticks), static_cast<ssize_t>(sizeof ticks));
}

TEST_F(KeventTick, WithoutATickTheWaitLastsItsTime) {
    keventTick(queue.fd(), ticker.get(), 5'000'000);
    makeBusy();
    EXPECT_TRUE(queue.collect(5).empty());
}

TEST_F(KeventTick, GoesOnInTheInstanceThatReplacesAnother) {
    keventTick(queue.fd(), ticker.get(), kPeriodNs);
    Pair closed = unixPair();
    ASSERT_EQ(queue.apply(change(ident(closed.reader), EVFILT_READ, kArm)), 0);
    tick();
    makeBusy();
    const Fd copy(dup(closed.reader.get()));
    closed.reader.reset();
    writeAll(closed.writer.get(), "to the copy");
    EXPECT_TRUE(queue.collect().empty());
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    tick();
    makeBusy();
    tick();
    EXPECT_TRUE(queue.collect(kPeriodMs).empty());
}

TEST_F(KeventTick, AFileThatCannotTickIsNotReadFrom) {
    const Fd fd = temporaryFile();
    writeAll(fd.get(), "0123456789abcdef");
    ASSERT_EQ(lseek(fd.get(), 0, SEEK_SET), 0);
    keventTick(queue.fd(), fd.get(), 5'000'000);
    makeBusy();
    EXPECT_TRUE(queue.collect(5).empty());
    EXPECT_EQ(lseek(fd.get(), 0, SEEK_CUR), 0);
}

TEST_F(KeventTick, AQueueWithoutOneReadsNothing) {
    const Fd input(dup(0));
    const Pair other = pipePair();
    ASSERT_EQ(dup2(other.reader.get(), 0), 0);
    writeAll(other.writer.get(), "01234567");
    makeBusy();
    EXPECT_TRUE(queue.collect(1).empty());
    ASSERT_EQ(dup2(input.get(), 0), 0);
    int left = 0;
    ASSERT_EQ(ioctl(other.reader.get(), FIONREAD, &left), 0);
    EXPECT_EQ(left, 8);
}

TEST_F(KeventTick, TheNextQueueUnderTheNumberHasNone) {
    const Pair other = pipePair();
    keventTick(queue.fd(), ticker.get(), 5'000'000);
    tick();
    makeBusy();
    const int number = queue.fd();
    queue.close();
    queue = Queue();
    ASSERT_EQ(queue.fd(), number);
    ASSERT_EQ(dup2(other.reader.get(), ticker.get()), ticker.get());
    writeAll(other.writer.get(), "01234567");
    makeBusy();
    EXPECT_TRUE(queue.collect(5).empty());
    int left = 0;
    ASSERT_EQ(ioctl(other.reader.get(), FIONREAD, &left), 0);
    EXPECT_EQ(left, 8);
}

TEST_F(KeventTick, TheNextQueueUnderTheNumberBeginsAsOneThatIsNotBusy) {
    keventTick(queue.fd(), ticker.get(), 5'000'000);
    tick();
    makeBusy();
    const int number = queue.fd();
    queue.close();
    queue = Queue();
    ASSERT_EQ(queue.fd(), number);
    const Fd silent(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    keventTick(queue.fd(), silent.get(), 5'000'000);
    EXPECT_TRUE(queue.collect(5).empty());
}

}  // namespace
