// main() of the test programs that need a /run and a /tmp of their own.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>

#include "sandbox/sandbox.h"

namespace {

bool inContinuousIntegration() {
    const char* value = getenv("CI");
    return value != nullptr && std::strcmp(value, "true") == 0;
}

// The word in brackets is what ctest looks for to count a test as skipped.
int reportNoSandbox(const char* reason) {
    if (inContinuousIntegration()) {
        (void)std::fprintf(stderr, "no private /run and /tmp for the tests: %s\n", reason);
        return 1;
    }
    (void)std::printf("[  SKIPPED ] no private /run and /tmp for the tests: %s\n", reason);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string reason = sandbox::enter(argc, argv);
    if (!reason.empty()) {
        return reportNoSandbox(reason.c_str());
    }
    // A program under test may end before it has read all its input.
    (void)signal(SIGPIPE, SIG_IGN);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
