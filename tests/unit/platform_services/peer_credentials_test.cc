#include "platform/peer_credentials.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

TEST(PeerCredentials, AreThoseOfTheProcessAtTheOtherEnd) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    PeerCredentials peer = {};
    ASSERT_TRUE(getPeerCredentials(ends[0], &peer));
    EXPECT_EQ(getuid(), peer.userId);
    EXPECT_EQ(getgid(), peer.groupId);
    EXPECT_EQ(getpid(), peer.processId);
    EXPECT_EQ(0, close(ends[1]));
    EXPECT_TRUE(getPeerCredentials(ends[0], &peer));  // they outlive the peer
    EXPECT_EQ(0, close(ends[0]));
}

TEST(PeerCredentials, ASocketWithoutAPeerHasNone) {
    const int unixSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int inetSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    PeerCredentials peer = {1, 2, 3};
    EXPECT_FALSE(getPeerCredentials(unixSocket, &peer));
    EXPECT_FALSE(getPeerCredentials(inetSocket, &peer));
    EXPECT_FALSE(getPeerCredentials(-1, &peer));
    EXPECT_EQ(1u, peer.userId);
    EXPECT_EQ(2u, peer.groupId);
    EXPECT_EQ(3, peer.processId);
    EXPECT_EQ(0, close(unixSocket));
    EXPECT_EQ(0, close(inetSocket));
}

}  // namespace
