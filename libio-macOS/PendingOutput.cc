#include "libio-macOS/PendingOutput.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/kevent.h"
#include "platform/stream_socket.h"

namespace {

// To copy more than this costs more than a write of its own.
constexpr std::size_t kLargeWriteBytes = 65536;

}  // namespace

void PendingOutput::append(const void* bytes, std::uint64_t size, bool onIoThread) noexcept {
    const bool isNext = onIoThread && queued.load(std::memory_order_relaxed) == 0 && !sending.isClosed();
    if (isNext && sending.append(bytes, size)) return;
    const LockGuard guard(txlock);
    appendCopy(bytes, size);
    noteQueued();
}

void PendingOutput::append(std::string_view head, SharedBytes body, std::string_view tail) noexcept {
    const LockGuard guard(txlock);
    appendCopy(head.data(), head.size());
    if (tx.isClosed()) {
        appendCopy(body.bytes, body.size);
    } else if (body.size != 0) {
        tx.share(std::move(body));
    }
    appendCopy(tail.data(), tail.size());
    noteQueued();
}

void PendingOutput::appendCopy(const void* bytes, std::size_t size) noexcept {
    const bool hasRoom = tx.isClosed() ? behind.append(bytes, size) : tx.append(bytes, size);
    if (!hasRoom) lostBytes = true;
}

void PendingOutput::noteQueued() noexcept {
    queued.store(tx.size() + behind.size() + (lostBytes ? 1 : 0), std::memory_order_relaxed);
}

// Has `sending` hold what goes out next: `wanted` bytes if there are so many and they are cheaply had.
// Returns false if bytes were lost.
bool PendingOutput::takeQueued(std::size_t wanted) noexcept {
    if (queued.load(std::memory_order_relaxed) == 0) return true;
    const LockGuard guard(txlock);
    if (lostBytes) return false;
    if (sending.isEmpty()) {
        sending.swap(tx);
    } else if (!sending.isClosed() && sending.size() < wanted && tx.copiedSize() <= kLargeWriteBytes) {
        (void)sending.take(tx);  // without memory they go out later
    }
    if (tx.isEmpty()) tx.swapCopied(behind);
    noteQueued();
    return true;
}

PendingOutput::Flushed PendingOutput::flush(int fd, std::int64_t room, bool evenIfEmpty) noexcept {
    const bool isUncounted = room == KEVENT_UNCOUNTED;
    const std::size_t limit =
        isUncounted ? SIZE_MAX : static_cast<std::size_t>(std::max<std::int64_t>(room, 0));
    if (!takeQueued(limit)) return {remaining(), -1, remaining()};
    const std::size_t size = std::min(sending.pieceSize(), limit);
    if (size == 0 && !evenIfEmpty) return {0, 0, remaining()};
    const bool waits = !isUncounted || size == 0;
    const ssize_t written = waits ? ::write(fd, sending.data(), size) : sendNow(fd, sending.data(), size);
    if (!waits && written == -1 && (errno == EAGAIN || errno == EINTR)) return {0, 0, remaining(), true};
    if (written >= 1) sending.drop(static_cast<std::size_t>(written));
    return {size, written, remaining()};
}
