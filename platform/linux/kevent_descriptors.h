/// Registrations of descriptors: changes of READ and WRITE knotes, and what epoll is told of them.
///
/// epoll keys its entries by open file and number, kqueue by the number alone: a close(2) ends a registration
/// here, but not in epoll if a duplicate or another process keeps the file open. A number is therefore
/// checked against epoll before its table entry is trusted. All functions are called with the queue's lock
/// held.
#ifndef RV_PLATFORM_LINUX_KEVENT_DESCRIPTORS_H
#define RV_PLATFORM_LINUX_KEVENT_DESCRIPTORS_H

#include "platform/linux/kevent_queue.h"
#include "platform/linux/kevent_readiness.h"

namespace rvkevent {

/// Applies one change of a READ or WRITE knote. userSpace: the call goes on to collect events, so that a
/// WRITE knote may be reported without epoll. Returns 0 or an errno: EBADF (EV_ADD of a number that is not
/// open), ENOENT (no such knote), ENOMEM, EINVAL (a file that cannot be waited for).
int changeDescriptor(Kqueue& queue, const struct kevent& change, bool userSpace);

/// Tells epoll of all WRITE knotes that only user space knows, but for those of this call if keepNew.
void handToEpoll(Kqueue& queue, bool keepNew);

/// True if the entry's number is still the registered file. If it is not, the entry's knotes are gone when
/// this returns.
bool checkEntry(Kqueue& queue, Entry& entry);

/// Makes epoll's view follow the entry's knotes after an event changed them (EV_ONESHOT, EV_DISPATCH).
void followKnotes(Kqueue& queue, Entry& entry);

/// Parks a stream socket that was never connected, or takes it back: its hang-up can neither be masked nor is
/// it an event, so it is reported once for each time it is asked for.
void setParked(Kqueue& queue, Entry& entry, bool parked);

/// Asks epoll again for the state of every parked socket.
void askParked(Kqueue& queue);

/// epoll_event.data of the queue's tickFd.
inline constexpr uint64_t kTickTag = UINT64_MAX - 1;

/// Has an epoll instance watch the queue's tickFd. Returns false if it cannot.
bool watchTicks(const Kqueue& queue, int epoll);

/// Replaces the epoll instance by a new one under the same number, without the entries that a close(2) should
/// have ended. Returns false if no descriptor could be had for it.
bool rebuild(Kqueue& queue);

/// Makes one thread that waits on this queue look at its timers and its polled entries again.
void wakeWaiter(Kqueue& queue);

}  // namespace rvkevent

#endif
