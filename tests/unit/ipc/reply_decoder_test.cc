#include "ipc/reply_decoder.h"

#include <gtest/gtest.h>

#include <string>

namespace {

DecodeResult decode(std::string_view body) {
    ReplyDecoder decoder;
    return decoder.decode(body);
}

TEST(ReplyDecoder, ObjectIsKept) {
    ReplyDecoder decoder;
    ASSERT_EQ(decoder.decode(R"( {"status":"ok","n":[1,2]} )"), DecodeResult::kObject);
    EXPECT_EQ(asText(member(decoder.object(), "status")), "ok");
    ASSERT_NE(arrayMember(decoder.object(), "n"), nullptr);
    EXPECT_EQ(arrayMember(decoder.object(), "n")->size(), 2U);
}

TEST(ReplyDecoder, ArrayIsNoObject) {
    for (const char* body : {"[]", "[{}]", " [1]\n"}) {
        EXPECT_EQ(decode(body), DecodeResult::kNotObject) << body;
    }
}

TEST(ReplyDecoder, FragmentsAreInvalid) {
    for (const char* body : {"\"x\"", "1", "-0.5", "true", "false", "null"}) {
        EXPECT_EQ(decode(body), DecodeResult::kInvalid) << body;
    }
}

TEST(ReplyDecoder, WhatIsNotJsonIsInvalid) {
    for (const char* body : {" ",
                             "{",
                             "}",
                             "{}}",
                             "{} x",
                             "{\"a\":1,}",
                             "{'a':1}",
                             "{\"a\":01}",
                             "{\"a\":.5}",
                             "{\"a\":+1}",
                             "{\"a\":NaN}",
                             "{\"a\":1 // c\n}",
                             "{\"a\"}",
                             "{\"a\":\"\x01\"}",
                             "{\"a\":\"\\x\"}",
                             "nul",
                             "{\"a\":\"\xff\"}",
                             "{\"a\":\"\xc0\x80\"}",
                             "{\"a\":\"\xed\xa0\x80\"}",
                             "\xef\xbb\xbf{}"}) {
        EXPECT_EQ(decode(body), DecodeResult::kInvalid) << body;
    }
    EXPECT_EQ(decode(std::string_view("{}\0", 3)), DecodeResult::kInvalid);
}

std::string nested(std::size_t depth) {
    return "{\"a\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
}

TEST(ReplyDecoder, NestingUpTo512) {
    EXPECT_EQ(decode(nested(kMaxJsonDepth)), DecodeResult::kObject);
    EXPECT_EQ(decode(nested(kMaxJsonDepth + 1)), DecodeResult::kInvalid);
    EXPECT_EQ(decode(std::string(1000000, '[')), DecodeResult::kInvalid);
}

TEST(ReplyDecoder, LastOfEqualKeysCounts) {
    ReplyDecoder decoder;
    ASSERT_EQ(decoder.decode(R"({"a":1,"a":2})"), DecodeResult::kObject);
    EXPECT_EQ(asUint32(member(decoder.object(), "a")), 2U);
}

TEST(ReplyDecoder, BodiesLargerThanTheSmallArena) {
    for (const std::size_t elements : {100U, 1000U, 100000U}) {
        std::string body = "{\"a\":[0";
        for (std::size_t i = 1; i < elements; ++i) {
            body += ",{\"k\":\"some text of a fair length\"}";
        }
        body += "]}";
        ReplyDecoder decoder;
        ASSERT_EQ(decoder.decode(body), DecodeResult::kObject) << elements;
        EXPECT_EQ(arrayMember(decoder.object(), "a")->size(), elements);
        EXPECT_EQ(asText(member(arrayMember(decoder.object(), "a")->back().as_object(), "k")),
                  "some text of a fair length");
    }
}

}  // namespace
