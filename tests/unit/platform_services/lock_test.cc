#include "platform/lock.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

template <class LockType>
void expectExclusion(LockType& lock) {
    long counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 10000; ++round) {
                const LockGuard guard(lock);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(40000, counter);
}

TEST(RecursiveLock, ExcludesOtherThreads) {
    RecursiveLock lock;
    ASSERT_TRUE(lock.isUsable());
    expectExclusion(lock);
}

// The analysis of clang takes every second lock for a mistake.
void lockTwiceAndUnlockOnce(RecursiveLock& lock) RV_NO_THREAD_SAFETY_ANALYSIS {
    lock.lock();
    lock.lock();
    lock.unlock();
}

void unlockOnce(RecursiveLock& lock) RV_NO_THREAD_SAFETY_ANALYSIS {
    lock.unlock();
}

TEST(RecursiveLock, IsFreeAfterAsManyUnlocks) {
    RecursiveLock lock;
    lockTwiceAndUnlockOnce(lock);
    bool wasTaken = false;
    std::thread other([&] {
        const LockGuard guard(lock);
        wasTaken = true;
    });
    unlockOnce(lock);
    other.join();
    EXPECT_TRUE(wasTaken);
}

TEST(Lock, ExcludesOtherThreads) {
    Lock lock;
    expectExclusion(lock);
}

}  // namespace
