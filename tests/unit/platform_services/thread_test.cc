#include "platform/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

void waitUntilFinished(const Thread& thread) {
    while (!thread.isFinished()) std::this_thread::yield();
}

TEST(Thread, RunsItsBodyOnceStarted) {
    std::atomic<int> runs{0};
    const auto thread =
        Thread::create([](void* counter) { ++*static_cast<std::atomic<int>*>(counter); }, &runs);
    ASSERT_TRUE(thread);
    thread->start();
    waitUntilFinished(*thread);
    EXPECT_EQ(1, runs);
}

TEST(Thread, ThatWasNeverStartedRunsNothing) {
    std::atomic<int> runs{0};
    auto thread = Thread::create([](void* counter) { ++*static_cast<std::atomic<int>*>(counter); }, &runs);
    EXPECT_TRUE(thread->isFinished());
    thread.reset();  // joins it
    EXPECT_EQ(0, runs);
}

TEST(Thread, IsToldOfItsCancellation) {
    struct Shared {
        std::unique_ptr<Thread> thread;
        std::atomic<bool> isRunning{false};
    } shared;
    shared.thread = Thread::create(
        [](void* argument) {
            auto* const own = static_cast<Shared*>(argument);
            own->isRunning = true;
            while (!own->thread->isCancelled()) std::this_thread::yield();
        },
        &shared);
    EXPECT_FALSE(shared.thread->isCancelled());
    shared.thread->start();
    while (!shared.isRunning) std::this_thread::yield();
    EXPECT_FALSE(shared.thread->isFinished());
    shared.thread->cancel();
    EXPECT_TRUE(shared.thread->isCancelled());
    waitUntilFinished(*shared.thread);
}

TEST(Thread, WhatItDidIsVisibleOnceItHasFinished) {
    int plain = 0;
    const auto thread = Thread::create([](void* number) { *static_cast<int*>(number) = 42; }, &plain);
    thread->start();
    waitUntilFinished(*thread);
    EXPECT_EQ(42, plain);
}

TEST(Thread, MayDestroyItsOwnObject) {
    struct Shared {
        std::unique_ptr<Thread> thread;
        std::atomic<bool> isDone{false};
    };
    auto* const shared = new Shared;
    shared->thread = Thread::create(
        [](void* argument) {
            auto* const own = static_cast<Shared*>(argument);
            own->thread.reset();
            own->isDone = true;
        },
        shared);
    shared->thread->start();
    while (!shared->isDone) std::this_thread::yield();
    delete shared;
}

}  // namespace
