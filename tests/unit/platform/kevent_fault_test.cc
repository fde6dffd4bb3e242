/// The queue without memory or descriptors: each allocation fails once, and what could not be done is ENOMEM.
/// And the queue with a kernel that refuses its watches, or that does not know the newer of its calls.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <ostream>
#include <set>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "kevent_support.h"

namespace {

int countdown = 0;                   // the allocation that fails: 1 is the next one; 0: none
std::function<void()> onAllocation;  // called once, by the next one
int refusedOperation = 0;            // of epoll_ctl(2); 0: none
int refusal = 0;                     // its errno
bool oldKernel = false;
std::atomic<bool> interrupts{false};  // the next wait
int refusals = 0;                     // of the old kernel
int atForkError = 0;
int unsentLimit = -1;            // stands for the file of the system's limit
int opened = 0;                  // how often it was asked for
std::atomic<int> blocks{0};      // of memory that are in use
std::atomic<int> waits{0};       // how often epoll was asked
std::atomic<bool> slept{false};  // in one of them
int64_t longestPauseNs = 0;      // that was asked for
timespec beforeWallClock{};      // passes before a reading of CLOCK_REALTIME

bool fails() {
    if (onAllocation) std::exchange(onAllocation, nullptr)();
    return countdown > 0 && --countdown == 0;
}

bool interrupted() {
    if (!interrupts.exchange(false)) return false;
    errno = EINTR;
    return true;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's --wrap fixes these names
extern "C" {
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* memory, size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* memory, size_t size);

int __real_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)());
int __wrap_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)());

int __wrap_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)()) {
    return atForkError != 0 ? atForkError : __real_pthread_atfork(prepare, parent, child);
}

void* __wrap_calloc(size_t count, size_t size) {
    if (fails()) return nullptr;
    ++blocks;
    return __real_calloc(count, size);
}
void* __wrap_realloc(void* memory, size_t size) {
    if (fails()) return nullptr;
    if (memory == nullptr) ++blocks;
    return __real_realloc(memory, size);
}
int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...);

int __wrap_open(const char* path, int flags, ...) {
    if (std::string_view(path) != "/proc/sys/net/ipv4/tcp_notsent_lowat") return __real_open(path, flags);
    ++opened;
    return std::exchange(unsentLimit, -1);
}

void __real_free(void* memory);
void __wrap_free(void* memory);

void __wrap_free(void* memory) {
    if (memory != nullptr) --blocks;
    __real_free(memory);
}

int __real_epoll_ctl(int epoll, int operation, int fd, epoll_event* event);
int __wrap_epoll_ctl(int epoll, int operation, int fd, epoll_event* event);

int __wrap_epoll_ctl(int epoll, int operation, int fd, epoll_event* event) {
    if (operation != refusedOperation) return __real_epoll_ctl(epoll, operation, fd, event);
    errno = refusal;
    return -1;
}

int __real_nanosleep(const timespec* pause, timespec* left);
int __wrap_nanosleep(const timespec* pause, timespec* left);

int __wrap_nanosleep(const timespec* pause, timespec* left) {
    longestPauseNs =
        std::max<int64_t>(longestPauseNs, int64_t{pause->tv_sec} * 1'000'000'000 + pause->tv_nsec);
    return __real_nanosleep(pause, left);
}

int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now);

int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    if (clock == CLOCK_REALTIME) (void)__real_nanosleep(&beforeWallClock, nullptr);
    return __real_clock_gettime(clock, now);
}

int __real_epoll_wait(int epoll, epoll_event* events, int room, int ms);
int __wrap_epoll_wait(int epoll, epoll_event* events, int room, int ms);

int __wrap_epoll_wait(int epoll, epoll_event* events, int room, int ms) {
    ++waits;
    if (ms != 0) slept = true;
    if (interrupted()) return -1;
    return __real_epoll_wait(epoll, events, room, ms);
}

int __real_epoll_pwait2(int epoll, epoll_event* events, int room, const timespec* timeout,
                        const sigset_t* mask);
