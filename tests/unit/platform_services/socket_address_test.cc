#include "platform/socket_address.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <string>

namespace {

socklen_t lengthOfFamily(int family) {
    struct sockaddr address = {};
    address.sa_family = static_cast<sa_family_t>(family);
    return socketAddressLength(&address);
}

TEST(SocketAddress, LengthFollowsFromTheFamily) {
    EXPECT_EQ(sizeof(struct sockaddr_in), lengthOfFamily(AF_INET));
    EXPECT_EQ(sizeof(struct sockaddr_in6), lengthOfFamily(AF_INET6));
    EXPECT_EQ(sizeof(struct sockaddr_un), lengthOfFamily(AF_UNIX));
    EXPECT_EQ(sizeof(struct sockaddr), lengthOfFamily(250));
}

TEST(SocketAddress, AUnixAddressIsThePathAndZeroBytes) {
    struct sockaddr_un address;
    std::memset(&address, 0xff, sizeof address);
    makeUnixAddress("/run/s", &address);
    EXPECT_EQ(AF_UNIX, address.sun_family);
    EXPECT_STREQ("/run/s", address.sun_path);
    for (std::size_t i = 6; i < sizeof address.sun_path; ++i) EXPECT_EQ(0, address.sun_path[i]) << i;
}

TEST(SocketAddress, TheLongestPathFits) {
    const std::string path(103, 'p');
    struct sockaddr_un address;
    makeUnixAddress(path.c_str(), &address);
    EXPECT_EQ(path, address.sun_path);
}

}  // namespace
