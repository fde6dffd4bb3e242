#include "reports/event_monitor.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <string_view>

#include "ipc/command.h"
#include "unit/reports/report_output.h"

namespace {

struct Outcome {
    bool valid = false;
    std::string line;    ///< without the time stamp
    std::string stamp;   ///< up to and without the blank after it
    std::string errors;  ///< what went to standard error
};

Outcome monitorOne(std::int32_t command, std::string_view json) {
    Outcome outcome;
    testing::internal::CaptureStderr();
    const std::string text = printed(json, [&](const JsonObject& event, std::FILE* stream) {
        EventMonitor monitor(stream);
        outcome.valid = monitor.print(command, event);
    });
    outcome.errors = testing::internal::GetCapturedStderr();
    const std::size_t end = text.find("]: ");
    if (end != std::string::npos) {
        outcome.stamp = text.substr(0, end + 2);
        outcome.line = text.substr(end + 3);
    } else {
        outcome.line = text;
    }
    return outcome;
}

/// The line of a valid event.
std::string line(std::int32_t command, std::string_view json) {
    const Outcome outcome = monitorOne(command, json);
    EXPECT_TRUE(outcome.valid) << json;
    EXPECT_EQ(outcome.errors, "") << json;
    return outcome.line;
}

void expectInvalid(std::int32_t command, const char* json) {
    const Outcome outcome = monitorOne(command, json);
    EXPECT_FALSE(outcome.valid) << json;
    EXPECT_EQ(outcome.line, "") << json;
    EXPECT_EQ(outcome.errors, "invalid data\n") << json;
}

TEST(EventMonitor, DeviceEventForms) {
    const struct {
        const char* json;
        const char* expected;
    } rows[] = {
        {R"({"id":7,"name":"Key","state":"plugged"})", "device id:7 \"Key\" got plugged\n"},
        {R"({"id":7,"name":"Key","state":"used","addr":"pc1"})", "device id:7 \"Key\" got used@pc1\n"},
        {R"({"id":7,"name":"Key","state":"used","app":"/A/Foo"})", "device id:7 \"Key\" got used@Foo(0)\n"},
        {R"({"id":7,"name":"Key","state":"used","app":"/A/Foo","appPID":12})",
         "device id:7 \"Key\" got used@Foo(12)\n"},
        {R"({"id":7,"name":"Key","state":"used","addr":"pc1","app":"/A/Foo/","appPID":12})",
         "device id:7 \"Key\" got used@pc1@Foo(12)\n"},
        {R"({"id":7,"name":"Key","state":"used","appPID":12})", "device id:7 \"Key\" got used\n"},
        {R"({"id":-1,"name":"","state":""})", "device id:4294967295 \"\" got \n"},
        {R"({"id":true,"name":"a\"b","state":"s"})", "device id:1 \"a\"b\" got s\n"},
        {R"({"id":7,"name":"Key","state":"used","app":"","appPID":5})", "device id:7 \"Key\" got used@(5)\n"},
        {R"({"id":7,"name":"Key","state":"used","app":"/A/Foo","appPID":true})",
         "device id:7 \"Key\" got used@Foo(1)\n"},
        {R"({"id":7,"name":"a\tb\n\u001b\u00e4","state":"\u00fc\u0007","addr":"\u00e4\t","app":"/A/\u00fc\\\t"})",
         "device id:7 \"a\tb\n\x1b\xc3\xa4\" got \xc3\xbc\a@\xc3\xa4\t@\xc3\xbc\\\t(0)\n"},
        {R"({"id":7,"name":"K\u0000y","state":"u\u0000d","addr":"p\u0000c","app":"/A/F\u0000o/b"})",
         "device id:7 \"K\" got u@p@F(0)\n"},
    };
    for (const auto& [json, expected] : rows) {
        EXPECT_EQ(line(kCmdDeviceEvent, json), expected) << json;
    }
}

TEST(EventMonitor, MalformedDeviceEvents) {
    for (const char* json :
         {"{}", R"({"name":"n","state":"s"})", R"({"id":"7","name":"n","state":"s"})",
          R"({"id":null,"name":"n","state":"s"})", R"({"id":1,"state":"s"})",
          R"({"id":1,"name":2,"state":"s"})", R"({"id":1,"name":"n"})", R"({"id":1,"name":"n","state":[]})",
          R"({"id":1,"name":"n","state":"s","addr":1})", R"({"id":1,"name":"n","state":"s","addr":null})",
          R"({"id":1,"name":"n","state":"s","app":{}})",
          R"({"id":1,"name":"n","state":"s","app":"a","appPID":"1"})",
          R"({"id":1,"name":"n","state":"s","appPID":null})"}) {
        expectInvalid(kCmdDeviceEvent, json);
    }
}

