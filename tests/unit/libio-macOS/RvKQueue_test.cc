#include "libio-macOS/RvKQueue.h"

#include <arpa/inet.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <future>

#include "libio-macOS/RvKQueueBipipeClient.h"
#include "libio-macOS/RvKQueueStreamSocket.h"
#include "libio-macOS/RvKQueueTCPClient.h"
#include "libio-macOS/RvKQueueTCPServer.h"
#include "libio-macOS/RvKQueueTimer.h"
#include "libio-macOS/RvKQueueUnixClient.h"
#include "libio-macOS/RvKQueueUnixServer.h"
#include "unit/libio-macOS/support/engine_fixture.h"

namespace {

using RvKQueueInit = IdleLoopTest;
using RvKQueueRun = EngineTest;
using RvKQueueStop = EngineTest;
using RvKQueueLogInet = IdleLoopTest;

TEST_F(RvKQueueInit, LogsUnderItsSubsystemAndCategory) {
    const auto lines = capturedLog();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("kqueue is initialized", lines[0].text);
    EXPECT_EQ(LogLevel::kDebug, lines[0].level);
    EXPECT_EQ(kTestSubsystem, lines[0].subsystem);
    EXPECT_EQ("kqueue", lines[0].category);
}

TEST_F(RvKQueueInit, ALoopThatNeverRanGivesEverythingBack) {
    loop.reset();
    const int before = openDescriptorCount();
    for (int i = 0; i < 20; ++i) {
        auto idle = RvKQueue::initWithSubsystem(kTestSubsystem);
        ASSERT_TRUE(idle);
        EXPECT_EQ(before + 3, openDescriptorCount());
    }
    EXPECT_EQ(before, openDescriptorCount());
}

TEST_F(RvKQueueInit, ItsEndpointsLogUnderItsSubsystemToo) {
    constexpr const char* kOtherSubsystem = "org.example.test.other";
    const auto other = RvKQueue::initWithSubsystem(kOtherSubsystem);
    ASSERT_TRUE(other);
    captureLog();
    const TemporaryDirectory directory;
    const std::string path = directory.path("s");
    const struct sockaddr_in address = loopback(0);
    DescriptorPair pair = DescriptorPair::socketPair();
    const std::int32_t both[2] = {pair[1], pair[1]};
    const std::shared_ptr<RvKQueueEventProtocol> endpoints[] = {
        other->createStreamSocket(pair[0], false),
        other->createBipipeClient(both, false),
        other->createUnixServer(path.c_str(), 0600),
        other->createUnixClient(path.c_str()),
        other->createTCPServer(asSockaddr(address)),
        other->createTCPClient(asSockaddr(loopback(freePort()))),
        other->createTimer(1000, true)};
    for (const auto& endpoint : endpoints) {
        ASSERT_TRUE(endpoint);
        endpoint->stop();
    }
    const auto lines = capturedLog();
    EXPECT_EQ(2 * std::size(endpoints), lines.size());  // of its creation and of its end
    for (const LogLine& line : lines) {
        EXPECT_EQ(kOtherSubsystem, line.subsystem) << line.text;
        EXPECT_EQ("kqueue", line.category) << line.text;
    }
}

/// One descriptor is all that a loop must have.
TEST_F(RvKQueueInit, ALoopTakesTheLastDescriptor) {
    loop.reset();
    struct rlimit limit {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    const struct rlimit low = {std::min<rlim_t>(64, limit.rlim_cur), limit.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    std::vector<int> taken;
    for (int fd = dup(0); fd != -1; fd = dup(0)) taken.push_back(fd);
    EXPECT_FALSE(RvKQueue::initWithSubsystem(kTestSubsystem));
    ASSERT_FALSE(taken.empty());
    (void)close(taken.back());
    taken.pop_back();
    const auto last = RvKQueue::initWithSubsystem(kTestSubsystem);
    EXPECT_TRUE(last);
    EXPECT_EQ(1, countLogged(LogLevel::kError, "cannot initialize kqueue"));
    for (const int fd : taken) (void)close(fd);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
}

TEST_F(RvKQueueInit, StoppingALoopThatNeverRanStopsItsEndpoints) {
    const auto probe = std::make_shared<ProbeEndpoint>();
    loop->addActiveObject(probe);
    loop->stop();
    EXPECT_EQ(1, probe->stops);
    EXPECT_EQ(1, probe.use_count());
}

TEST_F(RvKQueueInit, ALoopThatIsDroppedReleasesItsEndpointsWithoutStoppingThem) {
    const auto probe = std::make_shared<ProbeEndpoint>();
    loop->addActiveObject(probe);
    EXPECT_EQ(2, probe.use_count());
    loop.reset();
    EXPECT_EQ(1, probe.use_count());
    EXPECT_EQ(0, probe->stops);
}

TEST_F(RvKQueueRun, LogsItsStart) {
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "kqueue io thread is started"));
    EXPECT_TRUE(waitForLogged(LogLevel::kDebug, "io thread started"));
}

TEST_F(RvKQueueRun, AWriteFromAnotherThreadIsSent) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    Recorder recorder;
    loop->startObject(endpoint, recorder.block());
    std::thread([&] { EXPECT_TRUE(loop->write(endpoint, "hello", 5)); }).join();
    EXPECT_EQ("hello", readExactly(pair[1], 5));
}

