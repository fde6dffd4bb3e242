/// Collecting events: timers, polled entries, epoll's reports and WRITE knotes in user space, in one event
/// list.
#ifndef RV_PLATFORM_LINUX_KEVENT_COLLECT_H
#define RV_PLATFORM_LINUX_KEVENT_COLLECT_H

#include <time.h>

#include "platform/linux/kevent_queue.h"

namespace rvkevent {

/// Waits for events and stores at most `room` (1 or more) of them. timeout: null for no limit. Called with
/// the queue's lock held, which is released while the thread waits. Returns the number stored, or -1 with
/// errno.
int collectEvents(Kqueue& queue, struct kevent* list, int room, const timespec* timeout);

}  // namespace rvkevent

#endif
