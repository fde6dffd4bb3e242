#include "demo/sample_file.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "unit/demo/demo_support.h"

namespace demo {
namespace {

TEST(SampleFile, ReadsADevice) {
    const auto inventory =
        parseSample(R"({"devices":[{"hwid":"e004:1220:0101","port":"2-1","name":"Printer","serial":"P",
                        "built-in":true,"classes":["07:01:02"],"addr":"desk"}]})");
    ASSERT_TRUE(inventory.has_value());
    ASSERT_EQ(inventory->devices.size(), 1U);
    const Device& device = inventory->devices.front();
    EXPECT_EQ(device.vid, 0xe004);
    EXPECT_EQ(device.pid, 0x1220);
    EXPECT_EQ(device.rev, 0x0101);
    EXPECT_EQ(device.port, "2-1");
    EXPECT_EQ(device.name, "Printer");
    EXPECT_EQ(device.serial, "P");
    EXPECT_TRUE(device.builtIn);
    EXPECT_EQ(device.classes, std::vector<DeviceClass>({{7, 1, 2}}));
    EXPECT_EQ(device.user, User{.addr = "desk"});
}

TEST(SampleFile, ReadsConnectionsRulesAndPreferences) {
    const auto inventory = parseSample(
        R"({"connections":[{"addr":"desk","port":9},{"app":"/bin/x","appPID":7}],
            "rules":[{"action":"share","host":["desk"]}],"preferences":{"e001":{"grab_on_plug":true}}})");
    ASSERT_TRUE(inventory.has_value());
    ASSERT_EQ(inventory->connections.size(), 2U);
    EXPECT_EQ(inventory->connections[0].user, User{.addr = "desk"});
    EXPECT_EQ(inventory->connections[0].port, 9);
    EXPECT_EQ(inventory->connections[1].user, (User{.app = "/bin/x", .appPid = 7}));
    EXPECT_EQ(inventory->rules, array(R"([{"action":"share","host":["desk"]}])"));
    EXPECT_EQ(inventory->preferences, object(R"({"e001":{"grab_on_plug":true}})"));
}

TEST(SampleFile, AllMembersMayBeAbsent) {
    const auto inventory = parseSample("{}");
    ASSERT_TRUE(inventory.has_value());
    EXPECT_TRUE(inventory->devices.empty());
}

TEST(SampleFile, WhatHasAnotherShapeIsRefused) {
    for (const char* text : {
             "",
             "[]",
             R"({"devices":{}})",
             R"({"devices":[1]})",
             R"({"devices":[{"hwid":"e001:0001","port":"1","name":"x"}]})",
             R"({"devices":[{"hwid":"e001:0001:0001:1","port":"1","name":"x"}]})",
             R"({"devices":[{"hwid":"e001:0001:0001","name":"x"}]})",
             R"({"devices":[{"hwid":"e001:0001:0001","port":"1"}]})",
             R"({"devices":[{"hwid":"e001:0001:0001","port":"1","name":"x","classes":["07"]}]})",
             R"({"devices":[{"hwid":"e001:0001:0001","port":"1","name":"x","classes":7}]})",
             R"({"connections":[{"port":1}]})",
             R"({"rules":[{"action":"deny"}]})",
             R"({"rules":{}})",
             R"({"preferences":[]})",
             R"({"preferences":{"e001":true}})",
         }) {
        EXPECT_FALSE(parseSample(text).has_value()) << text;
    }
}

TEST(SampleFile, AMissingFileIsReported) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(readSample("/nonexistent/sample.json").has_value());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "rvusbpd-demo: cannot read /nonexistent/sample.json: No such file or directory\n");
}

/// The office of the tree is worth looking at: every state, both kinds of users and connections.
TEST(SampleFile, TheOneInTheTreeShowsEverything) {
    auto inventory = readSample(RV_DEMO_SAMPLE);
    ASSERT_TRUE(inventory.has_value());
    const std::size_t count = inventory->devices.size();
    const State state(std::move(*inventory));
    ASSERT_EQ(state.devices().size(), count);
    std::map<std::string, int> states;
    bool isUsedByHost = false;
    bool isUsedByApp = false;
    bool isBuiltIn = false;
    for (const ListedDevice& listed : state.devices()) {
        ++states[listed.state];
        isUsedByHost = isUsedByHost || !listed.device.user.addr.empty();
        isUsedByApp = isUsedByApp || !listed.device.user.app.empty();
        isBuiltIn = isBuiltIn || listed.device.builtIn;
    }
    EXPECT_GE(states[kStateShared], 1);
    EXPECT_GE(states[kStateBlocked], 1);
    EXPECT_GE(states[kStateInUse], 2);
    EXPECT_TRUE(isUsedByHost && isUsedByApp && isBuiltIn);
    EXPECT_GE(state.connections().size(), 2U);
    EXPECT_FALSE(state.rules()->empty());
    EXPECT_FALSE(state.preferences().empty());
}

}  // namespace
}  // namespace demo
