/// Who is at the other end of a Unix-domain connection.
#ifndef RV_PLATFORM_PEER_CREDENTIALS_H
#define RV_PLATFORM_PEER_CREDENTIALS_H

#include <cstdint>

/// The peer's ids as the kernel recorded them when the connection was made.
struct PeerCredentials {
    std::uint32_t userId;
    std::uint32_t groupId;
    std::int32_t processId;
};

/// Asks the kernel for the process that connected (on the connecting side: that listened) to `sock`. It still
/// answers when that process has ended or has passed the socket on.
/// Returns false, leaving `credentials` alone, when `sock` is no Unix-domain socket, was never connected, or
/// its peer has no process id here. Any thread. On Linux this is SO_PEERCRED, see unix(7).
bool getPeerCredentials(int sock, PeerCredentials* credentials) noexcept;

#endif
