#include "reports/device_report.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "unit/reports/report_output.h"

namespace {

constexpr std::string_view kHeader = "ID\tVID: PID: REV\tPort\tDevice name and status\n";

std::string report(std::string_view json) {
    return printed(json, outputDeviceList);
}

/// The reply that lists the given devices.
std::string listOf(std::string_view devices) {
    return "{\"devices\":[" + std::string(devices) + "]}";
}

/// A whole device; `extra` adds members, or with a leading comma more of them.
std::string device(std::string_view port, std::string_view extra = "") {
    return R"({"id":1,"vid":1133,"pid":49948,"rev":256,"built-in":false,"name":"Mouse","state":"shared",)"
           R"("serial":"","port":")" +
           std::string(port) + "\"" + std::string(extra) + "}";
}

std::string row(std::string_view port, std::string_view tabs, std::string_view status = "shared") {
    return "1\t046d:c31c:0100\t" + std::string(port) + "\t" + std::string(tabs) + "Mouse /" +
           std::string(status) + "/\n";
}

TEST(DeviceReport, AbsentOrOtherDevicesPrintNothing) {
    for (const char* reply : {"{}", R"({"devices":null})", R"({"devices":{}})", R"({"devices":"x"})",
                              R"({"devices":3})", R"({"devices":true})", R"({"status":"ok"})"}) {
        EXPECT_EQ(report(reply), "") << reply;
    }
}

TEST(DeviceReport, EmptyListPrintsTheHeaderAlone) {
    EXPECT_EQ(report(listOf("")), kHeader);
}

TEST(DeviceReport, StatusOfTheReplyIsNotLookedAt) {
    EXPECT_EQ(report(R"({"status":"auth","devices":[]})"), kHeader);
}

TEST(DeviceReport, PortsUpTo15BytesLeaveTheHeaderAlone) {
    EXPECT_EQ(report(listOf(device("123456789012345"))), std::string(kHeader) + row("123456789012345", ""));
}

TEST(DeviceReport, ShortPortBesideALongerOneGetsAnExtraTab) {
    EXPECT_EQ(report(listOf(device("1-1") + "," + device("1-1.2.3.4"))),
              std::string(kHeader) + row("1-1", "\t") + row("1-1.2.3.4", ""));
}

TEST(DeviceReport, PortsOf16To23BytesGiveTheHeaderOneTab) {
    const std::string wideHeader = "ID\tVID: PID: REV\tPort\t\tDevice name and status\n";
    for (const std::size_t width : {16U, 23U}) {
        const std::string port(width, 'p');
        EXPECT_EQ(report(listOf(device(port))), wideHeader + row(port, "")) << width;
    }
}

TEST(DeviceReport, PortOf24BytesGivesTheHeaderTwoTabsAndShortRowsThree) {
    const std::string port(24, 'p');
    EXPECT_EQ(report(listOf(device(port) + "," + device("1"))),
              "ID\tVID: PID: REV\tPort\t\t\tDevice name and status\n" + row(port, "") + row("1", "\t\t\t"));
}

TEST(DeviceReport, WidthHasNoLimit) {
    const std::string port(47, 'p');
    EXPECT_EQ(
        report(listOf(device(port) + "," + device("1"))),
        "ID\tVID: PID: REV\tPort\t\t\t\t\tDevice name and status\n" + row(port, "") + row("1", "\t\t\t\t\t"));
}

TEST(DeviceReport, WidthCountsBytesNotCharacters) {
    // Eight characters, sixteen bytes.
    const std::string port = "\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4";
    EXPECT_EQ(report(listOf(device(port))),
              "ID\tVID: PID: REV\tPort\t\tDevice name and status\n" + row(port, ""));
}

TEST(DeviceReport, PortOfASkippedElementCountsForTheWidth) {
    EXPECT_EQ(report(listOf(R"({"port":"123456789"},)" + device("1"))),
              std::string(kHeader) + row("1", "\t"));
}

