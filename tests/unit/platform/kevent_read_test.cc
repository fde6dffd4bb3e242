/// EVFILT_READ: when it fires, what data says, and when the end of file is told.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ostream>

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

class KeventReadOf : public testing::TestWithParam<Source> {};

INSTANTIATE_TEST_SUITE_P(Kinds, KeventReadOf,
                         testing::Values(Source{"Unix", unixPair}, Source{"Tcp", tcpPair},
                                         Source{"Pipe", pipePair}),
                         [](const auto& one) { return one.param.name; });

TEST_P(KeventReadOf, SilentUntilBytesCome) {
    const Queue queue;
    const Pair pair = GetParam().make();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm, 0, 0, 4)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    writeAll(pair.writer.get(), "0123456789");
    const auto event = queue.next();
    EXPECT_THAT(event, IsEvent(ident(pair.reader), EVFILT_READ));
    EXPECT_EQ(event.flags, kArm);
    EXPECT_EQ(event.fflags, 0U);
    EXPECT_EQ(event.data, 10);
    EXPECT_EQ(event.udata, markAddress(4));
}

TEST_P(KeventReadOf, LevelComesWithEveryCallUntilRead) {
    const Queue queue;
    const Pair pair = GetParam().make();
    writeAll(pair.writer.get(), "0123456789");
    waitReadable(pair.reader.get(), 10);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    EXPECT_EQ(queue.next().data, 10);
    EXPECT_EQ(queue.next().data, 10);
    readSome(pair.reader.get(), 4);
    EXPECT_EQ(queue.next().data, 6);
    readSome(pair.reader.get(), 6);
    EXPECT_TRUE(queue.collect().empty());
}

TEST_P(KeventReadOf, EndCountsWhatRemainsAndGoesOnFiring) {
    const Queue queue;
    Pair pair = GetParam().make();
    writeAll(pair.writer.get(), "0123456789");
    pair.writer.reset();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    struct kevent event {};
    do {
        event = queue.next();  // the end of a TCP connection may come behind its bytes
        ASSERT_EQ(event.data, 10);
    } while ((event.flags & EV_EOF) == 0);
    EXPECT_EQ(event.flags, kArm | EV_EOF);
    EXPECT_EQ(readSome(pair.reader.get()).size(), 10U);
    for (int i = 0; i < 3; ++i) {
        event = queue.next();
        EXPECT_EQ(event.flags, kArm | EV_EOF);
        EXPECT_EQ(event.data, 0);
    }
}

class KeventReadOfSocket : public KeventReadOf {};

INSTANTIATE_TEST_SUITE_P(Kinds, KeventReadOfSocket,
                         testing::Values(Source{"Unix", unixPair}, Source{"Tcp", tcpPair}),
                         [](const auto& one) { return one.param.name; });

