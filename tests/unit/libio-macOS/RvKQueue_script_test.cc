/// The loop against a kernel queue that the case plays: what it hands over, and what it does with each
/// record.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>

#include "libio-macOS/RvKQueueBipipeClient.h"
#include "libio-macOS/RvKQueueStreamSocket.h"
#include "libio-macOS/RvKQueueTCPServer.h"
#include "libio-macOS/RvKQueueTimer.h"
#include "libio-macOS/RvKQueueUnixServer.h"
#include "unit/libio-macOS/support/engine_fixture.h"
#include "unit/libio-macOS/support/scripted_kernel.h"

namespace {

struct kevent record(std::uint64_t ident, int filter, int flags, const void* udata, std::int64_t data = 0) {
    return {ident, static_cast<std::int16_t>(filter), static_cast<std::uint16_t>(flags), 0,
            data,  const_cast<void*>(udata)};
}

/// An endpoint of each kind that has an input and an output, with descriptors that it does not own.
struct Borrowers {
    explicit Borrowers(const std::shared_ptr<RvKQueue>& loop) {
        const int both[] = {forPair[0], forPair[1]};
        endpoints[0] = loop->createStreamSocket(forSocket[0], false);
        endpoints[1] = loop->createBipipeClient(both, false);
    }

    DescriptorPair forSocket = DescriptorPair::socketPair();
    DescriptorPair forPair = DescriptorPair::socketPair();
    std::shared_ptr<RvKQueueEventProtocol> endpoints[2];
};

class RvKQueueScript : public EngineTest {
  protected:
    void SetUp() override {
        scripted_kernel::reset();
        EngineTest::SetUp();
    }
    void TearDown() override {
        scripted_kernel::heedTimeouts();
        EngineTest::TearDown();
    }

    std::shared_ptr<ProbeEndpoint> addProbe() {
        auto probe = std::make_shared<ProbeEndpoint>();
        loop->addActiveObject(probe);
        waitForTurn();
        return probe;
    }

    // A batch whose last record reaches the returned probe: once it has, the records before it are dealt
    // with.
    void deliverAndWait(std::vector<struct kevent> batch) {
        const auto last = addProbe();
        batch.push_back(record(0, EVFILT_READ, EV_ADD, last.get()));
        scripted_kernel::deliver(std::move(batch));
        ASSERT_TRUE(waitUntil([&] { return last->kevents == 1; }));
    }

    // Does the work inside an event block; returns when it is done.
    void onTheIoThread(const std::function<void()>& work) {
        std::atomic<bool> done{false};
        DescriptorPair pair = DescriptorPair::socketPair();
        const auto endpoint = loop->createStreamSocket(pair.release(0), true);
        loop->startObject(endpoint, Recorder().block([&](const RecordedEvent& event, std::uint64_t*) {
            if (event.code != kEventClosed) return true;
            work();
            done = true;
            return true;
        }));
        waitForTurn();
        scripted_kernel::deliver({record(0, EVFILT_READ, EV_ADD, endpoint.get(), 0)});
        ASSERT_TRUE(waitUntil([&] { return done.load(); }));
    }

