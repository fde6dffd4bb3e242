/// The call itself: arguments, time-outs, interruptions, and the life of the queue's descriptor.
#include <fcntl.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "kevent_support.h"

namespace {

using namespace keventtest;

extern "C" int keventHeaderInC(void);

TEST(KeventCall, RecordHasTheLayoutOfTheSystemsThatHaveIt) {
    EXPECT_EQ(sizeof(struct kevent), 32U);
    EXPECT_EQ(offsetof(struct kevent, ident), 0U);
    EXPECT_EQ(offsetof(struct kevent, filter), 8U);
    EXPECT_EQ(offsetof(struct kevent, flags), 10U);
    EXPECT_EQ(offsetof(struct kevent, fflags), 12U);
    EXPECT_EQ(offsetof(struct kevent, data), 16U);
    EXPECT_EQ(offsetof(struct kevent, udata), 24U);
}

TEST(KeventCall, HeaderServesC) {
    EXPECT_EQ(keventHeaderInC(), 0);
}

TEST(KeventCall, NoRoomNeverWaits) {
    const Queue queue;
    EXPECT_EQ(kevent(queue.fd(), nullptr, 0, nullptr, 0, nullptr), 0);
}

TEST(KeventCall, ZeroTimeoutPolls) {
    const Queue queue;
    EXPECT_TRUE(queue.collect(0).empty());
}

TEST(KeventCall, TimeoutReturnsZeroAfterTheTime) {
    const Queue queue;
    const int64_t begin = nowMs();
    EXPECT_TRUE(queue.collect(20).empty());
    EXPECT_GE(nowMs() - begin, 19);
}

TEST(KeventCall, ShortTimeoutIsNotRoundedToNothing) {
    const Queue queue;
    struct kevent event {};
    const timespec halfMs{0, 500'000};
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 10; ++i) EXPECT_EQ(kevent(queue.fd(), nullptr, 0, &event, 1, &halfMs), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::microseconds(5000));
}

TEST(KeventCall, MalformedTimeoutsAreInvalid) {
    const Queue queue;
    struct kevent event {};
    for (const timespec timeout : {timespec{0, -1}, timespec{0, 1'000'000'000}, timespec{-1, 0}}) {
        errno = 0;
        EXPECT_EQ(kevent(queue.fd(), nullptr, 0, &event, 1, &timeout), -1);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST(KeventCall, MalformedTimeoutAppliesNoChange) {
    const Queue queue;
    struct kevent event {};
    const auto timer = change(1, EVFILT_TIMER, kArm, 0);
    const timespec timeout{0, -1};
    EXPECT_EQ(kevent(queue.fd(), &timer, 1, &event, 1, &timeout), -1);
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventCall, HugeTimeoutIsNoOverflow) {
    const Queue queue;
    struct kevent event {};
    const auto timer = change(1, EVFILT_TIMER, kArm, 1);
    const timespec timeout{LONG_MAX, 999'999'999};
    EXPECT_EQ(kevent(queue.fd(), &timer, 1, &event, 1, &timeout), 1);
}

TEST(KeventCall, NegativeCountsAreInvalid) {
    const Queue queue;
    struct kevent event {};
    EXPECT_EQ(kevent(queue.fd(), &event, -1, nullptr, 0, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(kevent(queue.fd(), nullptr, 0, &event, -1, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(KeventCall, ListsThatAreNotThereAreFaults) {
    const Queue queue;
    const timespec none{};
    for (const int count : {1, 2}) {
        errno = 0;
        EXPECT_EQ(kevent(queue.fd(), nullptr, count, nullptr, 0, &none), -1);
        EXPECT_EQ(errno, EFAULT);
        errno = 0;
        EXPECT_EQ(kevent(queue.fd(), nullptr, 0, nullptr, count, &none), -1);
        EXPECT_EQ(errno, EFAULT);
    }
}

TEST(KeventCall, DescriptorThatIsNoQueueIsBad) {
    struct kevent event {};
    const timespec none{};
    const Pair pair = pipePair();
    for (const int fd : {-1, pair.reader.get(), 1 << 20, INT_MAX}) {
        errno = 0;
        EXPECT_EQ(kevent(fd, nullptr, 0, &event, 1, &none), -1);
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(kevent(fd, nullptr, 0, nullptr, 0, nullptr), -1);
    }
}

TEST(KeventCall, ClosedQueueIsBad) {
    Queue queue;
    const int number = queue.fd();
    const Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(1, EVFILT_TIMER, kArm, 0)), 0);
    queue.close();
    struct kevent event = change(static_cast<uint64_t>(pair.reader.get()), EVFILT_READ, kArm);
    const timespec none{};
    EXPECT_EQ(kevent(number, nullptr, 0, nullptr, 0, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(kevent(number, nullptr, 0, &event, 1, &none), -1);
    EXPECT_EQ(kevent(number, &event, 1, &event, 1, &none), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(KeventCall, ClosedQueueHasNoTimersThatAreDue) {
    Queue queue;
    const int number = queue.fd();
    for (uint64_t ident = 0; ident < 3; ++ident)
        ASSERT_EQ(queue.apply(change(ident, EVFILT_TIMER, kArm, 0)), 0);
    queue.close();
    struct kevent event {};
    const timespec none{};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(kevent(number, nullptr, 0, &event, 1, &none), -1);
        EXPECT_EQ(errno, EBADF);
    }
}

TEST(KeventCall, NumberOfAClosedQueueThatIsAnotherFileIsBad) {
    Queue queue;
    const int number = queue.fd();
    queue.close();
    const Pair pair = pipePair();
    ASSERT_TRUE(pair.reader.get() == number || pair.writer.get() == number);
    struct kevent event {};
    const timespec none{};
    EXPECT_EQ(kevent(number, nullptr, 0, &event, 1, &none), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(KeventCall, QueueUnderAnOldNumberStartsEmpty) {
    const Pair pair = unixPair();
    writeAll(pair.writer.get(), "left");
    const auto read = change(static_cast<uint64_t>(pair.reader.get()), EVFILT_READ, kArm);
    Queue first;
    const int number = first.fd();
    ASSERT_EQ(first.apply(read), 0);
    ASSERT_EQ(first.apply(change(1, EVFILT_TIMER, kArm, 0)), 0);
    first.close();
    const Queue second;
    ASSERT_EQ(second.fd(), number);
    EXPECT_TRUE(second.collect().empty());
    EXPECT_EQ(second.apply(change(1, EVFILT_TIMER, EV_DELETE)), ENOENT);
    EXPECT_EQ(second.apply(read), 0);
    EXPECT_EQ(second.next().data, 4);
}

TEST(KeventCall, QueuesLiveBesideEachOther) {
    const Queue first;
    const Queue second;
    const Queue third;
    for (const Queue* queue : {&first, &second, &third}) {
        const auto number = static_cast<uint64_t>(queue->fd());
        ASSERT_EQ(queue->apply(change(number, EVFILT_TIMER, kArm, 0)), 0);
    }
    for (const Queue* queue : {&first, &second, &third}) {
        EXPECT_THAT(queue->next(), IsEvent(queue->fd(), EVFILT_TIMER));
    }
}

TEST(KeventCall, QueueMayHaveTheNumberOfStandardInput) {
    const Fd input(dup(0));
    ASSERT_EQ(::close(0), 0);
    {
        const Queue queue;
        EXPECT_EQ(queue.fd(), 0);
        ASSERT_EQ(queue.apply(change(1, EVFILT_TIMER, kArm, 0)), 0);
        EXPECT_THAT(queue.next(), IsEvent(1, EVFILT_TIMER));
    }
    ASSERT_EQ(dup2(input.get(), 0), 0);
}

/// A queue that leaves bytes uncounted and has just answered a call without asking the kernel.
Queue queueThatSkippedTheKernel(const Pair& pair) {
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    Queue queue;
    keventLeaveUncounted(queue.fd());
    EXPECT_EQ(queue.apply(change(fd, EVFILT_READ, kArm, 0, 0, 1)), 0);
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(queue.next().data, 1);
    EXPECT_EQ(queue.collect(kLimitMs, 8, {change(fd, EVFILT_WRITE, kArm, 0, 0, 1)}).size(), 1U);
    return queue;
}

void expectBad(int number) {
    EXPECT_EQ(kevent(number, nullptr, 0, nullptr, 0, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(KeventCall, ClosedQueueIsBadThoughItSkippedTheKernelOnce) {
    const Pair pair = unixPair();
    Queue queue = queueThatSkippedTheKernel(pair);
    const int number = queue.fd();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    EXPECT_EQ(queue.collect(0, 8, {change(fd, EVFILT_WRITE, EV_DELETE)}).size(), 1U) << "READ";
    queue.close();
    expectBad(number);
}

TEST(KeventCall, ClosedQueueIsBadThoughTheOneBeforeItSkippedTheKernel) {
    const Pair pair = unixPair();
    Queue first = queueThatSkippedTheKernel(pair);
    const int number = first.fd();
    first.close();
    Queue second;
    ASSERT_EQ(second.fd(), number);
    second.close();
    expectBad(number);
}

TEST(KeventCall, QueueIsCloseOnExec) {
    const Queue queue;
    EXPECT_EQ(fcntl(queue.fd(), F_GETFD), FD_CLOEXEC);
}

TEST(KeventCall, QueueOwnsNoDescriptorBesideItsOwn) {
    const Pair pair = unixPair();
    Queue queue;
    for (uint64_t ident = 0; ident < 100; ++ident) {
        ASSERT_EQ(queue.apply(change(ident, EVFILT_TIMER, kArm, 1000)), 0);
    }
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(pair.reader.get()), EVFILT_READ, kArm)), 0);
    queue.collect();
    const Fd after(dup(0));
    EXPECT_EQ(after.get(), queue.fd() + 1);
}

TEST(KeventCall, ForkDoesNotInheritTheQueue) {
    const Queue queue;
    ASSERT_EQ(queue.apply(change(1, EVFILT_TIMER, kArm, 0)), 0);
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        struct kevent event {};
        const timespec none{};
        const int n = kevent(queue.fd(), nullptr, 0, &event, 1, &none);
        _exit(n == -1 && errno == EBADF ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(queue.collect(kLimitMs).size(), 1U);
}

TEST(KeventCall, ChildMakesQueuesOfItsOwnUnderTheOldNumber) {
    const Queue queue;
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        ::close(queue.fd());
        const int own = kqueue();
        struct kevent event = change(5, EVFILT_TIMER, kArm, 0);
        const int n = kevent(own, &event, 1, &event, 1, nullptr);
        _exit(own == queue.fd() && n == 1 && event.ident == 5 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

void onAlarm(int) {}

TEST(KeventCall, SignalInterruptsTheWaitAfterTheChanges) {
    const Queue queue;
    struct sigaction action {};
    action.sa_handler = onAlarm;
    action.sa_flags = SA_RESTART;  // makes no difference: a wait is never restarted
    ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
    // Repeats: a signal before the wait has begun would be lost.
    const itimerval every{{0, 20'000}, {0, 20'000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &every, nullptr), 0);
    const auto timer = change(1, EVFILT_TIMER, kArm, 3'600'000);
    struct kevent event {};
    const int n = kevent(queue.fd(), &timer, 1, &event, 1, nullptr);
    const int error = errno;
    const itimerval stop{};
    ASSERT_EQ(setitimer(ITIMER_REAL, &stop, nullptr), 0);
    EXPECT_EQ(n, -1);
    EXPECT_EQ(error, EINTR);
    EXPECT_EQ(queue.apply(change(1, EVFILT_TIMER, EV_DELETE)), 0);
}

TEST(KeventCall, ThousandEventsComeInOneCall) {
    const Queue queue;
    std::vector<struct kevent> changes;
    std::vector<Pair> pairs;
    for (int i = 0; i < 400; ++i) {
        pairs.push_back(pipePair());
        writeAll(pairs.back().writer.get(), "x");
        changes.push_back(change(static_cast<uint64_t>(pairs.back().reader.get()), EVFILT_READ, kArm));
        changes.push_back(change(static_cast<uint64_t>(pairs.back().writer.get()), EVFILT_WRITE, kArm));
    }
    for (uint64_t ident = 0; ident < 200; ++ident) changes.push_back(change(ident, EVFILT_TIMER, kArm, 0));
    const auto events = queue.collect(kLimitMs, 1000, changes);
    EXPECT_EQ(events.size(), 1000U);
}

TEST(KeventCall, ManyEventsComeOnceInAListThatIsLonger) {
    raiseDescriptorLimit();
    const Queue queue;
    const Pair pair = pipePair();
    writeAll(pair.writer.get(), "x");
    std::vector<Fd> copies;
    std::vector<struct kevent> changes;
    for (int i = 0; i < 1'500; ++i) {
        copies.emplace_back(fcntl(pair.reader.get(), F_DUPFD_CLOEXEC, 0));
        changes.push_back(change(static_cast<uint64_t>(copies.back().get()), EVFILT_READ, kArm));
    }
    EXPECT_EQ(queue.collect(kLimitMs, 4'000, changes).size(), copies.size());
    EXPECT_EQ(queue.collect(kLimitMs, 4'000).size(), copies.size());
}

/// Whichever source of events comes first.
TEST(KeventCall, NothingIsStoredBehindTheList) {
    const Queue queue;
    const Fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    std::vector<Pair> pairs;
    for (int i = 0; i < 3; ++i) {
        pairs.push_back(pipePair());
        writeAll(pairs.back().writer.get(), "x");
        ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(pairs.back().reader.get()), EVFILT_READ, kArm)),
                  0);
    }
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(null.get()), EVFILT_READ, kArm)), 0);
    for (int call = 0; call < 6; ++call) {
        std::vector<struct kevent> changes;
        for (uint64_t i = 0; i < 5; ++i) changes.push_back(change(i, EVFILT_TIMER, kArm, 0));
        struct kevent list[16] = {};
        const timespec none{};
        EXPECT_EQ(kevent(queue.fd(), changes.data(), 5, list, 6, &none), 6);
        for (int i = 6; i < 16; ++i) EXPECT_EQ(list[i].filter, 0);
    }
}

TEST(KeventCall, SocketsWithBothFiltersFillAListExactly) {
    const Queue queue;
    std::vector<struct kevent> changes;
    std::vector<Pair> pairs;
    for (int i = 0; i < 200; ++i) {
        pairs.push_back(unixPair());
        for (const int fd : {pairs.back().reader.get(), pairs.back().writer.get()}) {
            writeAll(fd, "x");
            changes.push_back(change(static_cast<uint64_t>(fd), EVFILT_READ, kArm));
            changes.push_back(change(static_cast<uint64_t>(fd), EVFILT_WRITE, kArm));
        }
    }
    EXPECT_EQ(queue.collect(kLimitMs, 2000, changes).size(), 800U);
    EXPECT_EQ(queue.collect(kLimitMs, 800).size(), 800U);
}

}  // namespace