TEST_F(RvKQueueRun, EveryEventAfterTheFirstComesOnOneThread) {
    DescriptorPair one = DescriptorPair::socketPair();
    DescriptorPair other = DescriptorPair::socketPair();
    Recorder recorder;
    const auto first = loop->createStreamSocket(one.release(0), true);
    const auto second = loop->createStreamSocket(other.release(0), true);
    loop->startObject(first, recorder.block());
    loop->startObject(second, recorder.block());
    writeAll(one[1], "1");
    writeAll(other[1], "2");
    ASSERT_TRUE(recorder.waitFor(kEventData, 2));
    const auto events = recorder.eventsWith(kEventData);
    EXPECT_EQ(events[0].thread, events[1].thread);
    EXPECT_NE(std::this_thread::get_id(), events[0].thread);
}

TEST_F(RvKQueueRun, StoppingAnUnregisteredEndpointDoesNothing) {
    const auto stranger = std::make_shared<ProbeEndpoint>();
    loop->stopObject(stranger);
    waitForTurn();
    EXPECT_EQ(0, stranger->stops);
}

TEST_F(RvKQueueRun, StoppingTwiceStopsOnce) {
    const auto probe = std::make_shared<ProbeEndpoint>();
    loop->addActiveObject(probe);
    loop->stopObject(probe);
    loop->stopObject(probe);
    waitForTurn();
    loop->stopObject(probe);
    waitForTurn();
    EXPECT_EQ(1, probe->stops);
}

TEST_F(RvKQueueRun, ARetiredEndpointIsReleased) {
    auto probe = std::make_shared<ProbeEndpoint>();
    const std::weak_ptr<ProbeEndpoint> watch = probe;
    loop->addActiveObject(probe);
    waitForTurn();
    loop->stopObject(probe);
    probe.reset();
    EXPECT_TRUE(waitUntil([&] { return watch.expired(); }));
}

TEST_F(RvKQueueRun, ManyEndpointsComeAndGo) {
    std::vector<std::shared_ptr<ProbeEndpoint>> probes;
    for (int i = 0; i < 5000; ++i) {
        probes.push_back(std::make_shared<ProbeEndpoint>());
        loop->addActiveObject(probes.back());
        if (i % 3 != 0) loop->stopObject(probes.back());
    }
    waitForTurn();
    for (std::size_t i = 0; i < probes.size(); ++i) EXPECT_EQ(i % 3 != 0 ? 1 : 0, probes[i]->stops);
    for (const auto& probe : probes) loop->stopObject(probe);
    waitForTurn();
    for (const auto& probe : probes) EXPECT_EQ(1, probe->stops);
}

TEST_F(RvKQueueRun, StartObjectOnlyForwards) {
    const auto probe = std::make_shared<ProbeEndpoint>();
    loop->startObject(probe, Recorder().block());
    EXPECT_EQ(1, probe->enables);
}

TEST_F(RvKQueueRun, WriteOnlyForwardsAndIsAlwaysTrue) {
    const auto probe = std::make_shared<ProbeEndpoint>();
    EXPECT_TRUE(loop->write(probe, "x", 1));
    EXPECT_TRUE(loop->write(probe, "x", 0));
    EXPECT_EQ(2, probe->writes);
}

TEST_F(RvKQueueRun, WriteIsTrueForEndpointsThatCannotWrite) {
    const TemporaryDirectory directory;
    const auto address = loopback(freePort());
    const auto timer = loop->createTimer(1000, true);
    const auto tcp = loop->createTCPServer(asSockaddr(address));
    const auto unixServer = loop->createUnixServer(directory.path("s").c_str(), 0600);
    ASSERT_TRUE(timer && tcp && unixServer);
    EXPECT_TRUE(loop->write(timer, "x", 1));
    EXPECT_TRUE(loop->write(tcp, "x", 1));
    EXPECT_TRUE(loop->write(unixServer, "x", 1));
}

