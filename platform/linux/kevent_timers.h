/// The timers of one kernel event queue: a hash by ident and a heap of deadlines.
///
/// No descriptor and no system call belongs to a timer: the queue waits until the first deadline. Starting,
/// restarting and deleting cost O(log n), a turn without a due timer O(1). Nothing is allocated for a timer
/// that is started again. Callers hold the queue's lock.
#ifndef RV_PLATFORM_LINUX_KEVENT_TIMERS_H
#define RV_PLATFORM_LINUX_KEVENT_TIMERS_H

#include <stddef.h>
#include <stdint.h>

#include "platform/kevent.h"

namespace rvkevent {

struct Timer;
struct TimerSlab;

/// All zero is the empty set.
struct TimerSet {
    Timer** buckets;  // hash by ident, chained; a power of two of them
    size_t bucketCount;
    size_t count;  // timers that exist
    Timer** heap;  // armed and enabled timers, the earliest first
    size_t heapCount;
    size_t heapRoom;  // never less than `count`: arming cannot fail
    Timer* unused;
    TimerSlab* slabs;
    uint64_t order;  // of arming; keeps equal deadlines in order
};

/// Applies one EVFILT_TIMER change. nowNs is CLOCK_MONOTONIC. Returns 0 or an errno: ENOENT (no such timer),
/// EINVAL (more than one unit), ENOMEM.
int changeTimer(TimerSet& timers, const struct kevent& change, int64_t nowNs);

/// The first deadline (CLOCK_MONOTONIC, ns), or INT64_MAX if no timer is armed.
int64_t firstDeadline(const TimerSet& timers);

/// Stores the events of at most `room` due timers, earliest deadline first; returns how many.
int collectTimers(TimerSet& timers, int64_t nowNs, struct kevent* list, int room);

/// Frees everything; the set is empty afterwards.
void clearTimers(TimerSet& timers);

}  // namespace rvkevent

#endif
