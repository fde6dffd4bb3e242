#include "libio-macOS/TimerIdents.h"

#include <gtest/gtest.h>

namespace {

std::int32_t take(TimerIdents& idents) {
    std::optional<std::int32_t> free;
    EXPECT_TRUE(idents.findFree(&free));
    if (!free) return -1;
    idents.insert(*free);
    return *free;
}

TEST(TimerIdents, AreCountedFromZero) {
    TimerIdents idents;
    for (std::int32_t expected = 0; expected < 1000; ++expected) EXPECT_EQ(expected, take(idents));
}

TEST(TimerIdents, TheSmallestFreeOneIsNext) {
    TimerIdents idents;
    for (int i = 0; i < 300; ++i) take(idents);
    for (const std::int32_t gone : {200, 5, 64, 63}) idents.erase(gone);
    EXPECT_EQ(5, take(idents));
    EXPECT_EQ(63, take(idents));
    idents.erase(0);
    EXPECT_EQ(0, take(idents));
    EXPECT_EQ(64, take(idents));
    EXPECT_EQ(200, take(idents));
    EXPECT_EQ(300, take(idents));
}

TEST(TimerIdents, FindingDoesNotTake) {
    TimerIdents idents;
    std::optional<std::int32_t> free;
    ASSERT_TRUE(idents.findFree(&free));
    EXPECT_EQ(0, free);
    EXPECT_FALSE(idents.contains(0));
    EXPECT_EQ(0, take(idents));
    EXPECT_TRUE(idents.contains(0));
    EXPECT_FALSE(idents.contains(1));
    EXPECT_FALSE(idents.contains(64));
    EXPECT_FALSE(idents.contains(1000000));
    EXPECT_FALSE(idents.contains(-1));
}

TEST(TimerIdents, WhenAllAreInUseThereIsNone) {
    TimerIdents idents(3);
    EXPECT_EQ(0, take(idents));
    EXPECT_EQ(1, take(idents));
    EXPECT_EQ(2, take(idents));
    EXPECT_EQ(-1, take(idents));
    std::optional<std::int32_t> free = 2;
    ASSERT_TRUE(idents.findFree(&free));
    EXPECT_FALSE(free.has_value());
    idents.erase(1);
    EXPECT_EQ(1, take(idents));
}

TEST(TimerIdents, TheLimitMayFallOnAWordsEnd) {
    TimerIdents idents(64);
    for (std::int32_t expected = 0; expected < 64; ++expected) EXPECT_EQ(expected, take(idents));
    EXPECT_EQ(-1, take(idents));
}

}  // namespace
