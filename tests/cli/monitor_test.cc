// Events as they are printed, one line each, while the connection stands.
#include <gtest/gtest.h>
#include <signal.h>
#include <time.h>

#include "cli/cli_support.h"

namespace cli {
namespace {

constexpr char kInvalidData[] = "invalid data\n";
constexpr std::size_t kStampBytes = std::string_view("[Sun Nov 15 23:33:10 2026]:").size();

// Each line without its stamp, which must look like one. Lines end with a newline, the last one too.
std::vector<std::string> withoutStamps(const std::string& out) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < out.size();) {
        std::size_t end = out.find('\n', begin);
        EXPECT_NE(std::string::npos, end) << out.substr(begin);
        end = end == std::string::npos ? out.size() : end;
        const std::string line = out.substr(begin, end - begin);
        EXPECT_TRUE(line.starts_with("[") && line.size() >= kStampBytes &&
                    line.substr(kStampBytes - 2, 2) == "]:")
            << line;
        lines.push_back(line.size() < kStampBytes ? line : line.substr(kStampBytes));
        begin = end + 1;
    }
    return lines;
}

struct Event {
    const char* name;
    std::uint32_t code;
    const char* body;
    const char* line;  ///< null: nothing is printed
};

void PrintTo(const Event& row, std::ostream* out) {
    *out << row.name;
}

class MonitorEvent : public ::testing::TestWithParam<Event> {};

// The line arrives while the connection is open; nothing is ever sent.
TEST_P(MonitorEvent, IsPrintedAtOnce) {
    const Event& row = GetParam();
    FakeDaemon daemon(Script().sendFrame(row.code, row.body).sendFrame(kRulesChanged, "{}").hold().close());
    Process process(tool({"monitor"}));
    EXPECT_TRUE(process.waitForOut(" rule list changed\n"));
    EXPECT_TRUE(process.isRunning());
    daemon.release();
    const Exchange exchange = finish(process, daemon);
    EXPECT_EQ(kIo, exchange.tool.status);
    EXPECT_EQ(kTerminated, exchange.tool.err);
    std::vector<std::string> expected;
    if (row.line != nullptr) {
        expected.emplace_back(row.line);
    }
    expected.emplace_back(" rule list changed");
    EXPECT_EQ(expected, withoutStamps(exchange.tool.out));
    expectRequests(exchange, {});
}

