#include "libio-macOS/EventBlockSlot.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>

namespace {

EventBlock holding(std::shared_ptr<int> value) {
    return [value](RvKQueueEventProtocol*, const char*, std::uint64_t, std::uint64_t*, std::int32_t) {
        return *value != 0;
    };
}

bool isEmpty(EventBlockSlot& slot) {
    return !EventBlockSlot::Use(slot);
}

bool call(EventBlockSlot& slot) {
    return (*EventBlockSlot::Use(slot))(nullptr, nullptr, 0, nullptr, 0);
}

TEST(EventBlockSlot, StartsEmpty) {
    EventBlockSlot slot;
    EXPECT_TRUE(isEmpty(slot));
}

TEST(EventBlockSlot, HoldsWhatWasSetLast) {
    EventBlockSlot slot;
    EXPECT_NE(nullptr, slot.set(holding(std::make_shared<int>(1))));
    EXPECT_TRUE(call(slot));
    EXPECT_NE(nullptr, slot.set(holding(std::make_shared<int>(0))));
    EXPECT_FALSE(call(slot));
}

TEST(EventBlockSlot, ClearReleasesWhatTheBlockHeld) {
    EventBlockSlot slot;
    auto value = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = value;
    slot.set(holding(std::move(value)));
    EXPECT_FALSE(watch.expired());
    slot.clear();
    EXPECT_TRUE(watch.expired());
    EXPECT_TRUE(isEmpty(slot));
}

TEST(EventBlockSlot, ABlockInUseOutlivesTheClearing) {
    EventBlockSlot slot;
    auto value = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = value;
    slot.set(holding(std::move(value)));
    {
        const EventBlockSlot::Use running(slot);
        slot.clear();
        EXPECT_TRUE((*running)(nullptr, nullptr, 0, nullptr, 0));
        EXPECT_FALSE(watch.expired());
    }
    EXPECT_TRUE(watch.expired());
    EXPECT_TRUE(isEmpty(slot));
}

TEST(EventBlockSlot, AUsedBlockGoesWithTheClearing) {
    EventBlockSlot slot;
    auto value = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = value;
    slot.set(holding(std::move(value)));
    EXPECT_TRUE(call(slot));
    slot.clear();
    EXPECT_TRUE(watch.expired());
}

TEST(EventBlockSlot, ABlockThatReplacesTheRunningOneIsUsedNext) {
    EventBlockSlot slot;
    auto value = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = value;
    slot.set(holding(std::move(value)));
    EXPECT_TRUE(call(slot));
    {
        const EventBlockSlot::Use running(slot);
        slot.set(holding(std::make_shared<int>(0)));
        EXPECT_TRUE((*running)(nullptr, nullptr, 0, nullptr, 0));
    }
    EXPECT_TRUE(watch.expired());
    EXPECT_FALSE(call(slot));
}

TEST(EventBlockSlot, AUseMayMeetAnother) {
    EventBlockSlot slot;
    slot.set(holding(std::make_shared<int>(1)));
    const EventBlockSlot::Use outer(slot);
    EXPECT_TRUE(call(slot));
    EXPECT_TRUE((*outer)(nullptr, nullptr, 0, nullptr, 0));
}

TEST(EventBlockSlot, ADestructorMayComeBackToTheSlot) {
    EventBlockSlot slot;
    bool cameBack = false;
    std::shared_ptr<int> value(new int(1), [&](int* number) {
        slot.clear();
        cameBack = true;
        delete number;
    });
    slot.set(holding(std::move(value)));
    slot.set(holding(std::make_shared<int>(0)));
    EXPECT_TRUE(cameBack);
}

}  // namespace
