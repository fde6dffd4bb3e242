// The fake daemon itself: the order of its steps, and that nothing a peer sent is missed.
#include "fake_daemon/fake_daemon.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

namespace fake {
namespace {

// A blocking peer of the control socket.
class Peer {
  public:
    Peer() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, kSocketPath, sizeof address.sun_path - 1);
        connected_ = connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~Peer() { (void)close(fd_); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool isConnected() const { return connected_; }
    bool send(const std::string& bytes) {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    /// What one read gives; empty at the end of the connection.
    std::string read() {
        std::string bytes(4096, '\0');
        const ssize_t count = ::read(fd_, bytes.data(), bytes.size());
        bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return bytes;
    }
    bool hasInput() {
        char byte = 0;
        return recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
    }

  private:
    int fd_;
    bool connected_ = false;
};

TEST(FakeDaemon, RepliesAfterAWholeRequestOnly) {
    FakeDaemon daemon(Script().reply(7, "{}"));
    Peer peer;
    const std::string request = frame(3, "{\"id\":1}");
    ASSERT_TRUE(peer.send(request.substr(0, 9)));
    ASSERT_TRUE(daemon.waitForConnections(1));
    EXPECT_FALSE(daemon.isScriptDone());
    ASSERT_TRUE(peer.send(request.substr(9)));
    EXPECT_EQ(frame(7, "{}"), peer.read());
    daemon.finish();
    ASSERT_EQ(1U, daemon.requests().size());
    EXPECT_EQ(3U, daemon.requests()[0].code);
    EXPECT_EQ("{\"id\":1}", daemon.requests()[0].body);
    EXPECT_EQ("", daemon.leftovers());
}

TEST(FakeDaemon, TwoRequestsInOneWriteAreTwoRequests) {
    FakeDaemon daemon(Script().reply(1, "{}").reply(2, "{}"));
    Peer peer;
    ASSERT_TRUE(peer.send(frame(0, "") + frame(19, "")));
    ASSERT_TRUE(daemon.waitForEndOfScript());
    ASSERT_TRUE(daemon.waitForRequests(2));
    EXPECT_EQ(19U, daemon.requests()[1].code);
}

TEST(FakeDaemon, DrainSeparatesWhatThePeerReads) {
    FakeDaemon daemon(Script().send("one").drain().send("two").close());
    Peer peer;
    EXPECT_EQ("one", peer.read());
    EXPECT_EQ("two", peer.read());
    EXPECT_EQ("", peer.read());
    EXPECT_TRUE(daemon.waitForEndOfScript());
}

TEST(FakeDaemon, HoldWaitsForItsRelease) {
    FakeDaemon daemon(Script().hold().send("one").drain().hold().send("two"));
    Peer peer;
    ASSERT_TRUE(daemon.waitForHold(1));
    EXPECT_FALSE(peer.hasInput());
    daemon.release();
    EXPECT_EQ("one", peer.read());
    ASSERT_TRUE(daemon.waitForHold(2));
    EXPECT_FALSE(peer.hasInput());
    daemon.release();
    EXPECT_EQ("two", peer.read());
}

TEST(FakeDaemon, FinishFindsAConnectionThatCameAndWent) {
    FakeDaemon daemon{Script()};
    {
        Peer peer;
        ASSERT_TRUE(peer.send(frame(0, "") + "rest"));
    }
    daemon.finish();
    EXPECT_EQ(1U, daemon.connections());
    EXPECT_EQ(1U, daemon.requests().size());
    EXPECT_EQ("rest", daemon.leftovers());
}

TEST(FakeDaemon, SecondConnectionIsRecordedButNotServed) {
    FakeDaemon daemon(Script().reply(0, "{}"));
    Peer first;
    Peer second;
    ASSERT_TRUE(daemon.waitForConnections(2));
    ASSERT_TRUE(second.send(frame(5, "")));
    ASSERT_TRUE(daemon.waitForRequests(1));
    EXPECT_FALSE(daemon.isScriptDone());
    ASSERT_TRUE(first.send(frame(6, "")));
    EXPECT_EQ(frame(0, "{}"), first.read());
    EXPECT_FALSE(second.hasInput());
}

TEST(FakeDaemon, SocketIsGoneAfterFinish) {
    FakeDaemon daemon{Script()};
    EXPECT_TRUE(std::filesystem::exists(kSocketPath));
    daemon.finish();
    EXPECT_FALSE(std::filesystem::exists(kSocketPath));
    EXPECT_FALSE(Peer().isConnected());
}

}  // namespace
}  // namespace fake
