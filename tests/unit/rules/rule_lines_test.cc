#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rule_text.h"
#include "rules/rule_lines.h"
#include "rules/rule_parser.h"

namespace {

struct Row {
    const char* name;
    std::string text;
    std::vector<std::string> lines;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

class RuleParserFirstPass : public testing::TestWithParam<Row> {};

TEST_P(RuleParserFirstPass, CutsTheText) {
    const auto lines = rule_parser_firstpass(GetParam().text);
    ASSERT_TRUE(lines.has_value());
    EXPECT_EQ(*lines, GetParam().lines);
}

const Row kRows[] = {
    // line ends
    {"EmptyText", "", {}},
    {"LineFeedAlone", "\n", {}},
    {"NulAlone", bytes("\0"), {}},
    {"LineFeedEndsALine", "a\nb\n", {"a", "b"}},
    {"NulEndsALine", bytes("a\0b\0"), {"a", "b"}},
    {"EmptyLinesAreNoLines", bytes("\n\n\0a\n\n\0\n"), {"a"}},
    {"FinalLineFeedMayBeMissing", "a\nb", {"a", "b"}},
    {"CarriageReturnStaysInTheLine", "a\r\nb\r\n", {"a\r", "b\r"}},
    // white space
    {"LeadingSpaceIsDropped", " \t\v\f\ra\n", {"a"}},
    {"InnerAndTrailingSpaceStays", "a  b \t\n", {"a  b \t"}},
    {"HighBytesAreNoSpace", "\x85\xa0z\n", {"\x85\xa0z"}},
    // comments
    {"HashStartsAComment", "a#b\n", {"a"}},
    {"CommentLineIsNoLine", "#a\n  # b\n", {}},
    {"CommentEndsWithItsLine", "a#b\nc\n", {"a", "c"}},
    {"CommentEndsAtNul", bytes("a#b\0c\n"), {"a", "c"}},
    {"HashInACommentIsPartOfIt", "a#b#c\n", {"a"}},
    {"QuoteInACommentDoesNotCount", "a#\"\nb#c\n", {"a", "b"}},
    {"CommentIsNotContinued", "a#b\\\nc\n", {"a", "c"}},
    // quotes
    {"HashInsideQuotesIsText", "\"#\"\n", {"\"#\""}},
    {"HashAfterQuotesIsAComment", "\"a\"#b\n", {"\"a\""}},
    {"EscapedHashStartsAComment", "a\\#b\n", {"a\\"}},
    // continuations
    {"BackslashLineFeedJoins", "a\\\nb\n", {"ab"}},
    {"EachLineIsJoinedAlone", "a\\\nb\nc\\\nd\ne\nf\\\n#\ng", {"ab", "cd", "e", "f", "g"}},
    {"SpaceAfterAContinuationStays", "a\\\n  b\n", {"a  b"}},
    {"SpaceAfterAContinuationOfNothingGoes", "\\\n  b\n", {"b"}},
    {"SeveralContinuations", "a\\\n\\\n\\\nb\n", {"ab"}},
    {"ContinuationInsideQuotes", "\"a\\\n#\"\n", {"\"a#\""}},
    {"SecondBackslashContinues", "a\\\\\nb\n", {"a\\b"}},
    {"BackslashElsewhereIsText", "a\\b\n", {"a\\b"}},
    {"BackslashCarriageReturnIsText", "a\\\r\nb\n", {"a\\\r", "b"}},
    {"BackslashNulIsText", bytes("a\\\0b\n"), {"a\\", "b"}},
    {"ContinuationThenEmptyLine", "a\\\n\nb\n", {"a", "b"}},
    {"ContinuationThenComment", "a \\\n#b\nc\n", {"a ", "c"}},
    {"ContinuationThenNul", bytes("a\\\n\0b\n"), {"a", "b"}},
    {"ContinuationThenLastByte", "a\\\nb", {"ab"}},
    // the last byte
    {"LastByteOfACommentStays", "a#bc", {"ac"}},
    {"LastByteOfACommentLineIsALine", "a\n# bc", {"a", "c"}},
    {"LastSpaceIsALine", "a\n ", {"a", " "}},
    {"LastSpaceOfOnlySpace", " \t ", {" "}},
    {"LastHashStays", "a#", {"a#"}},
    {"LastHashAloneStays", "#", {"#"}},
    {"LastHashOfACommentStays", "a# b#", {"a#"}},
    {"LastBackslashStays", "a\\", {"a\\"}},
    {"LastBackslashOfACommentStays", "a# \\", {"a\\"}},
    {"LastQuoteStays", "a\"", {"a\""}},
    {"LastSpaceAfterAContinuationOfNothing", "\\\n ", {" "}},
};

INSTANTIATE_TEST_SUITE_P(Rows, RuleParserFirstPass, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

RuleStrings cut(const std::string& text) {
    return rule_parser_firstpass(text).value();
}

TEST(RuleLines, EscapedQuoteFlipsTheFlag) {
    EXPECT_EQ(cut("\"a\\\"b\" # c\n"), (RuleStrings{"\"a\\\"b\" # c"}));
    EXPECT_EQ(cut("a\\\"#b\n# c\n"), (RuleStrings{"a\\\"#b", "# c"}));
}

TEST(RuleLines, QuoteFlagOutlivesTheLine) {
    EXPECT_EQ(cut("a\"\n#b\n"), (RuleStrings{"a\"", "#b"}));
    EXPECT_EQ(cut("a\"\nb\"#c\n"), (RuleStrings{"a\"", "b\""}));
    EXPECT_EQ(cut(bytes("\"\0#b\0\"#c\n")), (RuleStrings{"\"", "#b", "\""}));
}

TEST(RuleLines, LastByteIsAlwaysKept) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string last(1, static_cast<char>(byte));
        if (last == "\n") {
            continue;
        }
        EXPECT_EQ(cut(last), (RuleStrings{last})) << byte;
        EXPECT_EQ(cut("a # comment" + last), (RuleStrings{"a " + last})) << byte;
        EXPECT_EQ(cut("a\n \t" + last), (RuleStrings{"a", last})) << byte;
        EXPECT_EQ(cut("a \"b" + last), (RuleStrings{"a \"b" + last})) << byte;
    }
}

TEST(RuleLines, LineContinuedIntoNothingIsDropped) {
    EXPECT_EQ(cut("a\nb\\\n"), (RuleStrings{"a"}));
    EXPECT_EQ(cut("\\\n"), RuleStrings{});
    EXPECT_EQ(cut("a\\\n\\\n"), RuleStrings{});
}

TEST(RuleLines, LineInOnePieceIsAViewOfTheText) {
    const std::string text = "  share \"a # b\" # c\n";
    RuleLines lines(text);
    std::string_view line;
    ASSERT_TRUE(lines.next(line));
    EXPECT_EQ(line, "share \"a # b\" ");
    EXPECT_EQ(line.data(), text.data() + 2);
    EXPECT_FALSE(lines.next(line));
    EXPECT_FALSE(lines.next(line));
}

TEST(RuleLines, LongLineOfManyPieces) {
    std::string text;
    std::string expected;
    for (int piece = 0; piece < 10000; ++piece) {
        text += std::to_string(piece) + "\\\n";
        expected += std::to_string(piece);
    }
    EXPECT_EQ(cut(text + "\n"), (RuleStrings{expected}));
}

}  // namespace
