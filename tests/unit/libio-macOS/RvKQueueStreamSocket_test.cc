#include "libio-macOS/RvKQueueStreamSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "platform/kevent.h"
#include "unit/libio-macOS/support/engine_fixture.h"

namespace {

constexpr std::uint16_t kArmed = EV_ADD | EV_ENABLE;

class StreamSocketOnIdleLoop : public IdleLoopTest {
  protected:
    void SetUp() override {
        IdleLoopTest::SetUp();
        endpoint = loop->createStreamSocket(pair.release(0), true);
        sock = -1;
        struct kevent change;
        endpoint->initReadEvent(&change, kArmed);
        sock = static_cast<int>(change.ident);
    }
    void TearDown() override { endpoint->stop(); }

    void start(Recorder::Reaction reaction = {}) {
        loop->startObject(endpoint, recorder.block(std::move(reaction)));
    }
    void reportRead(std::int64_t data, int flags = 0) { report(EVFILT_READ, data, flags); }
    void reportWrite(std::int64_t data, int flags = 0) { report(EVFILT_WRITE, data, flags); }

    DescriptorPair pair = DescriptorPair::socketPair();
    std::shared_ptr<RvKQueueStreamSocket> endpoint;
    int sock = -1;
    Recorder recorder;

  private:
    void report(int filter, std::int64_t data, int flags) {
        const struct kevent record = {static_cast<std::uint64_t>(sock),
                                      static_cast<std::int16_t>(filter),
                                      static_cast<std::uint16_t>(kArmed | flags),
                                      0,
                                      data,
                                      endpoint.get()};
        endpoint->kevent(&record);
    }
};

// An endpoint whose connection is still to be made, as the clients have it.
class ConnectingSocket : public RvKQueueStreamSocket {
  public:
    explicit ConnectingSocket(int unconnected)
        : RvKQueueStreamSocket(unconnected, false, false, std::weak_ptr<RvKQueue>(), OsLog()) {}
    using RvKQueueStreamSocket::connectTo;

    void report(int filter, std::int64_t data, int flags = 0) {
        const struct kevent record = {
            0,    static_cast<std::int16_t>(filter),        static_cast<std::uint16_t>(kArmed | flags), 0,
            data, static_cast<RvKQueueEventProtocol*>(this)};
        kevent(&record);
    }
};

TEST(RvKQueueStreamSocketConnect, ADescriptorWhoseModeCannotBeReadIsNotTried) {
    const struct sockaddr_in address = loopback(1);
    EXPECT_FALSE(ConnectingSocket(-1).connectTo(asSockaddr(address)));
}

TEST(RvKQueueStreamSocketConnect, ADescriptorWhoseModeCannotBeSetIsNotTried) {
    const struct sockaddr_in address = loopback(1);
    const int pathOnly = open("/dev/null", O_PATH | O_CLOEXEC);
    ASSERT_NE(-1, fcntl(pathOnly, F_GETFL));
    EXPECT_FALSE(ConnectingSocket(pathOnly).connectTo(asSockaddr(address)));
    EXPECT_EQ(0, close(pathOnly));
}

TEST(RvKQueueStreamSocketConnect, TheSocketIsBlockingAfterwardsWhateverItWas) {
    const struct sockaddr_in address = loopback(freePort());
    for (const int mode : {0, static_cast<int>(SOCK_NONBLOCK)}) {
        const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | mode, 0);
        EXPECT_TRUE(ConnectingSocket(sock).connectTo(asSockaddr(address)));
        EXPECT_EQ(0, fcntl(sock, F_GETFL) & O_NONBLOCK);
        EXPECT_EQ(0, close(sock));
    }
}

