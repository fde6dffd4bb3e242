// Output that goes nowhere, a disk without room, and a user who stops the tool and continues it wherever it
// waits.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>

#include "fault/commands_under_fault.h"

namespace {

using cli::Script;
using fault::Scene;

class Refusal : public ::testing::TestWithParam<Scene> {};

TEST_P(Refusal, FullOutputChangesNothingElse) {
    cli::Command command = fault::prepare(GetParam());
    command.outputFile = "/dev/full";
    const cli::Exchange exchange = cli::converse(command, GetParam().script);
    EXPECT_EQ(GetParam().status, exchange.tool.status);
    EXPECT_TRUE(exchange.scriptDone);
}

TEST_P(Refusal, OutputThatNobodyReadsChangesNothingElse) {
    cli::FakeDaemon daemon(GetParam().script);
    cli::Process process(fault::prepare(GetParam()));
    process.closeOut();
    const cli::Exchange exchange = cli::finish(process, daemon);
    EXPECT_EQ(GetParam().status, exchange.tool.status);
    EXPECT_EQ(0, exchange.tool.signal);
}

/// The script with a pause before each answer.
Script withHolds(const Script& script, std::size_t* holds) {
    Script held;
    for (const fake::Step& step : script.steps()) {
        switch (step.kind) {
            case fake::Step::Kind::kReceive:
                held.receive().hold();
                ++*holds;
                break;
            case fake::Step::Kind::kSend:
                held.send(step.bytes);
                break;
            case fake::Step::Kind::kDrain:
                held.drain();
                break;
            case fake::Step::Kind::kHold:
                held.hold();
                break;
            case fake::Step::Kind::kClose:
                held.hold().close();
                ++*holds;
                break;
        }
    }
    return held;
}

/// The letter of proc(5); 'T' is stopped.
char stateOf(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(status, text);
    const std::size_t end = text.rfind(')');
    return end + 2 < text.size() ? text[end + 2] : '?';
}

bool waitForState(pid_t pid, bool stopped) {
    const auto limit = std::chrono::steady_clock::now() + cli::kLimit;
    while ((stateOf(pid) == 'T') != stopped) {
        if (std::chrono::steady_clock::now() > limit) {
            return false;
        }
    }
    return true;
}

// Stopping and continuing ends some waits early, which then have to be begun again.
TEST_P(Refusal, StoppedAndContinuedAtEachWait) {
    const cli::Exchange whole = cli::converse(fault::prepare(GetParam()), GetParam().script);
    std::size_t holds = 0;
    cli::FakeDaemon daemon(withHolds(GetParam().script, &holds));
    cli::Process process(fault::prepare(GetParam()));
    for (std::size_t hold = 1; hold <= holds; ++hold) {
        ASSERT_TRUE(daemon.waitForHold(hold));
        for (int repetition = 0; repetition < 3; ++repetition) {
            process.kill(SIGSTOP);
            ASSERT_TRUE(waitForState(process.pid(), true));
            process.kill(SIGCONT);
            ASSERT_TRUE(waitForState(process.pid(), false));
        }
        daemon.release();
    }
    const cli::Exchange exchange = cli::finish(process, daemon);
    EXPECT_EQ(whole.tool.status, exchange.tool.status);
    if (GetParam().name != "Monitor") {  // whose lines tell the time
        EXPECT_EQ(fault::withoutPath(whole.tool.out), fault::withoutPath(exchange.tool.out));
    }
    EXPECT_EQ(whole.tool.err, exchange.tool.err);
}

std::string nameOf(const ::testing::TestParamInfo<Scene>& scene) {
    return scene.param.name;
}

INSTANTIATE_TEST_SUITE_P(Commands, Refusal, ::testing::ValuesIn(fault::scenes()), nameOf);

TEST(FullDisk, NoCopyOfTheRulesIsPromised) {
    const std::vector<Scene> all = fault::scenes();
    const Scene& edit = *std::find_if(all.begin(), all.end(), [](const Scene& scene) { return scene.edits; });
    const cli::Command command = fault::prepare(edit);
    // ThreadSanitizer's runtime keeps an unlinked file there that is larger than this.
    if (mount(nullptr, "/tmp", nullptr, MS_REMOUNT, "size=64k") != 0) {
        GTEST_SKIP() << "cannot limit /tmp: " << strerror(errno);
    }
    std::ofstream filler("/tmp/filler");
    while (filler << std::string(4096, 'x') << std::flush) {
    }
    const cli::Exchange exchange = cli::converse(command, edit.script);
    cli::expectResult(exchange.tool, cli::kIo, "", "Cannot create reopen file.\n");
    EXPECT_EQ(2U, exchange.requests.size());
    for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
        // not a directory: a source tree may lie in one of such a name
        EXPECT_FALSE(entry.is_regular_file() && entry.path().filename().string().starts_with("tmp."))
            << entry.path();
    }
}

}  // namespace
