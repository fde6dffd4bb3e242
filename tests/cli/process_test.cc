// The process runner itself, with a shell in the tool's place.
#include "cli/process.h"

#include <gtest/gtest.h>
#include <signal.h>

namespace cli {
namespace {

Command shell(const std::string& script) {
    Command command;
    command.path = "/bin/sh";
    command.words = {"-c", script};
    return command;
}

TEST(Process, StreamsAndStatusAreKeptApart) {
    const Result result = run(shell("printf 'a\\000b'; printf c >&2; exit 7"));
    EXPECT_EQ(std::string("a\0b", 3), result.out);
    EXPECT_EQ("c", result.err);
    EXPECT_EQ(7, result.status);
    EXPECT_EQ(0, result.signal);
}

TEST(Process, TextReachesStandardInput) {
    Command command = shell("cat");
    command.text = std::string(300'000, 'x');
    EXPECT_EQ(command.text, run(command).out);
}

TEST(Process, ClosedInputIsNoDescriptor) {
    Command command = shell("test ! -e /proc/self/fd/0");
    command.input = Input::kClosed;
    EXPECT_EQ(0, run(command).status);
}

TEST(Process, FileIsStandardInput) {
    Command command = shell("head -c 4 | od -An -c");
    command.input = Input::kFile;
    command.text = "/proc/self/exe";
    EXPECT_NE(std::string::npos, run(command).out.find("E   L   F"));
}

TEST(Process, SignalIsReported) {
    const Result result = run(shell("kill -9 $$"));
    EXPECT_EQ(SIGKILL, result.signal);
    EXPECT_EQ(-1, result.status);
}

TEST(Process, SignalsHaveTheirDefaultActions) {
    EXPECT_EQ(SIGPIPE, run(shell("kill -s PIPE $$")).signal);
}

TEST(Process, EnvironmentIsBareExceptForWhatIsAdded) {
    Command command = shell("echo ${VISUAL-unset} ${EDITOR-unset} $EXTRA");
    command.environment["EXTRA"] = "text";
    EXPECT_EQ("unset unset text\n", run(command).out);
}

TEST(Process, TerminalIsTheControllingOne) {
    Command command = shell("test -t 0 && read word </dev/tty && echo got $word");
    command.input = Input::kTerminal;
    Process process(command);
    process.type("reply\n");
    EXPECT_EQ("got reply\n", process.wait().out);
}

TEST(Process, InputStaysOpenUntilItIsClosed) {
    Command command = shell("cat");
    command.input = Input::kOpen;
    Process process(command);
    process.type("one");
    EXPECT_TRUE(process.waitForOut("one"));
    EXPECT_TRUE(process.isRunning());
    process.closeInput();
    EXPECT_EQ(0, process.wait().status);
    EXPECT_FALSE(process.isRunning());
}

TEST(Process, WaitingForTextEndsWithTheProgram) {
    Process process(shell("echo one"));
    EXPECT_FALSE(process.waitForOut("one", 2));
    EXPECT_EQ("one\n", process.out());
}

}  // namespace
}  // namespace cli
