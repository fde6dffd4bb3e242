#include "demo/service.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "fake_daemon/wire.h"
#include "ipc/command.h"
#include "libio-macOS/RvKQueue.h"
#include "unit/demo/demo_support.h"

namespace demo {
namespace {

constexpr char kPath[] = "/run/demo.sock";
constexpr int kLimitMs = 60'000;

/// A client that speaks in whole frames, or in whatever bytes it is told to.
class Peer {
  public:
    Peer() {
        struct sockaddr_un address {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, kPath, sizeof kPath);
        EXPECT_EQ(connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address), 0);
    }
    ~Peer() { (void)close(fd); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    void send(std::string_view bytes) {
        EXPECT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }

    /// "code body" of the next frame, or "closed" at the end of input, or "silent" after the limit.
    std::string next() {
        fake::Frame frame;
        while (!fake::cutFrame(received, frame)) {
            struct pollfd wait = {fd, POLLIN, 0};
            char bytes[4096];
            if (poll(&wait, 1, kLimitMs) != 1) {
                return "silent";
            }
            const ssize_t count = read(fd, bytes, sizeof bytes);
            if (count <= 0) {
                return "closed";
            }
            received.append(bytes, static_cast<std::size_t>(count));
        }
        return std::to_string(frame.code) + " " + frame.body;
    }

    std::string ask(std::uint32_t code, std::string_view body = "") {
        send(fake::frame(code, body));
        return next();
    }

  private:
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    std::string received;
};

class DemoService : public testing::Test {
  protected:
    explicit DemoService(std::uint64_t patienceMs = 1)
        : service(loop, makeState(R"([{"action":"share"}])"), patienceMs) {
        EXPECT_TRUE(service.listen(kPath));
        loop->start();
    }
    ~DemoService() override { loop->stop(); }

