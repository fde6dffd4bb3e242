// The manual pages are clean, name everything that there is, and their examples work when they are pasted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "cli/cli_support.h"
#include "demo_session/demo_session.h"
#include "manual/manual_page.h"

namespace {

using ::testing::HasSubstr;

// Examples that somebody has to end: what is seen first, and what is typed then.
struct Interactive {
    std::string_view part;  // of the command line
    std::string_view seen;
    std::string_view typed;
    int signal;  // that ends the shell
};

constexpr Interactive kInteractive[] = {
    {"EDITOR=nano", "^X", "\x18", 0},
    {"rvusbpctl monitor", "device id:", "\x03", SIGINT},
};

void expectWorks(const std::string& line) {
    SCOPED_TRACE(line);
    const auto* row =
        std::find_if(std::begin(kInteractive), std::end(kInteractive),
                     [&](const Interactive& one) { return line.find(one.part) != std::string::npos; });
    const bool isInteractive = row != std::end(kInteractive);
    cli::Process process(demo_session::terminalShell(line));
    if (isInteractive) {
        ASSERT_TRUE(process.waitForTerminal(row->seen));
        process.type(row->typed);
    }
    const cli::Result result = process.wait();
    EXPECT_EQ("", result.err);
    if (isInteractive && row->signal != 0) {
        EXPECT_EQ(row->signal, result.signal);
    } else {
        EXPECT_EQ(0, result.status) << result.terminal;
    }
}

void expectExamplesWork(std::string_view page, std::size_t atLeast) {
    const demo_session::Daemon daemon(1);
    const std::vector<std::string> lines = manual::exampleCommands(page);
    EXPECT_GE(lines.size(), atLeast);
    for (const std::string& line : lines) {
        expectWorks(line);
    }
}

TEST(Manual, PagesAreClean) {
    EXPECT_GE(manual::pages().size(), 3U);
    for (const std::string& path : manual::pages()) {
        const cli::Result result =
            run(demo_session::shell("mandoc -Tlint -W warning " + demo_session::quoted(path)));
        EXPECT_EQ("", result.out + result.err);
        EXPECT_EQ(0, result.status);
    }
}

TEST(Manual, ExamplesOfTheToolWork) {
    expectExamplesWork("rvusbpctl.1", 18);
}

TEST(Manual, ExamplesOfTheCheckerWork) {
    expectExamplesWork("rvusbprules-check.1", 3);
}

TEST(Manual, ExampleOfTheRuleLanguageIsARuleSet) {
    std::string rules;
    for (const std::string& line : manual::section("rvusbprules.5", "EXAMPLES")) {
        if (line != "     A rule set:") {
            rules += line + "\n";
        }
    }
    cli::Command command = demo_session::shell("rvusbprules-check -");
    command.text = rules;
    cli::expectResult(run(command), cli::kOk, "-: OK\n", "");
}

TEST(Manual, NamesEveryCommandOfTheUsageText) {
    std::string page = manual::text("rvusbpctl.1");
    std::erase_if(page, [](char letter) { return letter == '[' || letter == ']'; });
    std::size_t commands = 0;
    for (const std::string& line : demo_session::linesOf(cli::usageText())) {
        const std::size_t name = line.find("rvusbpctl ");
        if (name == std::string::npos) {
            continue;  // the description of an option
        }
        const std::string words = line.substr(name + 10, line.find_first_of("\t<[-:", name) - name - 10);
        const std::string command = words.substr(0, words.find_last_not_of(' ') + 1);
        EXPECT_THAT(page, HasSubstr(command.substr(0, command.rfind(" vid"))));
        ++commands;
    }
    EXPECT_EQ(19U, commands);
}

TEST(Manual, ListsEveryExitStatus) {
    std::vector<std::string> numbers;
    for (const std::string& line : manual::section("rvusbpctl.1", "EXIT STATUS")) {
        if (const std::size_t start = line.find_first_not_of(' '); start == 5) {
            numbers.push_back(line.substr(start, line.find(' ', start) - start));
        }
    }
    EXPECT_THAT(numbers, ::testing::ElementsAre("0", "2", "5", "12", "22", "80"));
}

}  // namespace
