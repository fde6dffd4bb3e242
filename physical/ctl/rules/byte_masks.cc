#include "rules/byte_masks.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "ipc/byte_words.h"

namespace {

/// A bit for each byte that is marked.
constexpr std::uint64_t gatherMarks(ByteWord marks) noexcept {
    return ((marks >> 7) * 0x0102040810204080) >> 56;
}

/// Marks the bytes below `limit`, which is 0x80 at most; each mark is exact.
constexpr ByteWord markBelow(ByteWord word, unsigned char limit) noexcept {
    return ~(((word & ~kHighBits) + everyByte(static_cast<unsigned char>(0x80 - limit))) | word) & kHighBits;
}

constexpr ByteWord markEqual(ByteWord word, unsigned char value) noexcept {
    return markBelow(word ^ everyByte(value), 1);
}

}  // namespace

ByteMasks maskBytesByWords(const char* text) noexcept {
    ByteMasks masks;
    for (std::size_t at = 0; at < kMaskBytes; at += kByteWordSize) {
        const ByteWord word = loadByteWord(text + at);
        const ByteWord blanks = markBelow(word, '\r' + 1) & ~markBelow(word, '\t');
        masks.quotes |= gatherMarks(markEqual(word, '"')) << at;
        masks.spaces |= gatherMarks(blanks | markEqual(word, ' ')) << at;
        masks.lineFeeds |= gatherMarks(markEqual(word, '\n')) << at;
        masks.others |= gatherMarks(markBelow(word, 1) | markEqual(word, '#') | markEqual(word, '\\')) << at;
        masks.high |= gatherMarks(word & kHighBits) << at;
    }
    return masks;
}

#ifdef __SSE2__

namespace {

/// A bit for each byte whose highest bit is set.
std::uint64_t gatherBytes(__m128i bytes) noexcept {
    return static_cast<std::uint16_t>(_mm_movemask_epi8(bytes));
}

}  // namespace

ByteMasks maskBytes(const char* text) noexcept {
    ByteMasks masks;
    for (std::size_t at = 0; at < kMaskBytes; at += sizeof(__m128i)) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + at));
        const auto equal = [bytes](char value) { return _mm_cmpeq_epi8(bytes, _mm_set1_epi8(value)); };
        const __m128i fromTab = _mm_sub_epi8(bytes, _mm_set1_epi8('\t'));
        const __m128i blanks = _mm_cmpeq_epi8(_mm_min_epu8(fromTab, _mm_set1_epi8('\r' - '\t')), fromTab);
        const __m128i marks = _mm_or_si128(equal('#'), equal('\\'));
        masks.quotes |= gatherBytes(equal('"')) << at;
        masks.spaces |= gatherBytes(_mm_or_si128(blanks, equal(' '))) << at;
        masks.lineFeeds |= gatherBytes(equal('\n')) << at;
        masks.others |= gatherBytes(_mm_or_si128(marks, equal('\0'))) << at;
        masks.high |= gatherBytes(bytes) << at;
    }
    return masks;
}

#else

ByteMasks maskBytes(const char* text) noexcept {
    return maskBytesByWords(text);
}

#endif