int __wrap_epoll_pwait2(int epoll, epoll_event* events, int room, const timespec* timeout,
                        const sigset_t* mask);

int __wrap_epoll_pwait2(int epoll, epoll_event* events, int room, const timespec* timeout,
                        const sigset_t* mask) {
    ++waits;
    slept = true;
    if (interrupted()) return -1;
    if (!oldKernel) return __real_epoll_pwait2(epoll, events, room, timeout, mask);
    ++refusals;
    errno = ENOSYS;
    return -1;
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

using namespace keventtest;

/// Runs a step with its n-th allocation failing, for n = 1, 2, ... until it needs no more than that. Returns
/// how many runs failed; each of them has said ENOMEM.
template <typename Step>
int sweep(Step step) {
    for (int n = 1;; ++n) {
        countdown = n;
        const int error = step();
        const bool failed = countdown == 0;
        countdown = 0;
        if (!failed) {
            EXPECT_EQ(error, 0);
            return n - 1;
        }
        EXPECT_EQ(error, ENOMEM) << "allocation " << n;
    }
}

TEST(KeventFault, KqueueWithoutMemory) {
    std::vector<Fd> before;  // up to a number that has been nothing yet
    do {
        before.emplace_back(dup(0));
    } while (before.back().get() < 300);
    int kq = -1;
    EXPECT_GT(sweep([&] {
                  kq = kqueue();
                  return kq == -1 ? errno : 0;
              }),
              0);
    EXPECT_EQ(kq, before.back().get() + 1) << "a failed one leaves no descriptor behind";
    const Fd owner(kq);
}

TEST(KeventFault, KqueueWithoutADescriptor) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int kq = kqueue();
    const int error = errno;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(kq, -1);
    EXPECT_EQ(error, EMFILE);
}

