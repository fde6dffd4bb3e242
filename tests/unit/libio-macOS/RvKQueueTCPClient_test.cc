#include "libio-macOS/RvKQueueTCPClient.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "libio-macOS/RvKQueueTCPServer.h"
#include "platform/kevent.h"
#include "unit/libio-macOS/support/engine_fixture.h"

namespace {

constexpr const char* kFailure = "cannot initialize TCP socket object";

class RvKQueueTCPClientConnect : public EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        address = loopback(0);
        socklen_t length = sizeof address;
        ASSERT_EQ(0, bind(listener, asSockaddr(address), length));
        ASSERT_EQ(0, listen(listener, 5));
        ASSERT_EQ(0, getsockname(listener, reinterpret_cast<struct sockaddr*>(&address), &length));
    }
    void TearDown() override {
        if (listener != -1) closeListener();
        EngineTest::TearDown();
    }
    void closeListener() {
        ASSERT_EQ(0, close(listener));
        listener = -1;
    }

    int listener = -1;
    struct sockaddr_in address = {};
    Recorder recorder;
};

TEST_F(RvKQueueTCPClientConnect, ConnectsInTheBackground) {
    const auto client = loop->createTCPClient(asSockaddr(address));
    ASSERT_TRUE(client);
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<" + pointerText(client.get()) + ">: TCP Client (127.0.0.1:" +
                                               std::to_string(ntohs(address.sin_port)) + ") created"));
    struct kevent record;
    client->initReadEvent(&record, EV_ADD);
    EXPECT_EQ(0, fcntl(static_cast<int>(record.ident), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(static_cast<int>(record.ident), F_GETFD));
    loop->startObject(client, recorder.block());
    ASSERT_TRUE(recorder.waitFor(kEventConnected));
    const auto connected = recorder.eventsWith(kEventConnected);
    EXPECT_FALSE(connected[0].hasBuffer);
    EXPECT_FALSE(connected[0].hasDropSize);
    const int peer = accept(listener, nullptr, nullptr);
    loop->write(client, "question", 8);
    EXPECT_EQ("question", readExactly(peer, 8));
    writeAll(peer, "answer");
    ASSERT_TRUE(recorder.waitForBytes(6));
    EXPECT_EQ("answer", recorder.received());
    EXPECT_EQ(1, recorder.count(kEventConnected));
    EXPECT_EQ(0, close(peer));
}

TEST_F(RvKQueueTCPClientConnect, OutputQueuedBeforehandIsSentAfterwards) {
    const auto client = loop->createTCPClient(asSockaddr(address));
    ASSERT_TRUE(client);
    loop->write(client, "early", 5);
    loop->startObject(client, recorder.block());
    const int peer = accept(listener, nullptr, nullptr);
    EXPECT_EQ("early", readExactly(peer, 5));
    EXPECT_EQ(0, close(peer));
}

TEST_F(RvKQueueTCPClientConnect, ARefusedConnectionIsEventThree) {
    closeListener();
    const auto client = loop->createTCPClient(asSockaddr(address));
    ASSERT_TRUE(client);
    loop->startObject(client, recorder.block());
    ASSERT_TRUE(recorder.waitFor(kEventConnectFailed));
    const auto failed = recorder.eventsWith(kEventConnectFailed);
    EXPECT_FALSE(failed[0].hasBuffer);
    EXPECT_FALSE(failed[0].hasDropSize);
    EXPECT_EQ(0u, failed[0].size);
    EXPECT_EQ(0, recorder.count(kEventConnected));
    EXPECT_EQ(0, recorder.count(kEventClosed));
}

TEST_F(RvKQueueTCPClientConnect, AResetIsEventTwo) {
    const auto client = loop->createTCPClient(asSockaddr(address));
    ASSERT_TRUE(client);
    loop->startObject(client, recorder.block());
    const int peer = accept(listener, nullptr, nullptr);
    ASSERT_TRUE(recorder.waitFor(kEventConnected));
    const struct linger reset = {1, 0};
    ASSERT_EQ(0, setsockopt(peer, SOL_SOCKET, SO_LINGER, &reset, sizeof reset));
    EXPECT_EQ(0, close(peer));
    EXPECT_TRUE(recorder.waitFor(kEventClosed));
}

TEST_F(RvKQueueTCPClientConnect, AnAddressThatCannotBeTriedFailsAtCreation) {
    struct sockaddr_in broadcast = loopback(9);
    broadcast.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    const int before = openDescriptorCount();
    EXPECT_FALSE(loop->createTCPClient(asSockaddr(broadcast)));
    EXPECT_EQ(1, countLogged(LogLevel::kError, kFailure));
    EXPECT_EQ(before, openDescriptorCount());
}

TEST_F(RvKQueueTCPClientConnect, WhatFailsAtCreationIsStoppedFirst) {
    struct sockaddr_in broadcast = loopback(9);
    broadcast.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    waitForTurn();  // its thread has no more to say
    EXPECT_FALSE(loop->createTCPClient(asSockaddr(broadcast)));
    expectLoggedStopAndThen(kFailure);
}

TEST_F(RvKQueueTCPClientConnect, AnUnknownFamilyFailsAtCreation) {
    struct sockaddr unknown = {};
    unknown.sa_family = 250;
    EXPECT_FALSE(loop->createTCPClient(&unknown));
    EXPECT_EQ(1, countLogged(LogLevel::kError, kFailure));
}

TEST_F(RvKQueueTCPClientConnect, SpeaksIPv6) {
    const int listener6 = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener6 == -1) GTEST_SKIP() << "this system has no IPv6";
    struct sockaddr_in6 address6 = {};
    address6.sin6_family = AF_INET6;
    address6.sin6_addr = in6addr_loopback;
    socklen_t length = sizeof address6;
    auto* const generic = reinterpret_cast<struct sockaddr*>(&address6);
    if (bind(listener6, generic, length) == -1) {
        EXPECT_EQ(0, close(listener6));
        GTEST_SKIP() << "this system has no IPv6 loopback";
    }
    ASSERT_EQ(0, listen(listener6, 5));
    ASSERT_EQ(0, getsockname(listener6, generic, &length));
    const auto client = loop->createTCPClient(generic);
    ASSERT_TRUE(client);
    loop->startObject(client, recorder.block());
    EXPECT_TRUE(recorder.waitFor(kEventConnected));
    EXPECT_EQ(0, close(listener6));
}

}  // namespace