TEST(RvKQueueStreamSocketConnect, InputIsIgnoredUntilTheConnectionStands) {
    DescriptorPair pair = DescriptorPair::socketPair();
    ConnectingSocket endpoint(pair[0]);
    Recorder recorder;
    endpoint.enableOnData(recorder.block());
    writeAll(pair[1], "abc");
    endpoint.report(EVFILT_READ, 3);
    EXPECT_EQ(0u, recorder.events().size());
    endpoint.report(EVFILT_WRITE, 4096);
    endpoint.report(EVFILT_READ, 3);
    ASSERT_EQ(2u, recorder.events().size());
    EXPECT_EQ(kEventConnected, recorder.events()[0].code);
    EXPECT_FALSE(recorder.events()[0].hasDropSize);
    EXPECT_EQ("abc", recorder.events()[1].bytes);
}

TEST(RvKQueueStreamSocketConnect, AHangUpIsAFailedConnection) {
    DescriptorPair pair = DescriptorPair::socketPair();
    ConnectingSocket endpoint(pair[0]);
    Recorder recorder;
    endpoint.enableOnData(recorder.block());
    endpoint.report(EVFILT_WRITE, 4096, EV_EOF);
    endpoint.report(EVFILT_WRITE, 4096, EV_EOF);
    ASSERT_EQ(2u, recorder.events().size());
    for (const RecordedEvent& event : recorder.events()) {
        EXPECT_EQ(kEventConnectFailed, event.code);
        EXPECT_FALSE(event.hasBuffer);
        EXPECT_FALSE(event.hasDropSize);
        EXPECT_EQ(0u, event.size);
    }
}

using RvKQueueStreamSocketCreation = StreamSocketOnIdleLoop;
using RvKQueueStreamSocketInput = StreamSocketOnIdleLoop;
using RvKQueueStreamSocketOutput = StreamSocketOnIdleLoop;
using RvKQueueStreamSocketRun = EngineTest;

TEST_F(RvKQueueStreamSocketCreation, IsLogged) {
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<" + pointerText(endpoint.get()) + ">: stream socket(" +
                                               std::to_string(sock) + ") created"));
}

TEST_F(RvKQueueStreamSocketCreation, RecordsNameSocketFilterAndEndpoint) {
    struct kevent change;
    endpoint->initReadEvent(&change, EV_DELETE);
    EXPECT_EQ(static_cast<std::uint64_t>(sock), change.ident);
    EXPECT_EQ(EVFILT_READ, change.filter);
    EXPECT_EQ(EV_DELETE, change.flags);
    EXPECT_EQ(0u, change.fflags);
    EXPECT_EQ(0, change.data);
    EXPECT_EQ(static_cast<RvKQueueEventProtocol*>(endpoint.get()), change.udata);
    endpoint->initWriteEvent(&change, kArmed);
    EXPECT_EQ(EVFILT_WRITE, change.filter);
    EXPECT_EQ(kArmed, change.flags);
}

TEST_F(RvKQueueStreamSocketCreation, EventZeroComesInsideStartObject) {
    start();
    const auto events = recorder.events();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(kEventConnected, events[0].code);
    EXPECT_EQ(endpoint.get(), events[0].object);
    EXPECT_FALSE(events[0].hasBuffer);
    EXPECT_FALSE(events[0].hasDropSize);
    EXPECT_EQ(0u, events[0].size);
    EXPECT_EQ(std::this_thread::get_id(), events[0].thread);
}

TEST_F(RvKQueueStreamSocketInput, AnUntouchedDropSizeConsumesEverything) {
    start();
    writeAll(pair[1], "one");
    reportRead(3);
    writeAll(pair[1], "two");
    reportRead(3);
    const auto data = recorder.eventsWith(kEventData);
    ASSERT_EQ(2u, data.size());
    EXPECT_EQ("one", data[0].bytes);
    EXPECT_EQ(3u, data[0].initialDropSize);
    EXPECT_EQ("two", data[1].bytes);
}

TEST_F(RvKQueueStreamSocketInput, ADropSizeOfZeroKeepsEverything) {
    start([](const RecordedEvent& event, std::uint64_t* dropSize) {
        if (event.code == kEventData && event.bytes == "one") *dropSize = 0;
        return true;
    });
    writeAll(pair[1], "one");
    reportRead(3);
    writeAll(pair[1], "two");
    reportRead(3);
    writeAll(pair[1], "three");
    reportRead(5);
    const auto data = recorder.eventsWith(kEventData);
    ASSERT_EQ(3u, data.size());
    EXPECT_EQ("onetwo", data[1].bytes);
    EXPECT_EQ("three", data[2].bytes);
}

