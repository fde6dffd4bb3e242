// Each command of the tool with one request for memory refused, then with all refused from one on: the first,
// the second and so on until a run needs no more of them.
#include <gtest/gtest.h>

#include <filesystem>

#include "fault/commands_under_fault.h"

namespace {

using fault::Outcome;
using fault::Scene;

constexpr char kMark[] = "/tmp/mark";
constexpr long kForEver = 1'000'000'000;
constexpr long kMoreThanEnough = 2000;

class Sweep : public ::testing::TestWithParam<Scene> {
  protected:
    static Outcome runWithFault(const Scene& scene, long first, long times) {
        cli::Command command = fault::prepare(scene);
        std::filesystem::remove(kMark);
        if (scene.edits && times == kForEver) {
            command.text = "n\n";  // another try would fail as well
        }
        command.environment["LD_PRELOAD"] = RV_FAILING_MEMORY;
        command.environment["RV_FAIL_MARK"] = kMark;
        command.environment["RV_FAIL_FIRST"] = std::to_string(first);
        command.environment["RV_FAIL_TIMES"] = std::to_string(times);
        return fault::runScene(command, scene);
    }

    static void sweep(const Scene& scene, long times) {
        const cli::Exchange whole = cli::converse(fault::prepare(scene), scene.script);
        ASSERT_EQ(scene.status, whole.tool.status) << whole.tool.err;
        long waits = 0;
        for (long first = 1; first < kMoreThanEnough; ++first) {
            SCOPED_TRACE("request for memory " + std::to_string(first));
            const Outcome run = runWithFault(scene, first, times);
            if (!std::filesystem::exists(kMark)) {
                if (!run.waited) {  // a slow machine may have made it lose its connection
                    EXPECT_EQ(whole.tool.out.size(), run.exchange.tool.out.size());
                }
                EXPECT_GT(first, 10) << "nothing was made to fail";
                RecordProperty("requests", static_cast<int>(first - 1));
                RecordProperty("waits", static_cast<int>(waits));
                return;
            }
            waits += run.waited ? 1 : 0;
            fault::expectDefinedEnd(scene, run, whole);
        }
        FAIL() << "the run never needs less memory";
    }
};

class AllocationSweep : public Sweep {};
class LongAllocationSweep : public Sweep {};

TEST_P(AllocationSweep, OneRefusalHasADefinedEnd) {
    sweep(GetParam(), 1);
}

// Threads race for memory: each repetition meets another order.
TEST_P(LongAllocationSweep, OneRefusalHasADefinedEndEachTime) {
    for (int repetition = 0; repetition < 10; ++repetition) {
        sweep(GetParam(), 1);
    }
}

TEST_P(LongAllocationSweep, NoMemoryFromOnePointOnHasADefinedEnd) {
    for (int repetition = 0; repetition < 5; ++repetition) {
        sweep(GetParam(), kForEver);
    }
}

std::string nameOf(const ::testing::TestParamInfo<Scene>& scene) {
    return scene.param.name;
}

INSTANTIATE_TEST_SUITE_P(Commands, AllocationSweep, ::testing::ValuesIn(fault::scenes()), nameOf);
INSTANTIATE_TEST_SUITE_P(Commands, LongAllocationSweep, ::testing::ValuesIn(fault::scenes()), nameOf);

}  // namespace
