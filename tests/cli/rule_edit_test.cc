// rule edit: the daemon's rules through the user's editor and back. The editors are shell scripts.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "cli/cli_support.h"

namespace cli {
namespace {

namespace fs = std::filesystem;

constexpr char kCommit[] = R"({"action":"commit"})";
constexpr char kTwoRules[] = R"({"rules":[{"action":"share"},{"action":"block","quick":true}]})";
constexpr char kTwoRulesText[] = "share\nblock quick\n";
constexpr char kOneRule[] = R"({"rules":[{"action":"block"}]})";
constexpr char kFailsAlways[] = "exit 3";
constexpr char kWritesNonsense[] = "echo nonsense > $1";
constexpr char kParsingError[] = "Parsing error at rule #1\n";

// A named pipe that both sides can open without waiting for each other.
class Fifo {
  public:
    explicit Fifo(const std::string& path) : path_(path) {
        EXPECT_EQ(0, mkfifo(path.c_str(), 0600));
        fd_ = open(path.c_str(), O_RDWR | O_CLOEXEC);
    }
    ~Fifo() {
        (void)close(fd_);  // nothing is left to undo
        (void)unlink(path_.c_str());
    }
    Fifo(const Fifo&) = delete;
    Fifo& operator=(const Fifo&) = delete;

    bool waitForLine() const {
        pollfd input = {fd_, POLLIN, 0};
        char bytes[64];
        return poll(&input, 1, static_cast<int>(std::chrono::milliseconds(kLimit).count())) == 1 &&
               read(fd_, bytes, sizeof bytes) > 0;
    }
    void writeLine() const { EXPECT_EQ(3, write(fd_, "go\n", 3)); }

  private:
    std::string path_;
    int fd_ = -1;
};

class RuleEdit : public ::testing::Test {
  protected:
    void TearDown() override {
        for (const auto& entry : fs::directory_iterator("/tmp")) {
            if (entry.is_regular_file()) {
                fs::remove(entry);
            }
        }
        fs::remove_all("/tmp/bin");
    }

    // Writes an editor; every run of it adds a line to /tmp/runs.
    static std::string editor(const std::string& script, const std::string& name = "editor") {
        const std::string path = "/tmp/bin/" + name;
        fs::create_directories("/tmp/bin");
        writeFile(path, "#!/bin/sh\necho run >> /tmp/runs\n" + script + "\n");
        fs::permissions(path, fs::perms::owner_all);
        return path;
    }

    static std::size_t runs() {
        if (!fs::exists("/tmp/runs")) {
            return 0;
        }
        const std::string lines = readFile("/tmp/runs");
        return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n'));
    }

    static Command edit(const std::string& visual, const std::string& typed = "") {
        Command command = tool({"rule", "edit"});
        command.environment["VISUAL"] = visual;
        command.text = typed;
        return command;
    }

    static Script fetch(std::string_view rules = kTwoRules) {
        return Script().reply(kStart, kReplyOk).reply(kRules, rules);
    }

    static Script wholeTransaction(std::string_view rules = kTwoRules) {
        return fetch(rules).reply(kLoad, kReplyOk).reply(kEnd, kReplyOk);
    }

    // The path in the line that tells where the copy is; the line must be the first one.
    static std::string pathIn(const std::string& out) {
        constexpr std::size_t kNameBytes = std::string_view("/tmp/tmp.XXXXXXXXXXXX").size();
        EXPECT_TRUE(out.starts_with(kCopyLine)) << out;
        const std::size_t begin = std::min(std::string_view(kCopyLine).size(), out.size());
        const std::string path = out.substr(begin, kNameBytes);
        EXPECT_TRUE(path.starts_with("/tmp/tmp.")) << out;
        EXPECT_EQ("\".\n", out.substr(std::min(begin + kNameBytes, out.size()), 3)) << out;
        return path;
    }

    static std::string copyLine(const std::string& path) { return kCopyLine + path + "\".\n"; }

