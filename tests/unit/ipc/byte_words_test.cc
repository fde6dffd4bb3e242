#include "ipc/byte_words.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <string>

namespace {

constexpr unsigned char kLimits[] = {1, 0x0b, 0x20, 0x21, 0x80};
constexpr unsigned char kValues[] = {0, '"', '#', '\\', 0x7f, 0xff};

/// Words with many bytes at the borders of what the functions tell apart.
ByteWord anyWord(std::mt19937_64& random) {
    constexpr unsigned char kBytes[] = {0,   1,   '\t', '\n', 0x1f, ' ',  '!',
                                        '"', '#', '\\', 0x7f, 0x80, 0xa2, 0xff};
    std::array<char, kByteWordSize> text;
    for (char& byte : text) {
        const auto value = random();
        byte = static_cast<char>(value % 4 == 0 ? value >> 8 : kBytes[(value >> 8) % sizeof kBytes]);
    }
    return loadByteWord(text.data());
}

unsigned char byteOf(ByteWord word, std::size_t at) {
    return static_cast<unsigned char>(word >> (8 * at));
}

/// The position of the first byte that is wanted, or the word's size.
template <class Wanted>
std::size_t firstByte(ByteWord word, Wanted wanted) {
    std::size_t at = 0;
    while (at < kByteWordSize && !wanted(byteOf(word, at))) {
        ++at;
    }
    return at;
}

std::size_t firstMark(ByteWord marks) {
    return marks == 0 ? kByteWordSize : bytesBeforeMark(marks);
}

TEST(ByteWords, FirstByteStandsLowest) {
    const char text[] = "\x01\x02\x03\x04\x05\x06\x07\xff";
    EXPECT_EQ(0xff07060504030201, loadByteWord(text));
    char copy[kByteWordSize];
    storeByteWord(0xff07060504030201, copy);
    EXPECT_EQ(0, std::memcmp(text, copy, sizeof copy));
}

TEST(ByteWords, ShortTextsEndInZeros) {
    const std::string text = "abcdefgh";
    for (std::size_t size = 0; size <= text.size(); ++size) {
        char padded[kByteWordSize] = {};
        std::memcpy(padded, text.data(), size);
        EXPECT_EQ(loadByteWord(padded), shortByteWord(text.data(), size)) << size;
    }
}

TEST(ByteWords, TheFirstMarkIsExact) {
    std::mt19937_64 random(1);
    for (int round = 0; round < 200'000; ++round) {
        const ByteWord word = anyWord(random);
        for (const unsigned char limit : kLimits) {
            ASSERT_EQ(firstByte(word, [limit](unsigned char byte) { return byte < limit; }),
                      firstMark(bytesBelow(word, limit)))
                << std::hex << word;
        }
        for (const unsigned char value : kValues) {
            ASSERT_EQ(firstByte(word, [value](unsigned char byte) { return byte == value; }),
                      firstMark(bytesEqual(word, value)))
                << std::hex << word;
        }
    }
}

TEST(ByteWords, CountsEqualBytes) {
    std::mt19937_64 random(2);
    for (int round = 0; round < 200'000; ++round) {
        const ByteWord word = anyWord(random);
        for (const unsigned char value : kValues) {
            unsigned count = 0;
            for (std::size_t at = 0; at < kByteWordSize; ++at) {
                count += byteOf(word, at) == value ? 1 : 0;
            }
            ASSERT_EQ(count, countBytes(word, value)) << std::hex << word;
        }
    }
}

TEST(ByteWords, KeepsWhatStandsBeforeTheMark) {
    const ByteWord word = 0x8877665544332211;
    for (std::size_t at = 0; at < kByteWordSize; ++at) {
        const ByteWord kept = at == 0 ? 0 : word & (~ByteWord{0} >> (64 - 8 * at));
        EXPECT_EQ(kept, wordBeforeMark(word, ByteWord{0x80} << (8 * at)));
        EXPECT_EQ(kept, wordBeforeMark(word, ByteWord{0x8000000000000000} | ByteWord{0x80} << (8 * at)));
    }
}

}  // namespace
