/// The engine without memory, locks, threads or descriptors: every failure has its message, and nothing is
/// lost.
#include <netinet/in.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "libio-macOS/ByteBuffer.h"
#include "libio-macOS/EventBlockSlot.h"
#include "libio-macOS/OutputRun.h"
#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/RvKQueueBipipeClient.h"
#include "libio-macOS/RvKQueueStreamSocket.h"
#include "libio-macOS/RvKQueueTCPClient.h"
#include "libio-macOS/RvKQueueTCPServer.h"
#include "libio-macOS/RvKQueueTimer.h"
#include "libio-macOS/RvKQueueUnixClient.h"
#include "libio-macOS/RvKQueueUnixServer.h"
#include "platform/kevent.h"
#include "unit/libio-macOS/support/engine_fixture.h"
#include "unit/libio-macOS/support/faults.h"

namespace {

using faults::Kind;

void captureLogSafely() {
    captureLog();
    setOsLogSink([](LogLevel level, const char* subsystem, const char* category, const char* text) {
        const faults::Suspension none;
        recordLogLine(level, subsystem, category, text);
    });
}

std::vector<std::string> loggedErrors() {
    std::vector<std::string> texts;
    for (const LogLine& line : capturedLog()) {
        if (line.level == LogLevel::kError) texts.push_back(line.text);
    }
    return texts;
}

class RvKQueueFault : public IdleLoopTest {
  protected:
    void SetUp() override {
        IdleLoopTest::SetUp();
        captureLogSafely();
    }
};
using RvKQueueInitFault = RvKQueueFault;
using RvKQueueThreadFault = RvKQueueFault;
using RvKQueueRegistryFault = RvKQueueFault;
using RvKQueueFactoryFault = RvKQueueFault;
using RvKQueueEndpointFault = RvKQueueFault;
using RvKQueueStop = RvKQueueFault;

TEST_F(RvKQueueInitFault, EachAllocationThatFailsHasItsMessageInOrder) {
    const int descriptors = openDescriptorCount();
    std::vector<std::string> messages;
    bool failed = true;
    for (int nth = 1; failed && nth < 100; ++nth) {
        captureLogSafely();
        faults::failHere(Kind::kMemory, nth);
        auto made = RvKQueue::initWithSubsystem(kTestSubsystem);
        failed = faults::hasFailed();
        const auto errors = loggedErrors();
        ASSERT_LE(errors.size(), 1u);
        if (!errors.empty()) {
            EXPECT_FALSE(made);
            if (messages.empty() || messages.back() != errors[0]) messages.push_back(errors[0]);
        }
        made.reset();
        EXPECT_EQ(descriptors, openDescriptorCount());
    }
    EXPECT_FALSE(failed);
    EXPECT_EQ((std::vector<std::string>{"cannot initialize timer id dict", "cannot initialize timer obj dict",
                                        "cannot initialize change list", "cannot initialize stop list",
                                        "cannot initialize active list", "cannot initialize io thread"}),
              messages);
}

TEST_F(RvKQueueInitFault, ALoopWithoutALogHandleWorksSilently) {
    // The second allocation is the log handle's.
    faults::failHere(Kind::kNew, 2);
    const auto silent = RvKQueue::initWithSubsystem(kTestSubsystem);
    ASSERT_TRUE(faults::hasFailed());
    ASSERT_TRUE(silent);
    EXPECT_TRUE(silent->createTimer(1, true));
    EXPECT_EQ(0u, capturedLog().size());
}

TEST_F(RvKQueueInitFault, EachLockThatFailsHasItsMessage) {
    faults::failHere(Kind::kMutex, 1);
    EXPECT_FALSE(RvKQueue::initWithSubsystem(kTestSubsystem));
    faults::failHere(Kind::kMutex, 2);
    EXPECT_FALSE(RvKQueue::initWithSubsystem(kTestSubsystem));
    EXPECT_EQ((std::vector<std::string>{"cannot initialize lock", "cannot initialize timer lock"}),
              loggedErrors());
}

TEST_F(RvKQueueInitFault, WithoutAThreadTheQueueIsClosedAgain) {
    const int descriptors = openDescriptorCount();
    faults::failHere(Kind::kThread, 1);
    EXPECT_FALSE(RvKQueue::initWithSubsystem(kTestSubsystem));
    EXPECT_EQ(std::vector<std::string>{"cannot initialize io thread"}, loggedErrors());
    EXPECT_EQ(descriptors, openDescriptorCount());
}

TEST_F(RvKQueueInitFault, WithoutAWakeUpRequestsWaitForTheEndOfTheTurn) {
    faults::failHere(Kind::kEventfd, 1);
    const auto plain = RvKQueue::initWithSubsystem(kTestSubsystem);
    ASSERT_TRUE(faults::hasFailed());
    ASSERT_TRUE(plain);
    plain->start();
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = plain->createStreamSocket(pair.release(0), true);
    plain->startObject(endpoint, Recorder().block());
    plain->write(endpoint, "hello", 5);
    EXPECT_EQ("hello", readExactly(pair[1], 5));
    plain->stop();
}

TEST_F(RvKQueueThreadFault, WithoutAnEventListTheThreadEnds) {
    faults::failElsewhere(Kind::kRealloc);
    loop->start();
    EXPECT_TRUE(waitForLogged(LogLevel::kError, "cannot initialize event list"));
    EXPECT_TRUE(faults::hasFailed());
    loop->waitForEnd();
    loop->stop();
}

TEST_F(RvKQueueThreadFault, WithoutAListOfChangesTheThreadEnds) {
    faults::failElsewhere(Kind::kRealloc, 2);
    loop->start();
    EXPECT_TRUE(waitForLogged(LogLevel::kError, "cannot initialize event list"));
    EXPECT_TRUE(faults::hasFailed());
    loop->waitForEnd();
    loop->stop();
}

TEST_F(RvKQueueThreadFault, WithoutAFirstSnapshotTheThreadEnds) {
    const auto probe = std::make_shared<ProbeEndpoint>();
    loop->addActiveObject(probe);
    faults::failElsewhere(Kind::kNew);
    loop->start();
    EXPECT_TRUE(waitForLogged(LogLevel::kError, "cannot initialize active list"));
    EXPECT_TRUE(faults::hasFailed());
    loop->waitForEnd();
    loop->stop();
    EXPECT_EQ(1, probe->stops);
}

TEST_F(RvKQueueThreadFault, WithoutALaterSnapshotTheThreadEnds) {
    loop->start();
    ASSERT_TRUE(waitForLogged(LogLevel::kDebug, "io thread started"));
    const auto first = std::make_shared<ProbeEndpoint>();
    loop->addActiveObject(first);
    loop->stopObject(first);
    ASSERT_TRUE(waitUntil([&] { return first->stops == 1; }));
    // There is room for the first endpoints from the start.
    std::vector<std::shared_ptr<ProbeEndpoint>> probes(100);
    for (auto& probe : probes) probe = std::make_shared<ProbeEndpoint>();
    faults::failElsewhere(Kind::kNew);
    for (const auto& probe : probes) loop->addActiveObject(probe);
    EXPECT_TRUE(waitForLogged(LogLevel::kError, "copying active list error"));
    EXPECT_TRUE(faults::hasFailed());
    loop->waitForEnd();
    loop->stop();
    for (const auto& probe : probes) EXPECT_EQ(1, probe->stops);
}

// Nobody else holds the loop, so that it goes away on its own thread.
TEST_F(RvKQueueThreadFault, ALoopThatEndsAloneIsNotCurrentWhenItsEndpointsGo) {
    DescriptorPair pair = DescriptorPair::socketPair();
    std::vector<std::shared_ptr<ProbeEndpoint>> probes(100);
    for (auto& probe : probes) probe = std::make_shared<ProbeEndpoint>();
    std::atomic<bool> isGone{false};
    std::atomic<bool> wasCurrent{false};
    std::shared_ptr<int> captured(new int(0), [&](const int* number) {
        wasCurrent = RvKQueue::current() != nullptr;
        isGone = true;
        delete number;
    });
    loop->startObject(loop->createStreamSocket(pair[0], false),
                      [&probes, captured](RvKQueueEventProtocol*, const char*, std::uint64_t, std::uint64_t*,
                                          std::int32_t event) {
                          if (event != kEventData) return true;
                          for (const auto& probe : probes) (*RvKQueue::current())->addActiveObject(probe);
                          faults::failHere(Kind::kNew, 1);  // the next snapshot's
                          return true;
                      });
    captured.reset();
    loop->start();
    loop.reset();
    writeAll(pair[1], "x");
    EXPECT_TRUE(waitUntil([&] { return isGone.load(); }));
    EXPECT_FALSE(wasCurrent);
    EXPECT_EQ(std::vector<std::string>{"copying active list error"}, loggedErrors());
    EXPECT_TRUE(waitUntil([&] { return probes[0].use_count() == 1; }));
    for (const auto& probe : probes) EXPECT_EQ(0, probe->stops);
}

TEST_F(RvKQueueRegistryFault, ANullEndpointIsReportedOrIgnored) {
    loop->addActiveObject(nullptr);
    EXPECT_EQ(1U, loggedErrors().size());
    EXPECT_TRUE(loop->write(nullptr, "x", 1));
    loop->startObject(nullptr, {});
    loop->stopObject(nullptr);
    EXPECT_EQ(1U, loggedErrors().size());
}

// Together the changes of the I/O thread and of another one are more than a list has room for.
TEST_F(RvKQueueThreadFault, ChangesThatCannotBeJoinedGoOutOneTurnAfterTheOther) {
    constexpr int kTimers = 160;
    std::vector<std::shared_ptr<RvKQueueTimer>> timers(kTimers);
    for (auto& timer : timers) timer = loop->createTimer(1, true);
    loop->start();
    std::atomic<int> fired{0};
    const auto start = [&](int from, int to) {
        for (int i = from; i < to; ++i) {
            loop->startObject(timers[static_cast<std::size_t>(i)],
                              Recorder().block([&](const RecordedEvent&, std::uint64_t*) {
                                  ++fired;
                                  return true;
                              }));
        }
    };
    std::atomic<bool> failed{false};
    const auto first = loop->createTimer(50, false);
    const auto second = loop->createTimer(100, false);
    std::atomic<bool> begun{false};
    loop->startObject(first,
                      [&](RvKQueueEventProtocol*, const char*, std::uint64_t, std::uint64_t*, std::int32_t) {
                          if (begun.exchange(true)) return true;
                          start(0, kTimers / 2);
                          std::thread([&] { start(kTimers / 2, kTimers); }).join();
                          faults::failHere(Kind::kRealloc, 1, 2);
                          return true;
                      });
    loop->startObject(second,
                      [&](RvKQueueEventProtocol*, const char*, std::uint64_t, std::uint64_t*, std::int32_t) {
                          failed = failed || (begun && faults::hasFailed());
                          return true;
                      });
    EXPECT_TRUE(waitUntil([&] { return fired == kTimers && failed; }));
    EXPECT_EQ(std::vector<std::string>{}, loggedErrors());
    loop->stop();
}

TEST_F(RvKQueueRegistryFault, AnEndpointThatCannotBeRegisteredIsReported) {
    // The registry needs memory only when it outgrows what it started with.
    std::shared_ptr<ProbeEndpoint> probe;
    bool failed = false;
    for (int i = 0; !failed && i < 1000; ++i) {
        probe = std::make_shared<ProbeEndpoint>();
        faults::failHere(Kind::kNew, 1);
        loop->addActiveObject(probe);
        failed = faults::hasFailed() && !loggedErrors().empty();
    }
    ASSERT_TRUE(failed);
    EXPECT_EQ(std::vector<std::string>{"<" + pointerText(probe.get()) + ">: cannot be added"},
              loggedErrors());
    EXPECT_EQ(1, probe.use_count());
}

// On the I/O thread, so that the list grows: nothing is taken from it meanwhile.
TEST_F(RvKQueueRegistryFault, WithoutMemoryForTheListOfChangesTheWholeRegistryIsCopied) {
    constexpr std::size_t kEndpoints = 10;  // for which the registry has room from the start
    loop->start();
    std::vector<DescriptorPair> pairs;
    for (std::size_t i = 0; i < kEndpoints; ++i) pairs.push_back(DescriptorPair::socketPair());
    std::vector<Recorder> recorders(kEndpoints);
    std::atomic<int> failures{0};
    std::atomic<bool> isDone{false};
    const auto first = loop->createTimer(1, true);
    loop->startObject(first, Recorder().block([&](const RecordedEvent&, std::uint64_t*) {
        for (std::size_t i = 0; i < kEndpoints; ++i) {
            faults::failHere(Kind::kNew, 3);  // after the endpoint and the memory for its block
            const auto endpoint = loop->createStreamSocket(pairs[i].release(0), true);
            failures += faults::hasFailed() ? 1 : 0;
            loop->startObject(endpoint, recorders[i].block());
        }
        isDone = true;
        return true;
    }));
    ASSERT_TRUE(waitUntil([&] { return isDone.load(); }));
    EXPECT_GE(failures, 1);
    for (std::size_t i = 0; i < kEndpoints; ++i) {
        writeAll(pairs[i][1], "x");
        EXPECT_TRUE(recorders[i].waitFor(kEventData)) << i;
    }
    EXPECT_EQ(0u, loggedErrors().size());
    loop->stop();
}

TEST_F(RvKQueueRegistryFault, AnEndpointThatCannotBeStoppedStaysRegistered) {
    // The stop list needs memory only when it outgrows what it started with.
    std::shared_ptr<ProbeEndpoint> probe;
    bool failed = false;
    for (int i = 0; !failed && i < 1000; ++i) {
        probe = std::make_shared<ProbeEndpoint>();
        loop->addActiveObject(probe);
        faults::failHere(Kind::kNew, 1);
        loop->stopObject(probe);
        failed = faults::hasFailed() && !loggedErrors().empty();
    }
    ASSERT_TRUE(failed);
    EXPECT_EQ(std::vector<std::string>{"<" + pointerText(probe.get()) + ">: cannot stop object"},
              loggedErrors());
    loop->stopObject(probe);
    loop->start();
    EXPECT_TRUE(waitUntil([&] { return probe->stops == 1; }));
    loop->stop();
    EXPECT_EQ(1, probe->stops);
}

TEST_F(RvKQueueRegistryFault, AChangeThatCannotBeQueuedIsReported) {
    const auto probe = std::make_shared<ProbeEndpoint>();
    loop->addActiveObject(probe);
    const struct kevent change = {1, EVFILT_READ, EV_ADD,
                                  0, 0,           static_cast<RvKQueueEventProtocol*>(probe.get())};
    for (int i = 0; i < 100; ++i) loop->submitChange(change);  // what there is room for from the start
    EXPECT_EQ(0u, loggedErrors().size());
    faults::failHere(Kind::kRealloc, 1, 2);  // growth is tried by a factor and then by what is needed
    for (int i = 0; i < 100; ++i) loop->submitChange(change);
    EXPECT_TRUE(faults::hasFailed());
    EXPECT_EQ(std::vector<std::string>{"<" + pointerText(probe.get()) + ">: cannot submit change"},
              loggedErrors());
}

// Calls `make` with its n-th allocation failing, for n = 1, 2, ... until nothing fails. Each time there is an
// endpoint or the message, and no descriptor is left behind.
template <class Make>
void sweepFactory(const std::string& message, const Make& make) {
    bool failed = true;
    int refusals = 0;
    for (int nth = 1; failed && nth < 50; ++nth) {
        captureLogSafely();
        auto fresh = RvKQueue::initWithSubsystem(kTestSubsystem);
        const int descriptors = openDescriptorCount();
        faults::failHere(Kind::kNew, nth);
        auto endpoint = make(*fresh);
        failed = faults::hasFailed();
        const auto errors = loggedErrors();
        if (!endpoint) {
            ++refusals;
            ASSERT_FALSE(errors.empty());
            EXPECT_EQ(message, errors.back());
            EXPECT_EQ(descriptors, openDescriptorCount());
        } else {
            for (const std::string& error : errors) EXPECT_TRUE(error.ends_with(">: cannot be added"));
        }
        if (endpoint) endpoint->stop();
    }
    EXPECT_FALSE(failed);
    EXPECT_GE(refusals, 1);
}

TEST_F(RvKQueueFactoryFault, StreamSocket) {
    DescriptorPair pair = DescriptorPair::socketPair();
    sweepFactory("cannot initialize stream socket object",
                 [&](RvKQueue& fresh) { return fresh.createStreamSocket(pair[0], false); });
}

TEST_F(RvKQueueFactoryFault, BipipeClient) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const std::int32_t descriptors[2] = {pair[0], pair[0]};
    sweepFactory("cannot initialize bipipe object",
                 [&](RvKQueue& fresh) { return fresh.createBipipeClient(descriptors, false); });
}