TEST_F(RvKQueueStreamSocketInput, APartialDropSizeKeepsTheRest) {
    start([](const RecordedEvent& event, std::uint64_t* dropSize) {
        if (event.code == kEventData) *dropSize = 2;
        return false;  // the result does not matter here
    });
    writeAll(pair[1], "abcde");
    reportRead(5);
    writeAll(pair[1], "f");
    reportRead(1);
    const auto data = recorder.eventsWith(kEventData);
    ASSERT_EQ(2u, data.size());
    EXPECT_EQ("cdef", data[1].bytes);
}

TEST_F(RvKQueueStreamSocketInput, ADropSizeBeyondTheEndDropsWhatIsThere) {
    start([](const RecordedEvent&, std::uint64_t* dropSize) {
        if (dropSize != nullptr) *dropSize = 1000;
        return true;
    });
    writeAll(pair[1], "abc");
    reportRead(3);
    writeAll(pair[1], "d");
    reportRead(1);
    EXPECT_EQ("abcd", recorder.received());
}

TEST_F(RvKQueueStreamSocketInput, ShortReadKeepsLength) {
    start();
    writeAll(pair[1], "abc");
    reportRead(7);
    const auto data = recorder.eventsWith(kEventData);
    ASSERT_EQ(1u, data.size());
    EXPECT_EQ(std::string("abc\0\0\0\0", 7), data[0].bytes);
    EXPECT_EQ(7u, data[0].size);
}

TEST_F(RvKQueueStreamSocketInput, WhatComesWhileTheBlockIsEmptyIsNotKept) {
    endpoint->enableOnData({});
    writeAll(pair[1], "unseen");
    reportRead(6);
    start();
    writeAll(pair[1], "seen");
    reportRead(4);
    EXPECT_EQ("seen", recorder.received());
}

TEST_F(RvKQueueStreamSocketInput, DataOfZeroIsTheEnd) {
    start();
    reportRead(0, EV_EOF);
    const auto closed = recorder.eventsWith(kEventClosed);
    ASSERT_EQ(1u, closed.size());
    EXPECT_TRUE(closed[0].hasDropSize);
    EXPECT_EQ(0u, closed[0].size);
}

TEST_F(RvKQueueStreamSocketInput, TheEndOffersWhatWasKept) {
    start([](const RecordedEvent& event, std::uint64_t* dropSize) {
        if (event.code == kEventData) *dropSize = 1;
        return true;
    });
    writeAll(pair[1], "abc");
    reportRead(3);
    pair.close(1);
    reportRead(0, EV_EOF);
    reportRead(0, EV_EOF);
    const auto closed = recorder.eventsWith(kEventClosed);
    ASSERT_EQ(2u, closed.size());
    EXPECT_EQ("bc", closed[0].bytes);
    EXPECT_EQ(2u, closed[0].initialDropSize);
    EXPECT_EQ("", closed[1].bytes);
}

TEST_F(RvKQueueStreamSocketInput, AReadErrorIsEventTwo) {
    start();
    // A write-only file in the socket's place: read fails with EBADF.
    const int unreadable = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_NE(-1, dup2(unreadable, sock));
    reportRead(9);
    EXPECT_EQ(1, recorder.count(kEventClosed));
    EXPECT_EQ(0, recorder.count(kEventData));
    EXPECT_EQ(0, close(unreadable));
}

// The error number is not taken for a number of bytes.
TEST_F(RvKQueueStreamSocketInput, AFilterThatCannotBeArmedIsEventTwo) {
    start();
    writeAll(pair[1], "a message that has more bytes than the error has units");
    reportRead(ENOMEM, EV_ERROR);
    EXPECT_EQ(1, recorder.count(kEventClosed));
    EXPECT_EQ(0, recorder.count(kEventData));
}

