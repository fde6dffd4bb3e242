#include "rules/plain_line.h"

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <random>
#include <string>

#include "rule_text.h"
#include "rules/byte_masks.h"
#include "rules/rule_parser.h"

bool operator==(const ByteMasks& a, const ByteMasks& b) {
    return a.quotes == b.quotes && a.spaces == b.spaces && a.lineFeeds == b.lineFeeds &&
           a.others == b.others && a.high == b.high;
}

namespace {

const std::string kFarEnd(64, '\n');

/// The tokens of the line at the front of `text`, when it is plain.
std::optional<RuleStrings> cut(const std::string& text, std::size_t* size = nullptr) {
    PlainLine line;
    const std::size_t taken = line.cut(text);
    if (size != nullptr) {
        *size = taken;
    }
    if (taken == 0) {
        return {};
    }
    RuleStrings tokens;
    for (std::size_t number = 0; number < line.tokenCount(); ++number) {
        tokens.emplace_back(line.token(number));
    }
    return tokens;
}

std::optional<RuleStrings> cutFar(const std::string& text) {
    return cut(text + kFarEnd);
}

TEST(PlainLine, CutsWordsAndQuotedWords) {
    std::size_t size = 0;
    EXPECT_EQ(cut("share  name is \"a\t b\" !host \"\" \r\nblock\n" + kFarEnd, &size),
              (RuleStrings{"share", "name", "is", "a\t b", "!host"}));
    EXPECT_EQ(size, 33U);
}

TEST(PlainLine, CutsLinesAcrossBlocks) {
    for (std::size_t width = 0; width < 140; ++width) {
        const std::string space(width, ' ');
        const std::string word(width + 1, 'w');
        std::string line = space;
        line.append("\"a b\" ")
            .append(word)
            .append(" \"")
            .append(word)
            .append(" c\"")
            .append(space)
            .append("\n");
        EXPECT_EQ(cutFar(line), (RuleStrings{"a b", word, word + " c"})) << width;
    }
}

TEST(PlainLine, LeavesEverythingElse) {
    for (const char* const text :
         {"\n", " \t\n", "\"\"\n", "a # b\n", "#\n", "a\\ b\n", "a \\\nb\n", "a\"b c\"\n", "\"a\"b\n",
          "\"a\"\"b\"\n", "\"a\nb\"\n", "a \"\n", "\"\n", "\"#\"\n"}) {
        EXPECT_EQ(cutFar(text), std::nullopt) << text;
    }
    EXPECT_EQ(cutFar(bytes("a\0b\n")), std::nullopt);
    EXPECT_EQ(cut("share\n"), std::nullopt) << "the end is too near";
}

TEST(PlainLine, OddBytesAfterTheLineDoNotMatter) {
    EXPECT_EQ(cutFar("a\n#"), RuleStrings{"a"});
    EXPECT_EQ(cutFar("a\nb\"c\\"), RuleStrings{"a"});
    EXPECT_EQ(cutFar("\"a\"\n\"\n"), RuleStrings{"a"});
}

TEST(PlainLine, GivesUpOnEndlessLines) {
    std::string words;
    for (int word = 0; word < 90; ++word) {
        words += "a ";
    }
    EXPECT_EQ(cutFar(words + "\n").value().size(), 90U);
    EXPECT_EQ(cutFar(words + words + "\n"), std::nullopt);
    EXPECT_EQ(cutFar(std::string(100'000, 'a') + "\n"), std::nullopt);
}

TEST(PlainLine, TellsWhetherTheLineIsAscii) {
    PlainLine line;
    ASSERT_NE(line.cut("a\xc3\xa4\n" + kFarEnd), 0U);
    EXPECT_FALSE(line.isAscii());
    ASSERT_NE(line.cut("a\n\xc3\xa4\n" + kFarEnd), 0U);
    EXPECT_TRUE(line.isAscii());
    const std::string spaces(kMaskBytes, ' ');
    ASSERT_NE(line.cut("\xc3\xa4" + spaces + "a\n" + kFarEnd), 0U);
    EXPECT_FALSE(line.isAscii()) << "whatever follows";
    ASSERT_NE(line.cut("a" + spaces + "\xc3\xa4\n" + kFarEnd), 0U);
    EXPECT_FALSE(line.isAscii());
}

// Whatever it cuts, the two passes cut in the same way.
TEST(PlainLine, AgreesWithTheTwoPasses) {
    constexpr char kBytes[] = "aa bb\"\" \t\n\\#!";
    std::mt19937 random(1);
    int plain = 0;
    for (int round = 0; round < 200'000; ++round) {
        std::string text;
        for (std::size_t size = random() % 12; size > 0; --size) {
            text += kBytes[random() % (sizeof kBytes - 1)];
        }
        if (random() % 4 == 0) {
            text.insert(0, std::string(random() % 70, ' '));
        }
        const auto found = cutFar(text + '\n');
        if (!found) {
            continue;
        }
        ++plain;
        const RuleStrings lines = rule_parser_firstpass(text + '\n').value();
        RuleStrings tokens;
        for (const std::string& token : *found) {
            const std::size_t mark = token.front() == '!' && token.size() > 1 ? 1 : 0;
            if (mark != 0) {
                tokens.emplace_back("!");
            }
            tokens.push_back(token.substr(mark));
        }
        ASSERT_EQ(tokens, rule_parser_line(lines.at(0)).value()) << text;
    }
    EXPECT_GT(plain, 10'000);
}

TEST(ByteMasks, MarkEveryByteInBothWays) {
    std::array<char, kMaskBytes> text;
    for (int byte = 0; byte < 256; ++byte) {
        for (std::size_t at = 0; at < kMaskBytes; ++at) {
            text.fill('a');
            text[at] = static_cast<char>(byte);
            const std::uint64_t bit = std::uint64_t{1} << at;
            ByteMasks expected;
            expected.quotes = byte == '"' ? bit : 0;
            expected.spaces = byte == ' ' || (byte >= '\t' && byte <= '\r') ? bit : 0;
            expected.lineFeeds = byte == '\n' ? bit : 0;
            expected.others = byte == 0 || byte == '#' || byte == '\\' ? bit : 0;
            expected.high = byte > 0x7f ? bit : 0;
            ASSERT_EQ(maskBytes(text.data()), expected) << byte;
            ASSERT_EQ(maskBytesByWords(text.data()), expected) << byte;
        }
    }
}

TEST(ByteMasks, BothWaysAgree) {
    std::mt19937_64 random(2);
    std::array<char, kMaskBytes> text;
    for (int round = 0; round < 50'000; ++round) {
        for (char& byte : text) {
            byte = static_cast<char>(random() % 3 == 0 ? random() : random() % 40);
        }
        ASSERT_EQ(maskBytes(text.data()), maskBytesByWords(text.data()));
    }
}

}  // namespace
