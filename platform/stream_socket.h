/// Making, connecting and accepting stream sockets, where systems differ in more than spelling: descriptors
/// are close-on-exec from birth, and a refused local connection shows as one that failed while pending.
#ifndef RV_PLATFORM_STREAM_SOCKET_H
#define RV_PLATFORM_STREAM_SOCKET_H

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

/// socket(2) of SOCK_STREAM with protocol 0. Returns a descriptor that the caller owns, or -1 with errno.
int makeStreamSocket(int family) noexcept;

/// connect(2) of a non-blocking stream socket.
///
/// Returns 0 when the connection stands; -1 with errno EINPROGRESS when its outcome will be reported by
/// EVFILT_WRITE (with EV_EOF if it failed); -1 with another errno when there was nothing to try.
/// A Unix-domain connection that the peer's side refuses (no such file, nobody listens, the backlog is full,
/// no permission) belongs to the second kind on every system: the attempt was made and has failed. The socket
/// is then good for nothing but to be reported and closed; its descriptor number stays.
int connectStreamSocket(int sock, const struct sockaddr* address, socklen_t length) noexcept;

/// accept(2). Returns a descriptor that the caller owns, or -1 with errno.
///
/// address, length  as in accept(2): the room for the peer's address in, what was filled in out
int acceptStreamSocket(int sock, struct sockaddr* address, socklen_t* length) noexcept;

/// recv(2) and send(2) that never wait, whatever mode the socket is in. EAGAIN: nothing to read, no room to
/// write. The end of the connection shows as with read(2) and write(2): 0, or an error and SIGPIPE.
ssize_t receiveNow(int sock, void* bytes, std::size_t size) noexcept;
ssize_t sendNow(int sock, const void* bytes, std::size_t size) noexcept;

/// How many bytes a socket has to read; 0 also if that cannot be told.
std::size_t bytesWaiting(int sock) noexcept;

#endif
