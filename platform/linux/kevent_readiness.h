/// What a descriptor's state means for the READ and WRITE filters: whether they are active, the byte count
/// that a blocking read() or write() may use, and the end-of-file flag.
///
/// epoll's answer says whether a filter is active; the kernel is asked for the counts when the event is about
/// to be returned, so they are never older than the call.
#ifndef RV_PLATFORM_LINUX_KEVENT_READINESS_H
#define RV_PLATFORM_LINUX_KEVENT_READINESS_H

#include <stdint.h>

#include "platform/linux/kevent_knotes.h"

namespace rvkevent {

struct Readiness {
    bool active;
    bool endOfFile;
    int64_t data;      // bytes, or connections of a listening socket
    int64_t size = 0;  // of a regular file
};

/// What poll(2) says at this moment; 0 if nothing of what is asked for.
uint32_t askPoll(int fd, short events);

/// Finds out the kind of the entry's file, once.
void classify(Entry& entry);

/// True if epoll's answer is the one of a stream socket that was never connected: it hangs up without ever
/// having had a peer. Neither filter is active then.
bool wasNeverConnected(const Entry& entry, uint32_t events);

/// The filters of a file that epoll watches; `events` is what epoll (or poll) reported.
Readiness readReadiness(Entry& entry, uint32_t events);
Readiness writeReadiness(Entry& entry, uint32_t events);

/// True if a caller that counts bytes by taking them can do so: both filters of a stream socket that was seen
/// connected, as long as its end is not in sight.
bool needsNoCount(const Entry& entry, uint32_t events);

/// The filters of a file that epoll refuses.
Readiness readReadinessOfFile(const Entry& entry);
Readiness writeReadinessOfFile(const Entry& entry);

}  // namespace rvkevent

#endif
