#include "rules/rule_printer.h"

#include <gtest/gtest.h>

#include <string>

#include "captured_stderr.h"
#include "rule_text.h"
#include "rules/rule_parser.h"

namespace {

JsonObject reply(const std::string& json) {
    return boost::json::parse(json).as_object();
}

/// One record, given by the members after its action.
std::string printRecord(const std::string& members) {
    return printReply(
        reply(R"({"rules":[{"action":"share")" + (members.empty() ? "" : "," + members) + "}]}"), false);
}

struct Row {
    const char* name;
    const char* members;
    const char* printed;  ///< after "share"
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

class RulePrinterClause : public testing::TestWithParam<Row> {};

TEST_P(RulePrinterClause, Prints) {
    EXPECT_EQ(printRecord(GetParam().members), std::string("share") + GetParam().printed + "\n");
}

const Row kRows[] = {
    {"ActionAlone", "", ""},
    // quick
    {"QuickTrue", R"("quick":true)", " quick"},
    {"QuickOne", R"("quick":1)", " quick"},
    {"QuickHalf", R"("quick":0.5)", " quick"},
    {"QuickString", R"("quick":"true")", ""},
    {"QuickNull", R"("quick":null)", ""},
    // host
    {"Host", R"("host":["a"])", " host \"a\""},
    {"Hosts", R"("host":["a","b","c"])", " host \"a,b,c\""},
    {"HostNone", R"("host":[])", " host \"\""},
    {"HostOtherTypesAreSkipped", R"("host":[1,"a",null,{},"b",[],true])", " host \"a,b\""},
    {"HostOnlyOtherTypes", R"("host":[1,2])", " host \"\""},
    {"HostEmptyStrings", R"("host":["","a",""])", " host \",a,\""},
    {"HostString", R"("host":"a")", ""},
    {"HostNegated", R"("host":["a"],"notHost":true)", " !host \"a\""},
    {"HostNegatedFalse", R"("host":["a"],"notHost":false)", " host \"a\""},
    {"HostNegatedZero", R"("host":["a"],"notHost":0)", " host \"a\""},
    {"HostNegatedNumber", R"("host":["a"],"notHost":-1)", " !host \"a\""},
    {"HostNegatedString", R"("host":["a"],"notHost":"true")", " host \"a\""},
    {"NotHostAlone", R"("notHost":true)", ""},
    // rdesk
    {"Rdesk", R"("rdesk":true)", " rdesk"},
    {"NotRdesk", R"("rdesk":false)", " !rdesk"},
    {"RdeskNumber", R"("rdesk":0)", " !rdesk"},
    {"RdeskString", R"("rdesk":"yes")", ""},
    {"RdeskNull", R"("rdesk":null)", ""},
    {"RdeskIsNotPrintedBesideAHostArray", R"("rdesk":true,"host":["a"])", " host \"a\""},
    {"RdeskIsNotPrintedBesideAnEmptyHostArray", R"("rdesk":false,"host":[])", " host \"\""},
    {"RdeskIsPrintedBesideAHostString", R"("rdesk":true,"host":"a")", " rdesk"},
    // name
    {"NameIs", R"("name":"a b","nameMatch":"is")", " name is \"a b\""},
    {"NameContains", R"("name":"a","nameMatch":"contains")", " name contains \"a\""},
    {"NameNegated", R"("name":"a","nameMatch":"is","notName":true)", " !name is \"a\""},
    {"NameWithoutMatch", R"("name":"a")", ""},
    {"NameOtherMatch", R"("name":"a","nameMatch":"like")", ""},
    {"NameMatchInCapitals", R"("name":"a","nameMatch":"IS")", ""},
    {"NameMatchLonger", R"("name":"a","nameMatch":"is\u0000")", ""},
    {"NameMatchEmpty", R"("name":"a","nameMatch":"")", ""},
    {"NameMatchNumber", R"("name":"a","nameMatch":1)", ""},
    {"NameNumber", R"("name":1,"nameMatch":"is")", ""},
    {"NameMissing", R"("nameMatch":"is","notName":true)", ""},
    {"NameEmpty", R"("name":"","nameMatch":"is")", " name is \"\""},
    // built-in
    {"BuiltIn", R"("built-in":true)", " built-in"},
    {"NotBuiltIn", R"("built-in":false)", " !built-in"},
    {"BuiltInString", R"("built-in":"true")", ""},
    // hwid
    {"Vid", R"("vid":1133)", " hwid 046d"},
    {"VidPid", R"("vid":1,"pid":2)", " hwid 0001:0002"},
    {"VidPidRev", R"("vid":1,"pid":2,"rev":65535)", " hwid 0001:0002:ffff"},
    {"VidRev", R"("vid":1,"rev":3)", " hwid 0001"},
    {"PidWithoutVid", R"("pid":2,"rev":3)", ""},
    {"VidString", R"("vid":"046d","pid":2)", ""},
    {"PidString", R"("vid":1,"pid":"2","rev":3)", " hwid 0001"},
    {"RevNull", R"("vid":1,"pid":2,"rev":null)", " hwid 0001:0002"},
    {"VidCutTo16Bits", R"("vid":74565,"pid":65536,"rev":-1)", " hwid 2345:0000:ffff"},
    {"VidBoolean", R"("vid":true)", " hwid 0001"},
    {"VidFraction", R"("vid":10.9)", " hwid 000a"},
    {"HwidNegated", R"("vid":1,"notHWID":true)", " !hwid 0001"},
    {"HwidNegationIsCaseSensitive", R"("vid":1,"notHwid":true)", " hwid 0001"},
    // serial, port
    {"Serial", R"("serial":"a b")", " serial \"a b\""},
    {"SerialNegated", R"("serial":"a","notSerial":true)", " !serial \"a\""},
    {"SerialNumber", R"("serial":12)", ""},
    {"SerialEmpty", R"("serial":"")", " serial \"\""},
    {"Port", R"("port":"1-1.2")", " port 1-1.2"},
    {"PortNegated", R"("port":"1","notPort":1)", " !port 1"},
    {"PortNumber", R"("port":1)", ""},
    {"PortEmpty", R"("port":"")", " port "},
    // class
    {"Class", R"("class":3)", " class 03"},
    {"ClassSubclass", R"("class":3,"subclass":1)", " class 03:01"},
    {"ClassProtocol", R"("class":3,"subclass":1,"protocol":255)", " class 03:01:ff"},
    {"ClassWithoutSubclass", R"("class":3,"protocol":1)", " class 03"},
    {"SubclassWithoutClass", R"("subclass":3,"protocol":1)", ""},
    {"ClassNegated", R"("class":3,"notClass":true)", " !class 03"},
    {"ClassString", R"("class":"03","subclass":1)", ""},
    {"SubclassString", R"("class":3,"subclass":"1","protocol":1)", " class 03"},
    // overrides
    {"OverrideName", R"("override-name":"a b")", " override-name \"a b\""},
    {"OverrideSerial", R"("override-serial":"1")", " override-serial \"1\""},
    {"OverrideNumber", R"("override-name":1,"override-serial":true)", ""},
    {"OverrideEmpty", R"("override-name":"")", " override-name \"\""},
    // takeaway
    {"Takeaway", R"("takeaway":true)", " takeaway"},
    {"TakeawayNumber", R"("takeaway":2)", " takeaway"},
    {"TakeawayString", R"("takeaway":"")", ""},
    // others
    {"UnknownKeysAreIgnored", R"("note":"x","Quick":true)", ""},
};

INSTANTIATE_TEST_SUITE_P(Rows, RulePrinterClause, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(RulePrinter, ClausesStandInTheirOrder) {
    EXPECT_EQ(printRecord(
                  R"("takeaway":true,"override-serial":"os","override-name":"on","protocol":1,"subclass":1,)"
                  R"("class":3,"port":"p","serial":"s","rev":3,"pid":2,"vid":1,"built-in":false,)"
                  R"("nameMatch":"contains","name":"n","host":["h"],"quick":true)"),
              "share quick host \"h\" name contains \"n\" !built-in hwid 0001:0002:0003 serial \"s\" port p "
              "class 03:01:01 override-name \"on\" override-serial \"os\" takeaway\n");
}

TEST(RulePrinter, ExampleOfTheManual) {
    const JsonObject list = reply(
        R"({"rules":[1,2,{"action":"share","quick":true,"host":["10.0.0.5","lab-pc"],"name":"Keyboard",)"
        R"("nameMatch":"contains","built-in":false,"vid":1133,"pid":49948,"class":3,"subclass":1,"protocol":1,)"
        R"("override-name":"Shared kbd"}]})");
    EXPECT_EQ(printReply(list, true),
              "3: share quick host \"10.0.0.5,lab-pc\" name contains \"Keyboard\" !built-in hwid 046d:c31c "
              "class 03:01:01 override-name \"Shared kbd\"\n");
}

TEST(RulePrinter, FalseQuickLeavesABlank) {
    EXPECT_EQ(printRecord(R"("quick":false)"), "share \n");
    EXPECT_EQ(printRecord(R"("quick":false,"rdesk":true)"), "share  rdesk\n");
    EXPECT_EQ(printRecord(R"("quick":0)"), "share \n");
}

TEST(RulePrinter, FalseTakeawayLeavesABlank) {
    EXPECT_EQ(printRecord(R"("takeaway":false)"), "share \n");
    EXPECT_EQ(printRecord(R"("quick":false,"takeaway":false)"), "share  \n");
}

TEST(RulePrinter, ClassIsCutTo8BitsSubclassIsNot) {
    EXPECT_EQ(printRecord(R"("class":511,"subclass":511,"protocol":65535)"), "share class ff:1ff:ffff\n");
    EXPECT_EQ(printRecord(R"("class":256,"subclass":65537,"protocol":4096)"), "share class 00:01:1000\n");
}

TEST(RulePrinter, ValuesAreWrittenAsTheyAre) {
    EXPECT_EQ(printRecord(R"("name":"a\"b\\c\n!","nameMatch":"is")"), "share name is \"a\"b\\c\n!\"\n");
    EXPECT_EQ(printRecord(R"("serial":"!x","host":["a,b","c d"])"), "share host \"a,b,c d\" serial \"!x\"\n");
    EXPECT_EQ(printRecord(R"("override-name":"%s%n","override-serial":"\u00e4\ud83d\ude00")"),
              "share override-name \"%s%n\" override-serial \"\xc3\xa4\xf0\x9f\x98\x80\"\n");
}

TEST(RulePrinter, PortIsNotQuoted) {
    EXPECT_EQ(printRecord(R"("port":"a b # \"c\"")"), "share port a b # \"c\"\n");
}

TEST(RulePrinter, ActionIsPrintedWhateverItSays) {
    EXPECT_EQ(printReply(reply(R"({"rules":[{"action":"Allow all!"},{"action":""}]})"), true),
              "1: Allow all!\n2: \n");
}

TEST(RulePrinter, StringsEndAtTheirFirstNul) {
    EXPECT_EQ(
        printReply(reply(R"({"rules":[{"action":"sh\u0000are","name":"a\u0000b","nameMatch":"is",)"
                         R"("host":["x\u0000y","\u0000","z"],"port":"1\u00002","serial":"c\u0000d",)"
                         R"("override-name":"\u0000e","override-serial":"f\u0000"}]})"),
                   false),
        "sh host \"x,,z\" name is \"a\" serial \"c\" port 1 override-name \"\" override-serial \"f\"\n");
}

TEST(RulePrinter, UnusableElementsAreCounted) {
    const JsonObject list =
        reply(R"({"rules":[{"action":"share"},[],{"action":"block"},{"quick":true},{"action":1},)"
              R"(null,"share",{"action":null},{"action":"share"}]})");
    EXPECT_EQ(printReply(list, true), "1: share\n3: block\n9: share\n");
    EXPECT_EQ(printReply(list, false), "share\nblock\nshare\n");
}

TEST(RulePrinter, EmptyListPrintsNothing) {
    int status = -1;
    EXPECT_EQ(printReply(reply(R"({"rules":[]})"), true, &status), "");
    EXPECT_EQ(status, 0);
}

struct Refusal {
    const char* reply;
    const char* message;
};

TEST(RulePrinter, RefusedRepliesWriteOnlyTheirMessage) {
    const Refusal rows[] = {
        {R"({"status":"ok","rules":[{"action":"share"}]})", "Internal error.\n"},
        {R"({"status":"auth"})", "Internal error.\n"},
        {R"({"status":""})", "Internal error.\n"},
        {R"({})", "Rule list format error.\n"},
        {R"({"rules":null})", "Rule list format error.\n"},
        {R"({"rules":{}})", "Rule list format error.\n"},
        {R"({"rules":"share"})", "Rule list format error.\n"},
        {R"({"Rules":[]})", "Rule list format error.\n"},
        {R"({"status":1})", "Rule list format error.\n"},
    };
    for (const Refusal& row : rows) {
        CapturedStderr messages;
        int status = -1;
        const std::string printed = printReply(reply(row.reply), false, &status);
        EXPECT_EQ(messages.take(), row.message) << row.reply;
        EXPECT_EQ(printed, "") << row.reply;
        EXPECT_EQ(status, 5) << row.reply;
    }
}

TEST(RulePrinter, StatusThatIsNoStringIsNoError) {
    for (const char* const text :
         {R"({"status":1,"rules":[{"action":"share"}]})", R"({"status":null,"rules":[{"action":"share"}]})",
          R"({"status":["ok"],"rules":[{"action":"share"}]})"}) {
        int status = -1;
        EXPECT_EQ(printReply(reply(text), false, &status), "share\n") << text;
        EXPECT_EQ(status, 0) << text;
    }
}

TEST(RulePrinter, LongValuesArriveWhole) {
    const std::string name(100000, 'n');
    EXPECT_EQ(printRecord(R"("nameMatch":"is","name":")" + name + "\""), "share name is \"" + name + "\"\n");
}

TEST(RulePrinter, ManyRulesAreNumberedInOrder) {
    JsonObject list;
    JsonArray& rules = list["rules"].emplace_array();
    std::string expected;
    for (int number = 1; number <= 20000; ++number) {
        rules.emplace_back(JsonObject{{"action", "share"}, {"vid", number}});
        char line[64];
        (void)std::snprintf(line, sizeof line, "%d: share hwid %04x\n", number, number);
        expected += line;
    }
    EXPECT_EQ(printReply(list, true), expected);
}

TEST(RulePrinter, WriteErrorsAreIgnored) {
    std::FILE* const full = std::fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    CapturedStderr messages;
    EXPECT_EQ(outputRuleList(reply(R"({"rules":[{"action":"share"}]})"), false, full), 0);
    EXPECT_EQ(messages.take(), "");
    (void)std::fclose(full);
}

TEST(RulePrinter, WritesBehindWhatTheStreamHolds) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* const stream = ::open_memstream(&text, &size);
    std::fputs("before\n", stream);
    EXPECT_EQ(outputRuleList(reply(R"({"rules":[{"action":"block"}]})"), false, stream), 0);
    std::fputs("after\n", stream);
    std::fclose(stream);
    EXPECT_EQ(std::string(text, size), "before\nblock\nafter\n");
    std::free(text);
}

/// What becomes of a record that is printed and read back: its JSON text, or "null" when it is refused.
std::string reread(const std::string& members) {
    CapturedStderr messages;
    const RuleSet rules = rule_parser_run(printRecord(members));
    return rules ? *rules : "null";
}

TEST(RulePrinter, OneWayValues) {
    const struct {
        const char* members;
        const char* reread;
    } rows[] = {
        {R"("quick":false)", R"([{"action":"share"}])"},
        {R"("takeaway":false)", R"([{"action":"share"}])"},
        {R"("name":"a\"b","nameMatch":"is")", R"([{"action":"share","name":"ab","nameMatch":"is"}])"},
        {R"("name":"a\"b","nameMatch":"is","takeaway":true)", R"(null)"},
        {R"("name":"a\\b","nameMatch":"is")", R"([{"action":"share","name":"ab","nameMatch":"is"}])"},
        {R"("name":"!a","nameMatch":"is")", R"(null)"},
        {R"("name":"!quick","nameMatch":"is")",
         R"([{"action":"share","quick":true,"name":"!","nameMatch":"is"}])"},
        {R"("name":"","nameMatch":"is")", R"([{"action":"share"}])"},
        {R"("serial":"","takeaway":true)", R"([{"action":"share","serial":"takeaway"}])"},
        {R"("port":"a b")", R"(null)"},
        {R"("port":"a#b")", R"([{"action":"share","port":"a"}])"},
        {R"("port":"a\"b")", R"(null)"},
        {R"("port":"a\\b")", R"([{"action":"share","port":"ab"}])"},
        {R"("host":["a,b","c d"])", R"([{"action":"share","host":["a","b","c","d"]}])"},
        {R"("host":[])", R"([{"action":"share"}])"},
        {R"("class":511)", R"([{"action":"share","class":255}])"},
        {R"("name":"a")", R"([{"action":"share"}])"},
        {R"("serial":5)", R"([{"action":"share"}])"},
        {R"("name":"a\nb","nameMatch":"is")", R"(null)"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(reread(row.members), row.reread) << row.members;
    }
    CapturedStderr messages;
    EXPECT_EQ(rule_parser_run("allow\n"), nullptr);
    EXPECT_EQ(rule_parser_run(printReply(reply(R"({"rules":[{"action":"share"}]})"), true)), nullptr);
    EXPECT_EQ(messages.take(), "Parsing error at rule #1\nParsing error at rule #1\n");
}

}  // namespace
