/// Several threads on one queue: a change made by one is seen by another that waits already.
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <thread>

#include "kevent_support.h"

namespace {

using namespace keventtest;

uint64_t ident(const Fd& fd) {
    return static_cast<uint64_t>(fd.get());
}

TEST(KeventThreads, DescriptorChangeWakesTheWaiter) {
    const Queue queue;
    const Pair pair = unixPair();
    Waiter waiter(queue);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, kArm)), 0);
    EXPECT_THAT(waiter.finish(), IsEvent(ident(pair.reader), EVFILT_WRITE));
}

TEST(KeventThreads, TimerChangeWakesTheWaiter) {
    const Queue queue;
    ASSERT_EQ(queue.apply(change(1, EVFILT_TIMER, kArm, 3'600'000)), 0);
    Waiter waiter(queue);
    ASSERT_EQ(queue.apply(change(2, EVFILT_TIMER, kArm, 5)), 0);
    EXPECT_THAT(waiter.finish(), IsEvent(2, EVFILT_TIMER));
}

TEST(KeventThreads, WaiterIsWokenThoughSomebodyClosedEveryEventfd) {
    const Queue queue;
    for (uint64_t i = 1; i <= 2; ++i) {
        Waiter waiter(queue);
        ASSERT_EQ(queue.apply(change(i, EVFILT_TIMER, kArm | EV_ONESHOT, 0)), 0);
        EXPECT_THAT(waiter.finish(), IsEvent(i, EVFILT_TIMER));
        ASSERT_EQ(eventfds().size(), 1U);
        ASSERT_EQ(close(eventfds().front()), 0);
    }
}

TEST(KeventThreads, AlwaysReadyFileWakesTheWaiter) {
    const Queue queue;
    FILE* file = tmpfile();
    ASSERT_NE(file, nullptr);
    const auto fd = static_cast<uint64_t>(fileno(file));
    Waiter waiter(queue);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm)), 0);
    EXPECT_THAT(waiter.finish(), IsEvent(fd, EVFILT_WRITE));
    (void)fclose(file);
}

TEST(KeventThreads, AnswerArmedByAnotherThreadWakesTheWaiter) {
    const Queue queue;
    const Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm, 0, 0, 1)), 0);
    writeAll(pair.writer.get(), "x");
    EXPECT_THAT(queue.next(), IsEvent(ident(pair.reader), EVFILT_READ));
    readSome(pair.reader.get());
    Waiter waiter(queue);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, kArm, 0, 0, 1)), 0);
    EXPECT_THAT(waiter.finish(), IsEvent(ident(pair.reader), EVFILT_WRITE));
}

TEST(KeventThreads, SeveralWaitersSeeSeveralTimers) {
    const Queue queue;
    {
        Waiter first(queue);
        Waiter second(queue);
        Waiter third(queue);
        for (uint64_t i = 1; i <= 3; ++i) {
            ASSERT_EQ(queue.apply(change(i, EVFILT_TIMER, kArm | EV_ONESHOT, static_cast<int64_t>(i) * 2)),
                      0);
        }
        const uint64_t sum = first.finish().ident + second.finish().ident + third.finish().ident;
        EXPECT_EQ(sum, 6U);
    }
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventThreads, WaiterSurvivesTheExchangeOfTheInstance) {
    const Queue queue;
    Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    Waiter waiter(queue);
    const Fd copy(dup(pair.reader.get()));
    pair.reader.reset();
    writeAll(pair.writer.get(), "to the copy");
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    ASSERT_EQ(queue.apply(change(7, EVFILT_TIMER, kArm, 1)), 0);
    EXPECT_THAT(waiter.finish(), IsEvent(7, EVFILT_TIMER));
}

/// One of them meets the stale entry, whose edge is told once, and the others wait on the old instance.
TEST(KeventThreads, EveryWaiterSurvivesTheExchangeOfTheInstance) {
    const Queue queue;
    Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm | EV_CLEAR)), 0);
    Waiter first(queue);
    Waiter second(queue);
    const Fd copy(dup(pair.reader.get()));
    pair.reader.reset();
    writeAll(pair.writer.get(), "to the copy");
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    for (const uint64_t i : {7U, 8U})
        ASSERT_EQ(queue.apply(change(i, EVFILT_TIMER, kArm | EV_ONESHOT, 0)), 0);
    EXPECT_EQ(first.finish().ident + second.finish().ident, 15U);
}

TEST(KeventThreads, NumberThatIsClosedDuringTheWaitIsSilent) {
    if (kSeesRaces) GTEST_SKIP() << "a close(2) during another thread's wait is what is tested";
    const Queue queue;
    Pair pair = unixPair();
    Waiter waiter(queue, {change(ident(pair.reader), EVFILT_READ, kArm)});
    const Fd copy(dup(pair.reader.get()));
    pair.reader.reset();
    writeAll(pair.writer.get(), "to the copy");
    ASSERT_EQ(queue.apply(change(7, EVFILT_TIMER, kArm, kSilenceMs)), 0);
    EXPECT_THAT(waiter.finish(), IsEvent(7, EVFILT_TIMER));
}

