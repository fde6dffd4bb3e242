/// Stream sockets on Linux.
#include "platform/stream_socket.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace {

// What connect(2) says of a Unix-domain address that cannot be reached; unix(7) and connect(2) list them.
bool isRefusal(int error) noexcept {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
        case ELOOP:
        case ENAMETOOLONG:
        case EACCES:
        case EPERM:
        case ECONNREFUSED:
        case EAGAIN:
        case EPROTOTYPE:
            return true;
        default:
            return false;
    }
}

// Puts the end of a connection whose other end is gone in the place of the refused socket, under the same
// number: its state is a hang-up, which is what a failed connection looks like to whoever waits for it.
// An unconnected socket would do for nothing: the kernel calls it writable and hung up from birth on, so
// those who wait cannot tell it from one that has not been tried yet.
bool hangUp(int sock) noexcept {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1) return false;
    (void)close(ends[1]);
    const bool replaced = dup3(ends[0], sock, O_CLOEXEC) != -1;
    (void)close(ends[0]);
    return replaced;
}

}  // namespace

int makeStreamSocket(int family) noexcept {
    return socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

int connectStreamSocket(int sock, const struct sockaddr* address, socklen_t length) noexcept {
    if (connect(sock, address, length) == 0) return 0;
    const int error = errno;
    const bool failsLater = address->sa_family == AF_UNIX && isRefusal(error) && hangUp(sock);
    errno = failsLater ? EINPROGRESS : error;
    return -1;
}

int acceptStreamSocket(int sock, struct sockaddr* address, socklen_t* length) noexcept {
    return accept4(sock, address, length, SOCK_CLOEXEC);
}

// The calls themselves instead of recv(2) and send(2), which are points where a thread can be cancelled: in a
// program with threads the C library prepares for that with two atomic exchanges for each call, and nobody
// cancels a thread that way here. Sanitizers see only the functions.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
ssize_t receiveNow(int sock, void* bytes, std::size_t size) noexcept {
    return recv(sock, bytes, size, MSG_DONTWAIT);
}

ssize_t sendNow(int sock, const void* bytes, std::size_t size) noexcept {
    return send(sock, bytes, size, MSG_DONTWAIT);
}
#else
ssize_t receiveNow(int sock, void* bytes, std::size_t size) noexcept {
    return syscall(SYS_recvfrom, sock, bytes, size, MSG_DONTWAIT, nullptr, nullptr);
}

ssize_t sendNow(int sock, const void* bytes, std::size_t size) noexcept {
    return syscall(SYS_sendto, sock, bytes, size, MSG_DONTWAIT, nullptr, 0);
}
#endif

std::size_t bytesWaiting(int sock) noexcept {
    int count = 0;
    return ioctl(sock, FIONREAD, &count) == 0 && count > 0 ? static_cast<std::size_t>(count) : 0;
}
