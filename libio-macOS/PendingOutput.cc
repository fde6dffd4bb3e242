#include "libio-macOS/PendingOutput.h"

#include <unistd.h>

#include <algorithm>

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
    const auto limit = static_cast<std::size_t>(std::max<std::int64_t>(room, 0));
    Flushed result = {std::min(tx.size(), limit), 0, tx.size()};
    if (lostBytes) return {std::max<std::size_t>(result.tried, 1), -1, std::max<std::size_t>(tx.size(), 1)};
    if (result.tried == 0 && !evenIfEmpty) return result;
    result.written = ::write(fd, tx.data(), result.tried);
    if (result.written >= 1) tx.drop(static_cast<std::size_t>(result.written));
    result.remaining = tx.size();
    return result;
}
