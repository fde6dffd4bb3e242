#include <gtest/gtest.h>

#include <locale.h>

#include <string>

#include "captured_stderr.h"
#include "rule_text.h"
#include "rules/rule_parser.h"

namespace {

TEST(RuleParserRun, TextWithoutRulesIsAnEmptySet) {
    CapturedStderr messages;
    for (const char* const text : {"", "\n", " \n\t\n", "# a\n#b\n"}) {
        const RuleSet rules = rule_parser_run(text);
        ASSERT_NE(rules, nullptr) << text;
        EXPECT_EQ(*rules, "[]") << text;
    }
    EXPECT_EQ(messages.take(), "");
}

TEST(RuleParserRun, RecordsComeInTheOrderOfTheText) {
    const RuleSet rules = rule_parser_run("share port 1\nblock port 2\n\n# x\nshare port 3");
    ASSERT_NE(rules, nullptr);
    EXPECT_EQ(*rules, R"([{"action":"share","port":"1"},{"action":"block","port":"2"},)"
                      R"({"action":"share","port":"3"}])");
}

TEST(RuleParserRun, NumbersAreNotFilledIn) {
    const RuleSet rules = rule_parser_run("share hwid 1\n");
    ASSERT_NE(rules, nullptr);
    EXPECT_EQ(*rules, R"([{"action":"share","vid":1}])");
}

TEST(RuleParserRun, OnlyTheFirstErrorIsReported) {
    CapturedStderr messages;
    EXPECT_EQ(rule_parser_run("share\nbad\nworse\n\"\xff\n"), nullptr);
    EXPECT_EQ(messages.take(), "Parsing error at rule #2\n");
}

TEST(RuleParserRun, WordsThatDifferFromAKeywordInTheEndAreErrors) {
    CapturedStderr messages;
    for (const char* const word :
         {"override-namf", "override-seriam", "override-namee", "override-namE", "takeawaz", "built-iN"}) {
        for (const char* const end :
             {"\n", " # far from the end of the text, which lies behind this remark\nshare\n"}) {
            EXPECT_EQ(rule_parser_run("share " + std::string(word) + " x" + end), nullptr) << word;
            EXPECT_EQ(messages.take(), "Parsing error at rule #1\n") << word;
        }
    }
}

TEST(RuleParserRun, BlankAndCommentLinesAreNotCounted) {
    CapturedStderr messages;
    EXPECT_EQ(rule_parser_run("\n\n\n# one\n  # two\nbad\n"), nullptr);
    EXPECT_EQ(messages.take(), "Parsing error at rule #1\n");
}

TEST(RuleParserRun, LateErrorGivesNoRules) {
    CapturedStderr messages;
    std::string text;
    for (int rule = 0; rule < 70000; ++rule) {
        text += "share quick # fine\n";
    }
    EXPECT_EQ(rule_parser_run(text + "share share\n"), nullptr);
    EXPECT_EQ(messages.take(), "Parsing error at rule #70001\n");
}

TEST(RuleParserRun, WritesNothingToStandardOutput) {
    testing::internal::CaptureStdout();
    CapturedStderr messages;
    EXPECT_EQ(rule_parser_run("bad\n"), nullptr);
    EXPECT_NE(rule_parser_run("share\n"), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(RuleParserRun, MoreRulesThanTheFirstBlockHolds) {
    std::string text;
    for (int rule = 0; rule < 50000; ++rule) {
        text += "share\n";
    }
    const RuleSet rules = rule_parser_run(text);
    ASSERT_NE(rules, nullptr);
    const JsonArray found = records(rules);
    ASSERT_EQ(found.size(), 50000U);
    EXPECT_EQ(toText(found.front()), R"({"action":"share"})");
    EXPECT_EQ(toText(found.back()), R"({"action":"share"})");
}

TEST(RuleParserRun, LongValues) {
    const std::string name(300000, 'n');
    const RuleSet rules = rule_parser_run("share name is \"" + name + "\" serial \"" + name + "\\x\"\n");
    ASSERT_NE(rules, nullptr);
    const JsonArray found = records(rules);
    EXPECT_EQ(found.at(0).at("name").as_string(), name);
    EXPECT_EQ(found.at(0).at("serial").as_string(), name + "x");
}

TEST(RuleParserRun, SetOutlivesTheText) {
    RuleSet rules;
    {
        const std::string text = "share name is \"a name that is too long to be stored in place\"\n";
        rules = rule_parser_run(text);
    }
    ASSERT_NE(rules, nullptr);
    EXPECT_EQ(records(rules).at(0).at("name").as_string(), "a name that is too long to be stored in place");
}

TEST(RuleParserRun, BytesThatJsonEscapes) {
    const RuleSet rules = rule_parser_run("share port a\\\"b\\\\c\x01\x7f\xc3\xa4 host \"\x02,\\\"\"\n");
    ASSERT_NE(rules, nullptr);
    EXPECT_EQ(*rules,
              "[{\"action\":\"share\",\"host\":[\"\\u0002\",\"\\\"\"],"
              "\"port\":\"a\\\"b\\\\c\\u0001\x7f\xc3\xa4\"}]");
}

TEST(RuleParserRun, TextGrowsBeyondWhatIsReserved) {
    std::string text;
    for (int rule = 0; rule < 1000; ++rule) {
        text += "share port \x01\x02\x03\x04\x05\x06\x07\n";
    }
    const RuleSet rules = rule_parser_run(text);
    ASSERT_NE(rules, nullptr);
    ASSERT_GT(rules->size(), 3 * text.size());
    for (const JsonValue& rule : records(rules)) {
        ASSERT_EQ(rule.at("port").as_string(), "\x01\x02\x03\x04\x05\x06\x07");
    }
}

TEST(RuleParserRun, LocaleDoesNotMatter) {
    ASSERT_NE(::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    CapturedStderr messages;
    EXPECT_EQ(rule_parser_run("share\xc2\x85quick\n"), nullptr);
    EXPECT_NE(rule_parser_run("share port \xc2\xa0\n"), nullptr);
    ASSERT_NE(::setlocale(LC_ALL, "C"), nullptr);
}

}  // namespace
