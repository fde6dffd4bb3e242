#include "demo/socket_place.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

namespace demo {
namespace {

constexpr char kPath[] = "/tmp/place.sock";

/// A socket bound to kPath, listening or (what a daemon that was killed leaves behind) not.
class Bound {
  public:
    explicit Bound(bool listens) {
        (void)unlink(kPath);
        struct sockaddr_un address {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, kPath, sizeof kPath);
        EXPECT_EQ(bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address), 0);
        if (listens) {
            EXPECT_EQ(listen(fd, 1), 0);
        }
    }
    ~Bound() { (void)close(fd); }

  private:
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
};

bool exists(const char* path) {
    struct stat found {};
    return lstat(path, &found) == 0;
}

class SocketPlaceTest : public testing::Test {
  protected:
    ~SocketPlaceTest() override { (void)unlink(kPath); }
};

TEST_F(SocketPlaceTest, AFreePlaceIsFine) {
    EXPECT_EQ(SocketPlace(kPath).findObstacle(), "");
}

TEST_F(SocketPlaceTest, ASocketThatNobodyListensOnIsNoObstacle) {
    const Bound stale(false);
    EXPECT_EQ(SocketPlace(kPath).findObstacle(), "");
    EXPECT_TRUE(exists(kPath));
}

TEST_F(SocketPlaceTest, ADaemonThatAnswersIsNotDrivenOut) {
    const Bound other(true);
    EXPECT_EQ(SocketPlace(kPath).findObstacle(), "a daemon is running there already");
}

TEST_F(SocketPlaceTest, AnotherFileIsNotReplaced) {
    std::ofstream(kPath) << "text";
    EXPECT_EQ(SocketPlace(kPath).findObstacle(), "there is a file of that name");
}

TEST_F(SocketPlaceTest, TheDirectoryMustExist) {
    EXPECT_EQ(SocketPlace("/tmp/missing/place.sock").findObstacle(), "No such file or directory");
}

TEST_F(SocketPlaceTest, ThePathMustFitAnAddress) {
    const std::string longest = "/tmp/" + std::string(98, 'x');
    EXPECT_EQ(SocketPlace(longest).findObstacle(), "");
    EXPECT_EQ(SocketPlace(longest + "x").findObstacle(), "a socket's path has 1 to 103 bytes");
    EXPECT_EQ(SocketPlace("").findObstacle(), "a socket's path has 1 to 103 bytes");
}

TEST_F(SocketPlaceTest, OurSocketIsRemovedAtTheEnd) {
    const Bound ours(true);
    {
        SocketPlace place(kPath);
        place.noteSocket();
        EXPECT_TRUE(exists(kPath));
    }
    EXPECT_FALSE(exists(kPath));
}

TEST_F(SocketPlaceTest, TheSocketOfASuccessorStays) {
    const Bound ours(true);
    {
        SocketPlace place(kPath);
        place.noteSocket();
        ASSERT_EQ(rename(kPath, "/tmp/old.sock"), 0);  // the file lives on, so its number is not used again
        const Bound successor(true);
    }
    EXPECT_TRUE(exists(kPath));
    (void)unlink("/tmp/old.sock");
}

TEST_F(SocketPlaceTest, WithoutASocketOfOursNothingIsRemoved) {
    const Bound other(true);
    { const SocketPlace place(kPath); }
    EXPECT_TRUE(exists(kPath));
}

}  // namespace
}  // namespace demo
