#include "libio-macOS/PendingOutput.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/kevent.h"
#include "platform/stream_socket.h"

void PendingOutput::append(const void* bytes, std::uint64_t size) noexcept {
    const LockGuard guard(txlock);
    if (!tx.append(bytes, size)) lostBytes = true;
}

bool PendingOutput::isEmpty() const noexcept {
    const LockGuard guard(txlock);
    return tx.isEmpty();
}

PendingOutput::Flushed PendingOutput::flush(int fd, std::int64_t room, bool evenIfEmpty) noexcept {
    const LockGuard guard(txlock);
    const std::size_t atLeastOne = std::max<std::size_t>(tx.size(), 1);
    if (lostBytes) return {atLeastOne, -1, atLeastOne, false};
    if (room == KEVENT_UNCOUNTED && !tx.isEmpty()) return flushUncounted(fd);
    const auto limit = static_cast<std::size_t>(std::max<std::int64_t>(room, 0));
    Flushed result = {std::min(tx.size(), limit), 0, tx.size(), false};
    if (result.tried == 0 && !evenIfEmpty) return result;
    result.written = ::write(fd, tx.data(), result.tried);
    if (result.written >= 1) tx.drop(static_cast<std::size_t>(result.written));
    result.remaining = tx.size();
    return result;
}

PendingOutput::Flushed PendingOutput::flushUncounted(int fd) noexcept {
    const std::size_t size = tx.size();
    const ssize_t written = sendNow(fd, tx.data(), size);
    if (written == -1 && (errno == EAGAIN || errno == EINTR)) return {0, 0, size, true};
    if (written >= 1) tx.drop(static_cast<std::size_t>(written));
    return {size, written, tx.size(), false};
}
