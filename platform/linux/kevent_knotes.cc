/// The table of descriptor registrations: pages of entries, found by descriptor number.
#include "platform/linux/kevent_knotes.h"

#include <stdlib.h>
#include <string.h>

namespace rvkevent {

namespace {

using LinkOf = Link Entry::*;

constexpr size_t kPointerBytes = sizeof(void*);

void append(EntryList& list, Entry& entry, LinkOf link) {
    (entry.*link) = {nullptr, list.last, true};
    (list.last != nullptr ? (list.last->*link).next : list.first) = &entry;
    list.last = &entry;
    ++list.count;
}

void remove(EntryList& list, Entry& entry, LinkOf link) {
    Link& own = entry.*link;
    (own.previous != nullptr ? (own.previous->*link).next : list.first) = own.next;
    (own.next != nullptr ? (own.next->*link).previous : list.last) = own.previous;
    own = {};
    --list.count;
}

void setLinked(EntryList& list, Entry& entry, LinkOf link, bool on) {
    if ((entry.*link).linked == on) return;
    if (on) {
        append(list, entry, link);
    } else {
        remove(list, entry, link);
    }
}

bool growPages(KnoteTable& table, size_t wanted) {
    if (wanted < table.pageCount) return true;
    size_t count = table.pageCount == 0 ? 16 : table.pageCount;
    while (count <= wanted) count *= 2;
    void* pages = realloc(table.pages, count * kPointerBytes);
    if (pages == nullptr) return false;
    table.pages = static_cast<Entry**>(pages);
    memset(table.pages + table.pageCount, 0, (count - table.pageCount) * kPointerBytes);
    table.pageCount = count;
    return true;
}

}  // namespace

Entry* findEntry(const KnoteTable& table, int fd) {
    const size_t number = static_cast<size_t>(fd);
    if (number / kEntriesPerPage >= table.pageCount) return nullptr;
    Entry* page = table.pages[number / kEntriesPerPage];
    return page == nullptr ? nullptr : page + number % kEntriesPerPage;
}

Entry* makeEntry(KnoteTable& table, int fd) {
    const size_t number = static_cast<size_t>(fd);
    if (!growPages(table, number / kEntriesPerPage)) return nullptr;
    Entry*& page = table.pages[number / kEntriesPerPage];
    if (page == nullptr) page = static_cast<Entry*>(calloc(kEntriesPerPage, sizeof(Entry)));
    if (page == nullptr) return nullptr;
    Entry* entry = page + number % kEntriesPerPage;
    entry->fd = fd;
    return entry;
}

void resetEntry(KnoteTable& table, Entry& entry) {
    setPolled(table, entry, false);
    setWritable(table, entry, false);
    if (entry.both) --table.bothCount;
    entry = Entry{};
}

void clearKnotes(KnoteTable& table) {
    for (size_t i = 0; i < table.pageCount; ++i) free(table.pages[i]);
    free(table.pages);
    table = KnoteTable{};
}

void setPolled(KnoteTable& table, Entry& entry, bool on) {
    setLinked(table.polled, entry, &Entry::polled, on);
}

void setWritable(KnoteTable& table, Entry& entry, bool on) {
    setLinked(table.writable, entry, &Entry::writable, on);
}

void rotatePolled(KnoteTable& table, Entry& entry) {
    setPolled(table, entry, false);
    setPolled(table, entry, true);
}

}  // namespace rvkevent
