#include "demo_session/demo_session.h"

#include <gtest/gtest.h>
#include <signal.h>

namespace demo_session {
namespace {

cli::Command daemonCommand(int eventSeconds) {
    cli::Command command;
    command.path = RV_DEMO_PATH;
    command.name = "rvusbpd-demo";
    command.words = {"--sysfs", "/nonexistent"};
    if (eventSeconds > 0) {
        command.words.insert(command.words.end(), {"--events", std::to_string(eventSeconds)});
    }
    return command;
}

}  // namespace

Daemon::Daemon(int eventSeconds) : process_(daemonCommand(eventSeconds)) {
    EXPECT_TRUE(process_.waitForOut("is ready on"));
}

Daemon::~Daemon() {
    process_.kill(SIGTERM);
    const cli::Result result = process_.wait();
    EXPECT_EQ(0, result.status) << result.err;
}

cli::Command shell(std::string_view line) {
    cli::Command command;
    command.path = "/bin/bash";
    command.name = "bash";
    command.words = {"--norc", "-c", "cd /tmp; " + std::string(line)};
    const std::string path = cli::baseEnvironment()["PATH"];
    command.environment = {{"PATH", RV_TOOL_DIR ":" RV_CHECKER_DIR ":" + path},
                           {"LC_ALL", "C.UTF-8"},
                           {"HOME", "/tmp"},
                           {"TERM", "xterm"}};
    return command;
}

cli::Command terminalShell(std::string_view line) {
    cli::Command command = shell(line);
    command.input = cli::Input::kTerminal;
    command.outputToTerminal = true;
    return command;
}

std::vector<std::string> linesOf(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return lines;
}

std::string quoted(std::string_view text) {
    std::string result = "'";
    for (const char letter : text) {
        result += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    }
    return result + "'";
}

}  // namespace demo_session
