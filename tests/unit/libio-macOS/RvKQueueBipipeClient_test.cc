#include "libio-macOS/RvKQueueBipipeClient.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/kevent.h"
#include "unit/libio-macOS/support/engine_fixture.h"

namespace {

constexpr std::uint16_t kArmed = EV_ADD | EV_ENABLE;

// The endpoint reads from `in` and writes to `out`; the case holds the far ends.
class BipipeOnIdleLoop : public IdleLoopTest {
  protected:
    void SetUp() override {
        IdleLoopTest::SetUp();
        const std::int32_t descriptors[2] = {in[0], out[1]};
        endpoint = loop->createBipipeClient(descriptors, false);
    }
    void TearDown() override { endpoint->stop(); }

    void start(Recorder::Reaction reaction = {}) {
        loop->startObject(endpoint, recorder.block(std::move(reaction)));
    }
    void report(int filter, std::int64_t data) {
        const struct kevent record = {0, static_cast<std::int16_t>(filter), kArmed, 0, data, endpoint.get()};
        endpoint->kevent(&record);
    }

    DescriptorPair in = DescriptorPair::pipe();
    DescriptorPair out = DescriptorPair::pipe();
    std::shared_ptr<RvKQueueBipipeClient> endpoint;
    Recorder recorder;
};

using RvKQueueBipipeClientCreation = BipipeOnIdleLoop;
using RvKQueueBipipeClientInput = BipipeOnIdleLoop;
using RvKQueueBipipeClientOutput = BipipeOnIdleLoop;
using RvKQueueBipipeClientRun = EngineTest;

TEST_F(RvKQueueBipipeClientCreation, IsLogged) {
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<" + pointerText(endpoint.get()) + ">: bipipe(" +
                                               std::to_string(in[0]) + "," + std::to_string(out[1]) +
                                               ") created"));
}

TEST_F(RvKQueueBipipeClientCreation, RecordsNameEachDescriptorWithItsFilter) {
    struct kevent record;
    endpoint->initReadEvent(&record, kArmed);
    EXPECT_EQ(static_cast<std::uint64_t>(in[0]), record.ident);
    EXPECT_EQ(EVFILT_READ, record.filter);
    endpoint->initWriteEvent(&record, EV_DELETE);
    EXPECT_EQ(static_cast<std::uint64_t>(out[1]), record.ident);
    EXPECT_EQ(EVFILT_WRITE, record.filter);
    EXPECT_EQ(EV_DELETE, record.flags);
    EXPECT_EQ(static_cast<RvKQueueEventProtocol*>(endpoint.get()), record.udata);
}

TEST_F(RvKQueueBipipeClientCreation, EventZeroComesInsideStartObject) {
    writeAll(in[1], "already there");
    start();
    const auto events = recorder.events();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(kEventConnected, events[0].code);
    EXPECT_FALSE(events[0].hasBuffer);
    EXPECT_FALSE(events[0].hasDropSize);
    EXPECT_EQ(std::this_thread::get_id(), events[0].thread);
}

// The error number is not taken for a number of bytes: nobody has written, and a read would not return.
TEST_F(RvKQueueBipipeClientInput, AFilterThatCannotBeArmedIsEventTwo) {
    start();
    for (const int filter : {EVFILT_READ, EVFILT_WRITE}) {
        const struct kevent record = {
            0, static_cast<std::int16_t>(filter), kArmed | EV_ERROR, 0, ENOMEM, endpoint.get()};
        endpoint->kevent(&record);
    }
    EXPECT_EQ(2, recorder.count(kEventClosed));
    EXPECT_EQ(0, recorder.count(kEventData));
}

TEST_F(RvKQueueBipipeClientInput, IsOfferedAndKept) {
    start([](const RecordedEvent& event, std::uint64_t* dropSize) {
        if (event.code == kEventData) *dropSize = 1;
        return true;
    });
    writeAll(in[1], "abc");
    report(EVFILT_READ, 3);
    writeAll(in[1], "d");
    report(EVFILT_READ, 1);
    const auto data = recorder.eventsWith(kEventData);
    ASSERT_EQ(2u, data.size());
    EXPECT_EQ("abc", data[0].bytes);
    EXPECT_EQ("bcd", data[1].bytes);
}

