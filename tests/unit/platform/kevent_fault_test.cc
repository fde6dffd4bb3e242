/// The queue without memory or descriptors: each allocation fails once, and what could not be done is ENOMEM.
/// And the queue with a kernel that refuses its watches, or that does not know the newer of its calls.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include "kevent_support.h"

namespace {

int countdown = 0;         // the allocation that fails: 1 is the next one; 0: none
int refusedOperation = 0;  // of epoll_ctl(2); 0: none
int refusal = 0;           // its errno
bool oldKernel = false;
int refusals = 0;  // of the old kernel

bool fails() {
    return countdown > 0 && --countdown == 0;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's --wrap fixes these names
extern "C" {
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* memory, size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* memory, size_t size);

void* __wrap_calloc(size_t count, size_t size) {
    return fails() ? nullptr : __real_calloc(count, size);
}
void* __wrap_realloc(void* memory, size_t size) {
    return fails() ? nullptr : __real_realloc(memory, size);
}

int __real_epoll_ctl(int epoll, int operation, int fd, epoll_event* event);
int __wrap_epoll_ctl(int epoll, int operation, int fd, epoll_event* event);

int __wrap_epoll_ctl(int epoll, int operation, int fd, epoll_event* event) {
    if (operation != refusedOperation) return __real_epoll_ctl(epoll, operation, fd, event);
    errno = refusal;
    return -1;
}

int __real_epoll_pwait2(int epoll, epoll_event* events, int room, const timespec* timeout,
                        const sigset_t* mask);
int __wrap_epoll_pwait2(int epoll, epoll_event* events, int room, const timespec* timeout,
                        const sigset_t* mask);

int __wrap_epoll_pwait2(int epoll, epoll_event* events, int room, const timespec* timeout,
                        const sigset_t* mask) {
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
    const Fd before(dup(0));
    int kq = -1;
    EXPECT_GT(sweep([&] {
                  kq = kqueue();
                  return kq == -1 ? errno : 0;
              }),
              0);
    EXPECT_EQ(kq, before.get() + 1) << "a failed one leaves no descriptor behind";
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

TEST(KeventFault, StaleEntryWithoutADescriptorForTheNewInstanceIsSilentStill) {
    const Queue queue;
    Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(pair.reader.get()), EVFILT_READ, kArm)), 0);
    const Fd copy(dup(pair.reader.get()));
    pair.reader.reset();
    writeAll(pair.writer.get(), "to the copy");
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto events = queue.collect(kSilenceMs);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_TRUE(events.empty());
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

/// How a change ends when the kernel refuses one operation.
int applyRefused(const Queue& queue, const struct kevent& one, int operation, int error) {
    refusedOperation = operation;
    refusal = error;
    const int result = queue.apply(one);
    refusedOperation = 0;
    return result;
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
