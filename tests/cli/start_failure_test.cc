// A tool that finds no descriptors to start with.
#include <gtest/gtest.h>

#include <string>
#include <vector>

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

// With one more each time: the loader of shared libraries comes first, then the engine, which takes one for
// its queue, the connection next, and then there is no daemon. What is enough for the loader is enough for
// the engine.
TEST(StartFailure, WithoutDescriptorsForTheEngineOrTheConnection) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer needs descriptors of its own";
#endif
    const int kNoMemory = 12;
    const int kNotStarted = 127;
    std::vector<std::string> refusals;
    int limit = 3;
    for (Result result; result.status != kIo; ++limit) {
        ASSERT_LT(limit, 100);
        result = run(limited({"dev"}, limit));
        if (result.status == kNotStarted) {
            EXPECT_TRUE(refusals.empty());
            continue;
        }
        EXPECT_EQ(result.out, "");
        if (result.status != kNoMemory) {
            expectResult(result, kIo, "", kCannotConnect);
        } else if (refusals.empty() || refusals.back() != result.err) {
            refusals.push_back(result.err);
        }
    }
    if (!refusals.empty() && refusals.front() == "cannot initialize kqueue\n") {  // a tool without a loader
        refusals.erase(refusals.begin());
    }
    EXPECT_EQ(refusals, std::vector<std::string>{"cannot connect to the daemon\n"});
}

}  // namespace
}  // namespace cli
