/// The record that a listening endpoint hands to its event block as the buffer of event 1.
#ifndef RV_LIBIO_ACCEPTED_CONNECTION_H
#define RV_LIBIO_ACCEPTED_CONNECTION_H

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "platform/peer_credentials.h"

/// 136 bytes: the descriptor, four bytes of padding, then 128 bytes about the peer. What a kind of listener
/// does not fill in is zero.
struct AcceptedConnection {
    std::int32_t descriptor;  ///< the accepted socket; the block's own once it has returned true
    union {
        struct sockaddr_storage address;  ///< TCP: the peer's address as accept(2) gave it
        PeerCredentials credentials;      ///< Unix: the peer's user, group and process id
    } peer;
};

static_assert(sizeof(AcceptedConnection) == 136);
static_assert(offsetof(AcceptedConnection, peer) == 8);

#endif
