#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "rule_text.h"
#include "rules/rule_parser.h"
#include "rules/rule_record.h"

namespace {

/// Tokens are given with blanks between them; "~" stands for a blank inside a token.
RuleStrings split(const std::string& words) {
    RuleStrings tokens;
    std::string token;
    for (const char byte : words + " ") {
        if (byte != ' ') {
            token += byte == '~' ? ' ' : byte;
        } else if (!token.empty()) {
            tokens.push_back(token);
            token.clear();
        }
    }
    return tokens;
}

/// The record as JSON text, "null" when the tokens are refused.
std::string build(const std::string& words) {
    const auto record = rule_parser_line2dictionary(split(words));
    return record ? toText(*record) : "null";
}

struct Row {
    const char* name;
    const char* words;
    const char* record;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

class RuleParserLine2Dictionary : public testing::TestWithParam<Row> {};

TEST_P(RuleParserLine2Dictionary, BuildsTheRecord) {
    const JsonValue expected = boost::json::parse(GetParam().record);
    EXPECT_EQ(boost::json::parse(build(GetParam().words)), expected) << build(GetParam().words);
}

const Row kRows[] = {
    // action
    {"NoTokens", "", "null"},
    {"Share", "share", R"({"action":"share"})"},
    {"Block", "block", R"({"action":"block"})"},
    {"NoAction", "quick rdesk", "null"},
    {"ActionTwice", "share share", "null"},
    {"BothActions", "share block", "null"},
    {"ActionNegated", "! share", "null"},
    {"ActionDoubleNegated", "! ! block", R"({"action":"block"})"},
    {"ActionLast", "rdesk block", R"({"action":"block","rdesk":true})"},
    {"CapitalsAreNoKeyword", "Share", "null"},
    {"UnknownWord", "share x", "null"},
    {"PrefixIsNoKeyword", "shar", "null"},
    {"KeysAreNoKeywords", "share notHost", "null"},
    {"MarkGluedIsNoKeyword", "share !rdesk", "null"},
    // flags
    {"Quick", "share quick", R"({"action":"share","quick":true})"},
    {"QuickNegated", "share ! quick", "null"},
    {"QuickTwice", "share quick quick", "null"},
    {"BuiltIn", "share built-in", R"({"action":"share","built-in":true})"},
    {"NotBuiltIn", "share ! built-in", R"({"action":"share","built-in":false})"},
    {"BuiltInTwice", "share built-in ! built-in", "null"},
    {"Rdesk", "share rdesk", R"({"action":"share","rdesk":true})"},
    {"NotRdesk", "share ! rdesk", R"({"action":"share","rdesk":false})"},
    {"RdeskTwice", "share rdesk rdesk", "null"},
    {"Takeaway", "share takeaway", R"({"action":"share","takeaway":true})"},
    {"NotTakeaway", "share ! takeaway", R"({"action":"share","takeaway":false})"},
    {"TakeawayTwice", "share ! takeaway takeaway", "null"},
    {"FlagUsesTheMarkUp", "share ! rdesk built-in", R"({"action":"share","rdesk":false,"built-in":true})"},
    {"TwoMarksCancel", "share ! ! rdesk", R"({"action":"share","rdesk":true})"},
    {"ThreeMarks", "share ! ! ! rdesk", R"({"action":"share","rdesk":false})"},
    // host
    {"Host", "share host a,b~c", R"({"action":"share","host":["a","b","c"]})"},
    {"HostNegated", "share ! host a", R"({"action":"share","host":["a"],"notHost":true})"},
    {"HostDoubleNegated", "share ! ! host a", R"({"action":"share","host":["a"]})"},
    {"HostOfNothing", "share host ,", R"({"action":"share","host":[]})"},
    {"HostTwice", "share host a host b", "null"},
    {"HostTwiceAfterNone", "share host , host b", "null"},
    {"HostThenRdesk", "share host a rdesk", "null"},
    {"HostThenNotRdesk", "share host a ! rdesk", "null"},
    {"RdeskThenHost", "share rdesk host a", "null"},
    {"NotRdeskThenHost", "share ! rdesk host a", "null"},
    {"RdeskThenHostKeywordAlone", "share rdesk host", "null"},
    {"HostTakesAKeyword", "share host rdesk", R"({"action":"share","host":["rdesk"]})"},
    {"HostTakesAMark", "share host !", R"({"action":"share","host":["!"]})"},
    {"HostUsesTheMarkUp", "share ! host a quick",
     R"({"action":"share","host":["a"],"notHost":true,"quick":true})"},
    // name
    {"NameIs", "share name is a", R"({"action":"share","name":"a","nameMatch":"is"})"},
    {"NameContains", "share name contains a", R"({"action":"share","name":"a","nameMatch":"contains"})"},
    {"NameNegated", "share ! name is a", R"({"action":"share","name":"a","nameMatch":"is","notName":true})"},
    {"NameBadMatch", "share name like a", "null"},
    {"NameMatchInCapitals", "share name IS a", "null"},
    {"NameMatchWithMore", "share name containsx a", "null"},
    {"NameMatchShortened", "share name contain a", "null"},
    {"NameMarkAsMatch", "share name ! is a", "null"},
    {"NameTwice", "share name is a name is a", "null"},
    {"NameTakesAMatchWord", "share name is is", R"({"action":"share","name":"is","nameMatch":"is"})"},
    {"NameTakesAMark", "share name is !", R"({"action":"share","name":"!","nameMatch":"is"})"},
    {"NameUsesTheMarkUp", "share ! name is a quick",
     R"({"action":"share","name":"a","nameMatch":"is","notName":true,"quick":true})"},
    // serial and port
    {"Serial", "share serial a~b", R"({"action":"share","serial":"a b"})"},
    {"SerialNegated", "share ! serial a", R"({"action":"share","serial":"a","notSerial":true})"},
    {"SerialTwice", "share serial a ! serial b", "null"},
    {"Port", "share port 1-1", R"({"action":"share","port":"1-1"})"},
    {"PortNegated", "share ! port 1-1", R"({"action":"share","port":"1-1","notPort":true})"},
    {"PortTwice", "share port a port a", "null"},
    // hwid and class
    {"HwidOne", "share hwid 46D", R"({"action":"share","vid":1133})"},
    {"HwidTwo", "share hwid 1:2", R"({"action":"share","vid":1,"pid":2})"},
    {"HwidThree", "share hwid 1:2:3", R"({"action":"share","vid":1,"pid":2,"rev":3})"},
    {"HwidNegated", "share ! hwid 046d", R"({"action":"share","vid":1133,"notHWID":true})"},
    {"HwidFour", "block hwid 1:2:3:4", "null"},
    {"HwidBad", "share hwid x", "null"},
    {"HwidTakesAMark", "share hwid ! 1", "null"},
    {"ClassOne", "share class 3", R"({"action":"share","class":3})"},
    {"ClassTwo", "share class 3:1", R"({"action":"share","class":3,"subclass":1})"},
    {"ClassThree", "share class 3:1:2", R"({"action":"share","class":3,"subclass":1,"protocol":2})"},
    {"ClassNegated", "share ! class 8", R"({"action":"share","class":8,"notClass":true})"},
    {"ClassFour", "share class 1:2:3:4", "null"},
    {"ClassTwice", "share class 1:2 ! class 3",
     R"({"action":"share","class":3,"subclass":2,"notClass":true})"},
    // overrides
    {"OverrideName", "share override-name a", R"({"action":"share","override-name":"a"})"},
    {"OverrideNameNegated", "share ! override-name a", "null"},
    {"OverrideNameTwice", "share override-name a override-name b", "null"},
    {"OverrideSerial", "share override-serial a", R"({"action":"share","override-serial":"a"})"},
    {"OverrideSerialNegated", "share ! override-serial a", "null"},
    {"OverrideSerialTwice", "share override-serial a override-serial a", "null"},
    {"OverrideNegationIsLookedAtWithTheArgument", "share ! override-name", R"({"action":"share"})"},
    {"OverrideDoubleNegated", "share ! ! override-name a", R"({"action":"share","override-name":"a"})"},
};

INSTANTIATE_TEST_SUITE_P(Rows, RuleParserLine2Dictionary, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(RuleLine2Dictionary, ClauseWithoutArgumentIsDropped) {
    for (const char* const words :
         {"host", "! host", "name", "name is", "! name contains", "serial", "port", "hwid", "! hwid", "class",
          "override-name", "override-serial", "! override-serial", "!", "! ! !"}) {
        EXPECT_EQ(build(std::string("share ") + words), R"({"action":"share"})") << words;
    }
    EXPECT_EQ(build("share serial a serial"), R"({"action":"share","serial":"a"})");
}

TEST(RuleLine2Dictionary, SecondHwidOverwritesPartByPart) {
    EXPECT_EQ(build("block hwid 046d hwid 1:2"), R"({"action":"block","vid":1,"pid":2})");
    EXPECT_EQ(build("block hwid 1:2:3 hwid 4"), R"({"action":"block","vid":4,"pid":2,"rev":3})");
    EXPECT_EQ(build("block ! hwid 1 hwid 2"), R"({"action":"block","vid":2,"notHWID":true})");
    EXPECT_EQ(build("block hwid 1 ! hwid 2"), R"({"action":"block","vid":2,"notHWID":true})");
    EXPECT_EQ(build("block hwid 1 hwid x"), "null");
}

TEST(RuleLine2Dictionary, NumbersAreCutTo16Bits) {
    EXPECT_EQ(build("share hwid 12345:10000:1ffff"), R"({"action":"share","vid":9029,"pid":0,"rev":65535})");
    EXPECT_EQ(build("share class 1ff:12345:ffff"),
              R"({"action":"share","class":511,"subclass":9029,"protocol":65535})");
    EXPECT_EQ(build("share hwid -1"), R"({"action":"share","vid":65535})");
}

TEST(RuleLine2Dictionary, EveryKeyAtOnce) {
    EXPECT_EQ(
        build("takeaway override-serial o override-name n ! class 1:2:3 ! port p ! serial s ! hwid 1:2:3 "
              "built-in ! name is d ! host h quick block"),
        R"({"action":"block","quick":true,"host":["h"],"notHost":true,"name":"d","nameMatch":"is",)"
        R"("notName":true,"built-in":true,"vid":1,"pid":2,"rev":3,"notHWID":true,"serial":"s",)"
        R"("notSerial":true,"port":"p","notPort":true,"class":1,"subclass":2,"protocol":3,)"
        R"("notClass":true,"override-name":"n","override-serial":"o","takeaway":true})");
}

TEST(RuleLine2Dictionary, RecordOutlivesItsTokens) {
    std::optional<JsonObject> record;
    {
        const RuleStrings tokens = {"share", "name",
                                    "is",    "a name that is too long to be stored in place",
                                    "host",  "a-host-name-that-is-too-long-as-well.example"};
        record = rule_parser_line2dictionary(tokens);
    }
    ASSERT_TRUE(record);
    EXPECT_EQ(toText(*record), R"({"action":"share","host":["a-host-name-that-is-too-long-as-well.example"],)"
                               R"("name":"a name that is too long to be stored in place","nameMatch":"is"})");
}

TEST(RuleParseHost2Array, CutsAtCommasAndWhiteSpace) {
    const struct {
        const char* argument;
        const char* hosts;
    } rows[] = {
        {"", "[]"},
        {",", "[]"},
        {" \t\n\v\f\r,,", "[]"},
        {"a", R"(["a"])"},
        {"a,b", R"(["a","b"])"},
        {"a, b,,c", R"(["a","b","c"])"},
        {",a,", R"(["a"])"},
        {"a\tb\nc\vd\fe\rf g", R"(["a","b","c","d","e","f","g"])"},
        {"a,a", R"(["a","a"])"},
        {"b a", R"(["b","a"])"},
        {"a;b|c", R"(["a;b|c"])"},
        {"\xc2\xa0", "[\"\xc2\xa0\"]"},
        {"\xc3\xa4,\xe6\x9d\xb1", "[\"\xc3\xa4\",\"\xe6\x9d\xb1\"]"},
    };
    for (const auto& row : rows) {
        const auto hosts = rule_parse_host2array(row.argument);
        ASSERT_TRUE(hosts) << row.argument;
        EXPECT_EQ(toText(*hosts), row.hosts) << row.argument;
    }
}

constexpr unsigned long kUntouched = 77;

/// Count and values, as "2: 1 2".
std::string triple(std::string_view argument) {
    RuleTriple values = {kUntouched, kUntouched, kUntouched};
    const std::size_t count = rule_parser_triple2values(argument, values);
    std::string text = std::to_string(count) + ":";
    for (std::size_t part = 0; part < values.size(); ++part) {
        if (part < count) {
            text.append(1, ' ').append(std::to_string(values[part]));
        } else {
            EXPECT_EQ(values[part], kUntouched) << argument;
        }
    }
    return text;
}

TEST(RuleTriple, CountsItsParts) {
    EXPECT_EQ(triple("1"), "1: 1");
    EXPECT_EQ(triple("1:2"), "2: 1 2");
    EXPECT_EQ(triple("a:B:fF"), "3: 10 11 255");
    EXPECT_EQ(triple("1:2:3:4"), "0:");
    EXPECT_EQ(triple("1:2:3:"), "0:");
    EXPECT_EQ(triple(":::"), "0:");
}

TEST(RuleTriple, WhatStrtoulTakesIsTaken) {
    EXPECT_EQ(triple(""), "1: 0");
    EXPECT_EQ(triple(":"), "2: 0 0");
    EXPECT_EQ(triple("::"), "3: 0 0 0");
    EXPECT_EQ(triple("1234::"), "3: 4660 0 0");
    EXPECT_EQ(triple("::1"), "3: 0 0 1");
    EXPECT_EQ(triple("0x10"), "1: 16");
    EXPECT_EQ(triple("0X1f:0x2"), "2: 31 2");
    EXPECT_EQ(triple("+5"), "1: 5");
    EXPECT_EQ(triple("-1"), "1: 18446744073709551615");
    EXPECT_EQ(triple("-0x1"), "1: 18446744073709551615");
    EXPECT_EQ(triple("- 1"), "0:");
    EXPECT_EQ(triple(" \t\n\v\f\r5: 6"), "2: 5 6");
    EXPECT_EQ(triple(" +0x5"), "1: 5");
    EXPECT_EQ(triple("ffffffffffffffff"), "1: 18446744073709551615");
    EXPECT_EQ(triple("10000000000000000"), "1: 18446744073709551615");
    EXPECT_EQ(triple("123456789abcdef0123456789:1"), "2: 18446744073709551615 1");
    EXPECT_EQ(triple("-10000000000000000"), "1: 18446744073709551615");
}

TEST(RuleTriple, LeftOverBytesAreAnError) {
    for (const char* const argument : {"x",
                                       "g",
                                       "1g",
                                       "1 ",
                                       "1 :2",
                                       "1:2 ",
                                       " ",
                                       "1: ",
                                       " :1",
                                       "+",
                                       "-",
                                       "+-1",
                                       "0x",
                                       "0xg",
                                       "0x0x1",
                                       "1.2",
                                       "1,2",
                                       "1:2:x",
                                       "\xc2\xa0"
                                       "1",
                                       "1_0",
                                       "1'0"}) {
        EXPECT_EQ(triple(argument), "0:") << argument;
    }
    EXPECT_EQ(triple(bytes("1\0")), "0:");
    EXPECT_EQ(triple(bytes("\0")), "0:");
}

TEST(RuleRecord, KeywordsWithTheSameFirstByteStandTogether) {
    for (std::size_t at = 0; at < kRuleKeywords.size(); ++at) {
        for (std::size_t later = at + 1; later < kRuleKeywords.size(); ++later) {
            if (kRuleKeywords[later].text.front() == kRuleKeywords[at].text.front()) {
                EXPECT_EQ(kRuleKeywords[later - 1].text.front(), kRuleKeywords[at].text.front())
                    << kRuleKeywords[later].text;
            }
        }
    }
}

TEST(RuleRecord, KeysAreDifferent) {
    for (std::size_t at = 0; at < kRuleFieldCount; ++at) {
        for (std::size_t later = at + 1; later < kRuleFieldCount; ++later) {
            EXPECT_NE(kRuleFields[at].key, kRuleFields[later].key);
        }
    }
}

TEST(RuleRecord, WhiteSpaceIsThatOfThePosixLocale) {
    std::string found;
    for (int byte = 0; byte < 256; ++byte) {
        if (isRuleSpace(static_cast<char>(byte))) {
            found += static_cast<char>(byte);
        }
    }
    EXPECT_EQ(found, "\t\n\v\f\r ");
}

}  // namespace
