/// The second half of kevent(): waiting, and turning what became ready into events.
///
/// Level-triggered entries are left to epoll, which moves each one it reports to the end of its list: a short
/// event list rotates through all of them. What epoll does not know (timers, files it refuses, WRITE in user
/// space) is collected beside it, each source being the first in its turn.
#include "platform/linux/kevent_collect.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "platform/linux/kevent_clock.h"
#include "platform/linux/kevent_descriptors.h"
#include "platform/linux/kevent_readiness.h"
#include "platform/linux/kevent_wake.h"

namespace rvkevent {

namespace {

/// Reports taken from epoll at once; more come with further calls.
constexpr int kReports = 512;
/// The same for a caller that counts by taking, and no more in that call. What it does about each input is
/// still in the processor's caches when it is told of the room for the answers, and the answers leave early.
constexpr int kUncountedReports = 8;
/// How long a thread sleeps at most while there are entries that nothing but a look can show to be ready.
constexpr int64_t kPollIntervalNs = 10'000'000;
/// A number that was checked before a wait of this length or more is checked again after it: another thread
/// may have closed it meanwhile.
constexpr int64_t kCheckHoldsNs = 100'000;
/// The pause before another attempt to replace an epoll instance when no descriptor was to be had.
constexpr int64_t kRebuildPauseNs = 1'000'000;
constexpr int64_t kNsPerMs = 1'000'000;
constexpr uint32_t kSources = 3;
/// See isVouchedFor.
constexpr uint8_t kReportsPerCheck = 64;
/// A queue is busy when this many waits have ended with events, in a row or between two ticks.
constexpr uint32_t kBusyWaits = 16;

constexpr unsigned kRead = 1;
constexpr unsigned kWrite = 2;

struct Collector {
    Kqueue& queue;
    struct kevent* list;
    int room;
    int count;
    bool stale;       // epoll reported an entry that a close(2) has ended
    bool repeated;    // epoll has begun to report the same entries again
    bool ticked;      // the queue's tick ended the wait
    bool raced;       // another thread changed registrations during the wait
    int64_t timeout;  // ns; INT64_MAX: no limit
    int64_t now;      // CLOCK_MONOTONIC, read when it is needed first and after each wait; 0: not yet
    int64_t expiry;   // of the time-out; 0: not needed so far

