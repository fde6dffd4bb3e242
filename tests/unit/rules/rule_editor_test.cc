// The editing cycle at a real terminal, with editors that are shell scripts and with those of the system.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "cli/process.h"

// The program runs with a /tmp of its own.

namespace {

namespace fs = std::filesystem;

constexpr char kRulesPath[] = "/tmp/rule-editor-test/rules";
constexpr char kRetry[] = "Something went wrong with editor. Press any key to try one more time [y/n]: ";
constexpr char kAgain[] = "Edit again [y/n]? ";

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::size_t count(const std::string& text, const std::string& part) {
    std::size_t found = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++found;
    }
    return found;
}

class EditorTest : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories("/tmp/rule-editor-test/bin");
        write(kRulesPath, "share\n");
    }
    void TearDown() override { fs::remove_all("/tmp/rule-editor-test"); }

    static void write(const std::string& path, const std::string& content) {
        std::ofstream(path, std::ios::binary) << content;
    }

    /// An editor called `name` in PATH that runs `script`; $1 is the file, $run counts its runs from 1.
    static void addEditor(const std::string& name, const std::string& script) {
        const std::string path = "/tmp/rule-editor-test/bin/" + name;
        write(
            path,
            "#!/bin/sh\necho run >> /tmp/rule-editor-test/runs\nrun=$(wc -l < /tmp/rule-editor-test/runs)\n" +
                script + "\n");
        ASSERT_EQ(::chmod(path.c_str(), 0700), 0);
    }

    static std::size_t runs() { return count(contentOf("/tmp/rule-editor-test/runs"), "run\n"); }

    /// rules_session at a terminal, which shows standard output as well.
    static cli::Command session(const char* what, const char* argument = kRulesPath) {
        cli::Command command;
        command.path = RV_SESSION_PATH;
        command.name = "rules_session";
        command.words = {what, argument};
        command.input = cli::Input::kTerminal;
        command.outputToTerminal = true;
        command.environment = {{"PATH", "/tmp/rule-editor-test/bin:/usr/bin:/bin"},
                               {"TERM", "xterm"},
                               {"HOME", "/tmp/rule-editor-test"}};
        return command;
    }

    static cli::Command sessionWith(const char* what, const std::string& visual) {
        cli::Command command = session(what);
        command.environment["VISUAL"] = visual;
        return command;
    }
};

using RunEditor = EditorTest;
using LoadRulesFromEditor = EditorTest;
using AreYouSure = EditorTest;
using EditorTerminal = EditorTest;

