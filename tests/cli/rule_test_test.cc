// rule test: which verdict the rules give a device.
#include <gtest/gtest.h>

#include <filesystem>

#include "cli/cli_support.h"

namespace cli {
namespace {

namespace fs = std::filesystem;

constexpr char kPath[] = "/tmp/rules";
constexpr char kVerdict[] = R"({"status":"ok","verdict":"share"})";
constexpr char kRemote3[] = R"({"id":3,"type":"rdesk"})";

Script withoutRules() {
    return Script().reply(kStart, kReplyOk).reply(kTest, kVerdict);
}

Script withRules() {
    return Script().reply(kStart, kReplyOk).reply(kLoad, kReplyOk).reply(kTest, kVerdict);
}

class RuleTest : public ::testing::Test {
  protected:
    void TearDown() override { fs::remove(kPath); }
};

TEST_F(RuleTest, WithoutRulesTheTestFollowsTheStart) {
    const Exchange exchange = converse(tool({"rule", "test", "-r", "3"}), withoutRules());
    expectResult(exchange.tool, kOk, "share\n", "");
    expectRequests(exchange, {{kStart, ""}, {kTest, kRemote3}});
}

TEST_F(RuleTest, RulesOfAFileAreTriedInsideTheTransaction) {
    writeFile(kPath, "block\n");
    const Exchange exchange = converse(tool({"rule", "test", "-f", kPath, "-h", "pc", "3"}), withRules());
    expectResult(exchange.tool, kOk, "share\n", "");
    expectRequests(exchange, {{kStart, ""},
                              {kLoad, R"({"rules":[{"action":"block"}]})"},
                              {kTest, R"({"id":3,"type":"net","addr":"pc"})"}});
}

TEST_F(RuleTest, EmptyFileIsARuleSet) {
    writeFile(kPath, "");
    const Exchange exchange = converse(tool({"rule", "test", "-f", kPath, "-r", "3"}), withRules());
    expectResult(exchange.tool, kOk, "share\n", "");
    expectRequests(exchange, {{kStart, ""}, {kLoad, R"({"rules":[]})"}, {kTest, kRemote3}});
}

TEST_F(RuleTest, DashIsStandardInputWithoutAPrompt) {
    Command command = tool({"rule", "test", "-f", "-", "-r", "3"});
    command.text = "block\n";
    const Exchange exchange = converse(command, withRules());
    expectResult(exchange.tool, kOk, "share\n", "");
    expectRequests(exchange, {{kStart, ""}, {kLoad, R"({"rules":[{"action":"block"}]})"}, {kTest, kRemote3}});
}

TEST_F(RuleTest, DashMayBeAttached) {
    Command command = tool({"rule", "test", "-rf-", "3"});
    command.text = "block\n";
    expectResult(converse(command, withRules()).tool, kOk, "share\n", "");
}

TEST_F(RuleTest, PathThatBeginsWithADashIsAPath) {
    const Exchange exchange = converse(tool({"rule", "test", "-f", "-x", "-r", "3"}), Script());
    expectResult(exchange.tool, kIo, "", "Error loading rules from -x.\n");
    expectNoContact(exchange);
}

TEST_F(RuleTest, TwoDashesAreAPath) {
    const Exchange exchange = converse(tool({"rule", "test", "-f", "--", "-r", "3"}), Script());
    expectResult(exchange.tool, kIo, "", "Error loading rules from --.\n");
}

TEST_F(RuleTest, EmptyPathIsAPath) {
    const Exchange exchange = converse(tool({"rule", "test", "-f", "", "-r", "3"}), Script());
    expectResult(exchange.tool, kIo, "", "Error loading rules from .\n");
    expectNoContact(exchange);
}

TEST_F(RuleTest, LastPathWins) {
    writeFile(kPath, "block\n");
    const Exchange exchange =
        converse(tool({"rule", "test", "-f", "/tmp/none", "-f", kPath, "-r", "3"}), withRules());
    expectResult(exchange.tool, kOk, "share\n", "");
}

// The file comes first: its failure is told although device and connection are missing too.
TEST_F(RuleTest, UnreadableFileIsToldBeforeAMissingDevice) {
    const Exchange exchange = converse(tool({"rule", "test", "-f", "/tmp/none"}), Script());
    expectResult(exchange.tool, kIo, "", "Error loading rules from /tmp/none.\n");
    expectNoContact(exchange);
}

TEST_F(RuleTest, BadRulesAreToldBeforeAMissingDevice) {
    writeFile(kPath, "share\nshare share\n");
    const Exchange exchange = converse(tool({"rule", "test", "-f", kPath, "-r"}), Script());
    expectResult(exchange.tool, kIo, "", "Parsing error at rule #2\n");
    expectNoContact(exchange);
}

TEST_F(RuleTest, GoodRulesDoNotHelpAMissingDevice) {
    writeFile(kPath, "share\n");
    const Exchange exchange = converse(tool({"rule", "test", "-f", kPath, "-r"}), Script());
    expectResult(exchange.tool, kInvalid, "", "Error: device Id is missing.\n" + usageText());
    expectNoContact(exchange);
}

TEST_F(RuleTest, ClosedStandardInput) {
    Command command = tool({"rule", "test", "-f", "-", "-r", "3"});
    command.input = Input::kClosed;
    const Exchange exchange = converse(command, Script());
    expectResult(exchange.tool, kIo, "", "Error loading rules from stdin.\n");
    expectNoContact(exchange);
}

TEST_F(RuleTest, VerdictIsPrintedAsItIs) {
    const Script script =
        Script().reply(kStart, kReplyOk).reply(kTest, R"({"status":"ok","verdict":"%s über\nline"})");
    expectResult(converse(tool({"rule", "test", "-r", "3"}), script).tool, kOk, "%s über\nline\n", "");
}

TEST_F(RuleTest, VerdictEndsAtItsFirstNul) {
    const Script script =
        Script().reply(kStart, kReplyOk).reply(kTest, R"({"status":"ok","verdict":"sh\u0000are"})");
    expectResult(converse(tool({"rule", "test", "-r", "3"}), script).tool, kOk, "sh\n", "");
}

TEST_F(RuleTest, EmptyVerdictIsAnEmptyLine) {
    const Script script = Script().reply(kStart, kReplyOk).reply(kTest, R"({"status":"ok","verdict":""})");
    expectResult(converse(tool({"rule", "test", "-r", "3"}), script).tool, kOk, "\n", "");
}

TEST_F(RuleTest, VerdictMustBeAString) {
    for (const char* reply :
         {R"({"status":"ok"})", R"({"status":"ok","verdict":1})", R"({"status":"ok","verdict":null})",
          R"({"status":"ok","verdict":["share"]})", R"({"status":"ok","verdict":true})"}) {
        const Script script = Script().reply(kStart, kReplyOk).reply(kTest, reply);
        SCOPED_TRACE(reply);
        expectResult(converse(tool({"rule", "test", "-r", "3"}), script).tool, kIo, "", kInternalError);
    }
}

TEST_F(RuleTest, NotFoundHasNoArticle) {
    const Script script = Script().reply(kStart, kReplyOk).reply(kTest, kReplyNotFound);
    expectResult(converse(tool({"rule", "test", "-r", "3"}), script).tool, kNotFound, "",
                 "Device has not been found.\n");
}

TEST_F(RuleTest, LoadReplySendsTheTestEvenWithoutRules) {
    Script script;
    script.receive().sendFrame(kLoad, kReplyOk).receive().sendFrame(kTest, kVerdict);
    const Exchange exchange = converse(tool({"rule", "test", "-r", "3"}), script);
    expectResult(exchange.tool, kOk, "share\n", "");
    expectRequests(exchange, {{kStart, ""}, {kTest, kRemote3}});
}

// Every frame is examined for its status before its code is looked at.
TEST_F(RuleTest, FrameOfAnotherCodeWithoutStatusEndsTheTool) {
    const Script script = Script().receive().sendFrame(kRulesChanged, "{}").sendFrame(kStart, kReplyOk);
    expectResult(converse(tool({"rule", "test", "-r", "3"}), script).tool, kIo, "", kInternalError);
}

TEST_F(RuleTest, FrameOfAnotherCodeWithNotFoundEndsTheTool) {
    const Script script = Script().receive().sendFrame(99, kReplyNotFound);
    expectResult(converse(tool({"rule", "test", "-r", "3"}), script).tool, kNotFound, "",
                 "Device has not been found.\n");
}

TEST_F(RuleTest, FrameOfAnotherCodeWithOkIsIgnored) {
    Script script;
    script.receive().sendFrame(kUnplug, kReplyOk).sendFrame(kRules, kVerdict).sendFrame(kEnd, kReplyOk);
    script.sendFrame(kStart, kReplyOk).reply(kTest, kVerdict);
    const Exchange exchange = converse(tool({"rule", "test", "-r", "3"}), script);
    expectResult(exchange.tool, kOk, "share\n", "");
    expectRequests(exchange, {{kStart, ""}, {kTest, kRemote3}});
}

}  // namespace
}  // namespace cli
