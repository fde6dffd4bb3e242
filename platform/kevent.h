/// The kernel event queue as the engine sees it: kqueue(2) and kevent(2), 64-bit form.
///
/// On systems that have these calls a port includes <sys/event.h> here. On Linux they are implemented over
/// epoll by the static library rvkevent (platform/linux/). The header compiles as C and as C++; the functions
/// have C linkage and need no C++ runtime of the caller.
#ifndef RV_PLATFORM_KEVENT_H
#define RV_PLATFORM_KEVENT_H

#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Filters. */
#define EVFILT_READ (-1)
#define EVFILT_WRITE (-2)
#define EVFILT_TIMER (-7)

/* Actions and flags of a change. */
#define EV_ADD 0x0001
#define EV_DELETE 0x0002
#define EV_ENABLE 0x0004
#define EV_DISABLE 0x0008
#define EV_ONESHOT 0x0010
#define EV_CLEAR 0x0020
#define EV_RECEIPT 0x0040
#define EV_DISPATCH 0x0080

/* Returned flags. */
#define EV_ERROR 0x4000
#define EV_EOF 0x8000

/* fflags of EVFILT_TIMER; without a unit, data is in milliseconds. */
#define NOTE_SECONDS 0x00000001
#define NOTE_USECONDS 0x00000002
#define NOTE_NSECONDS 0x00000004
#define NOTE_ABSOLUTE 0x00000008
#define NOTE_BACKGROUND 0x00000040

/// A change handed to kevent() and an event it returns: 32 bytes.
struct kevent {
    uint64_t ident;   ///< descriptor number, or the timer's own number
    int16_t filter;   ///< EVFILT_*
    uint16_t flags;   ///< EV_*
    uint32_t fflags;  ///< NOTE_*
    int64_t data;     ///< in: the timer's period; out: bytes, expirations or an errno
    void* udata;      ///< returned as it was registered; never looked at
};

#define EV_SET(kevp, a, b, c, d, e, f)    \
    do {                                  \
        struct kevent* rv_kevp_ = (kevp); \
        rv_kevp_->ident = (uint64_t)(a);  \
        rv_kevp_->filter = (int16_t)(b);  \
        rv_kevp_->flags = (uint16_t)(c);  \
        rv_kevp_->fflags = (uint32_t)(d); \
        rv_kevp_->data = (int64_t)(e);    \
        rv_kevp_->udata = (void*)(f);     \
    } while (0)

/// Makes a new kernel event queue, see kqueue(2).
///
/// Returns its descriptor, or -1 with errno (EMFILE, ENFILE, ENOMEM). The descriptor is close-on-exec and is
/// closed with close(2), which frees all that belongs to it; the child of a fork(2) has no queue under the
/// number (EBADF). Thread: any.
int kqueue(void);

/// Applies `nchanges` changes in order, then waits for events and stores at most `nevents` of them.
///
/// changelist  borrowed for the call; bits 0xF000 of the flags are ignored; it may be the event list as well
/// eventlist   room for `nevents` records; with 0 the call never waits and returns 0
/// timeout     NULL: no limit; {0, 0}: poll
/// Returns the number of records stored (0 on time-out), or -1 with errno: EBADF (not a kqueue), EINVAL (bad
/// time-out, negative count), EFAULT (no list), EINTR (a signal came while waiting; the changes are applied).
///
/// A change that fails is stored as a record: the change itself with EV_ERROR added to its flags and the
/// errno in data (ENOENT: no such knote; EBADF: EV_ADD of a number that is not open; EINVAL: unknown filter,
/// two units of time; ENOMEM). EV_RECEIPT asks for such a record, with data 0, of a success too. A call that
/// stored one returns without waiting and without events. A failure without room returns -1 with its errno,
/// and the changes behind it are not applied.
///
/// A knote is keyed by ident and filter. EV_ADD of an existing one replaces udata and, of a timer, starts it
/// again; its flags stay those of the first EV_ADD, which every event returns. close(2) of a descriptor ends
/// its knotes.
///
///   EVFILT_READ   data: bytes to read (negative past the end of a regular file), or connections of a
///   listening socket.
///                 EV_EOF: nothing more will come, and data 0 means the end is reached.
///   EVFILT_WRITE  data: bytes that a blocking write(2) takes without waiting if nobody else writes to the
///   file.
///                 EV_EOF: nothing more can be sent; data stays positive, but for a pipe, so that a write
///                 meets the error.
///   EVFILT_TIMER  data in: the period, in milliseconds or the unit of fflags; 0 or less fires at once and
///   once.
///                 data out: whole periods since it was started or reported last. Returned with EV_CLEAR.
///
/// A socket that was never connected, or connects still, is silent. A socket's pending error is left for
/// read(2) and write(2), so fflags is 0 in every event. Thread: any; several may use one queue. A change made
/// by one thread is seen by another that waits already.
///
/// What epoll(7) cannot tell is not told here either. After EV_CLEAR, WRITE of a TCP socket comes again once
/// a write(2) has found no room, not once the room was filled exactly. EV_CLEAR may come again without a
/// change of its own filter: when the other filter of the descriptor changes, when a write(2) to a full pipe
/// fails, when any number of the queue was closed beside a duplicate. WRITE of a full AF_UNIX socket is
/// silent after a shutdown(2) until there is room. A regular file or a device that is opened again under its
/// number keeps its knotes, and so does a duplicate that is put back under it.
#if defined(__GNUC__) && !defined(__clang__)
/* The structure and the function share a name, as they always have. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
#endif
int kevent(int kq, const struct kevent* changelist, int nchanges, struct kevent* eventlist, int nevents,
           const struct timespec* timeout);
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

/// data of an event whose bytes were left uncounted.
#define KEVENT_UNCOUNTED INT64_MIN

/// Lets a queue leave the bytes of connected stream sockets uncounted where counting takes a system call of
/// its own: such an event has KEVENT_UNCOUNTED for data. For a caller that tries recv(2) or send(2) with
/// MSG_DONTWAIT instead, takes what they give for the count and their EAGAIN for an event that was none. It
/// also vouches for the numbers it has registered: one that it closes has no use for events until it is added
/// again, which it is with another udata, or later than in the next call. Such a queue is told of at most
/// eight descriptors that epoll knows in one call; the others come with the next calls. Concerns nobody
/// else's queue; a number that is no queue is ignored. Where the system has kqueue this does nothing. Thread:
/// any, before the first kevent().
void keventLeaveUncounted(int kq);

/// Ends the waits of a queue that are to last `periodNs` by a descriptor that becomes readable once in that
/// period, instead of by a timer that the kernel starts and stops for each of them: such a wait may be
/// shorter, and returns 0 then. The descriptor remains the caller's, stays open as long as the queue is
/// waited for, and is read from by the queue alone. A number that is no queue is ignored. Thread: any, before
/// the first kevent().
void keventTick(int kq, int fd, int64_t periodNs);

/// Counts for an uncounted event what kevent() would have, and leaves every other event as it is. Returns 0
/// if there is no event any more, else 1.
int keventCount(struct kevent* event);

#ifdef __cplusplus
}
#endif

#endif
