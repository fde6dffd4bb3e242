#include "rules/rule_tokens.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "rule_text.h"
#include "rules/rule_parser.h"

namespace {

struct Row {
    const char* name;
    std::string line;
    std::optional<RuleStrings> tokens;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

class RuleParserLine : public testing::TestWithParam<Row> {};

TEST_P(RuleParserLine, CutsTheLine) {
    EXPECT_EQ(rule_parser_line(GetParam().line), GetParam().tokens);
}

RuleStrings tokens(std::initializer_list<std::string> list) {
    return list;
}

const Row kRows[] = {
    {"Empty", "", tokens({})},
    {"OneWord", "a", tokens({"a"})},
    {"TwoWords", "a b", tokens({"a", "b"})},
    {"EveryWhiteSpace", "a\tb\nc\vd\fe\rf g", tokens({"a", "b", "c", "d", "e", "f", "g"})},
    {"RunsOfWhiteSpace", " \t a \r\n  b  ", tokens({"a", "b"})},
    {"OnlyWhiteSpace", " \t", tokens({})},
    // quotes
    {"QuotesProtectWhiteSpace", "\"a b\"", tokens({"a b"})},
    {"QuotesDoNotDelimit", "ab\"c d\"e", tokens({"abc de"})},
    {"QuotesSideBySide", "\"a\"\"b\"", tokens({"ab"})},
    {"QuotedThenPlain", "\"a\"b \"c\"", tokens({"ab", "c"})},
    {"QuotedWhiteSpaceAlone", "\" \t\"", tokens({" \t"})},
    {"HashIsPlain", "a #b", tokens({"a", "#b"})},
    // escapes
    {"EscapedLetter", "\\a", tokens({"a"})},
    {"EscapedWhiteSpace", "a\\ b", tokens({"a b"})},
    {"EscapedWhiteSpaceAlone", "\\ ", tokens({" "})},
    {"EscapedQuote", "a\\\"b", tokens({"a\"b"})},
    {"EscapedBackslash", "a\\\\b", tokens({"a\\b"})},
    {"EscapeInsideQuotes", "\"a\\\"b c\"", tokens({"a\"b c"})},
    {"EscapedBackslashBeforeAClosingQuote", "\"a\\\\\" b", tokens({"a\\", "b"})},
    {"BackslashAtTheEndIsDropped", "a\\", tokens({"a"})},
    {"BackslashAlone", "\\", tokens({})},
    {"BackslashAfterASpace", "a \\", tokens({"a"})},
    // open quotes
    {"OpenQuote", "\"a", std::nullopt},
    {"OpenQuoteInsideAWord", "a\"b", std::nullopt},
    {"OpenQuoteThenSpace", "a \" ", std::nullopt},
    {"OpenQuoteThenBackslash", "\"a\\", std::nullopt},
    {"OpenQuoteHoldingClosedOnes", "\"a\" \"b", std::nullopt},
    {"OpenQuoteThenOnlyABackslash", "a \"\\", tokens({"a"})},
    // "!"
    {"MarkAlone", "!", tokens({"!"})},
    {"MarkIsSplitOff", "!a", tokens({"!", "a"})},
    {"OnlyOneMarkIsSplitOff", "!!a", tokens({"!", "!a"})},
    {"TwoMarks", "!!", tokens({"!", "!"})},
    {"MarkInside", "a!b", tokens({"a!b"})},
    {"MarkAtTheEnd", "a!", tokens({"a!"})},
    {"MarkBeforeQuotes", "!\"a b\"", tokens({"!", "a b"})},
    {"MarkBeforeEmptyQuotes", "!\"\"", tokens({"!"})},
    {"MarkAfterEmptyQuotes", "\"\"!a", tokens({"!", "a"})},
    // UTF-8
    {"Utf8", "\xc3\xa4 \"\xf0\x9f\x96\xb1 x\"", tokens({"\xc3\xa4", "\xf0\x9f\x96\xb1 x"})},
    {"Utf8JoinedFromPieces", "\xc3\"\xa4\"", tokens({"\xc3\xa4"})},
    {"Utf8CutByWhiteSpace", "\xc3 \xa4", std::nullopt},
    {"Utf8BadAfterAMark", "!\xff", std::nullopt},
    {"Utf8BadInTheLastToken", "a b \x80", std::nullopt},
    {"Utf8BadInTheFirstToken", "\x80 a", std::nullopt},
    {"Utf8EscapedByteByByte", "\\\xc3\\\xa4", tokens({"\xc3\xa4"})},
    // a line from elsewhere than the first pass
    {"NulIsPlain", bytes("a\0b"), tokens({bytes("a\0b")})},
};

INSTANTIATE_TEST_SUITE_P(Rows, RuleParserLine, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(RuleTokens, EmptyQuotesGiveNoToken) {
    EXPECT_EQ(rule_parser_line("\"\""), tokens({}));
    EXPECT_EQ(rule_parser_line("a \"\" b"), tokens({"a", "b"}));
    EXPECT_EQ(rule_parser_line("a\"\"b \"\"\"\""), tokens({"ab"}));
}

TEST(RuleTokens, OpenQuoteAsLastByteIsAccepted) {
    EXPECT_EQ(rule_parser_line("\""), tokens({}));
    EXPECT_EQ(rule_parser_line("a \""), tokens({"a"}));
    EXPECT_EQ(rule_parser_line("ab\""), tokens({"ab"}));
    EXPECT_EQ(rule_parser_line("\"a\\\""), tokens({"a\""}));
    EXPECT_EQ(rule_parser_line("\"a\" b c\""), tokens({"a", "b", "c"}));
}

TEST(RuleTokens, QuotedMarkIsSplitOff) {
    EXPECT_EQ(rule_parser_line("\"!a b\""), tokens({"!", "a b"}));
    EXPECT_EQ(rule_parser_line("\\!a"), tokens({"!", "a"}));
    EXPECT_EQ(rule_parser_line("\"!\"a"), tokens({"!", "a"}));
    EXPECT_EQ(rule_parser_line("\"!\""), tokens({"!"}));
}

// Bytes are looked at in groups: each place in them counts, whether plain, quoted or escaped.
TEST(RuleTokens, Utf8IsCheckedAtEveryPlace) {
    for (std::size_t size = 1; size <= 20; ++size) {
        for (std::size_t place = 0; place < size; ++place) {
            std::string token(size, 'a');
            token[place] = '\xff';
            const std::string escaped = token.substr(0, place) + "\\" + token.substr(place);
            for (const std::string& line : {token, "\"" + token + "\"", "\" " + token + "\"", escaped}) {
                EXPECT_EQ(rule_parser_line(line), std::nullopt) << line;
                EXPECT_EQ(rule_parser_line("b " + line), std::nullopt) << line;
                EXPECT_EQ(rule_parser_line(line + " b"), std::nullopt) << line;
            }
        }
    }
}

TEST(RuleTokens, OneArenaServesLineAfterLine) {
    std::string arena;
    for (int lines = 1; lines <= 50; ++lines) {
        std::string line;
        for (int word = 0; word < lines; ++word) {
            line.append("\\w\\o\\r\\d\"").append(std::to_string(word)).append("\"\\x ");
        }
        RuleTokens walk(line, arena);
        std::vector<std::string_view> found;
        for (std::string_view token; walk.next(token) == RuleTokens::Step::kToken;) {
            found.push_back(token);
        }
        ASSERT_EQ(found.size(), static_cast<std::size_t>(lines));
        for (int word = 0; word < lines; ++word) {
            EXPECT_EQ(found[static_cast<std::size_t>(word)], "word" + std::to_string(word) + "x");
        }
        EXPECT_LE(arena.size(), line.size()) << "what earlier lines had in it is gone";
    }
}

TEST(RuleTokens, PlainTokenIsAViewOfTheLine) {
    const std::string line = "name \"a b\" c\\d";
    std::string arena;
    RuleTokens walk(line, arena);
    std::string_view token;
    ASSERT_EQ(walk.next(token), RuleTokens::Step::kToken);
    EXPECT_EQ(token.data(), line.data());
    ASSERT_EQ(walk.next(token), RuleTokens::Step::kToken);
    EXPECT_EQ(token, "a b");
    EXPECT_EQ(token.data(), line.data() + 6);
    ASSERT_EQ(walk.next(token), RuleTokens::Step::kToken);
    EXPECT_EQ(token, "cd");
    EXPECT_EQ(walk.next(token), RuleTokens::Step::kEnd);
}

TEST(RuleTokens, EarlierTokensOutliveLaterOnes) {
    std::string line;
    for (int word = 0; word < 1000; ++word) {
        line.append("w\"").append(std::to_string(word)).append("\"\\x ");
    }
    std::string arena = "small";
    RuleTokens walk(line, arena);
    std::vector<std::string_view> found;
    for (std::string_view token; walk.next(token) == RuleTokens::Step::kToken;) {
        found.push_back(token);
    }
    ASSERT_EQ(found.size(), 1000U);
    for (std::size_t word = 0; word < found.size(); ++word) {
        EXPECT_EQ(found[word], std::string("w").append(std::to_string(word)).append("x"));
    }
}

}  // namespace
