/// Looks at eight bytes of text at a time.
///
/// memchr(3) finds one byte value; text is searched here for the first of several, in pieces that are too
/// short for the calls to pay. All functions are pure and may be called on any thread.
#ifndef RV_IPC_BYTE_WORDS_H
#define RV_IPC_BYTE_WORDS_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

/// Eight bytes of text, the first one in the lowest bits.
using ByteWord = std::uint64_t;
inline constexpr std::size_t kByteWordSize = sizeof(ByteWord);
inline constexpr ByteWord kHighBits = 0x8080808080808080;

/// The bytes from `text` on; there must be eight.
inline ByteWord loadByteWord(const char* text) noexcept {
    ByteWord word;
    std::memcpy(&word, text, sizeof word);
    return std::endian::native == std::endian::big ? __builtin_bswap64(word) : word;
}

/// Writes the eight bytes of `word` to `out`.
inline void storeByteWord(ByteWord word, char* out) noexcept {
    const ByteWord bytes = std::endian::native == std::endian::big ? __builtin_bswap64(word) : word;
    std::memcpy(out, &bytes, sizeof bytes);
}

/// The word whose bytes all have this value.
constexpr ByteWord everyByte(unsigned char value) noexcept {
    return ByteWord{0x0101010101010101} * value;
}

// What follows marks bytes by their highest bit. The first mark is exact, those after it need not be: to look
// for one of several kinds, join the marks of all and take the first.

/// Marks the bytes below `limit`, which is 0x80 at most.
constexpr ByteWord bytesBelow(ByteWord word, unsigned char limit) noexcept {
    return (word - everyByte(limit)) & ~word & kHighBits;
}

/// Marks the bytes of this value.
constexpr ByteWord bytesEqual(ByteWord word, unsigned char value) noexcept {
    return bytesBelow(word ^ everyByte(value), 1);
}

/// How many bytes have this value.
constexpr unsigned countBytes(ByteWord word, unsigned char value) noexcept {
    const ByteWord others = word ^ everyByte(value);  // 0 where the value is
    const ByteWord marks = ~(((others & ~kHighBits) + ~kHighBits) | others) & kHighBits;
    return static_cast<unsigned>(((marks >> 7) * everyByte(1)) >> 56);
}

/// How many bytes stand before the first mark. marks  not 0
constexpr std::size_t bytesBeforeMark(ByteWord marks) noexcept {
    return static_cast<std::size_t>(std::countr_zero(marks)) / 8;
}

/// The bytes before the first mark; the others are 0. marks  not 0
constexpr ByteWord wordBeforeMark(ByteWord word, ByteWord marks) noexcept {
    return word & (((marks & -marks) - 1) >> 7);
}

/// The bytes of a text of up to eight bytes, 0 after its end.
inline ByteWord shortByteWord(const char* text, std::size_t size) noexcept {
    ByteWord word = 0;
    if (size >= 4) {
        std::uint32_t first;
        std::uint32_t last;
        std::memcpy(&first, text, sizeof first);
        std::memcpy(&last, text + size - sizeof last, sizeof last);
        if (std::endian::native == std::endian::big) {
            first = __builtin_bswap32(first);
            last = __builtin_bswap32(last);
        }
        return first | ByteWord{last} << (8 * (size - 4));
    }
    for (std::size_t at = 0; at < size; ++at) {
        word |= ByteWord{static_cast<unsigned char>(text[at])} << (8 * at);
    }
    return word;
}

#endif