    std::shared_ptr<RvKQueue> loop = RvKQueue::initWithSubsystem("test.demo");
    Service service;
};

/// Clients have all the time that they want for their first request.
class PatientDemoService : public DemoService {
  protected:
    PatientDemoService() : DemoService(3'600'000) {}
};

constexpr char kRulesChanged[] = "12 {}";
constexpr char kUnplugged[] = R"(4 {"id":1,"name":"Office keyboard","state":"unplugged"})";

TEST_F(DemoService, AnswersARequestWithoutABody) {
    Peer peer;
    EXPECT_EQ(peer.ask(kCmdStartRuleTransaction), R"(6 {"status":"ok"})");
    EXPECT_EQ(peer.ask(kCmdGetRules), R"(7 {"rules":[{"action":"share"}]})");
}

TEST_F(DemoService, EverybodyMayConnect) {
    struct stat found {};
    ASSERT_EQ(lstat(kPath, &found), 0);
    EXPECT_EQ(found.st_mode & 07777U, 0666U);
}

TEST_F(DemoService, TheDaemonsOwnUserMayDropConnections) {
    Peer peer;
    EXPECT_EQ(peer.ask(kCmdKillConnection, R"({"host":"desk"})"), R"(2 {"status":"ok"})");
}

TEST_F(DemoService, AnswersInOrderHoweverTheBytesCome) {
    Peer peer;
    const std::string bytes = fake::frame(kCmdDisconnectDevice, R"({"id":1})") +
                              fake::frame(kCmdDisconnectDevice, R"({"id":1})") +
                              fake::frame(kCmdStartRuleTransaction, "");
    peer.send(bytes.substr(0, 3));
    peer.send(bytes.substr(3, 9));
    peer.send(bytes.substr(12));
    EXPECT_EQ(peer.next(), R"(3 {"status":"ok"})");
    EXPECT_EQ(peer.next(), R"(3 {"status":"notfound"})");
    EXPECT_EQ(peer.next(), R"(6 {"status":"ok"})");
}

TEST_F(DemoService, EventsGoOnlyToClientsWithoutARequest) {
    Peer monitor;
    Peer peer;
    // Connections are accepted in order, so with this answer the monitor is known.
    EXPECT_EQ(peer.ask(kCmdStartRuleTransaction), R"(6 {"status":"ok"})");
    EXPECT_EQ(peer.ask(kCmdDisconnectDevice, R"({"id":1})"), R"(3 {"status":"ok"})");
    EXPECT_EQ(peer.ask(kCmdEndRuleTransaction, R"({"action":"commit"})"), R"(11 {"status":"ok"})");
    EXPECT_EQ(monitor.next(), kUnplugged);
    EXPECT_EQ(monitor.next(), kRulesChanged);
    // The monitor's own request ends its being one: the reply is the next it gets, and then nothing but
    // replies.
    EXPECT_EQ(monitor.ask(kCmdStartRuleTransaction), R"(6 {"status":"ok"})");
    EXPECT_EQ(peer.ask(kCmdDisconnectDevice, R"({"id":2})"), R"(3 {"status":"ok"})");
    EXPECT_EQ(monitor.ask(kCmdEndRuleTransaction, R"({"action":"rollback"})"), R"(11 {"status":"ok"})");
}

TEST_F(PatientDemoService, EventsDoNotComeBeforeTheFirstReply) {
    Peer late;
    Peer peer;
    EXPECT_EQ(peer.ask(kCmdDisconnectDevice, R"({"id":1})"), R"(3 {"status":"ok"})");
    EXPECT_EQ(late.ask(kCmdStartRuleTransaction), R"(6 {"status":"ok"})");
    EXPECT_EQ(peer.ask(kCmdDisconnectDevice, R"({"id":2})"), R"(3 {"status":"ok"})");
    EXPECT_EQ(late.ask(kCmdEndRuleTransaction, R"({"action":"rollback"})"), R"(11 {"status":"ok"})");
}

TEST_F(PatientDemoService, AClientMayLeaveWithoutARequest) {
    { Peer silent; }
    Peer peer;
    EXPECT_EQ(peer.ask(kCmdStartRuleTransaction), R"(6 {"status":"ok"})");
}

TEST_F(DemoService, ATransactionEndsWithItsConnection) {
    {
        Peer peer;
        EXPECT_EQ(peer.ask(kCmdStartRuleTransaction), R"(6 {"status":"ok"})");
        EXPECT_EQ(peer.ask(kCmdLoadRules, R"({"rules":[]})"), R"(8 {"status":"ok"})");
    }
    Peer peer;
    EXPECT_EQ(peer.ask(kCmdGetRules), R"(7 {"status":"error"})");
    EXPECT_EQ(peer.ask(kCmdStartRuleTransaction), R"(6 {"status":"ok"})");
    EXPECT_EQ(peer.ask(kCmdGetRules), R"(7 {"rules":[{"action":"share"}]})");
}

TEST_F(DemoService, MalformedBytesCloseTheConnectionAndNoOther) {
    const std::string malformed[] = {
        fake::frame(99, ""),
        fake::frame(kCmdDeviceList, "not JSON"),
        fake::frame(kCmdDeviceList, "[]"),
        fake::frame(kCmdDisconnectDevice, "{}"),
        fake::header(kCmdDeviceList, 104'857'601),
    };
    Peer other;
    EXPECT_EQ(other.ask(kCmdStartRuleTransaction), R"(6 {"status":"ok"})");
    for (const std::string& bytes : malformed) {
        Peer peer;
        peer.send(bytes);
        EXPECT_EQ(peer.next(), "closed");
    }
    EXPECT_EQ(other.ask(kCmdEndRuleTransaction, R"({"action":"rollback"})"), R"(11 {"status":"ok"})");
}

TEST_F(DemoService, ThingsHappenByThemselves) {
    Peer monitor;
    Peer peer;  // whose answer says that the monitor has been accepted
    EXPECT_EQ(peer.ask(kCmdStartRuleTransaction), R"(6 {"status":"ok"})");
    EXPECT_TRUE(service.letThingsHappen(1));
    EXPECT_EQ(monitor.next(), R"(4 {"id":3,"name":"Memory stick","state":"plugged"})");
    EXPECT_EQ(monitor.next(), R"(5 {"state":"connected","addr":"192.0.2.77","port":50312})");
}

TEST_F(DemoService, ManyClientsComeAndGo) {
    for (int i = 0; i < 200; ++i) {
        Peer peer;
        EXPECT_EQ(peer.ask(kCmdStartRuleTransaction), R"(6 {"status":"ok"})");
    }
}

TEST(DemoServiceListen, APlaceThatIsNotThereIsAFailure) {
    const std::shared_ptr<RvKQueue> loop = RvKQueue::initWithSubsystem("test.demo");
    Service service(loop, makeState("[]"));
    EXPECT_FALSE(service.listen("/nonexistent/demo.sock"));
}

}  // namespace
}  // namespace demo