TEST_F(RvKQueueFactoryFault, UnixClient) {
    sweepFactory("cannot initialize unix socket object",
                 [](RvKQueue& fresh) { return fresh.createUnixClient("/nowhere/at/all"); });
}

TEST_F(RvKQueueFactoryFault, UnixServer) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("s");
    sweepFactory("cannot initialize unix server socket object",
                 [&](RvKQueue& fresh) { return fresh.createUnixServer(path.c_str(), 0600); });
}

TEST_F(RvKQueueFactoryFault, TCPClient) {
    const struct sockaddr_in address = loopback(freePort());
    sweepFactory("cannot initialize TCP socket object",
                 [&](RvKQueue& fresh) { return fresh.createTCPClient(asSockaddr(address)); });
}

TEST_F(RvKQueueFactoryFault, TCPServer) {
    const struct sockaddr_in address = loopback(0);
    sweepFactory("cannot initialize TCP server socket object",
                 [&](RvKQueue& fresh) { return fresh.createTCPServer(asSockaddr(address)); });
}

TEST_F(RvKQueueFactoryFault, Timer) {
    sweepFactory("cannot initialize timer object",
                 [](RvKQueue& fresh) { return fresh.createTimer(1, true); });
}

TEST_F(RvKQueueFactoryFault, TheTimersTwoMessages) {
    // The numbers of the first 64 timers need no memory.
    for (int i = 0; i < 64; ++i) ASSERT_TRUE(loop->createTimer(1, true));
    captureLogSafely();
    std::int32_t ident = -1;
    faults::failHere(Kind::kNew, 1);
    EXPECT_FALSE(loop->addTimer(1, &ident, true));
    faults::failHere(Kind::kNew, 2);
    EXPECT_FALSE(loop->addTimer(1, &ident, true));
    faults::failHere(Kind::kNew, 3);  // after the timer and the memory for its block: its place in the list
    EXPECT_FALSE(loop->addTimer(1, &ident, true));
    EXPECT_EQ(-1, ident);
    EXPECT_FALSE(loop->isHereTimerIdent(64));
    EXPECT_EQ((std::vector<std::string>{"cannot allocate number for timer", "cannot allocate timer",
                                        "cannot allocate timer"}),
              loggedErrors());
    EXPECT_TRUE(loop->addTimer(1, &ident, true));
    EXPECT_EQ(64, ident);
}

