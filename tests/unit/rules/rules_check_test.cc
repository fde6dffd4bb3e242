// rvusbprules-check from the outside.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "cli/process.h"

namespace {

cli::Command check(std::vector<std::string> words, const std::string& input = "") {
    cli::Command command;
    command.path = RV_CHECK_PATH;
    command.name = "rvusbprules-check";
    command.words = std::move(words);
    command.text = input;
    return command;
}

std::string write(const std::string& name, const std::string& content) {
    const std::string path = "/tmp/rules-check-test-" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

TEST(RulesCheck, GoodFileIsOk) {
    const cli::Result result = cli::run(check({write("good", "share # all\n")}));
    EXPECT_EQ(result.out, "/tmp/rules-check-test-good: OK\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
}

TEST(RulesCheck, BadFileGivesTheParsersMessage) {
    const cli::Result result = cli::run(check({write("bad", "share\nshare share\n")}));
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "Parsing error at rule #2\n/tmp/rules-check-test-bad: refused\n");
    EXPECT_EQ(result.status, 5);
}

TEST(RulesCheck, MissingFileGivesTheLoadersMessage) {
    const cli::Result result = cli::run(check({"/tmp/rules-check-test-missing"}));
    EXPECT_EQ(
        result.err,
        "Error loading rules from /tmp/rules-check-test-missing.\n/tmp/rules-check-test-missing: refused\n");
    EXPECT_EQ(result.status, 5);
}

TEST(RulesCheck, HyphenIsStandardInput) {
    EXPECT_EQ(cli::run(check({"-"}, "block\n")).out, "-: OK\n");
    EXPECT_EQ(cli::run(check({"-"}, "bad\n")).status, 5);
}

TEST(RulesCheck, EveryFileIsLookedAt) {
    const cli::Result result = cli::run(check({write("bad", "bad\n"), write("good", "\n"), "-"}, "share\n"));
    EXPECT_EQ(result.out, "/tmp/rules-check-test-good: OK\n-: OK\n");
    EXPECT_EQ(result.err, "Parsing error at rule #1\n/tmp/rules-check-test-bad: refused\n");
    EXPECT_EQ(result.status, 5);
}

TEST(RulesCheck, NoWordsGivesTheUsage) {
    const cli::Result result = cli::run(check({}));
    EXPECT_EQ(result.err.substr(0, 33), "Usage: rvusbprules-check FILE...\n");
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.status, 22);
}

TEST(RulesCheck, VerdictThatCannotBeWrittenIsAFailure) {
    cli::Command command = check({write("good", "share\n")});
    command.outputFile = "/dev/full";
    EXPECT_EQ(cli::run(command).status, 5);
}

}  // namespace
