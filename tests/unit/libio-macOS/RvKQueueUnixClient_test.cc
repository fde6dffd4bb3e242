#include "libio-macOS/RvKQueueUnixClient.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "libio-macOS/RvKQueueStreamSocket.h"
#include "libio-macOS/RvKQueueUnixServer.h"
#include "platform/kevent.h"
#include "unit/libio-macOS/support/engine_fixture.h"

namespace {

constexpr const char* kFailure = "cannot initialize unix socket object";

class RvKQueueUnixClientConnect : public EngineTest {
  protected:
    TemporaryDirectory directory;
    Recorder recorder;
};

int listenAt(const std::string& path, int backlog) {
    const int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    EXPECT_EQ(0, bind(sock, reinterpret_cast<const struct sockaddr*>(&address), sizeof address));
    EXPECT_TRUE(backlog < 0 || listen(sock, backlog) == 0) << path;
    return sock;
}

int descriptorOf(RvKQueueUnixClient& client) {
    struct kevent record;
    client.initReadEvent(&record, EV_ADD);
    return static_cast<int>(record.ident);
}

TEST_F(RvKQueueUnixClientConnect, AStandingConnectionIsEventZero) {
    const std::string path = directory.path("s");
    const int listener = listenAt(path, 5);
    const auto client = loop->createUnixClient(path.c_str());
    ASSERT_TRUE(client);
    EXPECT_TRUE(
        isLogged(LogLevel::kDebug, "<" + pointerText(client.get()) + ">: unix(" + path + ") created"));
    loop->startObject(client, recorder.block());
    ASSERT_EQ(1, recorder.count(kEventConnected)) << "the connection stands at once";
    EXPECT_EQ(std::this_thread::get_id(), recorder.events()[0].thread);
    const int peer = accept(listener, nullptr, nullptr);
    loop->write(client, "question", 8);
    EXPECT_EQ("question", readExactly(peer, 8));
    writeAll(peer, "answer");
    ASSERT_TRUE(recorder.waitForBytes(6));
    EXPECT_EQ("answer", recorder.received());
    EXPECT_EQ(0, close(peer));
    EXPECT_EQ(0, close(listener));
}

TEST_F(RvKQueueUnixClientConnect, SocketIsBlockingAfterwards) {
    const std::string path = directory.path("s");
    const int listener = listenAt(path, 5);
    const auto client = loop->createUnixClient(path.c_str());
    ASSERT_TRUE(client);
    EXPECT_EQ(0, fcntl(descriptorOf(*client), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(descriptorOf(*client), F_GETFD));
    EXPECT_EQ(0, close(listener));
}

// A row is a place where a connection cannot be made; each must be event 3 and not a failed creation.
class RvKQueueUnixClientRefused : public RvKQueueUnixClientConnect {
  protected:
    void expectFailedAttempt(const std::string& path) {
        const auto client = loop->createUnixClient(path.c_str());
        ASSERT_TRUE(client);
        EXPECT_EQ(FD_CLOEXEC, fcntl(descriptorOf(*client), F_GETFD));
        loop->startObject(client, recorder.block());
        ASSERT_TRUE(recorder.waitFor(kEventConnectFailed));
        const auto failed = recorder.events();
        for (const RecordedEvent& event : failed) EXPECT_EQ(kEventConnectFailed, event.code);
        EXPECT_EQ(client.get(), failed[0].object);
        EXPECT_FALSE(failed[0].hasBuffer);
        EXPECT_FALSE(failed[0].hasDropSize);
        EXPECT_EQ(0u, failed[0].size);
        EXPECT_NE(std::this_thread::get_id(), failed[0].thread);
        EXPECT_FALSE(isLogged(LogLevel::kError, kFailure));
    }
};

TEST_F(RvKQueueUnixClientRefused, NoSuchFile) {
    expectFailedAttempt(directory.path("nothing"));
}

TEST_F(RvKQueueUnixClientRefused, NoSuchDirectory) {
    expectFailedAttempt(directory.path("no/such/place"));
}

TEST_F(RvKQueueUnixClientRefused, NobodyListens) {
    const int bound = listenAt(directory.path("bound"), -1);
    expectFailedAttempt(directory.path("bound"));
    EXPECT_EQ(0, close(bound));
}

TEST_F(RvKQueueUnixClientRefused, AStaleSocketFile) {
    EXPECT_EQ(0, close(listenAt(directory.path("stale"), 5)));
    expectFailedAttempt(directory.path("stale"));
}

TEST_F(RvKQueueUnixClientRefused, ARegularFile) {
    const std::string path = directory.path("file");
    EXPECT_EQ(0, close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)));
    expectFailedAttempt(path);
}

