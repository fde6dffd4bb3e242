#include "libio-macOS/ByteBuffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

std::string textOf(const ByteBuffer& buffer) {
    return {buffer.data(), buffer.size()};
}

TEST(ByteBuffer, NewBufferIsEmptyAndShowsAPlaceAllTheSame) {
    ByteBuffer buffer;
    EXPECT_TRUE(buffer.isEmpty());
    EXPECT_EQ(0u, buffer.size());
    EXPECT_NE(nullptr, buffer.data());
}

TEST(ByteBuffer, AppendedBytesFollowOneAnother) {
    ByteBuffer buffer;
    EXPECT_TRUE(buffer.append("abc", 3));
    EXPECT_TRUE(buffer.append("", 0));
    EXPECT_TRUE(buffer.append("de", 2));
    EXPECT_EQ("abcde", textOf(buffer));
}

TEST(ByteBuffer, DropTakesFromTheFrontAndNeverMoreThanThereIs) {
    ByteBuffer buffer;
    ASSERT_TRUE(buffer.append("abcde", 5));
    buffer.drop(2);
    EXPECT_EQ("cde", textOf(buffer));
    buffer.drop(0);
    EXPECT_EQ("cde", textOf(buffer));
    buffer.drop(100);
    EXPECT_TRUE(buffer.isEmpty());
    ASSERT_TRUE(buffer.append("f", 1));
    EXPECT_EQ("f", textOf(buffer));
}

TEST(ByteBuffer, PreparedBytesCountOnlyOnceCommitted) {
    ByteBuffer buffer;
    ASSERT_TRUE(buffer.append("ab", 2));
    char* const end = buffer.prepare(10);
    ASSERT_NE(nullptr, end);
    std::memcpy(end, "cd", 2);
    EXPECT_EQ("ab", textOf(buffer));
    buffer.commit(2);
    EXPECT_EQ("abcd", textOf(buffer));
}

TEST(ByteBuffer, MoreThanAnyMemoryIsRefusedAndNothingLost) {
    ByteBuffer buffer;
    ASSERT_TRUE(buffer.append("ab", 2));
    EXPECT_EQ(nullptr, buffer.prepare(SIZE_MAX));
    EXPECT_EQ("ab", textOf(buffer));
    ASSERT_TRUE(buffer.append("c", 1));
    EXPECT_EQ("abc", textOf(buffer));
}

TEST(ByteBuffer, ASlidingWindowKeepsItsBytes) {
    ByteBuffer buffer;
    unsigned char in = 0;
    unsigned char out = 0;
    for (int round = 0; round < 20000; ++round) {
        char bytes[37];
        for (char& byte : bytes) byte = static_cast<char>(in++);
        ASSERT_TRUE(buffer.append(bytes, sizeof bytes));
        const std::size_t take = static_cast<std::size_t>(round * 7 % 75);
        const std::string held = textOf(buffer);
        const std::size_t taken = std::min(take, held.size());
        for (std::size_t i = 0; i < taken; ++i) ASSERT_EQ(static_cast<char>(out++), held[i]);
        buffer.drop(take);
    }
}

TEST(ByteBuffer, ADrainedLargeBufferServesAgain) {
    ByteBuffer buffer;
    const std::string large(3 * ByteBuffer::kKeptBytes, 'x');
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(buffer.append(large.data(), large.size()));
        buffer.drop(large.size() - 1);
        EXPECT_EQ("x", textOf(buffer));
        buffer.drop(1);
        EXPECT_TRUE(buffer.isEmpty());
    }
}

TEST(ByteBuffer, StorageThatStaysMostlyEmptyIsGivenBack) {
    ByteBuffer buffer;
    const std::string much(3 * ByteBuffer::kKeptBytes, 'x');
    ASSERT_TRUE(buffer.append(much.data(), much.size()));
    buffer.drop(much.size());
    EXPECT_GE(buffer.spare(), much.size());  // the next burst may come at once
    ASSERT_TRUE(buffer.append("abc", 3));
    for (int round = 0; round < 100; ++round) {
        const char byte = static_cast<char>('a' + round % 26);
        ASSERT_TRUE(buffer.append(&byte, 1));
        buffer.drop(1);
    }
    EXPECT_LE(buffer.spare(), ByteBuffer::kKeptBytes);
    EXPECT_EQ("tuv", textOf(buffer));
    buffer.drop(3);
    EXPECT_TRUE(buffer.isEmpty());
}

TEST(ByteBuffer, LargeStorageIsGivenBackAtOnce) {
    ByteBuffer buffer;
    const std::string much(std::size_t{8} << 20, 'x');
    for (const std::size_t left : {3U, 0U}) {
        ASSERT_TRUE(buffer.append(much.data(), much.size() - buffer.size()));
        buffer.drop(much.size() - left);
        EXPECT_LE(buffer.spare(), ByteBuffer::kKeptBytes);
        EXPECT_EQ(std::string(left, 'x'), textOf(buffer));
    }
}

TEST(ByteBuffer, LittleStorageIsKept) {
    ByteBuffer buffer;
    const std::string little(1000, 'x');
    for (int round = 0; round < 100; ++round) {
        ASSERT_TRUE(buffer.append(little.data(), little.size()));
        buffer.drop(little.size());
        ASSERT_GE(buffer.spare(), little.size());
    }
}

TEST(ByteBuffer, SwapExchangesEverything) {
    ByteBuffer one;
    ByteBuffer other;
    ASSERT_TRUE(one.append("one", 3));
    one.drop(1);
    one.swap(other);
    EXPECT_TRUE(one.isEmpty());
    EXPECT_EQ("ne", textOf(other));
}

TEST(ByteBuffer, ClearKeepsNothing) {
    ByteBuffer buffer;
    ASSERT_TRUE(buffer.append("abc", 3));
    buffer.clear();
    EXPECT_TRUE(buffer.isEmpty());
}

}  // namespace
