// A daemon that means no good: what it sends ends in the defined message or is waited for, and takes no more
// memory than a stated multiple of the frame.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "cli/cli_support.h"

namespace {

using cli::Exchange;
using cli::Script;

constexpr std::size_t kLargestBody = 104'857'600;
constexpr std::uint32_t kUnknownCode = 99;  // read and decoded, then ignored
constexpr char kCannotParse[] = "cannot parse protocol";

// Bytes of memory per byte of a frame at the worst: the frame itself in a buffer that doubles, and the values
// that the shortest texts stand for ("0," is a value of 16 bytes) while the parser moves them from its stack
// to their array.
constexpr std::size_t kMemoryPerFrameByte = 30;
// And what the tool takes without any frame.
constexpr std::size_t kOwnMemory = 24U << 20;

/// Bytes that the process has had in memory at most.
std::size_t peakMemory(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmHWM:")) {
            return std::stoul(line.substr(6)) * 1024;
        }
    }
    return 0;
}

void expectBoundedMemory(pid_t pid, std::size_t frameBytes) {
    const std::size_t peak = peakMemory(pid);
    EXPECT_GT(peak, 0U);
    ::testing::Test::RecordProperty("peakPerFrameByteTimes10", static_cast<int>(peak * 10 / frameBytes));
    if (!RV_SANITIZED) {  // a sanitizer has memory of its own
        EXPECT_LE(peak, frameBytes * kMemoryPerFrameByte + kOwnMemory);
    }
}

/// The monitor decodes the frame, ignores it, and goes on: a second frame behind it shows that it has.
void expectSwallowed(std::string_view body) {
    cli::FakeDaemon daemon(
        Script().sendFrame(kUnknownCode, body).sendFrame(cli::kRulesChanged, "{}").hold().close());
    cli::Process process(cli::tool({"monitor"}));
    ASSERT_TRUE(process.waitForOut("rule list changed\n"));
    expectBoundedMemory(process.pid(), body.size());
    daemon.release();
    EXPECT_EQ(cli::kTerminated, cli::finish(process, daemon).tool.err);
}

std::string repeated(std::string_view text, std::size_t bytes) {
    std::string whole;
    whole.reserve(bytes);
    while (whole.size() + text.size() <= bytes) {
        whole += text;
    }
    return whole;
}

std::string longString(std::size_t bytes) {
    return R"({"name":")" + std::string(bytes - 11, 'n') + "\"}";
}

std::string manyNumbers(std::size_t bytes) {
    return R"({"a":[)" + repeated("0,", bytes - 10) + "0]}";
}

std::string manyObjects(std::size_t bytes) {
    return R"({"a":[)" + repeated("{},", bytes - 10) + "0]}";
}

std::string manyMembers(std::size_t bytes) {
    std::string text = "{";
    for (std::size_t number = 0; text.size() + 20 < bytes; ++number) {
        text += '"' + std::to_string(number) + "\":0,";
    }
    return text + R"("a":0})";
}

TEST(HostilePeer, ALongStringTakesBoundedMemory) {
    expectSwallowed(longString(kLargestBody / 10));
}

TEST(HostilePeer, ManyNumbersTakeBoundedMemory) {
    expectSwallowed(manyNumbers(kLargestBody / 10));
}

TEST(HostilePeer, ManyObjectsTakeBoundedMemory) {
    expectSwallowed(manyObjects(kLargestBody / 10));
}

TEST(HostilePeer, ManyMembersTakeBoundedMemory) {
    expectSwallowed(manyMembers(kLargestBody / 10));
}

TEST(LongHostilePeer, TheLargestFramesTakeBoundedMemory) {
    expectSwallowed(longString(kLargestBody));
    expectSwallowed(manyNumbers(kLargestBody));
    expectSwallowed(manyObjects(kLargestBody));
    expectSwallowed(manyMembers(kLargestBody));
}

TEST(HostilePeer, NestingWithoutEndIsRefused) {
    for (const std::string_view opening : {"[", R"({"a":)"}) {
        const std::string body = R"({"a":)" + repeated(opening, kLargestBody / 20);
        cli::FakeDaemon daemon(Script().sendFrame(kUnknownCode, body));
        cli::Process process(cli::tool({"monitor"}));
        const Exchange exchange = cli::finish(process, daemon);
        cli::expectResult(exchange.tool, cli::kIo, "", kCannotParse);
    }
}

TEST(HostilePeer, AHundredThousandTinyFramesAtOnceAreAllPrinted) {
    constexpr std::size_t kFrames = 100'000;
    cli::FakeDaemon daemon(
        Script().send(repeated(fake::frame(cli::kRulesChanged, "{}"), kFrames * 10)).hold().close());
    cli::Process process(cli::tool({"monitor"}));
    ASSERT_TRUE(process.waitForOut("rule list changed\n", kFrames));
    expectBoundedMemory(process.pid(), kFrames * 10);
    daemon.release();
    const Exchange exchange = cli::finish(process, daemon);
    EXPECT_EQ(kFrames,
              static_cast<std::size_t>(std::count(exchange.tool.out.begin(), exchange.tool.out.end(), '\n')));
}

TEST(HostilePeer, AFrameThatNeverEndsIsWaitedForInBoundedMemory) {
    const std::string part(kLargestBody / 10, ' ');
    cli::FakeDaemon daemon(
        Script().send(fake::header(kUnknownCode, kLargestBody) + part).drain().hold().close());
    cli::Process process(cli::tool({"monitor"}));
    ASSERT_TRUE(daemon.waitForHold(1));
    EXPECT_TRUE(process.isRunning());
    expectBoundedMemory(process.pid(), part.size());
    daemon.release();
    cli::expectResult(cli::finish(process, daemon).tool, cli::kIo, "", cli::kTerminated);
}

struct Lie {
    const char* name;
    std::string bytes;
    const char* message;
};

void PrintTo(const Lie& lie, std::ostream* out) {
    *out << lie.name;
}

class LyingPeer : public ::testing::TestWithParam<Lie> {};

TEST_P(LyingPeer, HasItsMessage) {
    cli::FakeDaemon daemon(Script().receive().send(GetParam().bytes).drain().close());
    cli::Process process(cli::tool({"dev"}));
    const Exchange exchange = cli::finish(process, daemon);
    EXPECT_EQ(cli::kIo, exchange.tool.status);
    EXPECT_EQ(GetParam().message, exchange.tool.err);
}

// 538976288 is what four blanks are as a length.
INSTANTIATE_TEST_SUITE_P(
    Lengths, LyingPeer,
    ::testing::Values(
        Lie{"OneByteShort", fake::header(1, 16) + R"({"devices":[]})" + "  ", cli::kTerminated},
        Lie{"CutsTheText", fake::header(0, 13) + R"({"devices":[]})", kCannotParse},
        Lie{"LeavesARest", fake::header(1, 2) + "{}        ", "invalid protocol\n"},
        Lie{"CoversTheNextHeader", fake::header(1, 10) + "{}" + fake::frame(0, "{}"), kCannotParse},
        Lie{"LongerThanAllThatComes", fake::header(0, 100) + R"({"devices":[]})", cli::kTerminated},
        Lie{"Zero", fake::header(0, 0), "invalid protocol\n"},
        Lie{"OneTooMany", fake::header(0, kLargestBody + 1), "invalid protocol\n"},
        Lie{"AllBitsSet", fake::header(0, 0xffffffff), "invalid protocol\n"}),
    [](const auto& lie) { return std::string(lie.param.name); });

}  // namespace