TEST_F(RvKQueueFactoryFault, ALockThatFailsFailsTheEndpoint) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const std::int32_t descriptors[2] = {pair[0], pair[0]};
    const struct sockaddr_in address = loopback(freePort());
    faults::failHere(Kind::kMutex, 1);
    EXPECT_FALSE(loop->createStreamSocket(pair[0], true));
    faults::failHere(Kind::kMutex, 1);
    EXPECT_FALSE(loop->createBipipeClient(descriptors, true));
    faults::failHere(Kind::kMutex, 1);
    EXPECT_FALSE(loop->createUnixClient("/nowhere"));
    faults::failHere(Kind::kMutex, 1);
    EXPECT_FALSE(loop->createTCPClient(asSockaddr(address)));
    EXPECT_EQ((std::vector<std::string>{
                  "cannot initialize stream socket object", "cannot initialize bipipe object",
                  "cannot initialize unix socket object", "cannot initialize TCP socket object"}),
              loggedErrors());
    EXPECT_TRUE(isOpen(pair[0]));
}

// A number that is closed once more may be another's by then.
TEST_F(RvKQueueFactoryFault, EveryDescriptorIsClosedOnce) {
    const int before = faults::vainCloses();
    const TemporaryDirectory directory;
    const std::string path = directory.path("s");
    DescriptorPair forSocket = DescriptorPair::socketPair();
    DescriptorPair forBoth = DescriptorPair::socketPair();
    const std::int32_t both[2] = {forBoth[0], forBoth.release(0)};
    const struct sockaddr_in address = loopback(0);
    const std::shared_ptr<RvKQueueEventProtocol> endpoints[] = {
        loop->createStreamSocket(forSocket.release(0), true), loop->createBipipeClient(both, true),
        loop->createUnixServer(path.c_str(), 0600), loop->createUnixClient(path.c_str()),
        loop->createTCPServer(asSockaddr(address))};
    loop->start();
    for (const auto& endpoint : endpoints) {
        ASSERT_TRUE(endpoint);
        loop->startObject(endpoint, {});
        loop->stopObject(endpoint);
    }
    EXPECT_FALSE(loop->createUnixServer(directory.path("no/place").c_str(), 0600));
    faults::failHere(Kind::kSocket, 1, 4);
    EXPECT_FALSE(loop->createUnixClient(path.c_str()));
    EXPECT_FALSE(loop->createTCPClient(asSockaddr(address)));
    EXPECT_FALSE(loop->createUnixServer(path.c_str(), 0600));
    EXPECT_FALSE(loop->createTCPServer(asSockaddr(address)));
    EXPECT_TRUE(faults::hasFailed());
    loop->stop();
    loop.reset();
    faults::failHere(Kind::kThread, 1);
    EXPECT_FALSE(RvKQueue::initWithSubsystem(kTestSubsystem));
    faults::failHere(Kind::kEventfd, 1);
    EXPECT_TRUE(RvKQueue::initWithSubsystem(kTestSubsystem));
    EXPECT_TRUE(faults::hasFailed());
    EXPECT_EQ(before, faults::vainCloses());
}