/// In a process that has made no queue yet: the handler of fork(2) is registered once.
TEST(KeventFault, KqueueWithoutAForkHandlerFails) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            atForkError = ENOMEM;
            const int before = dup(0);
            (void)close(before);
            const int kq = kqueue();
            const bool failed = kq == -1 && errno == ENOMEM;
            _exit(failed && dup(0) == before ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

/// The memory of a closed queue goes to the next one under its number, which starts with none of its own.
TEST(KeventFault, QueuesUnderOneNumberTakeNoMoreMemoryThanOne) {
    const Pair pair = unixPair();
    const Fd high(fcntl(pair.reader.get(), F_DUPFD_CLOEXEC, 900));
    const struct kevent reads[] = {change(static_cast<uint64_t>(pair.reader.get()), EVFILT_READ, kArm),
                                   change(static_cast<uint64_t>(high.get()), EVFILT_READ, kArm)};
    int before = 0;
    int number = -1;
    for (int round = 0; round < 3; ++round) {
        const int kq = kqueue();
        if (round == 0) number = kq;
        const int used = blocks;
        EXPECT_EQ(kq, number);
        if (round == 1) before = used;
        if (round == 2) {
            EXPECT_EQ(used, before);
        }
        const Fd owner(kq);
        EXPECT_EQ(kevent(kq, reads, 2, nullptr, 0, nullptr), 0);
        for (uint64_t i = 0; i < 300; ++i) {
            const auto timer = change(i, EVFILT_TIMER, kArm, 1'000);
            EXPECT_EQ(kevent(kq, &timer, 1, nullptr, 0, nullptr), 0);
        }
    }
}

TEST(KeventFault, NumberThatIsNoQueueAllocatesNothing) {
    const Queue queue;
    countdown = 1;
    struct kevent event;
    EXPECT_EQ(kevent(5'000, nullptr, 0, &event, 1, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(countdown, 1);
    countdown = 0;
}

/// Takes all numbers below one at which the table of queues grows.
std::vector<Fd> takeNumbersBelow(int number) {
    raiseDescriptorLimit();
    std::vector<Fd> taken;
    do {
        taken.emplace_back(fcntl(0, F_DUPFD_CLOEXEC, 0));
    } while (taken.back().get() != -1 && taken.back().get() != number - 1);
    EXPECT_NE(taken.back().get(), -1);
    return taken;
}

bool firesATimer(int kq) {
    struct kevent event = change(1, EVFILT_TIMER, kArm | EV_ONESHOT, 0);
    return kevent(kq, &event, 1, &event, 1, nullptr) == 1 && event.filter == EVFILT_TIMER;
}

TEST(KeventFault, ForkWhileAQueueIsMadeLeavesTheChildAbleToMakeItsOwn) {
    const std::vector<Fd> taken = takeNumbersBelow(1024);
    pid_t child = -1;
    onAllocation = [&child] {
        child = fork();
        if (child != 0) return;
        (void)alarm(20);
        _exit(firesATimer(kqueue()) ? 0 : 1);
    };
    const Queue queue;
    ASSERT_GT(child, 0);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(firesATimer(queue.fd()));
}

TEST(KeventFault, QueuesMadeAtTheSameTimeAreAllThere) {
    const std::vector<Fd> taken = takeNumbersBelow(2048);
    int other = -1;
    std::atomic<pid_t> tid{0};
    std::atomic<bool> done{false};
    std::thread thread;
    onAllocation = [&] {
        thread = std::thread([&] {
            tid = gettid();
            other = kqueue();
            done = true;
        });
        const int64_t limit = nowMs() + kLimitMs;
        while (!done && (tid == 0 || threadState(tid) != 'S') && nowMs() < limit) std::this_thread::yield();
    };
    const Queue queue;
    ASSERT_TRUE(thread.joinable());
    thread.join();
    const Fd owner(other);
    EXPECT_TRUE(firesATimer(queue.fd()));
    EXPECT_TRUE(firesATimer(other));
}

TEST(KeventFault, DescriptorChangeWithoutMemory) {
    const Queue queue;
    const Pair pair = unixPair();
    const Fd high(fcntl(pair.reader.get(), F_DUPFD_CLOEXEC, 900));
    for (const int fd : {pair.reader.get(), high.get()}) {
        const auto read = change(static_cast<uint64_t>(fd), EVFILT_READ, kArm);
        EXPECT_GE(sweep([&] { return queue.apply(read); }), 1);
    }
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(queue.collect().size(), 2U);
}

TEST(KeventFault, TimerWithoutMemory) {
    const Queue queue;
    int failures = 0;
    for (uint64_t ident = 0; ident < 300; ++ident) {
        failures += sweep([&] { return queue.apply(change(ident, EVFILT_TIMER, kArm | EV_ONESHOT, 0)); });
    }
    EXPECT_GE(failures, 9);  // three tables, and each of them grew
    EXPECT_EQ(queue.collect(0, 400).size(), 300U);
}

TEST(KeventFault, SteadyTurnsAllocateNothing) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm, 0, 0, 1)), 0);
    ASSERT_EQ(queue.collect(0, 4, {change(1, EVFILT_TIMER, kArm, 0)}).size(), 1U);
    countdown = 1;
    struct kevent events[4] = {};
    for (int i = 0; i < 10; ++i) {
        const auto timer = change(static_cast<uint64_t>(i % 2), EVFILT_TIMER, kArm, 0);
        const auto write = change(fd, EVFILT_WRITE, kArm, 0, 0, 1);
        const auto gone = change(fd, EVFILT_WRITE, EV_DELETE, 0, 0, 1);
        EXPECT_EQ(kevent(queue.fd(), &timer, 1, events, 4, nullptr), 1);
        EXPECT_EQ(kevent(queue.fd(), &write, 1, events, 4, nullptr), 1);
        EXPECT_EQ(kevent(queue.fd(), &gone, 1, nullptr, 0, nullptr), 0);
    }
    EXPECT_EQ(countdown, 1);
    countdown = 0;
}

/// How often epoll is asked while nothing comes, and no descriptor is to be had.
int waitsInSilence(const Queue& queue) {
    rlimit limit{};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{1, limit.rlim_max};  // with 0 poll(2) would fail, too
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    waits = 0;
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    return waits;
}

