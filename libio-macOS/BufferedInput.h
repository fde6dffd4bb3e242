/// Received bytes on their way to an event block: reading them and offering them.
#ifndef RV_LIBIO_BUFFERED_INPUT_H
#define RV_LIBIO_BUFFERED_INPUT_H

#include <cstdint>

#include "libio-macOS/ByteBuffer.h"
#include "libio-macOS/EventBlockSlot.h"
#include "libio-macOS/RvKQueueEventProtocol.h"

/// What a read has come to.
enum class Received : std::uint8_t {
    kBytes,   ///< at least one byte came
    kEnd,     ///< end of input, an error, or no memory; rx is unchanged
    kNothing  ///< there was nothing to read after all
};

/// Reads what the kernel has reported as readable to the end of `rx`: one read(2) of `available` bytes. `rx`
/// is then longer by `available` bytes, those beyond a short read being zero. The I/O thread.
///
/// available  the record's data. KEVENT_UNCOUNTED stands for as many bytes as a read that does not wait
///            finds, and `rx` is longer by just these.
Received readAvailable(int fd, std::int64_t available, ByteBuffer* rx) noexcept;

/// Calls the block, if there is one, with all of `rx`, the code and a dropSize that starts as the length of
/// `rx`, and then removes as many bytes from the front of `rx` as dropSize says. The I/O thread.
void deliverBuffered(EventBlockSlot& slot, RvKQueueEventProtocol* object, ByteBuffer* rx,
                     std::int32_t event) noexcept;

/// Calls the block, if there is one, without a buffer: event 0 or 3, or a timer's event 1. The I/O thread.
void deliverPlain(EventBlockSlot& slot, RvKQueueEventProtocol* object, std::int32_t event) noexcept;

#endif
