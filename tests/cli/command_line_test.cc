// Which words and options are understood, and what the daemon hears of them.
#include <gtest/gtest.h>

#include "cli/cli_support.h"

namespace cli {
namespace {

const std::string kInvalidArgument = "Error: Invalid argument.\n";
const std::string kNoDeviceId = "Error: device Id is missing.\n";
const std::string kNoHost = "Error: hostname is missing.\n";
const std::string kNoHardwareId = "Error: hardware Id is missing.\n";
const std::string kNoTestSource = "Error: Host or Remote Desktop connection should be specified.\n";

struct Refusal {
    const char* name;
    Words words;
    std::string message;
};

void PrintTo(const Refusal& row, std::ostream* out) {
    *out << row.name;
}

class CommandLineRefusal : public ::testing::TestWithParam<Refusal> {};

// Every refusal is one line, then the usage text, and nothing reaches the daemon.
TEST_P(CommandLineRefusal, MessageThenUsage) {
    const Exchange exchange = converse(tool(GetParam().words), Script());
    expectResult(exchange.tool, kInvalid, "", GetParam().message + usageText());
    expectNoContact(exchange);
}

INSTANTIATE_TEST_SUITE_P(
    Words, CommandLineRefusal,
    ::testing::Values(
        Refusal{"UnknownFirstWord", {"devices"}, kInvalidArgument},
        Refusal{"EmptyFirstWord", {""}, kInvalidArgument},
        Refusal{"FirstWordInCapitals", {"DEV"}, kInvalidArgument},
        Refusal{"FirstWordShortened", {"de"}, kInvalidArgument},
        Refusal{"MonitorInCapitals", {"Monitor"}, kInvalidArgument},
        Refusal{"MonitorWithMore", {"monitors"}, kInvalidArgument},
        Refusal{"OneDashHelp", {"-help"}, kInvalidArgument},
        Refusal{"HelpWithoutDashes", {"help"}, kInvalidArgument},
        Refusal{"ShortHelpInCapitals", {"-H"}, kInvalidArgument},
        Refusal{"LongHelpInCapitals", {"--HELP"}, kInvalidArgument},
        Refusal{"ShortHelpWithMore", {"-hx"}, kInvalidArgument},
        Refusal{"LongHelpWithMore", {"--help=x"}, kInvalidArgument},
        Refusal{"LongHelpShortened", {"--hel"}, kInvalidArgument},
        Refusal{"HelpAfterACommand", {"dev", "-h"}, kInvalidArgument},
        Refusal{"DevFoo", {"dev", "foo"}, kInvalidArgument},
        Refusal{"DevEmptyWord", {"dev", ""}, kInvalidArgument},
        Refusal{"DevListInCapitals", {"dev", "List"}, kInvalidArgument},
        Refusal{"DevListShortened", {"dev", "lis"}, kInvalidArgument},
        Refusal{"DevListWithMore", {"dev", "lists"}, kInvalidArgument},
        Refusal{"DevDrop", {"dev", "drop", "h"}, kInvalidArgument},
        Refusal{"ConnUnplug", {"conn", "unplug", "1"}, kInvalidArgument},
        Refusal{"ConnEmptyWord", {"conn", ""}, kInvalidArgument},
        Refusal{"RuleShare", {"rule", "share", "1"}, kInvalidArgument},
        Refusal{"RuleOptionInPlaceOfAWord", {"rule", "-N"}, kInvalidArgument},
        Refusal{"PrefDelete", {"pref", "delete", "1"}, kInvalidArgument},
        Refusal{"DevUnplugAlone", {"dev", "unplug"}, kNoDeviceId},
        Refusal{"DevShareAlone", {"dev", "share"}, kNoDeviceId},
        Refusal{"DevBlockAlone", {"dev", "block"}, kNoDeviceId},
        Refusal{"ConnDropAlone", {"conn", "drop"}, kNoHost},
        Refusal{"ConnDropPortOnly", {"conn", "drop", "-p", "80"}, kNoHost},
        Refusal{"ConnDropEndOfOptionsOnly", {"conn", "drop", "--"}, kNoHost},
        Refusal{"RuleTestAlone", {"rule", "test"}, kNoDeviceId},
        Refusal{"RuleTestHostOnly", {"rule", "test", "-h", "host"}, kNoDeviceId},
        Refusal{"RuleTestRemoteOnly", {"rule", "test", "-r"}, kNoDeviceId},
        Refusal{"RuleTestDeviceOnly", {"rule", "test", "3"}, kNoTestSource},
        Refusal{"RuleTestOptionsAfterTheDevice", {"rule", "test", "3", "-r"}, kNoTestSource},
        Refusal{"RuleTestOptionsAfterTheirEnd", {"rule", "test", "--", "-r", "3"}, kNoTestSource},
        Refusal{"PrefAddAlone", {"pref", "add"}, kNoHardwareId},
        Refusal{"PrefAddWithoutPreference", {"pref", "add", "0a5c"}, kNoHardwareId},
        Refusal{"PrefAddInvalidIdWithoutPreference", {"pref", "add", "zz"}, kNoHardwareId},
        Refusal{"PrefRemoveAlone", {"pref", "remove"}, kNoHardwareId},
        Refusal{"PrefAddUnknownPreference", {"pref", "add", "1", "foo"}, "Error: unknown preference.\n"},
        Refusal{"PrefAddEmptyPreference", {"pref", "add", "1", ""}, "Error: unknown preference.\n"},
        Refusal{"PrefAddPreferenceShortened", {"pref", "add", "1", "grab"}, "Error: unknown preference.\n"},
        Refusal{"PrefAddPreferenceInCapitals",
                {"pref", "add", "1", "GRAB_ON_PLUG"},
                "Error: unknown preference.\n"},
        Refusal{"PrefAddPreferenceWithMore",
                {"pref", "add", "1", "grab_on_plug "},
                "Error: unknown preference.\n"}),
    [](const auto& row) { return std::string(row.param.name); });

struct BadOption {
    const char* name;
    Words words;
    const char* about;  ///< what the option parser's own line must mention
};

void PrintTo(const BadOption& row, std::ostream* out) {
    *out << row.name;
}

class CommandLineBadOption : public ::testing::TestWithParam<BadOption> {};

// The wording is the option parser's own: one line that begins with the second word.
TEST_P(CommandLineBadOption, DiagnosticThenUsage) {
    const BadOption& row = GetParam();
    const Exchange exchange = converse(tool(row.words), Script());
    EXPECT_EQ(kInvalid, exchange.tool.status);
    EXPECT_EQ("", exchange.tool.out);
    const std::string& err = exchange.tool.err;
    const std::size_t end = err.find('\n');
    ASSERT_NE(std::string::npos, end);
    EXPECT_EQ(usageText(), err.substr(end + 1));
    EXPECT_TRUE(err.starts_with(row.words[1] + ": ")) << err;
    EXPECT_NE(std::string::npos, err.substr(0, end).find(row.about)) << err;
    expectNoContact(exchange);
}

INSTANTIATE_TEST_SUITE_P(
    Words, CommandLineBadOption,
    ::testing::Values(BadOption{"ConnDropUnknown", {"conn", "drop", "-x", "h"}, "x"},
                      BadOption{"ConnDropLong", {"conn", "drop", "--port", "80", "h"}, "-"},
                      BadOption{"ConnDropPortWithoutNumber", {"conn", "drop", "-p"}, "p"},
                      BadOption{"ConnDropOptionOfAnotherCommand", {"conn", "drop", "-N", "h"}, "N"},
                      BadOption{"RuleListUnknown", {"rule", "list", "-n"}, "n"},
                      BadOption{"RuleListUnknownInAGroup", {"rule", "list", "-Nx"}, "x"},
                      BadOption{"RuleTestUnknown", {"rule", "test", "-x", "3"}, "x"},
                      BadOption{"RuleTestHostWithoutName", {"rule", "test", "-h"}, "h"},
                      BadOption{"RuleTestFileWithoutPath", {"rule", "test", "-r", "-f"}, "f"},
                      // Read before any option is judged: a file that is not there does not matter.
                      BadOption{"RuleTestUnknownAfterFile", {"rule", "test", "-f", "/none", "-x"}, "x"}),
    [](const auto& row) { return std::string(row.param.name); });

struct Request {
    const char* name;
    Words words;
    std::uint32_t code;
    const char* body;
    const char* reply;
};

void PrintTo(const Request& row, std::ostream* out) {
    *out << row.name;
}

class CommandLineRequest : public ::testing::TestWithParam<Request> {};

TEST_P(CommandLineRequest, IsSent) {
    const Request& row = GetParam();
    const Exchange exchange = converse(tool(row.words), Script().reply(row.code, row.reply));
    expectResult(exchange.tool, kOk, "", "");
    expectRequests(exchange, {{row.code, row.body}});
}

INSTANTIATE_TEST_SUITE_P(
    Words, CommandLineRequest,
    ::testing::Values(
        Request{"Dev", {"dev"}, kDevices, "", "{}"},  //
        Request{"DevList", {"dev", "list"}, kDevices, "", "{}"},
        Request{"DevListWithMoreWords", {"dev", "list", "foo", "-x", "--"}, kDevices, "", "{}"},
        Request{"Conn", {"conn"}, kConnections, "", "{}"},
        Request{"ConnList", {"conn", "list"}, kConnections, "", "{}"},
        Request{"ConnListWithMoreWords", {"conn", "list", "-p", "1"}, kConnections, "", "{}"},
        Request{"DevUnplug", {"dev", "unplug", "7"}, kUnplug, R"({"id":7})", kReplyOk},
        Request{"DevUnplugWord", {"dev", "unplug", "abc"}, kUnplug, R"({"id":0})", kReplyOk},
        Request{"DevUnplugEmptyWord", {"dev", "unplug", ""}, kUnplug, R"({"id":0})", kReplyOk},
        Request{"DevUnplugNumberWithMore", {"dev", "unplug", " 12x"}, kUnplug, R"({"id":12})", kReplyOk},
        Request{"DevUnplugLeadingZero", {"dev", "unplug", "010"}, kUnplug, R"({"id":10})", kReplyOk},
        Request{"DevUnplugHexadecimal", {"dev", "unplug", "0x10"}, kUnplug, R"({"id":0})", kReplyOk},
        Request{"DevUnplugHelp", {"dev", "unplug", "--help"}, kUnplug, R"({"id":0})", kReplyOk},
        Request{"DevUnplugNegative", {"dev", "unplug", "-5"}, kUnplug, R"({"id":4294967291})", kReplyOk},
        Request{
            "DevUnplugLargest", {"dev", "unplug", "2147483647"}, kUnplug, R"({"id":2147483647})", kReplyOk},
        Request{"DevUnplugFurtherWords", {"dev", "unplug", "7", "8"}, kUnplug, R"({"id":7})", kReplyOk},
        // dev unplug takes no options, so "--" is its device id.
        Request{"DevUnplugDashes", {"dev", "unplug", "--", "7"}, kUnplug, R"({"id":0})", kReplyOk},
        Request{"ConnDrop", {"conn", "drop", "h"}, kDrop, R"({"host":"h"})", kReplyOk},
        Request{"ConnDropEmptyHost", {"conn", "drop", ""}, kDrop, R"({"host":""})", kReplyOk},
        Request{"ConnDropDash", {"conn", "drop", "-"}, kDrop, R"({"host":"-"})", kReplyOk},
        Request{"ConnDropFurtherWords", {"conn", "drop", "h", "i"}, kDrop, R"({"host":"h"})", kReplyOk},
        Request{"ConnDropAddress", {"conn", "drop", "fe80::1"}, kDrop, R"({"host":"fe80::1"})", kReplyOk},
        Request{"ConnDropQuotesAndUmlauts",
                {"conn", "drop", "\"h\\ü\n"},
                kDrop,
                "{\"host\":\"\\\"h\\\\ü\\n\"}",
                kReplyOk},
        Request{
            "ConnDropPort", {"conn", "drop", "-p", "80", "h"}, kDrop, R"({"host":"h","port":80})", kReplyOk},
        Request{"ConnDropPortAttached",
                {"conn", "drop", "-p80", "h"},
                kDrop,
                R"({"host":"h","port":80})",
                kReplyOk},
        Request{"ConnDropPortZero",
                {"conn", "drop", "-p", "0", "h"},
                kDrop,
                R"({"host":"h","port":0})",
                kReplyOk},
        Request{"ConnDropPortWord",
                {"conn", "drop", "-p", "x", "h"},
                kDrop,
                R"({"host":"h","port":0})",
                kReplyOk},
        Request{"ConnDropPortEmpty",
                {"conn", "drop", "-p", "", "h"},
                kDrop,
                R"({"host":"h","port":0})",
                kReplyOk},
        Request{"ConnDropPortLeadingZero",
                {"conn", "drop", "-p", "010", "h"},
                kDrop,
                R"({"host":"h","port":10})",
                kReplyOk},
        Request{"ConnDropPortTruncated",
                {"conn", "drop", "-p", "70000", "h"},
                kDrop,
                R"({"host":"h","port":4464})",
                kReplyOk},
        Request{"ConnDropPortLargest",
                {"conn", "drop", "-p", "65535", "h"},
                kDrop,
                R"({"host":"h","port":65535})",
                kReplyOk},
        Request{"ConnDropPortOneTooLarge",
                {"conn", "drop", "-p", "65536", "h"},
                kDrop,
                R"({"host":"h","port":0})",
                kReplyOk},
        Request{"ConnDropPortNegative",
                {"conn", "drop", "-p", "-1", "h"},
                kDrop,
                R"({"host":"h","port":65535})",
                kReplyOk},
        Request{"ConnDropLastPortWins",
                {"conn", "drop", "-p", "1", "-p", "2", "h"},
                kDrop,
                R"({"host":"h","port":2})",
                kReplyOk},
        // Options must come first: behind the host they are further words.
        Request{"ConnDropPortAfterTheHost",
                {"conn", "drop", "h", "-p", "80"},
                kDrop,
                R"({"host":"h"})",
                kReplyOk},
        Request{"ConnDropDashesEndOptions",
                {"conn", "drop", "-p", "80", "--", "-p"},
                kDrop,
                R"({"host":"-p","port":80})",
                kReplyOk},
        Request{"PrefAdd",
                {"pref", "add", "0A5C:4500", "grab_on_plug"},
                kAddPreferences,
                R"({"preferences":{"grab_on_plug":true},"hwid":"0a5c:4500"})",
                kReplyOk},
        Request{"PrefAddFurtherWords",
                {"pref", "add", "1", "grab_on_plug", "foo"},
                kAddPreferences,
                R"({"preferences":{"grab_on_plug":true},"hwid":"0001"})",
                kReplyOk},
        Request{"PrefRemove",
                {"pref", "remove", "1:2:3"},
                kRemovePreferences,
                R"({"hwid":"0001:0002:0003"})",
                kReplyOk},
        Request{"PrefRemoveFurtherWords",
                {"pref", "remove", "A", "zz"},
                kRemovePreferences,
                R"({"hwid":"000a"})",
                kReplyOk}),
    [](const auto& row) { return std::string(row.param.name); });

struct TestWords {
    const char* name;
    Words words;
    const char* body;
};

void PrintTo(const TestWords& row, std::ostream* out) {
    *out << row.name;
}

class CommandLineRuleTest : public ::testing::TestWithParam<TestWords> {};

TEST_P(CommandLineRuleTest, IsSentAfterTheStart) {
    Script script;
    script.reply(kStart, kReplyOk).reply(kTest, R"({"status":"ok","verdict":"share"})");
    const Exchange exchange = converse(tool(GetParam().words), script);
    expectResult(exchange.tool, kOk, "share\n", "");
    expectRequests(exchange, {{kStart, ""}, {kTest, GetParam().body}});
}

INSTANTIATE_TEST_SUITE_P(
    Words, CommandLineRuleTest,
    ::testing::Values(
        TestWords{"Host", {"rule", "test", "-h", "a", "5"}, R"({"id":5,"type":"net","addr":"a"})"},
        TestWords{"HostAttached", {"rule", "test", "-ha", "5"}, R"({"id":5,"type":"net","addr":"a"})"},
        TestWords{"HostEmpty", {"rule", "test", "-h", "", "5"}, R"({"id":5,"type":"net","addr":""})"},
        TestWords{"Remote", {"rule", "test", "-r", "5"}, R"({"id":5,"type":"rdesk"})"},
        TestWords{"RemoteAfterHost", {"rule", "test", "-h", "a", "-r", "5"}, R"({"id":5,"type":"rdesk"})"},
        TestWords{
            "HostAfterRemote", {"rule", "test", "-r", "-h", "a", "5"}, R"({"id":5,"type":"net","addr":"a"})"},
        TestWords{"FlagsInOneGroup", {"rule", "test", "-rha", "5"}, R"({"id":5,"type":"net","addr":"a"})"},
        TestWords{"RemoteTwiceInOneGroup", {"rule", "test", "-rr", "5"}, R"({"id":5,"type":"rdesk"})"},
        TestWords{"LastHostWins",
                  {"rule", "test", "-h", "a", "-h", "b", "5"},
                  R"({"id":5,"type":"net","addr":"b"})"},
        TestWords{"OptionAsHost", {"rule", "test", "-h", "-r", "5"}, R"({"id":5,"type":"net","addr":"-r"})"},
        TestWords{
            "DashesEndOptions", {"rule", "test", "-r", "--", "-5"}, R"({"id":4294967291,"type":"rdesk"})"},
        TestWords{
            "WordsAfterTheDevice", {"rule", "test", "-r", "5", "-h", "a"}, R"({"id":5,"type":"rdesk"})"},
        TestWords{
            "DeviceLargest", {"rule", "test", "-r", "2147483647"}, R"({"id":2147483647,"type":"rdesk"})"},
        TestWords{"DeviceThatIsNoNumber", {"rule", "test", "-r", "abc"}, R"({"id":0,"type":"rdesk"})"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(CommandLine, InvalidHardwareIdEndsWithoutUsage) {
    for (const Words& words : {Words{"pref", "add", "zz", "grab_on_plug"}, Words{"pref", "add", "zz", "foo"},
                               Words{"pref", "remove", "zz"}, Words{"pref", "remove", "--", "1"}}) {
        const Exchange exchange = converse(tool(words), Script());
        expectResult(exchange.tool, kIo, "", "Error: cannot get hardware Id.\n");
        expectNoContact(exchange);
    }
}

TEST(CommandLine, WordsAfterMonitorAreIgnored) {
    const Exchange exchange = converse(tool({"monitor", "-h", "--help"}), Script().close());
    expectResult(exchange.tool, kIo, "", kTerminated);
    expectRequests(exchange, {});
}

TEST(CommandLine, EnvironmentDoesNotChangeHowOptionsAreRead) {
    Command command = tool({"conn", "drop", "h", "-p", "80"});
    command.environment["POSIXLY_CORRECT"] = "1";
    expectRequests(converse(command, Script().reply(kDrop, kReplyOk)), {{kDrop, R"({"host":"h"})"}});
}

// The text would not survive the way to the daemon: the request is not sent, and the tool waits on.
TEST(CommandLine, HostThatIsNotUtf8IsNotSent) {
    FakeDaemon daemon(Script().hold().close());
    Process process(tool({"conn", "drop", "h\xff"}));
    EXPECT_TRUE(process.waitForErr("cannot allocate object for request"));
    daemon.release();
    const Exchange exchange = finish(process, daemon);
    expectResult(exchange.tool, kIo, "", std::string("cannot allocate object for request") + kTerminated);
    expectRequests(exchange, {});
}

TEST(CommandLine, TestedHostThatIsNotUtf8IsAnInternalError) {
    const Exchange exchange =
        converse(tool({"rule", "test", "-h", "\xc3", "5"}), Script().reply(kStart, kReplyOk));
    expectResult(exchange.tool, kIo, "", std::string("cannot allocate string for request") + kInternalError);
    expectRequests(exchange, {{kStart, ""}});
}

}  // namespace
}  // namespace cli
