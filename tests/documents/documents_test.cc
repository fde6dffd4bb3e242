// README.md and docs/: what they show is what the tool prints, and their links lead somewhere.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "cli/cli_support.h"
#include "demo_session/demo_session.h"

namespace {

namespace fs = std::filesystem;

using ::testing::HasSubstr;

std::string readme() {
    return cli::readFile(RV_SOURCE_DIR "/README.md");
}

/// A command line and what stands below it.
struct Shown {
    std::string line;
    std::string output{};
};

/// The commands of the code blocks that begin with "$ ".
std::vector<Shown> shownCommands(const std::string& document) {
    std::vector<Shown> commands;
    bool isCode = false;
    bool isTranscript = false;
    for (const std::string& line : demo_session::linesOf(document)) {
        if (line.starts_with("```")) {
            isCode = !isCode;
            isTranscript = false;
        } else if (isCode && line.starts_with("$ ")) {
            isTranscript = true;
            commands.push_back({line.substr(2)});
        } else if (isTranscript) {
            commands.back().output += line + "\n";
        }
    }
    return commands;
}

TEST(Readme, ShowsWhatTheToolPrints) {
    const demo_session::Daemon daemon;
    const std::vector<Shown> commands = shownCommands(readme());
    EXPECT_LE(4U, commands.size());
    for (const Shown& command : commands) {
        const cli::Result result = run(demo_session::shell(command.line));
        EXPECT_EQ(command.output, result.out + result.err) << command.line;
    }
}

TEST(Readme, NamesEveryCommand) {
    const std::string text = readme();
    const std::regex usage("rvusbpctl ([a-z]+)( [a-z]+)?[ \t]");
    std::size_t commands = 0;
    for (const std::string& line : demo_session::linesOf(cli::usageText())) {
        std::smatch words;
        if (std::regex_search(line, words, usage)) {
            const std::string second = words[2] == " vid" ? "" : words[2].str();
            EXPECT_THAT(text, HasSubstr("`" + words[1].str() + second));
            ++commands;
        }
    }
    EXPECT_EQ(18U, commands);
}

TEST(Readme, ListsEveryExitStatus) {
    const std::string text = readme();
    for (const char* status : {"0", "2", "5", "12", "22", "80"}) {
        EXPECT_THAT(text, HasSubstr("\n| " + std::string(status) + " | "));
    }
}

TEST(Readme, HasALineForEveryDirectory) {
    const std::string text = readme();
    for (const auto& entry : fs::directory_iterator(RV_SOURCE_DIR)) {
        const std::string name = entry.path().filename();
        if (entry.is_directory() && !name.starts_with(".") && name != "build") {
            EXPECT_TRUE(text.find("| `" + name) != std::string::npos ||
                        text.find(", `" + name + "`") != std::string::npos)
                << name;
        }
    }
}

/// README.md, its like, and everything below docs/.
std::vector<fs::path> documents() {
    std::vector<fs::path> paths;
    for (const char* directory : {RV_SOURCE_DIR, RV_SOURCE_DIR "/docs"}) {
        for (const auto& entry : fs::directory_iterator(directory)) {
            if (entry.path().extension() == ".md") {
                paths.push_back(entry.path());
            }
        }
    }
    return paths;
}

TEST(Documents, LinksLeadSomewhere) {
    const std::regex link("\\]\\(([^)#:\\s]+)\\)");
    std::size_t links = 0;
    for (const fs::path& document : documents()) {
        const std::string text = cli::readFile(document);
        for (std::sregex_iterator at(text.begin(), text.end(), link), end; at != end; ++at, ++links) {
            EXPECT_TRUE(fs::exists(document.parent_path() / (*at)[1].str()))
                << document << ": " << (*at)[1].str();
        }
    }
    EXPECT_LT(5U, links);
}

TEST(Documents, PortingNamesEveryHeaderOfThePlatform) {
    const std::string text = cli::readFile(RV_SOURCE_DIR "/docs/porting.md");
    for (const auto& entry : fs::directory_iterator(RV_SOURCE_DIR "/platform")) {
        if (entry.path().extension() == ".h") {
            EXPECT_THAT(text, HasSubstr("| `" + entry.path().filename().string() + "` |"));
        }
    }
}

}  // namespace