/// A wait that goes to sleep once, or twice if it woke too early for the time-out.
constexpr int kFewWaits = 3;

class KeventDelivered : public testing::TestWithParam<unsigned> {};

INSTANTIATE_TEST_SUITE_P(Flags, KeventDelivered, testing::Values(EV_ONESHOT, EV_DISPATCH),
                         [](const auto& one) { return one.param == EV_ONESHOT ? "OneShot" : "Dispatch"; });

TEST_P(KeventDelivered, KnoteIsNotWatchedAnyMore) {
    const Queue queue;
    const Pair pair = unixPair();
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(pair.reader.get()), EVFILT_READ, kArm | GetParam())),
              0);
    EXPECT_EQ(queue.collect().size(), 1U);
    EXPECT_LE(waitsInSilence(queue), kFewWaits);
}

TEST_P(KeventDelivered, KnoteBesideAnotherIsNotWatchedAnyMore) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    fill(pair.reader.get());
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm)), 0);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm | GetParam())), 0);
    EXPECT_EQ(queue.collect().size(), 1U);
    EXPECT_LE(waitsInSilence(queue), kFewWaits);
}

TEST_P(KeventDelivered, KnoteOfAFileIsNotWatchedAnyMore) {
    const Queue queue;
    const Fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    const auto fd = static_cast<uint64_t>(null.get());
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm | GetParam())), 0);
    EXPECT_EQ(queue.collect().size(), 1U);
    EXPECT_LE(waitsInSilence(queue), kFewWaits);
}

TEST(KeventFault, StaleEntryIsReportedToNobodyAndWatchedNoMore) {
    const Queue queue;
    Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(pair.reader.get()), EVFILT_READ, kArm)), 0);
    const Fd copy(dup(pair.reader.get()));
    pair.reader.reset();
    writeAll(pair.writer.get(), "to the copy");
    EXPECT_TRUE(queue.collect().empty());
    EXPECT_TRUE(queue.collect().empty());
    EXPECT_LE(waitsInSilence(queue), kFewWaits);
}

TEST(KeventFault, StaleEntryThatAChangeMetIsWatchedNoMore) {
    const Queue queue;
    Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    const Fd copy(dup(pair.reader.get()));
    pair.reader.reset();
    EXPECT_EQ(queue.apply(change(fd, EVFILT_READ, EV_DELETE)), ENOENT);
    writeAll(pair.writer.get(), "to the copy");
    EXPECT_TRUE(queue.collect(1).empty());
    EXPECT_LE(waitsInSilence(queue), kFewWaits);
}

TEST(KeventFault, StaleEntryThatAChangeMetDoesNotFillAShortList) {
    const Queue queue;
    Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    const Fd copy(dup(pair.reader.get()));
    pair.reader.reset();
    EXPECT_EQ(queue.apply(change(fd, EVFILT_READ, EV_DELETE)), ENOENT);
    writeAll(pair.writer.get(), "to the copy");
    EXPECT_TRUE(queue.collect(0, 1).empty());
    EXPECT_LE(waitsInSilence(queue), kFewWaits);
}

TEST(KeventFault, PollDoesNotSleep) {
    const Queue queue;
    const Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(pair.reader.get()), EVFILT_READ, kArm)), 0);
    slept = false;
    EXPECT_TRUE(queue.collect(0).empty());
    EXPECT_FALSE(slept);
    EXPECT_TRUE(queue.collect(1).empty());
    EXPECT_TRUE(slept);
}

TEST(KeventFault, LevelIsLeftToEpollOnceTheEdgeBesideItIsDeleted) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm | EV_CLEAR)), 0);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(queue.collect().size(), 2U);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, EV_DELETE)), 0);
    EXPECT_EQ(queue.collect().size(), 1U);
    EXPECT_EQ(readSome(pair.reader.get()), "x");
    EXPECT_LE(waitsInSilence(queue), kFewWaits);
}