    bool full() const { return count == room; }
};

int64_t timeNow(Collector& c) {
    if (c.now == 0) c.now = clockNs(CLOCK_MONOTONIC);
    return c.now;
}

int64_t expiryOf(Collector& c) {
    if (c.expiry == 0) c.expiry = addClamped(timeNow(c), c.timeout);
    return c.expiry;
}

bool hasExpired(Collector& c) {
    return c.timeout == 0 || timeNow(c) >= expiryOf(c);
}

bool hasTimers(const Collector& c) {
    return firstDeadline(c.queue.timers) != INT64_MAX;
}

void emit(Collector& c, const Entry& entry, Knote& knote, int16_t filter, const Readiness& readiness) {
    struct kevent& event = c.list[c.count++];
    event.ident = static_cast<uint64_t>(entry.fd);
    event.filter = filter;
    event.flags = static_cast<uint16_t>(knote.flags | (readiness.endOfFile ? EV_EOF : 0));
    event.fflags = 0;  // the socket's error stays pending: to look at it would fetch it
    event.data = readiness.data;
    event.udata = knote.udata;
    knote.reported = c.queue.call;
    knote.told = readiness.data;
    knote.toldSize = readiness.size;
    knote.wasTold = true;
    if ((knote.flags & EV_ONESHOT) != 0) {
        knote = Knote{};
    } else if ((knote.flags & EV_DISPATCH) != 0) {
        knote.enabled = false;
    }
}

constexpr Readiness kUncounted{true, false, KEVENT_UNCOUNTED};

Readiness readinessOf(const Kqueue& queue, Entry& entry, unsigned filter, uint32_t events) {
    if (entry.alwaysReady) {
        return filter == kRead ? readReadinessOfFile(entry) : writeReadinessOfFile(entry);
    }
    const uint32_t wanted = filter == kRead ? EPOLLIN : EPOLLOUT;
    if (queue.uncounted && (events & wanted) != 0 && needsNoCount(entry, events)) return kUncounted;
    return filter == kRead ? readReadiness(entry, events) : writeReadiness(entry, events);
}

/// Nothing tells a change of a file that epoll refuses but its counts.
bool isOldNews(const Entry& entry, const Knote& knote, const Readiness& readiness) {
    return entry.alwaysReady && (knote.flags & EV_CLEAR) != 0 && knote.wasTold &&
           knote.told == readiness.data && knote.toldSize == readiness.size;
}

/// Returns false if there was no room to tell of the filter.
bool deliverFilter(Collector& c, Entry& entry, unsigned filter, uint32_t events) {
    Knote& knote = filter == kRead ? entry.read : entry.write;
    if (!knote.enabled || knote.reported == c.queue.call) return true;
    const bool isEdgeTaken = (entry.mask & EPOLLET) != 0;  // then it matters whether something is missed
    if (c.full() && !isEdgeTaken) return false;
    const Readiness readiness = readinessOf(c.queue, entry, filter, events);
    if (c.full()) return !readiness.active;
    if (!readiness.active) knote.wasTold = false;
    if (!readiness.active || isOldNews(entry, knote, readiness)) return true;
    emit(c, entry, knote, filter == kRead ? EVFILT_READ : EVFILT_WRITE, readiness);
    return true;
}

bool isLevel(const Knote& knote) {
    return knote.enabled && (knote.flags & EV_CLEAR) == 0;
}

/// Keeps the filters of an edge for which the list had no room. To arm the edge again would tell both.
void owe(Collector& c, Entry& entry, unsigned wanted, unsigned missed) {
    entry.owed = static_cast<uint8_t>((entry.owed & ~wanted) | missed);
    if (missed != 0) setPolled(c.queue.knotes, entry, true);
}

/// Reports the wanted filters of an entry. When the list has room for one of two, the other one goes first
/// next time.
void deliver(Collector& c, Entry& entry, unsigned wanted, uint32_t events) {
    const bool reads = entry.read.enabled;
    const bool writes = entry.write.enabled;
    const unsigned first = entry.owesWrite ? kWrite : kRead;
    const unsigned order[] = {first, kRead + kWrite - first};
    unsigned missed = 0;
    for (const unsigned filter : order) {
        if ((wanted & filter) != 0 && !deliverFilter(c, entry, filter, events)) missed |= filter;
    }
    if (missed != 0) {
        entry.owesWrite = ((missed & first) != 0) == (first == kWrite);
    } else if ((wanted & kWrite) != 0) {
        entry.owesWrite = false;
    }
    if (entry.read.enabled != reads || entry.write.enabled != writes) {  // EV_ONESHOT, EV_DISPATCH
        entry.owed = 0;                                                  // the edge is armed again on the way
        followKnotes(c.queue, entry);
    } else if ((entry.mask & EPOLLET) != 0) {
        owe(c, entry, wanted, missed);
    }
}

/// A level filter shares its epoll entry with an EV_CLEAR one: the edge was told, the level has to be looked
/// at.
void pollLevelBesideEdge(Collector& c, Entry& entry) {
    if ((entry.mask & EPOLLET) == 0) return;
    if (isLevel(entry.read) || isLevel(entry.write)) setPolled(c.queue.knotes, entry, true);
}

/// An entry that counts nothing and is told by edge, such as the eventfd that wakes an event loop, costs no
/// call at all beyond the wait: its number is believed where the caller vouches for it.
bool isTrusted(const Kqueue& queue, const Entry& entry) {
    return queue.uncounted && entry.countless && entry.read.enabled && !isLevel(entry.read) &&
           !entry.write.present;
}

/// A number that the caller vouches for is checked now and then, so that one which was closed while a
/// duplicate lives does not keep the loop busy for ever.
bool isVouchedFor(const Kqueue& queue, Entry& entry, uint32_t events) {
    if (!queue.uncounted || !needsNoCount(entry, events)) return false;
    return ++entry.unchecked < kReportsPerCheck;
}

void nextTick(Kqueue& queue) {
    uint64_t ticks = 0;
    queue.ticking = read(queue.tickFd, &ticks, sizeof ticks) == sizeof ticks;
}

void takeTick(Collector& c) {
    if (!c.queue.ticking) return;
    c.ticked = true;
    c.queue.ticking = false;
    if (c.queue.busy >= kBusyWaits) nextTick(c.queue);
    c.queue.busy = 0;
}

/// Ticks are for a queue whose waits are short: where most of them last to their end, a time-out of each is
/// the cheaper bound.
void noteWait(Collector& c) {
    if (c.count == 0) {
        c.queue.busy = 0;
    } else if (++c.queue.busy >= kBusyWaits && c.queue.tickNs != 0 && !c.queue.ticking) {
        nextTick(c.queue);
    }
}

void takeReport(Collector& c, const epoll_event& report) {
    if (report.data.u64 == kWakeTag) return;
    if (report.data.u64 == kTickTag) {
        takeTick(c);
        return;
    }
    const uint32_t generation = static_cast<uint32_t>(report.data.u64 >> 32);
    Entry* entry = findEntry(c.queue.knotes, static_cast<int>(static_cast<uint32_t>(report.data.u64)));
    if (entry == nullptr || !entry->inEpoll || entry->generation != generation) {
        if (!c.raced) c.stale = true;
        return;
    }
    if (entry->seen == c.queue.call) c.repeated = true;
    if (!entry->read.enabled && !entry->write.enabled) return;  // a hang-up that nobody asked for
    if (!isTrusted(c.queue, *entry) && !isVouchedFor(c.queue, *entry, report.events)) {
        entry->unchecked = 0;
        if (!checkEntry(c.queue, *entry)) {
            c.stale = true;
            return;
        }
    }
    classify(*entry);
    const bool unconnected = wasNeverConnected(*entry, report.events);
    setParked(c.queue, *entry, unconnected);
    if (unconnected) return;
    entry->seen = c.queue.call;
    deliver(c, *entry, kRead | kWrite, report.events);
    pollLevelBesideEdge(c, *entry);
}

/// How many reports fit the list, some entries being two events each.
int reportsThatFit(const Collector& c) {
    const int room = c.room - c.count;
    const size_t both = c.queue.knotes.bothCount;
    const int spare = both < static_cast<size_t>(room / 2) ? static_cast<int>(both) : room / 2;
    const int most = c.queue.uncounted ? kUncountedReports : kReports;
    return room - spare < most ? room - spare : most;
}

/// The older call is a little cheaper, and as exact if the time is given in whole milliseconds.
int waitFor(int epoll, epoll_event* reports, int limit, int64_t ns) {
    if (ns == INT64_MAX) return epoll_wait(epoll, reports, limit, -1);
    if (ns % kNsPerMs == 0 && ns / kNsPerMs <= INT_MAX) {
        return epoll_wait(epoll, reports, limit, static_cast<int>(ns / kNsPerMs));
    }
    const timespec timeout{ns / kNsPerSecond, ns % kNsPerSecond};
    const int n = epoll_pwait2(epoll, reports, limit, &timeout, nullptr);
    if (n != -1 || errno != ENOSYS) return n;
    const int64_t ms = ns / kNsPerMs + 1;  // kernels before 5.11: never too short, or the loop would be busy
    return epoll_wait(epoll, reports, limit, ms < INT_MAX ? static_cast<int>(ms) : INT_MAX);
}

/// Waits with the lock released.
int waitUnlocked(Collector& c, epoll_event* reports, int limit, int64_t ns) {
    Kqueue& queue = c.queue;
    const uint64_t instance = queue.instance;
    const uint64_t call = queue.call;
    const uint64_t changes = queue.changes;
    const int epoll = queue.fd;
    const bool endsByTick = queue.ticking && ns == queue.tickNs;
    const bool uncounted = queue.uncounted;
    ++queue.waiters;
    (void)pthread_mutex_unlock(&queue.lock);
    const int64_t begin = uncounted ? 0 : timeNow(c);
    const int n = waitFor(epoll, reports, limit, endsByTick ? INT64_MAX : ns);
    const int error = errno;
    c.now = 0;
    const bool brief = !uncounted && timeNow(c) - begin < kCheckHoldsNs;
    (void)pthread_mutex_lock(&queue.lock);
    --queue.waiters;
    c.raced = queue.changes != changes;
    if (!brief || queue.call != call) ++queue.call;  // what was checked before is not known any more
    errno = error;
    if (queue.instance == instance) return n;
    errno = EBADF;
    return -1;
}

/// Takes epoll's reports, after waiting for at most `ns`. Returns false with errno.
bool takeEpoll(Collector& c, int64_t ns) {
    epoll_event reports[kReports];
    c.repeated = false;
    c.queue.epollSkipped = false;
    while (!c.full()) {
        const int limit = reportsThatFit(c);
        c.raced = false;
        const int n = ns == 0 ? waitFor(c.queue.fd, reports, limit, 0) : waitUnlocked(c, reports, limit, ns);
        if (n == -1) {
            if (errno == EINVAL) errno = EBADF;  // the number is some other file by now
            return false;
        }
        c.queue.kernelSeen = true;
        for (int i = 0; i < n; ++i) takeReport(c, reports[i]);
        if (n < limit || c.repeated || c.stale || c.queue.uncounted) break;
        ns = 0;
    }
    return true;
}

void takeTimers(Collector& c) {
    if (c.full() || !hasTimers(c)) return;
    c.count += collectTimers(c.queue.timers, timeNow(c), c.list + c.count, c.room - c.count);
}

unsigned levelFilters(const Entry& entry) {
    return (isLevel(entry.read) ? kRead : 0) | (isLevel(entry.write) ? kWrite : 0);
}

uint32_t lookAt(const Entry& entry, unsigned filters) {
    short events = 0;
    if ((filters & kRead) != 0) events = POLLIN | POLLRDHUP;
    if ((filters & kWrite) != 0) events = static_cast<short>(events | POLLOUT);
    return askPoll(entry.fd, events);
}

void takePolledEntry(Collector& c, Entry& entry) {
    if (entry.parked || !checkEntry(c.queue, entry)) return;
    const int before = c.count;
    if (entry.alwaysReady) {
        deliver(c, entry, kRead | kWrite, 0);
    } else {
        const unsigned filters = (entry.mask & EPOLLET) != 0 ? levelFilters(entry) | entry.owed : 0;
        const uint32_t events = filters == 0 ? 0 : lookAt(entry, filters);
        if (events == 0) {
            entry.owed = 0;
            setPolled(c.queue.knotes, entry, false);  // the next edge brings it back
            return;
        }
        deliver(c, entry, filters, events);
    }
    if (c.count != before && entry.polled.linked) rotatePolled(c.queue.knotes, entry);
}

void takePolled(Collector& c) {
    Entry* entry = c.queue.knotes.polled.first;
    for (size_t left = c.queue.knotes.polled.count; left > 0 && entry != nullptr && !c.full(); --left) {
        Entry* next = entry->polled.next;
        takePolledEntry(c, *entry);
        entry = next;
    }
}

/// WRITE knotes that this call's changes armed. The others go to epoll before the next wait.
void takeWritable(Collector& c) {
    for (Entry* entry = c.queue.knotes.writable.first; entry != nullptr && !c.full();) {
        Entry* next = entry->writable.next;
        if (entry->write.reported != c.queue.call) emit(c, *entry, entry->write, EVFILT_WRITE, kUncounted);
        entry = next;
    }
}

bool hasUserSpaceEvents(Collector& c) {
    const KnoteTable& knotes = c.queue.knotes;
    return (hasTimers(c) && firstDeadline(c.queue.timers) <= timeNow(c)) || knotes.polled.count > 0 ||
           knotes.writable.count > 0;
}

/// A caller that counts by taking needs no word of epoll for WRITE in user space: it meets the end by itself.
/// Every other call asks, so that sockets that are always written to do not hide those that have input.
bool skipsEpoll(Collector& c) {
    if (c.queue.knotes.writable.count == 0) return false;
    c.queue.epollSkipped = !c.queue.epollSkipped;
    return c.queue.epollSkipped;
}

/// Collects without waiting. The sources take turns in being the first, so that none keeps a short list for
/// itself.
bool takeReady(Collector& c) {
    const uint32_t turn = c.queue.turn++;
    for (uint32_t i = 0; i < kSources; ++i) {
        switch ((turn + i) % kSources) {
            case 0:
                takeTimers(c);
                break;
            case 1:
                takePolled(c);
                break;
            default:
                if (!skipsEpoll(c) && !takeEpoll(c, 0)) return false;
        }
    }
    takeWritable(c);
    return true;
}

int64_t waitTime(Collector& c) {
    const bool polls = c.queue.knotes.polled.count > 0;
    if (c.timeout == 0) return 0;
    const int64_t deadline = firstDeadline(c.queue.timers);
    if (c.queue.ticking && c.timeout == c.queue.tickNs && deadline == INT64_MAX && !polls) return c.timeout;
    const int64_t until = deadline < expiryOf(c) ? deadline : expiryOf(c);
    if (until == INT64_MAX) return polls ? kPollIntervalNs : INT64_MAX;
    const int64_t left = until - timeNow(c);
    if (left <= 0) return 0;
    return polls && left > kPollIntervalNs ? kPollIntervalNs : left;
}

/// Replaces the epoll instance if it reported a registration that is gone. Returns true if it did: what stood
/// behind such a report has not been seen yet.
bool dropStale(Collector& c) {
    if (!c.stale) return false;
    c.stale = false;
    if (rebuild(c.queue)) return true;
    (void)pthread_mutex_unlock(&c.queue.lock);
    const timespec pause{0, kRebuildPauseNs};
    (void)nanosleep(&pause, nullptr);  // the stale entry would make every wait return at once
    (void)pthread_mutex_lock(&c.queue.lock);
    return false;
}

int64_t timeoutNs(const timespec* timeout) {
    if (timeout == nullptr) return INT64_MAX;
    return addClamped(mulClamped(timeout->tv_sec, kNsPerSecond), timeout->tv_nsec);
}

/// Returns false with errno.
bool collectUntil(Collector& c) {
    bool waited = false;
    for (;;) {
        if (c.queue.knotes.polled.count > 0) askParked(c.queue);
        if (hasUserSpaceEvents(c) && !takeReady(c)) return false;
        if (dropStale(c) && !takeEpoll(c, 0)) return false;
        if (c.count > 0 || (waited && hasExpired(c))) return true;
        if (!takeEpoll(c, waitTime(c))) return false;
        if (!c.ticked) noteWait(c);
        waited = true;
        if (dropStale(c) && !takeEpoll(c, 0)) return false;
        if (c.count > 0) {
            takeTimers(c);
            return true;
        }
        if (c.ticked && c.timeout == c.queue.tickNs) return true;
    }
}

}  // namespace

int collectEvents(Kqueue& queue, struct kevent* list, int room, const timespec* timeout) {
    Collector c{queue, list, room, 0, false, false, false, false, timeoutNs(timeout), 0, 0};
    handToEpoll(queue, true);
    if (!collectUntil(c)) return -1;
    const bool deferred = hasTimers(c) || queue.knotes.polled.count > 0;
    if (queue.waiters > 0 && deferred) wakeWaiter(queue);  // this thread may have been the one that was woken
    return c.count;
}

}  // namespace rvkevent