TEST(EventMonitor, ConnectionEventForms) {
    const struct {
        const char* json;
        const char* expected;
    } rows[] = {
        {R"({"state":"connected","addr":"pc1","port":3333})", "host pc1:3333 is connected\n"},
        {R"({"state":"connected","addr":"pc1","port":-1})", "host pc1:4294967295 is connected\n"},
        {R"({"state":"connected","addr":"pc1","port":70000})", "host pc1:70000 is connected\n"},
        {R"({"state":"gone","app":"/A/Foo","appPID":5})", "(5)/A/Foo is gone\n"},
        {R"({"state":"gone","addr":"pc1","app":"/A/Foo","appPID":5})", "(5)/A/Foo is gone\n"},
        {R"({"state":"gone","port":1,"app":"/A/Foo","appPID":5})", "(5)/A/Foo is gone\n"},
        {R"({"state":"gone","addr":"pc1","port":1,"app":"/A/Foo","appPID":5})", "host pc1:1 is gone\n"},
        {R"({"state":"gone","app":"/A/Foo","appPID":4294967295})", "(4294967295)/A/Foo is gone\n"},
        {R"({"state":"","addr":"","port":0,"app":"/A/Foo","appPID":5})", "host :0 is \n"},
        {R"({"state":"gone","app":"","appPID":0})", "(0) is gone\n"},
        {R"({"state":"gone","addr":"pc1","port":true})", "host pc1:1 is gone\n"},
        {R"({"state":"gone","app":"/A/Foo","appPID":true})", "(1)/A/Foo is gone\n"},
        {R"({"state":"\u00fc\t","addr":"\u00e4\n","port":1})", "host \xc3\xa4\n:1 is \xc3\xbc\t\n"},
        {R"({"state":"s\u0000t","addr":"p\u0000c","port":1})", "host p:1 is s\n"},
        {R"({"state":"s","app":"/\u00e4\t/F\u0000o","appPID":1})", "(1)/\xc3\xa4\t/F is s\n"},
        {R"({"state":"s"})", ""},
        {R"({"state":"s","addr":"pc1"})", ""},
        {R"({"state":"s","app":"/A/Foo"})", ""},
        {R"({"state":"s","appPID":5})", ""},
    };
    for (const auto& [json, expected] : rows) {
        EXPECT_EQ(line(kCmdConnectionEvent, json), expected) << json;
    }
}

TEST(EventMonitor, MalformedConnectionEvents) {
    for (const char* json : {"{}", R"({"state":1})", R"({"state":null})", R"({"state":"s","addr":1})",
                             R"({"state":"s","port":"1"})", R"({"state":"s","port":null})",
                             R"({"state":"s","app":1})", R"({"state":"s","appPID":"1"})"}) {
        expectInvalid(kCmdConnectionEvent, json);
    }
}

TEST(EventMonitor, RuleListEvent) {
    EXPECT_EQ(line(kCmdRuleListEvent, R"({"anything":1})"), "rule list changed\n");
}

TEST(EventMonitor, OtherCodesPrintNothing) {
    for (const std::int32_t command : {-1, 0, 1, 2, 3, 6, 7, 11, 13, 19, 1000}) {
        EXPECT_EQ(line(command, R"({"state":1})"), "") << command;
    }
}

TEST(EventMonitor, StampIsTheLocalTimeInBracketsWithAColon) {
    ASSERT_EQ(setenv("TZ", "XYZ-5:30", 1), 0);
    tzset();
    const std::time_t before = std::time(nullptr);
    const Outcome outcome = monitorOne(kCmdRuleListEvent, "{}");
    const std::time_t after = std::time(nullptr);
    // Whatever second the event fell in, its stamp is that of one second from before to after.
    bool found = false;
    for (std::time_t second = before; second <= after; ++second) {
        std::tm local{};
        char text[64] = {};
        ASSERT_NE(localtime_r(&second, &local), nullptr);
        ASSERT_NE(std::strftime(text, sizeof text, "[%a %b %e %H:%M:%S %Y]:", &local), 0U);
        found = found || outcome.stamp == text;
    }
    EXPECT_TRUE(found) << outcome.stamp;
}

TEST(EventMonitor, OneMonitorPrintsManyEventsInOrder) {
    ReplyDecoder decoder;
    ASSERT_EQ(decoder.decode(R"({"id":7,"name":"Key","state":"plugged"})"), DecodeResult::kObject);
    const std::string text = printed("{}", [&](const JsonObject& empty, std::FILE* stream) {
        EventMonitor monitor(stream);
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, empty));
        EXPECT_TRUE(monitor.print(kCmdDeviceEvent, decoder.object()));
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, empty));
    });
    const char* const lines[] = {"rule list changed", "device id:7 \"Key\" got plugged", "rule list changed"};
    std::istringstream input(text);
    std::string printedLine;
    for (const char* expected : lines) {
        ASSERT_TRUE(std::getline(input, printedLine)) << text;
        const std::size_t end = printedLine.find("]: ");
        ASSERT_NE(end, std::string::npos) << printedLine;
        EXPECT_EQ(printedLine.front(), '[');
        EXPECT_EQ(printedLine.substr(end + 3), expected);
    }
    EXPECT_FALSE(std::getline(input, printedLine)) << printedLine;
}

}  // namespace