TEST_F(RvKQueueRun, AnEventBlockMayStopItsOwnEndpointAndBeItsLastOwner) {
    DescriptorPair pair = DescriptorPair::socketPair();
    auto endpoint = loop->createStreamSocket(pair.release(0), true);
    const std::weak_ptr<RvKQueueStreamSocket> watch = endpoint;
    auto owner = std::make_shared<std::shared_ptr<RvKQueueStreamSocket>>(endpoint);
    Recorder recorder;
    loop->startObject(endpoint, recorder.block([this, owner](const RecordedEvent& event, std::uint64_t*) {
        if (event.code == kEventData) {
            loop->stopObject(event.object);
            owner->reset();
        }
        return true;
    }));
    endpoint.reset();
    owner.reset();
    writeAll(pair[1], "x");
    EXPECT_EQ("", readExactly(pair[1], 1));  // the endpoint closes its side
    EXPECT_TRUE(waitUntil([&] { return watch.expired(); }));
    EXPECT_EQ(1, recorder.count(kEventData));
}

TEST_F(RvKQueueRun, TheFirstEventMayStopItsOwnEndpoint) {
    DescriptorPair pair = DescriptorPair::socketPair();
    auto endpoint = loop->createStreamSocket(pair.release(0), true);
    Recorder recorder;
    loop->startObject(endpoint, recorder.block([this](const RecordedEvent& event, std::uint64_t*) {
        loop->stopObject(event.object);
        // The I/O thread may stop the endpoint, and drop its block, while this call of it is still running.
        waitForTurn();
        return true;
    }));
    EXPECT_EQ(1u, recorder.events().size());
    EXPECT_EQ("", readExactly(pair[1], 1));
}

TEST_F(RvKQueueRun, AnEventBlockMayUseTheFactories) {
    DescriptorPair outer = DescriptorPair::socketPair();
    DescriptorPair inner = DescriptorPair::socketPair();
    Recorder innerRecorder;
    std::promise<std::shared_ptr<RvKQueueStreamSocket>> made;
    const auto endpoint = loop->createStreamSocket(outer.release(0), true);
    loop->startObject(endpoint, Recorder().block([&](const RecordedEvent& event, std::uint64_t*) {
        if (event.code != kEventData) return true;
        auto created = loop->createStreamSocket(inner.release(0), true);
        loop->startObject(created, innerRecorder.block());
        loop->write(created, "made", 4);
        made.set_value(created);
        return true;
    }));
    writeAll(outer[1], "go");
    EXPECT_TRUE(made.get_future().get());
    EXPECT_EQ("made", readExactly(inner[1], 4));
    EXPECT_EQ(1, innerRecorder.count(kEventConnected));
}

TEST_F(RvKQueueRun, CurrentIsTheLoopOnItsOwnThreadAlone) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    std::promise<const RvKQueue*> inside;
    loop->startObject(endpoint, Recorder().block([&](const RecordedEvent& event, std::uint64_t*) {
        if (event.code == kEventData)
            inside.set_value(RvKQueue::current() ? RvKQueue::current()->get() : nullptr);
        return true;
    }));
    writeAll(pair[1], "x");
    EXPECT_EQ(loop.get(), inside.get_future().get());
    EXPECT_EQ(nullptr, RvKQueue::current());
}

TEST_F(RvKQueueRun, ABlockMayWriteToAnEndpointOfAnotherLoop) {
    const auto other = RvKQueue::initWithSubsystem(kTestSubsystem);
    ASSERT_TRUE(other);
    other->start();
    const auto relay = [](RvKQueue& from, RvKQueue& to) {
        DescriptorPair in = DescriptorPair::socketPair();
        DescriptorPair out = DescriptorPair::socketPair();
        const auto sink = to.createStreamSocket(out.release(0), true);
        to.startObject(sink, {});
        from.startObject(from.createStreamSocket(in.release(0), true),
                         [sink](RvKQueueEventProtocol*, const char* buffer, std::uint64_t size,
                                std::uint64_t*, std::int32_t event) {
                             if (event == kEventData) sink->write(buffer, size);
                             return true;
                         });
        writeAll(in[1], "x");
        EXPECT_EQ("x", readExactly(out[1], 1));
    };
    relay(*loop, *other);
    relay(*other, *loop);
    other->stop();
}

