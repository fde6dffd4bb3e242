#include "libio-macOS/Listening.h"

#include <sys/socket.h>
#include <unistd.h>

void offerConnection(EventBlockSlot& slot, RvKQueueEventProtocol* object,
                     const AcceptedConnection& accepted) noexcept {
    const EventBlockSlot::Use block(slot);
    const bool taken = block && (*block)(object, reinterpret_cast<const char*>(&accepted), sizeof accepted,
                                         nullptr, kEventData);
    if (!taken) refuseConnection(accepted.descriptor);
}

void refuseConnection(std::int32_t descriptor) noexcept {
    (void)shutdown(descriptor, SHUT_RDWR);  // fails when the peer is gone already
    (void)close(descriptor);                // nothing is left to undo
}
