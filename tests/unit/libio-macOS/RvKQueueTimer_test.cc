#include "libio-macOS/RvKQueueTimer.h"

#include <algorithm>

#include "libio-macOS/RvKQueueStreamSocket.h"
#include "unit/libio-macOS/support/engine_fixture.h"

namespace {

using RvKQueueTimerIdent = EngineTest;
using RvKQueueTimerRun = EngineTest;

TEST_F(RvKQueueTimerIdent, CountsFromZeroAndReusesTheSmallest) {
    const auto zero = loop->createTimer(1000, true);
    const auto one = loop->createTimer(1000, true);
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<" + pointerText(zero.get()) + ">: timer #0 created"));
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<" + pointerText(one.get()) + ">: timer #1 created"));
    loop->stopObject(zero);
    waitForTurn();
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<" + pointerText(zero.get()) + ">: stop timer #0"));
    EXPECT_FALSE(loop->isHereTimerIdent(0));
    const auto again = loop->createTimer(1000, true);
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<" + pointerText(again.get()) + ">: timer #0 created"));
    EXPECT_TRUE(loop->isHereTimerIdent(0));
    EXPECT_TRUE(loop->isHereTimerIdent(1));
    EXPECT_FALSE(loop->isHereTimerIdent(2));
    EXPECT_FALSE(loop->isHereTimerIdent(-1));
}

TEST_F(RvKQueueTimerIdent, AddTimerListsAndRemoveTimerFrees) {
    std::int32_t ident = -7;
    const auto timer = loop->addTimer(5, &ident, false);
    ASSERT_TRUE(timer);
    EXPECT_EQ(0, ident);
    const ProbeEndpoint stranger;
    loop->removeTimer(&stranger);
    EXPECT_TRUE(loop->isHereTimerIdent(0));
    loop->removeTimer(timer.get());
    EXPECT_FALSE(loop->isHereTimerIdent(0));
    loop->removeTimer(timer.get());
    EXPECT_EQ(1, timer.use_count());
}

TEST_F(RvKQueueTimerIdent, IsIndependentOfDescriptorNumbers) {
    // A timer and a socket under the same number report to their own blocks.
    Recorder timerRecorder;
    Recorder socketRecorder;
    DescriptorPair pair = DescriptorPair::socketPair();
    const int number = pair.release(0);
    std::shared_ptr<RvKQueueTimer> timer;
    for (int i = 0; i <= number; ++i) timer = loop->createTimer(1, true);
    ASSERT_TRUE(loop->isHereTimerIdent(number));
    const auto endpoint = loop->createStreamSocket(number, true);
    loop->startObject(endpoint, socketRecorder.block());
    loop->startObject(timer, timerRecorder.block());
    ASSERT_TRUE(timerRecorder.waitFor(kEventData));
    writeAll(pair[1], "x");
    ASSERT_TRUE(socketRecorder.waitForBytes(1));
    loop->stopObject(timer);
    waitForTurn();
    writeAll(pair[1], "y");
    ASSERT_TRUE(socketRecorder.waitForBytes(2));
    EXPECT_EQ(1u, timerRecorder.events().size());
}

TEST_F(RvKQueueTimerRun, AOneShotTimerFiresExactlyOnce) {
    Recorder recorder;
    Recorder clock;
    const auto timer = loop->createTimer(1, true);
    loop->startObject(timer, recorder.block());
    ASSERT_TRUE(recorder.waitFor(kEventData));
    const auto event = recorder.events()[0];
    EXPECT_EQ(timer.get(), event.object);
    EXPECT_FALSE(event.hasBuffer);
    EXPECT_FALSE(event.hasDropSize);
    EXPECT_EQ(0u, event.size);
    EXPECT_NE(std::this_thread::get_id(), event.thread);
    const auto periodic = loop->createTimer(1, false);
    loop->startObject(periodic, clock.block());
    ASSERT_TRUE(clock.waitFor(kEventData, 10));
    EXPECT_EQ(1u, recorder.events().size());
    loop->stopObject(timer);  // whose kernel timer is gone: the failed deletion is not reported
    ASSERT_TRUE(clock.waitFor(kEventData, 20));
    EXPECT_EQ(1u, recorder.events().size());
}

TEST_F(RvKQueueTimerRun, APeriodicTimerFiresUntilStopped) {
    Recorder recorder;
    const auto timer = loop->createTimer(1, false);
    loop->startObject(timer, recorder.block());
    ASSERT_TRUE(recorder.waitFor(kEventData, 20));
    loop->stopObject(timer);
    waitForTurn();
    const int afterwards = recorder.count(kEventData);
    Recorder clock;
    loop->startObject(loop->createTimer(1, false), clock.block());
    ASSERT_TRUE(clock.waitFor(kEventData, 10));
    EXPECT_EQ(afterwards, recorder.count(kEventData));
}

TEST_F(RvKQueueTimerRun, ATimerMayStopItselfInItsBlock) {
    Recorder recorder;
    const auto timer = loop->createTimer(1, false);
    loop->startObject(timer, recorder.block([this](const RecordedEvent& event, std::uint64_t*) {
        loop->stopObject(event.object);
        return true;
    }));
    ASSERT_TRUE(recorder.waitFor(kEventData));
    EXPECT_TRUE(waitUntil([&] { return !loop->isHereTimerIdent(0); }));
    EXPECT_EQ(1u, recorder.events().size());
}

TEST_F(RvKQueueTimerRun, TheMillisecondsAreNarrowedTo32Bits) {
    Recorder recorder;
    const auto timer = loop->createTimer((std::uint64_t{7} << 32) + 1, true);
    loop->startObject(timer, recorder.block());
    EXPECT_TRUE(recorder.waitFor(kEventData));
}

TEST_F(RvKQueueTimerRun, TenThousandOneShotTimersAllFireOnce) {
    constexpr int kTimers = 10000;
    Recorder recorder;
    std::vector<std::shared_ptr<RvKQueueTimer>> timers;
    for (int i = 0; i < kTimers; ++i) {
        timers.push_back(loop->createTimer(static_cast<std::uint64_t>(i % 7), true));
        loop->startObject(timers.back(), recorder.block());
    }
    ASSERT_TRUE(recorder.waitFor(kEventData, kTimers));
    std::vector<RvKQueueEventProtocol*> fired;
    for (const RecordedEvent& event : recorder.events()) fired.push_back(event.object);
    std::sort(fired.begin(), fired.end());
    EXPECT_EQ(fired.end(), std::unique(fired.begin(), fired.end()));
    // All deletions fail at once, which must not keep the change behind them from being applied.
    for (const auto& timer : timers) loop->stopObject(timer);
    Recorder last;
    loop->startObject(loop->createTimer(1, true), last.block());
    EXPECT_TRUE(last.waitFor(kEventData));
    waitForTurn();
    EXPECT_FALSE(loop->isHereTimerIdent(kTimers - 1));
}

}  // namespace
