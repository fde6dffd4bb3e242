#include "ipc/utf8.h"

#include <gtest/gtest.h>

#include <string_view>

namespace {

TEST(Utf8, WellFormedTexts) {
    for (const char* text : {"", "plain", "\xc2\x80", "\xc3\xa4", "\xe2\x82\xac", "\xef\xbf\xbf",
                             "\xf0\x9f\x98\x80", "\xf4\x8f\xbf\xbf", "\x7f"}) {
        EXPECT_TRUE(isUtf8(text)) << text;
    }
    EXPECT_TRUE(isUtf8(std::string_view("a\0b", 3)));
}

TEST(Utf8, IllFormedTexts) {
    for (const char* text : {"\x80", "\xff", "\xfe", "\xc3", "\xc3(", "\xc0\x80", "\xc1\xbf", "\xe0\x80\x80",
                             "\xe2\x82", "\xed\xa0\x80", "\xed\xbf\xbf", "\xf0\x80\x80\x80",
                             "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xf0\x9f\x98", "a\xe4z"}) {
        EXPECT_FALSE(isUtf8(text)) << text;
    }
}

}  // namespace