TEST_F(RvKQueueUnixClientRefused, AFullBacklog) {
    const std::string path = directory.path("full");
    const int listener = listenAt(path, 0);
    const auto first = loop->createUnixClient(path.c_str());
    ASSERT_TRUE(first);
    expectFailedAttempt(path);
    EXPECT_EQ(0, close(listener));
}

TEST_F(RvKQueueUnixClientRefused, ADatagramSocket) {
    const std::string path = directory.path("datagram");
    const int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    ASSERT_EQ(0, bind(sock, reinterpret_cast<const struct sockaddr*>(&address), sizeof address));
    expectFailedAttempt(path);
    EXPECT_EQ(0, close(sock));
}

TEST_F(RvKQueueUnixClientRefused, AnEmptyPath) {
    expectFailedAttempt("");
}

TEST_F(RvKQueueUnixClientRefused, ComesAgainUntilRetired) {
    const auto client = loop->createUnixClient(directory.path("nothing").c_str());
    ASSERT_TRUE(client);
    loop->startObject(client, recorder.block());
    ASSERT_TRUE(recorder.waitFor(kEventConnectFailed, 3));
    loop->stopObject(client);
    waitForTurn();
    const int afterwards = recorder.count(kEventConnectFailed);
    waitForTurn();
    waitForTurn();
    EXPECT_EQ(afterwards, recorder.count(kEventConnectFailed));
}

TEST_F(RvKQueueUnixClientRefused, OutputQueuedBeforehandIsNeverAnError) {
    const auto client = loop->createUnixClient(directory.path("nothing").c_str());
    ASSERT_TRUE(client);
    loop->write(client, "lost", 4);
    loop->startObject(client, recorder.block());
    ASSERT_TRUE(recorder.waitFor(kEventConnectFailed, 2));
    EXPECT_EQ(0, recorder.count(kEventClosed));
}

TEST_F(RvKQueueUnixClientConnect, APathOf103BytesIsAccepted) {
    const std::string path = directory.pathOfLength(103);
    const int listener = listenAt(path, 5);
    const auto client = loop->createUnixClient(path.c_str());
    ASSERT_TRUE(client);
    loop->startObject(client, recorder.block());
    EXPECT_TRUE(recorder.waitFor(kEventConnected));
    EXPECT_EQ(0, close(listener));
}

TEST_F(RvKQueueUnixClientConnect, APathOf104BytesFailsAtCreation) {
    const int before = openDescriptorCount();
    EXPECT_FALSE(loop->createUnixClient(directory.pathOfLength(104).c_str()));
    EXPECT_FALSE(loop->createUnixClient(std::string(5000, 'x').c_str()));
    EXPECT_EQ(2, countLogged(LogLevel::kError, kFailure));
    EXPECT_EQ(before, openDescriptorCount());
}

TEST_F(RvKQueueUnixClientConnect, WhatFailsAtCreationIsStoppedFirst) {
    waitForTurn();  // its thread has no more to say
    EXPECT_FALSE(loop->createUnixClient(directory.pathOfLength(104).c_str()));
    expectLoggedStopAndThen(kFailure);
}

TEST_F(RvKQueueUnixClientConnect, OutputQueuedBeforehandIsSent) {
    const std::string path = directory.path("s");
    const int listener = listenAt(path, 5);
    const auto client = loop->createUnixClient(path.c_str());
    ASSERT_TRUE(client);
    loop->write(client, "early", 5);
    loop->startObject(client, recorder.block());
    const int peer = accept(listener, nullptr, nullptr);
    EXPECT_EQ("early", readExactly(peer, 5));
    EXPECT_EQ(0, close(peer));
    EXPECT_EQ(0, close(listener));
}

}  // namespace
