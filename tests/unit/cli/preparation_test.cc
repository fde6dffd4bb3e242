#include "cli/preparation.h"

#include <gtest/gtest.h>

namespace {

// 10 and 11 are not in use, nor is anything above 15: a kind that was added without its preparation.
TEST(PreparationDeathTest, KindWithoutPreparationIsNotImplemented) {
    for (const int kind : {10, 11, 16}) {
        Invocation invocation;
        invocation.kind = static_cast<CommandKind>(kind);
        SharedSlots slots;
        EXPECT_EXIT(prepareLocally(invocation, slots), testing::ExitedWithCode(22),
                    "^Error: not implemented\\.\n$")
            << kind;
    }
}

}  // namespace