TEST_F(RvKQueueFactoryFault, WithoutADescriptorThereIsNoSocket) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("s");
    const struct sockaddr_in address = loopback(freePort());
    faults::failHere(Kind::kSocket, 1, 4);
    EXPECT_FALSE(loop->createUnixClient(path.c_str()));
    EXPECT_FALSE(loop->createTCPClient(asSockaddr(address)));
    EXPECT_FALSE(loop->createUnixServer(path.c_str(), 0600));
    EXPECT_FALSE(loop->createTCPServer(asSockaddr(address)));
    EXPECT_TRUE(faults::hasFailed());
    EXPECT_EQ(
        (std::vector<std::string>{
            "cannot initialize unix socket object", "cannot initialize TCP socket object",
            "cannot initialize unix server socket object", "cannot initialize TCP server socket object"}),
        loggedErrors());
}

TEST_F(RvKQueueFactoryFault, AListenerThatCannotListenIsClosed) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("s");
    const struct sockaddr_in address = loopback(0);
    const int descriptors = openDescriptorCount();
    faults::failHere(Kind::kListen, 1, 2);
    EXPECT_FALSE(loop->createUnixServer(path.c_str(), 0600));
    EXPECT_FALSE(loop->createTCPServer(asSockaddr(address)));
    EXPECT_TRUE(faults::hasFailed());
    EXPECT_EQ(descriptors, openDescriptorCount());
    EXPECT_EQ((std::vector<std::string>{"cannot initialize unix server socket object",
                                        "cannot initialize TCP server socket object"}),
              loggedErrors());
}

