/// Peer credentials by SO_PEERCRED, see unix(7).
#include "platform/peer_credentials.h"

#include <sys/socket.h>

bool getPeerCredentials(int sock, PeerCredentials* credentials) noexcept {
    struct ucred peer = {};
    socklen_t length = sizeof peer;
    if (getsockopt(sock, SOL_SOCKET, SO_PEERCRED, &peer, &length) == -1) return false;
    // The call succeeds on sockets without a peer as well: the process id is then 0 and the user id -1.
    if (peer.pid <= 0 || peer.uid == static_cast<uid_t>(-1)) return false;
    *credentials = {peer.uid, peer.gid, peer.pid};
    return true;
}
