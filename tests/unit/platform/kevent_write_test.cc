/// EVFILT_WRITE: when it fires, how much a blocking write may take, and when the end is told.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <ostream>
#include <random>

#include "kevent_support.h"

namespace {

using namespace keventtest;

uint64_t ident(const Fd& fd) {
    return static_cast<uint64_t>(fd.get());
}

struct Source {
    const char* name;
    Pair (*make)();
};

void PrintTo(const Source& source, std::ostream* out) {
    *out << source.name;
}

class KeventWriteOf : public testing::TestWithParam<Source> {};

INSTANTIATE_TEST_SUITE_P(Kinds, KeventWriteOf,
                         testing::Values(Source{"Unix", unixPair}, Source{"Tcp", tcpPair},
                                         Source{"Pipe", pipePair}),
                         [](const auto& one) { return one.param.name; });

TEST_P(KeventWriteOf, FiresWithEveryCallWhileThereIsRoom) {
    const Queue queue;
    const Pair pair = GetParam().make();
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm, 0, 0, 3)), 0);
    for (int i = 0; i < 3; ++i) {
        const auto event = queue.next();
        EXPECT_THAT(event, IsEvent(ident(pair.writer), EVFILT_WRITE));
        EXPECT_EQ(event.flags, kArm);
        EXPECT_EQ(event.fflags, 0U);
        EXPECT_GE(event.data, 4096);
        EXPECT_EQ(event.udata, markAddress(3));
    }
}

TEST_P(KeventWriteOf, SilentWhenFullUntilThePeerReads) {
    const Queue queue;
    const Pair pair = GetParam().make();
    fill(pair.writer.get());
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    ASSERT_EQ(fcntl(pair.reader.get(), F_SETFL, O_NONBLOCK), 0);
    std::vector<struct kevent> events;
    const int64_t limit = nowMs() + kLimitMs;
    while (events.empty() && nowMs() < limit) {
        readSome(pair.reader.get());
        events = queue.collect(1);
    }
    ASSERT_EQ(events.size(), 1U);
    EXPECT_GE(events[0].data, 1);
}