// What is left uncounted is what a read that does not wait finds.
TEST_F(RvKQueueStreamSocketInput, AnUncountedEventWithoutInputIsNone) {
    start();
    reportRead(KEVENT_UNCOUNTED);
    EXPECT_EQ(1u, recorder.events().size());
    writeAll(pair[1], "a");
    reportRead(KEVENT_UNCOUNTED);
    reportRead(KEVENT_UNCOUNTED);
    EXPECT_EQ("a", recorder.received());
    EXPECT_EQ(2u, recorder.events().size());
    pair.close(1);
    reportRead(KEVENT_UNCOUNTED);
    EXPECT_EQ(1, recorder.count(kEventClosed));
}

TEST_F(RvKQueueStreamSocketInput, AnUncountedReadErrorIsEventTwo) {
    start();
    const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_NE(-1, dup2(file, sock));  // which is no socket
    reportRead(KEVENT_UNCOUNTED);
    EXPECT_EQ(1, recorder.count(kEventClosed));
    EXPECT_EQ(0, recorder.count(kEventData));
    EXPECT_EQ(0, close(file));
}

TEST_F(RvKQueueStreamSocketInput, AnUncountedEventOffersAllThatHasCome) {
    start();
    for (const std::size_t size : {1U, 2U, 2047U, 2048U, 2049U, 5000U, 100'000U}) {
        const std::string bytes = patternBytes(size, static_cast<unsigned>(size));
        writeAll(pair[1], bytes);
        reportRead(KEVENT_UNCOUNTED);
        EXPECT_TRUE(recorder.eventsWith(kEventData).back().bytes == bytes) << size;
    }
    EXPECT_EQ(7, recorder.count(kEventData));
    EXPECT_EQ(0, recorder.count(kEventClosed));
}

/// The second message fills the room that the first has left, large as that is.
TEST_F(RvKQueueStreamSocketInput, AnUncountedEventOffersAllOfALargeMessage) {
    start();
    const int room = 200'000;  // the system grants twice as much
    ASSERT_EQ(0, setsockopt(pair[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room));
    for (const std::size_t size : {140'000U, 180'000U}) {
        const std::string bytes = patternBytes(size, static_cast<unsigned>(size));
        writeAll(pair[1], bytes);
        reportRead(KEVENT_UNCOUNTED);
        EXPECT_TRUE(recorder.eventsWith(kEventData).back().bytes == bytes) << size;
    }
    EXPECT_EQ(2, recorder.count(kEventData));
}

TEST_F(RvKQueueStreamSocketInput, OtherFiltersAreIgnored) {
    start();
    const struct kevent record = {0, EVFILT_TIMER, kArmed, 0, 1, endpoint.get()};
    endpoint->kevent(&record);
    EXPECT_EQ(1u, recorder.events().size());
}

TEST_F(RvKQueueStreamSocketInput, AfterStopNoBlockIsCalled) {
    start();
    writeAll(pair[1], "abc");
    const int kept = dup(sock);
    endpoint->stop();
    ASSERT_EQ(sock, dup2(kept, sock));
    reportRead(3);
    reportRead(0);
    EXPECT_EQ(1u, recorder.events().size());
    EXPECT_EQ(0, close(kept));
}

TEST_F(RvKQueueStreamSocketOutput, OneWriteOfAtMostTheRoomReported) {
    start();
    loop->write(endpoint, "abcdef", 6);
    reportWrite(4);
    EXPECT_EQ("abcd", readExactly(pair[1], 4));
    reportWrite(100);
    EXPECT_EQ("ef", readExactly(pair[1], 2));
    EXPECT_EQ(0, recorder.count(kEventClosed));
}

TEST_F(RvKQueueStreamSocketOutput, NothingQueuedWritesNothingAndIsNoError) {
    start();
    reportWrite(100);
    loop->write(endpoint, "", 0);
    reportWrite(100);
    EXPECT_EQ(1u, recorder.events().size());
}

TEST_F(RvKQueueStreamSocketOutput, NoRoomWritesNothingAndIsNoError) {
    start();
    loop->write(endpoint, "abc", 3);
    reportWrite(0);
    EXPECT_EQ(0, recorder.count(kEventClosed));
    reportWrite(3);
    EXPECT_EQ("abc", readExactly(pair[1], 3));
}

TEST_F(RvKQueueStreamSocketOutput, AWriteErrorIsEventTwoAndIsTriedAgain) {
    start([](const RecordedEvent& event, std::uint64_t* dropSize) {
        if (event.code == kEventData) *dropSize = 0;
        return true;
    });
    writeAll(pair[1], "kept");
    reportRead(4);
    loop->write(endpoint, "abc", 3);
    pair.close(1);
    reportWrite(100, EV_EOF);
    reportWrite(100, EV_EOF);
    const auto closed = recorder.eventsWith(kEventClosed);
    ASSERT_EQ(2u, closed.size());
    EXPECT_EQ("kept", closed[0].bytes);
}

TEST_F(RvKQueueStreamSocketOutput, AWriteErrorOfASingleByteIsEventTwo) {
    start();
    loop->write(endpoint, "a", 1);
    pair.close(1);
    reportWrite(100, EV_EOF);
    EXPECT_EQ(1, recorder.count(kEventClosed));
}

TEST_F(RvKQueueStreamSocketOutput, WhatIsQueuedLaterGoesOutInTheSameWrite) {
    start();
    loop->write(endpoint, "abcdef", 6);
    reportWrite(4);
    loop->write(endpoint, "gh", 2);
    reportWrite(100);
    char bytes[100];
    EXPECT_EQ(8, recv(pair[1], bytes, sizeof bytes, MSG_DONTWAIT));
    EXPECT_EQ("abcdefgh", std::string(bytes, 8));
}

// What is left uncounted is what a write that does not wait gets rid of.
TEST_F(RvKQueueStreamSocketOutput, AnUncountedEventWithoutRoomIsNone) {
    start();
    const std::string block(4096, 'x');
    while (send(sock, block.data(), block.size(), MSG_DONTWAIT) != -1) {
    }
    loop->write(endpoint, "a", 1);
    reportWrite(KEVENT_UNCOUNTED);
    loop->write(endpoint, "bc", 2);
    reportWrite(KEVENT_UNCOUNTED);
    EXPECT_EQ(1u, recorder.events().size());
    char bytes[4096];
    std::size_t last = 0;
    while (recv(pair[1], bytes, sizeof bytes, MSG_DONTWAIT) > 0) ++last;
    EXPECT_GT(last, 0u);
    reportWrite(KEVENT_UNCOUNTED);
    EXPECT_EQ("abc", readExactly(pair[1], 3));
    EXPECT_EQ(1u, recorder.events().size());
}

TEST_F(RvKQueueStreamSocketOutput, AnUncountedWriteErrorIsEventTwo) {
    start();
    loop->write(endpoint, "abc", 3);
    pair.close(1);
    reportWrite(KEVENT_UNCOUNTED);
    EXPECT_EQ(1, recorder.count(kEventClosed));
}

TEST_F(RvKQueueStreamSocketOutput, BytesAreCopiedBeforeReturn) {
    start();
    std::string bytes = "abc";
    loop->write(endpoint, bytes.data(), bytes.size());
    bytes = "xyz";
    reportWrite(100);
    EXPECT_EQ("abc", readExactly(pair[1], 3));
}

TEST_F(RvKQueueStreamSocketRun, DeliversAndSends) {
    DescriptorPair pair = DescriptorPair::socketPair();
    Recorder recorder;
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    loop->startObject(endpoint, recorder.block());
    writeAll(pair[1], "ping");
    ASSERT_TRUE(recorder.waitForBytes(4));
    EXPECT_EQ("ping", recorder.received());
    loop->write(endpoint, "pong", 4);
    EXPECT_EQ("pong", readExactly(pair[1], 4));
    EXPECT_EQ(0, recorder.count(kEventClosed));
}

TEST_F(RvKQueueStreamSocketRun, ADescriptorThatIsNotOpenIsEventTwo) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const int closed = pair[0];
    pair.close(0);
    for (const int descriptor : {closed, -1}) {
        Recorder recorder;
        const auto endpoint = loop->createStreamSocket(descriptor, false);
        loop->startObject(endpoint, recorder.block());
        EXPECT_EQ(1, recorder.count(kEventConnected));
        EXPECT_TRUE(recorder.waitFor(kEventClosed));
        EXPECT_EQ(0, recorder.count(kEventData));
        loop->stopObject(endpoint);
    }
}

TEST_F(RvKQueueStreamSocketRun, ThePeersCloseIsEventTwoUntilRetired) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    expectEventTwoUntilRetired(endpoint, &pair, 1);
}

