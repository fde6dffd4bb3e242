#include "libio-macOS/RvKQueueTCPServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "libio-macOS/AcceptedConnection.h"
#include "libio-macOS/RvKQueueStreamSocket.h"
#include "libio-macOS/RvKQueueTCPClient.h"
#include "platform/kevent.h"
#include "unit/libio-macOS/support/engine_fixture.h"

namespace {

constexpr const char* kFailure = "cannot initialize TCP server socket object";

AcceptedConnection acceptedIn(const RecordedEvent& event) {
    AcceptedConnection accepted = {};
    EXPECT_EQ(sizeof accepted, event.bytes.size());
    std::memcpy(&accepted, event.bytes.data(), std::min(event.bytes.size(), sizeof accepted));
    return accepted;
}

int socketOf(RvKQueueTCPServer& server) {
    struct kevent record;
    server.initReadEvent(&record, EV_ADD);
    return static_cast<int>(record.ident);
}

class RvKQueueTCPServerListen : public EngineTest {
  protected:
    // A server on a port that the system chooses; `address` becomes what it listens at.
    std::shared_ptr<RvKQueueTCPServer> makeServer() {
        auto server = loop->createTCPServer(asSockaddr(address));
        socklen_t length = sizeof address;
        EXPECT_EQ(0, getsockname(socketOf(*server), reinterpret_cast<struct sockaddr*>(&address), &length));
        return server;
    }
    int connectClient() {
        const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, connect(client, asSockaddr(address), sizeof address));
        return client;
    }

    struct sockaddr_in address = loopback(0);
    Recorder recorder;
};
using RvKQueueTCPServerAccept = RvKQueueTCPServerListen;

// Nobody has connected, and an accept would not return.
TEST_F(RvKQueueTCPServerAccept, AFilterThatCannotBeArmedIsAFailedAccept) {
    const auto server = makeServer();
    const struct kevent record = {0, EVFILT_READ, EV_ADD | EV_ERROR, 0, ENOMEM, server.get()};
    server->kevent(&record);
    EXPECT_TRUE(
        isLogged(LogLevel::kError, "<" + pointerText(server.get()) + ">: cannot accept inet connection"));
}

TEST_F(RvKQueueTCPServerListen, IsLogged) {
    address = loopback(freePort());
    const auto server = loop->createTCPServer(asSockaddr(address));
    ASSERT_TRUE(server);
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<" + pointerText(server.get()) + ">: TCP Server (127.0.0.1:" +
                                               std::to_string(ntohs(address.sin_port)) + ") created"));
    EXPECT_EQ(FD_CLOEXEC, fcntl(socketOf(*server), F_GETFD));
}

TEST_F(RvKQueueTCPServerListen, MayReuseItsAddressAndItsPort) {
    const auto server = makeServer();
    for (const int option : {SO_REUSEADDR, SO_REUSEPORT}) {
        int isSet = 0;
        socklen_t length = sizeof isSet;
        EXPECT_EQ(0, getsockopt(socketOf(*server), SOL_SOCKET, option, &isSet, &length));
        EXPECT_NE(0, isSet) << option;
    }
}

TEST_F(RvKQueueTCPServerListen, AHundredAndTwentyEightConnectionsMayWait) {
    const auto server = makeServer();
    struct tcp_info info = {};
    socklen_t length = sizeof info;
    ASSERT_EQ(0, getsockopt(socketOf(*server), IPPROTO_TCP, TCP_INFO, &info, &length));
    EXPECT_EQ(128U, info.tcpi_sacked);  // of a listening socket, its backlog
}

TEST_F(RvKQueueTCPServerListen, SharesItsPortWithOthersThatShareIt) {
    const auto server = makeServer();
    EXPECT_TRUE(loop->createTCPServer(asSockaddr(address)));
}

TEST_F(RvKQueueTCPServerListen, APortThatIsNotSharedFailsAndClosesItsSocket) {
    const int owner = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t length = sizeof address;
    ASSERT_EQ(0, bind(owner, asSockaddr(address), length));
    ASSERT_EQ(0, listen(owner, 1));
    ASSERT_EQ(0, getsockname(owner, reinterpret_cast<struct sockaddr*>(&address), &length));
    const int before = openDescriptorCount();
    EXPECT_FALSE(loop->createTCPServer(asSockaddr(address)));
    EXPECT_EQ(1, countLogged(LogLevel::kError, kFailure));
    EXPECT_EQ(before, openDescriptorCount());
    EXPECT_EQ(0, close(owner));
}

TEST_F(RvKQueueTCPServerListen, AnUnknownFamilyFails) {
    struct sockaddr unknown = {};
    unknown.sa_family = 250;
    EXPECT_FALSE(loop->createTCPServer(&unknown));
    EXPECT_EQ(1, countLogged(LogLevel::kError, kFailure));
}

