// The monitor through ten million frames: it holds at the end what it held at the beginning.
#include <gtest/gtest.h>

#include "cli/cli_support.h"
#include "soak/process_size.h"

namespace {

constexpr std::size_t kRounds = 100;
constexpr std::size_t kFramesPerRound = 100'000;
constexpr std::size_t kWarmUpRounds = 10;
constexpr std::size_t kSlack = 2U << 20;
constexpr std::uint32_t kUnknownCode = 99;  // decoded and ignored

/// One round: frames of several kinds and sizes, and a line that shows that all of them have been read.
std::string round() {
    std::string frames;
    for (std::size_t number = 1; number < kFramesPerRound; ++number) {
        const std::string text(number % 97, 'x');
        frames += fake::frame(kUnknownCode, R"({"a":")" + text + R"(","b":[1,2]})");
    }
    return frames + fake::frame(cli::kRulesChanged, "{}");
}

TEST(LongSoak, MonitorHoldsNothingOfTenMillionFrames) {
    const std::string frames = round();
    cli::Script script;
    for (std::size_t number = 0; number < kRounds; ++number) {
        script.hold().send(frames);
    }
    cli::FakeDaemon daemon(script.hold().close());
    cli::Process process(cli::tool({"monitor"}));
    ProcessSize warm;
    for (std::size_t number = 1; number <= kRounds; ++number) {
        daemon.release();
        ASSERT_TRUE(process.waitForOut("rule list changed\n", number));
        if (number == kWarmUpRounds) {
            warm = sizeOf(process.pid());
        }
    }
    const ProcessSize size = sizeOf(process.pid());
    EXPECT_EQ(warm.descriptors, size.descriptors);
    EXPECT_LE(size.residentBytes, warm.residentBytes + kSlack);
    RecordProperty("residentKiB", static_cast<int>(size.residentBytes >> 10));
    daemon.release();
    EXPECT_EQ(cli::kTerminated, cli::finish(process, daemon).tool.err);
}

}  // namespace
