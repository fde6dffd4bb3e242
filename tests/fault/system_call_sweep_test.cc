// Each command of the tool with one of its system calls failing: of each call the first, the second and so
// on, with the errors that the call may have. strace(1) tells what there is to fail and does it.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>

#include "fault/commands_under_fault.h"

namespace {

using fault::Outcome;
using fault::Scene;

constexpr char kTrace[] = "/tmp/trace";
// The calls from the first line of main on are the tool's; those before are the C library's.
constexpr char kFirstCallOfMain[] = "F_GETFD";

/// What a call may fail with; those that are not listed cannot fail in a way that matters, or are not tried
/// because nothing could be done about it.
const std::map<std::string, std::vector<std::string>> kErrors = {
    {"accept4", {"EMFILE"}},
    {"brk", {"ENOMEM"}},
    {"clone", {"EAGAIN"}},
    {"clone3", {"EAGAIN"}},
    {"close", {"EIO"}},
    {"connect", {"ECONNREFUSED", "ENOMEM", "EINTR"}},
    {"epoll_create1", {"EMFILE", "ENOMEM"}},
    {"epoll_ctl", {"ENOMEM", "ENOSPC"}},
    {"epoll_pwait", {"EINTR", "ENOMEM"}},
    {"epoll_pwait2", {"EINTR", "ENOMEM"}},
    {"epoll_wait", {"EINTR", "ENOMEM"}},
    {"eventfd2", {"EMFILE"}},
    {"fcntl", {"EINVAL"}},
    {"fstat", {"ENOMEM"}},
    {"ioctl", {"ENOMEM"}},
    {"lseek", {"ESPIPE"}},
    {"madvise", {"ENOMEM"}},
    {"mmap", {"ENOMEM"}},
    {"munmap", {"ENOMEM"}},
    {"newfstatat", {"ENOMEM"}},
    {"open", {"EMFILE", "EINTR"}},
    {"openat", {"EMFILE", "EINTR", "ENOSPC"}},
    {"poll", {"EINTR", "ENOMEM"}},
    {"ppoll", {"EINTR", "ENOMEM"}},
    {"pread64", {"EIO"}},
    {"read", {"ECONNRESET", "EINTR"}},
    {"recvfrom", {"ECONNRESET", "EINTR"}},
    {"sendto", {"EPIPE", "EINTR", "ECONNRESET"}},
    {"socket", {"EMFILE", "ENOMEM"}},
    {"socketpair", {"EMFILE"}},
    {"timerfd_create", {"EMFILE"}},
    {"timerfd_settime", {"ENOMEM"}},
    {"vfork", {"EAGAIN"}},
    {"wait4", {"EINTR", "ECHILD"}},
    {"waitid", {"EINTR", "ECHILD"}},
    {"write", {"ENOSPC", "EPIPE", "EINTR", "ECONNRESET"}},
};

struct Fault {
    std::string call;
    std::string error;
    int number;  ///< counted in each thread
};

/// Of each call, the numbers that one of the tool's threads has in main or later.
std::set<std::pair<std::string, int>> callsIn(const std::string& trace) {
    std::set<std::pair<std::string, int>> calls;
    std::map<std::pair<std::string, std::string>, int> counts;
    std::map<std::string, int> early;
    std::string mainThread;
    bool inMain = false;
    std::istringstream lines(trace);
    const std::regex form(R"(^(\d+) +(\w+)\()");
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (!std::regex_search(line, match, form)) {
            continue;
        }
        if (mainThread.empty()) {
            mainThread = match[1];
        }
        const std::string call = match[2];
        const int number = ++counts[{match[1], call}];
        inMain = inMain || line.find(kFirstCallOfMain) != std::string::npos;
        if (!inMain) {
            early[call] = number;
        } else {
            calls.insert({call, number});
        }
    }
    // A number that the start-up of the C library has as well, or the editor, cannot be told from it.
    for (const auto& [where, count] : counts) {
        if (where.first != mainThread && counts.contains({where.first, "execve"})) {
            early[where.second] = std::max(early[where.second], count);
        }
    }
    std::erase_if(calls, [&](const auto& call) { return call.second <= early[call.first]; });
    return calls;
}

