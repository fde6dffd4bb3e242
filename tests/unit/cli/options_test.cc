#include "cli/options.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace {

/// An argument vector; getopt(3) starts at its initial state, since every case runs in a process of its own.
class Arguments {
  public:
    Arguments(std::initializer_list<const char*> words) : texts_(words.begin(), words.end()) {
        for (std::string& text : texts_) {
            vector_.push_back(text.data());
        }
        vector_.push_back(nullptr);
    }
    Invocation parse() { return parseCommandLine(static_cast<int>(texts_.size()), vector_.data()); }

  private:
    std::vector<std::string> texts_;
    std::vector<char*> vector_;
};

std::vector<std::string> wordsOf(const Invocation& invocation) {
    return {invocation.words.begin(), invocation.words.end()};
}

TEST(CommandTable, EveryPairOfWordsHasItsKind) {
    const struct {
        std::initializer_list<const char*> words;
        CommandKind kind;
        int number;
    } rows[] = {
        {{"p", "dev"}, CommandKind::kDevList, 0},
        {{"p", "dev", "list"}, CommandKind::kDevList, 0},
        {{"p", "dev", "unplug", "1"}, CommandKind::kDevUnplug, 1},
        {{"p", "dev", "share", "1"}, CommandKind::kDevShare, 2},
        {{"p", "dev", "block", "1"}, CommandKind::kDevBlock, 3},
        {{"p", "conn"}, CommandKind::kConnList, 4},
        {{"p", "conn", "list"}, CommandKind::kConnList, 4},
        {{"p", "rule"}, CommandKind::kRuleList, 6},
        {{"p", "rule", "load"}, CommandKind::kRuleLoad, 7},
        {{"p", "rule", "edit"}, CommandKind::kRuleEdit, 8},
        {{"p", "pref"}, CommandKind::kPrefList, 12},
        {{"p", "pref", "list"}, CommandKind::kPrefList, 12},
        {{"p", "pref", "add"}, CommandKind::kPrefAdd, 13},
        {{"p", "pref", "remove"}, CommandKind::kPrefRemove, 14},
        {{"p", "monitor"}, CommandKind::kMonitor, 15},
        {{"p", "monitor", "anything", "-x"}, CommandKind::kMonitor, 15},
    };
    for (const auto& [words, kind, number] : rows) {
        const Invocation invocation = Arguments(words).parse();
        EXPECT_EQ(invocation.kind, kind) << number;
        EXPECT_EQ(static_cast<int>(invocation.kind), number);
    }
}

TEST(Options, WordsAfterACommandWithoutOptionsArePositional) {
    Arguments arguments{"p", "dev", "unplug", "-3", "--", "x"};
    EXPECT_EQ(wordsOf(arguments.parse()), (std::vector<std::string>{"-3", "--", "x"}));
}

TEST(Options, CommandsWithoutOptionsLookForNone) {
    const struct {
        const char* first;
        const char* second;
    } rows[] = {{"dev", "list"},  {"dev", "unplug"}, {"dev", "share"}, {"dev", "block"}, {"conn", "list"},
                {"rule", "load"}, {"rule", "edit"},  {"pref", "list"}, {"pref", "add"},  {"pref", "remove"}};
    for (const auto& [first, second] : rows) {
        Arguments arguments{"p", first, second, "--", "-p"};
        EXPECT_EQ(wordsOf(arguments.parse()), (std::vector<std::string>{"--", "-p"})) << first << second;
    }
}

TEST(Options, ConnDropPortAndHost) {
    Arguments arguments{"p", "conn", "drop", "-p", "70000", "h", "more"};
    const Invocation invocation = arguments.parse();
    EXPECT_EQ(invocation.kind, CommandKind::kConnDrop);
    EXPECT_TRUE(invocation.portGiven);
    EXPECT_EQ(invocation.port, 4464);
    EXPECT_EQ(wordsOf(invocation), (std::vector<std::string>{"h", "more"}));
}

TEST(Options, ConnDropOptionsComeBeforeTheHost) {
    Arguments arguments{"p", "conn", "drop", "h", "-p", "80"};
    const Invocation invocation = arguments.parse();
    EXPECT_FALSE(invocation.portGiven);
    EXPECT_EQ(wordsOf(invocation), (std::vector<std::string>{"h", "-p", "80"}));
}

TEST(Options, DoubleDashEndsTheOptions) {
    Arguments arguments{"p", "conn", "drop", "-p80", "--", "-p"};
    const Invocation invocation = arguments.parse();
    EXPECT_EQ(invocation.port, 80);
    EXPECT_EQ(wordsOf(invocation), (std::vector<std::string>{"-p"}));
}

TEST(Options, RuleListWithoutIndex) {
    Arguments arguments{"p", "rule", "list", "-N", "ignored"};
    const Invocation invocation = arguments.parse();
    EXPECT_EQ(invocation.kind, CommandKind::kRuleList);
    EXPECT_TRUE(invocation.noIndex);
}

TEST(Options, RuleTestLaterOfHostAndRemoteDesktopDecides) {
    Arguments remote{"p", "rule", "test", "-h", "a", "-r", "5"};
    const Invocation invocation = remote.parse();
    EXPECT_EQ(invocation.kind, CommandKind::kRuleTest);
    EXPECT_TRUE(invocation.remoteDesktop);
    EXPECT_EQ(invocation.host, nullptr);
}

TEST(Options, RuleTestHostAfterRemoteDesktop) {
    Arguments host{"p", "rule", "test", "-r", "-h", "a", "5"};
    const Invocation invocation = host.parse();
    EXPECT_FALSE(invocation.remoteDesktop);
    EXPECT_STREQ(invocation.host, "a");
    EXPECT_EQ(wordsOf(invocation), (std::vector<std::string>{"5"}));
}

TEST(Options, LastRuleFileCountsAndJoinedOptionsWork) {
    Arguments arguments{"p", "rule", "test", "-f", "one", "-rftwo", "5"};
    const Invocation invocation = arguments.parse();
    EXPECT_STREQ(invocation.rulePath, "two");
    EXPECT_TRUE(invocation.remoteDesktop);
}

TEST(WordToNumber, ReadsAsAtoi) {
    const struct {
        const char* word;
        std::int32_t number;
    } rows[] = {{"7", 7},
                {"abc", 0},
                {"", 0},
                {" 12x", 12},
                {"-1", -1},
                {"+3", 3},
                {"0x10", 0},
                {"010", 10},
                {"4294967297", 1},
                {"2147483648", -2147483647 - 1},
                {"9223372036854775808", -1},
                {"99999999999999999999", -1}};
    for (const auto& [word, number] : rows) {
        EXPECT_EQ(wordToNumber(word), number) << word;
    }
}

}  // namespace
