#include "rules/plain_line.h"

#include <algorithm>
#include <bit>
#include <cstdint>

#include "rules/byte_masks.h"

namespace {

/// For each bit whether the number of bits set up to and with it is odd: 1 from an opening quote on, 0 from
/// the closing one on.
constexpr std::uint64_t oddSoFar(std::uint64_t bits) noexcept {
    for (unsigned shift = 1; shift < 64; shift *= 2) {
        bits ^= bits << shift;
    }
    return bits;
}

/// All bits below the lowest one set, and that one; all when none is set.
constexpr std::uint64_t upToLowest(std::uint64_t bits) noexcept {
    return bits ^ (bits - 1);
}

/// What the bytes of one block know about the byte before them: 1 or 0 each.
struct Before {
    std::uint64_t quoted = 0;
    std::uint64_t separator = 1;  // the start of the line is one
    std::uint64_t closingQuote = 0;
    std::uint64_t inToken = 0;
};

}  // namespace

std::size_t PlainLine::cut(std::string_view text) noexcept {
    Before before;
    text_ = text.data();
    edges_ = 0;
    ascii_ = true;
    const std::size_t size = std::min(text.size(), kMostBytes);
    for (std::size_t at = 0; size - at >= kMaskBytes; at += kMaskBytes) {
        const ByteMasks masks = maskBytes(text.data() + at);
        const std::uint64_t quoted = oddSoFar(masks.quotes) ^ (0 - before.quoted);
        const std::uint64_t separators = masks.spaces & ~quoted;
        const std::uint64_t tokens = ~(separators | masks.quotes);
        const std::uint64_t opening = masks.quotes & quoted;
        const std::uint64_t closing = masks.quotes & ~quoted;
        const std::uint64_t ends = masks.lineFeeds & ~quoted;
        const std::uint64_t line = upToLowest(ends);
        // Quotes stand around whole words: separators before those that open and after those that close.
        const std::uint64_t odd = masks.others | (masks.lineFeeds & quoted) |
                                  (opening & ~(separators << 1 | before.separator)) |
                                  ((closing << 1 | before.closingQuote) & ~separators);
        if ((odd & line) != 0 || kMostEdges - edges_ < kMaskBytes) {
            return 0;
        }
        ascii_ = ascii_ && (masks.high & line) == 0;
        // Tokens begin and end where the bit differs from the one before.
        for (std::uint64_t edges = (tokens ^ (tokens << 1 | before.inToken)) & line; edges != 0;
             edges &= edges - 1) {
            places_[edges_++] =
                static_cast<std::uint32_t>(at) + static_cast<std::uint32_t>(std::countr_zero(edges));
        }
        if (ends != 0) {
            return edges_ == 0 ? 0 : at + static_cast<std::size_t>(std::countr_zero(ends)) + 1;
        }
        before = {quoted >> 63, separators >> 63, closing >> 63, tokens >> 63};
    }
    return 0;
}
