// A tool that finds no descriptors to start with.
#include <gtest/gtest.h>

#include <map>

#include "cli/cli_support.h"

namespace cli {
namespace {

/// The tool with the numbers below `limit` alone, started by a shell that sets the limit.
Command limited(const Words& words, int limit) {
    Command command = tool(words);
    command.words = {"-c", "ulimit -n " + std::to_string(limit) + "; exec \"$0\" \"$@\"", command.path};
    command.words.insert(command.words.end(), words.begin(), words.end());
    command.path = "/bin/sh";
    return command;
}

// With one more each time: the loader of shared libraries comes first if the test itself has inherited some,
// then the engine, the connection next, and then there is no daemon.
TEST(StartFailure, WithoutDescriptorsForTheEngineOrTheConnection) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer needs descriptors of its own";
#endif
    const int kNoMemory = 12;
    const int kNotStarted = 127;
    std::map<std::string, int> refusals;
    int limit = 4;
    for (Result result; result.status != kIo; ++limit) {
        ASSERT_LT(limit, 100);
        result = run(limited({"dev"}, limit));
        if (result.status == kNotStarted) {
            continue;
        }
        EXPECT_EQ(result.out, "");
        if (result.status == kNoMemory) {
            ++refusals[result.err];
        } else {
            expectResult(result, kIo, "", kCannotConnect);
        }
    }
    ASSERT_EQ(refusals.size(), 2U);
    EXPECT_GT(refusals["cannot initialize kqueue\n"], 0);
    EXPECT_GT(refusals["cannot connect to the daemon\n"], 0);
}

}  // namespace
}  // namespace cli
