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

bool call(const EventBlockSlot::Pointer& block) {
    return (*block)(nullptr, nullptr, 0, nullptr, 0);
}

TEST(EventBlockSlot, StartsEmpty) {
    const EventBlockSlot slot;
    EXPECT_EQ(nullptr, slot.get());
}

TEST(EventBlockSlot, HoldsWhatWasSetLast) {
    EventBlockSlot slot;
    EXPECT_NE(nullptr, slot.set(holding(std::make_shared<int>(1))));
    EXPECT_TRUE(call(slot.get()));
    EXPECT_NE(nullptr, slot.set(holding(std::make_shared<int>(0))));
    EXPECT_FALSE(call(slot.get()));
}

TEST(EventBlockSlot, ClearReleasesWhatTheBlockHeld) {
    EventBlockSlot slot;
    auto value = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = value;
    slot.set(holding(std::move(value)));
    EXPECT_FALSE(watch.expired());
    slot.clear();
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(nullptr, slot.get());
}

TEST(EventBlockSlot, ABlockInUseOutlivesTheClearing) {
    EventBlockSlot slot;
    auto value = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = value;
    slot.set(holding(std::move(value)));
    {
        const EventBlockSlot::Pointer running = slot.get();
        slot.clear();
        EXPECT_TRUE(call(running));
    }
    EXPECT_TRUE(watch.expired());
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
