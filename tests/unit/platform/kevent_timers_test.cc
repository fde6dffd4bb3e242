/// EVFILT_TIMER: units, periods, restarts and the count of whole periods.
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <ostream>
#include <random>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "kevent_support.h"

namespace {

using namespace keventtest;

struct kevent timer(uint64_t ident, unsigned flags, int64_t data, unsigned fflags = 0, int mark = 0) {
    return change(ident, EVFILT_TIMER, flags, data, fflags, mark);
}

/// Lets the clock pass a point, so that a timer is due without being collected: time is what is tested here.
void passNs(int64_t ns) {
    const int64_t until = nowNs() + ns;
    const timespec end{until / 1'000'000'000, until % 1'000'000'000};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}

TEST(KeventTimers, OneShotFiresOnceAndIsGone) {
    const Queue queue;
    const int64_t begin = nowNs();
    ASSERT_EQ(queue.apply(timer(3, kArm | EV_ONESHOT, 5, NOTE_BACKGROUND, 2)), 0);
    const auto event = queue.next();
    EXPECT_GE(nowNs() - begin, 5'000'000);
    EXPECT_THAT(event, IsEvent(3, EVFILT_TIMER));
    EXPECT_EQ(event.flags, kArm | EV_ONESHOT | EV_CLEAR);
    EXPECT_EQ(event.fflags, 0U);
    EXPECT_EQ(event.data, 1);
    EXPECT_EQ(event.udata, markAddress(2));
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    EXPECT_EQ(queue.apply(timer(3, EV_DELETE, 0)), ENOENT);
}

TEST(KeventTimers, OneShotThatIsCollectedLateCountsOne) {
    const Queue queue;
    ASSERT_EQ(queue.apply(timer(1, kArm | EV_ONESHOT, 1)), 0);
    passNs(5'000'000);
    EXPECT_EQ(queue.next().data, 1);
}

TEST(KeventTimers, PeriodicGoesOnAndShowsClear) {
    const Queue queue;
    const int64_t begin = nowNs();
    ASSERT_EQ(queue.apply(timer(0, kArm, 4)), 0);
    int64_t periods = 0;
    while (periods < 5) {
        const auto event = queue.next();
        EXPECT_EQ(event.flags, kArm | EV_CLEAR);
        EXPECT_GE(event.data, 1);
        periods += event.data;
    }
    EXPECT_GE(nowNs() - begin, periods * 4'000'000);
    EXPECT_EQ(queue.apply(timer(0, EV_DELETE, 0)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

struct Unit {
    const char* name;
    unsigned fflags;
    int64_t data;
    int64_t ns;
};

void PrintTo(const Unit& unit, std::ostream* out) {
    *out << unit.name;
}

class KeventTimerUnits : public testing::TestWithParam<Unit> {};

INSTANTIATE_TEST_SUITE_P(Units, KeventTimerUnits,
                         testing::Values(Unit{"Milliseconds", 0, 3, 3'000'000},
                                         Unit{"Microseconds", NOTE_USECONDS, 3000, 3'000'000},
                                         Unit{"Nanoseconds", NOTE_NSECONDS, 3'000'000, 3'000'000},
                                         Unit{"Seconds", NOTE_SECONDS, 1, 1'000'000'000},
                                         Unit{"Background", NOTE_BACKGROUND | NOTE_USECONDS, 3000,
                                              3'000'000}),
                         [](const auto& one) { return one.param.name; });

TEST_P(KeventTimerUnits, FiresAfterItsTime) {
    const Queue queue;
    const int64_t begin = nowNs();
    ASSERT_EQ(queue.apply(timer(1, kArm | EV_ONESHOT, GetParam().data, GetParam().fflags)), 0);
    const auto early = queue.collect();
    const auto event = early.empty() ? queue.next() : early.front();  // it may be due already
    EXPECT_GE(nowNs() - begin, GetParam().ns);
    EXPECT_EQ(event.data, 1);
    EXPECT_EQ(event.fflags, 0U);
}

TEST(KeventTimers, TwoUnitsAreInvalid) {
    const Queue queue;
    EXPECT_EQ(queue.apply(timer(1, kArm, 3, NOTE_SECONDS | NOTE_USECONDS)), EINVAL);
    EXPECT_EQ(queue.apply(timer(1, EV_DELETE, 0)), ENOENT);
}

TEST(KeventTimers, AbsoluteTimeIsTheWallClocks) {
    const Queue queue;
    const int64_t at = nowNs(CLOCK_REALTIME) + 5'000'000;
    ASSERT_EQ(queue.apply(timer(1, kArm, at, NOTE_ABSOLUTE | NOTE_NSECONDS)), 0);
    EXPECT_EQ(queue.next().data, 1);
    EXPECT_GE(nowNs(CLOCK_REALTIME), at);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    EXPECT_EQ(queue.apply(timer(1, EV_DELETE, 0)), 0);
}

TEST(KeventTimers, AbsoluteTimeInThePastFiresAtOnce) {
    const Queue queue;
    ASSERT_EQ(queue.apply(timer(1, kArm, 5, NOTE_ABSOLUTE | NOTE_SECONDS)), 0);
    EXPECT_EQ(queue.collect().size(), 1U);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

TEST(KeventTimers, ManyThatComeAndGoStayApart) {
    const Queue queue;
    const auto add = [&queue](uint64_t id) { ASSERT_EQ(queue.apply(timer(id, kArm, 3'600'000)), 0) << id; };
    for (uint64_t id = 0; id < 1000; ++id) add(id);
    for (uint64_t id = 0; id < 1000; id += 2) ASSERT_EQ(queue.apply(timer(id, EV_DELETE, 0)), 0) << id;
    for (uint64_t id = 1000; id < 1500; ++id) add(id);
    for (uint64_t id = 0; id < 1500; ++id) {
        const bool lives = id >= 1000 || id % 2 == 1;
        EXPECT_EQ(queue.apply(timer(id, EV_DELETE, 0)), lives ? 0 : ENOENT) << id;
    }
}

/// The last of them takes the place of the deleted one, where it is earlier than what stands above.
TEST(KeventTimers, DeletionKeepsTheOrder) {
    const Queue queue;
    std::vector<struct kevent> changes;
    for (const int64_t us : {6, 4, 7, 2, 5, 3, 1}) {
        changes.push_back(timer(static_cast<uint64_t>(us), kArm | EV_ONESHOT, us, NOTE_USECONDS));
    }
    changes.push_back(timer(6, EV_DELETE, 0));
    EXPECT_THAT(queue.collect(0, 0, changes), testing::IsEmpty());
    passNs(20'000);
    std::vector<uint64_t> order;
    for (const auto& event : queue.collect()) order.push_back(event.ident);
    EXPECT_THAT(order, testing::ElementsAre(1, 2, 3, 4, 5, 7));
}

TEST(KeventTimers, ZeroFiresAtOnceAndOnce) {
    const Queue queue;
    ASSERT_EQ(queue.apply(timer(1, kArm, 0)), 0);
    ASSERT_EQ(queue.apply(timer(2, kArm | EV_ONESHOT, 0)), 0);
    const auto events = queue.collect();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].data, 1);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    EXPECT_EQ(queue.apply(timer(1, EV_DELETE, 0)), 0) << "a periodic one stays";
    EXPECT_EQ(queue.apply(timer(2, EV_DELETE, 0)), ENOENT);
}

TEST(KeventTimers, NegativeFiresAtOnceAndOnce) {
    const Queue queue;
    ASSERT_EQ(queue.apply(timer(1, kArm, -5)), 0);
    ASSERT_EQ(queue.apply(timer(2, kArm, INT64_MIN)), 0);
    EXPECT_EQ(queue.collect().size(), 2U);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

TEST(KeventTimers, EndlessTimeDoesNotOverflow) {
    const Queue queue;
    ASSERT_EQ(queue.apply(timer(1, kArm, INT64_MAX, NOTE_SECONDS)), 0);
    ASSERT_EQ(queue.apply(timer(2, kArm, INT64_MAX)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

TEST(KeventTimers, CountsWholePeriodsWithoutDrift) {
    const Queue queue;
    const int64_t begin = nowNs();
    ASSERT_EQ(queue.apply(timer(1, kArm, 2)), 0);
    const int64_t armed = nowNs();
    int64_t periods = 0;
    for (int i = 0; i < 20; ++i) {
        passNs(i % 3 == 0 ? 5'000'000 : 700'000);
        const int64_t before = nowNs();
        for (const auto& event : queue.collect()) periods += event.data;
        // Exactly as many as passed since it was armed, however late each of them was collected.
        EXPECT_GE(periods, (before - armed) / 2'000'000);
        EXPECT_LE(periods, (nowNs() - begin) / 2'000'000);
    }
}

/// Whichever source of events comes first, and though the timer is due again at once.
TEST(KeventTimers, ComesOnceInACall) {
    const Queue queue;
    ASSERT_EQ(queue.apply(timer(1, kArm, 1, NOTE_NSECONDS)), 0);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(queue.collect().size(), 1U);
}

TEST(KeventTimers, EqualDeadlinesComeInTheOrderOfTheirStart) {
    const Queue queue;
    std::vector<struct kevent> changes;
    for (uint64_t i = 0; i < 40; ++i) changes.push_back(timer(i * 7 % 40, kArm | EV_ONESHOT, 0));
    const auto events = queue.collect(0, 64, changes);
    ASSERT_EQ(events.size(), changes.size());
    for (size_t i = 0; i < events.size(); ++i) EXPECT_EQ(events[i].ident, changes[i].ident);
}

TEST(KeventTimers, DeletesLeaveTheOthersInTheirOrder) {
    constexpr uint64_t kTimers = 1'000;
    const Queue queue;
    std::vector<struct kevent> adds;
    std::vector<struct kevent> deletes;
    std::mt19937 random(5);
    for (uint64_t i = 0; i < kTimers; ++i) {
        adds.push_back(
            timer(i, kArm | EV_ONESHOT, static_cast<int64_t>(random() % 1'000'000), NOTE_NSECONDS));
        if (i % 3 != 0) deletes.push_back(timer(i, EV_DELETE, 0));
    }
    std::shuffle(deletes.begin(), deletes.end(), random);
    adds.insert(adds.end(), deletes.begin(), deletes.end());
    ASSERT_EQ(kevent(queue.fd(), adds.data(), static_cast<int>(adds.size()), nullptr, 0, nullptr), 0);
    passNs(1'000'000);
    const auto events = queue.collect(0, kTimers);
    ASSERT_EQ(events.size(), kTimers - deletes.size());
    for (size_t i = 1; i < events.size(); ++i) {
        EXPECT_LE(adds[events[i - 1].ident].data, adds[events[i].ident].data);
    }
}

TEST(KeventTimers, AddAloneEnables) {
    const Queue queue;
    ASSERT_EQ(queue.apply(timer(1, EV_ADD, 0)), 0);
    EXPECT_EQ(queue.next().flags, EV_ADD | EV_CLEAR);
}

TEST(KeventTimers, AddLeavesADisabledTimerDisabled) {
    const Queue queue;
    ASSERT_EQ(queue.apply(timer(1, EV_ADD | EV_DISABLE, 0)), 0);
    ASSERT_EQ(queue.apply(timer(1, EV_ADD, 0)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    ASSERT_EQ(queue.apply(timer(1, EV_ENABLE, 0)), 0);
    EXPECT_EQ(queue.collect().size(), 1U);
}

TEST(KeventTimers, AddRestartsFromNowAndDropsWhatIsDue) {
    const Queue queue;
    ASSERT_EQ(queue.apply(timer(1, kArm, 1)), 0);
    passNs(3'000'000);
    const int64_t begin = nowNs();
    ASSERT_EQ(queue.apply(timer(1, kArm, 20, 0, 7)), 0);
    const auto event = queue.next();
    EXPECT_GE(nowNs() - begin, 20'000'000);
    EXPECT_GE(event.data, 1);
    EXPECT_EQ(event.udata, markAddress(7));
}

TEST(KeventTimers, AddKeepsTheFlagsOfTheFirst) {
    const Queue queue;
    ASSERT_EQ(queue.apply(timer(1, kArm | EV_ONESHOT, 1000)), 0);
    ASSERT_EQ(queue.apply(timer(1, EV_ADD, 0)), 0);
    EXPECT_EQ(queue.next().flags, kArm | EV_ONESHOT | EV_CLEAR);
    EXPECT_EQ(queue.apply(timer(1, EV_DELETE, 0)), ENOENT);
}

TEST(KeventTimers, DeleteDropsAnExpiryThatIsDue) {
    const Queue queue;
    ASSERT_EQ(queue.apply(timer(1, kArm, 0)), 0);
    EXPECT_TRUE(queue.collect(0, 4, {timer(1, EV_DELETE, 0)}).empty());
}

TEST(KeventTimers, DisabledTimerRunsOnAndReportsWhenEnabled) {
    const Queue queue;
    ASSERT_EQ(queue.apply(timer(1, kArm, 2)), 0);
    ASSERT_EQ(queue.apply(timer(1, EV_DISABLE, 0)), 0);
    passNs(7'000'000);
    EXPECT_TRUE(queue.collect().empty());
    const auto events = queue.collect(0, 4, {timer(1, EV_ENABLE, 0)});
    ASSERT_EQ(events.size(), 1U);
    EXPECT_GE(events[0].data, 3);
}

TEST(KeventTimers, DispatchDisablesAfterAnEvent) {
    const Queue queue;
    ASSERT_EQ(queue.apply(timer(1, kArm | EV_DISPATCH, 1)), 0);
    EXPECT_EQ(queue.next().flags, kArm | EV_DISPATCH | EV_CLEAR);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    EXPECT_EQ(queue.collect(kLimitMs, 4, {timer(1, EV_ENABLE, 0)}).size(), 1U);
}

TEST(KeventTimers, IdentsAreApartFromDescriptors) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    ASSERT_EQ(queue.apply(timer(fd, kArm, 0)), 0);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm)), 0);
    const auto events = queue.collect();
    EXPECT_EQ(only(events, EVFILT_TIMER).size(), 1U);
    EXPECT_EQ(only(events, EVFILT_WRITE).size(), 1U);
    EXPECT_EQ(queue.apply(timer(UINT64_MAX, kArm, 0)), 0);
    EXPECT_EQ(only(queue.collect(), EVFILT_TIMER).size(), 1U);
}

TEST(KeventTimers, EarlierDeadlineComesFirst) {
    const Queue queue;
    ASSERT_EQ(queue.apply(timer(1, kArm | EV_ONESHOT, 3)), 0);
    ASSERT_EQ(queue.apply(timer(2, kArm | EV_ONESHOT, 1)), 0);
    ASSERT_EQ(queue.apply(timer(3, kArm | EV_ONESHOT, 2)), 0);
    passNs(5'000'000);
    const auto events = queue.collect();
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events[0].ident, 2U);
    EXPECT_EQ(events[1].ident, 3U);
    EXPECT_EQ(events[2].ident, 1U);
}

TEST(KeventTimers, ManyDeadlinesComeInTheirOrder) {
    for (const uint64_t count : {5U, 7U, 11U, 13U}) {
        for (uint64_t stride = 1; stride < count; ++stride) {  // count is prime: each gives another order
            const Queue queue;
            std::vector<struct kevent> changes;  // of one list: they start at one time
            for (uint64_t i = 0; i < count; ++i) {
                const uint64_t ident = i * stride % count;
                changes.push_back(timer(ident, kArm | EV_ONESHOT, 1 + static_cast<int64_t>(ident)));
            }
            for (uint64_t ident = 0; ident < count; ++ident) {
                const auto events = queue.collect(kLimitMs, 1, std::exchange(changes, {}));
                ASSERT_EQ(events.size(), 1U);
                EXPECT_EQ(events[0].ident, ident) << count << " by " << stride;
            }
        }
    }
}

TEST(KeventTimers, ShortListRotatesThroughAllThatAreDue) {
    const Queue queue;
    for (uint64_t ident = 0; ident < 5; ++ident)
        ASSERT_EQ(queue.apply(timer(ident, kArm, 1, NOTE_NSECONDS)), 0);
    std::set<uint64_t> seen;
    for (int i = 0; i < 5; ++i) {
        const auto events = queue.collect(0, 1);
        ASSERT_EQ(events.size(), 1U);
        seen.insert(events[0].ident);
    }
    EXPECT_EQ(seen.size(), 5U);
}

TEST(KeventTimers, BusyDescriptorDoesNotStarveATimer) {
    const Queue queue;
    const Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(pair.reader.get()), EVFILT_WRITE, kArm)), 0);
    ASSERT_EQ(queue.apply(timer(1, kArm, 1)), 0);
    EXPECT_EQ(queue.nextOf(EVFILT_TIMER).ident, 1U);
    bool fired = false;
    const int64_t limit = nowMs() + kLimitMs;
    while (!fired && nowMs() < limit) fired = !only(queue.collect(0, 1), EVFILT_TIMER).empty();
    EXPECT_TRUE(fired) << "nor with a list of one";
}

TEST(KeventTimers, BusyTimerDoesNotStarveADescriptor) {
    const Queue queue;
    const Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(pair.reader.get()), EVFILT_WRITE, kArm)), 0);
    ASSERT_EQ(queue.apply(timer(1, kArm, 1, NOTE_NSECONDS)), 0);
    std::array<int, 2> seen{};
    for (int i = 0; i < 12; ++i) {
        const auto events = queue.collect(0, 1);
        ASSERT_EQ(events.size(), 1U);
        ++seen.at(events[0].filter == EVFILT_TIMER ? 0 : 1);
    }
    EXPECT_GT(seen[0], 0);
    EXPECT_GT(seen[1], 0);
}

TEST(KeventTimers, TenThousandTimersFireOnceEach) {
    const Queue queue;
    constexpr int kTimers = 10'000;
    std::vector<struct kevent> changes;
    for (int i = 0; i < kTimers; ++i) {
        const auto ident = static_cast<uint64_t>(i) * 0x1'0001U;
        changes.push_back(timer(ident, kArm | EV_ONESHOT, 1 + (i * 7919) % 5000, NOTE_USECONDS, 1 + i));
    }
    std::set<uint64_t> fired;
    auto events = queue.collect(0, 1000, changes);
    while (fired.size() < kTimers) {
        for (const auto& event : events) {
            EXPECT_TRUE(fired.insert(event.ident).second);
            ASSERT_EQ(event.udata, markAddress(1 + static_cast<int>(event.ident / 0x1'0001U)));
        }
        if (fired.size() < kTimers) events = queue.collect(kLimitMs, 1000);
        ASSERT_FALSE(events.empty());
    }
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventTimers, ManyStartsAndDeletesLeaveTheRightOnes) {
    const Queue queue;
    for (uint64_t ident = 0; ident < 3000; ++ident) {
        ASSERT_EQ(queue.apply(timer(ident, kArm | EV_ONESHOT, static_cast<int64_t>((ident * 37) % 3000))), 0);
    }
    for (uint64_t ident = 0; ident < 3000; ++ident) {
        if (ident % 10 == 3) continue;
        ASSERT_EQ(queue.apply(timer(ident, EV_DELETE, 0)), 0);
    }
    for (uint64_t ident = 3; ident < 3000; ident += 10) {
        ASSERT_EQ(queue.apply(timer(ident, EV_ADD, static_cast<int64_t>((3000 - ident) % 50), NOTE_USECONDS)),
                  0);
    }
    std::set<uint64_t> fired;
    while (fired.size() < 300) {
        const auto events = queue.collect(kLimitMs, 7);
        ASSERT_FALSE(events.empty());
        for (const auto& event : events)
            EXPECT_TRUE(event.ident % 10 == 3 && fired.insert(event.ident).second);
    }
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

}  // namespace
