/// Timers of a kernel event queue: idents by hash, deadlines by heap, counts of whole periods without drift.
#include "platform/linux/kevent_timers.h"

#include <errno.h>
#include <stdlib.h>

#include "platform/linux/kevent_clock.h"

namespace rvkevent {

namespace {

constexpr size_t kPointerBytes = sizeof(void*);
constexpr size_t kNotArmed = SIZE_MAX;
constexpr size_t kFirstBuckets = 64;
constexpr size_t kTimersPerSlab = 64;
constexpr uint32_t kMachTime = 0x100;  // NOTE_MACHTIME: there is no such clock here

}  // namespace

struct Timer {
    uint64_t ident;
    void* udata;
    Timer* next;       // in its bucket, or in the list of unused timers
    int64_t deadline;  // CLOCK_MONOTONIC, ns
    int64_t period;    // ns; 0: fires once and then stays silent
    uint64_t order;
    size_t slot;  // in the heap, or kNotArmed
    uint16_t flags;
    bool enabled;
    bool expires;  // there is a deadline to come
};

struct TimerSlab {
    TimerSlab* next;
    Timer timers[kTimersPerSlab];
};

namespace {

size_t bucketOf(const TimerSet& timers, uint64_t ident) {
    return static_cast<size_t>((ident * 0x9E3779B97F4A7C15U) >> 32) & (timers.bucketCount - 1);
}

Timer* findTimer(const TimerSet& timers, uint64_t ident) {
    if (timers.bucketCount == 0) return nullptr;
    Timer* timer = timers.buckets[bucketOf(timers, ident)];
    while (timer != nullptr && timer->ident != ident) timer = timer->next;
    return timer;
}

bool earlier(const Timer* a, const Timer* b) {
    return a->deadline != b->deadline ? a->deadline < b->deadline : a->order < b->order;
}

void place(TimerSet& timers, size_t slot, Timer* timer) {
    timers.heap[slot] = timer;
    timer->slot = slot;
}

void siftUp(TimerSet& timers, size_t slot, Timer* timer) {
    while (slot > 0) {
        const size_t parent = (slot - 1) / 2;
        if (!earlier(timer, timers.heap[parent])) break;
        place(timers, slot, timers.heap[parent]);
        slot = parent;
    }
    place(timers, slot, timer);
}

void siftDown(TimerSet& timers, size_t slot, Timer* timer) {
    for (;;) {
        size_t child = 2 * slot + 1;
        if (child >= timers.heapCount) break;
        if (child + 1 < timers.heapCount && earlier(timers.heap[child + 1], timers.heap[child])) ++child;
        if (!earlier(timers.heap[child], timer)) break;
        place(timers, slot, timers.heap[child]);
        slot = child;
    }
    place(timers, slot, timer);
}

void disarm(TimerSet& timers, Timer* timer) {
    const size_t slot = timer->slot;
    if (slot == kNotArmed) return;
    timer->slot = kNotArmed;
    Timer* last = timers.heap[--timers.heapCount];
    if (last == timer) return;
    if (slot > 0 && earlier(last, timers.heap[(slot - 1) / 2])) {
        siftUp(timers, slot, last);
    } else {
        siftDown(timers, slot, last);
    }
}

/// Queues the timer if it has a deadline and is enabled. A disabled timer runs on: it counts its periods and
/// reports them when it is enabled.
void arm(TimerSet& timers, Timer* timer) {
    disarm(timers, timer);
    if (!timer->expires || !timer->enabled) return;
    timer->order = timers.order++;
    siftUp(timers, timers.heapCount++, timer);
}

bool growHeap(TimerSet& timers) {
    if (timers.count < timers.heapRoom) return true;
    const size_t room = timers.heapRoom == 0 ? kFirstBuckets : timers.heapRoom * 2;
    void* heap = realloc(timers.heap, room * kPointerBytes);
    if (heap == nullptr) return false;
    timers.heap = static_cast<Timer**>(heap);
    timers.heapRoom = room;
    return true;
}

bool growBuckets(TimerSet& timers) {
    if (timers.count < timers.bucketCount) return true;
    TimerSet grown = timers;
    grown.bucketCount = timers.bucketCount == 0 ? kFirstBuckets : timers.bucketCount * 2;
    grown.buckets = static_cast<Timer**>(calloc(grown.bucketCount, kPointerBytes));
    if (grown.buckets == nullptr) return false;
    for (size_t i = 0; i < timers.bucketCount; ++i) {
        while (Timer* timer = timers.buckets[i]) {
            timers.buckets[i] = timer->next;
            Timer*& head = grown.buckets[bucketOf(grown, timer->ident)];
            timer->next = head;
            head = timer;
        }
    }
    free(timers.buckets);
    timers = grown;
    return true;
}

bool growSlabs(TimerSet& timers) {
    if (timers.unused != nullptr) return true;
    auto* slab = static_cast<TimerSlab*>(calloc(1, sizeof(TimerSlab)));
    if (slab == nullptr) return false;
    slab->next = timers.slabs;
    timers.slabs = slab;
    for (Timer& timer : slab->timers) {
        timer.next = timers.unused;
        timers.unused = &timer;
    }
    return true;
}

Timer* makeTimer(TimerSet& timers, uint64_t ident) {
    if (!growHeap(timers) || !growBuckets(timers) || !growSlabs(timers)) return nullptr;
    Timer* timer = timers.unused;
    timers.unused = timer->next;
    *timer = Timer{};
    timer->ident = ident;
    timer->slot = kNotArmed;
    Timer*& head = timers.buckets[bucketOf(timers, ident)];
    timer->next = head;
    head = timer;
    ++timers.count;
    return timer;
}

void removeTimer(TimerSet& timers, Timer* timer) {
    disarm(timers, timer);
    Timer** link = &timers.buckets[bucketOf(timers, timer->ident)];
    while (*link != timer) link = &(*link)->next;
    *link = timer->next;
    timer->next = timers.unused;
    timers.unused = timer;
    --timers.count;
}

/// Nanoseconds in one unit of the change's data, or 0 for more than one unit or an unknown one.
int64_t unitNs(uint32_t fflags) {
    switch (fflags & (NOTE_SECONDS | NOTE_USECONDS | NOTE_NSECONDS | kMachTime)) {
        case 0:
            return 1'000'000;
        case NOTE_SECONDS:
            return kNsPerSecond;
        case NOTE_USECONDS:
            return 1'000;
        case NOTE_NSECONDS:
            return 1;
        default:
            return 0;
    }
}

/// Starts the timer from now. A time of 0 or less fires at once and, even if periodic, only this time; so
/// does one at an absolute time, which is a time of CLOCK_REALTIME as it stands now.
void start(TimerSet& timers, Timer* timer, const struct kevent& change, int64_t nowNs) {
    const int64_t time = mulClamped(change.data, unitNs(change.fflags));
    const bool absolute = (change.fflags & NOTE_ABSOLUTE) != 0;
    const int64_t delay = absolute ? addClamped(time, -clockNs(CLOCK_REALTIME)) : time;
    // The caller's reading is older than that of the other clock: it would make the timer early.
    if (absolute) nowNs = clockNs(CLOCK_MONOTONIC);
    const bool once = absolute || delay < 0 || (timer->flags & EV_ONESHOT) != 0;
    timer->period = once ? 0 : delay;
    timer->deadline = addClamped(nowNs, delay < 0 ? 0 : delay);
    timer->expires = true;
    arm(timers, timer);
}

/// Moves the timer past `nowNs` and returns how many deadlines passed.
int64_t advance(Timer* timer, int64_t nowNs) {
    if (timer->period == 0) {
        timer->expires = false;
        return 1;
    }
    const int64_t periods = 1 + (nowNs - timer->deadline) / timer->period;
    timer->deadline = addClamped(timer->deadline, mulClamped(periods, timer->period));
    return periods;
}

void report(const Timer* timer, int64_t periods, struct kevent* event) {
    event->ident = timer->ident;
    event->filter = EVFILT_TIMER;
    event->flags = static_cast<uint16_t>(timer->flags | EV_CLEAR);
    event->fflags = 0;
    event->data = periods;
    event->udata = timer->udata;
}

void settle(TimerSet& timers, Timer* timer) {
    if ((timer->flags & EV_ONESHOT) != 0) {
        removeTimer(timers, timer);
        return;
    }
    if ((timer->flags & EV_DISPATCH) != 0) timer->enabled = false;
    arm(timers, timer);
}

}  // namespace

int changeTimer(TimerSet& timers, const struct kevent& change, int64_t nowNs) {
    Timer* timer = findTimer(timers, change.ident);
    const bool adds = (change.flags & EV_ADD) != 0 && (change.flags & EV_DELETE) == 0;
    if (timer == nullptr && !adds) return ENOENT;
    if ((change.flags & EV_DELETE) != 0) {
        removeTimer(timers, timer);
        return 0;
    }
    if (adds && unitNs(change.fflags) == 0) return EINVAL;
    if (timer == nullptr) {
        timer = makeTimer(timers, change.ident);
        if (timer == nullptr) return ENOMEM;
        timer->flags = change.flags;
        timer->enabled = true;
    }
    timer->udata = change.udata;
    if ((change.flags & EV_DISABLE) != 0) {
        timer->enabled = false;
    } else if ((change.flags & EV_ENABLE) != 0) {
        timer->enabled = true;
    }
    if (adds) {
        start(timers, timer, change, nowNs);
    } else {
        arm(timers, timer);
    }
    return 0;
}

int64_t firstDeadline(const TimerSet& timers) {
    return timers.heapCount == 0 ? INT64_MAX : timers.heap[0]->deadline;
}

int collectTimers(TimerSet& timers, int64_t nowNs, struct kevent* list, int room) {
    int count = 0;
    while (count < room && firstDeadline(timers) <= nowNs) {
        Timer* timer = timers.heap[0];
        report(timer, advance(timer, nowNs), &list[count++]);
        settle(timers, timer);
    }
    return count;
}

void clearTimers(TimerSet& timers) {
    while (TimerSlab* slab = timers.slabs) {
        timers.slabs = slab->next;
        free(slab);
    }
    free(timers.buckets);
    free(timers.heap);
    timers = TimerSet{};
}

}  // namespace rvkevent
