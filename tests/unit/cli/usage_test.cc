#include "cli/usage.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>

namespace {

TEST(UsageDeathTest, GoesToStandardErrorWithTheStatus) {
    char path[] = "/usr/local/bin/some%stool";
    char* vector[] = {path, nullptr};
    setProgramName(1, vector);
    EXPECT_EXIT(usage(22), testing::ExitedWithCode(22),
                "^Usage:\tsome%stool dev\t\t- show list of devices\n");
    EXPECT_EXIT(usageError("Error: x.\n"), testing::ExitedWithCode(22),
                "^Error: x\\.\nUsage:\tsome%stool dev\t");
}

TEST(UsageDeathTest, StatusZeroLeavesStandardErrorEmpty) {
    EXPECT_EXIT(usage(0), testing::ExitedWithCode(0), "^$");
}

TEST(UsageDeathTest, EmptyVectorGivesAnEmptyName) {
    setProgramName(0, nullptr);
    EXPECT_EXIT(usage(22), testing::ExitedWithCode(22), "^Usage:\t dev\t\t- show");
}

}  // namespace
