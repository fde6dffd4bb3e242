/// The change records that endpoints submit.
#ifndef RV_LIBIO_FILTER_RECORD_H
#define RV_LIBIO_FILTER_RECORD_H

#include <cstdint>

#include "libio-macOS/RvKQueueEventProtocol.h"
#include "platform/kevent.h"

inline constexpr std::uint16_t kArmFlags = EV_ADD | EV_ENABLE;
inline constexpr std::uint16_t kDisarmFlags = EV_DELETE;

/// Fills in a record for a descriptor's filter: fflags and data 0, udata the endpoint.
inline void initFilterRecord(struct kevent* record, int descriptor, std::int16_t filter, std::uint16_t flags,
                             RvKQueueEventProtocol* endpoint) noexcept {
    *record = {static_cast<std::uint64_t>(descriptor), filter, flags, 0, 0, endpoint};
}

/// Whether the kernel has refused to arm the filter of the record, whose data is an error number then.
/// Nothing can be read or accepted for it, and a call that waits would never return.
inline bool isRefusedFilter(const struct kevent& record) noexcept {
    return (record.flags & EV_ERROR) != 0;
}

#endif
