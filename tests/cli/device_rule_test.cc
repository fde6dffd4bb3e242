// dev share and dev block: one transaction that inserts one rule.
#include <gtest/gtest.h>

#include "cli/cli_support.h"

namespace cli {
namespace {

constexpr char kCommit[] = R"({"action":"commit"})";

Script wholeTransaction() {
    return Script().reply(kStart, kReplyOk).reply(kInsert, kReplyOk).reply(kEnd, kReplyOk);
}

TEST(DevShare, SendsThreeRequestsAndSaysNothing) {
    const Exchange exchange = converse(tool({"dev", "share", "7"}), wholeTransaction());
    expectResult(exchange.tool, kOk, "", "");
    expectRequests(exchange, {{kStart, ""}, {kInsert, R"({"id":7,"action":"share"})"}, {kEnd, kCommit}});
}

TEST(DevShare, BlockDiffersInTheActionAlone) {
    const Exchange exchange = converse(tool({"dev", "block", "7"}), wholeTransaction());
    expectResult(exchange.tool, kOk, "", "");
    expectRequests(exchange, {{kStart, ""}, {kInsert, R"({"id":7,"action":"block"})"}, {kEnd, kCommit}});
}

TEST(DevShare, NegativeIdIsSentAsUnsigned) {
    const Exchange exchange = converse(tool({"dev", "share", "-1"}), wholeTransaction());
    expectRequests(exchange,
                   {{kStart, ""}, {kInsert, R"({"id":4294967295,"action":"share"})"}, {kEnd, kCommit}});
}

TEST(DevShare, LargestIdIsSentWhole) {
    const Exchange exchange = converse(tool({"dev", "block", "2147483647"}), wholeTransaction());
    expectRequests(exchange,
                   {{kStart, ""}, {kInsert, R"({"id":2147483647,"action":"block"})"}, {kEnd, kCommit}});
}

TEST(DevShare, FurtherWordsAreIgnored) {
    const Exchange exchange = converse(tool({"dev", "share", "7", "8"}), wholeTransaction());
    expectRequests(exchange, {{kStart, ""}, {kInsert, R"({"id":7,"action":"share"})"}, {kEnd, kCommit}});
}

TEST(DevShare, NotFoundAtTheInsertStep) {
    const Script script = Script().reply(kStart, kReplyOk).reply(kInsert, kReplyNotFound);
    const Exchange exchange = converse(tool({"dev", "share", "7"}), script);
    expectResult(exchange.tool, kNotFound, "", kDeviceNotFound);
    // The transaction is left open: no rollback is sent.
    expectRequests(exchange, {{kStart, ""}, {kInsert, R"({"id":7,"action":"share"})"}});
}

TEST(DevShare, NotFoundAtTheStartIsAnInternalError) {
    const Exchange exchange = converse(tool({"dev", "share", "7"}), Script().reply(kStart, kReplyNotFound));
    expectResult(exchange.tool, kIo, "", kInternalError);
    expectRequests(exchange, {{kStart, ""}});
}

TEST(DevShare, FramesOfOtherCodesAreIgnored) {
    Script script;
    script.sendFrame(kDeviceEvent, "{}").receive();
    script.sendFrame(kTest, R"({"status":"auth"})").sendFrame(kStart, kReplyOk).receive();
    script.sendFrame(kLoad, R"({"status":"auth"})")
        .sendFrame(kRulesChanged, "{}")
        .sendFrame(kInsert, kReplyOk);
    script.receive().sendFrame(kUnplug, "{}").sendFrame(kEnd, kReplyOk);
    const Exchange exchange = converse(tool({"dev", "share", "7"}), script);
    expectResult(exchange.tool, kOk, "", "");
    expectRequests(exchange, {{kStart, ""}, {kInsert, R"({"id":7,"action":"share"})"}, {kEnd, kCommit}});
}

// Codes alone drive the transaction: a reply that comes early is taken as it comes.
TEST(DevShare, CommitReplyBeforeTheOthersEndsTheCommand) {
    const Exchange exchange = converse(tool({"dev", "share", "7"}), Script().reply(kEnd, kReplyOk));
    expectResult(exchange.tool, kOk, "", "");
    expectRequests(exchange, {{kStart, ""}});
}

// No step is counted: every reply has its effect again.
TEST(DevShare, RepeatedReplyRepeatsTheRequest) {
    Script script;
    script.receive().sendFrame(kStart, kReplyOk).sendFrame(kStart, kReplyOk).receive().receive();
    script.sendFrame(kInsert, kReplyOk).reply(kEnd, kReplyOk);
    const Exchange exchange = converse(tool({"dev", "block", "7"}), script);
    expectResult(exchange.tool, kOk, "", "");
    constexpr char kBlock[] = R"({"id":7,"action":"block"})";
    expectRequests(exchange, {{kStart, ""}, {kInsert, kBlock}, {kInsert, kBlock}, {kEnd, kCommit}});
}

TEST(DevUnplug, AuthIsReportedAsNotFound) {
    const Exchange exchange =
        converse(tool({"dev", "unplug", "7"}), Script().reply(kUnplug, R"({"status":"auth"})"));
    expectResult(exchange.tool, kNotFound, "", kDeviceNotFound);
}

TEST(DevUnplug, FramesOfOtherCodesAreIgnored) {
    Script script;
    script.sendFrame(kDrop, R"({"status":"auth"})").receive();
    script.sendFrame(kDeviceEvent, R"({"id":7,"name":"n","state":"s"})").sendFrame(kUnplug, kReplyNotFound);
    expectResult(converse(tool({"dev", "unplug", "7"}), script).tool, kNotFound, "", kDeviceNotFound);
}

}  // namespace
}  // namespace cli