TEST(KeventFault, NewFileUnderANumberThatAChangeMetIsNotWatched) {
    const Queue queue;
    const Pair pair = unixPair();
    const Pair other = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    ASSERT_EQ(dup2(other.reader.get(), pair.reader.get()), pair.reader.get());
    writeAll(other.writer.get(), "x");
    EXPECT_EQ(queue.apply(change(fd, EVFILT_READ, EV_ENABLE)), ENOENT);
    EXPECT_LE(waitsInSilence(queue), kFewWaits);
}

TEST(KeventFault, DisabledKnoteOfADeadSocketIsNotWatched) {
    const Queue queue;
    Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, EV_ADD | EV_DISABLE)), 0);
    pair.writer.reset();
    EXPECT_LE(waitsInSilence(queue), kFewWaits + 1);
}

TEST(KeventFault, SocketThatWasNeverConnectedIsLookedAtNowAndThen) {
    const Queue queue;
    const Fd fresh(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(fresh.get()), EVFILT_WRITE, kArm)), 0);
    const int64_t begin = nowMs();
    const int seen = waitsInSilence(queue);
    EXPECT_LE(seen, 4 + (nowMs() - begin) / 2) << "every 10 ms, not without end";
}

TEST(KeventFault, FilesThatAreGoneAreNotLookedForAnyMore) {
    const Queue queue;
    for (int i = 0; i < 2; ++i) {
        const Fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
        const auto fd = static_cast<uint64_t>(null.get());
        ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
        EXPECT_EQ(queue.collect().size(), 1U);
        // The second one goes by its close(2) alone.
        if (i == 0) {
            ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, EV_DELETE)), 0);
        }
    }
    EXPECT_TRUE(queue.collect().empty());
    EXPECT_LE(waitsInSilence(queue), kFewWaits);
}

/// An edge beside a level: once the level has passed, only epoll is waited for.
TEST(KeventFault, LevelThatPassedBesideAnEdgeIsNotLookedForAnyMore) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm | EV_CLEAR)), 0);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(queue.collect().size(), 2U);
    EXPECT_EQ(queue.collect().size(), 1U);
    EXPECT_EQ(readSome(pair.reader.get()), "x");
    EXPECT_TRUE(queue.collect().empty());
    EXPECT_LE(waitsInSilence(queue), kFewWaits);
}

TEST(KeventFault, EdgeThatWasToldIsWaitedForInEpoll) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm | EV_CLEAR)), 0);
    writeAll(pair.writer.get(), "x");
    EXPECT_THAT(queue.collect(), testing::ElementsAre(IsEvent(fd, EVFILT_READ)));
    EXPECT_LE(waitsInSilence(queue), kFewWaits);
}

TEST(KeventFault, LevelSocketWithNothingToTellIsWaitedForInEpoll) {
    const Queue queue;
    const Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(pair.reader.get()), EVFILT_READ, kArm)), 0);
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(queue.collect().size(), 1U);
    EXPECT_EQ(queue.collect().size(), 1U);
    EXPECT_EQ(readSome(pair.reader.get()), "x");
    EXPECT_LE(waitsInSilence(queue), kFewWaits);
}

/// The stale entry of a number that was closed while a duplicate lives is left behind in the old instance of
/// epoll; everything else moves to a new one.
TEST(KeventFault, StaleEntryTakesNothingAlong) {
    const Queue queue;
    const Fd file = temporaryFile();
    writeAll(file.get(), "abc");
    ASSERT_EQ(lseek(file.get(), 0, SEEK_SET), 0);
    const Pair pair = unixPair();
    const Fd far(fcntl(pair.reader.get(), F_DUPFD_CLOEXEC, 128));
    ASSERT_EQ(far.get() % 64, 0) << "the first of a page of knotes";
    for (const Fd* fd : {&file, &far, &pair.reader}) {
        ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(fd->get()), EVFILT_READ, kArm)), 0);
    }
    Pair stale = unixPair();
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(stale.reader.get()), EVFILT_READ, kArm)), 0);
    const Fd copy(dup(stale.reader.get()));
    stale.reader.reset();
    writeAll(stale.writer.get(), "to the copy");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(queue.collect().size(), 1U) << "the file";
    writeAll(pair.writer.get(), "x");
    std::set<uint64_t> told;
    for (const auto& event : queue.collect()) told.insert(event.ident);
    EXPECT_EQ(told, (std::set<uint64_t>{static_cast<uint64_t>(file.get()), static_cast<uint64_t>(far.get()),
                                        static_cast<uint64_t>(pair.reader.get())}));
}