TEST_F(RvKQueueBipipeClientInput, EveryEventNamesItsEndpoint) {
    start();
    writeAll(in[1], "a");
    report(EVFILT_READ, 1);
    in.close(1);
    report(EVFILT_READ, 0);
    std::vector<std::int32_t> codes;
    for (const RecordedEvent& event : recorder.events()) {
        codes.push_back(event.code);
        EXPECT_EQ(endpoint.get(), event.object) << event.code;
    }
    EXPECT_EQ((std::vector<std::int32_t>{kEventConnected, kEventData, kEventClosed}), codes);
}

TEST_F(RvKQueueBipipeClientInput, AShortReadKeepsTheReportedLength) {
    start();
    writeAll(in[1], "abc");
    report(EVFILT_READ, 5);
    EXPECT_EQ(std::string("abc\0\0", 5), recorder.received());
}

TEST_F(RvKQueueBipipeClientInput, TheEndIsEventTwoWithWhatWasKept) {
    start([](const RecordedEvent& event, std::uint64_t* dropSize) {
        if (event.code == kEventData) *dropSize = 0;
        return true;
    });
    writeAll(in[1], "abc");
    report(EVFILT_READ, 3);
    in.close(1);
    report(EVFILT_READ, 0);
    const auto closed = recorder.eventsWith(kEventClosed);
    ASSERT_EQ(1u, closed.size());
    EXPECT_EQ("abc", closed[0].bytes);
}

TEST_F(RvKQueueBipipeClientInput, AReadErrorIsEventTwo) {
    start();
    // A write-only file in the place of the read side: read fails with EBADF.
    const int unreadable = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_NE(-1, dup2(unreadable, in[0]));
    report(EVFILT_READ, 9);
    EXPECT_EQ(1, recorder.count(kEventClosed));
    EXPECT_EQ(0, recorder.count(kEventData));
    EXPECT_EQ(0, close(unreadable));
}

TEST_F(RvKQueueBipipeClientOutput, OneWriteOfAtMostTheRoomReported) {
    start();
    loop->write(endpoint, "abcdef", 6);
    report(EVFILT_WRITE, 4);
    EXPECT_EQ("abcd", readExactly(out[0], 4));
    report(EVFILT_WRITE, 4);
    EXPECT_EQ("ef", readExactly(out[0], 2));
    EXPECT_EQ(0, recorder.count(kEventClosed));
}

TEST_F(RvKQueueBipipeClientOutput, ASingleByteIsNoError) {
    start();
    loop->write(endpoint, "a", 1);
    report(EVFILT_WRITE, 4);
    EXPECT_EQ("a", readExactly(out[0], 1));
    EXPECT_EQ(0, recorder.count(kEventClosed));
}

// As a queue reports it whose descriptors are sockets.
TEST_F(RvKQueueBipipeClientOutput, AnUncountedEventWithoutRoomIsNone) {
    DescriptorPair pair = DescriptorPair::socketPair();
    ASSERT_NE(-1, dup2(pair[0], out[1]));
    start();
    const std::string block(4096, 'x');
    while (send(pair[0], block.data(), block.size(), MSG_DONTWAIT) != -1) {
    }
    loop->write(endpoint, "a", 1);
    report(EVFILT_WRITE, KEVENT_UNCOUNTED);
    loop->write(endpoint, "bc", 2);
    report(EVFILT_WRITE, KEVENT_UNCOUNTED);
    EXPECT_EQ(1u, recorder.events().size());
}

TEST_F(RvKQueueBipipeClientOutput, ReadinessWithNothingQueuedReportsClosed) {
    start();
    report(EVFILT_WRITE, 4096);
    EXPECT_EQ(1, recorder.count(kEventClosed));
}

TEST_F(RvKQueueBipipeClientOutput, NoRoomReportsClosedAndKeepsTheBytes) {
    start();
    loop->write(endpoint, "abc", 3);
    report(EVFILT_WRITE, 0);
    EXPECT_EQ(1, recorder.count(kEventClosed));
    report(EVFILT_WRITE, 3);
    EXPECT_EQ("abc", readExactly(out[0], 3));
}