TEST(DeviceReport, PortThatIsNoStringCountsAsEmpty) {
    EXPECT_EQ(report(listOf(R"({"port":1234567890123456},7,)" + device("1"))),
              std::string(kHeader) + row("1", ""));
}

TEST(DeviceReport, BuiltInWithoutSerial) {
    EXPECT_EQ(report(listOf(R"({"id":2,"vid":1,"pid":2,"rev":3,"built-in":true,"name":"Hub",)"
                            R"("state":"blocked","serial":"","port":"1"})")),
              std::string(kHeader) + "2\t0001:0002:0003\t1\tHub /built-in, blocked/\n");
}

TEST(DeviceReport, EveryNumberButZeroIsBuiltIn) {
    for (const char* number : {"2", "256", "-1", "0.5", "4294967296"}) {
        EXPECT_EQ(report(listOf(R"({"id":2,"vid":1,"pid":2,"rev":3,"name":"Hub","state":"blocked",)"
                                R"("serial":"","port":"1","built-in":)" +
                                std::string(number) + "}")),
                  std::string(kHeader) + "2\t0001:0002:0003\t1\tHub /built-in, blocked/\n")
            << number;
    }
}

TEST(DeviceReport, BooleansAreNumbers) {
    EXPECT_EQ(report(listOf(R"({"id":true,"vid":true,"pid":true,"rev":true,"built-in":true,"port":"1",)"
                            R"("serial":"","name":"n","state":"s"})")),
              std::string(kHeader) + "1\t0001:0001:0001\t1\tn /built-in, s/\n");
}

TEST(DeviceReport, EveryOptionalPartInItsPlace) {
    EXPECT_EQ(
        report(listOf(R"({"id":3,"vid":65535,"pid":0,"rev":16,"built-in":1,"name":"Cam","state":"in use",)"
                      R"("serial":"SN1","port":"2-1","addr":"pc1","app":"/Apps/Foo.app","appPID":77})")),
        std::string(kHeader) + "3\tffff:0000:0010\t2-1\tCam /built-in, in use@pc1@Foo.app(77), SN1/\n");
}

TEST(DeviceReport, ApplicationWithoutAddressFollowsTheState) {
    EXPECT_EQ(report(listOf(device("1", R"(,"app":"/usr/bin/Foo","appPID":512)"))),
              std::string(kHeader) + row("1", "", "shared@Foo(512)"));
}

TEST(DeviceReport, ApplicationWithoutProcessIdShowsZero) {
    EXPECT_EQ(report(listOf(device("1", R"(,"app":"Foo")"))),
              std::string(kHeader) + row("1", "", "shared@Foo(0)"));
}

TEST(DeviceReport, EmptyApplicationStillShowsItsProcessId) {
    EXPECT_EQ(report(listOf(device("1", R"(,"app":"","appPID":5)"))),
              std::string(kHeader) + row("1", "", "shared@(5)"));
}

TEST(DeviceReport, EmptyAddressStillShowsTheAtSign) {
    EXPECT_EQ(report(listOf(device("1", R"(,"addr":"")"))), std::string(kHeader) + row("1", "", "shared@"));
}

TEST(DeviceReport, AppPidOfAnyTypePasses) {
    const struct {
        const char* appPID;
        const char* shown;
    } rows[] = {{"\"12\"", "0"}, {"null", "0"}, {"[]", "0"},
                {"{}", "0"},     {"true", "1"}, {"-1", "4294967295"}};
    for (const auto& [appPID, shown] : rows) {
        EXPECT_EQ(report(listOf(device("1", R"(,"app":"/Foo","appPID":)" + std::string(appPID)))),
                  std::string(kHeader) + row("1", "", "shared@Foo(" + std::string(shown) + ")"))
            << appPID;
    }
}

