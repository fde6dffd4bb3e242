/// Changes of descriptors' knotes, and the epoll entries behind them.
#include "platform/linux/kevent_descriptors.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/kevent_wake.h"

namespace rvkevent {

namespace {

/// No errno: the number is not the registered file any more.
constexpr int kGone = -1;

epoll_event eventFor(const Entry& entry, uint32_t mask) {
    epoll_event event{};
    event.events = mask;
    event.data.u64 = static_cast<uint64_t>(entry.generation) << 32 | static_cast<uint32_t>(entry.fd);
    return event;
}

bool isEdge(const Knote& knote) {
    return knote.enabled && (knote.flags & EV_CLEAR) != 0;
}

/// What epoll shall watch. With nothing to watch, EPOLLONESHOT makes an entry silent after one hang-up at
/// most.
uint32_t maskFor(const Entry& entry) {
    uint32_t mask = 0;
    if (entry.read.enabled) mask |= EPOLLIN | EPOLLRDHUP;
    if (entry.write.enabled && !entry.writable.linked) mask |= EPOLLOUT;
    if (mask == 0 || entry.parked) mask |= EPOLLONESHOT;
    if (isEdge(entry.read) || isEdge(entry.write)) mask |= EPOLLET;
    return mask;
}

void noteMask(Kqueue& queue, Entry& entry, uint32_t mask) {
    const bool both = (mask & EPOLLIN) != 0 && (mask & EPOLLOUT) != 0;
    if (both && !entry.both) ++queue.knotes.bothCount;
    if (!both && entry.both) --queue.knotes.bothCount;
    entry.both = both;
    entry.mask = mask;
}

/// epoll_ctl on the entry's number. Returns 0, kGone or an errno. EPERM: the number is a file that epoll
/// refuses.
int tellEpoll(Kqueue& queue, Entry& entry, int operation, uint32_t mask) {
    epoll_event event = eventFor(entry, mask);
    if (epoll_ctl(queue.fd, operation, entry.fd, &event) == 0) {
        queue.kernelSeen = true;
        return 0;
    }
    return errno == ENOENT || errno == EBADF || errno == EPERM ? kGone : errno;
}

/// Changes what epoll watches; the answer shows whether the number is still the registered file. An
/// edge-triggered or one-shot entry is armed again by it.
int modify(Kqueue& queue, Entry& entry) {
    const uint32_t mask = maskFor(entry);
    const int result = tellEpoll(queue, entry, EPOLL_CTL_MOD, mask);
    if (result != 0) return result;
    noteMask(queue, entry, mask);
    entry.checked = queue.call;
    return 0;
}

/// Looks whether the number is still the registered file and changes nothing: an ADD is refused with EEXIST
/// as long as the entry is there. That costs no more than asking whether the number is open at all, and much
/// less than a MOD with the same mask, which looks at the file's state and arms an edge-triggered or one-shot
/// entry again.
int probe(Kqueue& queue, Entry& entry) {
    epoll_event event = eventFor(entry, entry.mask);
    if (epoll_ctl(queue.fd, EPOLL_CTL_ADD, entry.fd, &event) == 0) {
        (void)epoll_ctl(queue.fd, EPOLL_CTL_DEL, entry.fd, &event);  // another file: none of ours
        return kGone;
    }
    if (errno != EEXIST) return errno == ENOMEM || errno == ENOSPC ? errno : kGone;
    queue.kernelSeen = true;
    entry.checked = queue.call;
    return 0;
}

/// The same for a file that epoll refuses. Only the file's identity is left to compare: a file that was
/// closed and opened again under the same number keeps its knotes.
int probeFile(Kqueue& queue, Entry& entry) {
    struct stat status {};
    if (fstat(entry.fd, &status) != 0) return kGone;
    if (status.st_dev != entry.device || status.st_ino != entry.inode) return kGone;
    entry.checked = queue.call;
    return 0;
}

int syncFile(Kqueue& queue, Entry& entry) {
    const int result = probeFile(queue, entry);
    if (result != 0) return result;
    setPolled(queue.knotes, entry, entry.read.enabled || entry.write.enabled);
    queue.pollsChanged = true;
    return 0;
}

/// Brings epoll up to date with the knotes and checks the number on the way.
int sync(Kqueue& queue, Entry& entry) {
    if (entry.alwaysReady) return syncFile(queue, entry);
    const bool same = maskFor(entry) == entry.mask && (entry.mask & (EPOLLET | EPOLLONESHOT)) == 0;
    if (same && entry.checked == queue.call) return 0;  // by another change in the same list
    return same ? probe(queue, entry) : modify(queue, entry);
}

/// The knote after a change: an existing one keeps the flags of its first EV_ADD.
void merge(Knote& knote, const struct kevent& change) {
    if (!knote.present) {
        knote.present = true;
        knote.enabled = true;
        knote.flags = change.flags;
    }
    knote.udata = change.udata;
    knote.wasTold = false;
    if ((change.flags & EV_DISABLE) != 0) {
        knote.enabled = false;
    } else if ((change.flags & EV_ENABLE) != 0) {
        knote.enabled = true;
    }
}

/// WRITE of a socket whose READ knote lets epoll watch over it, level-triggered, for the end of the
/// connection.
bool fitsUserSpace(const Entry& entry) {
    if (!entry.connected || entry.parked) return false;
    if (entry.kind != FileKind::kUnixStream && entry.kind != FileKind::kTcp) return false;
    return entry.read.enabled && (entry.read.flags & (EV_CLEAR | EV_ONESHOT | EV_DISPATCH)) == 0 &&
           (entry.write.flags & (EV_CLEAR | EV_ONESHOT | EV_DISPATCH)) == 0 &&
           (entry.mask & (EPOLLIN | EPOLLOUT)) == EPOLLIN;
}

/// The call before this one returned READ, and this change comes with the same pointer: the caller answers on
/// the descriptor it was just told of. One that vouches for its numbers has not closed it in between and put
/// the pointer to another use; a null pointer says nothing and is not believed.
bool answersReport(const Kqueue& queue, const Entry& entry) {
    return entry.read.reported + 1 == queue.call && entry.write.udata != nullptr &&
           entry.write.udata == entry.read.udata;
}

int armInUserSpace(Kqueue& queue, Entry& entry) {
    setWritable(queue.knotes, entry, true);
    entry.armed = queue.call;
    return answersReport(queue, entry) ? 0 : sync(queue, entry);
}

/// WRITE in user space was reported by the call before this one and is not wanted any more: there is nothing
/// to tell epoll, and a caller that vouches for its numbers needs no check.
bool endsReport(const Kqueue& queue, const Entry& entry, const Knote& knote) {
    return &knote == &entry.write && entry.writable.linked && knote.reported + 1 == queue.call;
}

int removeKnote(Kqueue& queue, Entry& entry, Knote& knote) {
    if (endsReport(queue, entry, knote)) {
        setWritable(queue.knotes, entry, false);
        knote = Knote{};
        return 0;
    }
    const bool last = !(entry.read.present && entry.write.present);
    if (last) {
        const int result =
            entry.alwaysReady ? probeFile(queue, entry) : tellEpoll(queue, entry, EPOLL_CTL_DEL, 0);
        if (result != kGone) resetEntry(queue.knotes, entry);
        return result == kGone ? kGone : 0;
    }
    setWritable(queue.knotes, entry, false);
    knote = Knote{};
    return sync(queue, entry);
}

int updateKnote(Kqueue& queue, Entry& entry, Knote& knote, const struct kevent& change, bool userSpace) {
    const Knote before = knote;
    const bool wasWritable = entry.writable.linked;
    merge(knote, change);
    if (&knote == &entry.write && knote.enabled && userSpace && fitsUserSpace(entry)) {
        return armInUserSpace(queue, entry);
    }
    setWritable(queue.knotes, entry, false);
    const int result = sync(queue, entry);
    if (result > 0) {
        knote = before;
        setWritable(queue.knotes, entry, wasWritable);
    }
    return result;
}

/// Returns 0, kGone or an errno.
int changeEntry(Kqueue& queue, Entry& entry, const struct kevent& change, bool userSpace) {
    Knote& knote = change.filter == EVFILT_READ ? entry.read : entry.write;
    if ((change.flags & EV_DELETE) != 0) {
        return knote.present ? removeKnote(queue, entry, knote) : ENOENT;
    }
    if (!knote.present && (change.flags & EV_ADD) == 0) return ENOENT;
    return updateKnote(queue, entry, knote, change, userSpace);
}

int addFile(Kqueue& queue, Entry& entry) {
    entry.alwaysReady = true;
    classify(entry);
    if (entry.kind == FileKind::kUnknown) return EBADF;
    return syncFile(queue, entry) == 0 ? 0 : EBADF;
}

int addToEpoll(Kqueue& queue, Entry& entry) {
    entry.generation = ++queue.generations;
    const uint32_t mask = maskFor(entry);
    epoll_event event = eventFor(entry, mask);
    int result = epoll_ctl(queue.fd, EPOLL_CTL_ADD, entry.fd, &event);
    // A descriptor that was closed while a duplicate lived, and came back to its number, finds its old entry.
    if (result == -1 && errno == EEXIST) result = epoll_ctl(queue.fd, EPOLL_CTL_MOD, entry.fd, &event);
    if (result == -1) return errno;
    queue.kernelSeen = true;
    entry.inEpoll = true;
    entry.checked = queue.call;
    noteMask(queue, entry, mask);
    return 0;
}

int addEntry(Kqueue& queue, int fd, const struct kevent& change) {
    // The table reaches up to the largest number: one that is not open must not make it grow.
    if (findEntry(queue.knotes, fd) == nullptr && fcntl(fd, F_GETFD) == -1) return EBADF;
    Entry* entry = makeEntry(queue.knotes, fd);
    if (entry == nullptr) return ENOMEM;
    merge(change.filter == EVFILT_READ ? entry->read : entry->write, change);
    int result = addToEpoll(queue, *entry);
    if (result == EPERM) result = addFile(queue, *entry);
    if (result != 0) resetEntry(queue.knotes, *entry);
    if (result == ENOSPC) result = ENOMEM;
    return result == ELOOP ? EINVAL : result;
}

}  // namespace

int changeDescriptor(Kqueue& queue, const struct kevent& change, bool userSpace) {
    const bool adds = (change.flags & EV_ADD) != 0 && (change.flags & EV_DELETE) == 0;
    if (change.ident > INT_MAX) return adds ? EBADF : ENOENT;
    const int fd = static_cast<int>(change.ident);
    Entry* entry = findEntry(queue.knotes, fd);
    ++queue.changes;
    if (entry != nullptr && isLive(*entry)) {
        const int result = changeEntry(queue, *entry, change, userSpace);
        if (result != kGone) return result;
        resetEntry(queue.knotes, *entry);
    }
    return adds ? addEntry(queue, fd, change) : ENOENT;
}

void handToEpoll(Kqueue& queue, bool keepNew) {
    Entry* entry = queue.knotes.writable.first;
    for (size_t left = queue.knotes.writable.count; left > 0; --left) {
        Entry* next = entry->writable.next;
        if (!keepNew || entry->armed != queue.call) {
            setWritable(queue.knotes, *entry, false);
            const int result = modify(queue, *entry);
            if (result == kGone) resetEntry(queue.knotes, *entry);
            if (result > 0) setWritable(queue.knotes, *entry, true);  // at the end; the next call tries again
        }
        entry = next;
    }
}

bool checkEntry(Kqueue& queue, Entry& entry) {
    if (entry.checked == queue.call) return true;
    const int result = entry.alwaysReady ? probeFile(queue, entry) : probe(queue, entry);
    if (result == kGone) resetEntry(queue.knotes, entry);
    return result != kGone;
}

void followKnotes(Kqueue& queue, Entry& entry) {
    if (!isLive(entry)) {
        if (!entry.alwaysReady) (void)tellEpoll(queue, entry, EPOLL_CTL_DEL, 0);  // gone either way
        resetEntry(queue.knotes, entry);
        return;
    }
    if (!entry.write.enabled) setWritable(queue.knotes, entry, false);
    if (sync(queue, entry) == kGone) resetEntry(queue.knotes, entry);
}

void setParked(Kqueue& queue, Entry& entry, bool parked) {
    if (entry.parked == parked) return;
    entry.parked = parked;
    setPolled(queue.knotes, entry, parked);
    if (sync(queue, entry) == kGone) resetEntry(queue.knotes, entry);
}

void askParked(Kqueue& queue) {
    for (Entry* entry = queue.knotes.polled.first; entry != nullptr;) {
        Entry* next = entry->polled.next;
        if (entry->parked && modify(queue, *entry) == kGone) resetEntry(queue.knotes, *entry);
        entry = next;
    }
}

namespace {

/// Moves one entry to another epoll instance, or forgets it if its number is another file by now.
void moveEntry(Kqueue& queue, Entry& entry, int to) {
    if (!entry.inEpoll || !isLive(entry)) return;
    const uint32_t mask = maskFor(entry);
    epoll_event event = eventFor(entry, mask);
    const bool live = epoll_ctl(queue.fd, EPOLL_CTL_MOD, entry.fd, &event) == 0;
    if (!live || epoll_ctl(to, EPOLL_CTL_ADD, entry.fd, &event) != 0) resetEntry(queue.knotes, entry);
}

}  // namespace

bool watchTicks(const Kqueue& queue, int epoll) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.u64 = kTickTag;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, queue.tickFd, &event) == 0;
}

bool rebuild(Kqueue& queue) {
    const int made = epoll_create1(EPOLL_CLOEXEC);
    if (made == -1) return false;
    for (size_t page = 0; page < queue.knotes.pageCount; ++page) {
        Entry* entries = queue.knotes.pages[page];
        for (size_t i = 0; entries != nullptr && i < kEntriesPerPage; ++i) moveEntry(queue, entries[i], made);
    }
    queue.ticking = false;
    if (queue.tickNs != 0 && !watchTicks(queue, made)) queue.tickNs = 0;
    if (queue.waiters > 0) wakeAll(queue.fd);  // they wait on the instance that goes away
    const bool moved = dup3(made, queue.fd, O_CLOEXEC) != -1;
    (void)close(made);  // the queue's number holds it
    return moved;
}

void wakeWaiter(Kqueue& queue) {
    if (queue.waiters == 0) return;
    // A closed number that the waking descriptor has taken would look as if it were registered still.
    Entry* entry = findEntry(queue.knotes, wakeOne(queue.fd));
    if (entry != nullptr && isLive(*entry)) resetEntry(queue.knotes, *entry);
}

}  // namespace rvkevent
