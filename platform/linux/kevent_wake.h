/// Waking threads that wait in epoll: one always-readable descriptor for the whole process, put into an epoll
/// instance when a thread that waits there has to look at something epoll does not know of.
#ifndef RV_PLATFORM_LINUX_KEVENT_WAKE_H
#define RV_PLATFORM_LINUX_KEVENT_WAKE_H

#include <stdint.h>

namespace rvkevent {

/// epoll_event.data of the waking descriptor.
inline constexpr uint64_t kWakeTag = UINT64_MAX;

/// Makes one wait on this epoll instance return, the present one or the next. Returns the number of the
/// waking descriptor, or -1 if there is none.
int wakeOne(int epoll);

/// Makes every wait on this epoll instance return from now on.
void wakeAll(int epoll);

}  // namespace rvkevent

#endif
