/// Timers of a loop whose every ident is in use; the program is linked with --wrap of TimerIdents::findFree,
/// for two thousand million timers do not fit into a test.
#include <optional>

#include "libio-macOS/RvKQueueTimer.h"
#include "libio-macOS/TimerIdents.h"
#include "unit/libio-macOS/support/engine_fixture.h"

bool realFindFree(TimerIdents* idents, std::optional<std::int32_t>* ident) noexcept
    __asm__("__real__ZN11TimerIdents8findFreeEPSt8optionalIiE");
bool findFreeOrNone(TimerIdents* idents, std::optional<std::int32_t>* ident) noexcept
    __asm__("__wrap__ZN11TimerIdents8findFreeEPSt8optionalIiE");

namespace {
bool allInUse = false;
}

bool findFreeOrNone(TimerIdents* idents, std::optional<std::int32_t>* ident) noexcept {
    if (!allInUse) return realFindFree(idents, ident);
    ident->reset();
    return true;
}

namespace {

using RvKQueueTimerExhaustion = IdleLoopTest;

TEST_F(RvKQueueTimerExhaustion, CreateTimerSaysSoAndAddTimerDoesNot) {
    std::int32_t ident = -1;
    allInUse = true;
    EXPECT_FALSE(loop->addTimer(1, &ident, true));
    EXPECT_EQ(-1, ident);
    EXPECT_EQ(1u, capturedLog().size());  // the line of the loop's creation
    EXPECT_FALSE(loop->createTimer(1, true));
    EXPECT_EQ(1, countLogged(LogLevel::kError, "cannot initialize timer object"));
    EXPECT_EQ(2u, capturedLog().size());
    allInUse = false;
    EXPECT_TRUE(loop->createTimer(1, true));
}

}  // namespace
