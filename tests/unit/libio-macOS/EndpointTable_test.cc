#include "libio-macOS/EndpointTable.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>
#include <vector>

namespace {

class Dummy : public RvKQueueEventProtocol {
  public:
    void enableOnData(EventBlock) noexcept override {}
    void kevent(const struct kevent*) noexcept override {}
    void write(const void*, std::uint64_t) noexcept override {}
    void stop() noexcept override {}
};

std::vector<std::shared_ptr<Dummy>> makeMany(std::size_t count) {
    std::vector<std::shared_ptr<Dummy>> made;
    for (std::size_t i = 0; i < count; ++i) made.push_back(std::make_shared<Dummy>());
    return made;
}

TEST(EndpointTable, StartsEmptyAndFindsNothing) {
    const EndpointTable table;
    const Dummy stranger;
    EXPECT_TRUE(table.isEmpty());
    EXPECT_FALSE(table.contains(&stranger));
    EXPECT_FALSE(table.contains(nullptr));
}

TEST(EndpointTable, HoldsAStrongReferenceUntilItIsTaken) {
    EndpointTable table;
    auto endpoint = std::make_shared<Dummy>();
    ASSERT_TRUE(table.insert(endpoint));
    EXPECT_EQ(2, endpoint.use_count());
    EXPECT_EQ(endpoint, *table.find(endpoint.get()));
    EXPECT_EQ(endpoint, table.take(endpoint.get()));
    EXPECT_EQ(1, endpoint.use_count());
    EXPECT_FALSE(table.take(endpoint.get()));
}

TEST(EndpointTable, InsertingTwiceKeepsOne) {
    EndpointTable table;
    const auto endpoint = std::make_shared<Dummy>();
    ASSERT_TRUE(table.insert(endpoint));
    ASSERT_TRUE(table.insert(endpoint));
    EXPECT_EQ(1u, table.size());
    EXPECT_EQ(2, endpoint.use_count());
}

TEST(EndpointTable, ACopyHasTheSameEndpointsAndIsItsOwn) {
    EndpointTable table;
    EndpointTable copy;
    const auto many = makeMany(100);
    for (const auto& endpoint : many) ASSERT_TRUE(table.insert(endpoint));
    ASSERT_TRUE(copy.copyFrom(table));
    EXPECT_EQ(many[0], table.take(many[0].get()));
    EXPECT_EQ(100u, copy.size());
    for (const auto& endpoint : many) EXPECT_TRUE(copy.contains(endpoint.get()));
}

TEST(EndpointTable, ClearDropsEveryReference) {
    EndpointTable table;
    const auto many = makeMany(50);
    for (const auto& endpoint : many) ASSERT_TRUE(table.insert(endpoint));
    table.clear();
    EXPECT_TRUE(table.isEmpty());
    for (const auto& endpoint : many) EXPECT_EQ(1, endpoint.use_count());
    EXPECT_TRUE(table.insert(many[0]));
}

TEST(EndpointTable, AgreesWithASetThroughComingAndGoing) {
    std::mt19937 random(1);
    EndpointTable table;
    std::set<const void*> expected;
    const auto many = makeMany(300);
    for (int step = 0; step < 20000; ++step) {
        const auto& endpoint = many[random() % many.size()];
        if (random() % 2 == 0) {
            ASSERT_TRUE(table.insert(endpoint));
            expected.insert(endpoint.get());
        } else {
            EXPECT_EQ(expected.erase(endpoint.get()) == 1, table.take(endpoint.get()) != nullptr);
        }
        ASSERT_EQ(expected.size(), table.size());
        const auto& asked = many[random() % many.size()];
        ASSERT_EQ(expected.count(asked.get()) == 1, table.contains(asked.get()));
    }
    std::set<const void*> visited;
    table.forEach([&](const auto& endpoint) { visited.insert(endpoint.get()); });
    EXPECT_EQ(expected, visited);
}

}  // namespace