    static std::size_t temporaryFiles() {
        std::size_t count = 0;
        for (const auto& entry : fs::directory_iterator("/tmp")) {
            // not a directory: a source tree may lie in one of such a name
            count +=
                entry.is_regular_file() && entry.path().filename().string().starts_with("tmp.") ? 1U : 0U;
        }
        return count;
    }

    static void expectCommitted(const Exchange& exchange, std::string_view load) {
        expectRequests(exchange, {{kStart, ""}, {kRules, ""}, {kLoad, load}, {kEnd, kCommit}});
    }

    // A run that ended well: the file is gone.
    static void expectSuccess(const Exchange& exchange, std::string_view load,
                              const std::string& between = "", std::string_view err = "") {
        const std::string path = pathIn(exchange.tool.out);
        expectResult(exchange.tool, kOk, copyLine(path) + between + kCommitted, err);
        expectCommitted(exchange, load);
        EXPECT_FALSE(fs::exists(path));
        EXPECT_EQ(0U, temporaryFiles());
    }

    // A run that the user ended: nothing was loaded and the file holds `text`.
    static void expectGivenUp(const Exchange& exchange, const std::string& text, const std::string& between,
                              std::string_view err = "") {
        const std::string path = pathIn(exchange.tool.out);
        expectResult(exchange.tool, kIo, copyLine(path) + between, err);
        expectRequests(exchange, {{kStart, ""}, {kRules, ""}});
        EXPECT_EQ(text, readFile(path));
    }
};

TEST_F(RuleEdit, UnchangedRulesGoBackAsTheyCame) {
    const std::string path = editor("cp $1 /tmp/seen; stat -c %a $1 > /tmp/mode; echo $# $0 > /tmp/words");
    expectSuccess(converse(edit(path), wholeTransaction()), kTwoRules);
    EXPECT_EQ(kTwoRulesText, readFile("/tmp/seen"));  // without rule numbers
    EXPECT_EQ("600\n", readFile("/tmp/mode"));
    EXPECT_EQ("1 " + path + "\n", readFile("/tmp/words"));
    EXPECT_EQ(1U, runs());
}

TEST_F(RuleEdit, ChangedRulesReplaceTheOthers) {
    expectSuccess(converse(edit(editor("echo block > $1")), wholeTransaction()), kOneRule);
}

TEST_F(RuleEdit, FileMayBeReplacedByAnother) {
    const std::string path = editor("echo block > $1.new && mv $1.new $1");
    expectSuccess(converse(edit(path), wholeTransaction()), kOneRule);
}

TEST_F(RuleEdit, EmptiedFileIsAnEmptyRuleSet) {
    expectSuccess(converse(edit(editor(": > $1")), wholeTransaction()), R"({"rules":[]})");
}

TEST_F(RuleEdit, FurtherWordsAreIgnored) {
    Command command = edit(editor("echo block > $1"));
    command.words.insert(command.words.end(), {"-x", "path"});
    expectSuccess(converse(command, wholeTransaction()), kOneRule);
}

TEST_F(RuleEdit, FileNameIsTheTemplateFilledIn) {
    const Exchange exchange = converse(edit(editor("")), wholeTransaction());
    const std::string path = pathIn(exchange.tool.out);
    for (const char letter : path.substr(std::string_view("/tmp/tmp.").size())) {
        EXPECT_TRUE(isalnum(static_cast<unsigned char>(letter))) << path;
    }
    EXPECT_NE("/tmp/tmp.XXXXXXXXXXXX", path);
}

TEST_F(RuleEdit, VisualComesBeforeEditor) {
    Command command = edit(editor("echo block > $1"));
    command.environment["EDITOR"] = editor(kFailsAlways, "other");
    expectSuccess(converse(command, wholeTransaction()), kOneRule);
}

TEST_F(RuleEdit, EditorIsTakenWithoutVisual) {
    Command command = edit("");
    command.environment.erase("VISUAL");
    command.environment["EDITOR"] = editor("echo block > $1");
    expectSuccess(converse(command, wholeTransaction()), kOneRule);
}

TEST_F(RuleEdit, ViIsTakenWithoutBoth) {
    (void)editor("echo block > $1", "vi");
    Command command = edit("");
    command.environment.erase("VISUAL");
    command.environment["PATH"] = "/tmp/bin:/usr/bin:/bin";
    expectSuccess(converse(command, wholeTransaction()), kOneRule);
}

TEST_F(RuleEdit, EditorIsSearchedInThePath) {
    (void)editor("echo block > $1", "my editor");
    Command command = edit("my editor");  // one name, never split
    command.environment["PATH"] = "/nowhere:/tmp/bin:/usr/bin:/bin";
    expectSuccess(converse(command, wholeTransaction()), kOneRule);
}

TEST_F(RuleEdit, EmptyVisualIsNotUnset) {
    Command command = edit("", "n");
    command.environment["EDITOR"] = editor("");
    expectGivenUp(converse(command, fetch()), kTwoRulesText, kEditorTrouble, "Cannot launch editor (2).\n");
    EXPECT_EQ(0U, runs());
}

TEST_F(RuleEdit, EmptyEditorIsNotUnset) {
    (void)editor("", "vi");
    Command command = edit("", "n");
    command.environment.erase("VISUAL");
    command.environment["EDITOR"] = "";
    command.environment["PATH"] = "/tmp/bin:/usr/bin:/bin";
    expectGivenUp(converse(command, fetch()), kTwoRulesText, kEditorTrouble, "Cannot launch editor (2).\n");
    EXPECT_EQ(0U, runs());
}

TEST_F(RuleEdit, PlaceOfTheFileIsFixed) {
    Command command = edit(editor("echo block > $1"));
    command.environment["TMPDIR"] = "/tmp/bin";
    expectSuccess(converse(command, wholeTransaction()), kOneRule);
}

TEST_F(RuleEdit, EditorRunsWhereTheToolWasStarted) {
    const fs::path before = fs::current_path();
    fs::current_path("/usr");
    const Exchange exchange = converse(edit(editor("pwd > /tmp/place")), wholeTransaction());
    fs::current_path(before);
    expectSuccess(exchange, kTwoRules);
    EXPECT_EQ("/usr\n", readFile("/tmp/place"));
}

// What the tool opens in the place of standard input is not for the editor.
TEST_F(RuleEdit, EditorWithoutStandardInputHasNone) {
    Command command = edit(editor("[ -e /proc/$$/fd/0 ] || echo block > $1"));
    command.input = Input::kClosed;
    expectSuccess(converse(command, wholeTransaction()), kOneRule);
}

TEST_F(RuleEdit, EditorWithArgumentsIsNotFound) {
    expectGivenUp(converse(edit(editor("") + " -w", "n"), fetch()), kTwoRulesText, kEditorTrouble,
                  "Cannot launch editor (2).\n");
}

TEST_F(RuleEdit, EditorThatMayNotBeRun) {
    const std::string path = editor("");
    fs::permissions(path, fs::perms::owner_read);
    expectGivenUp(converse(edit(path, "n"), fetch()), kTwoRulesText, kEditorTrouble,
                  "Cannot launch editor (13).\n");
}

// What the tool had written before must not appear a second time from the child that could not become an
// editor.
TEST_F(RuleEdit, EditorThatIsMissingTwice) {
    expectGivenUp(converse(edit("/tmp/none", "xn"), fetch()), kTwoRulesText,
                  std::string(kEditorTrouble) + kEditorTrouble,
                  "Cannot launch editor (2).\nCannot launch editor (2).\n");
}

TEST_F(RuleEdit, EditorThatFails) {
    expectGivenUp(converse(edit(editor("echo changed > $1; exit 3"), "n"), fetch()), "changed\n",
                  kEditorTrouble);
    EXPECT_EQ(1U, runs());
}

TEST_F(RuleEdit, EditorKilledByASignal) {
    expectGivenUp(converse(edit(editor("kill -9 $$"), "n"), fetch()), kTwoRulesText, kEditorTrouble);
}

// A parent may leave SIGCHLD ignored. The tool learns that the editor has ended, but not how.
TEST_F(RuleEdit, EditorWithoutAStatus) {
    Command command = edit(editor("echo block > $1"));
    command.words.insert(command.words.begin(), {"--ignore-signal=CHLD", command.path});
    command.path = "/usr/bin/env";
    expectGivenUp(converse(command, fetch()), "block\n", "", "Cannot get status of editor process\n");
}

// One character per question; everything but "n" tries again, and the rest of the line answers the next
// question.
TEST_F(RuleEdit, EveryCharacterButNTriesAgain) {
    std::string questions;
    for (int count = 0; count < 6; ++count) {
        questions += kEditorTrouble;
    }
    expectGivenUp(converse(edit(editor(kFailsAlways), "\nN\n yn"), fetch()), kTwoRulesText, questions);
    EXPECT_EQ(6U, runs());
}

// The end of the input is not "n".
TEST_F(RuleEdit, EndedInputTriesAFailingEditorAgain) {
    const std::string script = "if [ $(wc -l < /tmp/runs) -lt 3 ]; then exit 3; fi; echo block > $1";
    expectSuccess(converse(edit(editor(script)), wholeTransaction()), kOneRule,
                  std::string(kEditorTrouble) + kEditorTrouble);
    EXPECT_EQ(3U, runs());
}

TEST_F(RuleEdit, BadRulesMayBeGivenUp) {
    expectGivenUp(converse(edit(editor(kWritesNonsense), "n"), fetch()), "nonsense\n", kEditAgain,
                  kParsingError);
}

TEST_F(RuleEdit, BadRulesAreShownAgain) {
    const std::string script = "if grep -q nonsense $1; then echo block > $1; else echo nonsense >> $1; fi";
    expectSuccess(converse(edit(editor(script), "y"), wholeTransaction()), kOneRule, kEditAgain,
                  "Parsing error at rule #3\n");
    EXPECT_EQ(2U, runs());
}

TEST_F(RuleEdit, RemovedFileIsAskedAbout) {
    const Exchange exchange = converse(edit(editor("rm $1"), "n"), fetch());
    const std::string path = pathIn(exchange.tool.out);
    expectResult(exchange.tool, kIo, copyLine(path) + kEditAgain, "Error loading rules from " + path + ".\n");
    EXPECT_EQ(0U, temporaryFiles());
}

TEST_F(RuleEdit, BothQuestionsInOneRun) {
    const std::string script =
        "case $(wc -l < /tmp/runs) in 1) exit 1;; 2) echo nonsense > $1;; *) echo block > $1;; esac";
    expectSuccess(converse(edit(editor(script), "xy"), wholeTransaction()), kOneRule,
                  std::string(kEditorTrouble) + kEditAgain, kParsingError);
    EXPECT_EQ(3U, runs());
}

TEST_F(RuleEdit, RefusedCommitKeepsTheFile) {
    const Script script = fetch().reply(kLoad, kReplyOk).reply(kEnd, kReplyNotFound);
    const Exchange exchange = converse(edit(editor("echo block > $1")), script);
    const std::string path = pathIn(exchange.tool.out);
    expectResult(exchange.tool, kIo, copyLine(path), kInternalError);
    expectCommitted(exchange, kOneRule);
    EXPECT_EQ("block\n", readFile(path));
}

TEST_F(RuleEdit, RefusedLoadKeepsTheFile) {
    const Exchange exchange =
        converse(edit(editor("echo block > $1")), fetch().reply(kLoad, R"({"status":"auth"})"));
    const std::string path = pathIn(exchange.tool.out);
    expectResult(exchange.tool, kIo, copyLine(path), kInternalError);
    expectRequests(exchange, {{kStart, ""}, {kRules, ""}, {kLoad, kOneRule}});
    EXPECT_EQ("block\n", readFile(path));
}

TEST_F(RuleEdit, RefusedRuleListLeavesNoFile) {
    const Exchange exchange = converse(edit(editor("")), fetch(R"({"status":"auth"})"));
    expectResult(exchange.tool, kIo, "", "Internal error.\nCannot create reopen file.\n");
    EXPECT_EQ(0U, temporaryFiles());
    EXPECT_EQ(0U, runs());
}

TEST_F(RuleEdit, MalformedRuleListLeavesNoFile) {
    const Exchange exchange = converse(edit(editor("")), fetch(R"({"rules":"none"})"));
    expectResult(exchange.tool, kIo, "", "Rule list format error.\nCannot create reopen file.\n");
    EXPECT_EQ(0U, temporaryFiles());
}

TEST_F(RuleEdit, NoTemporaryFileCanBeMade) {
    const Exchange exchange = converse(covered(edit("true"), {}, {"/tmp"}), fetch());
    expectResult(exchange.tool, kIo, "", "Cannot create temporary file.\n");
    expectRequests(exchange, {{kStart, ""}, {kRules, ""}});
}

TEST_F(RuleEdit, FramesOfOtherCodesAreIgnored) {
    Script script;
    script.sendFrame(kTest, "{}").receive().sendFrame(kDeviceEvent, "{}").sendFrame(kStart, kReplyOk);
    script.receive()
        .sendFrame(kRulesChanged, "{}")
        .sendFrame(kRules, kTwoRules)
        .sendFrame(kRulesChanged, "{}");
    script.receive().sendFrame(kInsert, R"({"status":"auth"})").sendFrame(kLoad, kReplyOk);
    script.receive().sendFrame(kUnplug, "{}").sendFrame(kEnd, kReplyOk);
    expectSuccess(converse(edit(editor("")), script), kTwoRules);
}

TEST_F(RuleEdit, ConnectionMayEndWhileTheUserEdits) {
    const Fifo started("/tmp/started");
    const Fifo go("/tmp/go");
    FakeDaemon daemon(fetch().hold().close());
    Process process(edit(editor("echo block > $1; echo > /tmp/started; read word < /tmp/go")));
    ASSERT_TRUE(started.waitForLine());
    daemon.release();
    ASSERT_TRUE(daemon.waitForEndOfScript());
    EXPECT_TRUE(process.isRunning());
    go.writeLine();
    const Exchange exchange = finish(process, daemon);
    const std::string path = pathIn(exchange.tool.out);
    expectResult(exchange.tool, kIo, copyLine(path), kTerminated);
    EXPECT_EQ("block\n", readFile(path));
}

TEST_F(RuleEdit, FramesWaitWhileTheUserEdits) {
    const Fifo started("/tmp/started");
    const Fifo go("/tmp/go");
    FakeDaemon daemon(
        fetch().hold().sendFrame(kRulesChanged, "{}").sendFrame(kLoad, kReplyOk).reply(kEnd, kReplyOk));
    Process process(edit(editor("echo > /tmp/started; read word < /tmp/go; echo block > $1")));
    ASSERT_TRUE(started.waitForLine());
    daemon.release();
    EXPECT_EQ(2U, daemon.requests().size());
    go.writeLine();
    const Exchange exchange = finish(process, daemon);
    EXPECT_EQ(kOk, exchange.tool.status);
    EXPECT_EQ(kLoad, exchange.requests.at(2).code);
}

// At a terminal: stdin is the pseudo-terminal, standard output a pipe.
class RuleEditTerminal : public RuleEdit {
  protected:
    static Command atTerminal(const std::string& visual) {
        Command command = edit(visual);
        command.input = Input::kTerminal;
        return command;
    }
};

TEST_F(RuleEditTerminal, EveryOtherCharacterAsksAgain) {
    FakeDaemon daemon(fetch());
    Process process(atTerminal(editor(kWritesNonsense)));
    ASSERT_TRUE(process.waitForOut(kEditAgain));
    process.type("x\n");
    ASSERT_TRUE(process.waitForOut(kEditAgain, 2));
    process.type("Y N\n");
    ASSERT_TRUE(process.waitForOut(kEditAgain, 5));
    process.type("\n\n");
    process.type("n\n");
    std::string questions;
    for (int count = 0; count < 5; ++count) {
        questions += kEditAgain;
    }
    expectGivenUp(finish(process, daemon), "nonsense\n", questions, kParsingError);
    EXPECT_EQ(1U, runs());
}

// Only the first letter of "yes" is an answer; the rest of the line is read by the next question.
TEST_F(RuleEditTerminal, RestOfTheLineAnswersTheNextQuestion) {
    FakeDaemon daemon(fetch());
    Process process(atTerminal(editor(kWritesNonsense)));
    ASSERT_TRUE(process.waitForOut(kEditAgain));
    process.type("yes\n");
    ASSERT_TRUE(process.waitForOut(kEditAgain, 4));
    process.type("no\n");
    const std::string again = kEditAgain;
    expectGivenUp(finish(process, daemon), "nonsense\n", again + again + again + again,
                  std::string(kParsingError) + kParsingError);
    EXPECT_EQ(2U, runs());
}

TEST_F(RuleEditTerminal, NewlineAtTheEditorQuestionTriesAgain) {
    FakeDaemon daemon(fetch());
    Process process(atTerminal(editor(kFailsAlways)));
    ASSERT_TRUE(process.waitForOut(kEditorTrouble));
    process.type("\n");
    ASSERT_TRUE(process.waitForOut(kEditorTrouble, 2));
    process.type("n\n");
    expectGivenUp(finish(process, daemon), kTwoRulesText, std::string(kEditorTrouble) + kEditorTrouble);
    EXPECT_EQ(2U, runs());
}

// The end of input is no answer: the question is repeated until somebody stops the tool.
TEST_F(RuleEditTerminal, EndOfInputAsksForever) {
    FakeDaemon daemon(fetch());
    Command command = edit(editor(kWritesNonsense));
    command.text = "x";
    Process process(command);
    EXPECT_TRUE(process.waitForOut(kEditAgain, 50));
    EXPECT_TRUE(process.isRunning());
    process.kill(SIGKILL);
    const Exchange exchange = finish(process, daemon);
    EXPECT_EQ(SIGKILL, exchange.tool.signal);
    EXPECT_EQ(kParsingError, exchange.tool.err);
}

// At a terminal the end-of-file key is a key like any other.
TEST_F(RuleEditTerminal, EndOfFileKeyTriesAFailingEditorAgain) {
    FakeDaemon daemon(fetch());
    Process process(atTerminal(editor(kFailsAlways)));
    ASSERT_TRUE(process.waitForOut(kEditorTrouble));
    process.type("\x04");
    ASSERT_TRUE(process.waitForOut(kEditorTrouble, 2));
    process.type("n\n");
    expectGivenUp(finish(process, daemon), kTwoRulesText, std::string(kEditorTrouble) + kEditorTrouble);
    EXPECT_EQ(2U, runs());
}

TEST_F(RuleEditTerminal, EndOfFileKeyAsksAgain) {
    FakeDaemon daemon(fetch());
    Process process(atTerminal(editor(kWritesNonsense)));
    ASSERT_TRUE(process.waitForOut(kEditAgain));
    process.type("\x04");
    EXPECT_TRUE(process.waitForOut(kEditAgain, 2));
    process.kill(SIGKILL);
    EXPECT_EQ(SIGKILL, finish(process, daemon).tool.signal);
}

// Everything at the terminal, as a user has it; the editor finds itself there as well.
TEST_F(RuleEditTerminal, EditorHasTheTerminal) {
    const std::string script =
        "test -t 0 -a -t 1 || exit 9\n"
        "if grep -q nonsense $1; then read word </dev/tty; echo $word > $1; else echo nonsense > $1; fi";
    FakeDaemon daemon(wholeTransaction());
    Command command = atTerminal(editor(script));
    command.outputToTerminal = true;
    Process process(command);
    ASSERT_TRUE(process.waitForTerminal(kEditAgain));
    process.type("y");
    process.type("\n");
    process.type("block\n");
    const Exchange exchange = finish(process, daemon);
    EXPECT_EQ(kOk, exchange.tool.status);
    EXPECT_EQ(kParsingError, exchange.tool.err);
    expectCommitted(exchange, kOneRule);
    EXPECT_NE(std::string::npos, exchange.tool.terminal.find("successfully updated.\r\n"));
}

}  // namespace
}  // namespace cli
