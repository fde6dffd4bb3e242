// The engine through a hundred thousand connections and as many timers: it holds at the end what it held
// before.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>

#include "libio-macOS/AcceptedConnection.h"
#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/RvKQueueStreamSocket.h"
#include "libio-macOS/RvKQueueTimer.h"
#include "libio-macOS/RvKQueueUnixClient.h"
#include "libio-macOS/RvKQueueUnixServer.h"
#include "soak/process_size.h"
#include "unit/libio-macOS/support/engine_fixture.h"

namespace {

constexpr std::size_t kRounds = 1000;
constexpr std::size_t kPerRound = 100;
constexpr std::size_t kWarmUpRounds = 100;
constexpr std::size_t kSlack = 2U << 20;

/// Runs `round` many times; what the process holds after some of them must be enough for all.
void expectFlat(const std::function<bool()>& round) {
    ProcessSize warm;
    for (std::size_t number = 1; number <= kRounds; ++number) {
        ASSERT_TRUE(round()) << "round " << number;
        if (number == kWarmUpRounds) {
            warm = sizeOf(getpid());
        }
    }
    const ProcessSize size = sizeOf(getpid());
    EXPECT_EQ(warm.descriptors, size.descriptors);
    EXPECT_LE(size.residentBytes, warm.residentBytes + kSlack);
    ::testing::Test::RecordProperty("residentKiB", static_cast<int>(size.residentBytes >> 10));
}

class LongEngineSoak : public ::testing::Test {
  protected:
    void SetUp() override {
        loop = RvKQueue::initWithSubsystem(kTestSubsystem);
        ASSERT_TRUE(loop);
        loop->start();
    }
    void TearDown() override { loop->stop(); }

    std::shared_ptr<RvKQueue> loop;
};

TEST_F(LongEngineSoak, AHundredThousandConnectionsLeaveNothing) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("s");
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    ASSERT_TRUE(server);
    std::atomic<std::size_t> gone{0};
    // Each side: the server greets, the client answers by leaving, and then the server's end goes.
    const auto leaveAtTheEnd = [&](RvKQueueEventProtocol* object, const char*, std::uint64_t, std::uint64_t*,
                                   std::int32_t event) {
        if (event == kEventData || event == kEventClosed) {
            loop->stopObject(object);
            ++gone;
        }
        return true;
    };
    loop->startObject(
        server, [&](RvKQueueEventProtocol*, const char* record, std::uint64_t, std::uint64_t*, std::int32_t) {
            const int descriptor = reinterpret_cast<const AcceptedConnection*>(record)->descriptor;
            const auto connection = loop->createStreamSocket(descriptor, true);
            loop->startObject(connection, leaveAtTheEnd);
            loop->write(connection, "hello", 5);
            return true;
        });
    std::size_t expected = 0;
    const std::size_t idle = sizeOf(getpid()).descriptors;
    expectFlat([&] {
        for (std::size_t number = 0; number < kPerRound; ++number) {
            const auto client = loop->createUnixClient(path.c_str());
            if (!client) {
                return false;
            }
            loop->startObject(client, leaveAtTheEnd);
        }
        expected += 2 * kPerRound;
        // The last ones are closed by the turn after the one that counted them.
        return waitUntil([&] { return gone >= expected && sizeOf(getpid()).descriptors == idle; });
    });
}

TEST_F(LongEngineSoak, AHundredThousandTimersLeaveNothing) {
    std::atomic<std::size_t> fired{0};
    std::size_t expected = 0;
    expectFlat([&] {
        for (std::size_t number = 0; number < kPerRound; ++number) {
            const auto timer = loop->createTimer(1 + number % 3, number % 2 == 0);
            if (!timer) {
                return false;
            }
            loop->startObject(timer,
                              [&, counted = false](RvKQueueEventProtocol* object, const char*, std::uint64_t,
                                                   std::uint64_t*, std::int32_t) mutable {
                                  loop->stopObject(object);
                                  fired += counted ? 0 : 1;
                                  counted = true;
                                  return true;
                              });
        }
        expected += kPerRound;
        return waitUntil([&] { return fired >= expected; });
    });
}

}  // namespace