TEST_F(RvKQueueStreamSocketRun, AHalfClosedPeerStillGetsOutput) {
    DescriptorPair pair = DescriptorPair::socketPair();
    Recorder recorder;
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    loop->startObject(endpoint, recorder.block());
    ASSERT_EQ(0, shutdown(pair[1], SHUT_WR));
    ASSERT_TRUE(recorder.waitFor(kEventClosed));
    loop->write(endpoint, "bye", 3);
    EXPECT_EQ("bye", readExactly(pair[1], 3));
}

TEST_F(RvKQueueStreamSocketRun, StopClosesAnOwnedSocket) {
    DescriptorPair pair = DescriptorPair::socketPair();
    // A duplicate keeps the connection open: only a shutdown makes the peer see its end.
    const int duplicate = dup(pair[0]);
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    loop->startObject(endpoint, Recorder().block());
    loop->stopObject(endpoint);
    EXPECT_EQ("", readExactly(pair[1], 1));
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<" + pointerText(endpoint.get()) + ">: stop"));
    EXPECT_EQ(0, close(duplicate));
}

TEST_F(RvKQueueStreamSocketRun, StopLeavesASocketThatIsNotOwned) {
    DescriptorPair pair = DescriptorPair::socketPair();
    Recorder recorder;
    const auto endpoint = loop->createStreamSocket(pair[0], false);
    loop->startObject(endpoint, recorder.block());
    loop->stopObject(endpoint);
    waitForTurn();
    waitForTurn();
    writeAll(pair[1], "mine");
    waitForTurn();
    EXPECT_EQ("mine", readExactly(pair[0], 4));
    EXPECT_EQ(0, recorder.count(kEventData));
}

