/// What the two kinds of listening endpoint share: offering an accepted connection, and turning one away.
#ifndef RV_LIBIO_LISTENING_H
#define RV_LIBIO_LISTENING_H

#include <cstdint>

#include "libio-macOS/AcceptedConnection.h"
#include "libio-macOS/EventBlockSlot.h"
#include "libio-macOS/RvKQueueEventProtocol.h"

/// Connections that may wait to be accepted.
inline constexpr int kListenBacklog = 128;

/// Calls the block with the record as event 1. The descriptor is shut down and closed if the block returns
/// false, or if the endpoint has no block any more. The I/O thread.
void offerConnection(EventBlockSlot& slot, RvKQueueEventProtocol* object,
                     const AcceptedConnection& accepted) noexcept;

/// Shuts the descriptor down and closes it.
void refuseConnection(std::int32_t descriptor) noexcept;

#endif