    int countChanges(const void* udata, int filter, int flags) {
        int count = 0;
        for (const struct kevent& change : scripted_kernel::changes()) {
            count += change.udata == udata && change.filter == filter && change.flags == flags ? 1 : 0;
        }
        return count;
    }
};

TEST_F(RvKQueueScript, ARecordReachesTheEndpointInItsUdata) {
    const auto one = addProbe();
    const auto other = addProbe();
    deliverAndWait({record(7, EVFILT_READ, EV_ADD | EV_ENABLE, one.get())});
    EXPECT_EQ(1, one->kevents);
    EXPECT_EQ(0, other->kevents);
}

TEST_F(RvKQueueScript, ARecordWithUnknownUdataIsIgnored) {
    const auto stranger = std::make_shared<ProbeEndpoint>();
    deliverAndWait({record(7, EVFILT_READ, EV_ADD, stranger.get()), record(7, EVFILT_READ, EV_ADD, nullptr)});
    EXPECT_EQ(0, stranger->kevents);
}

TEST_F(RvKQueueScript, ARecordWithDeleteInItsFlagsIsNotDispatched) {
    const auto probe = addProbe();
    deliverAndWait({record(7, EVFILT_READ, EV_DELETE | EV_ERROR, probe.get(), ENOENT),
                    record(7, EVFILT_WRITE, EV_DELETE, probe.get())});
    EXPECT_EQ(0, probe->kevents);
}

TEST_F(RvKQueueScript, TheReceiptOfAFailedAdditionIsDispatched) {
    const auto probe = addProbe();
    deliverAndWait({record(7, EVFILT_READ, EV_ADD | EV_ENABLE | EV_ERROR, probe.get(), EBADF)});
    EXPECT_EQ(1, probe->kevents);
}

TEST_F(RvKQueueScript, ATurnAsksForAThousandEventsAndWaitsFiveMilliseconds) {
    waitForTurn();
    waitForTurn();
    const auto calls = scripted_kernel::calls();
    ASSERT_FALSE(calls.empty());
    for (const KernelCall& call : calls) {
        EXPECT_EQ(1000, call.room);
        EXPECT_EQ(0, call.timeout.tv_sec);
        EXPECT_EQ(5'000'000, call.timeout.tv_nsec);
    }
}

TEST_F(RvKQueueScript, OnlyOneThreadCallsTheKernel) {
    const auto probe = addProbe();
    std::thread([&] { loop->submitChange(record(7, EVFILT_READ, EV_ADD, probe.get())); }).join();
    ASSERT_TRUE(
        scripted_kernel::waitForChange([&](const auto& change) { return change.udata == probe.get(); }));
    const auto calls = scripted_kernel::calls();
    for (const KernelCall& call : calls) {
        EXPECT_EQ(calls[0].thread, call.thread);
        EXPECT_NE(std::this_thread::get_id(), call.thread);
    }
}

// A turn that had taken its changes already may make one more call without the request.
TEST_F(RvKQueueScript, ARequestOfAnotherThreadTakesEffectInTheNextTurn) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair[0], false);
    loop->startObject(endpoint, Recorder().block());
    std::size_t callsBefore = 0;
    const auto isCarriedInTime = [&](int filter, int flags) {
        const auto isIt = [&](const struct kevent& change) {
            return change.udata == endpoint.get() && change.filter == filter && change.flags == flags;
        };
        EXPECT_TRUE(scripted_kernel::waitForChange(isIt));
        const auto calls = scripted_kernel::calls();
        const auto first = std::find_if(calls.begin(), calls.end(), [&](const KernelCall& call) {
            return std::any_of(call.changes.begin(), call.changes.end(), isIt);
        });
        return first - calls.begin() <= static_cast<std::ptrdiff_t>(callsBefore) + 1;
    };
    std::thread([&] {
        loop->write(endpoint, "x", 1);
        callsBefore = scripted_kernel::calls().size();
    }).join();
    EXPECT_TRUE(isCarriedInTime(EVFILT_WRITE, EV_ADD | EV_ENABLE));
    std::thread([&] {
        loop->stopObject(endpoint);
        callsBefore = scripted_kernel::calls().size();
    }).join();
    EXPECT_TRUE(isCarriedInTime(EVFILT_READ, EV_DELETE));
}

TEST_F(RvKQueueScript, TheWakeUpIsRegisteredWithoutAWait) {
    waitForTurn();
    const KernelCall call = scripted_kernel::registrationOfTheWakeUp();
    ASSERT_EQ(1U, call.changes.size());
    EXPECT_EQ(EVFILT_READ, call.changes[0].filter);
    EXPECT_EQ(EV_ADD | EV_ENABLE | EV_CLEAR, call.changes[0].flags);
    EXPECT_EQ(1, call.room);
    EXPECT_EQ(0, call.timeout.tv_sec);
    EXPECT_EQ(0, call.timeout.tv_nsec);
}

// No turn of these cases ends by itself.
TEST_F(RvKQueueScript, ARequestOfAnotherThreadEndsTheTurn) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair[0], false);
    const auto timer = loop->createTimer(99, true);
    const auto isHandedOver = [](const void* udata, int filter, int flags) {
        return scripted_kernel::waitForChange([&](const auto& change) {
            return change.udata == udata && change.filter == filter && change.flags == flags;
        });
    };
    scripted_kernel::ignoreTimeouts();
    loop->startObject(endpoint, Recorder().block());
    EXPECT_TRUE(isHandedOver(endpoint.get(), EVFILT_READ, EV_ADD | EV_ENABLE));
    scripted_kernel::ignoreTimeouts();
    loop->write(endpoint, "x", 1);
    EXPECT_TRUE(isHandedOver(endpoint.get(), EVFILT_WRITE, EV_ADD | EV_ENABLE));
    scripted_kernel::ignoreTimeouts();
    loop->startObject(timer, Recorder().block());
    EXPECT_TRUE(isHandedOver(timer.get(), EVFILT_TIMER, EV_ADD | EV_ENABLE | EV_ONESHOT));
    scripted_kernel::ignoreTimeouts();
    loop->stopObject(endpoint);
    EXPECT_TRUE(isHandedOver(endpoint.get(), EVFILT_WRITE, EV_DELETE));
}

