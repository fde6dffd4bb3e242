#include "demo/happenings.h"

#include <gtest/gtest.h>

#include "unit/demo/demo_support.h"

namespace demo {
namespace {

constexpr char kPlugged[] = R"(4 {"id":3,"name":"Memory stick","state":"plugged"})";
constexpr char kConnected[] = R"(5 {"state":"connected","addr":"192.0.2.77","port":50312})";
constexpr char kInUse[] = R"(4 {"id":3,"name":"Memory stick","state":"in use","addr":"192.0.2.77"})";
constexpr char kFree[] = R"(4 {"id":3,"name":"Memory stick","state":"shared"})";
constexpr char kDisconnected[] = R"(5 {"state":"disconnected","addr":"192.0.2.77","port":50312})";
constexpr char kUnplugged[] = R"(4 {"id":3,"name":"Memory stick","state":"unplugged"})";
constexpr char kPluggedAgain[] = R"(4 {"id":4,"name":"Memory stick","state":"plugged"})";

std::string happen(State& state, Happenings& happenings) {
    happenings.next();
    const std::vector<std::string> told = texts(state.takeEvents());
    return told.size() == 1 ? told.front() : "not one event";
}

TEST(DemoHappenings, OneThingHappensAtATimeAndTheRoundBeginsAgain) {
    State state = makeState(R"([{"action":"share"}])");
    Happenings happenings(state);
    for (const char* event :
         {kPlugged, kConnected, kInUse, kFree, kDisconnected, kUnplugged, kPluggedAgain}) {
        EXPECT_EQ(happen(state, happenings), event);
    }
}

TEST(DemoHappenings, WhatTheRulesRefuseIsLeftOut) {
    State state = makeState("[]");
    Happenings happenings(state);
    for (const char* event : {kPlugged, kConnected, kDisconnected, kUnplugged}) {
        EXPECT_EQ(happen(state, happenings), event);
    }
}

TEST(DemoHappenings, ClientsMayHaveBeenFaster) {
    State state = makeState(R"([{"action":"share"}])");
    Happenings happenings(state);
    EXPECT_EQ(happen(state, happenings), kPlugged);
    EXPECT_EQ(happen(state, happenings), kConnected);
    ASSERT_EQ(state.dropConnections("192.0.2.77", std::nullopt), 1U);
    (void)state.takeEvents();
    EXPECT_EQ(happen(state, happenings), kUnplugged);
}

}  // namespace
}  // namespace demo