int descriptorIn(const RecordedEvent& event) {
    std::int32_t descriptor = -1;
    std::memcpy(&descriptor, event.bytes.data(), sizeof descriptor);
    return descriptor;
}

// A connection waits while accept fails once; it is offered with the next event.
template <class Server, class Client>
void expectAcceptFailure(RvKQueue& running, const Server& server, const Client& client,
                         const std::string& message) {
    ASSERT_TRUE(server && client);
    Recorder recorder;
    faults::failElsewhere(Kind::kAccept);
    running.startObject(server, recorder.block());
    ASSERT_TRUE(recorder.waitFor(kEventData));
    EXPECT_TRUE(faults::hasFailed());
    EXPECT_EQ(std::vector<std::string>{"<" + pointerText(server.get()) + ">: " + message}, loggedErrors());
    EXPECT_EQ(1u, recorder.events().size());
    EXPECT_EQ(0, close(descriptorIn(recorder.events()[0])));
}

TEST_F(RvKQueueEndpointFault, AFailedUnixAcceptIsLoggedAndTheServerGoesOn) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("s");
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    const auto client = loop->createUnixClient(path.c_str());
    loop->start();
    expectAcceptFailure(*loop, server, client, "cannot accept unix connection");
    loop->stop();
}

TEST_F(RvKQueueEndpointFault, AFailedTCPAcceptIsLoggedAndTheServerGoesOn) {
    const struct sockaddr_in address = loopback(freePort());
    const auto server = loop->createTCPServer(asSockaddr(address));
    const auto client = loop->createTCPClient(asSockaddr(address));
    loop->start();
    expectAcceptFailure(*loop, server, client, "cannot accept inet connection");
    loop->stop();
}