TEST_F(RvKQueueScript, WhatHasTheTimeLeavesTheTurnAlone) {
    const auto timer = loop->createTimer(100, false);
    scripted_kernel::ignoreTimeouts();
    loop->startObject(timer, Recorder().block());
    loop->stopObject(timer);
    EXPECT_EQ(0, scripted_kernel::wakeUps());
    loop->stopObject(loop->createTimer(1, false));
    EXPECT_EQ(0, scripted_kernel::wakeUps());
    DescriptorPair pair = DescriptorPair::socketPair();
    loop->stopObject(loop->createStreamSocket(pair.release(0), true));
    EXPECT_EQ(1, scripted_kernel::wakeUps());
}

TEST_F(RvKQueueScript, WhatIsRetiredGoesAwayBeforeTheTurnWaits) {
    auto probe = addProbe();
    const std::weak_ptr<ProbeEndpoint> watch = probe;
    scripted_kernel::ignoreTimeouts();
    loop->stopObject(probe);
    probe.reset();
    EXPECT_TRUE(waitUntil([&] { return watch.expired(); }));
}

TEST_F(RvKQueueScript, ASocketThatIsNoneHasNoFiltersToLose) {
    const auto none = loop->createStreamSocket(-1, false);
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto other = loop->createStreamSocket(pair[0], false);
    loop->stopObject(none);
    waitForTurn();
    loop->stopObject(other);
    ASSERT_TRUE(
        scripted_kernel::waitForChange([&](const auto& change) { return change.udata == other.get(); }));
    EXPECT_EQ(0, countChanges(none.get(), EVFILT_READ, EV_DELETE));
    EXPECT_EQ(0, countChanges(none.get(), EVFILT_WRITE, EV_DELETE));
}

TEST_F(RvKQueueScript, AFailedCallIsNotReportedAndTheLoopGoesOn) {
    waitForTurn();
    const std::size_t linesBefore = capturedLog().size();
    scripted_kernel::fail(EINTR);
    scripted_kernel::fail(EBADF);
    ASSERT_TRUE(scripted_kernel::waitForBatches());
    EXPECT_EQ(linesBefore, capturedLog().size());
    const auto probe = addProbe();
    deliverAndWait({record(7, EVFILT_READ, EV_ADD, probe.get())});
    EXPECT_EQ(1, probe->kevents);
}

TEST_F(RvKQueueScript, AnAdditionForAnUnregisteredEndpointIsDropped) {
    const auto removed = addProbe();
    loop->stopObject(removed);
    loop->submitChange(record(7, EVFILT_READ, EV_ADD, removed.get()));
    loop->submitChange(record(7, EVFILT_READ, EV_ENABLE, removed.get()));
    loop->submitChange(record(7, EVFILT_READ, EV_DELETE, removed.get()));
    ASSERT_TRUE(
        scripted_kernel::waitForChange([&](const auto& change) { return change.udata == removed.get(); }));
    EXPECT_EQ(0, countChanges(removed.get(), EVFILT_READ, EV_ADD));
    EXPECT_EQ(0, countChanges(removed.get(), EVFILT_READ, EV_ENABLE));
    EXPECT_EQ(1, countChanges(removed.get(), EVFILT_READ, EV_DELETE));
}

TEST_F(RvKQueueScript, TheWholeRecordIsHandedOver) {
    const auto probe = addProbe();
    const struct kevent change = {12, EVFILT_TIMER, EV_ADD | EV_ONESHOT, NOTE_BACKGROUND, 345, probe.get()};
    loop->submitChange(change);
    ASSERT_TRUE(scripted_kernel::waitForChange([&](const auto& c) {
        return c.udata == probe.get() && c.ident == 12 && c.filter == EVFILT_TIMER &&
               c.flags == (EV_ADD | EV_ONESHOT) && c.fflags == NOTE_BACKGROUND && c.data == 345;
    }));
}

