#include "demo/requests.h"

#include <gtest/gtest.h>

#include "ipc/command.h"
#include "unit/demo/demo_support.h"

namespace demo {
namespace {

constexpr char kRules[] = R"([{"action":"share"}])";

class DemoRequests : public testing::Test {
  protected:
    /// The reply as JSON text, or "malformed".
    std::string ask(std::int32_t command, std::string_view request = "{}") {
        const auto reply = answer(state, client, command, object(request));
        return reply.has_value() ? boost::json::serialize(*reply) : "malformed";
    }

    State state = makeState(kRules);
    Client client{};
};

constexpr char kOk[] = R"({"status":"ok"})";
constexpr char kNotFound[] = R"({"status":"notfound"})";
constexpr char kError[] = R"({"status":"error"})";
constexpr char kAuth[] = R"({"status":"auth"})";
constexpr char kMalformed[] = "malformed";

TEST_F(DemoRequests, ListsDevices) {
    ASSERT_TRUE(state.use(2, {.app = "/bin/session", .appPid = 7}));
    EXPECT_EQ(
        ask(kCmdDeviceList),
        R"({"status":"ok","devices":[)"
        R"({"id":1,"vid":57345,"pid":257,"rev":272,"port":"1-1","built-in":false,"name":"Office keyboard",)"
        R"("state":"shared","serial":""},)"
        R"({"id":2,"vid":57348,"pid":4640,"rev":257,"port":"2-1","built-in":true,)"
        R"("name":"Front desk printer","state":"in use","serial":"P-2043","app":"/bin/session","appPID":7}]})");
}

TEST_F(DemoRequests, ListsConnections) {
    EXPECT_EQ(ask(kCmdConnectionList),
              R"({"status":"ok","connections":[{"addr":"lab-pc","port":1000},{"addr":"desk","port":2000},)"
              R"({"addr":"lab-pc","port":3000},{"app":"/bin/session","appPID":7}]})");
}

TEST_F(DemoRequests, OnlyTheAdministratorDropsConnections) {
    EXPECT_EQ(ask(kCmdKillConnection, R"({"host":"desk"})"), kAuth);
    EXPECT_EQ(ask(kCmdKillConnection, R"({"host":"nobody"})"), kAuth);
    EXPECT_EQ(state.connections().size(), 4U);
    client.mayDropConnections = true;
    EXPECT_EQ(ask(kCmdKillConnection, R"({"host":"desk","port":1})"), kNotFound);
    EXPECT_EQ(ask(kCmdKillConnection, R"({"host":"desk"})"), kOk);
    EXPECT_EQ(ask(kCmdKillConnection, R"({"host":"desk"})"), kNotFound);
    EXPECT_EQ(ask(kCmdKillConnection, R"({"host":"lab-pc","port":3000})"), kOk);
    EXPECT_EQ(state.connections().size(), 2U);
}

TEST_F(DemoRequests, DisconnectsADevice) {
    EXPECT_EQ(ask(kCmdDisconnectDevice, R"({"id":2})"), kOk);
    EXPECT_EQ(ask(kCmdDisconnectDevice, R"({"id":2})"), kNotFound);
}

TEST_F(DemoRequests, RulesAreOutOfReachWithoutATransaction) {
    EXPECT_EQ(ask(kCmdGetRules), kError);
    EXPECT_EQ(ask(kCmdLoadRules, R"({"rules":[]})"), kError);
    EXPECT_EQ(ask(kCmdInsertRule, R"({"id":1,"action":"share"})"), kError);
    EXPECT_EQ(ask(kCmdTestRule, R"({"id":1,"type":"rdesk"})"), kError);
    EXPECT_EQ(ask(kCmdEndRuleTransaction, R"({"action":"commit"})"), kError);
}

TEST_F(DemoRequests, TheRuleListHasNoStatus) {
    EXPECT_EQ(ask(kCmdStartRuleTransaction), kOk);
    EXPECT_EQ(ask(kCmdGetRules), R"({"rules":[{"action":"share"}]})");
}

TEST_F(DemoRequests, LoadedRulesCountInTheTransactionAndAfterTheCommit) {
    EXPECT_EQ(ask(kCmdStartRuleTransaction), kOk);
    EXPECT_EQ(ask(kCmdLoadRules, R"({"rules":[{"action":"block","takeaway":false}]})"), kOk);
    EXPECT_EQ(ask(kCmdGetRules), R"({"rules":[{"action":"block","takeaway":false}]})");
    EXPECT_EQ(*state.rules(), array(kRules));
    EXPECT_EQ(ask(kCmdEndRuleTransaction, R"({"action":"commit"})"), kOk);
    EXPECT_EQ(*state.rules(), array(R"([{"action":"block","takeaway":false}])"));
    EXPECT_EQ(ask(kCmdGetRules), kError);
    EXPECT_EQ(texts(state.takeEvents()).size(), 3U);
}

TEST_F(DemoRequests, ARollbackForgetsTheRules) {
    EXPECT_EQ(ask(kCmdStartRuleTransaction), kOk);
    EXPECT_EQ(ask(kCmdLoadRules, R"({"rules":[]})"), kOk);
    EXPECT_EQ(ask(kCmdEndRuleTransaction, R"({"action":"rollback"})"), kOk);
    EXPECT_EQ(*state.rules(), array(kRules));
    EXPECT_TRUE(state.takeEvents().empty());
}

TEST_F(DemoRequests, RulesThatAreNoneAreRefusedWhole) {
    EXPECT_EQ(ask(kCmdStartRuleTransaction), kOk);
    EXPECT_EQ(ask(kCmdLoadRules, R"({"rules":[{"action":"share"},{"action":"deny"}]})"), kError);
    EXPECT_EQ(ask(kCmdLoadRules, R"({"rules":[1]})"), kError);
    EXPECT_EQ(ask(kCmdGetRules), R"({"rules":[{"action":"share"}]})");
}

TEST_F(DemoRequests, TransactionsOfTwoClientsDoNotMeet) {
    Client other;
    EXPECT_EQ(ask(kCmdStartRuleTransaction), kOk);
    EXPECT_EQ(ask(kCmdLoadRules, R"({"rules":[]})"), kOk);
    ASSERT_TRUE(answer(state, other, kCmdStartRuleTransaction, {}).has_value());
    EXPECT_EQ(boost::json::serialize(*answer(state, other, kCmdGetRules, {})),
              R"({"rules":[{"action":"share"}]})");
}

TEST_F(DemoRequests, InsertsARuleForADevice) {
    EXPECT_EQ(ask(kCmdStartRuleTransaction), kOk);
    EXPECT_EQ(ask(kCmdInsertRule, R"({"id":3,"action":"block"})"), kNotFound);
    EXPECT_EQ(ask(kCmdInsertRule, R"({"id":2,"action":"deny"})"), kError);
    EXPECT_EQ(ask(kCmdInsertRule, R"({"id":2,"action":"block"})"), kOk);
    EXPECT_EQ(ask(kCmdEndRuleTransaction, R"({"action":"commit"})"), kOk);
    EXPECT_STREQ(state.find(1)->state, kStateShared);
    EXPECT_STREQ(state.find(2)->state, kStateBlocked);
}

TEST_F(DemoRequests, TestsTheRulesOfTheTransaction) {
    EXPECT_EQ(ask(kCmdStartRuleTransaction), kOk);
    EXPECT_EQ(ask(kCmdLoadRules, R"({"rules":[{"action":"share","host":["desk"]}]})"), kOk);
    EXPECT_EQ(ask(kCmdTestRule, R"({"id":1,"type":"net","addr":"desk"})"),
              R"({"status":"ok","verdict":"share"})");
    EXPECT_EQ(ask(kCmdTestRule, R"({"id":1,"type":"net","addr":"other"})"),
              R"({"status":"ok","verdict":"block"})");
    EXPECT_EQ(ask(kCmdTestRule, R"({"id":1,"type":"rdesk"})"), R"({"status":"ok","verdict":"block"})");
    EXPECT_EQ(ask(kCmdTestRule, R"({"id":9,"type":"rdesk"})"), kNotFound);
}

TEST_F(DemoRequests, KeepsPreferences) {
    constexpr char kAdd[] = R"({"preferences":{"grab_on_plug":true},"hwid":"e001:0101"})";
    EXPECT_EQ(ask(kCmdGetPreferences), R"({"status":"ok","preferences":{}})");
    EXPECT_EQ(ask(kCmdAddPreferences, kAdd), kOk);
    EXPECT_EQ(ask(kCmdGetPreferences),
              R"({"status":"ok","preferences":{"e001:0101":{"grab_on_plug":true}}})");
    EXPECT_EQ(ask(kCmdRemovePreferences, R"({"hwid":"e001:0101"})"), kOk);
    EXPECT_EQ(ask(kCmdRemovePreferences, R"({"hwid":"e001:0101"})"), kNotFound);
}

TEST_F(DemoRequests, OnlyNormalisedHardwareIdsHavePreferences) {
    for (const char* hwid :
         {"", "e00", "e001:", "e001:101", "E001", "e001-0101", "e001:0101:", "e001:0101:0100:0001", "e00g"}) {
        const std::string request = R"({"preferences":{},"hwid":")" + std::string(hwid) + R"("})";
        EXPECT_EQ(ask(kCmdAddPreferences, request), kError) << hwid;
    }
    EXPECT_EQ(ask(kCmdAddPreferences, R"({"preferences":{},"hwid":"e001:0101:0100"})"), kOk);
}

TEST_F(DemoRequests, MalformedRequestsHaveNoReply) {
    client.mayDropConnections = true;
    EXPECT_EQ(ask(kCmdStartRuleTransaction), kOk);
    EXPECT_EQ(ask(99), kMalformed);
    EXPECT_EQ(ask(kCmdDeviceEvent), kMalformed);
    EXPECT_EQ(ask(kCmdKillConnection), kMalformed);
    EXPECT_EQ(ask(kCmdKillConnection, R"({"host":"desk","port":"2000"})"), kMalformed);
    EXPECT_EQ(ask(kCmdDisconnectDevice, R"({"id":"1"})"), kMalformed);
    EXPECT_EQ(ask(kCmdLoadRules), kMalformed);
    EXPECT_EQ(ask(kCmdInsertRule, R"({"id":1})"), kMalformed);
    EXPECT_EQ(ask(kCmdInsertRule, R"({"action":"share"})"), kMalformed);
    EXPECT_EQ(ask(kCmdTestRule, R"({"id":1})"), kMalformed);
    EXPECT_EQ(ask(kCmdTestRule, R"({"id":1,"type":"net"})"), kMalformed);
    EXPECT_EQ(ask(kCmdTestRule, R"({"type":"rdesk"})"), kMalformed);
    EXPECT_EQ(ask(kCmdEndRuleTransaction), kMalformed);
    EXPECT_EQ(ask(kCmdEndRuleTransaction, R"({"action":"end"})"), kMalformed);
    EXPECT_EQ(ask(kCmdAddPreferences, R"({"hwid":"e001"})"), kMalformed);
    EXPECT_EQ(ask(kCmdAddPreferences, R"({"preferences":{}})"), kMalformed);
    EXPECT_EQ(ask(kCmdRemovePreferences), kMalformed);
    EXPECT_EQ(state.connections().size(), 4U);
}

TEST_F(DemoRequests, EveryRequestCountsAsAskingEvenAMalformedOne) {
    EXPECT_FALSE(client.hasAsked);
    EXPECT_EQ(ask(99), kMalformed);
    EXPECT_TRUE(client.hasAsked);
}

}  // namespace
}  // namespace demo
