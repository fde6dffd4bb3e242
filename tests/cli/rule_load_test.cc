// rule load: rules from a file or from standard input, parsed before the daemon hears of them.
#include <gtest/gtest.h>

#include <filesystem>

#include "cli/cli_support.h"

namespace cli {
namespace {

namespace fs = std::filesystem;

constexpr char kPath[] = "/tmp/rules";
constexpr char kCommit[] = R"({"action":"commit"})";

Script wholeTransaction() {
    return Script().reply(kStart, kReplyOk).reply(kLoad, kReplyOk).reply(kEnd, kReplyOk);
}

void expectLoaded(const Exchange& exchange, const std::string& records) {
    const std::string load = R"({"rules":)" + records + "}";
    expectRequests(exchange, {{kStart, ""}, {kLoad, load}, {kEnd, kCommit}});
}

Exchange loadFile(const std::string& text) {
    writeFile(kPath, text);
    const Exchange exchange = converse(tool({"rule", "load", kPath}), wholeTransaction());
    fs::remove(kPath);
    return exchange;
}

Exchange loadInput(const std::string& text) {
    Command command = tool({"rule", "load"});
    command.text = text;
    return converse(command, wholeTransaction());
}

struct Row {
    const char* name;
    std::string text;
    const char* records;  ///< JSON
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

class RuleLoad : public ::testing::TestWithParam<Row> {};

TEST_P(RuleLoad, FromAFile) {
    const Exchange exchange = loadFile(GetParam().text);
    expectResult(exchange.tool, kOk, "", "");
    expectLoaded(exchange, GetParam().records);
}

TEST_P(RuleLoad, FromStandardInput) {
    const Exchange exchange = loadInput(GetParam().text);
    expectResult(exchange.tool, kOk, kReadingFromStdin, "");
    expectLoaded(exchange, GetParam().records);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, RuleLoad,
    ::testing::Values(
        Row{"Nothing", "", "[]"}, Row{"OnlyComments", "# one\n\n  # two\n", "[]"},
        Row{"OneRule", "share\n", R"([{"action":"share"}])"},
        Row{"OneRuleWithoutNewline", "block", R"([{"action":"block"}])"},
        Row{"Several", "share quick # first\n\nblock hwid 046d:c31c\n",
            R"([{"action":"share","quick":true},{"action":"block","vid":1133,"pid":49948}])"},
        Row{"Continued", "share \\\n  rdesk\n", R"([{"action":"share","rdesk":true}])"},
        Row{"AllClauses",
            "share quick !host \"a,b c\" !name contains \"K d\" !built-in !hwid 1:2:3 !serial \"s\" !port "
            "1-2 "
            "!class 3:1:2 override-name \"N\" override-serial \"S\" !takeaway\n",
            R"([{"action":"share","quick":true,"host":["a","b","c"],"notHost":true,"name":"K d",)"
            R"("nameMatch":"contains","notName":true,"built-in":false,"vid":1,"pid":2,"rev":3,"notHWID":true,)"
            R"("serial":"s","notSerial":true,"port":"1-2","notPort":true,"class":3,"subclass":1,"protocol":2,)"
            R"("notClass":true,"override-name":"N","override-serial":"S","takeaway":false}])"},
        Row{"Unicode", "share serial \"Ключ\"\n", R"([{"action":"share","serial":"Ключ"}])"}),
    [](const auto& row) { return std::string(row.param.name); });

struct BadText {
    const char* name;
    std::string text;
    int rule;
};

void PrintTo(const BadText& row, std::ostream* out) {
    *out << row.name;
}

class RuleLoadRefusal : public ::testing::TestWithParam<BadText> {
  protected:
    static std::string message() {
        return "Parsing error at rule #" + std::to_string(GetParam().rule) + "\n";
    }
};

TEST_P(RuleLoadRefusal, OfAFileDoesNotReachTheDaemon) {
    const Exchange exchange = loadFile(GetParam().text);
    expectResult(exchange.tool, kIo, "", message());
    expectNoContact(exchange);
}

TEST_P(RuleLoadRefusal, OfStandardInputDoesNotReachTheDaemon) {
    const Exchange exchange = loadInput(GetParam().text);
    expectResult(exchange.tool, kIo, kReadingFromStdin, message());
    expectNoContact(exchange);
}

INSTANTIATE_TEST_SUITE_P(Texts, RuleLoadRefusal,
                         ::testing::Values(BadText{"UnknownKeyword", "share\nblock\npermit\n", 3},
                                           BadText{"NumberedListing", "1: share\n", 1},
                                           BadText{"BlankAndCommentLinesDoNotCount",
                                                   "\n\n\n# a\n# b\nhost \"pc1\"\n", 1},
                                           BadText{"UnterminatedQuote", "share\nblock serial \"a\n", 2},
                                           BadText{"InvalidUtf8", "share serial \"\xff\"\n", 1},
                                           BadText{"TwoActions", "share block\n", 1},
                                           BadText{"CommentAtTheVeryEnd", "share # c", 1}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(RuleLoadSource, MissingFile) {
    const Exchange exchange = converse(tool({"rule", "load", "/tmp/none"}), Script());
    expectResult(exchange.tool, kIo, "", "Error loading rules from /tmp/none.\n");
    expectNoContact(exchange);
}

TEST(RuleLoadSource, DirectoryInPlaceOfAFile) {
    const Exchange exchange = converse(tool({"rule", "load", "/tmp"}), Script());
    expectResult(exchange.tool, kIo, "", "Error loading rules from /tmp.\n");
    expectNoContact(exchange);
}

TEST(RuleLoadSource, EmptyPath) {
    const Exchange exchange = converse(tool({"rule", "load", ""}), Script());
    expectResult(exchange.tool, kIo, "", "Error loading rules from .\n");
}

// Only rule test takes "-" for standard input.
TEST(RuleLoadSource, DashIsAFile) {
    fs::current_path("/tmp");
    const Exchange missing = converse(tool({"rule", "load", "-"}), Script());
    expectResult(missing.tool, kIo, "", "Error loading rules from -.\n");
    writeFile("/tmp/-", "block\n");
    const Exchange exchange = converse(tool({"rule", "load", "-"}), wholeTransaction());
    fs::remove("/tmp/-");
    expectResult(exchange.tool, kOk, "", "");
    expectLoaded(exchange, R"([{"action":"block"}])");
}

TEST(RuleLoadSource, WordThatLooksLikeAnOptionIsAFile) {
    const Exchange exchange = converse(tool({"rule", "load", "-N", kPath}), Script());
    expectResult(exchange.tool, kIo, "", "Error loading rules from -N.\n");
}

TEST(RuleLoadSource, FurtherWordsAreIgnored) {
    writeFile(kPath, "block\n");
    const Exchange exchange = converse(tool({"rule", "load", kPath, "/tmp/none"}), wholeTransaction());
    fs::remove(kPath);
    expectResult(exchange.tool, kOk, "", "");
}

TEST(RuleLoadSource, ClosedStandardInput) {
    Command command = tool({"rule", "load"});
    command.input = Input::kClosed;
    const Exchange exchange = converse(command, Script());
    expectResult(exchange.tool, kIo, kReadingFromStdin, "Error loading rules from stdin.\n");
    expectNoContact(exchange);
}

TEST(RuleLoadSource, UnreadableStandardInput) {
    Command command = tool({"rule", "load"});
    command.input = Input::kFile;
    command.text = "/tmp";
    const Exchange exchange = converse(command, Script());
    expectResult(exchange.tool, kIo, kReadingFromStdin, "Error loading rules from stdin.\n");
    expectNoContact(exchange);
}

TEST(RuleLoadSource, StandardInputArrivesInPieces) {
    FakeDaemon daemon(wholeTransaction());
    Command command = tool({"rule", "load"});
    command.input = Input::kOpen;
    Process process(command);
    EXPECT_TRUE(process.waitForOut(kReadingFromStdin));  // the user sees it before typing
    process.type("sha");
    process.type("re\n\nblo");
    EXPECT_TRUE(process.isRunning());
    process.type("ck\n");
    process.closeInput();
    const Exchange exchange = finish(process, daemon);
    expectResult(exchange.tool, kOk, kReadingFromStdin, "");
    expectLoaded(exchange, R"([{"action":"share"},{"action":"block"}])");
}

// At a terminal an empty line does not end the rules; the end-of-file key does.
TEST(RuleLoadSource, TerminalIsReadUntilItsEndOfFileKey) {
    FakeDaemon daemon(wholeTransaction());
    Command command = tool({"rule", "load"});
    command.input = Input::kTerminal;
    Process process(command);
    EXPECT_TRUE(process.waitForOut(kReadingFromStdin));
    process.type("share\n\nblock\n\x04");
    const Exchange exchange = finish(process, daemon);
    expectResult(exchange.tool, kOk, kReadingFromStdin, "");
    expectLoaded(exchange, R"([{"action":"share"},{"action":"block"}])");
}

TEST(RuleLoadSource, LargeRuleSetIsSentWhole) {
    constexpr int kCount = 50'000;
    std::string text;
    std::string records = "[";
    for (int index = 0; index < kCount; ++index) {
        text += "block hwid 1:2\n";
        records += (index == 0 ? "" : ",") + std::string(R"({"action":"block","vid":1,"pid":2})");
    }
    const Exchange exchange = loadInput(text);
    expectResult(exchange.tool, kOk, kReadingFromStdin, "");
    expectLoaded(exchange, records + "]");
}

// The rules stay at hand: a second "ok" to the start of the transaction must not load an empty rule set.
TEST(RuleLoadSource, RepeatedReplyLoadsTheSameRules) {
    writeFile(kPath, "share\nblock rdesk\n");
    Script script;
    script.reply(kStart, kReplyOk).receive().sendFrame(kStart, kReplyOk);
    script.reply(kLoad, kReplyOk).reply(kEnd, kReplyOk);
    const Exchange exchange = converse(tool({"rule", "load", kPath}), script);
    fs::remove(kPath);
    expectResult(exchange.tool, kOk, "", "");
    constexpr char kLoadBody[] = R"({"rules":[{"action":"share"},{"action":"block","rdesk":true}]})";
    expectRequests(exchange, {{kStart, ""}, {kLoad, kLoadBody}, {kLoad, kLoadBody}, {kEnd, kCommit}});
}

TEST(RuleLoadSource, RulesAreSentAgainAfterARepeatedReply) {
    writeFile(kPath, "share\n");
    Script script;
    script.receive().sendFrame(kStart, kReplyOk).sendFrame(kStart, kReplyOk).receive().receive();
    script.sendFrame(kLoad, kReplyOk).reply(kEnd, kReplyOk);
    const Exchange exchange = converse(tool({"rule", "load", kPath}), script);
    fs::remove(kPath);
    expectResult(exchange.tool, kOk, "", "");
    constexpr char kShare[] = R"({"rules":[{"action":"share"}]})";
    expectRequests(exchange, {{kStart, ""}, {kLoad, kShare}, {kLoad, kShare}, {kEnd, kCommit}});
}

TEST(RuleLoadSource, FramesOfOtherCodesAreIgnored) {
    writeFile(kPath, "share\n");
    Script script;
    script.sendFrame(kRules, R"({"status":"auth"})")
        .receive()
        .sendFrame(kInsert, "{}")
        .sendFrame(kStart, kReplyOk);
    script.receive().sendFrame(kTest, "{}").sendFrame(kRulesChanged, "{}").sendFrame(kLoad, kReplyOk);
    script.receive().sendFrame(kDeviceEvent, "{}").sendFrame(kEnd, kReplyOk);
    const Exchange exchange = converse(tool({"rule", "load", kPath}), script);
    fs::remove(kPath);
    expectResult(exchange.tool, kOk, "", "");
    expectLoaded(exchange, R"([{"action":"share"}])");
}

}  // namespace
}  // namespace cli