cli::Command traced(cli::Command command, const std::vector<std::string>& options) {
    std::vector<std::string> words = {"-D", "-f", "-o", kTrace};  // -D: our child is the tool
    words.insert(words.end(), options.begin(), options.end());
    words.push_back(RV_STATIC_TOOL);
    words.insert(words.end(), command.words.begin(), command.words.end());
    command.path = RV_STRACE;
    command.name = "strace";
    command.words = std::move(words);
    return command;
}

/// Nothing, or why programs cannot be traced here.
std::optional<std::string> obstacle() {
    cli::Command command;
    command.path = RV_STRACE;
    command.name = "strace";
    command.words = {"-D", "-f", "-o", kTrace, "/bin/true"};
    const cli::Result result = cli::run(command);
    return result.status == 0 ? std::nullopt : std::optional("strace: " + result.err);
}

class Sweep : public ::testing::TestWithParam<Scene> {
  protected:
    void SetUp() override {
        const std::optional<std::string> reason = obstacle();
        if (!reason) {
            return;
        }
        const char* const automated = getenv("CI");
        if (automated != nullptr && std::string_view(automated) == "true") {
            FAIL() << *reason;
        }
        GTEST_SKIP() << *reason;
    }

    /// Returns the tool's exit status.
    static int check(const Scene& scene, const cli::Exchange& whole, const Fault& fault) {
        SCOPED_TRACE(fault.error + " from " + fault.call + " number " + std::to_string(fault.number));
        const std::string injection =
            "inject=" + fault.call + ":error=" + fault.error + ":when=" + std::to_string(fault.number);
        Outcome run = fault::runScene(
            traced(fault::prepare(scene), {"-e", "trace=" + fault.call, "-e", injection}), scene);
        // What is written may be cut by the very fault, messages included, and nobody is told.
        const auto expectation = fault.call == "write" ? fault::Output::kMayBeCut : fault::Output::kWhole;
        fault::expectDefinedEnd(scene, run, whole, expectation);
        return run.exchange.tool.status;
    }

    static void sweep(const Scene& scene) {
        const cli::Exchange whole = cli::converse(
            traced(fault::prepare(scene), {"-e", "trace=!restart_syscall", "-e", "signal=none"}),
            scene.script);
        ASSERT_EQ(scene.status, whole.tool.status) << whole.tool.err;
        int faults = 0;
        int noticed = 0;
        for (const auto& [call, number] : callsIn(cli::readFile(kTrace))) {
            const auto errors = kErrors.find(call);
            if (errors == kErrors.end()) {
                continue;
            }
            for (const std::string& error : errors->second) {
                const int status = check(scene, whole, {call, error, number});
                noticed += status == whole.tool.status ? 0 : 1;
                ++faults;
            }
        }
        EXPECT_GT(faults, 20);
        EXPECT_GT(noticed, scene.status == 5 ? -1 : 5);
        RecordProperty("faults", faults);
        RecordProperty("noticed", noticed);
    }
};

class SystemCallSweep : public Sweep {};
class LongSystemCallSweep : public Sweep {};

TEST_P(SystemCallSweep, EachErrorHasADefinedEnd) {
    sweep(GetParam());
}

// Threads take turns as they like: each repetition meets another order.
TEST_P(LongSystemCallSweep, EachErrorHasADefinedEndEachTime) {
    for (int repetition = 0; repetition < 10; ++repetition) {
        sweep(GetParam());
    }
}

std::string nameOf(const ::testing::TestParamInfo<Scene>& scene) {
    return scene.param.name;
}

INSTANTIATE_TEST_SUITE_P(Commands, SystemCallSweep, ::testing::ValuesIn(fault::scenes()), nameOf);
INSTANTIATE_TEST_SUITE_P(Commands, LongSystemCallSweep, ::testing::ValuesIn(fault::scenes()), nameOf);

}  // namespace
