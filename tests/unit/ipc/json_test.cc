#include "ipc/json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

TEST(JsonReads, BooleanIsANumber) {
    const JsonValue yes(true);
    const JsonValue no(false);
    EXPECT_TRUE(isNumber(&yes));
    EXPECT_TRUE(isNumber(&no));
    EXPECT_EQ(asUint32(&yes), 1U);
    EXPECT_EQ(asUint32(&no), 0U);
}

TEST(JsonReads, NumberIsABoolean) {
    const struct {
        JsonValue value;
        bool expected;
    } rows[] = {{0, false},    {1, true},   {-1, true},    {256, true},
                {0U, false},   {1U, true},  {2U, true},    {std::numeric_limits<std::uint64_t>::max(), true},
                {0.0, false},  {0.5, true}, {-0.0, false}, {4294967296LL, true},
                {1e-300, true}};
    for (const auto& [value, expected] : rows) {
        EXPECT_EQ(asBool(&value), expected) << value.kind();
    }
}

TEST(JsonReads, OtherTypesAreNeitherNumberNorString) {
    const JsonValue values[] = {nullptr, JsonArray{1}, JsonObject{{"a", 1}}};
    for (const JsonValue& value : values) {
        EXPECT_FALSE(isNumber(&value));
        EXPECT_FALSE(isString(&value));
        EXPECT_EQ(asUint32(&value), 0U);
        EXPECT_FALSE(asBool(&value));
        EXPECT_EQ(asText(&value), "");
    }
    EXPECT_FALSE(isNumber(nullptr));
    EXPECT_FALSE(isString(nullptr));
    EXPECT_EQ(asUint32(nullptr), 0U);
    EXPECT_FALSE(asBool(nullptr));
    EXPECT_EQ(asText(nullptr), "");
    const JsonValue text("7");
    EXPECT_FALSE(isNumber(&text));
    EXPECT_EQ(asUint32(&text), 0U);
    EXPECT_FALSE(asBool(&text));
}

TEST(JsonReads, NumbersReadAsTheirLowBits) {
    const struct {
        JsonValue value;
        std::uint32_t expected;
    } rows[] = {
        {0, 0},
        {65537, 65537},
        {-1, 0xffffffff},
        {-2147483648LL, 0x80000000},
        {4294967296LL, 0},
        {4294967301LL, 5},
        {9007199254740993LL, 1},
        {std::numeric_limits<std::int64_t>::min(), 0},
        {std::numeric_limits<std::uint64_t>::max(), 0xffffffff},
        {1.9, 1},
        {-1.9, 0xffffffff},
        {4294967297.5, 1},
        {1e300, 0},
        {std::numeric_limits<double>::infinity(), 0},
        {std::nan(""), 0},
    };
    for (const auto& [value, expected] : rows) {
        EXPECT_EQ(asUint32(&value), expected);
        EXPECT_EQ(asUint16(&value), expected & 0xffff);
        EXPECT_EQ(asUint8(&value), expected & 0xff);
    }
}

TEST(JsonReads, TextEndsAtTheFirstNul) {
    const JsonValue text(boost::json::string_view("ab\0c", 4));
    EXPECT_EQ(asText(&text), "ab");
}

TEST(JsonReads, MembersByType) {
    const JsonObject object = {
        {"n", 1}, {"b", true}, {"s", "x"}, {"a", JsonArray{1}}, {"o", JsonObject{{"k", 1}}}, {"z", nullptr}};
    EXPECT_NE(member(object, "z"), nullptr) << "a member that holds null is present";
    EXPECT_EQ(member(object, "missing"), nullptr);
    EXPECT_NE(numberMember(object, "n"), nullptr);
    EXPECT_NE(numberMember(object, "b"), nullptr);
    EXPECT_EQ(numberMember(object, "s"), nullptr);
    EXPECT_EQ(numberMember(object, "z"), nullptr);
    EXPECT_NE(stringMember(object, "s"), nullptr);
    EXPECT_EQ(stringMember(object, "n"), nullptr);
    EXPECT_NE(arrayMember(object, "a"), nullptr);
    EXPECT_EQ(arrayMember(object, "o"), nullptr);
    EXPECT_EQ(arrayMember(object, "missing"), nullptr);
    EXPECT_NE(objectMember(object, "o"), nullptr);
    EXPECT_EQ(objectMember(object, "a"), nullptr);
    EXPECT_EQ(objectMember(object, "missing"), nullptr);
}

}  // namespace
