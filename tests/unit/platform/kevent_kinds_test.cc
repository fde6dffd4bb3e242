/// Kinds of files beside the usual ones: TCP over IPv6, sequenced packets, datagrams with errors, terminals.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdlib.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "kevent_support.h"

namespace {

using namespace keventtest;

uint64_t ident(const Fd& fd) {
    return static_cast<uint64_t>(fd.get());
}

Pair packetPair() {
    std::array<int, 2> fds{-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds.data()), 0);
    return {Fd(fds[0]), Fd(fds[1])};
}

/// What a blocking write to an empty TCP connection takes for certain.
int64_t roomOfTcp(int fd) {
    std::array<uint32_t, SK_MEMINFO_VARS> memory{};
    socklen_t size = sizeof memory;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_MEMINFO, memory.data(), &size), 0);
    int mss = 0;
    size = sizeof mss;
    EXPECT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_MAXSEG, &mss, &size), 0);
    const int64_t room = int64_t{memory[SK_MEMINFO_SNDBUF]} - memory[SK_MEMINFO_WMEM_QUEUED];
    return room * mss / (mss + 2048);
}

/// WRITE alone, and beside a READ that was just reported.
void expectRoom(const Pair& pair, int64_t room) {
    const Queue queue;
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    EXPECT_EQ(queue.next().data, room);
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, EV_DELETE)), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_READ, kArm, 0, 0, 1)), 0);
    writeAll(pair.reader.get(), "question");
    EXPECT_THAT(queue.next(), IsEvent(ident(pair.writer), EVFILT_READ));
    EXPECT_EQ(readSome(pair.writer.get()), "question");
    const auto events = queue.collect(kLimitMs, 8, {change(ident(pair.writer), EVFILT_WRITE, kArm, 0, 0, 1)});
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].data, room);
}

TEST(KeventKinds, RoomOfAnIdleTcpSocketLeavesWhatItsSegmentsCost) {
    const Pair pair = tcpPair();
    expectRoom(pair, roomOfTcp(pair.writer.get()));
}

TEST(KeventKinds, RoomOfAnIdleUnixSocketIsTheSameBesideRead) {
    const Pair pair = unixPair();
    int buffer = 0;
    socklen_t size = sizeof buffer;
    ASSERT_EQ(getsockopt(pair.writer.get(), SOL_SOCKET, SO_SNDBUF, &buffer, &size), 0);
    expectRoom(pair, buffer / 2 - 64);
}

TEST(KeventKinds, TcpOverIpv6IsTcp) {
    const Fd listener(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    socklen_t size = sizeof address;
    if (listener.get() == -1 || bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size) != 0) {
        GTEST_SKIP() << "no IPv6 here";
    }
    ASSERT_EQ(listen(listener.get(), 4), 0);
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    Fd first(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const Fd second(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    for (const int one : {first.get(), second.get()}) {
        ASSERT_EQ(connect(one, reinterpret_cast<sockaddr*>(&address), size), 0);
    }
    const Queue queue;
    ASSERT_EQ(queue.apply(change(ident(listener), EVFILT_READ, kArm)), 0);
    EXPECT_EQ(queue.next().data, 2);
    const Pair pair{std::move(first), Fd(accept(listener.get(), nullptr, nullptr))};
    expectRoom(pair, roomOfTcp(pair.writer.get()));
}

/// Its segments are not those of one TCP connection.
TEST(KeventKinds, MultipathTcpPromisesOneByte) {
    constexpr int kMultipath = 262;
    const Fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, kMultipath));
    if (listener.get() == -1) GTEST_SKIP() << "the kernel has none";
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(listen(listener.get(), 4), 0);
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    const Fd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, kMultipath));
    ASSERT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    const Queue queue;
    ASSERT_EQ(queue.apply(change(ident(client), EVFILT_WRITE, kArm)), 0);
    EXPECT_EQ(queue.next().data, 1);
}

TEST(KeventKinds, SequencedPacketsAreAStreamWithAnEnd) {
    const Queue queue;
    Pair pair = packetPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    writeAll(pair.writer.get(), "abc");
    EXPECT_EQ(queue.next().data, 3);
    EXPECT_EQ(readSome(pair.reader.get()), "abc");
    EXPECT_TRUE(queue.collect().empty());
    pair.writer.reset();
    const auto event = queue.next();
    EXPECT_EQ(event.flags, kArm | EV_EOF);
    EXPECT_EQ(event.data, 0);
}

