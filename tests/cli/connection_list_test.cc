// The connection table as it appears on standard output.
#include <gtest/gtest.h>

#include "cli/cli_support.h"

namespace cli {
namespace {

const std::string kHeading = "Type\tIP/Name\t\tPort/PID\n";

struct Row {
    const char* name;
    std::string reply;
    std::string out;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

Row one(const char* name, const std::string& element, const std::string& line) {
    return {name, R"({"connections":[)" + element + "]}", kHeading + line};
}

class ConnList : public ::testing::TestWithParam<Row> {};

TEST_P(ConnList, IsPrinted) {
    const Exchange exchange =
        converse(tool({"conn", "list"}), Script().reply(kConnections, GetParam().reply));
    expectResult(exchange.tool, kOk, GetParam().out, "");
    expectRequests(exchange, {{kConnections, ""}});
}

INSTANTIATE_TEST_SUITE_P(
    Replies, ConnList,
    ::testing::Values(
        Row{"NoConnections", "{}", ""},  //
        Row{"ConnectionsIsAnObject", R"({"connections":{}})", ""},
        Row{"ConnectionsIsNull", R"({"connections":null})", ""},
        Row{"StatusAlone", R"({"status":"auth"})", ""}, Row{"EmptyArray", R"({"connections":[]})", kHeading},
        Row{"StatusIsNotLookedAt", R"({"status":"auth","connections":[]})", kHeading},
        one("AddressOfEightBytes", R"({"addr":"10.0.0.5","port":80})", "net\t10.0.0.5\t80\n"),
        one("AddressOfSevenBytes", R"({"addr":"10.0.0.","port":80})", "net\t10.0.0.\t\t80\n"),
        one("AddressEmpty", R"({"addr":"","port":80})", "net\t\t\t80\n"),
        one("AddressInBytes", R"({"addr":"öööö","port":80})", "net\töööö\t80\n"),
        one("PortZero", R"({"addr":"h","port":0})", "net\th\t\t0\n"),
        one("PortTruncated", R"({"addr":"h","port":70000})", "net\th\t\t4464\n"),
        one("AddressWithoutPort", R"({"addr":"h"})", ""), one("PortWithoutAddress", R"({"port":1})", ""),
        one("EmptyElement", "{}", ""),
        one("Application", R"({"app":"/a/b","appPID":12})", "rdesk\tb\t\t12\n"),
        one("ApplicationPathOfSevenBytes", R"({"app":"/abcd/e","appPID":12})", "rdesk\te\t\t12\n"),
        // The length of the whole path decides, although only its end is printed.
        one("ApplicationPathOfEightBytes", R"({"app":"/abcd/ef","appPID":12})", "rdesk\tef\t12\n"),
        one("ApplicationPidLarge", R"({"app":"/a/b","appPID":4294967295})", "rdesk\tb\t\t4294967295\n"),
        one("ApplicationBeforeAddress", R"({"app":"/a/b","appPID":1,"addr":"h","port":2})",
            "rdesk\tb\t\t1\n"),
        one("ApplicationWithoutPidIsAnAddress", R"({"app":"/a/b","addr":"h","port":2})", "net\th\t\t2\n"),
        one("PidWithoutApplicationIsAnAddress", R"({"appPID":1,"addr":"h","port":2})", "net\th\t\t2\n"),
        one("ApplicationAlone", R"({"app":"/a/b"})", ""),
        one("ElementsThatAreNoObjects", R"(1,null,"x",[],{"addr":"h","port":2})", "net\th\t\t2\n"),
        one("OrderAndDuplicates",
            R"({"addr":"b","port":2},{"addr":"a","port":1},{"app":"/x","appPID":3},{"addr":"a","port":1})",
            "net\tb\t\t2\nnet\ta\t\t1\nrdesk\tx\t\t3\nnet\ta\t\t1\n"),
        one("MembersInAnyOrder",
            R"({"port":2,"addr":"b"},{"addr":"c","x":1,"port":3},{"appPID":4,"app":"/d"},{"addr":"e","port":5})",
            "net\tb\t\t2\nnet\tc\t\t3\nrdesk\td\t\t4\nnet\te\t\t5\n"),
        one("FormatsAreText", R"({"addr":"%s%n","port":1},{"app":"%d","appPID":2})",
            "net\t%s%n\t\t1\nrdesk\t%d\t\t2\n")),
    [](const auto& row) { return std::string(row.param.name); });

TEST(ConnListFrames, OfOtherCodesAreIgnored) {
    Script script;
    script.sendFrame(kDevices, R"({"connections":[]})").receive();
    script.sendFrame(kConnectionEvent, R"({"state":1})").sendFrame(kConnections, R"({"connections":[]})");
    expectResult(converse(tool({"conn"}), script).tool, kOk, kHeading, "");
}

TEST(ConnListFrames, HundredThousandConnections) {
    constexpr int kCount = 100'000;
    std::string reply = R"({"connections":[)";
    std::string out = kHeading;
    for (int index = 0; index < kCount; ++index) {
        const std::string host = "host-" + std::to_string(100'000 + index);
        reply += (index == 0 ? "" : ",") + (R"({"addr":")" + host) + R"(","port":443})";
        out += "net\t" + host + "\t443\n";
    }
    const Exchange exchange = converse(tool({"conn"}), Script().reply(kConnections, reply + "]}"));
    EXPECT_EQ(kOk, exchange.tool.status);
    EXPECT_TRUE(exchange.tool.out == out) << exchange.tool.out.size() << " bytes instead of " << out.size();
}

}  // namespace
}  // namespace cli