TEST_F(RvKQueueBipipeClientOutput, AWriteErrorReportsClosed) {
    start();
    loop->write(endpoint, "abc", 3);
    out.close(0);
    report(EVFILT_WRITE, 10);
    EXPECT_EQ(1, recorder.count(kEventClosed));
}

TEST_F(RvKQueueBipipeClientOutput, AfterAWriteErrorTheBytesAreTriedAgain) {
    start();
    loop->write(endpoint, "abc", 3);
    const int writable = dup(out[1]);
    const int unwritable = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_NE(-1, dup2(unwritable, out[1]));
    report(EVFILT_WRITE, 10);
    EXPECT_EQ(1, recorder.count(kEventClosed));
    ASSERT_NE(-1, dup2(writable, out[1]));
    report(EVFILT_WRITE, 10);
    EXPECT_EQ("abc", readExactly(out[0], 3));
    EXPECT_EQ(1, recorder.count(kEventClosed));
    EXPECT_EQ(0, close(writable));
    EXPECT_EQ(0, close(unwritable));
}

TEST_F(RvKQueueBipipeClientOutput, OtherFiltersAreIgnored) {
    start();
    report(EVFILT_TIMER, 1);
    EXPECT_EQ(1u, recorder.events().size());
}

TEST_F(RvKQueueBipipeClientRun, CarriesBytesBothWays) {
    DescriptorPair in = DescriptorPair::pipe();
    DescriptorPair out = DescriptorPair::pipe();
    const std::int32_t descriptors[2] = {in.release(0), out.release(1)};
    Recorder recorder;
    const auto endpoint = loop->createBipipeClient(descriptors, true);
    loop->startObject(endpoint, recorder.block());
    writeAll(in[1], "to it");
    ASSERT_TRUE(recorder.waitForBytes(5));
    EXPECT_EQ("to it", recorder.received());
    loop->write(endpoint, "from it", 7);
    EXPECT_EQ("from it", readExactly(out[0], 7));
}

TEST_F(RvKQueueBipipeClientRun, TheModeOfItsDescriptorsStaysAsItIs) {
    const struct {
        int in;
        int out;
    } modes[] = {{0, O_NONBLOCK}, {O_NONBLOCK, 0}};
    for (const auto& mode : modes) {
        DescriptorPair in = DescriptorPair::pipe();
        DescriptorPair out = DescriptorPair::pipe();
        ASSERT_EQ(0, fcntl(in[0], F_SETFL, mode.in));
        ASSERT_EQ(0, fcntl(out[1], F_SETFL, mode.out));
        const auto expectUnchanged = [&] {
            EXPECT_EQ(mode.in, fcntl(in[0], F_GETFL) & O_NONBLOCK);
            EXPECT_EQ(mode.out, fcntl(out[1], F_GETFL) & O_NONBLOCK);
        };
        const std::int32_t descriptors[2] = {in[0], out[1]};
        Recorder recorder;
        const auto endpoint = loop->createBipipeClient(descriptors, false);
        expectUnchanged();
        loop->startObject(endpoint, recorder.block());
        writeAll(in[1], "x");
        ASSERT_TRUE(recorder.waitForBytes(1));
        loop->write(endpoint, "y", 1);
        EXPECT_EQ("y", readExactly(out[0], 1));
        expectUnchanged();
        loop->stopObject(endpoint);
        waitForTurn();
        expectUnchanged();
    }
}

TEST_F(RvKQueueBipipeClientRun, ClosingTheFarEndOfTheReadSideIsEventTwo) {
    DescriptorPair in = DescriptorPair::pipe();
    DescriptorPair out = DescriptorPair::pipe();
    const std::int32_t descriptors[2] = {in.release(0), out.release(1)};
    Recorder recorder;
    const auto endpoint = loop->createBipipeClient(descriptors, true);
    loop->startObject(endpoint, recorder.block());
    in.close(1);
    EXPECT_TRUE(recorder.waitFor(kEventClosed));
}