TEST(DeviceReport, MembersThatNobodyKnowsMakeNoDifference) {
    const std::string extra = R"(,"color":"red","weight":7,"appPID":9)";
    EXPECT_EQ(report(listOf(device("1", extra) + "," + device("2", extra) + "," + device("3"))),
              std::string(kHeader) + row("1", "") + row("2", "") + row("3", ""));
}

TEST(DeviceReport, MemberThatNobodyKnowsIsNoProcessId) {
    EXPECT_EQ(report(listOf(device("1", R"(,"app":"Foo","weight":7)") + "," +
                            device("2", R"(,"app":"Foo","appPID":9,"weight":7)"))),
              std::string(kHeader) + row("1", "", "shared@Foo(0)") + row("2", "", "shared@Foo(9)"));
}

TEST(DeviceReport, AppPidWithoutAppIsNotShown) {
    EXPECT_EQ(report(listOf(device("1", R"(,"appPID":9)"))), std::string(kHeader) + row("1", ""));
}

TEST(DeviceReport, SerialOfAnyTypeMakesTheRowWhole) {
    for (const char* serial : {"7", "null", "true", "[]", "{}"}) {
        const std::string element =
            R"({"id":1,"vid":1133,"pid":49948,"rev":256,"built-in":false,"name":"Mouse","state":"shared",)"
            R"("port":"1","serial":)" +
            std::string(serial) + "}";
        EXPECT_EQ(report(listOf(element)), std::string(kHeader) + row("1", "")) << serial;
    }
}

TEST(DeviceReport, ElementsThatAreNotWholeAreSkipped) {
    const char* elements[] = {
        "7",
        "null",
        "[]",
        "\"x\"",
        // each member missing
        R"({"vid":1,"pid":1,"rev":1,"built-in":false,"port":"1","serial":"","name":"n","state":"s"})",
        R"({"id":1,"pid":1,"rev":1,"built-in":false,"port":"1","serial":"","name":"n","state":"s"})",
        R"({"id":1,"vid":1,"rev":1,"built-in":false,"port":"1","serial":"","name":"n","state":"s"})",
        R"({"id":1,"vid":1,"pid":1,"built-in":false,"port":"1","serial":"","name":"n","state":"s"})",
        R"({"id":1,"vid":1,"pid":1,"rev":1,"port":"1","serial":"","name":"n","state":"s"})",
        R"({"id":1,"vid":1,"pid":1,"rev":1,"built-in":false,"serial":"","name":"n","state":"s"})",
        R"({"id":1,"vid":1,"pid":1,"rev":1,"built-in":false,"port":"1","name":"n","state":"s"})",
        R"({"id":1,"vid":1,"pid":1,"rev":1,"built-in":false,"port":"1","serial":"","state":"s"})",
        R"({"id":1,"vid":1,"pid":1,"rev":1,"built-in":false,"port":"1","serial":"","name":"n"})",
        // each member of another type
        R"({"id":"1","vid":1,"pid":1,"rev":1,"built-in":false,"port":"1","serial":"","name":"n","state":"s"})",
        R"({"id":1,"vid":"1","pid":1,"rev":1,"built-in":false,"port":"1","serial":"","name":"n","state":"s"})",
        R"({"id":1,"vid":1,"pid":null,"rev":1,"built-in":false,"port":"1","serial":"","name":"n","state":"s"})",
        R"({"id":1,"vid":1,"pid":1,"rev":[],"built-in":false,"port":"1","serial":"","name":"n","state":"s"})",
        R"({"id":1,"vid":1,"pid":1,"rev":1,"built-in":"no","port":"1","serial":"","name":"n","state":"s"})",
        R"({"id":1,"vid":1,"pid":1,"rev":1,"built-in":false,"port":1,"serial":"","name":"n","state":"s"})",
        R"({"id":1,"vid":1,"pid":1,"rev":1,"built-in":false,"port":"1","serial":"","name":1,"state":"s"})",
        R"({"id":1,"vid":1,"pid":1,"rev":1,"built-in":false,"port":"1","serial":"","name":"n","state":{}})",
        R"({"id":1,"vid":1,"pid":1,"rev":1,"built-in":false,"port":"1","serial":"","name":"n","state":"s","addr":1})",
        R"({"id":1,"vid":1,"pid":1,"rev":1,"built-in":false,"port":"1","serial":"","name":"n","state":"s","addr":null})",
        R"({"id":1,"vid":1,"pid":1,"rev":1,"built-in":false,"port":"1","serial":"","name":"n","state":"s","app":1})",
    };
    for (const char* element : elements) {
        EXPECT_EQ(report(listOf(std::string(element) + "," + device("1"))),
                  std::string(kHeader) + row("1", ""))
            << element;
    }
}

