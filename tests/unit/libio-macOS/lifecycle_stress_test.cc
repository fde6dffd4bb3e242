/// Endpoints made, used and stopped by many threads at once.
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "libio-macOS/RvKQueueBipipeClient.h"
#include "libio-macOS/RvKQueueStreamSocket.h"
#include "libio-macOS/RvKQueueTimer.h"
#include "libio-macOS/RvKQueueUnixClient.h"
#include "libio-macOS/RvKQueueUnixServer.h"
#include "unit/libio-macOS/support/engine_fixture.h"

namespace {

constexpr int kThreads = 8;
constexpr int kRounds = 150;

class LifecycleStress : public EngineTest {
  protected:
    template <class Work>
    static void onManyThreads(const Work& work) {
        std::vector<std::thread> threads;
        threads.reserve(kThreads);
        for (int i = 0; i < kThreads; ++i) threads.emplace_back([&work, i] { work(i); });
        for (std::thread& thread : threads) thread.join();
    }
};

TEST_F(LifecycleStress, EveryThreadMakesWritesAndStops) {
    const int before = openDescriptorCount();
    onManyThreads([this](int) {
        for (int round = 0; round < kRounds; ++round) {
            DescriptorPair pair = DescriptorPair::socketPair();
            const auto endpoint = loop->createStreamSocket(pair.release(0), true);
            Recorder recorder;
            loop->startObject(endpoint, recorder.block());
            loop->write(endpoint, "request", 7);
            ASSERT_EQ("request", readExactly(pair[1], 7));
            writeAll(pair[1], "reply");
            ASSERT_TRUE(recorder.waitForBytes(5));
            ASSERT_EQ("reply", recorder.received());
            loop->stopObject(endpoint);
        }
    });
    EXPECT_TRUE(waitUntil([&] { return openDescriptorCount() == before; }));
}

TEST_F(LifecycleStress, AWriteThatMeetsTheEndOfAFlushIsSent) {
    // The far end answers as soon as bytes arrive, while the I/O thread is still disarming its write filter.
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    loop->startObject(endpoint, Recorder().block());
    for (int round = 0; round < 20000; ++round) {
        loop->write(endpoint, "x", 1);
        ASSERT_EQ("x", readExactly(pair[1], 1));
    }
}

TEST_F(LifecycleStress, AnEndpointIsStoppedWhileOthersWriteToIt) {
    for (int round = 0; round < 50; ++round) {
        DescriptorPair pair = DescriptorPair::socketPair();
        const auto endpoint = loop->createStreamSocket(pair.release(0), true);
        loop->startObject(endpoint, Recorder().block());
        onManyThreads([&](int number) {
            for (int i = 0; i < 20; ++i) loop->write(endpoint, "0123456789", 10);
            if (number == kThreads / 2) loop->stopObject(endpoint);
        });
        // Whatever went out before the end is whole in its order.
        const std::string sent = readExactly(pair[1], std::size_t{10} * 20 * kThreads);
        for (std::size_t i = 0; i < sent.size(); ++i) ASSERT_EQ('0' + static_cast<char>(i % 10), sent[i]);
    }
}

TEST_F(LifecycleStress, AnEndpointIsStartedWhileAnotherThreadStopsIt) {
    std::atomic<int> events{0};
    for (int round = 0; round < kRounds; ++round) {
        DescriptorPair pair = DescriptorPair::socketPair();
        const auto endpoint = loop->createStreamSocket(pair.release(0), true);
        std::thread starter([&] {
            loop->startObject(endpoint, [&](RvKQueueEventProtocol*, const char*, std::uint64_t,
                                            std::uint64_t*, std::int32_t) {
                ++events;
                return true;
            });
        });
        loop->stopObject(endpoint);
        starter.join();
        EXPECT_EQ("", readExactly(pair[1], 1));
    }
    EXPECT_GE(events, kRounds);
}

TEST_F(LifecycleStress, ABlockIsReplacedWhileItRuns) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    std::atomic<std::size_t> bytes{0};
    const auto counting = [&](RvKQueueEventProtocol*, const char*, std::uint64_t size, std::uint64_t*,
                              std::int32_t event) {
        if (event == kEventData) bytes += size;
        return true;
    };
    loop->startObject(endpoint, counting);
    std::thread feeder([&] {
        for (int i = 0; i < 2000; ++i) writeAll(pair[1], "x");
    });
    for (int i = 0; i < 500; ++i) loop->startObject(endpoint, counting);
    feeder.join();
    EXPECT_TRUE(waitUntil([&] { return bytes == 2000; }));
}

TEST_F(LifecycleStress, TimersComeAndGoOnAllThreads) {
    onManyThreads([this](int) {
        for (int round = 0; round < kRounds; ++round) {
            Recorder recorder;
            const auto timer = loop->createTimer(0, true);
            ASSERT_TRUE(timer);
            loop->startObject(timer, recorder.block());
            const bool isAwaited = round % 2 == 0;
            ASSERT_TRUE(!isAwaited || recorder.waitFor(kEventData));
            loop->stopObject(timer);
        }
    });
    EXPECT_TRUE(waitUntil([&] {
        for (int ident = 0; ident < kThreads * 2; ++ident) {
            if (loop->isHereTimerIdent(ident)) return false;
        }
        return true;
    }));
}

TEST_F(LifecycleStress, ClientsComeAndGoAtAServer) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("s");
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    loop->startObject(server, Recorder().block([](const RecordedEvent&, std::uint64_t*) { return false; }));
    onManyThreads([&](int) {
        for (int round = 0; round < kRounds; ++round) {
            Recorder recorder;
            const auto client = loop->createUnixClient(path.c_str());
            ASSERT_TRUE(client);
            loop->startObject(client, recorder.block());
            // Refused at once when the backlog is full; else turned away by the server.
            ASSERT_TRUE(waitUntil(
                [&] { return recorder.count(kEventClosed) > 0 || recorder.count(kEventConnectFailed) > 0; }));
            loop->stopObject(client);
        }
    });
}

TEST_F(LifecycleStress, LoopsStopWithTrafficUnderWay) {
    const int before = openDescriptorCount();
    std::vector<std::shared_ptr<RvKQueue>> loops;
    std::vector<DescriptorPair> pairs;
    for (int i = 0; i < kThreads; ++i) {
        loops.push_back(RvKQueue::initWithSubsystem(kTestSubsystem));
        loops.back()->start();
        pairs.push_back(DescriptorPair::socketPair());
        const auto one = loops.back()->createStreamSocket(pairs.back().release(0), true);
        const auto other = loops.back()->createStreamSocket(pairs.back().release(1), true);
        const auto bounce = [own = std::weak_ptr(loops.back())](RvKQueueEventProtocol* object,
                                                                const char* buffer, std::uint64_t size,
                                                                std::uint64_t*, std::int32_t event) {
            const auto running = own.lock();
            if (event == kEventData && running) running->write(object, buffer, size);
            return true;
        };
        loops.back()->startObject(one, bounce);
        loops.back()->startObject(other, bounce);
        loops.back()->write(one, "ball", 4);
    }
    onManyThreads([&](int number) { loops[static_cast<std::size_t>(number)]->stop(); });
    loops.clear();
    EXPECT_EQ(before, openDescriptorCount());
}

}  // namespace
