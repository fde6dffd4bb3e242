/// Looks at 64 bytes of rule text at once: a bit for each byte and each kind of byte that matters.
#ifndef RV_RULES_BYTE_MASKS_H
#define RV_RULES_BYTE_MASKS_H

#include <cstddef>
#include <cstdint>

/// How many bytes a mask covers.
inline constexpr std::size_t kMaskBytes = 64;

/// The lowest bit stands for the first byte.
struct ByteMasks {
    std::uint64_t quotes = 0;     ///< double quotes
    std::uint64_t spaces = 0;     ///< white space, line feeds included
    std::uint64_t lineFeeds = 0;  ///< line feeds
    std::uint64_t others = 0;     ///< what else has a meaning: NUL, "#" and backslash
    std::uint64_t high = 0;       ///< bytes above 0x7f
};

/// The masks of the kMaskBytes bytes from `text` on, with the vectors of the processor where they are known.
/// Pure; any thread.
ByteMasks maskBytes(const char* text) noexcept;

/// The same for every processor; slower, and the measure of the other.
ByteMasks maskBytesByWords(const char* text) noexcept;

#endif
