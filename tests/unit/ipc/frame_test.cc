#include "ipc/frame.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

std::string header(std::uint32_t command, std::uint32_t length) {
    std::string bytes(kFrameHeaderBytes, '\0');
    encodeFrameHeader({command, length}, bytes.data());
    return bytes;
}

TEST(FrameHeader, TwoIntegersInHostByteOrder) {
    EXPECT_EQ(header(0x04030201, 0x08070605), "\x01\x02\x03\x04\x05\x06\x07\x08");
}

TEST(FrameCut, FewerThan8BytesArePartial) {
    const std::string bytes = header(1, 0);  // a length that would be refused is not looked at yet
    Frame frame;
    for (std::size_t size = 0; size < kFrameHeaderBytes; ++size) {
        EXPECT_EQ(cutFrame(std::string_view(bytes).substr(0, size), frame), FrameCut::kPartial) << size;
    }
}

TEST(FrameCut, EmptyBodyIsRefused) {
    Frame frame;
    EXPECT_EQ(cutFrame(header(0, 0), frame), FrameCut::kInvalid);
    EXPECT_EQ(cutFrame(header(0, 0) + "{}", frame), FrameCut::kInvalid);
}

TEST(FrameCut, LargestBodyIsAwaitedAndALargerOneRefusedAtOnce) {
    Frame frame;
    EXPECT_EQ(cutFrame(header(0, 104857600), frame), FrameCut::kPartial);
    EXPECT_EQ(cutFrame(header(0, 104857601), frame), FrameCut::kInvalid);
    EXPECT_EQ(cutFrame(header(0, 0xffffffff), frame), FrameCut::kInvalid);
}

TEST(FrameCut, BodyMustBeWhole) {
    const std::string bytes = header(7, 2) + "{}";
    Frame frame;
    EXPECT_EQ(cutFrame(std::string_view(bytes).substr(0, 9), frame), FrameCut::kPartial);
    ASSERT_EQ(cutFrame(bytes, frame), FrameCut::kComplete);
    EXPECT_EQ(frame.command, 7);
    EXPECT_EQ(frame.body, "{}");
}

TEST(FrameCut, CommandHas32Bits) {
    const struct {
        std::uint32_t sent;
        std::int32_t command;
    } rows[] = {{0x100, 0x100},
                {0x10000, 0x10000},
                {0x12345678, 0x12345678},
                {0x7fffffff, 0x7fffffff},
                {0x80000000, -0x7fffffff - 1},
                {0xffff0004, -0xfffc}};
    for (const auto& [sent, command] : rows) {
        Frame frame;
        ASSERT_EQ(cutFrame(header(sent, 1) + "x", frame), FrameCut::kComplete);
        EXPECT_EQ(frame.command, command);
    }
}

TEST(FrameCut, WhatFollowsTheFrameIsLeftAlone) {
    const std::string bytes = header(0xffffffff, 1) + "xrest";
    Frame frame;
    ASSERT_EQ(cutFrame(bytes, frame), FrameCut::kComplete);
    EXPECT_EQ(frame.command, -1);
    EXPECT_EQ(frame.body, "x");
}

}  // namespace
