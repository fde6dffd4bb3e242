#include "ipc/json_text.h"

#include <gtest/gtest.h>

#include <array>
#include <boost/json.hpp>
#include <string>

namespace {

std::string textOf(std::string_view value) {
    std::string text;
    JsonText json(text);
    json.addString(value);
    json.flush();
    return text;
}

TEST(JsonText, PutsPiecesTogether) {
    std::string text = "before";
    JsonText json(text);
    json.add("[");
    json.add(std::array<char, 8>{'1', ',', 'x', 'x', 'x', 'x', 'x', 'x'}, 2);
    json.addNumber(0);
    json.add(",");
    json.addNumber(18'446'744'073'709'551'615U);
    json.add("]");
    EXPECT_EQ("before", text);
    json.flush();
    EXPECT_EQ("before[1,0,18446744073709551615]", text);
    json.flush();
    EXPECT_EQ("before[1,0,18446744073709551615]", text);
}

// At each place of texts of each length that is copied in another way.
TEST(JsonText, EscapesWhatHasTo) {
    for (std::size_t size = 0; size < 35; ++size) {
        const std::string plain(size, 'a');
        EXPECT_EQ('"' + plain + '"', textOf(plain));
        for (std::size_t at = 0; at < size; ++at) {
            for (int byte = 0; byte < 0x80; ++byte) {
                std::string value = plain;
                value[at] = static_cast<char>(byte);
                ASSERT_EQ(boost::json::serialize(boost::json::string(value)), textOf(value))
                    << size << ' ' << at;
            }
        }
    }
}

TEST(JsonText, LeavesUtf8AsItIs) {
    EXPECT_EQ("\"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\"", textOf("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"));
}

TEST(JsonText, KeepsTheOrderWhateverTheLengths) {
    std::string text;
    std::string expected;
    JsonText json(text);
    for (std::size_t size = 0; size < 9000; size += 61) {
        const std::string value(size, static_cast<char>('a' + size % 26));
        json.addString(value);
        json.addString(value + '\n');
        json.add(",");
        json.addNumber(size);
        expected.append("\"").append(value).append("\"\"").append(value).append("\\n\",");
        expected += std::to_string(size);
    }
    json.flush();
    EXPECT_EQ(expected, text);
}

}  // namespace
