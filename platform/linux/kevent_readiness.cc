/// READ and WRITE of descriptors: epoll's answers mapped to kqueue's, and the byte counts of each kind of
/// file.
#include "platform/linux/kevent_readiness.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rvkevent {

namespace {

/// A write of this size to a regular file is as good as any other: readiness does not limit it.
constexpr int64_t kFileWriteBytes = 65536;
/// An empty slot of a pipe takes this much (one page).
constexpr int64_t kPipeSlotBytes = 4096;
/// What a TCP segment costs beside its bytes, at most.
constexpr int64_t kSegmentOverhead = 2048;
/// AF_UNIX sends in pieces of half the send buffer less this.
constexpr int64_t kUnixPieceOverhead = 64;

bool isStreamSocket(FileKind kind) {
    return kind == FileKind::kUnixStream || kind == FileKind::kTcp || kind == FileKind::kOtherStream;
}

int socketOption(int fd, int option) {
    int value = 0;
    socklen_t size = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0 ? value : -1;
}

FileKind kindOfSocket(int fd) {
    const int type = socketOption(fd, SO_TYPE);
    const int domain = socketOption(fd, SO_DOMAIN);
    if (type != SOCK_STREAM && type != SOCK_SEQPACKET) return FileKind::kDatagram;
    if (type == SOCK_SEQPACKET) return FileKind::kOtherStream;
    if (domain == AF_UNIX) return FileKind::kUnixStream;
    const bool tcp =
        (domain == AF_INET || domain == AF_INET6) && socketOption(fd, SO_PROTOCOL) == IPPROTO_TCP;
    return tcp ? FileKind::kTcp : FileKind::kOtherStream;
}

/// The number of connections that wait on a listening socket. AF_UNIX does not tell; any caller of accept()
/// that believes in one connection will see EAGAIN or find another.
int64_t waitingConnections(const Entry& entry) {
    tcp_info info{};
    socklen_t size = sizeof info;
    if (entry.kind != FileKind::kTcp) return 1;
    if (getsockopt(entry.fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return 1;
    return info.tcpi_unacked;
}

/// A stream socket that epoll calls readable although no byte counts as readable: the stream ended, or an
/// urgent mark stands before the next byte, or another reader was faster. Only a look at the queue can tell.
/// It is not taken when an error is pending, since it would fetch the error that the next read() or write()
/// is to see.
Readiness peekReadiness(const Entry& entry, bool end, uint32_t events) {
    if ((events & EPOLLERR) != 0) return {true, true, 0};
    char byte = 0;
    const ssize_t n = recv(entry.fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n > 0) return {true, end, n};
    if (n == 0) return {true, true, 0};
    return {end || errno != EAGAIN, true, 0};
}

Readiness readOfStream(Entry& entry, int64_t bytes, uint32_t events) {
    const bool end = (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
    if (bytes == 0) return peekReadiness(entry, end, events);
    entry.connected = true;
    return {true, end, bytes};
}

struct SocketMemory {
    uint32_t values[SK_MEMINFO_VARS];
    int64_t sendBuffer() const { return values[SK_MEMINFO_SNDBUF]; }
    int64_t allocated() const { return values[SK_MEMINFO_WMEM_ALLOC]; }  // what SIOCOUTQ says on AF_UNIX
    int64_t queued() const { return values[SK_MEMINFO_WMEM_QUEUED]; }
};

bool askMemory(int fd, SocketMemory* memory) {
    socklen_t size = sizeof memory->values;
    return getsockopt(fd, SOL_SOCKET, SO_MEMINFO, memory->values, &size) == 0;
}

/// A blocking write goes out in pieces of half the send buffer and sleeps only if the queue is full when a
/// piece starts, so half of the free room is safe.
int64_t roomOfUnix(const SocketMemory& memory) {
    const int64_t room = (memory.sendBuffer() - memory.allocated()) / 2 - kUnixPieceOverhead;
    return room < 1 ? 1 : room;
}

/// The system's limit of unsent bytes, or UINT32_MAX for none.
int64_t systemNotSentLowat() {
    const int fd = open("/proc/sys/net/ipv4/tcp_notsent_lowat", O_RDONLY | O_CLOEXEC);
    if (fd == -1) return UINT32_MAX;
    char text[16] = {};
    const ssize_t n = read(fd, text, sizeof text - 1);
    (void)close(fd);  // it was only read
    const int64_t limit = n > 0 ? strtoll(text, nullptr, 10) : 0;
    return limit == 0 ? UINT32_MAX : limit;
}

/// The socket's limit of unsent bytes, or UINT32_MAX for none. The system's default is read once: it concerns
/// sockets that have no limit of their own.
int64_t notSentLowat(int fd) {
    static int64_t systemDefault = 0;
    uint32_t value = 0;
    socklen_t size = sizeof value;
    (void)getsockopt(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &value,
                     &size);  // leaves 0 on failure: no limit of its own
    if (value != 0) return value;
    int64_t limit = __atomic_load_n(&systemDefault, __ATOMIC_RELAXED);
    if (limit == 0) {
        limit = systemNotSentLowat();
        __atomic_store_n(&systemDefault, limit, __ATOMIC_RELAXED);
    }
    return limit;
}

/// A new segment is started only while less than the send buffer is in use; each costs up to 2 KiB beside its
/// bytes and holds one mss at least. Half of a limit of unsent bytes caps the count.
int64_t roomOfTcp(int fd, const SocketMemory& memory, int64_t lowat) {
    int mss = 0;
    socklen_t size = sizeof mss;
    if (getsockopt(fd, IPPROTO_TCP, TCP_MAXSEG, &mss, &size) != 0 || mss < 1) return 1;
    int64_t room = (memory.sendBuffer() - memory.queued()) * mss / (mss + kSegmentOverhead);
    if (lowat != UINT32_MAX && room > lowat / 2) room = lowat / 2;
    return room < 1 ? 1 : room;
}

int64_t roomOfPipe(int fd) {
    int queued = 0;
    if (ioctl(fd, FIONREAD, &queued) != 0 || queued != 0) return kPipeSlotBytes;
    const int size = fcntl(fd, F_GETPIPE_SZ);
    return size < 1 ? kPipeSlotBytes : size;
}

int64_t roomOf(const Entry& entry) {
    SocketMemory memory{};
    switch (entry.kind) {
        case FileKind::kUnixStream:
            return askMemory(entry.fd, &memory) ? roomOfUnix(memory) : 1;
        case FileKind::kTcp:
            return askMemory(entry.fd, &memory) ? roomOfTcp(entry.fd, memory, notSentLowat(entry.fd)) : 1;
        case FileKind::kPipe:
            return roomOfPipe(entry.fd);
        default:
            return 1;  // nothing is promised of a terminal, a device or a datagram socket
    }
}

/// True if this side has shut down its writing half: epoll does not say so, an empty send does, and nothing
/// goes out.
bool wasShutDown(const Entry& entry) {
    if (!isStreamSocket(entry.kind) || entry.kind == FileKind::kOtherStream) return false;
    return send(entry.fd, "", 0, MSG_DONTWAIT | MSG_NOSIGNAL) == -1 && errno == EPIPE;
}

}  // namespace

uint32_t askPoll(int fd, short events) {
    pollfd request{fd, events, 0};
    return poll(&request, 1, 0) == 1 ? static_cast<uint32_t>(request.revents) : 0;
}

void classify(Entry& entry) {
    if (entry.kind != FileKind::kUnknown) return;
    struct stat status {};
    if (fstat(entry.fd, &status) != 0) return;
    entry.device = status.st_dev;
    entry.inode = status.st_ino;
    switch (status.st_mode & S_IFMT) {
        case S_IFSOCK:
            entry.kind = kindOfSocket(entry.fd);
            break;
        case S_IFIFO:
            entry.kind = FileKind::kPipe;
            break;
        case S_IFREG:
            entry.kind = FileKind::kRegular;
            break;
        default:
            entry.kind = FileKind::kOther;
    }
}

bool wasNeverConnected(const Entry& entry, uint32_t events) {
    if ((events & EPOLLHUP) == 0 || (events & EPOLLRDHUP) != 0 || !isStreamSocket(entry.kind)) return false;
    if ((entry.mask & EPOLLRDHUP) != 0) return true;
    return (askPoll(entry.fd, POLLRDHUP) & (POLLHUP | POLLRDHUP)) == POLLHUP;
}

Readiness readReadiness(Entry& entry, uint32_t events) {
    const bool end = (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
    if (!end && (events & EPOLLIN) == 0) return {};
    if (entry.countless) return {true, (events & EPOLLHUP) != 0, 1};
    int bytes = 0;
    if (ioctl(entry.fd, FIONREAD, &bytes) != 0) {
        if (errno == EBADF) return {};
        if (isStreamSocket(entry.kind)) {  // it listens
            const int64_t waiting = waitingConnections(entry);
            return {waiting > 0 && (events & EPOLLIN) != 0, false, waiting};
        }
        entry.countless = true;
        return {true, (events & EPOLLHUP) != 0, 1};
    }
    if (isStreamSocket(entry.kind)) return readOfStream(entry, bytes, events);
    if (entry.kind == FileKind::kPipe) return {bytes > 0 || end, end, bytes};
    // A datagram may be empty, a terminal's line too, and an error is fetched by a read as well: ask for a
    // byte.
    const bool hungUp = (events & EPOLLHUP) != 0;
    return {true, hungUp, bytes > 0 || hungUp ? bytes : 1};
}

Readiness writeReadiness(Entry& entry, uint32_t events) {
    const bool end = (events & (EPOLLHUP | EPOLLERR)) != 0;
    if (!end && (events & EPOLLOUT) == 0) return {};
    if (entry.kind == FileKind::kPipe && end) return {true, true, 0};
    if (entry.kind == FileKind::kDatagram) return {true, false, 1};
    if (!end && isStreamSocket(entry.kind)) entry.connected = true;
    // Deliberate: a dead socket keeps a positive count. The write it invites fails at once and tells the
    // writer of the end; a count of 0 would never be written. Held by KeventWrite.PeerCloseKeepsDataPositive.
    return {true, end || wasShutDown(entry), roomOf(entry)};
}

bool needsNoCount(const Entry& entry, uint32_t events) {
    return entry.connected && (entry.kind == FileKind::kUnixStream || entry.kind == FileKind::kTcp) &&
           (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) == 0;
}

Readiness readReadinessOfFile(const Entry& entry) {
    if (entry.kind != FileKind::kRegular) return {true, false, 1};
    struct stat status {};
    const off_t offset = lseek(entry.fd, 0, SEEK_CUR);
    if (offset == -1 || fstat(entry.fd, &status) != 0) return {};
    return {offset != status.st_size, false, status.st_size - offset, status.st_size};
}

Readiness writeReadinessOfFile(const Entry& entry) {
    return {true, false, entry.kind == FileKind::kRegular ? kFileWriteBytes : 1};
}

}  // namespace rvkevent