TEST_F(RunEditor, SuccessSaysNothing) {
    addEditor("ok", "[ \"$#\" = 1 ] && [ \"$1\" = /tmp/rule-editor-test/rules ]");
    const cli::Result result = cli::run(sessionWith("run", "ok"));
    EXPECT_EQ(result.terminal, "run: true\r\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(RunEditor, VisualComesFirstThenEditorThenVi) {
    addEditor("first", "echo first > /tmp/rule-editor-test/which");
    addEditor("second", "echo second > /tmp/rule-editor-test/which");
    addEditor("vi", "echo vi > /tmp/rule-editor-test/which");
    cli::Command command = session("run");
    cli::run(command);
    EXPECT_EQ(contentOf("/tmp/rule-editor-test/which"), "vi\n");
    command.environment["EDITOR"] = "second";
    cli::run(command);
    EXPECT_EQ(contentOf("/tmp/rule-editor-test/which"), "second\n");
    command.environment["VISUAL"] = "first";
    cli::run(command);
    EXPECT_EQ(contentOf("/tmp/rule-editor-test/which"), "first\n");
}

TEST_F(RunEditor, EmptyVisualIsNotUnset) {
    cli::Command command = sessionWith("run", "");
    command.environment["EDITOR"] = "true";
    cli::Process process(command);
    ASSERT_TRUE(process.waitForTerminal(kRetry));
    process.type("n\n");
    const cli::Result result = process.wait();
    EXPECT_EQ(result.err, "Cannot launch editor (2).\n");
    EXPECT_NE(result.terminal.find("run: false"), std::string::npos);
}

TEST_F(RunEditor, ValueIsNotSplitIntoWords) {
    cli::Process process(sessionWith("run", "true --wait"));
    ASSERT_TRUE(process.waitForTerminal(kRetry));
    process.type("n\n");
    EXPECT_EQ(process.wait().err, "Cannot launch editor (2).\n");
}

// A script without its first line is one of the shell's, as execvp(3) has it.
TEST_F(RunEditor, ScriptWithoutItsFirstLineIsRun) {
    write("/tmp/rule-editor-test/bin/bare", "echo bare > /tmp/rule-editor-test/which\n");
    ASSERT_EQ(::chmod("/tmp/rule-editor-test/bin/bare", 0700), 0);
    const cli::Result result = cli::run(sessionWith("run", "/tmp/rule-editor-test/bin/bare"));
    EXPECT_EQ(result.terminal, "run: true\r\n");
    EXPECT_EQ(contentOf("/tmp/rule-editor-test/which"), "bare\n");
}

TEST_F(RunEditor, EveryStatusButZeroIsAFailure) {
    for (const char* const status : {"1", "127", "128", "255"}) {
        addEditor("fail", std::string("exit ") + status);
        cli::Process process(sessionWith("run", "fail"));
        ASSERT_TRUE(process.waitForTerminal(kRetry)) << status;
        process.type("n\n");
        EXPECT_EQ(count(process.wait().terminal, "run: false"), 1U) << status;
    }
}

TEST_F(RunEditor, ProgramThatMayNotBeRun) {
    write("/tmp/rule-editor-test/bin/plain", "#!/bin/sh\n");
    cli::Process process(sessionWith("run", "/tmp/rule-editor-test/bin/plain"));
    ASSERT_TRUE(process.waitForTerminal(kRetry));
    process.type("n\n");
    EXPECT_EQ(process.wait().err, "Cannot launch editor (13).\n");
}

// The text of the tool waits in a buffer where standard output is no terminal; the editor's does not.
TEST_F(RunEditor, WhatHasBeenSaidComesBeforeTheEditor) {
    addEditor("says", "echo editor");
    cli::Command command = sessionWith("run", "says");
    command.input = cli::Input::kText;
    command.outputToTerminal = false;
    command.environment["RV_SAY"] = "before\n";
    EXPECT_EQ(cli::run(command).out, "before\neditor\nrun: true\n");
}

TEST_F(RunEditor, ChildThatIsNoEditorExitsWithOne) {
    cli::Command command = sessionWith("run", "/missing");
    command.environment["RV_SHOW_STATUS"] = "yes";
    cli::Process process(command);
    ASSERT_TRUE(process.waitForTerminal(kRetry));
    process.type("n\n");
    EXPECT_EQ(process.wait().err, "Cannot launch editor (2).\nstatus 256\n");
}

/// Until a thread of the process waits in read(2); at once where the system does not tell.
bool waitUntilItReads(pid_t process) {
    const auto limit = std::chrono::steady_clock::now() + cli::kLimit;
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    while (std::chrono::steady_clock::now() < limit) {
        for (const auto& task : fs::directory_iterator(tasks)) {
            std::ifstream file(task.path() / "syscall");
            long call = -1;
            if (!file || ((file >> call) && call == SYS_read)) {
                return true;
            }
        }
        std::this_thread::yield();
    }
    return false;
}

TEST_F(RunEditor, SignalAtTheQuestionIsNoAnswer) {
    addEditor("fail", "exit 3");
    cli::Command command = sessionWith("run", "fail");
    command.environment["RV_INTERRUPT_READ"] = "yes";
    cli::Process process(command);
    ASSERT_TRUE(process.waitForTerminal(kRetry));
    for (int times = 0; times < 3; ++times) {
        ASSERT_TRUE(waitUntilItReads(process.pid()));
        process.kill(SIGUSR1);
    }
    process.type("n\n");
    EXPECT_EQ(count(process.wait().terminal, kRetry), 1U);
    EXPECT_EQ(runs(), 1U);
}

TEST_F(RunEditor, AnyKeyButNTriesAgain) {
    addEditor("fail", "exit 3");
    cli::Process process(sessionWith("run", "fail"));
    std::size_t questions = 0;
    for (const char* const key : {"N", "y", " ", "\x01", "\xff"}) {
        ASSERT_TRUE(process.waitForTerminal(kRetry, ++questions));
        process.type(std::string(key) + "\n");  // two characters: two questions
        ASSERT_TRUE(process.waitForTerminal(kRetry, ++questions));
    }
    ASSERT_TRUE(process.waitForTerminal(kRetry, ++questions));
    process.type("n\n");
    const cli::Result result = process.wait();
    EXPECT_EQ(count(result.terminal, kRetry), 11U);
    EXPECT_EQ(runs(), 11U);
    EXPECT_EQ(count(result.terminal, "run: false"), 1U);
}

TEST_F(RunEditor, OneCharacterPerQuestion) {
    addEditor("fail", "exit 3");
    cli::Process process(sessionWith("run", "fail"));
    ASSERT_TRUE(process.waitForTerminal(kRetry));
    process.type("yyn\n");
    EXPECT_EQ(count(process.wait().terminal, kRetry), 3U);
    EXPECT_EQ(runs(), 3U);
}

TEST_F(RunEditor, EndOfFileKeyTriesAgain) {
    addEditor("fail", "exit 3");
    cli::Process process(sessionWith("run", "fail"));
    ASSERT_TRUE(process.waitForTerminal(kRetry));
    process.type("\x04");
    ASSERT_TRUE(process.waitForTerminal(kRetry, 2));
    process.type("n\n");
    (void)process.wait();
    EXPECT_EQ(runs(), 2U);
}

TEST_F(RunEditor, EndedInputTriesAgain) {
    addEditor("third", "[ $run = 3 ]");
    for (const cli::Input input : {cli::Input::kText, cli::Input::kClosed}) {
        fs::remove("/tmp/rule-editor-test/runs");
        cli::Command command = sessionWith("run", "third");
        command.input = input;
        command.outputToTerminal = false;
        const cli::Result result = cli::run(command);
        EXPECT_EQ(result.out, std::string(kRetry) + kRetry + "run: true\n");
        EXPECT_EQ(runs(), 3U);
    }
}

TEST_F(RunEditor, AnswersMayComeFromAPipe) {
    addEditor("fail", "exit 3");
    cli::Command command = sessionWith("run", "fail");
    command.input = cli::Input::kText;
    command.outputToTerminal = false;
    command.text = "\nn";
    const cli::Result result = cli::run(command);
    EXPECT_EQ(result.out, std::string(kRetry) + kRetry + "run: false\n");
    EXPECT_EQ(runs(), 2U);
}

TEST_F(RunEditor, SecondRunMaySucceed) {
    addEditor("later", "[ $run = 2 ]");
    cli::Process process(sessionWith("run", "later"));
    ASSERT_TRUE(process.waitForTerminal(kRetry));
    process.type("\n");
    EXPECT_EQ(count(process.wait().terminal, "run: true"), 1U);
}

TEST_F(RunEditor, EditorKilledByASignalHasFailed) {
    for (const char* const signal : {"KILL", "TERM", "ABRT", "SEGV", "PIPE"}) {
        addEditor("dies", std::string("ulimit -c 0; kill -") + signal + " $$");
        cli::Process process(sessionWith("run", "dies"));
        ASSERT_TRUE(process.waitForTerminal(kRetry)) << signal;
        process.type("n\n");
        EXPECT_EQ(count(process.wait().terminal, "run: false"), 1U) << signal;
    }
}

TEST_F(RunEditor, TerminalIsRestoredAfterAFailedRun) {
    addEditor("raw", "stty raw -echo; kill -KILL $$");
    cli::Process process(sessionWith("run", "raw"));
    ASSERT_TRUE(process.waitForTerminal(kRetry));
    process.type("n\n");  // echoed, with the line feed as carriage return and line feed
    EXPECT_NE(process.wait().terminal.find(std::string(kRetry) + "n\r\nrun: false\r\n"), std::string::npos);
}

TEST_F(RunEditor, TerminalIsRestoredWhereOutputGoesElsewhere) {
    addEditor("raw", "stty raw -echo; kill -KILL $$");
    cli::Command command = sessionWith("run", "raw");
    command.outputToTerminal = false;
    cli::Process process(command);
    ASSERT_TRUE(process.waitForOut(kRetry));
    process.type("n\n");
    EXPECT_EQ(process.wait().terminal, "n\r\n");
}

TEST_F(RunEditor, WhatWasTypedAheadAnswersTheQuestion) {
    ASSERT_EQ(::mkfifo("/tmp/rule-editor-test/go", 0600), 0);
    addEditor("fail", "read word < /tmp/rule-editor-test/go; exit 3");
    cli::Process process(sessionWith("run", "fail"));
    process.type("n\n");
    ASSERT_TRUE(process.waitForTerminal("n\r\n"));
    write("/tmp/rule-editor-test/go", "go\n");
    ASSERT_TRUE(process.waitForTerminal("run: false"));
    EXPECT_EQ(count(process.wait().terminal, kRetry), 1U);
}

/// The mask after `name` in /proc/PID/status, without the signals that the C library keeps for itself.
unsigned long signalMask(const std::string& status, const std::string& name) {
    const std::size_t at = status.find(name + ":\t");
    EXPECT_NE(at, std::string::npos) << status;
    return at == std::string::npos
               ? 0
               : std::stoul(status.substr(at + name.size() + 2, 16), nullptr, 16) & 0x7fffffff;
}

TEST_F(RunEditor, EditorHasDefaultSignalsAndNoneBlocked) {
    addEditor("signals", "cat /proc/self/status > /tmp/rule-editor-test/signals");
    cli::Process process(sessionWith("run", "signals"));
    (void)process.wait();
    const std::string status = contentOf("/tmp/rule-editor-test/signals");
    EXPECT_EQ(signalMask(status, "SigBlk"), 0U);
    EXPECT_EQ(signalMask(status, "SigIgn"), 0U);
}

constexpr unsigned long signalBit(int signal) {
    return 1UL << (signal - 1);
}

TEST_F(RunEditor, SignalsThatTheParentIgnoresStayIgnored) {
    addEditor("signals", "cat /proc/self/status > /tmp/rule-editor-test/signals");
    cli::Command command = sessionWith("run", "signals");
    command.path = "/usr/bin/env";
    command.words = {"--ignore-signal=INT,QUIT,TSTP", RV_SESSION_PATH, "run", kRulesPath};
    EXPECT_EQ(cli::run(command).terminal, "run: true\r\n") << "in the tool";
    EXPECT_EQ(signalMask(contentOf("/tmp/rule-editor-test/signals"), "SigIgn"),
              signalBit(SIGINT) | signalBit(SIGQUIT) | signalBit(SIGTSTP))
        << "in the editor";
}

TEST_F(RunEditor, ToolCanBeEndedWhileTheUserEdits) {
    addEditor("waits", "echo ready; read line");
    cli::Process process(sessionWith("run", "waits"));
    ASSERT_TRUE(process.waitForTerminal("ready"));
    process.kill(SIGTERM);
    process.type("done\n");
    EXPECT_EQ(process.wait().signal, SIGTERM);
}

TEST_F(RunEditor, EditorInheritsNothingFromTheTool) {
    addEditor("files", "ls /proc/self/fd > /tmp/rule-editor-test/files");
    cli::Command direct = session("");
    direct.path = "/tmp/rule-editor-test/bin/files";
    (void)cli::run(direct);
    const std::string expected = contentOf("/tmp/rule-editor-test/files");
    EXPECT_NE(expected, "");
    (void)cli::run(sessionWith("run", "files"));
    EXPECT_EQ(contentOf("/tmp/rule-editor-test/files"), expected);
}

// waitpid(2) knows no status of a child whose parent ignores SIGCHLD, but it waits for the end.
TEST_F(RunEditor, ProcessCannotBeWaitedForWhileItsSignalIsIgnored) {
    addEditor("saves", "grep SigIgn /proc/self/status > /tmp/rule-editor-test/signals");
    cli::Command command = sessionWith("run", "saves");
    command.path = "/usr/bin/env";
    command.words = {"--ignore-signal=CHLD", RV_SESSION_PATH, "run", kRulesPath};
    const cli::Result result = cli::run(command);
    EXPECT_EQ(result.terminal, "run: false\r\n");
    EXPECT_EQ(result.err, "Cannot get status of editor process\n");
    EXPECT_EQ(signalMask(contentOf("/tmp/rule-editor-test/signals"), "SigIgn"), 0U);
}

TEST_F(RunEditor, NoProcessIsAnError) {
    cli::Command command = sessionWith("run", "true");
    command.environment["RV_FAIL_FORK"] = "yes";
    const cli::Result result = cli::run(command);
    EXPECT_EQ(result.terminal, "run: false\r\n");
    EXPECT_EQ(result.err, "Cannot create process.\n");
}

TEST_F(RunEditor, LostProcessIsAnError) {
    cli::Command command = sessionWith("run", "true");
    command.environment["RV_FAIL_WAIT"] = "yes";
    const cli::Result result = cli::run(command);
    EXPECT_EQ(result.terminal, "run: false\r\n");
    EXPECT_EQ(result.err, "Cannot get status of editor process\n");
}

TEST_F(RunEditor, InterruptedWaitIsRepeated) {
    cli::Command command = sessionWith("run", "true");
    command.environment["RV_INTERRUPT_WAIT"] = "yes";
    const cli::Result result = cli::run(command);
    EXPECT_EQ(result.terminal, "run: true\r\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(EditorTerminal, InterruptAndQuitAreForTheEditor) {
    addEditor(
        "traps",
        "trap 'echo interrupted' INT; trap 'echo quit' QUIT; echo ready; read line; read line; read line");
    cli::Process process(sessionWith("run", "traps"));
    ASSERT_TRUE(process.waitForTerminal("ready"));
    process.type("\x03");
    ASSERT_TRUE(process.waitForTerminal("interrupted"));
    process.type("\x1c");
    ASSERT_TRUE(process.waitForTerminal("quit"));
    process.type("a\nb\nc\n");
    EXPECT_EQ(count(process.wait().terminal, "run: true"), 1U);
}

TEST_F(EditorTerminal, InterruptKillsAnEditorThatDoesNotHandleIt) {
    addEditor("waits", "echo ready; exec cat");
    cli::Process process(sessionWith("run", "waits"));
    ASSERT_TRUE(process.waitForTerminal("ready"));
    process.type("\x03");
    ASSERT_TRUE(process.waitForTerminal(kRetry));
    process.type("n\n");
    EXPECT_EQ(count(process.wait().terminal, "run: false"), 1U);
}

TEST_F(EditorTerminal, InterruptAtTheQuestionEndsTheTool) {
    addEditor("fail", "exit 1");
    cli::Process process(sessionWith("run", "fail"));
    ASSERT_TRUE(process.waitForTerminal(kRetry));
    process.type("\x03");
    EXPECT_EQ(process.wait().signal, SIGINT);
}

TEST_F(EditorTerminal, SuspensionWithoutAShellIsUndone) {
    addEditor("suspends", "kill -STOP $$; echo resumed");
    cli::Process process(sessionWith("run", "suspends"));
    const cli::Result result = process.wait();
    EXPECT_EQ(result.terminal, "resumed\r\nrun: true\r\n");
}

/// An interactive shell with job control that runs the session as its foreground job.
class JobControl : public EditorTest {
  protected:
    static cli::Command shell(const std::string& visual) {
        cli::Command command = sessionWith("run", visual);
        command.path = "/bin/bash";
        command.name = "bash";
        command.words = {"--norc", "--noprofile", "--noediting", "-i"};
        return command;
    }

    /// An editor that echoes what it reads, ends at "done" and suspends itself by `stop` at "stop".
    static void addSuspendingEditor(const std::string& stop) {
        addEditor("editor", "echo ready; while :; do read line; case $line in stop) " + stop +
                                ";; done) exit 0;; *) echo \"got-$line\";; esac; done");
    }

    /// Suspends the editor by what is typed, sees the shell take over, and goes on.
    static void suspendAndResume(const std::string& suspend, std::size_t rounds) {
        cli::Process process(shell("editor"));
        process.type(std::string(RV_SESSION_PATH) + " run " + kRulesPath + "\n");
        ASSERT_TRUE(process.waitForTerminal("ready"));
        for (std::size_t round = 1; round <= rounds; ++round) {
            const std::string number = std::to_string(round);
            process.type(suspend);
            ASSERT_TRUE(process.waitForErr("Stopped", round));
            process.type("echo shell-$((round + " + number + "))\n");
            ASSERT_TRUE(process.waitForTerminal("shell-" + number));
            process.type("fg\n" + number + "\n");
            ASSERT_TRUE(process.waitForTerminal("got-" + number));
        }
        process.type("done\n");
        ASSERT_TRUE(process.waitForTerminal("run: true"));
        process.type("exit 7\n");
        EXPECT_EQ(process.wait().status, 7);
    }
};

TEST_F(JobControl, SuspendKeyStopsEditorAndTool) {
    addSuspendingEditor("exit 1");
    suspendAndResume("\x1a", 1);  // a second key could come before the tool has gone on as well
}

TEST_F(JobControl, SuspendKeyThatTheEditorIgnoresStopsNothing) {
    addEditor("editor", "trap '' TSTP; echo ready; read line; echo \"got-$line\"");
    cli::Process process(shell("editor"));
    process.type(std::string(RV_SESSION_PATH) + " run " + kRulesPath + "\n");
    ASSERT_TRUE(process.waitForTerminal("ready"));
    process.type("\x1a");
    ASSERT_TRUE(process.waitForTerminal("^Z"));
    process.type("1\n");
    ASSERT_TRUE(process.waitForTerminal("got-1"));
    ASSERT_TRUE(process.waitForTerminal("run: true"));
    process.type("exit 7\n");
    const cli::Result result = process.wait();
    EXPECT_EQ(result.err.find("Stopped"), std::string::npos) << result.err;
    EXPECT_EQ(result.status, 7);
}

TEST_F(JobControl, EditorThatGoesOnBeforeItIsSeenStopsNothing) {
    addEditor("editor",
              "trap '' TSTP; echo ready; while :; do read line; case $line in stop) kill -STOP $$;; "
              "done) exit 0;; *) echo \"got-$line\";; esac; done");
    cli::Command command = shell("editor");
    command.environment["RV_CONTINUE_EDITOR"] = "yes";
    cli::Process process(command);
    process.type(std::string(RV_SESSION_PATH) + " run " + kRulesPath + "\n");
    ASSERT_TRUE(process.waitForTerminal("ready"));
    // The next stop comes when the tool has dealt with the one before: it would hide that the editor went on.
    for (unsigned stop = 1; stop <= 2; ++stop) {
        ASSERT_TRUE(process.waitForErr("waits", stop));
        process.type("stop\n" + std::to_string(stop) + "\n");
        ASSERT_TRUE(process.waitForTerminal("got-" + std::to_string(stop)));
    }
    ASSERT_TRUE(process.waitForErr("waits", 3));
    process.type("\x1a");
    ASSERT_TRUE(process.waitForTerminal("^Z"));
    process.type("3\n");
    ASSERT_TRUE(process.waitForTerminal("got-3"));
    process.type("done\n");
    ASSERT_TRUE(process.waitForTerminal("run: true"));
    process.type("exit 7\n");
    const cli::Result result = process.wait();
    EXPECT_EQ(result.err.find("Stopped"), std::string::npos) << result.err;
    EXPECT_EQ(result.status, 7);
}

TEST_F(JobControl, EditorThatEndsBeforeItIsSeenStopsNothing) {
    addEditor("editor", "kill -STOP $$; echo resumed");
    cli::Command command = shell("editor");
    command.environment["RV_CONTINUE_EDITOR"] = "yes";
    command.environment["RV_END_EDITOR"] = "yes";
    cli::Process process(command);
    process.type(std::string(RV_SESSION_PATH) + " run " + kRulesPath + "\n");
    ASSERT_TRUE(process.waitForTerminal("run: true"));
    process.type("exit 7\n");
    const cli::Result result = process.wait();
    EXPECT_EQ(count(result.terminal, "resumed\r\nrun: true"), 1U) << result.terminal;
    EXPECT_EQ(result.err.find("Stopped"), std::string::npos) << result.err;
    EXPECT_EQ(result.status, 7);
}

TEST_F(JobControl, EditorThatStopsAgainStaysStopped) {
    addEditor("editor", "kill -STOP $$; kill -STOP $$; echo resumed");
    cli::Command command = shell("editor");
    command.environment["RV_STOP_AGAIN"] = "yes";
    cli::Process process(command);
    process.type(std::string(RV_SESSION_PATH) + " run " + kRulesPath + "\n");
    ASSERT_TRUE(process.waitForErr("Stopped"));
    process.type("fg\n");
    ASSERT_TRUE(process.waitForErr("Stopped", 2));
    process.type("fg\n");
    ASSERT_TRUE(process.waitForTerminal("run: true"));
    process.type("exit 7\n");
    const cli::Result result = process.wait();
    EXPECT_EQ(count(result.terminal, "resumed\r\nrun: true"), 1U) << result.terminal;
    EXPECT_EQ(result.status, 7);
}

TEST_F(JobControl, EditorThatStopsOnlyItself) {
    addSuspendingEditor("kill -STOP $$");
    suspendAndResume("stop\n", 3);
}

TEST_F(JobControl, EditorThatStopsItsWholeGroup) {
    addSuspendingEditor("kill -STOP 0");
    suspendAndResume("stop\n", 3);
}

TEST_F(JobControl, EditorThatSuspendsItsWholeGroup) {
    addSuspendingEditor("kill -TSTP 0");
    suspendAndResume("stop\n", 3);
}

// loadRulesFromEditor

TEST_F(LoadRulesFromEditor, GivesWhatWasSaved) {
    addEditor("saves", "echo 'block quick' > $1");
    EXPECT_EQ(cli::run(sessionWith("edit", "saves")).terminal,
              "edit: [{\"action\":\"block\",\"quick\":true}]\r\n");
}

TEST_F(LoadRulesFromEditor, FileMayBeReplacedByAnother) {
    addEditor("renames", "echo block > $1.new; mv $1.new $1");
    EXPECT_EQ(cli::run(sessionWith("edit", "renames")).terminal, "edit: [{\"action\":\"block\"}]\r\n");
}

TEST_F(LoadRulesFromEditor, EmptyFileIsAnEmptyRuleSet) {
    addEditor("empties", ": > $1");
    EXPECT_EQ(cli::run(sessionWith("edit", "empties")).terminal, "edit: []\r\n");
}

TEST_F(LoadRulesFromEditor, BadRulesAreShownAgainUntilTheyParse) {
    addEditor("fixes",
              "cat $1; case $run in 1) echo bad > $1;; 2) echo worse >> $1;; 3) echo share > $1;; esac");
    cli::Process process(sessionWith("edit", "fixes"));
    ASSERT_TRUE(process.waitForTerminal(kAgain, 1));
    process.type("y\n");
    ASSERT_TRUE(process.waitForTerminal(kAgain, 2));
    process.type("y\n");
    const cli::Result result = process.wait();
    EXPECT_EQ(result.err, "Parsing error at rule #1\nParsing error at rule #1\n");
    EXPECT_EQ(count(result.terminal, "bad\r\nworse\r\n"), 1U) << result.terminal;
    EXPECT_EQ(count(result.terminal, "edit: [{\"action\":\"share\"}]"), 1U) << result.terminal;
}

TEST_F(LoadRulesFromEditor, BadRulesMayBeGivenUp) {
    addEditor("breaks", "echo 'share # x' > $1; echo bad >> $1");
    cli::Process process(sessionWith("edit", "breaks"));
    ASSERT_TRUE(process.waitForTerminal(kAgain));
    process.type("n\n");
    const cli::Result result = process.wait();
    EXPECT_EQ(result.err, "Parsing error at rule #2\n");
    EXPECT_EQ(count(result.terminal, "edit: null"), 1U);
    EXPECT_EQ(contentOf(kRulesPath), "share # x\nbad\n") << "the text stays for the user";
}

TEST_F(LoadRulesFromEditor, EveryOtherAnswerAsksAgain) {
    addEditor("breaks", "echo bad > $1");
    cli::Process process(sessionWith("edit", "breaks"));
    ASSERT_TRUE(process.waitForTerminal(kAgain));
    process.type("Yx N\n\n\n");  // four characters that are no answer; line feeds are skipped
    ASSERT_TRUE(process.waitForTerminal(kAgain, 5));
    process.type("n\n");
    EXPECT_EQ(count(process.wait().terminal, kAgain), 5U);
}

TEST_F(LoadRulesFromEditor, RemovedFileIsAskedAbout) {
    addEditor("removes", "rm $1");
    cli::Process process(sessionWith("edit", "removes"));
    ASSERT_TRUE(process.waitForTerminal(kAgain));
    process.type("n\n");
    EXPECT_EQ(process.wait().err, "Error loading rules from /tmp/rule-editor-test/rules.\n");
}

TEST_F(LoadRulesFromEditor, FailedEditorGivenUpIsNoRuleSet) {
    addEditor("fail", "exit 1");
    cli::Process process(sessionWith("edit", "fail"));
    ASSERT_TRUE(process.waitForTerminal(kRetry));
    process.type("n\n");
    const cli::Result result = process.wait();
    EXPECT_EQ(count(result.terminal, "edit: null"), 1U);
    EXPECT_EQ(count(result.terminal, kAgain), 0U);
}

TEST_F(LoadRulesFromEditor, BothQuestionsInOneRun) {
    addEditor("both",
              "case $run in 1) exit 1;; 2) echo bad > $1;; 3) kill -KILL $$;; 4) echo block > $1;; esac");
    cli::Process process(sessionWith("edit", "both"));
    ASSERT_TRUE(process.waitForTerminal(kRetry));
    process.type("y");
    process.type("\n");
    ASSERT_TRUE(process.waitForTerminal(kAgain));
    process.type("y\n");  // the line feed answers the editor's question
    const cli::Result result = process.wait();
    EXPECT_EQ(count(result.terminal, kRetry), 2U) << result.terminal;
    EXPECT_EQ(count(result.terminal, "edit: [{\"action\":\"block\"}]"), 1U) << result.terminal;
}

// areYouSure

TEST_F(AreYouSure, RestOfTheLineIsLeftUnread) {
    cli::Process process(session("ask", "Sure? "));
    ASSERT_TRUE(process.waitForTerminal("Sure? "));
    process.type("yes\n");
    EXPECT_NE(process.wait().terminal.find("ask: y rest: es\r\n"), std::string::npos);
}

TEST_F(AreYouSure, OtherAnswersAskOnceMoreEach) {
    cli::Process process(session("ask", "Sure? "));
    ASSERT_TRUE(process.waitForTerminal("Sure? "));
    process.type("x\n");
    ASSERT_TRUE(process.waitForTerminal("Sure? ", 2));
    process.type("Y\n");
    ASSERT_TRUE(process.waitForTerminal("Sure? ", 3));
    process.type("\n\nn\n");
    const cli::Result result = process.wait();
    EXPECT_NE(result.terminal.find("ask: n"), std::string::npos);
    EXPECT_EQ(count(result.terminal, "Sure? "), 3U);
}

TEST_F(AreYouSure, CarriageReturnIsAnAnswer) {
    cli::Command command = session("ask", "Sure? ");
    command.input = cli::Input::kText;
    command.outputToTerminal = false;
    command.text = "\ry\n";
    EXPECT_EQ(cli::run(command).out, "Sure? Sure? ask: y rest: \n");
}

TEST_F(AreYouSure, EveryCharacterOfALineIsAnAnswer) {
    cli::Process process(session("ask", "Sure? "));
    ASSERT_TRUE(process.waitForTerminal("Sure? "));
    process.type(" N-yes\n");
    const cli::Result result = process.wait();
    EXPECT_EQ(count(result.terminal, "Sure? "), 4U);
    EXPECT_NE(result.terminal.find("ask: y rest: es\r\n"), std::string::npos) << result.terminal;
}

TEST_F(AreYouSure, PromptIsNoFormat) {
    cli::Process process(session("ask", "100%s %n? "));
    ASSERT_TRUE(process.waitForTerminal("100%s %n? "));
    process.type("n\n");
    EXPECT_EQ(process.wait().status, 0);
}

TEST_F(AreYouSure, EndOfInputAsksAgain) {
    cli::Process process(session("ask", "Sure? "));
    for (std::size_t asked = 1; asked <= 3; ++asked) {
        ASSERT_TRUE(process.waitForTerminal("Sure? ", asked));
        process.type("\x04");
    }
    ASSERT_TRUE(process.waitForTerminal("Sure? ", 4));
    process.type("y\n");
    EXPECT_EQ(process.wait().status, 0);

    cli::Command closed = session("ask", "Sure? ");
    closed.input = cli::Input::kText;
    closed.outputToTerminal = false;
    cli::Process endless(closed);
    EXPECT_TRUE(endless.waitForOut("Sure? ", 1000));
    endless.kill(SIGKILL);
    (void)endless.wait();
}

// Editors of the system, driven by keys.

class RealEditor : public EditorTest {
  protected:
    static bool installed(const char* program) { return ::access(program, X_OK) == 0; }

    static cli::Result wait(cli::Process& process) { return process.wait(); }
};

TEST_F(RealEditor, Ed) {
    if (!installed("/bin/ed")) {
        GTEST_SKIP() << "ed is not installed";
    }
    cli::Process process(sessionWith("edit", "/bin/ed"));
    process.type("p\n");
    ASSERT_TRUE(process.waitForTerminal("share"));  // it has set up its signals
    process.type("\x03");
    ASSERT_TRUE(process.waitForTerminal("?"));
    process.type("a\nblock rdesk\n.\nw\nq\n");
    const std::string shown = wait(process).terminal;
    EXPECT_NE(shown.find("edit: [{\"action\":\"share\"},{\"action\":\"block\",\"rdesk\":true}]"),
              std::string::npos)
        << shown;
}

TEST_F(RealEditor, Vim) {
    if (!installed("/usr/bin/vim.tiny")) {
        GTEST_SKIP() << "vim-tiny is not installed";
    }
    cli::Process process(sessionWith("edit", "/usr/bin/vim.tiny"));
    ASSERT_TRUE(process.waitForTerminal("share"));
    process.type("oblock rdesk\x1b:wq\r");
    const std::string shown = wait(process).terminal;
    EXPECT_NE(shown.find("edit: [{\"action\":\"share\"},{\"action\":\"block\",\"rdesk\":true}]"),
              std::string::npos)
        << shown;
}

TEST_F(RealEditor, Nano) {
    if (!installed("/bin/nano")) {
        GTEST_SKIP() << "nano is not installed";
    }
    cli::Process process(sessionWith("edit", "/bin/nano"));
    ASSERT_TRUE(process.waitForTerminal("share"));
    process.type("block rdesk\r\x0f\r\x18");  // a new first line, write out under the same name, leave
    const std::string shown = wait(process).terminal;
    EXPECT_NE(shown.find("edit: [{\"action\":\"block\",\"rdesk\":true},{\"action\":\"share\"}]"),
              std::string::npos)
        << shown;
}

}  // namespace
