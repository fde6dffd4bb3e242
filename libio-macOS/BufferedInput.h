/// Received bytes on their way to an event block: reading them and offering them.
#ifndef RV_LIBIO_BUFFERED_INPUT_H
#define RV_LIBIO_BUFFERED_INPUT_H

#include <cstdint>

#include "libio-macOS/ByteBuffer.h"
#include "libio-macOS/EventBlockSlot.h"
#include "libio-macOS/RvKQueueEventProtocol.h"

/// Reads what the kernel has reported as readable to the end of `rx`: one read(2) of `available` bytes.
///
/// available  the record's data; a read of 0 bytes or less is the end of input
/// Returns true when at least one byte came; `rx` is then longer by `available` bytes, those beyond a short
/// read being zero. Returns false at the end of input, on an error and without memory, `rx` being unchanged.
/// The I/O thread.
bool readAvailable(int fd, std::int64_t available, ByteBuffer* rx) noexcept;

/// Calls the block, if there is one, with all of `rx`, the code and a dropSize that starts as the length of
/// `rx`, and then removes as many bytes from the front of `rx` as dropSize says. The I/O thread.
void deliverBuffered(const EventBlockSlot& slot, RvKQueueEventProtocol* object, ByteBuffer* rx,
                     std::int32_t event) noexcept;

/// Calls the block, if there is one, without a buffer: event 0 or 3, or a timer's event 1. Any thread.
void deliverPlain(const EventBlockSlot& slot, RvKQueueEventProtocol* object, std::int32_t event) noexcept;

#endif