TEST_P(KeventWriteOf, ReportedRoomIsRoom) {
    const Queue queue;
    const Pair pair = GetParam().make();
    ASSERT_EQ(fcntl(pair.writer.get(), F_SETFL, O_NONBLOCK), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    for (auto events = queue.collect(); !events.empty(); events = queue.collect()) {
        const std::string bytes(static_cast<size_t>(events[0].data), 'x');
        ASSERT_EQ(write(pair.writer.get(), bytes.data(), bytes.size()), events[0].data);
    }
}

TEST(KeventWrite, RoomOfAnIdleUnixSocketIsHalfItsSendBuffer) {
    const Queue queue;
    const Pair pair = unixPair();
    int buffer = 0;
    socklen_t size = sizeof buffer;
    ASSERT_EQ(getsockopt(pair.writer.get(), SOL_SOCKET, SO_SNDBUF, &buffer, &size), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    EXPECT_EQ(queue.next().data, buffer / 2 - 64);
}

TEST(KeventWrite, RoomOfAnEmptyPipeIsAllOfIt) {
    const Queue queue;
    const Pair pair = pipePair();
    ASSERT_EQ(fcntl(pair.writer.get(), F_SETPIPE_SZ, 16384), 16384);
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    EXPECT_EQ(queue.next().data, 16384);
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(queue.next().data, 4096);
}

TEST(KeventWrite, PipeWithoutReaderIsTheEndWithDataZero) {
    const Queue queue;
    Pair pair = pipePair();
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    pair.reader.reset();
    const auto event = queue.next();
    EXPECT_EQ(event.flags, kArm | EV_EOF);
    EXPECT_EQ(event.data, 0);
}

TEST(KeventWrite, FullPipeWithoutReaderIsTheEndToo) {
    const Queue queue;
    Pair pair = pipePair();
    fill(pair.writer.get());
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    EXPECT_TRUE(queue.collect().empty());
    pair.reader.reset();
    const auto event = queue.next();
    EXPECT_EQ(event.flags, kArm | EV_EOF);
    EXPECT_EQ(event.data, 0);
}

TEST(KeventWrite, PeerCloseKeepsDataPositive) {
    const Queue queue;
    Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    pair.reader.reset();
    for (int i = 0; i < 2; ++i) {
        const auto event = queue.next();
        EXPECT_EQ(event.flags, kArm | EV_EOF);
        EXPECT_GE(event.data, 1);
    }
}

TEST(KeventWrite, FullSocketWhosePeerClosesIsTheEndWithDataPositive) {
    (void)signal(SIGPIPE, SIG_IGN);
    const Queue queue;
    Pair pair = unixPair();
    fill(pair.writer.get());
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    EXPECT_TRUE(queue.collect().empty());
    pair.reader.reset();
    const auto event = queue.next();
    EXPECT_EQ(event.flags, kArm | EV_EOF);
    EXPECT_GE(event.data, 1);
    EXPECT_EQ(write(pair.writer.get(), "x", 1), -1);
    EXPECT_NE(errno, EAGAIN);
}

TEST(KeventWrite, TcpPeerThatOnlyFinishedIsNotTheEndUntilItResets) {
    (void)signal(SIGPIPE, SIG_IGN);
    const Queue queue;
    Pair pair = tcpPair();
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_READ, kArm)), 0);
    pair.reader.reset();
    EXPECT_EQ(queue.next().flags, kArm | EV_EOF);
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    EXPECT_EQ(queue.nextOf(EVFILT_WRITE).flags, kArm);
    writeAll(pair.writer.get(), "x");  // answered by a reset
    struct kevent event {};
    const int64_t limit = nowMs() + kLimitMs;
    do {
        event = queue.nextOf(EVFILT_WRITE);
    } while ((event.flags & EV_EOF) == 0 && nowMs() < limit);
    EXPECT_EQ(event.flags, kArm | EV_EOF);
    EXPECT_GE(event.data, 1);
}

class KeventWriteOfSocket : public KeventWriteOf {};

INSTANTIATE_TEST_SUITE_P(Kinds, KeventWriteOfSocket,
                         testing::Values(Source{"Unix", unixPair}, Source{"Tcp", tcpPair}),
                         [](const auto& one) { return one.param.name; });

TEST_P(KeventWriteOfSocket, OwnShutdownOfWritingIsTheEnd) {
    const Queue queue;
    const Pair pair = GetParam().make();
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    ASSERT_EQ(shutdown(pair.writer.get(), SHUT_WR), 0);
    const auto event = queue.next();
    EXPECT_EQ(event.flags, kArm | EV_EOF);
    EXPECT_GE(event.data, 1);
}

TEST_P(KeventWriteOfSocket, OwnShutdownBeforeTheAnswerIsTheEnd) {
    const Queue queue;
    const Pair pair = GetParam().make();
    const auto fd = ident(pair.reader);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    writeAll(pair.writer.get(), "question");
    EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_READ));
    ASSERT_EQ(shutdown(pair.reader.get(), SHUT_WR), 0);
    const auto writes = only(queue.collect(kLimitMs, 8, {change(fd, EVFILT_WRITE, kArm)}), EVFILT_WRITE);
    ASSERT_EQ(writes.size(), 1U);
    EXPECT_EQ(writes[0].flags, kArm | EV_EOF);
    EXPECT_GE(writes[0].data, 1);
}

