#include "libio-macOS/TimerIdents.h"

#include <algorithm>
#include <bit>
#include <exception>

namespace {

constexpr std::uint64_t kFull = ~std::uint64_t{0};
constexpr std::size_t kBits = 64;

std::size_t wordOf(std::int32_t ident) noexcept {
    return static_cast<std::size_t>(ident) / kBits;
}

std::uint64_t bitOf(std::int32_t ident) noexcept {
    return std::uint64_t{1} << (static_cast<std::size_t>(ident) % kBits);
}

}  // namespace

bool TimerIdents::reserve() noexcept try {
    words.reserve(1);
    return true;
} catch (const std::exception&) {
    return false;
}

bool TimerIdents::findFree(std::optional<std::int32_t>* ident) noexcept try {
    while (firstGap < words.size() && words[firstGap] == kFull) ++firstGap;
    if (firstGap == words.size()) words.push_back(0);
    const std::size_t free = firstGap * kBits + static_cast<std::size_t>(std::countr_one(words[firstGap]));
    ident->reset();
    if (free < static_cast<std::size_t>(end)) *ident = static_cast<std::int32_t>(free);
    return true;
} catch (const std::exception&) {
    return false;
}

void TimerIdents::insert(std::int32_t ident) noexcept {
    words[wordOf(ident)] |= bitOf(ident);
}

void TimerIdents::erase(std::int32_t ident) noexcept {
    words[wordOf(ident)] &= ~bitOf(ident);
    firstGap = std::min(firstGap, wordOf(ident));
}

bool TimerIdents::contains(std::int32_t ident) const noexcept {
    return ident >= 0 && wordOf(ident) < words.size() && (words[wordOf(ident)] & bitOf(ident)) != 0;
}