TEST_F(RvKQueueScript, ChangesKeepTheirOrder) {
    const auto probe = addProbe();
    constexpr std::uint64_t kCount = 5000;
    for (std::uint64_t i = 0; i < kCount; ++i)
        loop->submitChange(record(i, EVFILT_READ, EV_ADD, probe.get()));
    ASSERT_TRUE(scripted_kernel::waitForChange([&](const auto& c) { return c.ident == kCount - 1; }));
    std::uint64_t expected = 0;
    for (const struct kevent& change : scripted_kernel::changes()) {
        if (change.udata != probe.get()) continue;
        EXPECT_EQ(expected++, change.ident);
    }
    EXPECT_EQ(kCount, expected);
}

TEST_F(RvKQueueScript, ChangesOfABlockKeepTheirPlaceAmongThoseOfOtherThreads) {
    const auto probe = addProbe();
    const auto submit = [&](std::uint64_t ident) {
        loop->submitChange(record(ident, EVFILT_READ, EV_ADD, probe.get()));
    };
    const auto submitElsewhere = [&](std::uint64_t ident) { std::thread([&] { submit(ident); }).join(); };
    onTheIoThread([&] {
        submit(1);
        submit(2);
        submitElsewhere(3);
        submit(4);
        submitElsewhere(5);
    });
    ASSERT_TRUE(scripted_kernel::waitForChange([](const auto& change) { return change.ident == 5; }));
    std::uint64_t expected = 1;
    for (const struct kevent& change : scripted_kernel::changes()) {
        if (change.udata != probe.get()) continue;
        EXPECT_EQ(expected++, change.ident);
    }
    EXPECT_EQ(6U, expected);
}

TEST_F(RvKQueueScript, ABlockCannotAddAFilterForAnUnregisteredEndpointEither) {
    const auto stranger = std::make_shared<ProbeEndpoint>();
    const auto late = std::make_shared<ProbeEndpoint>();
    onTheIoThread([&] {
        loop->submitChange(record(1, EVFILT_READ, EV_ADD, stranger.get()));
        loop->submitChange(record(2, EVFILT_READ, EV_DELETE, stranger.get()));
        loop->addActiveObject(late);
        loop->submitChange(record(3, EVFILT_READ, EV_ADD, late.get()));
        loop->submitChange(record(4, EVFILT_READ, EV_ADD, stranger.get()));
    });
    ASSERT_TRUE(
        scripted_kernel::waitForChange([&](const auto& change) { return change.udata == late.get(); }));
    EXPECT_EQ(0, countChanges(stranger.get(), EVFILT_READ, EV_ADD));
    EXPECT_EQ(1, countChanges(stranger.get(), EVFILT_READ, EV_DELETE));
}

TEST_F(RvKQueueScript, ALongChangeListGoesOutWholeWithRoomForItsReceipts) {
    const auto probe = addProbe();
    std::atomic<bool> queued{false};
    Recorder recorder;
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    loop->startObject(endpoint, recorder.block([&](const RecordedEvent& event, std::uint64_t*) {
        if (event.code != kEventClosed) return true;
        // On the I/O thread: nothing is taken from the list meanwhile.
        for (int i = 0; i < 3000; ++i) loop->submitChange(record(9, EVFILT_TIMER, EV_ADD, probe.get()));
        queued = true;
        return true;
    }));
    waitForTurn();
    scripted_kernel::deliver({record(0, EVFILT_READ, EV_ADD, endpoint.get(), 0)});
    ASSERT_TRUE(waitUntil([&] { return queued.load(); }));
    ASSERT_TRUE(scripted_kernel::waitForBatches());
    bool found = false;
    for (const KernelCall& call : scripted_kernel::calls()) {
        if (call.changes.size() < 3000) continue;
        found = true;
        EXPECT_GE(call.room, static_cast<int>(call.changes.size()));
    }
    EXPECT_TRUE(found);
}

TEST_F(RvKQueueScript, AnEndpointStoppedDuringABatchStillGetsTheRestOfIt) {
    const auto victim = addProbe();
    Recorder recorder;
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    loop->startObject(endpoint, recorder.block([&](const RecordedEvent& event, std::uint64_t*) {
        if (event.code == kEventClosed) loop->stopObject(victim);
        return true;
    }));
    waitForTurn();
    deliverAndWait(
        {record(0, EVFILT_READ, EV_ADD, endpoint.get(), 0), record(1, EVFILT_READ, EV_ADD, victim.get())});
    EXPECT_EQ(1, victim->kevents);
    ASSERT_TRUE(waitUntil([&] { return victim->stops == 1; }));
    deliverAndWait({record(1, EVFILT_READ, EV_ADD, victim.get())});
    EXPECT_EQ(1, victim->kevents);
}

