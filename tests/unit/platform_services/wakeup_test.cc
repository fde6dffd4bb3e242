#include "platform/wakeup.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "platform/kevent.h"

namespace {

constexpr struct timespec kNoWait = {0, 0};
constexpr struct timespec kLimit = {30, 0};

class WakeupInQueue : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(wakeup.isUsable());
        struct kevent change = {static_cast<std::uint64_t>(wakeup.descriptor()),
                                EVFILT_READ,
                                EV_ADD | EV_ENABLE | EV_CLEAR,
                                0,
                                0,
                                nullptr};
        ASSERT_EQ(0, kevent(kq, &change, 1, &change, 1, &kNoWait));
    }
    void TearDown() override { EXPECT_EQ(0, close(kq)); }

    int wait(const struct timespec& limit) {
        struct kevent event;
        return kevent(kq, nullptr, 0, &event, 1, &limit);
    }

    int kq = kqueue();
    Wakeup wakeup;
};

TEST_F(WakeupInQueue, EachSignalEndsOneWait) {
    EXPECT_EQ(0, wait(kNoWait));
    for (int i = 0; i < 100; ++i) {
        wakeup.signal();
        EXPECT_EQ(1, wait(kNoWait));
        EXPECT_EQ(0, wait(kNoWait));
    }
}

TEST_F(WakeupInQueue, SignalsBeforeAWaitAreOne) {
    wakeup.signal();
    wakeup.signal();
    EXPECT_EQ(1, wait(kNoWait));
    EXPECT_EQ(0, wait(kNoWait));
}

TEST_F(WakeupInQueue, AnotherThreadEndsAWaitUnderWay) {
    std::thread other([this] { wakeup.signal(); });
    EXPECT_EQ(1, wait(kLimit));
    other.join();
}

TEST(Wakeup, IsCloseOnExecAndLeavesErrno) {
    const Wakeup wakeup;
    EXPECT_EQ(FD_CLOEXEC, fcntl(wakeup.descriptor(), F_GETFD));
    errno = ENOENT;
    wakeup.signal();
    EXPECT_EQ(ENOENT, errno);
}

TEST(Wakeup, WithoutADescriptorItDoesNothing) {
    struct rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    struct rlimit none = before;
    none.rlim_cur = 0;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    const Wakeup wakeup;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_FALSE(wakeup.isUsable());
    errno = ENOENT;
    wakeup.signal();
    EXPECT_EQ(ENOENT, errno);
}

}  // namespace
