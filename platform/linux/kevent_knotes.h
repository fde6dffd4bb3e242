/// The registrations of one kernel event queue on descriptors: one entry for each descriptor number, with a
/// knote for reading and one for writing.
///
/// Entries never move and are never freed before the queue is cleared, so that lists may link them. Callers
/// hold the queue's lock.
#ifndef RV_PLATFORM_LINUX_KEVENT_KNOTES_H
#define RV_PLATFORM_LINUX_KEVENT_KNOTES_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

namespace rvkevent {

/// What decides how much may be read or written, see kevent_readiness.h.
enum class FileKind : uint8_t {
    kUnknown,
    kUnixStream,
    kTcp,
    kOtherStream,
    kDatagram,
    kPipe,
    kRegular,
    kOther
};

/// One filter on one descriptor.
struct Knote {
    void* udata;
    uint64_t reported;  // the call that returned it last
    int64_t told;       // data of the last event, for EV_CLEAR on an always-ready file
    int64_t toldSize;   // the size of that file
    uint16_t flags;     // of the first EV_ADD
    bool wasTold;
    bool present;
    bool enabled;
};

struct Entry;

/// A place in a list of entries.
struct Link {
    Entry* next;
    Entry* previous;
    bool linked;
};

struct Entry {
    int fd;
    uint32_t generation;  // of the registration; stands beside fd in epoll_event.data
    uint32_t mask;        // what epoll was told
    uint64_t seen;        // the call in which epoll reported it last
    uint64_t checked;     // the call in which the number was known to be the registered file
    uint64_t armed;       // the call that put WRITE into user space
    Knote read;
    Knote write;
    dev_t device;  // of an always-ready file
    ino_t inode;
    Link polled;    // in KnoteTable::polled
    Link writable;  // in KnoteTable::writable
    FileKind kind;
    uint8_t unchecked;  // reports since the number was checked, in a queue whose caller vouches for it
    bool inEpoll;
    bool alwaysReady;  // epoll refuses it (EPERM)
    bool parked;       // a stream socket that was never connected
    bool connected;    // a stream socket that was seen connected
    bool countless;    // FIONREAD does not know this kind of file
    bool owesWrite;    // the list was full when it was WRITE's turn
    uint8_t owed;      // filters of an edge that was taken from epoll when the list was full
    bool both;         // epoll watches for both filters
};

/// A list of entries, linked through one of their Links.
struct EntryList {
    Entry* first;
    Entry* last;
    size_t count;
};

inline constexpr size_t kEntriesPerPage = 64;

/// All zero is the empty table.
struct KnoteTable {
    Entry** pages;  // by descriptor number / kEntriesPerPage; null: nothing there
    size_t pageCount;
    EntryList polled;    // not told by epoll, so looked at in each call: always-ready files, parked sockets,
                         // level filters beside an EV_CLEAR one, filters that are owed
    EntryList writable;  // WRITE is armed, but in user space only
    size_t bothCount;    // entries with `both`
};

/// The entry of a descriptor number, or null if it never had one.
Entry* findEntry(const KnoteTable& table, int fd);

/// The entry of a descriptor number, made if needed; null if memory is short.
Entry* makeEntry(KnoteTable& table, int fd);

/// Forgets both knotes of an entry and takes it out of the lists.
void resetEntry(KnoteTable& table, Entry& entry);

/// Frees everything; the table is empty afterwards.
void clearKnotes(KnoteTable& table);

void setPolled(KnoteTable& table, Entry& entry, bool on);
void setWritable(KnoteTable& table, Entry& entry, bool on);

/// Moves the entry to the end of the polled list.
void rotatePolled(KnoteTable& table, Entry& entry);

inline bool isLive(const Entry& entry) {
    return entry.read.present || entry.write.present;
}

}  // namespace rvkevent

#endif