TEST_F(RvKQueueScript, WhatAStoppedEndpointHadLeftWaitingIsNotAdded) {
    // The turn is held inside an event block, so that addition and retirement fall into one turn.
    DescriptorPair holding = DescriptorPair::socketPair();
    const auto holder = loop->createStreamSocket(holding.release(0), true);
    const auto victim = addProbe();
    loop->startObject(
        holder, [&](RvKQueueEventProtocol*, const char*, std::uint64_t, std::uint64_t*, std::int32_t event) {
            if (event != kEventClosed) return true;
            loop->submitChange(record(40, EVFILT_WRITE, EV_ADD | EV_ENABLE, victim.get()));
            loop->submitChange(record(41, EVFILT_WRITE, EV_DELETE, victim.get()));
            loop->stopObject(victim);
            return true;
        });
    waitForTurn();
    deliverAndWait({record(0, EVFILT_READ, EV_ADD, holder.get(), 0)});
    ASSERT_TRUE(waitUntil([&] { return victim->stops == 1; }));
    ASSERT_TRUE(scripted_kernel::waitForChange([](const auto& change) { return change.ident == 41; }));
    EXPECT_EQ(0, countChanges(victim.get(), EVFILT_WRITE, EV_ADD | EV_ENABLE));
}

TEST_F(RvKQueueScript, WhatIsStoppedAndRegisteredAgainInOneTurnIsAdded) {
    DescriptorPair holding = DescriptorPair::socketPair();
    const auto holder = loop->createStreamSocket(holding.release(0), true);
    const auto probe = addProbe();
    loop->startObject(
        holder, [&](RvKQueueEventProtocol*, const char*, std::uint64_t, std::uint64_t*, std::int32_t event) {
            if (event != kEventClosed) return true;
            loop->stopObject(probe);
            loop->addActiveObject(probe);
            loop->submitChange(record(40, EVFILT_WRITE, EV_ADD | EV_ENABLE, probe.get()));
            return true;
        });
    waitForTurn();
    deliverAndWait({record(0, EVFILT_READ, EV_ADD, holder.get(), 0)});
    EXPECT_TRUE(scripted_kernel::waitForChange([](const auto& change) { return change.ident == 40; }));
    EXPECT_EQ(1, probe->stops);
}

TEST_F(RvKQueueScript, ADescriptorHandedToANewEndpointKeepsItsFilters) {
    DescriptorPair holding = DescriptorPair::socketPair();
    DescriptorPair shared = DescriptorPair::socketPair();
    const auto holder = loop->createStreamSocket(holding.release(0), true);
    const auto first = loop->createStreamSocket(shared[0], false);
    std::shared_ptr<RvKQueueStreamSocket> second;
    Recorder recorder;
    loop->startObject(first, recorder.block());
    loop->startObject(
        holder, [&](RvKQueueEventProtocol*, const char*, std::uint64_t, std::uint64_t*, std::int32_t event) {
            if (event != kEventClosed || second) return true;
            loop->stopObject(first);
            second = loop->createStreamSocket(shared[0], false);
            loop->startObject(second, recorder.block());
            return true;
        });
    waitForTurn();
    deliverAndWait({record(0, EVFILT_READ, EV_ADD, holder.get(), 0)});
    ASSERT_TRUE(
        scripted_kernel::waitForChange([&](const auto& change) { return change.udata == second.get(); }));
    std::ptrdiff_t lastDeletion = -1;
    std::ptrdiff_t addition = -1;
    const auto all = scripted_kernel::changes();
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (all[i].udata == first.get() && all[i].flags == EV_DELETE)
            lastDeletion = static_cast<std::ptrdiff_t>(i);
        if (all[i].udata == second.get() && addition == -1) addition = static_cast<std::ptrdiff_t>(i);
    }
    ASSERT_NE(-1, lastDeletion);
    EXPECT_LT(lastDeletion, addition);
}

