#include "libio-macOS/ByteBuffer.h"

#include <gtest/gtest.h>

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
    end[0] = 'c';
    end[1] = 'd';
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

TEST(ByteBuffer, SpareRoomIsHadWithoutMoreStorage) {
    ByteBuffer buffer;
    ASSERT_TRUE(buffer.append("abc", 3));
    const std::size_t room = buffer.spare();
    ASSERT_NE(nullptr, buffer.prepare(room));
    EXPECT_EQ(room, buffer.spare());
}

TEST(ByteBuffer, TheRoomOfWhatWasDroppedServesAgain) {
    ByteBuffer buffer;
    ASSERT_TRUE(buffer.append("a", 1));
    const std::string rest(buffer.spare(), 'b');
    ASSERT_TRUE(buffer.append(rest.data(), rest.size()));
    const std::size_t dropped = (buffer.size() + 1) / 2;
    buffer.drop(dropped);
    ASSERT_EQ(0u, buffer.spare());
    ASSERT_NE(nullptr, buffer.prepare(dropped));
    EXPECT_EQ(dropped, buffer.spare());
    EXPECT_EQ(rest.substr(dropped - 1), textOf(buffer));
}

TEST(ByteBuffer, WhatWasDroppedIsNoRoomInNewStorage) {
    ByteBuffer buffer;
    ASSERT_TRUE(buffer.append("ab", 2));
    buffer.drop(1);
    const std::string much(5000, 'x');
    ASSERT_TRUE(buffer.append(much.data(), much.size()));
    EXPECT_EQ("b" + much, textOf(buffer));
    EXPECT_LE(buffer.spare(), much.size());
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
    for (const std::size_t left : {3U, 1U, 0U}) {
        ASSERT_TRUE(buffer.append(much.data(), much.size() - buffer.size()));
        buffer.drop(much.size() - left);
        EXPECT_LE(buffer.spare(), left == 0 ? 0 : ByteBuffer::kKeptBytes);
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
    const std::size_t room = one.spare();
    one.swap(other);
    EXPECT_TRUE(one.isEmpty());
    EXPECT_EQ(0u, one.spare());
    EXPECT_EQ("ne", textOf(other));
    EXPECT_EQ(room, other.spare());
}

TEST(ByteBuffer, ClearKeepsTheStorageAlone) {
    ByteBuffer buffer;
    ASSERT_TRUE(buffer.append("abc", 3));
    const std::size_t room = buffer.spare() + 3;
    buffer.drop(1);
    buffer.clear();
    EXPECT_TRUE(buffer.isEmpty());
    EXPECT_EQ(room, buffer.spare());
}

}  // namespace