TEST_P(KeventReadOfSocket, HalfClosedPeerIsTheEnd) {
    const Queue queue;
    const Pair pair = GetParam().make();
    writeAll(pair.writer.get(), "0123456789");
    ASSERT_EQ(shutdown(pair.writer.get(), SHUT_WR), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    struct kevent event {};
    do {
        event = queue.next();
        ASSERT_EQ(event.data, 10);
    } while ((event.flags & EV_EOF) == 0);
    readSome(pair.reader.get());
    EXPECT_EQ(queue.next().data, 0);
}

TEST_P(KeventReadOfSocket, OwnShutdownOfReadingIsTheEnd) {
    const Queue queue;
    const Pair pair = GetParam().make();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    ASSERT_EQ(shutdown(pair.reader.get(), SHUT_RD), 0);
    const auto event = queue.next();
    EXPECT_EQ(event.flags, kArm | EV_EOF);
    EXPECT_EQ(event.data, 0);
}

TEST(KeventRead, UnixPeerThatClosesWithBytesUnreadIsTheEnd) {
    const Queue queue;
    Pair pair = unixPair();
    writeAll(pair.reader.get(), "never read");
    writeAll(pair.writer.get(), "abc");
    pair.writer.reset();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    const auto event = queue.next();
    EXPECT_EQ(event.flags, kArm | EV_EOF);
    EXPECT_EQ(event.data, 3);
}

TEST(KeventRead, ErrorOfAResetStaysPendingForTheRead) {
    const Queue queue;
    Pair pair = tcpPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    resetConnection(pair.writer);
    const auto event = queue.next();
    EXPECT_EQ(event.flags, kArm | EV_EOF);
    EXPECT_EQ(event.data, 0);
    EXPECT_EQ(event.fflags, 0U);
    EXPECT_EQ(queue.next().data, 0);
    char byte = 0;
    EXPECT_EQ(read(pair.reader.get(), &byte, 1), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(queue.next().flags, kArm | EV_EOF);
}

TEST(KeventRead, ListeningTcpSocketCountsItsConnections) {
    const Queue queue;
    const Fd listener = listenTcp();
    ASSERT_EQ(queue.apply(change(ident(listener), EVFILT_READ, kArm)), 0);
    ASSERT_EQ(queue.apply(change(ident(listener), EVFILT_WRITE, kArm)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    const Fd first = connectTo(listener.get());
    const Fd second = connectTo(listener.get());
    auto event = queue.next();
    EXPECT_THAT(event, IsEvent(ident(listener), EVFILT_READ));
    EXPECT_EQ(event.flags, kArm);
    EXPECT_EQ(event.data, 2);
    const Fd accepted(accept(listener.get(), nullptr, nullptr));
    EXPECT_EQ(queue.next().data, 1);
    const Fd other(accept(listener.get(), nullptr, nullptr));
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventRead, ListeningUnixSocketFires) {
    const Queue queue;
    const Fd listener(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(sa_family_t)),
              0);  // a free name
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    ASSERT_EQ(listen(listener.get(), 4), 0);
    ASSERT_EQ(queue.apply(change(ident(listener), EVFILT_READ, kArm)), 0);
    ASSERT_EQ(queue.apply(change(ident(listener), EVFILT_WRITE, kArm)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    const Fd client(socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    const auto event = queue.next();
    EXPECT_EQ(event.flags, kArm);
    EXPECT_EQ(event.data, 1) << "AF_UNIX does not tell how many";
    const Fd accepted(accept(listener.get(), nullptr, nullptr));
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventRead, SocketThatListensLaterFiresToo) {
    const Queue queue;
    const Fd listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(queue.apply(change(ident(listener), EVFILT_READ, kArm)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    ASSERT_EQ(listen(listener.get(), 4), 0);
    const Fd client = connectTo(listener.get());
    EXPECT_EQ(queue.next().data, 1);
}

TEST(KeventRead, RegularFileCountsToItsEndAndIsSilentThere) {
    const Queue queue;
    const Fd fd = temporaryFile();
    writeAll(fd.get(), "0123456789");
    ASSERT_EQ(lseek(fd.get(), 4, SEEK_SET), 4);
    ASSERT_EQ(queue.apply(change(ident(fd), EVFILT_READ, kArm, 0, 0, 6)), 0);
    auto event = queue.next();
    EXPECT_EQ(event.data, 6);
    EXPECT_EQ(event.flags, kArm);
    EXPECT_EQ(event.udata, markAddress(6));
    EXPECT_EQ(readSome(fd.get()), "456789");
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    ASSERT_EQ(lseek(fd.get(), 12, SEEK_SET), 12);
    EXPECT_EQ(queue.next().data, -2);
}

TEST(KeventRead, RegularFileThatGrowsDuringTheWaitFires) {
    const Queue queue;
    const Fd fd = temporaryFile();
    ASSERT_EQ(queue.apply(change(ident(fd), EVFILT_READ, kArm)), 0);
    EXPECT_TRUE(queue.collect().empty());
    ASSERT_EQ(pwrite(fd.get(), "abc", 3, 0), 3);
    EXPECT_EQ(queue.next().data, 3);
}

TEST(KeventRead, DeviceThatCannotBeWaitedForIsAlwaysReady) {
    const Queue queue;
    const Fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    ASSERT_EQ(queue.apply(change(ident(null), EVFILT_READ, kArm)), 0);
    for (int i = 0; i < 2; ++i) {
        const auto event = queue.next();
        EXPECT_THAT(event, IsEvent(ident(null), EVFILT_READ));
        EXPECT_EQ(event.flags, kArm);
        EXPECT_EQ(event.data, 1);
    }
    ASSERT_EQ(queue.apply(change(ident(null), EVFILT_READ, EV_DELETE)), 0);
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventRead, DatagramSocketIsNeitherUnconnectedNorEnded) {
    const Queue queue;
    std::array<int, 2> fds{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fds.data()), 0);
    const Fd near(fds[0]);
    const Fd far(fds[1]);
    ASSERT_EQ(queue.apply(change(ident(near), EVFILT_READ, kArm)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    ASSERT_EQ(send(far.get(), "abc", 3, 0), 3);
    auto event = queue.next();
    EXPECT_EQ(event.flags, kArm);
    EXPECT_EQ(event.data, 3);
    EXPECT_EQ(readSome(near.get()), "abc");
    ASSERT_EQ(send(far.get(), "", 0, 0), 0);
    event = queue.next();
    EXPECT_EQ(event.flags, kArm);
    EXPECT_GE(event.data, 1) << "an empty datagram is no end";
    EXPECT_EQ(readSome(near.get()), "");
    EXPECT_TRUE(queue.collect().empty());
    ASSERT_EQ(queue.apply(change(ident(near), EVFILT_WRITE, kArm)), 0);
    EXPECT_GE(queue.next().data, 1);
}

TEST(KeventRead, UrgentMarkIsNotTheEnd) {
    const Queue queue;
    const Pair pair = tcpPair();
    ASSERT_EQ(send(pair.writer.get(), "ab", 2, 0), 2);
    ASSERT_EQ(send(pair.writer.get(), "!", 1, MSG_OOB), 1);
    ASSERT_EQ(send(pair.writer.get(), "cd", 2, 0), 2);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    std::string got;
    waitReadable(pair.reader.get(), 2);
    while (got.size() < 4) {
        const auto event = queue.next();
        ASSERT_EQ(event.flags, kArm);
        if (got.empty()) {
            ASSERT_EQ(event.data, 2) << "up to the mark";
        } else if (got.size() == 2) {
            ASSERT_EQ(event.data, 1) << "nothing counts the bytes behind the mark";
        }
        got += readSome(pair.reader.get(), static_cast<size_t>(event.data));
    }
    EXPECT_EQ(got, "abcd");
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventRead, NoEventWithDataZeroBeforeTheEnd) {
    const Queue queue;
    const Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(queue.next().data, 1);
    readSome(pair.reader.get());  // as another reader would
    EXPECT_TRUE(queue.collect().empty());
}

struct Fresh {
    const char* name;
    int domain;
};

void PrintTo(const Fresh& fresh, std::ostream* out) {
    *out << fresh.name;
}

class KeventNeverConnected : public testing::TestWithParam<Fresh> {};

INSTANTIATE_TEST_SUITE_P(Domains, KeventNeverConnected,
                         testing::Values(Fresh{"Unix", AF_UNIX}, Fresh{"Tcp", AF_INET}),
                         [](const auto& one) { return one.param.name; });

TEST_P(KeventNeverConnected, IsSilentForBothFilters) {
    const Queue queue;
    const Fd fd(socket(GetParam().domain, SOCK_STREAM, 0));
    ASSERT_EQ(queue.apply(change(ident(fd), EVFILT_READ, kArm)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    ASSERT_EQ(queue.apply(change(ident(fd), EVFILT_WRITE, kArm)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    ASSERT_EQ(queue.apply(change(ident(fd), EVFILT_READ, EV_DELETE)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    EXPECT_EQ(queue.apply(change(ident(fd), EVFILT_WRITE, EV_DELETE)), 0);
    EXPECT_EQ(queue.apply(change(ident(fd), EVFILT_WRITE, EV_DELETE)), ENOENT);
}

TEST_P(KeventNeverConnected, WaitsWithoutABusyLoop) {
    const Queue queue;
    const Fd fd(socket(GetParam().domain, SOCK_STREAM, 0));
    ASSERT_EQ(queue.apply(change(ident(fd), EVFILT_WRITE, kArm)), 0);
    timespec before{};
    timespec after{};
    ASSERT_EQ(clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before), 0);
    EXPECT_TRUE(queue.collect(500).empty());
    ASSERT_EQ(clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after), 0);
    const int64_t spent = (after.tv_sec - before.tv_sec) * 1'000'000'000 + after.tv_nsec - before.tv_nsec;
    EXPECT_LT(spent, 250'000'000);  // a busy loop takes all of the 500 ms
}

TEST_P(KeventNeverConnected, FiresOnceItIsConnected) {
    const Queue queue;
    const Fd fd(socket(GetParam().domain, SOCK_STREAM, 0));
    ASSERT_EQ(queue.apply(change(ident(fd), EVFILT_WRITE, kArm)), 0);
    ASSERT_EQ(queue.apply(change(ident(fd), EVFILT_READ, kArm)), 0);
    EXPECT_TRUE(queue.collect().empty());
    const Fd listener(socket(GetParam().domain, SOCK_STREAM, 0));
    sockaddr_storage address{};
    address.ss_family = static_cast<sa_family_t>(GetParam().domain);
    socklen_t size = GetParam().domain == AF_UNIX ? sizeof(sa_family_t) : sizeof(sockaddr_in);
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    size = sizeof address;
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    ASSERT_EQ(listen(listener.get(), 1), 0);
    ASSERT_EQ(connect(fd.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    const auto event = queue.next();
    EXPECT_THAT(event, IsEvent(ident(fd), EVFILT_WRITE));
    EXPECT_EQ(event.flags, kArm);
    const Fd peer(accept(listener.get(), nullptr, nullptr));
    writeAll(peer.get(), "hello");
    waitReadable(fd.get(), 5);
    EXPECT_EQ(queue.nextOf(EVFILT_READ).data, 5);
}

TEST_P(KeventNeverConnected, NumberThatIsClosedHasNoKnotesLeft) {
    const Queue queue;
    Fd fd(socket(GetParam().domain, SOCK_STREAM, 0));
    const int number = fd.get();
    ASSERT_EQ(queue.apply(change(ident(fd), EVFILT_WRITE, kArm)), 0);
    EXPECT_TRUE(queue.collect().empty());
    fd.reset();
    const Pair pair = unixPair();
    ASSERT_EQ(pair.reader.get(), number);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

TEST(KeventRead, EventfdTakenByEdgeGivesOneEventForEachWrite) {
    const Queue queue;
    const Fd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    ASSERT_EQ(queue.apply(change(ident(wake), EVFILT_READ, kArm | EV_CLEAR, 0, 0, 1)), 0);
    EXPECT_TRUE(queue.collect().empty());
    for (int i = 0; i < 100; ++i) {
        const uint64_t one = 1;
        ASSERT_EQ(write(wake.get(), &one, sizeof one), static_cast<ssize_t>(sizeof one));
        const auto event = queue.next();
        EXPECT_THAT(event, IsEvent(ident(wake), EVFILT_READ));
        EXPECT_EQ(event.flags, kArm | EV_CLEAR);
        EXPECT_EQ(event.data, 1);
        ASSERT_TRUE(queue.collect().empty());
    }
}

}  // namespace
