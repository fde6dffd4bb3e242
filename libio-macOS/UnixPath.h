/// The limit on the path of a Unix-domain socket.
#ifndef RV_LIBIO_UNIX_PATH_H
#define RV_LIBIO_UNIX_PATH_H

#include <cstddef>

/// Bytes without the terminator: what fits an address of 106 bytes, the smallest among the systems, so that a
/// path that works on one works on all.
inline constexpr std::size_t kMaxUnixPathBytes = 103;

#endif