TEST_F(RvKQueueRun, WritesOfABlockFollowThoseOfAnotherThreadBefore) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    loop->startObject(endpoint, Recorder().block([&](const RecordedEvent& event, std::uint64_t*) {
        if (event.code != kEventData) return true;
        std::thread([&] { loop->write(endpoint, "1", 1); }).join();
        loop->write(endpoint, "2", 1);
        std::thread([&] { loop->write(endpoint, "34", 2); }).join();
        loop->write(endpoint, "5", 1);
        return true;
    }));
    writeAll(pair[1], "x");
    EXPECT_EQ("12345", readExactly(pair[1], 5));
    stopLoop();  // the block must not outlive the case
}

TEST_F(RvKQueueRun, APeerThatDoesNotReadHoldsUpNobodyElse) {
    DescriptorPair idle = DescriptorPair::socketPair();
    DescriptorPair busy = DescriptorPair::socketPair();
    const auto stuck = loop->createStreamSocket(idle.release(0), true);
    const auto echo = loop->createStreamSocket(busy.release(0), true);
    const std::string much = patternBytes(5'000'000, 1);
    loop->startObject(stuck, {});
    loop->startObject(echo, [this](RvKQueueEventProtocol* object, const char* buffer, std::uint64_t size,
                                   std::uint64_t*, std::int32_t event) {
        if (event == kEventData) loop->write(object, buffer, size);
        return true;
    });
    loop->write(stuck, much.data(), much.size());
    for (int round = 0; round < 10; ++round) {
        writeAll(busy[1], "x");
        EXPECT_EQ("x", readExactly(busy[1], 1));
    }
    EXPECT_TRUE(readExactly(idle[1], much.size()) == much);
}

TEST_F(RvKQueueRun, NoLockIsHeldWhileABlockRuns) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    Recorder recorder;
    loop->startObject(endpoint, recorder.block([&](const RecordedEvent& event, std::uint64_t*) {
        if (event.code != kEventData) return true;
        // Another thread gets through all of this while the block waits for it.
        std::thread([&] {
            const auto probe = std::make_shared<ProbeEndpoint>();
            loop->addActiveObject(probe);
            loop->write(endpoint, "reply", 5);
            loop->stopObject(probe);
            loop->stopObject(loop->createTimer(1000, true));
        }).join();
        return true;
    }));
    writeAll(pair[1], "x");
    EXPECT_EQ("reply", readExactly(pair[1], 5));
}

TEST_F(RvKQueueRun, AStoppedEndpointDropsItsBlock) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    auto captured = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = captured;
    loop->startObject(endpoint,
                      Recorder().block([captured](const RecordedEvent&, std::uint64_t*) { return true; }));
    captured.reset();
    waitForTurn();
    EXPECT_FALSE(watch.expired());
    loop->stopObject(endpoint);
    EXPECT_TRUE(waitUntil([&] { return watch.expired(); }));
}

TEST_F(RvKQueueRun, ABlocksDestructorMayStopAnotherEndpoint) {
    const auto other = std::make_shared<ProbeEndpoint>();
    loop->addActiveObject(other);
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    {
        const std::shared_ptr<int> captured(new int(0), [&](int* number) {
            loop->stopObject(other);
            delete number;
        });
        loop->startObject(
            endpoint, Recorder().block([captured](const RecordedEvent&, std::uint64_t*) { return true; }));
    }
    loop->stopObject(endpoint);
    EXPECT_TRUE(waitUntil([&] { return other->stops == 1; }));
}

// The loop of a process that ends with exit while the main thread waits for good.
[[noreturn]] void exitFromABlock() {
    const auto running = RvKQueue::initWithSubsystem(kTestSubsystem);
    running->start();
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = running->createStreamSocket(pair.release(0), true);
    running->startObject(
        endpoint, [](RvKQueueEventProtocol*, const char*, std::uint64_t, std::uint64_t*, std::int32_t event) {
            if (event == kEventData) std::exit(7);
            return true;
        });
    writeAll(pair[1], "x");
    for (;;) pause();
}

TEST(RvKQueueExitDeathTest, ABlockMayEndTheProcess) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(exitFromABlock(), testing::ExitedWithCode(7), "");
}