/// epoll reports as many as the list has room for, and the stale ones are among them.
TEST(KeventFault, StaleEntriesLeaveTheListToOthers) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto arm = change(static_cast<uint64_t>(pair.reader.get()), EVFILT_WRITE, kArm);
    std::vector<Fd> copies;
    for (const int count : {1, 20}) {
        for (int i = 0; i < count; ++i) {
            const Pair stale = unixPair();
            ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(stale.reader.get()), EVFILT_WRITE, kArm)), 0);
            copies.emplace_back(dup(stale.reader.get()));
        }
        ASSERT_EQ(queue.apply(arm), 0);
        EXPECT_THAT(queue.collect(0, 1), testing::ElementsAre(IsEvent(arm.ident, EVFILT_WRITE))) << count;
        ASSERT_EQ(queue.apply(change(arm.ident, EVFILT_WRITE, EV_DELETE)), 0);
    }
}

TEST(KeventFault, StaleEntryWithoutADescriptorForTheNewInstanceIsSilentStill) {
    const Queue queue;
    const Pair other = unixPair();
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(other.reader.get()), EVFILT_READ, kArm)), 0);
    Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(pair.reader.get()), EVFILT_READ, kArm)), 0);
    const Fd copy(dup(pair.reader.get()));
    pair.reader.reset();
    writeAll(pair.writer.get(), "to the copy");
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    waits = 0;
    longestPauseNs = 0;
    const int64_t begin = nowMs();
    const auto events = queue.collect(kSilenceMs);
    const int64_t took = nowMs() - begin;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_TRUE(events.empty());
    EXPECT_LE(waits, 2 * took + kFewWaits) << "it pauses before it tries again";
    EXPECT_EQ(longestPauseNs, 1'000'000);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    writeAll(other.writer.get(), "x");
    EXPECT_THAT(queue.next(), IsEvent(other.reader.get(), EVFILT_READ));
}

/// As if the thread had lost its processor between the readings of two clocks.
TEST(KeventFault, AbsoluteTimeIsNotEarlyForWhatPassedBetweenTwoClocks) {
    const Queue queue;
    const int64_t at = nowNs(CLOCK_REALTIME) + 50'000'000;
    beforeWallClock.tv_nsec = 20'000'000;
    const int error = queue.apply(change(1, EVFILT_TIMER, kArm, at, NOTE_ABSOLUTE | NOTE_NSECONDS));
    beforeWallClock.tv_nsec = 0;
    ASSERT_EQ(error, 0);
    EXPECT_EQ(queue.next().data, 1);
    EXPECT_GE(nowNs(CLOCK_REALTIME), at);
}

TEST(KeventFault, WaitThatASignalEndedIsNotBegunAgain) {
    const Queue queue;
    struct kevent event;
    for (const timespec limit : {timespec{0, 30'000'000}, timespec{0, 30'000'001}}) {
        interrupts = true;
        EXPECT_EQ(kevent(queue.fd(), nullptr, 0, &event, 1, &limit), -1);
        EXPECT_EQ(errno, EINTR);
        EXPECT_FALSE(interrupts);
    }
}

/// How a change ends when the kernel refuses one operation.
int applyRefused(const Queue& queue, const struct kevent& one, int operation, int error) {
    refusedOperation = operation;
    refusal = error;
    const int result = queue.apply(one);
    refusedOperation = 0;
    return result;
}