TEST_F(RvKQueueScript, WhatIsStoppedAndNotOwnedLosesItsReadFilterAndThenItsWriteFilter) {
    const Borrowers borrowers(loop);
    for (const auto& endpoint : borrowers.endpoints) {
        Recorder recorder;
        loop->startObject(endpoint, recorder.block());
        loop->stopObject(endpoint);
        ASSERT_TRUE(scripted_kernel::waitForChange([&](const auto& change) {
            return change.udata == endpoint.get() && change.filter == EVFILT_WRITE &&
                   change.flags == EV_DELETE;
        }));
        std::vector<int> filters;
        for (const struct kevent& change : scripted_kernel::changes()) {
            if (change.udata == endpoint.get() && change.flags == EV_DELETE) filters.push_back(change.filter);
        }
        EXPECT_EQ((std::vector<int>{EVFILT_READ, EVFILT_WRITE}), filters);
    }
    EXPECT_TRUE(isOpen(borrowers.forSocket[0]));
    EXPECT_TRUE(isOpen(borrowers.forPair[0]));
    EXPECT_TRUE(isOpen(borrowers.forPair[1]));
}

TEST_F(RvKQueueScript, WhatIsStoppedLetsGoOfItsFilterAndItsBlock) {
    const TemporaryDirectory directory;
    struct sockaddr_in anyPort = {};
    anyPort.sin_family = AF_INET;
    anyPort.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    DescriptorPair forSocket = DescriptorPair::socketPair();
    DescriptorPair forPair = DescriptorPair::socketPair();
    const int both[] = {forPair[0], forPair[1]};
    const struct {
        std::shared_ptr<RvKQueueEventProtocol> endpoint;
        int filter;
    } rows[] = {
        {loop->createStreamSocket(forSocket[0], false), EVFILT_READ},
        {loop->createBipipeClient(both, false), EVFILT_READ},
        {loop->createTCPServer(reinterpret_cast<const struct sockaddr*>(&anyPort)), EVFILT_READ},
        {loop->createUnixServer(directory.path("s").c_str(), 0600), EVFILT_READ},
        {loop->createTimer(10'000, false), EVFILT_TIMER},
    };
    for (const auto& row : rows) {
        ASSERT_TRUE(row.endpoint);
        const auto held = std::make_shared<int>(0);
        loop->startObject(row.endpoint, [held](auto...) { return true; });
        loop->stopObject(row.endpoint);
        EXPECT_TRUE(waitUntil([&] { return held.use_count() == 1; })) << row.filter;
        EXPECT_TRUE(scripted_kernel::waitForChange([&](const auto& change) {
            return change.udata == row.endpoint.get() && change.filter == row.filter &&
                   change.flags == EV_DELETE;
        })) << row.filter;
    }
}

TEST_F(RvKQueueScript, AWriteOfNoBytesArmsNothing) {
    const Borrowers borrowers(loop);
    for (const auto& endpoint : borrowers.endpoints) {
        EXPECT_TRUE(loop->write(endpoint, "x", 0));
        EXPECT_TRUE(loop->write(endpoint, "x", 1));
        ASSERT_TRUE(scripted_kernel::waitForChange(
            [&](const auto& change) { return change.udata == endpoint.get(); }));
        waitForTurn();
        EXPECT_EQ(1, countChanges(endpoint.get(), EVFILT_WRITE, EV_ADD | EV_ENABLE));
    }
}

// Such a filter is left armed by a connection that has come to stand.
TEST_F(RvKQueueScript, TheWriteFilterOfASocketWithNothingToSendIsDisarmed) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    deliverAndWait({record(0, EVFILT_WRITE, EV_ADD | EV_ENABLE, endpoint.get(), 1000)});
    waitForTurn();
    EXPECT_EQ(1, countChanges(endpoint.get(), EVFILT_WRITE, EV_DELETE));
}

TEST_F(RvKQueueScript, EventZeroComesBeforeTheReadFilterIsArmed) {
    const Borrowers borrowers(loop);
    for (const auto& endpoint : borrowers.endpoints) {
        int armedBefore = -1;
        loop->startObject(endpoint, Recorder().block([&](const RecordedEvent&, std::uint64_t*) {
            waitForTurn();  // what had been submitted would have gone out
            armedBefore = countChanges(endpoint.get(), EVFILT_READ, EV_ADD | EV_ENABLE);
            return true;
        }));
        waitForTurn();
        EXPECT_EQ(0, armedBefore);
        EXPECT_EQ(1, countChanges(endpoint.get(), EVFILT_READ, EV_ADD | EV_ENABLE));
    }
}

TEST_F(RvKQueueScript, TheWriteFilterIsDisarmedOnceAllHasLeft) {
    const Borrowers borrowers(loop);
    for (const auto& endpoint : borrowers.endpoints) {
        Recorder recorder;
        loop->startObject(endpoint, recorder.block());
        EXPECT_TRUE(loop->write(endpoint, "12345", 5));
        waitForTurn();
        deliverAndWait({record(0, EVFILT_WRITE, EV_ADD | EV_ENABLE, endpoint.get(), 3)});
        waitForTurn();
        EXPECT_EQ(0, countChanges(endpoint.get(), EVFILT_WRITE, EV_DELETE));
        deliverAndWait({record(0, EVFILT_WRITE, EV_ADD | EV_ENABLE, endpoint.get(), 1000)});
        waitForTurn();
        EXPECT_EQ(1, countChanges(endpoint.get(), EVFILT_WRITE, EV_DELETE));
        EXPECT_EQ(0, recorder.count(kEventClosed));
        loop->stopObject(endpoint);
        waitForTurn();
    }
}

TEST_F(RvKQueueScript, TimerRecordsCarryPeriodAndFlags) {
    const auto periodic = loop->createTimer(250, false);
    const auto once = loop->createTimer(70, true);
    Recorder recorder;
    loop->startObject(periodic, recorder.block());
    loop->startObject(once, recorder.block());
    const auto isRecord = [](const struct kevent& c, const void* udata, std::uint64_t ident, int flags,
                             std::int64_t data) {
        return c.udata == udata && c.ident == ident && c.filter == EVFILT_TIMER && c.flags == flags &&
               c.fflags == NOTE_BACKGROUND && c.data == data;
    };
    EXPECT_TRUE(scripted_kernel::waitForChange(
        [&](const auto& c) { return isRecord(c, periodic.get(), 0, EV_ADD | EV_ENABLE, 250); }));
    EXPECT_TRUE(scripted_kernel::waitForChange(
        [&](const auto& c) { return isRecord(c, once.get(), 1, EV_ADD | EV_ENABLE | EV_ONESHOT, 70); }));
    loop->stopObject(once);
    EXPECT_TRUE(scripted_kernel::waitForChange(
        [&](const auto& c) { return isRecord(c, once.get(), 1, EV_DELETE, 0); }));
    EXPECT_EQ(0u, recorder.events().size());
}

TEST_F(RvKQueueScript, ATimersPeriodHasThirtyTwoBitsAndASign) {
    const struct {
        std::uint64_t milliseconds;
        std::int64_t data;
    } rows[] = {
        {0, 0},
        {0x7fff'ffff, 0x7fff'ffff},
        {0x8000'0000, -0x8000'0000LL},
        {0xffff'ffff, -1},
        {0x1'0000'0000, 0},
        {0x1'0000'00fa, 250},
    };
    for (const auto& row : rows) {
        const auto timer = loop->createTimer(row.milliseconds, true);
        ASSERT_TRUE(timer);
        loop->startObject(timer, [](auto...) { return true; });
        EXPECT_TRUE(scripted_kernel::waitForChange([&](const auto& change) {
            return change.udata == timer.get() && change.data == row.data &&
                   change.flags == (EV_ADD | EV_ENABLE | EV_ONESHOT);
        })) << row.milliseconds;
    }
}

TEST_F(RvKQueueScript, SeveralExpirationsInOneRecordAreOneEvent) {
    const auto timer = loop->createTimer(1, false);
    Recorder recorder;
    loop->startObject(timer, recorder.block());
    waitForTurn();
    deliverAndWait({record(0, EVFILT_TIMER, EV_ADD | EV_ENABLE, timer.get(), 17),
                    record(0, EVFILT_READ, EV_ADD | EV_ENABLE, timer.get(), 17)});
    ASSERT_EQ(1, recorder.count(kEventData));
    EXPECT_EQ(1u, recorder.events().size());
}

TEST_F(RvKQueueScript, AQueueThatCannotBeHadIsReported) {
    scripted_kernel::refuseQueues(true);
    EXPECT_FALSE(RvKQueue::initWithSubsystem(kTestSubsystem));
    EXPECT_TRUE(isLogged(LogLevel::kError, "cannot initialize kqueue"));
    scripted_kernel::refuseQueues(false);
}

}  // namespace
