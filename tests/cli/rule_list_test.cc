// rule and rule list: the daemon's rules as numbered or plain text.
#include <gtest/gtest.h>

#include "cli/cli_support.h"

namespace cli {
namespace {

Exchange list(const Words& words, std::string_view reply) {
    return converse(tool(words), Script().reply(kStart, kReplyOk).reply(kRules, reply));
}

struct Row {
    const char* name;
    std::string reply;
    int status;
    std::string out;  ///< with rule numbers
    const char* err;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

Row one(const char* name, const std::string& members, const std::string& text) {
    const std::string record = R"({"action":"share")" + (members.empty() ? "" : "," + members) + "}";
    return {name, R"({"rules":[)" + record + "]}", kOk, "1: share" + text + "\n", ""};
}

class RuleList : public ::testing::TestWithParam<Row> {};

TEST_P(RuleList, IsPrinted) {
    const Exchange exchange = list({"rule", "list"}, GetParam().reply);
    expectResult(exchange.tool, GetParam().status, GetParam().out, GetParam().err);
    expectRequests(exchange, {{kStart, ""}, {kRules, ""}});
}

INSTANTIATE_TEST_SUITE_P(
    Replies, RuleList,
    ::testing::Values(
        Row{"EmptyArray", R"({"rules":[]})", kOk, "", ""},
        Row{"StatusText", R"({"status":"auth","rules":[]})", kIo, "", kInternalError},
        Row{"StatusOk", R"({"status":"ok","rules":[]})", kIo, "", kInternalError},
        Row{"StatusThatIsNoText", R"({"status":5,"rules":[{"action":"block"}]})", kOk, "1: block\n", ""},
        Row{"NoRules", "{}", kIo, "", "Rule list format error.\n"},
        Row{"RulesIsAnObject", R"({"rules":{}})", kIo, "", "Rule list format error.\n"},
        Row{"RulesIsNull", R"({"rules":null})", kIo, "", "Rule list format error.\n"},
        Row{"UnusableElementsKeepTheirNumbers",
            R"({"rules":[{"action":"share"},7,{"action":"block"},{"action":1},{"quick":true},null,{"action":"x y"}]})",
            kOk, "1: share\n3: block\n7: x y\n", ""}),
    [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Clauses, RuleList,
    ::testing::Values(
        one("ActionAlone", "", ""), one("Quick", R"("quick":true)", " quick"),
        one("QuickFalse", R"("quick":false)", " "), one("QuickText", R"("quick":"true")", ""),
        one("Hosts", R"("host":["a","b c"])", R"( host "a,b c")"),
        one("HostsWithOtherElements", R"("host":[1,"a",null,"b",2])", R"( host "a,b")"),
        one("HostsEmpty", R"("host":[])", R"( host "")"),
        one("HostsNegated", R"("host":["a"],"notHost":true)", R"( !host "a")"),
        one("HostsBeforeRemote", R"("host":["a"],"rdesk":true)", R"( host "a")"),
        one("HostThatIsNoArray", R"("host":"a","rdesk":false)", " !rdesk"),
        one("Remote", R"("rdesk":true)", " rdesk"), one("RemoteFalse", R"("rdesk":false)", " !rdesk"),
        one("NameIs", R"("name":"K","nameMatch":"is")", R"( name is "K")"),
        one("NameContains", R"("name":"K","nameMatch":"contains","notName":true)", R"( !name contains "K")"),
        one("NameWithoutMatch", R"("name":"K")", ""),
        one("NameWithAnotherMatch", R"("name":"K","nameMatch":"Is")", ""),
        one("BuiltIn", R"("built-in":true)", " built-in"),
        one("BuiltInFalse", R"("built-in":false)", " !built-in"),
        one("Vendor", R"("vid":1133)", " hwid 046d"),
        one("VendorAndProduct", R"("vid":1133,"pid":1)", " hwid 046d:0001"),
        one("VendorProductRevision", R"("vid":1133,"pid":1,"rev":256,"notHWID":true)",
            " !hwid 046d:0001:0100"),
        one("ProductWithoutVendor", R"("pid":1,"rev":2)", ""),
        one("RevisionWithoutProduct", R"("vid":1133,"rev":2)", " hwid 046d"),
        one("VendorTruncated", R"("vid":65537)", " hwid 0001"),
        one("Serial", R"("serial":"a b","notSerial":true)", R"( !serial "a b")"),
        one("Port", R"("port":"1-2")", " port 1-2"),
        one("PortNegated", R"("port":"1-2","notPort":true)", " !port 1-2"),
        one("Class", R"("class":3)", " class 03"), one("ClassTruncated", R"("class":511)", " class ff"),
        one("Subclass", R"("class":3,"subclass":511)", " class 03:1ff"),
        one("Protocol", R"("class":3,"subclass":1,"protocol":1,"notClass":true)", " !class 03:01:01"),
        one("SubclassWithoutClass", R"("subclass":1,"protocol":1)", ""),
        one("Overrides", R"("override-name":"N","override-serial":"S")",
            R"( override-name "N" override-serial "S")"),
        one("Takeaway", R"("takeaway":true)", " takeaway"), one("TakeawayFalse", R"("takeaway":false)", " "),
        one("NegationFalse", R"("port":"1","notPort":false)", " port 1"),
        one("NegationText", R"("port":"1","notPort":"true")", " port 1"),
        one("NegationNumber", R"("port":"1","notPort":2)", " !port 1"),
        one("NothingIsEscaped", R"("serial":"a\"b\\c\n%s","port":"!x")", " serial \"a\"b\\c\n%s\" port !x"),
        one("OrderIsFixed",
            R"("takeaway":true,"class":3,"port":"p","serial":"s","vid":1,"built-in":true,"nameMatch":"is",)"
            R"("name":"n","host":["h"],"quick":true)",
            R"( quick host "h" name is "n" built-in hwid 0001 serial "s" port p class 03 takeaway)")),
    [](const auto& row) { return std::string(row.param.name); });

constexpr char kTwoRules[] = R"({"rules":[{"action":"share"},1,{"action":"block","quick":true}]})";

TEST(RuleListOptions, FirstWordAloneIsNumbered) {
    const Exchange exchange = list({"rule"}, kTwoRules);
    expectResult(exchange.tool, kOk, "1: share\n3: block quick\n", "");
    expectRequests(exchange, {{kStart, ""}, {kRules, ""}});
}

TEST(RuleListOptions, WithoutIndex) {
    expectResult(list({"rule", "list", "-N"}, kTwoRules).tool, kOk, "share\nblock quick\n", "");
}

TEST(RuleListOptions, WithoutIndexTwiceInOneGroup) {
    expectResult(list({"rule", "list", "-NN"}, kTwoRules).tool, kOk, "share\nblock quick\n", "");
}

TEST(RuleListOptions, AfterAWordAreIgnored) {
    expectResult(list({"rule", "list", "foo", "-N"}, kTwoRules).tool, kOk, "1: share\n3: block quick\n", "");
}

TEST(RuleListOptions, AfterTheirEndAreIgnored) {
    expectResult(list({"rule", "list", "--", "-N"}, kTwoRules).tool, kOk, "1: share\n3: block quick\n", "");
}

TEST(RuleListFrames, OfOtherCodesAreIgnored) {
    Script script;
    script.sendFrame(kDevices, "{}")
        .receive()
        .sendFrame(kEnd, R"({"status":"auth"})")
        .sendFrame(kStart, kReplyOk);
    script.receive()
        .sendFrame(kLoad, "{}")
        .sendFrame(kRulesChanged, "{}")
        .sendFrame(kRules, R"({"rules":[]})");
    const Exchange exchange = converse(tool({"rule"}), script);
    expectResult(exchange.tool, kOk, "", "");
    expectRequests(exchange, {{kStart, ""}, {kRules, ""}});
}

TEST(RuleListFrames, HundredThousandRules) {
    constexpr int kCount = 100'000;
    std::string reply = R"({"rules":[)";
    std::string out;
    for (int number = 1; number <= kCount; ++number) {
        reply += (number == 1 ? "" : ",") + std::string(R"({"action":"block","vid":1,"pid":2})");
        out += std::to_string(number) + ": block hwid 0001:0002\n";
    }
    const Exchange exchange = list({"rule"}, reply + "]}");
    EXPECT_EQ(kOk, exchange.tool.status);
    EXPECT_TRUE(exchange.tool.out == out) << exchange.tool.out.size() << " bytes instead of " << out.size();
}

}  // namespace
}  // namespace cli