TEST_F(RvKQueueBipipeClientRun, TheEndIsEventTwoUntilRetired) {
    DescriptorPair in = DescriptorPair::pipe();
    DescriptorPair out = DescriptorPair::pipe();
    const std::int32_t descriptors[2] = {in.release(0), out.release(1)};
    const auto endpoint = loop->createBipipeClient(descriptors, true);
    expectEventTwoUntilRetired(endpoint, &in, 1);
}

TEST_F(RvKQueueBipipeClientRun, ClosingTheFarEndOfTheWriteSideIsEventTwoOnceThereIsOutput) {
    DescriptorPair in = DescriptorPair::pipe();
    DescriptorPair out = DescriptorPair::pipe();
    const std::int32_t descriptors[2] = {in.release(0), out.release(1)};
    Recorder recorder;
    const auto endpoint = loop->createBipipeClient(descriptors, true);
    loop->startObject(endpoint, recorder.block());
    out.close(0);
    loop->write(endpoint, "lost", 4);
    EXPECT_TRUE(recorder.waitFor(kEventClosed));
}

TEST_F(RvKQueueBipipeClientRun, StopClosesOwnedDescriptors) {
    DescriptorPair in = DescriptorPair::pipe();
    DescriptorPair out = DescriptorPair::pipe();
    const std::int32_t descriptors[2] = {in.release(0), out.release(1)};
    const auto endpoint = loop->createBipipeClient(descriptors, true);
    loop->startObject(endpoint, Recorder().block());
    loop->stopObject(endpoint);
    EXPECT_EQ("", readExactly(out[0], 1));
    EXPECT_TRUE(waitUntil([&] { return !isOpen(descriptors[0]) && !isOpen(descriptors[1]); }));
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<" + pointerText(endpoint.get()) + ">: stop"));
}

TEST_F(RvKQueueBipipeClientRun, StopLeavesTheConnectionToADuplicate) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const int duplicate = dup(pair[0]);
    const std::int32_t descriptors[2] = {pair[0], pair.release(0)};
    const auto endpoint = loop->createBipipeClient(descriptors, true);
    loop->startObject(endpoint, {});
    loop->stopObject(endpoint);
    ASSERT_TRUE(waitUntil([&] { return !isOpen(descriptors[0]); }));
    writeAll(duplicate, "out");
    EXPECT_EQ("out", readExactly(pair[1], 3));
    writeAll(pair[1], "in");
    EXPECT_EQ("in", readExactly(duplicate, 2));
    EXPECT_EQ(0, close(duplicate));
}

TEST_F(RvKQueueBipipeClientRun, StopLeavesDescriptorsThatAreNotOwned) {
    DescriptorPair in = DescriptorPair::pipe();
    DescriptorPair out = DescriptorPair::pipe();
    const std::int32_t descriptors[2] = {in[0], out[1]};
    Recorder recorder;
    const auto endpoint = loop->createBipipeClient(descriptors, false);
    loop->startObject(endpoint, recorder.block());
    loop->stopObject(endpoint);
    waitForTurn();
    waitForTurn();
    writeAll(in[1], "mine");
    waitForTurn();
    EXPECT_EQ("mine", readExactly(in[0], 4));
    writeAll(out[1], "x");
    EXPECT_EQ("x", readExactly(out[0], 1));
    EXPECT_EQ(0, recorder.count(kEventData));
}

TEST_F(RvKQueueBipipeClientRun, OneSocketMayServeForBothSides) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const std::int32_t descriptors[2] = {pair[0], pair.release(0)};
    Recorder recorder;
    const auto endpoint = loop->createBipipeClient(descriptors, true);
    loop->startObject(endpoint, recorder.block());
    writeAll(pair[1], "in");
    ASSERT_TRUE(recorder.waitForBytes(2));
    loop->write(endpoint, "out", 3);
    EXPECT_EQ("out", readExactly(pair[1], 3));
    loop->stopObject(endpoint);
    EXPECT_EQ("", readExactly(pair[1], 1));
}

}  // namespace
