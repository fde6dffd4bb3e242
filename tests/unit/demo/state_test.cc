#include "demo/state.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/demo/demo_support.h"

namespace demo {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kShareAll[] = R"([{"action":"share"}])";

std::string stateOf(const State& state, std::uint32_t id) {
    return state.find(id) == nullptr ? "missing" : state.find(id)->state;
}

TEST(DemoState, StartsWithoutEvents) {
    State state = makeState(kShareAll);
    EXPECT_THAT(state.takeEvents(), IsEmpty());
    EXPECT_EQ(stateOf(state, 1), kStateShared);
    EXPECT_EQ(stateOf(state, 2), kStateShared);
    EXPECT_EQ(state.find(0), nullptr);
    EXPECT_EQ(state.find(3), nullptr);
}

TEST(DemoState, WithoutRulesEverythingIsBlocked) {
    EXPECT_EQ(stateOf(makeState("[]"), 1), kStateBlocked);
}

TEST(DemoState, AUserWhomTheRulesRefuseIsNotThereAtTheStart) {
    Inventory inventory;
    inventory.devices = {keyboard()};
    inventory.devices[0].user = {.addr = "lab-pc"};
    inventory.rules = array(R"([{"action":"share"},{"action":"block","host":["lab-pc"]}])");
    const State state(std::move(inventory));
    EXPECT_EQ(stateOf(state, 1), kStateShared);
    EXPECT_TRUE(state.find(1)->device.user.isNobody());
}

TEST(DemoState, PluggingGivesANewIdAndTells) {
    State state = makeState(kShareAll);
    EXPECT_EQ(state.plug(keyboard()), 3U);
    EXPECT_THAT(texts(state.takeEvents()),
                ElementsAre(R"(4 {"id":3,"name":"Office keyboard","state":"plugged"})"));
    EXPECT_EQ(stateOf(state, 3), kStateShared);
}

TEST(DemoState, UnpluggingTakesTheDeviceAwayAndItsIdIsNotUsedAgain) {
    State state = makeState(kShareAll);
    ASSERT_TRUE(state.use(2, {.addr = "desk"}));
    (void)state.takeEvents();
    EXPECT_TRUE(state.unplug(2));
    EXPECT_THAT(texts(state.takeEvents()),
                ElementsAre(R"(4 {"id":2,"name":"Front desk printer","state":"unplugged"})"));
    EXPECT_EQ(state.find(2), nullptr);
    EXPECT_NE(state.find(1), nullptr);
    EXPECT_FALSE(state.unplug(2));
    EXPECT_EQ(state.plug(printer()), 3U);
}

TEST(DemoState, UseAndReleaseAreTold) {
    State state = makeState(kShareAll);
    EXPECT_TRUE(state.use(1, {.addr = "desk"}));
    EXPECT_TRUE(state.use(2, {.app = "/bin/session", .appPid = 7}));
    EXPECT_EQ(stateOf(state, 1), kStateInUse);
    EXPECT_TRUE(state.release(1));
    EXPECT_FALSE(state.release(1));
    EXPECT_EQ(stateOf(state, 1), kStateShared);
    EXPECT_THAT(
        texts(state.takeEvents()),
        ElementsAre(
            R"(4 {"id":1,"name":"Office keyboard","state":"in use","addr":"desk"})",
            R"(4 {"id":2,"name":"Front desk printer","state":"in use","app":"/bin/session","appPID":7})",
            R"(4 {"id":1,"name":"Office keyboard","state":"shared"})"));
}

TEST(DemoState, ADeviceInUseIsNotGivenToAnother) {
    State state = makeState(kShareAll);
    ASSERT_TRUE(state.use(1, {.addr = "desk"}));
    EXPECT_FALSE(state.use(1, {.addr = "lab-pc"}));
    EXPECT_EQ(state.find(1)->device.user.addr, "desk");
}

TEST(DemoState, TheRulesDecideWhoMayUseADevice) {
    State state = makeState(R"([{"action":"share","host":["desk"]}])");
    EXPECT_FALSE(state.use(1, {.addr = "lab-pc"}));
    EXPECT_FALSE(state.use(1, {.app = "/bin/session"}));
    EXPECT_FALSE(state.use(9, {.addr = "desk"}));
    EXPECT_THAT(state.takeEvents(), IsEmpty());
    EXPECT_TRUE(state.use(1, {.addr = "desk"}));
}

TEST(DemoState, ACommitTellsOfTheRulesAndThenOfWhatTheyChange) {
    State state = makeState(kShareAll);
    state.commitRules(ruleSet(R"([{"action":"share"},{"action":"block","built-in":true}])"));
    EXPECT_THAT(texts(state.takeEvents()),
                ElementsAre("12 {}", R"(4 {"id":2,"name":"Front desk printer","state":"blocked"})"));
    EXPECT_EQ(stateOf(state, 1), kStateShared);
    EXPECT_EQ(stateOf(state, 2), kStateBlocked);
}

TEST(DemoState, ACommitEndsUsesThatItRefuses) {
    State state = makeState(kShareAll);
    ASSERT_TRUE(state.use(1, {.addr = "desk"}));
    ASSERT_TRUE(state.use(2, {.addr = "lab-pc"}));
    (void)state.takeEvents();
    state.commitRules(ruleSet(R"([{"action":"share"},{"action":"block","host":["lab-pc"]}])"));
    EXPECT_THAT(texts(state.takeEvents()),
                ElementsAre("12 {}", R"(4 {"id":2,"name":"Front desk printer","state":"shared"})"));
    EXPECT_EQ(stateOf(state, 1), kStateInUse);
}

TEST(DemoState, TheDecidingRuleOverridesNameAndSerial) {
    State state = makeState(kShareAll);
    state.commitRules(ruleSet(R"([{"action":"share","override-name":"Old"},
                    {"action":"block","built-in":true,"override-name":"New","override-serial":"X"}])"));
    EXPECT_EQ(state.find(1)->name, "Old");
    EXPECT_EQ(state.find(1)->serial, "");
    EXPECT_EQ(state.find(2)->name, "New");
    EXPECT_EQ(state.find(2)->serial, "X");
    EXPECT_EQ(state.find(2)->device.name, "Front desk printer");
    state.commitRules(ruleSet(kShareAll));
    EXPECT_EQ(state.find(2)->name, "Front desk printer");
}

TEST(DemoState, ConnectingIsTold) {
    State state = makeState(kShareAll);
    state.connect({.user = {.addr = "new"}, .port = 5});
    state.connect({.user = {.app = "/bin/x", .appPid = 8}, .port = 0});
    EXPECT_THAT(texts(state.takeEvents()),
                ElementsAre(R"(5 {"state":"connected","addr":"new","port":5})",
                            R"(5 {"state":"connected","app":"/bin/x","appPID":8})"));
    EXPECT_EQ(state.connections().size(), 6U);
}

TEST(DemoState, DroppingAPortDropsThatConnectionOnly) {
    State state = makeState(kShareAll);
    EXPECT_EQ(state.dropConnections("lab-pc", 3000), 1U);
    EXPECT_THAT(texts(state.takeEvents()),
                ElementsAre(R"(5 {"state":"disconnected","addr":"lab-pc","port":3000})"));
    EXPECT_EQ(state.connections().size(), 3U);
    EXPECT_EQ(state.dropConnections("lab-pc", 3000), 0U);
    EXPECT_EQ(state.dropConnections("nobody", std::nullopt), 0U);
    EXPECT_THAT(state.takeEvents(), IsEmpty());
}

TEST(DemoState, DroppingAHostDropsItsConnectionsAndNoOthers) {
    State state = makeState(kShareAll);
    EXPECT_EQ(state.dropConnections("lab-pc", std::nullopt), 2U);
    ASSERT_EQ(state.connections().size(), 2U);
    EXPECT_EQ(state.connections()[0].user.addr, "desk");
    EXPECT_EQ(state.connections()[1].user.app, "/bin/session");
}

TEST(DemoState, RemoteDesktopSessionsAreNotDroppedByAnEmptyHost) {
    State state = makeState(kShareAll);
    EXPECT_EQ(state.dropConnections("", std::nullopt), 0U);
    EXPECT_EQ(state.connections().size(), 4U);
}

TEST(DemoState, UseEndsWithTheHostsLastConnection) {
    State state = makeState(kShareAll);
    ASSERT_TRUE(state.use(1, {.addr = "lab-pc"}));
    EXPECT_EQ(state.dropConnections("lab-pc", 1000), 1U);
    EXPECT_EQ(stateOf(state, 1), kStateInUse);
    (void)state.takeEvents();
    EXPECT_EQ(state.dropConnections("lab-pc", 3000), 1U);
    EXPECT_THAT(texts(state.takeEvents()),
                ElementsAre(R"(5 {"state":"disconnected","addr":"lab-pc","port":3000})",
                            R"(4 {"id":1,"name":"Office keyboard","state":"shared"})"));
}

TEST(DemoState, PreferencesAreMergedAndRemoved) {
    State state = makeState(kShareAll);
    state.addPreferences("e001", object(R"({"grab_on_plug":true})"));
    state.addPreferences("e001", object(R"({"other":1})"));
    EXPECT_EQ(state.preferences(), object(R"({"e001":{"grab_on_plug":true,"other":1}})"));
    EXPECT_TRUE(state.removePreferences("e001"));
    EXPECT_FALSE(state.removePreferences("e001"));
    EXPECT_TRUE(state.preferences().empty());
}

}  // namespace
}  // namespace demo
