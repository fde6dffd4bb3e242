/// Socket addresses of systems that have no length byte in them, and of those that have.
#ifndef RV_PLATFORM_SOCKET_ADDRESS_H
#define RV_PLATFORM_SOCKET_ADDRESS_H

#include <sys/socket.h>
#include <sys/un.h>

/// The length in bytes of an IPv4, IPv6 or Unix-domain address, to be handed to connect(2) or bind(2). Where
/// the system keeps a length byte in the address that byte is the answer; elsewhere it follows from the
/// family. An unknown family gives the size of the bare header, which the system then refuses.
socklen_t socketAddressLength(const struct sockaddr* address) noexcept;

/// Fills in a Unix-domain address: zero bytes everywhere but in the family and the path (and, where there is
/// one, the length byte).
///
/// path  zero-terminated, at most 103 bytes, which every system's address has room for; the caller checks
void makeUnixAddress(const char* path, struct sockaddr_un* address) noexcept;

#endif