/// The error is for the read() or write() that comes next: nothing but it may take it away.
TEST(KeventWrite, AnswerAfterAResetLeavesTheErrorPending) {
    const Queue queue;
    Pair pair = tcpPair();
    const auto fd = ident(pair.reader);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    writeAll(pair.writer.get(), "question");
    EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_READ));
    readSome(pair.reader.get());
    resetConnection(pair.writer);
    EXPECT_EQ(queue.next().flags, kArm | EV_EOF);
    const auto writes = only(queue.collect(kLimitMs, 8, {change(fd, EVFILT_WRITE, kArm)}), EVFILT_WRITE);
    ASSERT_EQ(writes.size(), 1U);
    EXPECT_EQ(writes[0].flags, kArm | EV_EOF);
    char byte = 0;
    EXPECT_EQ(read(pair.reader.get(), &byte, 1), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST_P(KeventWriteOfSocket, HalfClosedPeerIsNotTheEnd) {
    const Queue queue;
    const Pair pair = GetParam().make();
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_READ, kArm)), 0);
    ASSERT_EQ(shutdown(pair.reader.get(), SHUT_WR), 0);
    EXPECT_EQ(queue.next().flags, kArm | EV_EOF);
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    EXPECT_EQ(queue.nextOf(EVFILT_WRITE).flags, kArm);
}

/// READ is armed and was reported, then WRITE is armed: the way of a server that answers.
TEST_P(KeventWriteOfSocket, AnswerOnAReportedSocketFindsRoomAtOnce) {
    const Queue queue;
    const Pair pair = GetParam().make();
    const auto fd = ident(pair.reader);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm, 0, 0, 1)), 0);
    for (int round = 0; round < 5; ++round) {
        writeAll(pair.writer.get(), "question");
        EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_READ));
        readSome(pair.reader.get());
        const auto events = queue.collect(kLimitMs, 8, {change(fd, EVFILT_WRITE, kArm, 0, 0, 1)});
        ASSERT_EQ(events.size(), 1U) << describe(events);
        EXPECT_THAT(events[0], IsEvent(fd, EVFILT_WRITE));
        EXPECT_EQ(events[0].flags, kArm);
        EXPECT_GE(events[0].data, 4096);
        EXPECT_EQ(queue.collect().size(), 1U) << "level: it goes on while there is room";
        EXPECT_TRUE(queue.collect(0, 8, {change(fd, EVFILT_WRITE, EV_DELETE)}).empty());
        EXPECT_TRUE(queue.collect().empty());
    }
}

TEST_P(KeventWriteOfSocket, AnswerOnAFullSocketWaitsForRoom) {
    const Queue queue;
    const Pair pair = GetParam().make();
    const auto fd = ident(pair.reader);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm, 0, 0, 1)), 0);
    writeAll(pair.writer.get(), "question");
    EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_READ));
    readSome(pair.reader.get());
    fill(pair.reader.get());
    EXPECT_TRUE(queue.collect(kSilenceMs, 8, {change(fd, EVFILT_WRITE, kArm, 0, 0, 1)}).empty());
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    ASSERT_EQ(fcntl(pair.writer.get(), F_SETFL, O_NONBLOCK), 0);
    std::vector<struct kevent> events;
    const int64_t limit = nowMs() + kLimitMs;
    while (events.empty() && nowMs() < limit) {
        readSome(pair.writer.get());
        events = queue.collect(1);
    }
    ASSERT_EQ(events.size(), 1U);
    EXPECT_THAT(events[0], IsEvent(fd, EVFILT_WRITE));
}

TEST(KeventWrite, AnswerToAPeerThatClosedMeanwhileIsTheEnd) {
    const Queue queue;
    Pair pair = unixPair();
    const auto fd = ident(pair.reader);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm, 0, 0, 1)), 0);
    writeAll(pair.writer.get(), "question");
    EXPECT_EQ(queue.next().flags, kArm);
    pair.writer.reset();
    const auto events = queue.collect(kLimitMs, 8, {change(fd, EVFILT_WRITE, kArm, 0, 0, 1)});
    const auto writes = only(events, EVFILT_WRITE);
    ASSERT_EQ(writes.size(), 1U) << describe(events);
    EXPECT_EQ(writes[0].flags, kArm | EV_EOF);
    EXPECT_GE(writes[0].data, 1);
}