TEST(DeviceReport, DaemonsOrderIsKeptAndDuplicatesArePrintedTwice) {
    const std::string second =
        R"({"id":0,"vid":1,"pid":1,"rev":1,"built-in":false,"port":"1","serial":"","name":"A","state":"s"})";
    const std::string secondRow = "0\t0001:0001:0001\t1\tA /s/\n";
    EXPECT_EQ(report(listOf(device("1") + "," + second + "," + second + "," + device("1"))),
              std::string(kHeader) + row("1", "") + secondRow + secondRow + row("1", ""));
}

TEST(DeviceReport, NumbersReadAsTheirLow32Bits) {
    EXPECT_EQ(report(listOf(R"({"id":-1,"vid":65536,"pid":4294967297,"rev":1.9,"built-in":0,"port":"1",)"
                            R"("serial":"","name":"n","state":"s"})")),
              std::string(kHeader) + "4294967295\t10000:0001:0001\t1\tn /s/\n");
}

TEST(DeviceReport, MembersInAnyOrder) {
    EXPECT_EQ(
        report(listOf(device("1") +
                      R"(,{"state":"s","port":"2","name":"n","serial":"S","built-in":true,"rev":1,)"
                      R"("pid":2,"vid":3,"id":4},)" +
                      device("1"))),
        std::string(kHeader) + row("1", "") + "4\t0003:0002:0001\t2\tn /built-in, s, S/\n" + row("1", ""));
}

TEST(DeviceReport, TextIsPrintedVerbatim) {
    EXPECT_EQ(report(listOf(R"({"id":1,"vid":1,"pid":1,"rev":1,"built-in":false,"port":"%s","serial":"%d",)"
                            R"("name":"a\tb %n","state":"\u00e4\"\\"})")),
              std::string(kHeader) + "1\t0001:0001:0001\t%s\ta\tb %n /\xc3\xa4\"\\, %d/\n");
}

TEST(DeviceReport, EveryTextEndsAtItsFirstNul) {
    EXPECT_EQ(report(listOf(R"({"id":1,"vid":1,"pid":1,"rev":1,"built-in":false,"port":"1\u0000p",)"
                            R"("serial":"se\u0000rial","name":"na\u0000me","state":"st\u0000ate",)"
                            R"("addr":"ad\u0000dr","app":"/a/b\u0000/c"},)" +
                            device("2", R"(,"serial":"\u0000x")"))),
              std::string(kHeader) + "1\t0001:0001:0001\t1\tna /st@ad@b(0), se/\n" + row("2", ""));
}

TEST(DeviceReport, PortCountsForTheWidthUpToItsFirstNul) {
    EXPECT_EQ(report(listOf(device("1\\u000045678901234567") + "," + device("2"))),
              std::string(kHeader) + row("1", "") + row("2", ""));
}

TEST(DeviceReport, ListLargerThanTheWritersBuffer) {
    std::string devices;
    std::string expected(kHeader);
    for (int i = 0; i < 5000; ++i) {
        devices += i > 0 ? "," : "";
        devices += device("1");
        expected += row("1", "");
    }
    EXPECT_EQ(report(listOf(devices)), expected);
}

}  // namespace
