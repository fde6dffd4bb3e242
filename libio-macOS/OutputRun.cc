#include "libio-macOS/OutputRun.h"

#include <utility>

void OutputRun::share(SharedBytes bytes) noexcept {
    shared = std::move(bytes);
}

void OutputRun::drop(std::size_t count) noexcept {
    if (!copied.isEmpty()) {
        copied.drop(count);
        return;
    }
    shared.bytes += count;
    shared.size -= count;
    if (shared.size == 0) shared = {};
}

void OutputRun::swap(OutputRun& other) noexcept {
    copied.swap(other.copied);
    std::swap(shared, other.shared);
}

bool OutputRun::take(OutputRun& next) noexcept {
    if (!copied.append(next.copied.data(), next.copied.size())) return false;
    next.copied.drop(next.copied.size());
    shared = std::exchange(next.shared, {});
    return true;
}