TEST_F(RvKQueueEndpointFault, InputThatFindsNoRoomIsAReadError) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair[0], false);
    Recorder recorder;
    loop->startObject(endpoint, recorder.block());
    writeAll(pair[1], "abc");
    const struct kevent record = {0, EVFILT_READ, EV_ADD | EV_ENABLE, 0, 1000, endpoint.get()};
    faults::failHere(Kind::kRealloc, 1, 2);
    endpoint->kevent(&record);
    EXPECT_TRUE(faults::hasFailed());
    EXPECT_EQ(1, recorder.count(kEventClosed));
    EXPECT_EQ(0, recorder.count(kEventData));
    endpoint->kevent(&record);
    EXPECT_EQ(1, recorder.count(kEventData));
}

TEST_F(RvKQueueEndpointFault, OutputThatFindsNoRoomEndsTheStream) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair[0], false);
    Recorder recorder;
    loop->startObject(endpoint, recorder.block());
    loop->write(endpoint, "b", 1);
    const std::string large(100000, 'x');
    faults::failHere(Kind::kRealloc, 1, 2);
    loop->write(endpoint, large.data(), large.size());
    EXPECT_TRUE(faults::hasFailed());
    const struct kevent record = {0, EVFILT_WRITE, EV_ADD | EV_ENABLE, 0, 1000, endpoint.get()};
    endpoint->kevent(&record);
    EXPECT_EQ(1, recorder.count(kEventClosed));
    loop->write(endpoint, "after", 5);
    endpoint->kevent(&record);
    EXPECT_EQ(2, recorder.count(kEventClosed));
    pair.close(0);
    EXPECT_EQ("", readExactly(pair[1], 100));  // no byte goes out beyond the hole
}