/// True if the wake-up took the number of a closed file, and the waiter was told nothing of that file.
bool staysSilentUnderTheWakeUp() {
    const Queue queue;
    Pair pair = unixPair();
    const int number = pair.reader.get();
    Waiter waiter(queue, {change(ident(pair.reader), EVFILT_READ, kArm)});
    const Fd copy(dup(number));
    pair.reader.reset();
    if (queue.apply(change(7, EVFILT_TIMER, kArm, kSilenceMs)) != 0) return false;
    const bool taken = eventfds() == std::vector<int>{number};
    writeAll(pair.writer.get(), "to the copy");
    return waiter.finish().filter == EVFILT_TIMER && taken;
}

/// In a process where nobody was woken so far.
TEST(KeventThreads, ClosedNumberThatTheWakeUpTakesIsSilent) {
    if (kSeesRaces) GTEST_SKIP() << "a close(2) during another thread's wait is what is tested";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(_exit(staysSilentUnderTheWakeUp() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(KeventThreads, WaiterOfAClosedQueueHasNoPartInTheNextUnderItsNumber) {
    if (kSeesRaces) GTEST_SKIP() << "a close(2) during another thread's wait is what is tested";
    Queue queue;
    const Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    Waiter waiter(queue);
    const int number = queue.fd();
    queue.close();
    const Queue next;
    ASSERT_EQ(next.fd(), number);
    ASSERT_EQ(next.apply(change(1, EVFILT_TIMER, kArm, 0)), 0);
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(waiter.failure(), EBADF);
    EXPECT_THAT(next.next(), IsEvent(1, EVFILT_TIMER));
}

TEST(KeventThreads, RegularFileThatGrowsEndsTheWait) {
    const Queue queue;
    FILE* file = tmpfile();
    ASSERT_NE(file, nullptr);
    const auto fd = static_cast<uint64_t>(fileno(file));
    Waiter waiter(queue, {change(fd, EVFILT_READ, kArm)});
    ASSERT_EQ(pwrite(fileno(file), "abc", 3, 0), 3);
    EXPECT_EQ(waiter.finish().data, 3);
    (void)fclose(file);
}

TEST(KeventThreads, ClosedQueueWithAWaiterTakesNoDescriptors) {
    if (kSeesRaces) GTEST_SKIP() << "a close(2) during another thread's wait is what is tested";
    Queue queue;
    const Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    Waiter waiter(queue);
    ASSERT_EQ(queue.apply(change(1, EVFILT_TIMER, kArm, 3'600'000)), 0);
    const auto before = eventfds().size();
    const int number = queue.fd();
    queue.close();
    for (uint64_t i = 2; i < 5; ++i) {
        const auto timer = change(i, EVFILT_TIMER, kArm, 3'600'000);
        EXPECT_EQ(kevent(number, &timer, 1, nullptr, 0, nullptr), -1);
        EXPECT_EQ(errno, EBADF);
    }
    EXPECT_EQ(eventfds().size(), before);
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(waiter.failure(), EBADF);
}

TEST(KeventThreads, WakeUpsShareOneDescriptor) {
    const Queue queue;
    Waiter waiter(queue);
    for (uint64_t i = 1; i <= 5; ++i) {
        ASSERT_EQ(queue.apply(change(i, EVFILT_TIMER, kArm, 3'600'000)), 0);
        EXPECT_EQ(eventfds().size(), 1U);
    }
    ASSERT_EQ(queue.apply(change(6, EVFILT_TIMER, kArm, 0)), 0);
    EXPECT_THAT(waiter.finish(), IsEvent(6, EVFILT_TIMER));
}

TEST(KeventThreads, ChangesFromManyThreadsAllArrive) {
    const Queue queue;
    constexpr int kThreads = 4;
    constexpr int kRounds = kSanitized ? 100 : 1000;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&queue, t] {
            const Pair pair = unixPair();
            for (int i = 0; i < kRounds; ++i) {
                const auto fd = ident(pair.reader);
                EXPECT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm)), 0);
                EXPECT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
                EXPECT_EQ(queue.apply(change(fd, EVFILT_WRITE, EV_DELETE)), 0);
                EXPECT_EQ(queue.apply(change(fd, EVFILT_READ, EV_DELETE)), 0);
            }
            EXPECT_EQ(queue.apply(change(static_cast<uint64_t>(t), EVFILT_TIMER, kArm | EV_ONESHOT, 1)), 0);
        });
    }
    int timers = 0;
    const int64_t limit = nowMs() + kLimitMs;
    while (timers < kThreads && nowMs() < limit) {
        timers += static_cast<int>(only(queue.collect(50), EVFILT_TIMER).size());
    }
    EXPECT_EQ(timers, kThreads);
    for (auto& thread : threads) thread.join();
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventThreads, WakeUpsByEventfdAreNotLost) {
    const Queue queue;
    const Fd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    ASSERT_EQ(queue.apply(change(ident(wake), EVFILT_READ, kArm | EV_CLEAR, 0, 0, 1)), 0);
    constexpr int kRounds = kSanitized ? 500 : 5000;
    std::atomic<int> asked{0};
    std::atomic<int> answered{0};
    std::thread asker([&] {
        for (int i = 1; i <= kRounds; ++i) {
            asked = i;
            const uint64_t one = 1;
            EXPECT_EQ(write(wake.get(), &one, sizeof one), static_cast<ssize_t>(sizeof one));
            while (answered < i) std::this_thread::yield();
        }
    });
    while (answered < kRounds) {
        const auto events = queue.collect(kLimitMs);
        if (events.empty()) break;
        answered = asked.load();
    }
    EXPECT_EQ(answered, kRounds);
    answered = kRounds;
    asker.join();
}

}  // namespace
