#include "output/text_writer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

template <class Write>
std::string written(Write write) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&text, &size);
    {
        TextWriter out(stream);
        write(out);
    }
    (void)std::fclose(stream);
    std::string result(text, size);
    std::free(text);
    return result;
}

TEST(TextWriter, NumbersAsPrintfWritesThem) {
    for (const std::uint32_t value : {0U, 9U, 10U, 4294967295U}) {
        EXPECT_EQ(written([&](TextWriter& out) { out.number(value); }), std::to_string(value));
    }
}

TEST(TextWriter, HexadecimalHasAtLeastFourDigits) {
    const struct {
        std::uint32_t value;
        const char* text;
    } rows[] = {{0, "0000"},      {0xa, "000a"},      {0x1f, "001f"},       {0xfff, "0fff"},
                {0xffff, "ffff"}, {0x10000, "10000"}, {0xabcdef, "abcdef"}, {0xffffffff, "ffffffff"}};
    for (const auto& [value, text] : rows) {
        EXPECT_EQ(written([&, number = value](TextWriter& out) { out.hex4(number); }), text);
    }
}

TEST(TextWriter, Tabs) {
    EXPECT_EQ(written([](TextWriter& out) { out.tabs(0).text("a").tabs(3).text("b"); }), "a\t\t\tb");
}

TEST(TextWriter, TextLargerThanTheBufferArrivesWhole) {
    std::string large;
    for (int i = 0; i < 30000; ++i) {
        large += std::to_string(i);
    }
    EXPECT_EQ(written([&](TextWriter& out) { out.text("x").text(large).number(7).text(large); }),
              "x" + large + "7" + large);
}

TEST(TextWriter, FlushHandsOverWhatIsThere) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&text, &size);
    TextWriter out(stream);
    out.text("abc").flush();
    ASSERT_EQ(std::fflush(stream), 0);
    EXPECT_EQ(std::string(text, size), "abc");
    (void)std::fclose(stream);
    std::free(text);
}

}  // namespace
