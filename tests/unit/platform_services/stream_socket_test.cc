#include "platform/stream_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/kevent.h"
#include "platform/socket_address.h"

namespace {

const struct sockaddr* generic(const struct sockaddr_un& address) {
    return reinterpret_cast<const struct sockaddr*>(&address);
}

struct sockaddr_un nowhere() {
    struct sockaddr_un address;
    makeUnixAddress("/nowhere/at/all", &address);
    return address;
}

TEST(MakeStreamSocket, IsCloseOnExecAndBlocking) {
    for (const int family : {AF_UNIX, AF_INET}) {
        const int sock = makeStreamSocket(family);
        ASSERT_NE(-1, sock);
        EXPECT_EQ(FD_CLOEXEC, fcntl(sock, F_GETFD));
        EXPECT_EQ(0, fcntl(sock, F_GETFL) & O_NONBLOCK);
        EXPECT_EQ(0, close(sock));
    }
    EXPECT_EQ(-1, makeStreamSocket(250));
}

TEST(ConnectStreamSocket, ARefusedUnixConnectionIsPendingAndThenHungUp) {
    const int sock = makeStreamSocket(AF_UNIX);
    const struct sockaddr_un address = nowhere();
    errno = 0;
    EXPECT_EQ(-1, connectStreamSocket(sock, generic(address), sizeof address));
    EXPECT_EQ(EINPROGRESS, errno);
    EXPECT_EQ(FD_CLOEXEC, fcntl(sock, F_GETFD));
    const int kq = kqueue();
    struct kevent record = {
        static_cast<std::uint64_t>(sock), EVFILT_WRITE, EV_ADD | EV_ENABLE, 0, 0, nullptr};
    const struct timespec limit = {30, 0};
    ASSERT_EQ(1, kevent(kq, &record, 1, &record, 1, &limit));
    EXPECT_EQ(EVFILT_WRITE, record.filter);
    EXPECT_EQ(EV_EOF, record.flags & (EV_EOF | EV_ERROR));
    EXPECT_EQ(0, close(kq));
    EXPECT_EQ(0, close(sock));
}

TEST(ConnectStreamSocket, WithoutADescriptorForTheHangUpTheErrorIsTheConnections) {
    const int sock = makeStreamSocket(AF_UNIX);
    const struct sockaddr_un address = nowhere();
    struct rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    struct rlimit none = before;
    none.rlim_cur = 0;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    const int result = connectStreamSocket(sock, generic(address), sizeof address);
    const int error = errno;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_EQ(-1, result);
    EXPECT_EQ(ENOENT, error);
    EXPECT_EQ(0, close(sock));
}

TEST(ConnectStreamSocket, WhatIsNoRefusalIsReportedAtOnce) {
    const struct sockaddr_un address = nowhere();
    EXPECT_EQ(-1, connectStreamSocket(-1, generic(address), sizeof address));
    EXPECT_EQ(EBADF, errno);
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    EXPECT_EQ(-1, connectStreamSocket(ends[0], generic(address), sizeof address));
    EXPECT_EQ(ENOTSOCK, errno);
    EXPECT_EQ(0, close(ends[0]));
    EXPECT_EQ(0, close(ends[1]));
}

TEST(AcceptStreamSocket, IsCloseOnExec) {
    const int listener = makeStreamSocket(AF_INET);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const any = reinterpret_cast<struct sockaddr*>(&address);
    socklen_t length = sizeof address;
    ASSERT_EQ(0, bind(listener, any, length));
    ASSERT_EQ(0, listen(listener, 1));
    ASSERT_EQ(0, getsockname(listener, any, &length));
    const int client = makeStreamSocket(AF_INET);
    ASSERT_EQ(0, connectStreamSocket(client, any, length));
    struct sockaddr_storage peer = {};
    socklen_t peerLength = sizeof peer;
    const int accepted = acceptStreamSocket(listener, reinterpret_cast<struct sockaddr*>(&peer), &peerLength);
    ASSERT_NE(-1, accepted);
    EXPECT_EQ(FD_CLOEXEC, fcntl(accepted, F_GETFD));
    EXPECT_EQ(AF_INET, peer.ss_family);
    for (const int sock : {accepted, client, listener}) EXPECT_EQ(0, close(sock));
    EXPECT_EQ(-1, acceptStreamSocket(-1, nullptr, nullptr));
    EXPECT_EQ(EBADF, errno);
}

}  // namespace