TEST(KeventWrite, AnswerOnAClosedNumberFails) {
    const Queue queue;
    Pair pair = unixPair();
    const auto fd = ident(pair.reader);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm, 0, 0, 1)), 0);
    writeAll(pair.writer.get(), "question");
    EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_READ));
    pair.reader.reset();
    const auto events = queue.collect(0, 8, {change(fd, EVFILT_WRITE, kArm, 0, 0, 1)});
    ASSERT_EQ(events.size(), 1U) << describe(events);
    EXPECT_EQ(events[0].filter, EVFILT_WRITE);
    EXPECT_EQ(events[0].flags, kArm | EV_ERROR);
    EXPECT_EQ(events[0].data, EBADF);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

TEST(KeventWrite, AnswerOnANumberThatIsAnotherFileLeavesTheErrnoOfAFailure) {
    const Queue queue;
    Pair pair = unixPair();
    const Pair other = unixPair();
    const auto fd = ident(pair.reader);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm, 0, 0, 1)), 0);
    writeAll(pair.writer.get(), "question");
    EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_READ));
    EXPECT_EQ(only(queue.collect(0, 8, {change(fd, EVFILT_WRITE, kArm, 0, 0, 1)}), EVFILT_WRITE).size(), 1U);
    ASSERT_EQ(dup2(other.reader.get(), pair.reader.get()), pair.reader.get());
    EXPECT_EQ(queue.apply(change(fd, 77, kArm)), EINVAL);
}

TEST(KeventWrite, AnswerWithoutRoomInTheListComesNextTime) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = ident(pair.reader);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm, 0, 0, 1)), 0);
    writeAll(pair.writer.get(), "question");
    EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_READ));
    const auto write = change(fd, EVFILT_WRITE, kArm, 0, 0, 1);
    EXPECT_EQ(kevent(queue.fd(), &write, 1, nullptr, 0, nullptr), 0);
    EXPECT_EQ(only(queue.collect(), EVFILT_WRITE).size(), 1U);
}

TEST(KeventWrite, PendingConnectIsSilentAndItsSuccessIsPlain) {
    const Queue queue;
    const Fd listener = listenTcp();
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    const Fd client(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    const int result = connect(client.get(), reinterpret_cast<sockaddr*>(&address), size);
    ASSERT_TRUE(result == 0 || errno == EINPROGRESS);
    ASSERT_EQ(queue.apply(change(ident(client), EVFILT_WRITE, kArm)), 0);
    ASSERT_EQ(queue.apply(change(ident(client), EVFILT_READ, kArm)), 0);
    const auto event = queue.next();
    EXPECT_THAT(event, IsEvent(ident(client), EVFILT_WRITE));
    EXPECT_EQ(event.flags, kArm);
}

TEST(KeventWrite, RefusedConnectIsTheEndOfBothDirections) {
    const Queue queue;
    sockaddr_in address{};
    socklen_t size = sizeof address;
    {
        const Fd listener = listenTcp();
        ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    }
    const Fd client(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    ASSERT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&address), size), -1);
    ASSERT_EQ(errno, EINPROGRESS);
    ASSERT_EQ(queue.apply(change(ident(client), EVFILT_WRITE, kArm)), 0);
    ASSERT_EQ(queue.apply(change(ident(client), EVFILT_READ, kArm)), 0);
    EXPECT_EQ(queue.nextOf(EVFILT_WRITE).flags, kArm | EV_EOF);
    const auto read = queue.nextOf(EVFILT_READ);
    EXPECT_EQ(read.flags, kArm | EV_EOF);
    EXPECT_EQ(read.data, 0);
    int error = 0;
    size = sizeof error;
    ASSERT_EQ(getsockopt(client.get(), SOL_SOCKET, SO_ERROR, &error, &size), 0);
    EXPECT_EQ(error, ECONNREFUSED);
}