TEST(KeventKinds, LookingForRoomSendsNoEmptyPacket) {
    const Queue queue;
    const Pair pair = packetPair();
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    for (int i = 0; i < 3; ++i) {
        const auto event = queue.next();
        EXPECT_THAT(event, IsEvent(ident(pair.writer), EVFILT_WRITE));
        EXPECT_EQ(event.flags, kArm);
        EXPECT_EQ(event.data, 1);
    }
}

TEST(KeventKinds, SequencedPacketsThatWereNeverConnectedAreSilent) {
    const Queue queue;
    const Fd fresh(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    ASSERT_EQ(queue.apply(change(ident(fresh), EVFILT_WRITE, kArm)), 0);
    ASSERT_EQ(queue.apply(change(ident(fresh), EVFILT_READ, kArm)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

TEST(KeventKinds, ErrorOfADatagramSocketIsLeftForTheRead) {
    Fd closed(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(bind(closed.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(getsockname(closed.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    const Fd sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(sender.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    closed.reset();
    const Queue queue;
    ASSERT_EQ(queue.apply(change(ident(sender), EVFILT_READ, kArm)), 0);
    writeAll(sender.get(), "to nobody");
    const auto event = queue.next();
    EXPECT_EQ(event.flags, kArm);
    EXPECT_EQ(event.data, 1);
    char byte = 0;
    EXPECT_EQ(read(sender.get(), &byte, 1), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(KeventKinds, TerminalCountsALineAndEndsWithItsOtherSide) {
    Fd master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_NE(master.get(), -1);
    ASSERT_EQ(grantpt(master.get()), 0);
    ASSERT_EQ(unlockpt(master.get()), 0);
    std::array<char, 64> name{};
    ASSERT_EQ(ptsname_r(master.get(), name.data(), name.size()), 0);
    const Fd terminal(open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_NE(terminal.get(), -1);
    const Queue queue;
    ASSERT_EQ(queue.apply(change(ident(terminal), EVFILT_READ, kArm)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    writeAll(master.get(), "line\n");
    auto event = queue.next();
    EXPECT_EQ(event.flags, kArm);
    EXPECT_EQ(event.data, 5);
    EXPECT_EQ(readSome(terminal.get()), "line\n");
    EXPECT_TRUE(queue.collect().empty());
    ASSERT_EQ(queue.apply(change(ident(terminal), EVFILT_WRITE, kArm)), 0);
    event = queue.next();
    EXPECT_EQ(event.flags, kArm);
    EXPECT_EQ(event.data, 1);
    ASSERT_EQ(queue.apply(change(ident(terminal), EVFILT_WRITE, EV_DELETE)), 0);
    master.reset();
    event = queue.next();
    EXPECT_EQ(event.flags, kArm | EV_EOF);
    EXPECT_EQ(readSome(terminal.get()), "");
}

TEST(KeventKinds, FileThatCountsNothingHasOneByteToRead) {
    const Queue queue;
    const Fd timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    ASSERT_EQ(queue.apply(change(ident(timer), EVFILT_READ, kArm)), 0);
    EXPECT_TRUE(queue.collect().empty());
    const itimerspec soon{{0, 0}, {0, 1}};
    ASSERT_EQ(timerfd_settime(timer.get(), 0, &soon, nullptr), 0);
    for (int i = 0; i < 2; ++i) {
        const auto event = queue.next();
        EXPECT_EQ(event.flags, kArm);
        EXPECT_EQ(event.data, 1);
    }
}

TEST(KeventKinds, SmallestSendBufferHasRoomForAByte) {
    const Queue queue;
    const Pair pair = unixPair();
    const int smallest = 1;
    ASSERT_EQ(setsockopt(pair.writer.get(), SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.writer), EVFILT_WRITE, kArm)), 0);
    ASSERT_EQ(fcntl(pair.writer.get(), F_SETFL, O_NONBLOCK), 0);
    for (auto events = queue.collect(); !events.empty(); events = queue.collect()) {
        ASSERT_GE(events[0].data, 1);
        ASSERT_EQ(write(pair.writer.get(), "x", 1), 1);
    }
}

}  // namespace