INSTANTIATE_TEST_SUITE_P(
    Device, MonitorEvent,
    ::testing::Values(
        Event{"Plain", 4, R"({"id":7,"name":"Kbd","state":"shared"})", R"( device id:7 "Kbd" got shared)"},
        Event{"Address", 4, R"({"id":7,"name":"Kbd","state":"used","addr":"h"})",
              R"( device id:7 "Kbd" got used@h)"},
        Event{"AddressEmpty", 4, R"({"id":7,"name":"Kbd","state":"used","addr":""})",
              R"( device id:7 "Kbd" got used@)"},
        Event{"Application", 4, R"({"id":7,"name":"Kbd","state":"used","app":"/opt/bin/Foo","appPID":512})",
              R"( device id:7 "Kbd" got used@Foo(512))"},
        Event{"ApplicationWithoutPid", 4, R"({"id":7,"name":"Kbd","state":"used","app":"/opt/bin/Foo"})",
              R"( device id:7 "Kbd" got used@Foo(0))"},
        Event{"AddressAndApplication", 4,
              R"({"id":7,"name":"Kbd","state":"used","addr":"h","app":"/Foo","appPID":1})",
              R"( device id:7 "Kbd" got used@h@Foo(1))"},
        Event{"PidAlone", 4, R"({"id":7,"name":"Kbd","state":"used","appPID":1})",
              R"( device id:7 "Kbd" got used)"},
        Event{"IdLarge", 4, R"({"id":4294967295,"name":"Kbd","state":"used"})",
              R"( device id:4294967295 "Kbd" got used)"},
        Event{"IdIsABoolean", 4, R"({"id":true,"name":"Kbd","state":"used"})",
              R"( device id:1 "Kbd" got used)"},
        Event{"QuotesInTheName", 4, R"({"id":7,"name":"a\"b","state":""})", R"( device id:7 "a"b" got )"},
        Event{"FormatsAreText", 4, R"({"id":7,"name":"%s%n","state":"%d"})", R"( device id:7 "%s%n" got %d)"},
        Event{"OtherMembers", 4, R"({"port":"x","id":7,"name":"Kbd","state":"used","status":1})",
              R"( device id:7 "Kbd" got used)"}),
    [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Connection, MonitorEvent,
    ::testing::Values(
        Event{"Host", 5, R"({"state":"up","addr":"h","port":80})", " host h:80 is up"},
        Event{"PortLarge", 5, R"({"state":"up","addr":"h","port":70000})", " host h:70000 is up"},
        Event{"HostBeforeApplication", 5, R"({"state":"up","addr":"h","port":80,"app":"/a/B","appPID":1})",
              " host h:80 is up"},
        Event{"Application", 5, R"({"state":"up","app":"/a/B","appPID":12})", " (12)/a/B is up"},
        Event{"AddressWithoutPortIsAnApplication", 5, R"({"state":"up","addr":"h","app":"/a/B","appPID":12})",
              " (12)/a/B is up"},
        Event{"PortWithoutAddressIsAnApplication", 5, R"({"state":"up","port":1,"app":"/a/B","appPID":12})",
              " (12)/a/B is up"},
        Event{"StateAlone", 5, R"({"state":"up"})", nullptr},
        Event{"AddressAlone", 5, R"({"state":"up","addr":"h"})", nullptr},
        Event{"ApplicationWithoutPid", 5, R"({"state":"up","app":"/a/B"})", nullptr},
        Event{"PidWithoutApplication", 5, R"({"state":"up","appPID":12})", nullptr}),
    [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(Other, MonitorEvent,
                         ::testing::Values(Event{"RuleList", 12, R"({"rules":5})", " rule list changed"},
                                           Event{"DeviceList", 0, R"({"devices":[]})", nullptr},
                                           Event{"StatusReply", 3, R"({"status":"notfound"})", nullptr},
                                           Event{"UnknownCode", 4'000'000'000, "{}", nullptr}),
                         [](const auto& row) { return std::string(row.param.name); });

struct BadEvent {
    const char* name;
    std::uint32_t code;
    const char* body;
};

void PrintTo(const BadEvent& row, std::ostream* out) {
    *out << row.name;
}

class MonitorInvalid : public ::testing::TestWithParam<BadEvent> {};

// What came before stays printed; nothing is printed for the event itself, nor for what follows.
TEST_P(MonitorInvalid, EndsTheTool) {
    Script script;
    script.sendFrame(kRulesChanged, "{}")
        .sendFrame(GetParam().code, GetParam().body)
        .sendFrame(kRulesChanged, "{}");
    const Exchange exchange = converse(tool({"monitor"}), script);
    EXPECT_EQ(kIo, exchange.tool.status);
    EXPECT_EQ(kInvalidData, exchange.tool.err);
    EXPECT_EQ(std::vector<std::string>{" rule list changed"}, withoutStamps(exchange.tool.out));
    expectRequests(exchange, {});
}

INSTANTIATE_TEST_SUITE_P(
    Device, MonitorInvalid,
    ::testing::Values(BadEvent{"Empty", 4, "{}"},  //
                      BadEvent{"NoId", 4, R"({"name":"n","state":"s"})"},
                      BadEvent{"IdIsAString", 4, R"({"id":"7","name":"n","state":"s"})"},
                      BadEvent{"IdIsNull", 4, R"({"id":null,"name":"n","state":"s"})"},
                      BadEvent{"NoName", 4, R"({"id":7,"state":"s"})"},
                      BadEvent{"NameIsANumber", 4, R"({"id":7,"name":1,"state":"s"})"},
                      BadEvent{"NoState", 4, R"({"id":7,"name":"n"})"},
                      BadEvent{"StateIsAnObject", 4, R"({"id":7,"name":"n","state":{}})"},
                      BadEvent{"AddressIsANumber", 4, R"({"id":7,"name":"n","state":"s","addr":1})"},
                      BadEvent{"AddressIsNull", 4, R"({"id":7,"name":"n","state":"s","addr":null})"},
                      BadEvent{"ApplicationIsTrue", 4, R"({"id":7,"name":"n","state":"s","app":true})"},
                      BadEvent{"PidIsAString", 4, R"({"id":7,"name":"n","state":"s","appPID":"1"})"},
                      BadEvent{"PidIsNull", 4, R"({"id":7,"name":"n","state":"s","app":"a","appPID":null})"}),
    [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Connection, MonitorInvalid,
    ::testing::Values(BadEvent{"Empty", 5, "{}"},  //
                      BadEvent{"NoState", 5, R"({"addr":"h","port":80})"},
                      BadEvent{"StateIsANumber", 5, R"({"state":1,"addr":"h","port":80})"},
                      BadEvent{"StateIsNull", 5, R"({"state":null})"},
                      BadEvent{"AddressIsANumber", 5, R"({"state":"s","addr":1,"port":80})"},
                      BadEvent{"AddressIsNull", 5, R"({"state":"s","addr":null})"},
                      BadEvent{"PortIsAString", 5, R"({"state":"s","addr":"h","port":"80"})"},
                      BadEvent{"PortIsNull", 5, R"({"state":"s","port":null})"},
                      BadEvent{"ApplicationIsAnArray", 5, R"({"state":"s","app":[],"appPID":1})"},
                      BadEvent{"PidIsAString", 5, R"({"state":"s","app":"a","appPID":"1"})"},
                      BadEvent{"PidIsWrongBesideAHost", 5,
                               R"({"state":"s","addr":"h","port":1,"appPID":[]})"}),
    [](const auto& row) { return std::string(row.param.name); });

struct Zone {
    const char* name;
    const char* value;  ///< of TZ
    long east;          ///< seconds
};

void PrintTo(const Zone& row, std::ostream* out) {
    *out << row.name;
}

class MonitorStamp : public ::testing::TestWithParam<Zone> {};

// The stamp is the local time between the moments before and after the event.
TEST_P(MonitorStamp, IsTheLocalTime) {
    FakeDaemon daemon(Script().hold().sendFrame(kRulesChanged, "{}").hold());
    Command command = tool({"monitor"});
    command.environment["TZ"] = GetParam().value;
    Process process(command);
    ASSERT_TRUE(daemon.waitForHold(1));
    const time_t before = time(nullptr);
    daemon.release();
    ASSERT_TRUE(process.waitForOut("\n"));
    const time_t after = time(nullptr);
    daemon.finish();
    const std::string out = process.wait().out;
    ASSERT_EQ(kStampBytes + std::string_view(" rule list changed\n").size(), out.size()) << out;
    tm fields{};
    const char* rest = strptime(out.c_str(), "[%a %b %e %H:%M:%S %Y]:", &fields);
    ASSERT_NE(nullptr, rest) << out;
    EXPECT_STREQ(" rule list changed\n", rest);
    const time_t stamp = timegm(&fields) - GetParam().east;
    EXPECT_LE(before, stamp);
    EXPECT_LE(stamp, after);
}

INSTANTIATE_TEST_SUITE_P(Zones, MonitorStamp,
                         ::testing::Values(Zone{"Utc", "UTC0", 0}, Zone{"West", "AAA+11:30", -41'400},
                                           Zone{"East", "BBB-13", 46'800}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Monitor, FurtherWordsAreIgnored) {
    const Exchange exchange = converse(tool({"monitor", "-x", "list", "--help"}), Script().close());
    expectResult(exchange.tool, kIo, "", kTerminated);
    expectRequests(exchange, {});
}

TEST(Monitor, LinesComeInTheOrderOfTheirFrames) {
    constexpr int kCount = 2000;
    Script script;
    std::string bytes;
    for (int id = 0; id < kCount; ++id) {
        bytes += fake::frame(4, R"({"name":"n","state":"s","id":)" + std::to_string(id) + "}");
    }
    const Exchange exchange = converse(tool({"monitor"}), script.send(bytes).drain().close());
    const std::vector<std::string> lines = withoutStamps(exchange.tool.out);
    ASSERT_EQ(static_cast<std::size_t>(kCount), lines.size());
    for (int id = 0; id < kCount; ++id) {
        ASSERT_EQ(" device id:" + std::to_string(id) + " \"n\" got s", lines[static_cast<std::size_t>(id)]);
    }
    EXPECT_EQ(kTerminated, exchange.tool.err);
}

// Each event in two pieces, cut one byte later every time.
TEST(Monitor, FramesSplitAtEveryByte) {
    const std::string event = fake::frame(5, R"({"state":"up","addr":"h","port":80})");
    Script script;
    for (std::size_t at = 1; at < event.size(); ++at) {
        script.send(event.substr(0, at)).drain().send(event.substr(at)).drain();
    }
    const Exchange exchange = converse(tool({"monitor"}), script.close());
    EXPECT_TRUE(exchange.scriptDone);
    EXPECT_EQ(std::vector<std::string>(event.size() - 1, " host h:80 is up"),
              withoutStamps(exchange.tool.out));
    EXPECT_EQ(kTerminated, exchange.tool.err);
}

TEST(Monitor, SignalEndsIt) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        FakeDaemon daemon(Script().sendFrame(kRulesChanged, "{}"));
        Process process(tool({"monitor"}));
        EXPECT_TRUE(process.waitForOut("changed\n"));
        process.kill(signal);
        const Exchange exchange = finish(process, daemon);
        EXPECT_EQ(signal, exchange.tool.signal);
        EXPECT_EQ("", exchange.tool.err);
        EXPECT_EQ(1U, withoutStamps(exchange.tool.out).size());
    }
}

// Nobody reads any more: the tool goes on until the connection ends.
TEST(Monitor, ReaderOfStandardOutputMayGoAway) {
    FakeDaemon daemon(Script().hold().sendFrame(kRulesChanged, "{}").sendFrame(4, "{}"));
    Process process(tool({"monitor"}));
    ASSERT_TRUE(daemon.waitForHold(1));
    process.closeOut();
    daemon.release();
    expectResult(finish(process, daemon).tool, kIo, "", kInvalidData);
}

}  // namespace
}  // namespace cli