TEST_F(RvKQueueTCPServerListen, StopClosesTheSocket) {
    const auto server = makeServer();
    const int sock = socketOf(*server);
    loop->startObject(server, recorder.block());
    loop->stopObject(server);
    EXPECT_TRUE(waitUntil([&] { return !isOpen(sock); }));
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<" + pointerText(server.get()) + ">: stop"));
}

TEST_F(RvKQueueTCPServerAccept, TheBlockSeesThePeersAddress) {
    const auto server = makeServer();
    loop->startObject(server, recorder.block());
    EXPECT_EQ(0u, recorder.events().size());
    const int client = connectClient();
    struct sockaddr_in own = {};
    socklen_t length = sizeof own;
    ASSERT_EQ(0, getsockname(client, reinterpret_cast<struct sockaddr*>(&own), &length));
    ASSERT_TRUE(recorder.waitFor(kEventData));
    const auto event = recorder.events()[0];
    EXPECT_EQ(136u, event.size);
    EXPECT_EQ(server.get(), event.object);
    EXPECT_FALSE(event.hasDropSize);
    const AcceptedConnection accepted = acceptedIn(event);
    struct sockaddr_in peer = {};
    std::memcpy(&peer, &accepted.peer.address, sizeof peer);
    EXPECT_EQ(AF_INET, peer.sin_family);
    EXPECT_EQ(own.sin_port, peer.sin_port);
    EXPECT_EQ(own.sin_addr.s_addr, peer.sin_addr.s_addr);
    EXPECT_EQ(FD_CLOEXEC, fcntl(accepted.descriptor, F_GETFD));
    EXPECT_EQ(0, close(accepted.descriptor));
    EXPECT_EQ(0, close(client));
}

TEST_F(RvKQueueTCPServerAccept, TheBlockSeesAnIPv6PeersWholeAddress) {
    struct sockaddr_in6 address6 = {};
    address6.sin6_family = AF_INET6;
    address6.sin6_addr = in6addr_loopback;
    auto* const generic = reinterpret_cast<struct sockaddr*>(&address6);
    const int client = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (client == -1) GTEST_SKIP() << "this system has no IPv6";
    if (bind(client, generic, sizeof address6) == -1) {
        EXPECT_EQ(0, close(client));
        GTEST_SKIP() << "this system has no IPv6 loopback";
    }
    const auto server = loop->createTCPServer(generic);
    ASSERT_TRUE(server);
    socklen_t length = sizeof address6;
    ASSERT_EQ(0, getsockname(socketOf(*server), generic, &length));
    loop->startObject(server, recorder.block());
    ASSERT_EQ(0, connect(client, generic, length));
    struct sockaddr_storage own = {};
    length = sizeof own;
    ASSERT_EQ(0, getsockname(client, reinterpret_cast<struct sockaddr*>(&own), &length));
    EXPECT_EQ(28u, length);
    ASSERT_TRUE(recorder.waitFor(kEventData));
    const AcceptedConnection accepted = acceptedIn(recorder.events()[0]);
    EXPECT_EQ(0, std::memcmp(&own, &accepted.peer.address, sizeof own));  // what lies behind is zero
    EXPECT_EQ(0, close(accepted.descriptor));
    EXPECT_EQ(0, close(client));
}

TEST_F(RvKQueueTCPServerAccept, OtherFiltersAreIgnored) {
    const auto server = makeServer();
    const int client = connectClient();
    struct kevent record;
    server->initReadEvent(&record, EV_ADD);
    expectOtherFiltersAreIgnored(server.get(), record);
    EXPECT_EQ(0, close(client));
}

TEST_F(RvKQueueTCPServerAccept, ARefusedConnectionIsClosed) {
    const auto server = makeServer();
    loop->startObject(server, recorder.block([](const RecordedEvent&, std::uint64_t*) { return false; }));
    const int client = connectClient();
    EXPECT_EQ("", readExactly(client, 1));
    EXPECT_EQ(0, close(client));
}

TEST_F(RvKQueueTCPServerAccept, ClientAndServerOnOneLoop) {
    const auto server = makeServer();
    loop->startObject(server, recorder.block([this](const RecordedEvent& event, std::uint64_t*) {
        const auto connection = loop->createStreamSocket(acceptedIn(event).descriptor, true);
        loop->startObject(connection, [this](RvKQueueEventProtocol* object, const char* buffer,
                                             std::uint64_t size, std::uint64_t*, std::int32_t code) {
            if (code == kEventData) loop->write(object, buffer, size);
            return true;
        });
        return true;
    }));
    Recorder client;
    const auto endpoint = loop->createTCPClient(asSockaddr(address));
    ASSERT_TRUE(endpoint);
    loop->startObject(endpoint, client.block());
    loop->write(endpoint, "echo", 4);
    ASSERT_TRUE(client.waitForBytes(4));
    EXPECT_EQ("echo", client.received());
}

}  // namespace