// Fills the storage that a buffer starts with.
std::string fillUp(ByteBuffer* buffer) {
    EXPECT_TRUE(buffer->append("a", 1));
    const std::string rest(buffer->spare(), 'b');
    EXPECT_TRUE(buffer->append(rest.data(), rest.size()));
    return "a" + rest;
}

std::string textOf(const ByteBuffer& buffer) {
    return {buffer.data(), buffer.size()};
}

TEST_F(RvKQueueEndpointFault, ABufferThatCannotGrowByAFactorGrowsByWhatIsNeeded) {
    ByteBuffer buffer;
    const std::string full = fillUp(&buffer);
    faults::failHere(Kind::kRealloc, 1);
    EXPECT_TRUE(buffer.append("c", 1));
    EXPECT_TRUE(faults::hasFailed());
    EXPECT_EQ(full + "c", textOf(buffer));
}

TEST_F(RvKQueueEndpointFault, ABufferThatCannotGrowKeepsItsBytes) {
    ByteBuffer buffer;
    const std::string full = fillUp(&buffer);
    faults::failHere(Kind::kRealloc, 1, 2);
    EXPECT_FALSE(buffer.append("c", 1));
    EXPECT_TRUE(faults::hasFailed());
    EXPECT_EQ(full, textOf(buffer));
}

TEST_F(RvKQueueEndpointFault, ABufferThatCannotGrowUsesTheRoomOfWhatWasDropped) {
    ByteBuffer buffer;
    const std::string full = fillUp(&buffer);
    const std::string few(full.size() / 4, 'c');  // so few that growth is preferred to moving the others
    buffer.drop(few.size());
    faults::failHere(Kind::kRealloc, 1, 2);
    EXPECT_TRUE(buffer.append(few.data(), few.size()));
    EXPECT_TRUE(faults::hasFailed());
    EXPECT_EQ(full.substr(few.size()) + few, textOf(buffer));
}