TEST(KeventFault, DeletedTimersMakeRoomForOthers) {
    const Queue queue;
    ASSERT_EQ(queue.apply(change(0, EVFILT_TIMER, kArm, 3'600'000)), 0);
    const int before = blocks;
    for (uint64_t i = 1; i <= 1000; ++i) {
        ASSERT_EQ(queue.apply(change(i, EVFILT_TIMER, kArm, 3'600'000)), 0);
        ASSERT_EQ(queue.apply(change(i, EVFILT_TIMER, EV_DELETE)), 0);
    }
    EXPECT_EQ(blocks, before);
}

TEST(KeventFault, ANumberThatIsNotOpenNeedsNoMemory) {
    const Queue queue;
    for (const int fd : {5000, 1 << 30, INT_MAX}) {
        countdown = 1;
        EXPECT_EQ(queue.apply(change(static_cast<uint64_t>(fd), EVFILT_READ, kArm)), EBADF) << fd;
        EXPECT_EQ(std::exchange(countdown, 0), 1) << fd;
    }
}

TEST(KeventFault, AWatchThatTheKernelRefusesIsNotThere) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    const auto read = change(fd, EVFILT_READ, kArm);
    EXPECT_EQ(applyRefused(queue, read, EPOLL_CTL_ADD, ENOMEM), ENOMEM);
    EXPECT_EQ(applyRefused(queue, read, EPOLL_CTL_ADD, ENOSPC), ENOMEM) << "the user's watches are used up";
    EXPECT_EQ(queue.apply(change(fd, EVFILT_READ, EV_DELETE)), ENOENT);
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(queue.collect().size(), 0U);
    EXPECT_EQ(queue.apply(read), 0);
    EXPECT_EQ(queue.collect().size(), 1U);
}

TEST(KeventFault, AChangeThatTheKernelRefusesLeavesTheOtherFilter) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    const auto write = change(fd, EVFILT_WRITE, kArm | EV_CLEAR);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    EXPECT_EQ(applyRefused(queue, write, EPOLL_CTL_MOD, ENOMEM), ENOMEM);
    EXPECT_EQ(queue.apply(change(fd, EVFILT_WRITE, EV_DELETE)), ENOENT);
    writeAll(pair.writer.get(), "x");
    EXPECT_THAT(queue.collect(), testing::ElementsAre(IsEvent(fd, EVFILT_READ)));
    EXPECT_EQ(queue.apply(write), 0);
    EXPECT_EQ(queue.collect().size(), 2U);
}

/// WRITE was told without epoll, which does not watch for it then.
TEST(KeventFault, AChangeThatTheKernelRefusesLeavesTheAnswers) {
    const Queue queue;
    keventLeaveUncounted(queue.fd());
    const Pair pairs[] = {unixPair(), unixPair()};
    std::vector<struct kevent> answers;
    for (const Pair& pair : pairs) {
        const auto fd = static_cast<uint64_t>(pair.reader.get());
        ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
        writeAll(pair.writer.get(), "x");
        EXPECT_EQ(queue.next().data, 1);
        EXPECT_EQ(readSome(pair.reader.get()), "x");
        answers.push_back(change(fd, EVFILT_WRITE, kArm));
    }
    EXPECT_EQ(queue.collect(kLimitMs, 64, answers).size(), 2U);
    refusedOperation = EPOLL_CTL_MOD;
    refusal = ENOMEM;
    const auto refused = queue.collect(0, 64, {change(answers[0].ident, EVFILT_READ, EV_DISABLE)});
    refusedOperation = 0;
    ASSERT_EQ(refused.size(), 1U);
    EXPECT_EQ(refused[0].data, ENOMEM);
    EXPECT_EQ(queue.collect(kLimitMs).size(), 2U);
}

TEST(KeventFault, WakeUpThatTheKernelRefusesLeavesNoDescriptorBehind) {
    const Queue queue;
    Waiter waiter(queue);
    const auto before = eventfds().size();
    for (uint64_t i = 1; i <= 3; ++i) {
        const auto later = change(i, EVFILT_TIMER, kArm, 3'600'000);
        EXPECT_EQ(applyRefused(queue, later, EPOLL_CTL_ADD, ENOSPC), 0);
    }
    EXPECT_LE(eventfds().size(), before + 1);
    ASSERT_EQ(queue.apply(change(4, EVFILT_TIMER, kArm, 0)), 0);
    EXPECT_THAT(waiter.finish(), IsEvent(4, EVFILT_TIMER));
}

