/// kqueue() and kevent(): the calls of platform/kevent.h over epoll.
///
/// kevent() applies its changes one after the other, answers failures with records, and goes on to collect
/// events (kevent_collect.h) if there were none.
#include <errno.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "platform/kevent.h"
#include "platform/linux/kevent_clock.h"
#include "platform/linux/kevent_collect.h"
#include "platform/linux/kevent_descriptors.h"
#include "platform/linux/kevent_queue.h"
#include "platform/linux/kevent_readiness.h"

namespace {

using namespace rvkevent;

/// Bits of a change's flags that belong to the system.
constexpr unsigned kSystemFlags = 0xF000;

bool isValidTimeout(const timespec* timeout) {
    return timeout == nullptr ||
           (timeout->tv_sec >= 0 && timeout->tv_nsec >= 0 && timeout->tv_nsec < kNsPerSecond);
}

int checkArguments(const struct kevent* changes, int nchanges, const struct kevent* events, int nevents,
                   const timespec* timeout) {
    if (nchanges < 0 || nevents < 0 || !isValidTimeout(timeout)) return EINVAL;
    if ((nchanges > 0 && changes == nullptr) || (nevents > 0 && events == nullptr)) return EFAULT;
    return 0;
}

/// now: the time at which the timers of this list start; 0 until there is one.
int applyChange(Kqueue& queue, const struct kevent& change, bool userSpace, int64_t& now) {
    switch (change.filter) {
        case EVFILT_READ:
        case EVFILT_WRITE:
            return changeDescriptor(queue, change, userSpace);
        case EVFILT_TIMER:
            queue.pollsChanged = true;
            if (now == 0) now = clockNs(CLOCK_MONOTONIC);
            return changeTimer(queue.timers, change, now);
        default:
            return EINVAL;
    }
}

/// Applies the changes in order. A failure, or any outcome of a change with EV_RECEIPT, becomes a record: the
/// change itself with EV_ERROR added. Returns the number of records, or -1 with errno for a failure without
/// room.
int applyChanges(Kqueue& queue, const struct kevent* changes, int nchanges, struct kevent* events,
                 int nevents) {
    // Only a caller that counts by taking can do without epoll's word of the room.
    const bool userSpace = queue.uncounted && nevents > 0 && queue.waiters == 0;
    int records = 0;
    int64_t now = 0;
    for (int i = 0; i < nchanges; ++i) {
        struct kevent change = changes[i];  // a copy: the record may go where the change stands
        change.flags = static_cast<uint16_t>(change.flags & ~kSystemFlags);
        const int error = applyChange(queue, change, userSpace, now);
        if (error == 0 && (change.flags & EV_RECEIPT) == 0) continue;
        if (records < nevents) {
            events[records] = change;
            events[records].flags = static_cast<uint16_t>(change.flags | EV_ERROR);
            events[records++].data = error;
        } else if (error != 0) {
            errno = error;
            return -1;
        }
    }
    return records;
}

/// True if the number is an epoll instance. The list of this wait cannot be written to, so that nothing is
/// taken from the instance: what is ready makes the call fail with EFAULT and stays ready.
bool isEpoll(int fd) {
    const int error = errno;
    // volatile: the compiler would warn of the overflow that is wanted here.
    const volatile uintptr_t unmapped = 1;
    auto* nowhere = reinterpret_cast<epoll_event*>(unmapped);  // NOLINT(performance-no-int-to-ptr): no object
    const bool is = epoll_wait(fd, nowhere, 1, 0) != -1 || errno == EFAULT;
    errno = error;
    return is;
}

/// Collects, unless records have to be returned at once or there is no room for events.
int finish(Kqueue& queue, int records, struct kevent* events, int nevents, const timespec* timeout) {
    if (records == 0 && nevents > 0) return collectEvents(queue, events, nevents, timeout);
    const int error = errno;
    handToEpoll(queue, false);
    errno = error;
    return records;
}

}  // namespace

int kqueue(void) {
    const int fd = epoll_create1(EPOLL_CLOEXEC);
    if (fd == -1 || makeQueue(fd)) return fd;
    const int error = errno;
    (void)close(fd);  // nothing is registered with it
    errno = error;
    return -1;
}

int kevent(int kq, const struct kevent* changelist, int nchanges, struct kevent* eventlist, int nevents,
           const struct timespec* timeout) {
    Kqueue* queue = findQueue(kq);
    if (queue == nullptr) return -1;
    if (const int error = checkArguments(changelist, nchanges, eventlist, nevents, timeout); error != 0) {
        errno = error;
        return -1;
    }
    const QueueLock guard(*queue);
    ++queue->call;
    queue->kernelSeen = false;
    const int records = applyChanges(*queue, changelist, nchanges, eventlist, nevents);
    if (queue->pollsChanged) wakeWaiter(*queue);
    queue->pollsChanged = false;
    const int result = finish(*queue, records, eventlist, nevents, timeout);
    // A closed queue has neither events nor changes that fail: if the kernel was not asked about it so far,
    // it is now.
    const bool skippedEpoll = queue->epollSkipped && result > 0;  // in this call
    if (queue->kernelSeen || skippedEpoll || isEpoll(queue->fd)) return result;
    errno = EBADF;
    return -1;
}

void keventLeaveUncounted(int kq) {
    const int error = errno;
    Kqueue* queue = findQueue(kq);
    errno = error;
    if (queue == nullptr) return;
    const QueueLock guard(*queue);
    queue->uncounted = true;
}

void keventTick(int kq, int fd, int64_t periodNs) {
    const int error = errno;
    Kqueue* queue = findQueue(kq);
    if (queue != nullptr) {
        const QueueLock guard(*queue);
        queue->tickFd = fd;
        queue->tickNs = watchTicks(*queue, queue->fd) ? periodNs : 0;
    }
    errno = error;
}

int keventCount(struct kevent* event) {
    if (event->data != KEVENT_UNCOUNTED) return 1;
    Entry entry{};
    entry.fd = static_cast<int>(event->ident);
    classify(entry);
    const bool reads = event->filter == EVFILT_READ;
    const uint32_t events = (event->flags & EV_EOF) != 0 ? EPOLLHUP | EPOLLRDHUP : 0;
    const Readiness readiness = reads ? readReadiness(entry, events | EPOLLIN)
                                      : writeReadiness(entry, events | askPoll(entry.fd, POLLOUT));
    event->data = readiness.data;
    if (readiness.endOfFile) event->flags |= EV_EOF;
    return readiness.active ? 1 : 0;
}
