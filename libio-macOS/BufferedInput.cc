#include "libio-macOS/BufferedInput.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/kevent.h"
#include "platform/stream_socket.h"

namespace {

// A read that is not told how much there is asks for this much at least, or for all the room there is.
constexpr std::size_t kLeastReadBytes = 2048;

Received readUncounted(int fd, ByteBuffer* rx) noexcept {
    const std::size_t room = std::max(rx->spare(), kLeastReadBytes);
    char* const end = rx->prepare(room);
    if (end == nullptr) return Received::kEnd;
    const ssize_t got = receiveNow(fd, end, room);
    if (got == -1 && (errno == EAGAIN || errno == EINTR)) return Received::kNothing;
    if (got < 1) return Received::kEnd;
    rx->commit(static_cast<std::size_t>(got));
    if (static_cast<std::size_t>(got) < room) return Received::kBytes;
    const std::size_t more = bytesWaiting(fd);
    char* const rest = more == 0 ? nullptr : rx->prepare(more);
    const ssize_t gotMore = rest == nullptr ? 0 : receiveNow(fd, rest, more);
    if (gotMore > 0) rx->commit(static_cast<std::size_t>(gotMore));
    return Received::kBytes;
}

}  // namespace

Received readAvailable(int fd, std::int64_t available, ByteBuffer* rx) noexcept {
    if (available == KEVENT_UNCOUNTED) return readUncounted(fd, rx);
    const auto count = static_cast<std::size_t>(std::max<std::int64_t>(available, 0));
    char* const end = rx->prepare(count);
    if (end == nullptr) return Received::kEnd;
    const ssize_t got = read(fd, end, count);
    if (got < 1) return Received::kEnd;
    // Deliberate: the buffer keeps its grown length after a short read, and the block sees zero bytes behind
    // those received. Owners count on the reported length. Held by
    // RvKQueueStreamSocketInput.ShortReadKeepsLength.
    std::memset(end + got, 0, count - static_cast<std::size_t>(got));
    rx->commit(count);
    return Received::kBytes;
}

void deliverBuffered(EventBlockSlot& slot, RvKQueueEventProtocol* object, ByteBuffer* rx,
                     std::int32_t event) noexcept {
    const EventBlockSlot::Use block(slot);
    std::uint64_t dropSize = rx->size();
    if (block) (void)(*block)(object, rx->data(), rx->size(), &dropSize, event);
    rx->drop(dropSize);  // without a block as well: nobody would ever take it
}

void deliverPlain(EventBlockSlot& slot, RvKQueueEventProtocol* object, std::int32_t event) noexcept {
    const EventBlockSlot::Use block(slot);
    if (block) (void)(*block)(object, nullptr, 0, nullptr, event);
}
