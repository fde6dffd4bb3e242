// The usage text, its stream and the name in it.
#include <gtest/gtest.h>

#include "cli/cli_support.h"

namespace cli {
namespace {

const std::string kNoWords = "Error: arguments must be specified.\n";

class UsageRequested : public ::testing::TestWithParam<const char*> {};

TEST_P(UsageRequested, GoesToStandardOutput) {
    expectResult(run(tool({GetParam()})), kOk, usageText(), "");
}

TEST_P(UsageRequested, FurtherWordsDoNotMatter) {
    expectResult(run(tool({GetParam(), "dev", "foo"})), kOk, usageText(), "");
}

INSTANTIATE_TEST_SUITE_P(Words, UsageRequested, ::testing::Values("-h", "--help"),
                         [](const auto& row) { return row.param[1] == '-' ? "Long" : "Short"; });

// SIGPIPE would end the tool.
TEST(Usage, IsASuccessWithoutAReader) {
    Command command = tool({});
    command.words = {"-c", "read go; exec \"$0\" -h", command.path};
    command.path = "/bin/sh";
    command.input = Input::kOpen;
    Process process(command);
    process.closeOut();
    process.type("go\n");
    expectResult(process.wait(), kOk, "", "");
}

TEST(Usage, FollowsTheMessageOnStandardErrorWithoutWords) {
    expectResult(run(tool({})), kInvalid, "", kNoWords + usageText());
}

TEST(Usage, NamesTheProgramByTheLastComponentOfItsPath) {
    Command command = tool({"-h"});
    command.name = "/some/where/the-tool";
    expectResult(run(command), kOk, usageText("the-tool"), "");
}

TEST(Usage, NamesTheProgramWithoutTrailingSlashes) {
    Command command = tool({"--help"});
    command.name = "dir/tool//";
    expectResult(run(command), kOk, usageText("tool"), "");
}

TEST(Usage, PercentSignsOfTheNameAreText) {
    Command command = tool({"-h"});
    command.name = "./%s%n%d";
    expectResult(run(command), kOk, usageText("%s%n%d"), "");
}

TEST(Usage, LongNameIsPrintedWhole) {
    Command command = tool({"-h"});
    command.name = std::string(5000, 'n');
    expectResult(run(command), kOk, usageText(command.name), "");
}

// Kernels since 5.18 put one empty word into an empty argument vector (execve(2)); basename(3) makes "." of
// that.
TEST(Usage, EmptyArgumentVectorIsAFailure) {
    Command command = tool({});
    command.emptyVector = true;
    const Result result = run(command);
    EXPECT_EQ(kInvalid, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_TRUE(result.err == kNoWords + usageText("") || result.err == kNoWords + usageText("."))
        << result.err;
}

TEST(Usage, EmptyProgramNameIsAFailureWithoutWords) {
    Command command = tool({});
    command.name = "";
    expectResult(run(command), kInvalid, "", kNoWords + usageText("."));
}

}  // namespace
}  // namespace cli