TEST_F(RvKQueueEndpointFault, OutputThatCannotBeJoinedStaysWhereItIs) {
    OutputRun run;
    OutputRun next;
    const std::string large(100000, 'x');
    ASSERT_TRUE(run.append("a", 1));
    ASSERT_TRUE(next.append(large.data(), large.size()));
    faults::failHere(Kind::kRealloc, 1, 2);
    EXPECT_FALSE(run.take(next));
    EXPECT_TRUE(faults::hasFailed());
    EXPECT_EQ(1u, run.size());
    EXPECT_EQ(large.size(), next.size());
}

TEST_F(RvKQueueEndpointFault, TheFirstBlockNeedsNoMemory) {
    EventBlockSlot slot;
    ASSERT_TRUE(slot.isUsable());
    const auto block = [](RvKQueueEventProtocol*, const char*, std::uint64_t, std::uint64_t*, std::int32_t) {
        return true;
    };
    EventBlock first = block;
    EventBlock second = block;
    faults::failHere(Kind::kNew, 1);
    const EventBlockSlot::Pointer stored = slot.set(std::move(first));
    EXPECT_FALSE(faults::hasFailed());
    EXPECT_TRUE(stored);
    faults::failHere(Kind::kNew, 1);
    EXPECT_FALSE(slot.set(std::move(second)));
    EXPECT_TRUE(faults::hasFailed());
    EXPECT_EQ(stored.get(), &*EventBlockSlot::Use(slot));
}

TEST_F(RvKQueueFactoryFault, AUnixClientThatCannotBeRegisteredIsRefused) {
    const int descriptors = openDescriptorCount();
    // The registry has room for 16 from the start.
    for (int i = 0; i < 16; ++i) loop->addActiveObject(std::make_shared<ProbeEndpoint>());
    faults::failHere(Kind::kNew, 3);  // after the endpoint and the memory for its block
    EXPECT_FALSE(loop->createUnixClient("/nowhere"));
    EXPECT_TRUE(faults::hasFailed());
    const auto errors = loggedErrors();
    ASSERT_EQ(2u, errors.size());
    EXPECT_TRUE(errors[0].ends_with(">: cannot be added")) << errors[0];
    EXPECT_EQ("cannot initialize unix socket object", errors[1]);
    EXPECT_EQ(descriptors, openDescriptorCount());
}

TEST_F(RvKQueueThreadFault, TheEndOfTheThreadCanBeWaitedFor) {
    faults::failElsewhere(Kind::kRealloc);
    loop->start();
    loop->waitForEnd();
    EXPECT_EQ(std::vector<std::string>{"cannot initialize event list"}, loggedErrors());
    loop->stop();
}

TEST_F(RvKQueueStop, TakesAboutASecond) {
    loop->start();
    const std::int64_t before = faults::sleptSeconds();
    std::atomic<bool> slept{false};
    Recorder recorder;
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    // The thread cannot end before stop has begun to wait for it.
    loop->startObject(endpoint, recorder.block([&](const RecordedEvent& event, std::uint64_t*) {
        if (event.code == kEventData) slept = waitUntil([&] { return faults::sleptSeconds() > before; });
        return true;
    }));
    writeAll(pair[1], "x");
    ASSERT_TRUE(recorder.waitFor(kEventData));
    loop->stop();
    EXPECT_TRUE(slept);
    EXPECT_EQ(1, faults::longestSleepSeconds());
}

TEST_F(RvKQueueStop, DoesNotSleepOnceTheThreadHasEnded) {
    faults::failElsewhere(Kind::kRealloc);
    loop->start();
    loop->waitForEnd();
    const std::int64_t before = faults::sleptSeconds();
    loop->stop();
    EXPECT_EQ(before, faults::sleptSeconds());
}

TEST_F(RvKQueueStop, CancelsEvenTheFirstTurn) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    Recorder recorder;
    loop->startObject(endpoint, recorder.block());
    writeAll(pair[1], "x");
    static std::int64_t before = 0;
    before = faults::sleptSeconds();
    // The thread gets no further than its first line until stop has begun to wait for it.
    setOsLogSink([](LogLevel, const char*, const char*, const char* text) {
        if (std::strcmp(text, "io thread started") != 0) return;
        EXPECT_TRUE(waitUntil([] { return faults::sleptSeconds() > before; }));
    });
    loop->start();
    loop->stop();
    EXPECT_EQ(0, recorder.count(kEventData));
}

}  // namespace