TEST(KeventWrite, RegularFileIsAlwaysWritable) {
    const Queue queue;
    const Fd fd = temporaryFile();
    ASSERT_EQ(queue.apply(change(ident(fd), EVFILT_WRITE, kArm)), 0);
    for (int i = 0; i < 2; ++i) {
        const auto event = queue.next();
        EXPECT_EQ(event.flags, kArm);
        EXPECT_EQ(event.data, 65'536);
    }
}

TEST(KeventWrite, DatagramSocketTakesAByteAtLeastAndHasNoEnd) {
    const Queue queue;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    const Pair pair = {Fd(ends[0]), Fd(ends[1])};
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    const auto event = queue.next();
    EXPECT_EQ(event.flags, kArm);
    EXPECT_EQ(event.data, 1);
}

TEST(KeventWrite, DeviceThatCannotBeWaitedForTakesAByte) {
    const Queue queue;
    const Fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    ASSERT_EQ(queue.apply(change(ident(null), EVFILT_WRITE, kArm)), 0);
    EXPECT_EQ(queue.next().data, 1);
}

TEST(KeventWrite, UnsentLimitAboveTheRoomDoesNotRaiseIt) {
    const Queue queue;
    const Pair pair = tcpPair();
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    const int64_t room = queue.next().data;
    const int limit = static_cast<int>(room / 2 * 5);
    ASSERT_EQ(setsockopt(pair.writer.get(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &limit, sizeof limit), 0);
    EXPECT_EQ(queue.next().data, room);
}

TEST(KeventWrite, UnsentLimitCapsTheRoom) {
    const Queue queue;
    const Pair pair = tcpPair();
    const int limit = 16384;
    ASSERT_EQ(setsockopt(pair.writer.get(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &limit, sizeof limit), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    EXPECT_EQ(queue.next().data, limit / 2);
}

// ---- Blocking writes of exactly the reported room, over random states of the file. ----

volatile sig_atomic_t alarms = 0;
void onAlarm(int) {
    alarms = alarms + 1;
}

/// Interrupts what blocks: a write that had to wait returns short or with EINTR.
class BlockGuard {
  public:
    BlockGuard() {
        struct sigaction action {};
        action.sa_handler = onAlarm;
        EXPECT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
        const itimerval after{{0, 50'000}, {0, 200'000}};
        EXPECT_EQ(setitimer(ITIMER_REAL, &after, nullptr), 0);
    }
    BlockGuard(const BlockGuard&) = delete;
    BlockGuard& operator=(const BlockGuard&) = delete;
    ~BlockGuard() {
        const itimerval stop{};
        EXPECT_EQ(setitimer(ITIMER_REAL, &stop, nullptr), 0);
    }
};

class Filler {
  public:
    explicit Filler(unsigned seed) : random_(seed) {}

    int between(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }
    int scaled(int low, int high) {  // small values as often as large ones
        const double exponent =
            std::uniform_real_distribution<double>(std::log2(low), std::log2(high))(random_);
        return static_cast<int>(std::exp2(exponent));
    }

    void writeSome(int fd) {
        const std::string block(static_cast<size_t>(scaled(1, 300'000)), 'x');
        const int messages = scaled(1, 200);
        ASSERT_EQ(fcntl(fd, F_SETFL, O_NONBLOCK | O_WRONLY), 0);
        for (int i = 0; i < messages; ++i) {
            const auto size = static_cast<size_t>(scaled(1, static_cast<int>(block.size()) + 1));
            if (write(fd, block.data(), std::min(size, block.size())) == -1) break;
        }
        ASSERT_EQ(fcntl(fd, F_SETFL, O_WRONLY), 0);
    }

    void readSome(int fd) {
        std::string block(static_cast<size_t>(scaled(1, 500'000)), '\0');
        ASSERT_EQ(fcntl(fd, F_SETFL, O_NONBLOCK), 0);
        for (int i = scaled(1, 30); i > 0; --i) {
            if (read(fd, block.data(), block.size()) <= 0) break;
        }
    }

  private:
    std::mt19937 random_;
};

void setSocketBuffers(Filler& filler, const Pair& pair) {
    const int send = filler.scaled(1152, 2'000'000);
    const int receive = filler.scaled(1152, 500'000);
    ASSERT_EQ(setsockopt(pair.writer.get(), SOL_SOCKET, SO_SNDBUF, &send, sizeof send), 0);
    ASSERT_EQ(setsockopt(pair.reader.get(), SOL_SOCKET, SO_RCVBUF, &receive, sizeof receive), 0);
}

void varyBuffers(Filler& filler, const Pair& pair, bool pipe) {
    if (pipe) {
        (void)fcntl(pair.writer.get(), F_SETPIPE_SZ,
                    filler.scaled(4096, 1 << 20));  // EBUSY: what is in it stays
    } else if (filler.between(0, 3) == 0) {
        setSocketBuffers(filler, pair);
    }
    const int lowat = filler.scaled(1024, 1 << 20);
    if (!pipe && filler.between(0, 9) == 0) {
        (void)setsockopt(pair.writer.get(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &lowat,
                         sizeof lowat);  // TCP only
    }
}

TEST_P(KeventWriteOf, BlockingWriteOfTheReportedRoomNeverBlocks) {
    const bool pipe = GetParam().make == pipePair;
    const int states = kSanitized ? 200 : 1500;
    Filler filler(20'241);
    Queue queue;
    Pair pair;
    int written = 0;
    for (int state = 0; state < states; ++state) {
        if (state % 25 == 0) {
            pair = GetParam().make();
            ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
        }
        varyBuffers(filler, pair, pipe);
        filler.writeSome(pair.writer.get());
        if (filler.between(0, 1) == 0) filler.readSome(pair.reader.get());
        const auto events = queue.collect();
        if (events.empty()) {
            filler.readSome(pair.reader.get());
            continue;
        }
        ASSERT_GE(events[0].data, 1);
        const std::string bytes(static_cast<size_t>(events[0].data), 'y');
        const BlockGuard guard;
        ASSERT_EQ(write(pair.writer.get(), bytes.data(), bytes.size()), events[0].data)
            << "state " << state << " errno " << errno;
        ++written;
    }
    EXPECT_GT(written, states / 20);
}

/// The same where READ is armed beside WRITE and was just reported.
TEST_P(KeventWriteOfSocket, BlockingAnswerOfTheReportedRoomNeverBlocks) {
    const int states = kSanitized ? 200 : 1500;
    Filler filler(4'711);
    Queue queue;
    Pair pair;
    int written = 0;
    bool stalled = false;
    for (int state = 0; state < states; ++state) {
        if (state % 25 == 0 || stalled) {
            pair = GetParam().make();
            ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_READ, kArm, 0, 0, 1)), 0);
        }
        varyBuffers(filler, pair, false);
        filler.writeSome(pair.writer.get());
        if (filler.between(0, 1) == 0) filler.readSome(pair.reader.get());
        char question = '?';
        ASSERT_EQ(write(pair.reader.get(), &question, 1), 1);
        // A TCP connection whose windows are nearly closed may keep the question back for seconds: then take
        // another.
        stalled = queue.collect(20).empty();
        if (stalled) continue;
        ASSERT_EQ(read(pair.writer.get(), &question, 1), 1);
        const auto events = queue.collect(0, 8, {change(ident(pair.writer), EVFILT_WRITE, kArm, 0, 0, 1)});
        if (!events.empty()) {
            ASSERT_THAT(events[0], IsEvent(ident(pair.writer), EVFILT_WRITE));
            const std::string bytes(static_cast<size_t>(events[0].data), 'y');
            const BlockGuard guard;
            ASSERT_EQ(write(pair.writer.get(), bytes.data(), bytes.size()), events[0].data)
                << "state " << state << " errno " << errno;
            ++written;
        } else {
            filler.readSome(pair.reader.get());
        }
        ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, EV_DELETE)), 0);
    }
    EXPECT_GT(written, states / 10);
}

}  // namespace
