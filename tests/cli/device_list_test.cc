// The device table as it appears on standard output.
#include <gtest/gtest.h>

#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "cli/cli_support.h"

namespace cli {
namespace {

constexpr char kHeading[] = "ID\tVID: PID: REV\tPort\tDevice name and status\n";
constexpr char kHeadingOneTab[] = "ID\tVID: PID: REV\tPort\t\tDevice name and status\n";
constexpr char kHeadingTwoTabs[] = "ID\tVID: PID: REV\tPort\t\t\tDevice name and status\n";

// A device with the members every row needs; `more` adds members or replaces them.
std::string device(const std::string& port, const std::string& more = "", const std::string& leftOut = "") {
    boost::json::object members = {{"id", 1},       {"vid", 1133},       {"pid", 49948},
                                   {"rev", 256},    {"port", port},      {"built-in", false},
                                   {"name", "Kbd"}, {"state", "shared"}, {"serial", ""}};
    const boost::json::value added = boost::json::parse("{" + more + "}");
    for (const auto& member : added.as_object()) {
        members[member.key()] = member.value();
    }
    members.erase(leftOut);
    return boost::json::serialize(members);
}

std::string listOf(std::initializer_list<std::string> devices) {
    std::string text = R"({"devices":[)";
    for (const std::string& one : devices) {
        text += (text.back() == '[' ? "" : ",") + one;
    }
    return text + "]}";
}

struct Row {
    const char* name;
    std::string reply;
    std::string out;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

class DevList : public ::testing::TestWithParam<Row> {};

TEST_P(DevList, IsPrinted) {
    const Exchange exchange = converse(tool({"dev", "list"}), Script().reply(kDevices, GetParam().reply));
    expectResult(exchange.tool, kOk, GetParam().out, "");
    expectRequests(exchange, {{kDevices, ""}});
}

constexpr char kBegin[] = "1\t046d:c31c:0100\t";

// One device on a port of three bytes.
Row one(const char* name, const std::string& more, const std::string& half) {
    return {name, listOf({device("1-2", more)}), std::string(kHeading) + kBegin + "1-2\t" + half + "\n"};
}

// A device that is left out, between two that are not.
Row skipped(const char* name, const std::string& element) {
    const std::string good = std::string(kBegin) + "1-2\tKbd /shared/\n";
    return {name, listOf({device("1-2"), element, device("1-2")}), kHeading + good + good};
}

std::string without(const std::string& member) {
    return device("1-2", "", member);
}

INSTANTIATE_TEST_SUITE_P(Nothing, DevList,
                         ::testing::Values(Row{"NoDevices", "{}", ""},  //
                                           Row{"DevicesIsAnObject", R"({"devices":{}})", ""},
                                           Row{"DevicesIsAString", R"({"devices":"none"})", ""},
                                           Row{"DevicesIsNull", R"({"devices":null})", ""},
                                           Row{"StatusAlone", R"({"status":"auth"})", ""},
                                           Row{"EmptyArray", R"({"devices":[]})", kHeading},
                                           Row{"StatusIsNotLookedAt", R"({"status":"auth","devices":[]})",
                                               kHeading}),
                         [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Status, DevList,
    ::testing::Values(
        one("Plain", "", "Kbd /shared/"), one("Serial", R"("serial":"A1")", "Kbd /shared, A1/"),
        one("SerialIsANumber", R"("serial":5)", "Kbd /shared/"),
        one("SerialIsNull", R"("serial":null)", "Kbd /shared/"),
        one("BuiltIn", R"("built-in":true)", "Kbd /built-in, shared/"),
        one("BuiltInAsNumber", R"("built-in":1)", "Kbd /built-in, shared/"),
        one("BuiltInZero", R"("built-in":0)", "Kbd /shared/"),
        one("BuiltInWithSerial", R"("built-in":true,"serial":"A1")", "Kbd /built-in, shared, A1/"),
        one("Address", R"("addr":"10.0.0.5")", "Kbd /shared@10.0.0.5/"),
        one("AddressEmpty", R"("addr":"")", "Kbd /shared@/"),
        one("Application", R"("app":"/opt/bin/Foo","appPID":512)", "Kbd /shared@Foo(512)/"),
        one("ApplicationWithoutPid", R"("app":"/opt/bin/Foo")", "Kbd /shared@Foo(0)/"),
        one("ApplicationWithoutDirectory", R"("app":"Foo","appPID":1)", "Kbd /shared@Foo(1)/"),
        one("ApplicationWithTrailingSlash", R"("app":"/opt/Foo.app/","appPID":1)", "Kbd /shared@Foo.app(1)/"),
        one("PidWithoutApplication", R"("appPID":512)", "Kbd /shared/"),
        // Only the product id is looked at: a process id of any type passes.
        one("PidOfAnotherType", R"("app":"/opt/Foo","appPID":"512")", "Kbd /shared@Foo(0)/"),
        one("PidLarge", R"("app":"Foo","appPID":4294967295)", "Kbd /shared@Foo(4294967295)/"),
        one("Everything", R"("built-in":true,"addr":"h","app":"/a/B","appPID":2,"serial":"S")",
            "Kbd /built-in, shared@h@B(2), S/"),
        one("FormatsAreText", R"("name":"%s%n","state":"%d","serial":"%u","addr":"%x")", "%s%n /%d@%x, %u/"),
        one("Unicode", R"("name":"Клавиатура","state":"\u00fcber")", "Клавиатура /über/"),
        one("EmptyNameAndState", R"("name":"","state":"")", " //")),
    [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Identity, DevList,
    ::testing::Values(Row{"Zeros", listOf({device("1-2", R"("id":0,"vid":0,"pid":0,"rev":0)")}),
                          std::string(kHeading) + "0\t0000:0000:0000\t1-2\tKbd /shared/\n"},
                      Row{"WiderThanFourDigits",
                          listOf({device("1-2",
                                         R"("id":4294967295,"vid":65536,"pid":4294967295,"rev":1048575)")}),
                          std::string(kHeading) + "4294967295\t10000:ffffffff:fffff\t1-2\tKbd /shared/\n"},
                      Row{"BooleansAreNumbers", listOf({device("1-2", R"("id":true,"vid":false)")}),
                          std::string(kHeading) + "1\t0000:c31c:0100\t1-2\tKbd /shared/\n"}),
    [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Skipped, DevList,
    ::testing::Values(skipped("NotAnObject", "7"), skipped("Null", "null"), skipped("Array", "[]"),
                      skipped("EmptyObject", "{}"), skipped("NoId", without("id")),
                      skipped("NoVid", without("vid")), skipped("NoPid", without("pid")),
                      skipped("NoRev", without("rev")), skipped("NoBuiltIn", without("built-in")),
                      skipped("NoPort", without("port")), skipped("NoSerial", without("serial")),
                      skipped("NoName", without("name")), skipped("NoState", without("state")),
                      skipped("IdIsAString", device("1-2", R"("id":"1")")),
                      skipped("VidIsAString", device("1-2", R"("vid":"046d")")),
                      skipped("PidIsNull", device("1-2", R"("pid":null)")),
                      skipped("RevIsAnArray", device("1-2", R"("rev":[1])")),
                      skipped("BuiltInIsAString", device("1-2", R"("built-in":"true")")),
                      skipped("PortIsANumber", device("1-2", R"("port":12)")),
                      skipped("NameIsANumber", device("1-2", R"("name":1)")),
                      skipped("StateIsTrue", device("1-2", R"("state":true)")),
                      skipped("AddressIsANumber", device("1-2", R"("addr":1)")),
                      skipped("AddressIsNull", device("1-2", R"("addr":null)")),
                      skipped("ApplicationIsANumber", device("1-2", R"("app":1)")),
                      skipped("ApplicationIsNull", device("1-2", R"("app":null)"))),
    [](const auto& row) { return std::string(row.param.name); });

// A row whose port is `port`, padded with so many tabs.
std::string line(const std::string& port, std::size_t tabs) {
    return kBegin + port + "\t" + std::string(tabs, '\t') + "Kbd /shared/\n";
}

Row ports(const char* name, const std::string& heading, const std::string& first, std::size_t firstTabs,
          const std::string& second, std::size_t secondTabs) {
    return {name, listOf({device(first), device(second)}),
            heading + line(first, firstTabs) + line(second, secondTabs)};
}

const std::string kFive = "12345";
const std::string kSeven = "1234567";
const std::string kEight = "12345678";
const std::string kNine = "123456789";
const std::string kFifteen = "123456789012345";
const std::string kSixteen = "1234567890123456";
const std::string kTwentyThree = "12345678901234567890123";
const std::string kTwentyFour = "123456789012345678901234";

INSTANTIATE_TEST_SUITE_P(
    Width, DevList,
    ::testing::Values(ports("BothShort", kHeading, "1-2", 0, kSeven, 0),
                      ports("EightBytes", kHeading, "1-2", 1, kEight, 0),
                      ports("NineBytes", kHeading, "1-2", 1, kNine, 0),
                      ports("FifteenBytes", kHeading, kNine, 0, kFifteen, 0),
                      ports("SixteenBytes", kHeadingOneTab, "1-2", 2, kSixteen, 0),
                      ports("SixteenAndNineBytes", kHeadingOneTab, kNine, 1, kSixteen, 0),
                      ports("TwentyThreeBytes", kHeadingOneTab, kFive, 2, kTwentyThree, 0),
                      ports("TwentyFourBytes", kHeadingTwoTabs, kFive, 3, kTwentyFour, 0),
                      // Bytes count, not characters.
                      ports("TwoByteCharacters", kHeading, "1-2", 1, "öööö", 0),
                      ports("EmptyPort", kHeading, "", 1, kEight, 0),
                      ports("Duplicates", kHeading, "1-2", 0, "1-2", 0),
                      // The width counts elements that are not printed.
                      Row{"OfASkippedElement", listOf({device("1-2"), R"({"port":"1234567890123456"})"}),
                          kHeadingOneTab + line("1-2", 2)}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(DevListOrder, IsTheDaemons) {
    const std::string reply =
        listOf({device("9", R"("id":9)"), device("1", R"("id":1)"), device("5", R"("id":5)")});
    const std::string rest = "\tKbd /shared/\n";
    expectResult(converse(tool({"dev"}), Script().reply(kDevices, reply)).tool, kOk,
                 kHeading + ("9\t046d:c31c:0100\t9" + rest) + ("1\t046d:c31c:0100\t1" + rest) +
                     ("5\t046d:c31c:0100\t5" + rest),
                 "");
}

// Members may stand anywhere, and each device may have others than the one before it.
TEST(DevListOrder, OfMembersDoesNotMatter) {
    const std::string reply = listOf(
        {R"({"serial":"A","state":"s","name":"n","built-in":true,"port":"1","rev":3,"pid":2,"vid":1,"id":7})",
         R"({"id":8,"vid":1,"pid":2,"rev":3,"port":"2","built-in":false,"name":"n","state":"s","serial":""})",
         R"({"addr":"h","id":9,"app":"/x/Y","vid":1,"more":{},"pid":2,"rev":3,"port":"3","built-in":false,)"
         R"("name":"n","appPID":4,"state":"s","serial":"B"})",
         R"({"id":10,"vid":1,"pid":2,"rev":3,"prot":"no","port":"4","built-in":false,"nome":"m","name":"n",)"
         R"("state":"s","serial":"","adde":"x"})",
         R"({"id":11,"pid":2,"vid":1,"rev":3,"built-in":false,"port":"5","state":"n","name":"s","serial":"C"})"});
    expectResult(converse(tool({"dev"}), Script().reply(kDevices, reply)).tool, kOk,
                 std::string(kHeading) +
                     "7\t0001:0002:0003\t1\tn /built-in, s, A/\n"
                     "8\t0001:0002:0003\t2\tn /s/\n"
                     "9\t0001:0002:0003\t3\tn /s@h@Y(4), B/\n"
                     "10\t0001:0002:0003\t4\tn /s/\n"
                     "11\t0001:0002:0003\t5\ts /n, C/\n",
                 "");
}

TEST(DevListOrder, FramesOfOtherCodesAreIgnored) {
    Script script;
    script.sendFrame(kConnections, R"({"devices":[1]})").sendFrame(kDeviceEvent, "{}").receive();
    script.sendFrame(kRulesChanged, "{}")
        .sendFrame(kDevices, listOf({}))
        .sendFrame(kDevices, listOf({device("1")}));
    expectResult(converse(tool({"dev"}), script).tool, kOk, kHeading, "");
}

TEST(DevListOrder, HundredThousandDevices) {
    constexpr int kCount = 100'000;
    std::string reply = R"({"devices":[)";
    std::string out = kHeading;
    for (int id = 0; id < kCount; ++id) {
        const std::string number = std::to_string(id);
        reply += (id == 0 ? "" : ",") + device("1-2", R"("id":)" + number);
        out += number + "\t046d:c31c:0100\t1-2\tKbd /shared/\n";
    }
    const Exchange exchange = converse(tool({"dev"}), Script().reply(kDevices, reply + "]}"));
    EXPECT_EQ(kOk, exchange.tool.status);
    EXPECT_EQ("", exchange.tool.err);
    EXPECT_TRUE(exchange.tool.out == out) << exchange.tool.out.size() << " bytes instead of " << out.size();
}

}  // namespace
}  // namespace cli
