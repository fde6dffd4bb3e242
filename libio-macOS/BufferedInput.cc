#include "libio-macOS/BufferedInput.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

bool readAvailable(int fd, std::int64_t available, ByteBuffer* rx) noexcept {
    const auto count = static_cast<std::size_t>(std::max<std::int64_t>(available, 0));
    char* const end = rx->prepare(count);
    if (end == nullptr) return false;
    const ssize_t got = read(fd, end, count);
    if (got < 1) return false;
    // Deliberate: the buffer keeps its grown length after a short read, and the block sees zero bytes behind
    // those received. Owners count on the reported length. Held by
    // RvKQueueStreamSocketInput.ShortReadKeepsLength.
    std::memset(end + got, 0, count - static_cast<std::size_t>(got));
    rx->commit(count);
    return true;
}

void deliverBuffered(const EventBlockSlot& slot, RvKQueueEventProtocol* object, ByteBuffer* rx,
                     std::int32_t event) noexcept {
    const EventBlockSlot::Pointer block = slot.get();
    if (!block || !*block) return;
    std::uint64_t dropSize = rx->size();
    (void)(*block)(object, rx->data(), rx->size(), &dropSize, event);
    rx->drop(dropSize);
}

void deliverPlain(const EventBlockSlot& slot, RvKQueueEventProtocol* object, std::int32_t event) noexcept {
    const EventBlockSlot::Pointer block = slot.get();
    if (block && *block) (void)(*block)(object, nullptr, 0, nullptr, event);
}
