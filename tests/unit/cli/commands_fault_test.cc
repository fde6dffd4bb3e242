// The commands without memory to install them.
#include <gtest/gtest.h>

#include <memory>

#include "IPCClient.h"
#include "cli/commands.h"
#include "libio-macOS/RvKQueue.h"
#include "unit/rules/failing_new.h"

namespace {

TEST(InstallCommandFault, EachRefusedAllocationIsTold) {
    const std::shared_ptr<RvKQueue> engine = RvKQueue::initWithSubsystem("fault");
    const std::shared_ptr<RvTetherIPCClient> client = RvTetherIPCClient::initWithKQueue(engine);
    ASSERT_TRUE(client);
    SharedSlots slots;
    for (const CommandKind kind : {CommandKind::kDevList, CommandKind::kRuleEdit, CommandKind::kMonitor}) {
        Invocation invocation;
        invocation.kind = kind;
        constexpr long kMany = 1000;
        allocationsLeft = kMany;
        ASSERT_TRUE(installCommand(client, invocation, slots));
        const long needed = kMany - allocationsLeft;
        EXPECT_GT(needed, 1);
        for (long successes = 0; successes <= needed; ++successes) {
            allocationsLeft = successes;
            const bool installed = installCommand(client, invocation, slots);
            allocationsLeft = -1;
            EXPECT_EQ(installed, successes == needed) << successes;
        }
    }
}

TEST(InstallCommand, AKindWithoutAFlowIsRefused) {
    const std::shared_ptr<RvKQueue> engine = RvKQueue::initWithSubsystem("fault");
    const std::shared_ptr<RvTetherIPCClient> client = RvTetherIPCClient::initWithKQueue(engine);
    ASSERT_TRUE(client);
    SharedSlots slots;
    Invocation invocation;
    invocation.kind = static_cast<CommandKind>(10);  // not in use
    EXPECT_FALSE(installCommand(client, invocation, slots));
}

}  // namespace
