/// Large transfers and many connections on one loop.
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "libio-macOS/AcceptedConnection.h"
#include "libio-macOS/RvKQueueBipipeClient.h"
#include "libio-macOS/RvKQueueStreamSocket.h"
#include "libio-macOS/RvKQueueTCPClient.h"
#include "libio-macOS/RvKQueueTCPServer.h"
#include "libio-macOS/RvKQueueUnixClient.h"
#include "libio-macOS/RvKQueueUnixServer.h"
#include "unit/libio-macOS/support/engine_fixture.h"

namespace {

#if defined(__SANITIZE_THREAD__)
// Threads meet as often per byte, and each byte is dearer.
constexpr std::size_t kBulkBytes = std::size_t{8} << 20;
constexpr std::size_t kMessageBytes = std::size_t{16} << 20;
#else
constexpr std::size_t kBulkBytes = std::size_t{64} << 20;
constexpr std::size_t kMessageBytes = std::size_t{100} << 20;
#endif
constexpr std::size_t kPieceBytes = std::size_t{1} << 20;

// Compares what arrives with what was sent, without keeping it.
class Checker {
  public:
    explicit Checker(const std::string& expectedBytes) : expected(expectedBytes) {}

    EventBlock block() {
        return [this](RvKQueueEventProtocol*, const char* buffer, std::uint64_t size, std::uint64_t*,
                      std::int32_t event) {
            if (event == kEventClosed) isClosed = true;
            if (event != kEventData) return true;
            const std::size_t at = arrived;
            if (size > expected.size() - at || std::memcmp(expected.data() + at, buffer, size) != 0) {
                isWrong = true;
            }
            arrived = at + size;
            return true;
        };
    }

    void expectAll() const {
        EXPECT_TRUE(waitUntil([this] { return arrived >= expected.size() || isWrong || isClosed; }));
        EXPECT_EQ(expected.size(), arrived);
        EXPECT_FALSE(isWrong);
        EXPECT_FALSE(isClosed);
    }

  private:
    const std::string& expected;
    std::atomic<std::size_t> arrived{0};
    std::atomic<bool> isWrong{false};
    std::atomic<bool> isClosed{false};
};

class Bulk : public EngineTest {
  protected:
    // Sends `kBulkBytes` from each of two connected endpoints to the other, at the same time.
    void exchange(const std::shared_ptr<RvKQueueEventProtocol>& one,
                  const std::shared_ptr<RvKQueueEventProtocol>& other, std::size_t pieceBytes = kPieceBytes) {
        const std::string fromOne = patternBytes(kBulkBytes, 1);
        const std::string fromOther = patternBytes(kBulkBytes, 2);
        Checker atOne(fromOther);
        Checker atOther(fromOne);
        loop->startObject(one, atOne.block());
        loop->startObject(other, atOther.block());
        for (std::size_t at = 0; at < kBulkBytes; at += pieceBytes) {
            loop->write(one, fromOne.data() + at, pieceBytes);
            loop->write(other, fromOther.data() + at, pieceBytes);
        }
        atOne.expectAll();
        atOther.expectAll();
        stopLoop();  // no block may outlive the checkers
    }
};

TEST_F(Bulk, BothWaysThroughASocketPair) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto one = loop->createStreamSocket(pair.release(0), true);
    const auto other = loop->createStreamSocket(pair.release(1), true);
    exchange(one, other);
}

TEST_F(Bulk, BothWaysThroughAPairOfPipes) {
    DescriptorPair there = DescriptorPair::pipe();
    DescriptorPair back = DescriptorPair::pipe();
    const std::int32_t ofOne[2] = {back.release(0), there.release(1)};
    const std::int32_t ofOther[2] = {there.release(0), back.release(1)};
    const auto one = loop->createBipipeClient(ofOne, true);
    const auto other = loop->createBipipeClient(ofOther, true);
    // In one piece: when a write from another thread meets the end of a flush, its bytes go out with that
    // flush and the readiness that follows finds nothing to send, which a descriptor pair reports as event 2.
    exchange(one, other, kBulkBytes);
}