TEST_F(RvKQueueRun, ADroppedLoopGoesOnUntilItsThreadEnds) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    Recorder recorder;
    loop->startObject(endpoint, recorder.block());
    const std::weak_ptr<RvKQueue> watch = loop;
    loop.reset();
    writeAll(pair[1], "x");
    EXPECT_TRUE(recorder.waitFor(kEventData));
    loop = watch.lock();
    EXPECT_TRUE(loop);
}

TEST_F(RvKQueueRun, AnEndpointMayOutliveItsLoop) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    stopLoop();
    endpoint->write("x", 1);
    endpoint->enableOnData(Recorder().block());
    EXPECT_EQ(1, endpoint.use_count());
}

TEST_F(RvKQueueStop, StopsEachLiveEndpointOnceAndGivesDescriptorsBack) {
    stopLoop();
    const int before = openDescriptorCount();
    SetUp();
    std::vector<std::shared_ptr<ProbeEndpoint>> probes;
    for (int i = 0; i < 100; ++i) {
        probes.push_back(std::make_shared<ProbeEndpoint>());
        loop->addActiveObject(probes.back());
    }
    loop->stopObject(probes[0]);
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    Recorder recorder;
    loop->startObject(endpoint, recorder.block());
    loop->stop();
    for (const auto& probe : probes) EXPECT_EQ(1, probe->stops);
    EXPECT_EQ(1, endpoint.use_count());
    EXPECT_EQ(1, countLogged(LogLevel::kDebug, "<" + pointerText(endpoint.get()) + ">: stop"));
    EXPECT_EQ("", readExactly(pair[1], 1));
    pair.close(1);
    EXPECT_EQ(before, openDescriptorCount()) << "while the loop is still there";
}

TEST_F(RvKQueueStop, ItsNumberBelongsToOthersAfterwards) {
    loop->stop();
    std::vector<DescriptorPair> others;
    others.reserve(8);
    for (int i = 0; i < 8; ++i) others.push_back(DescriptorPair::pipe());
    loop.reset();
    for (const DescriptorPair& other : others) {
        EXPECT_TRUE(isOpen(other[0]));
        EXPECT_TRUE(isOpen(other[1]));
    }
}

TEST_F(RvKQueueStop, NoBlockIsCalledAfterwards) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair[0], false);
    Recorder recorder;
    loop->startObject(endpoint, recorder.block());
    stopLoop();
    const std::size_t before = recorder.events().size();
    writeAll(pair[1], "x");
    EXPECT_EQ("x", readExactly(pair[0], 1));
    EXPECT_EQ(before, recorder.events().size());
}

TEST_F(RvKQueueStop, TimersStayListed) {
    const auto timer = loop->createTimer(10000, false);
    loop->startObject(timer, Recorder().block());
    loop->stop();
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<" + pointerText(timer.get()) + ">: stop timer #0"));
    EXPECT_TRUE(loop->isHereTimerIdent(0));
    loop.reset();
}

TEST_F(RvKQueueStop, WhatABlocksDestructorAddsIsStoppedToo) {
    const auto late = std::make_shared<ProbeEndpoint>();
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    {
        const std::shared_ptr<int> captured(new int(0), [&](int* number) {
            loop->addActiveObject(late);
            delete number;
        });
        loop->startObject(
            endpoint, Recorder().block([captured](const RecordedEvent&, std::uint64_t*) { return true; }));
    }
    loop->stop();
    EXPECT_EQ(1, late->stops);
    loop.reset();
}

TEST_F(RvKQueueLogInet, ShowsIPv4AddressAndPort) {
    struct sockaddr_in address = loopback(8080);
    loop->logInet("TCP Client", asSockaddr(address), nullptr);
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<(nil)>: TCP Client (127.0.0.1:8080) created"));
}

TEST_F(RvKQueueLogInet, ShowsIPv6AddressAndPort) {
    struct sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(65535);
    ASSERT_EQ(1, inet_pton(AF_INET6, "fe80::1:2", &address.sin6_addr));
    const ProbeEndpoint probe;
    loop->logInet("TCP Server", reinterpret_cast<const struct sockaddr*>(&address), &probe);
    EXPECT_TRUE(
        isLogged(LogLevel::kDebug, "<" + pointerText(&probe) + ">: TCP Server (fe80::1:2:65535) created"));
}

TEST_F(RvKQueueLogInet, AnyOtherFamilyIsUnknown) {
    struct sockaddr address = {};
    address.sa_family = AF_UNIX;
    loop->logInet("TCP Server", &address, nullptr);
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<(nil)>: TCP Server (unknown:0) created"));
}

}  // namespace