TEST(KeventFault, AnAddThatTheKernelRefusesLeavesTheKnote) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm, 0, 0, 1)), 0);
    for (const int error : {ENOMEM, ENOSPC}) {
        EXPECT_GT(applyRefused(queue, change(fd, EVFILT_READ, kArm, 0, 0, 2), EPOLL_CTL_ADD, error), 0);
        EXPECT_EQ(queue.next().udata, markAddress(1));
    }
}

struct UnsentLimit {
    const char* name;
    const char* text;
    int64_t room;  // 0: what there is without a limit
};

void PrintTo(const UnsentLimit& limit, std::ostream* out) {
    *out << limit.name;
}

class KeventUnsentLimit : public testing::TestWithParam<UnsentLimit> {};

INSTANTIATE_TEST_SUITE_P(Texts, KeventUnsentLimit,
                         testing::Values(UnsentLimit{"Number", "16384\n", 8192}, UnsentLimit{"Digit", "8", 4},
                                         UnsentLimit{"Longest", "4294967294\n", 0},
                                         UnsentLimit{"None", "4294967295\n", 0},
                                         UnsentLimit{"Zero", "0\n", 0}, UnsentLimit{"Empty", "", 0},
                                         UnsentLimit{"NoFile", nullptr, 0}),
                         [](const auto& one) { return one.param.name; });

/// 0 if all is well, else what is not.
int lookAtRoom(const UnsentLimit& limit) {
    if (limit.text != nullptr) {
        unsentLimit = memfd_create("limit", MFD_CLOEXEC);
        if (pwrite(unsentLimit, limit.text, strlen(limit.text), 0) == -1) return 1;
    }
    const Queue queue;
    const Pair pair = tcpPair();
    (void)queue.apply(change(static_cast<uint64_t>(pair.writer.get()), EVFILT_WRITE, kArm));
    const int lowest = limit.text != nullptr ? unsentLimit : dup(0);
    if (limit.text == nullptr) (void)close(lowest);
    for (int i = 0; i < 2; ++i) {
        const int64_t room = queue.next().data;
        if (limit.room == 0 ? room < 16384 : room != limit.room) return 2;
    }
    if (opened != 1) return 3;
    return dup(0) == lowest ? 0 : 4;
}

/// In a process that begins anew, since the limit is read once.
TEST_P(KeventUnsentLimit, OfTheSystemCapsTheRoom) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(_exit(lookAtRoom(GetParam())), testing::ExitedWithCode(0), "");
}

/// epoll_pwait2(2) is there since Linux 5.11.
class KeventOldKernel : public testing::Test {
  protected:
    KeventOldKernel() {
        oldKernel = true;
        refusals = 0;
    }
    ~KeventOldKernel() override { oldKernel = false; }

    static int waitFor(const Queue& queue, timespec timeout) {
        struct kevent event;
        return kevent(queue.fd(), nullptr, 0, &event, 1, &timeout);
    }
};

TEST_F(KeventOldKernel, FractionsOfAMillisecondAreNeverTooShort) {
    const Queue queue;
    timespec begin;
    timespec end;
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &begin), 0);
    EXPECT_EQ(waitFor(queue, {0, 2'900'000}), 0);
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &end), 0);
    EXPECT_GE((end.tv_sec - begin.tv_sec) * 1'000'000'000L + end.tv_nsec - begin.tv_nsec, 2'900'000);
    EXPECT_GT(refusals, 0);
}

TEST_F(KeventOldKernel, EventsEndTheLongestWait) {
    const Queue queue;
    const Pair pipe = pipePair();
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(pipe.reader.get()), EVFILT_READ, kArm)), 0);
    writeAll(pipe.writer.get(), "x");
    EXPECT_EQ(waitFor(queue, {4'000'000'000, 1}), 1);
    EXPECT_GT(refusals, 0);
}

}  // namespace