TEST_F(Bulk, BothWaysThroughTCP) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    ASSERT_EQ(0, bind(listener, asSockaddr(address), length));
    ASSERT_EQ(0, listen(listener, 1));
    ASSERT_EQ(0, getsockname(listener, reinterpret_cast<struct sockaddr*>(&address), &length));
    const auto one = loop->createTCPClient(asSockaddr(address));
    ASSERT_TRUE(one);
    const auto other = loop->createStreamSocket(accept(listener, nullptr, nullptr), true);
    exchange(one, other);
    EXPECT_EQ(0, close(listener));
}

TEST_F(Bulk, ALargeMessageIsKeptUntilComplete) {
    // A block that waits for a large message keeps everything offered so far, over many reads.
    const std::string message = patternBytes(kMessageBytes, 3);
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto sender = loop->createStreamSocket(pair.release(0), true);
    const auto receiver = loop->createStreamSocket(pair.release(1), true);
    std::atomic<int> complete{0};
    std::atomic<bool> isEqual{false};
    loop->startObject(sender, [](RvKQueueEventProtocol*, const char*, std::uint64_t, std::uint64_t*,
                                 std::int32_t) { return true; });
    loop->startObject(receiver, [&](RvKQueueEventProtocol*, const char* buffer, std::uint64_t size,
                                    std::uint64_t* dropSize, std::int32_t event) {
        if (event != kEventData) return true;
        if (size < kMessageBytes) {
            *dropSize = 0;
            return true;
        }
        isEqual = size == kMessageBytes && std::memcmp(buffer, message.data(), size) == 0;
        ++complete;
        return true;
    });
    for (std::size_t at = 0; at < kMessageBytes; at += kPieceBytes) {
        loop->write(sender, message.data() + at, kPieceBytes);
    }
    EXPECT_TRUE(waitUntil([&] { return complete == 1; }));
    EXPECT_TRUE(isEqual);
    stopLoop();
}

TEST_F(Bulk, AThousandConnectionsAreEchoed) {
    constexpr int kConnections = 1000;
    struct rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    if (limit.rlim_max < 2 * kConnections + 100) GTEST_SKIP() << "too few descriptors";
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    const TemporaryDirectory directory;
    const std::string path = directory.path("s");
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    ASSERT_TRUE(server);
    loop->startObject(server, [this](RvKQueueEventProtocol*, const char* buffer, std::uint64_t,
                                     std::uint64_t*, std::int32_t) {
        AcceptedConnection accepted;
        std::memcpy(&accepted, buffer, sizeof accepted);
        const auto connection = loop->createStreamSocket(accepted.descriptor, true);
        loop->startObject(connection, [this](RvKQueueEventProtocol* object, const char* bytes,
                                             std::uint64_t size, std::uint64_t*, std::int32_t event) {
            if (event == kEventData) loop->write(object, bytes, size);
            if (event == kEventClosed) loop->stopObject(object);
            return true;
        });
        return true;
    });
    std::vector<std::shared_ptr<RvKQueueUnixClient>> clients;
    std::vector<Recorder> recorders(kConnections);
    std::vector<std::string> messages;
    for (int i = 0; i < kConnections; ++i) {
        Recorder& recorder = recorders[static_cast<std::size_t>(i)];
        messages.push_back(patternBytes(1 + static_cast<std::size_t>(i) * 7, static_cast<unsigned>(i)));
        // A full backlog refuses; then the server first has to catch up.
        for (bool isRefused = true; isRefused;) {
            Recorder attempt;
            auto client = loop->createUnixClient(path.c_str());
            ASSERT_TRUE(client);
            loop->startObject(client, attempt.block());
            waitForTurn();
            isRefused = attempt.count(kEventConnected) == 0;
            if (isRefused) {
                loop->stopObject(client);
                waitForTurn();
                continue;
            }
            loop->startObject(client, recorder.block());
            loop->write(client, messages.back().data(), messages.back().size());
            clients.push_back(client);
        }
    }
    for (std::size_t i = 0; i < recorders.size(); ++i) {
        ASSERT_TRUE(recorders[i].waitForBytes(messages[i].size())) << i;
        EXPECT_EQ(messages[i], recorders[i].received()) << i;
    }
    for (const auto& client : clients) loop->stopObject(client);
    stopLoop();
}

}  // namespace