TEST_F(RvKQueueStreamSocketRun, ASocketCanPassFromOneEndpointToTheNext) {
    DescriptorPair pair = DescriptorPair::socketPair();
    std::shared_ptr<RvKQueueStreamSocket> previous;
    for (int round = 0; round < 50; ++round) {
        Recorder recorder;
        const auto endpoint = loop->createStreamSocket(pair[0], false);
        if (previous) loop->stopObject(previous);
        loop->startObject(endpoint, recorder.block());
        writeAll(pair[1], "round");
        // The endpoint before may have taken bytes that were reported before it was stopped; the new one sees
        // those that come once it is alone.
        waitForTurn();
        waitForTurn();
        writeAll(pair[1], "!");
        ASSERT_TRUE(recorder.waitForBytes(1));
        previous = endpoint;
    }
    stopLoop();  // the last endpoint may be reading still, and the socket is not its own
}

TEST_F(RvKQueueStreamSocketRun, AReusedDescriptorNumberBelongsToTheNewEndpoint) {
    for (int round = 0; round < 200; ++round) {
        Recorder recorder;
        DescriptorPair pair = DescriptorPair::socketPair();
        const auto endpoint = loop->createStreamSocket(pair.release(0), true);
        loop->startObject(endpoint, recorder.block());
        loop->write(endpoint, "a", 1);
        writeAll(pair[1], "b");
        ASSERT_TRUE(recorder.waitForBytes(1)) << round;
        ASSERT_EQ("a", readExactly(pair[1], 1)) << round;
        loop->write(endpoint, "never mind", 10);
        loop->stopObject(endpoint);
        waitForTurn();  // the number is free from here on
        EXPECT_EQ(0, recorder.count(kEventClosed));
    }
}

}  // namespace
