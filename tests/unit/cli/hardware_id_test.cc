#include "cli/hardware_id.h"

#include <gtest/gtest.h>

namespace {

TEST(ValidateHwid, Table) {
    const struct {
        const char* text;
        const char* id;  ///< null: refused
    } rows[] = {
        {"A", "000a"},
        {"0A5C:4500", "0a5c:4500"},
        {"1:2:3", "0001:0002:0003"},
        {"abcd:ef01:2345", "abcd:ef01:2345"},
        {"ABCD:EF01:2345", "abcd:ef01:2345"},
        {"0", "0000"},
        {"9:9", "0009:0009"},
        {"", nullptr},
        {":", nullptr},
        {"::", nullptr},
        {":12", nullptr},
        {"12:", nullptr},
        {"12::3", nullptr},
        {"12:3:", nullptr},
        {"12345", nullptr},
        {"00001", nullptr},
        {"1:12345", nullptr},
        {"1:2:12345", nullptr},
        {"1:2:3:4", nullptr},
        {"1:2:3:4444", nullptr},
        {"1:2:3:", nullptr},
        {"12g4", nullptr},
        {"g", nullptr},
        {"1:g", nullptr},
        {"1:2:g", nullptr},
        {"0x1", nullptr},
        {" 1", nullptr},
        {"1 ", nullptr},
        {"-1", nullptr},
        {"@", nullptr},
        {"[", nullptr},
        {"\xc3\xa4", nullptr},
    };
    for (const auto& [text, id] : rows) {
        const std::optional<std::string> result = validate_hwid(text);
        EXPECT_EQ(result.has_value(), id != nullptr) << text;
        if (result && id != nullptr) {
            EXPECT_EQ(*result, id) << text;
        }
    }
}

TEST(HextstrToNumber, Table) {
    const struct {
        const char* text;
        int value;  ///< -1: refused
    } rows[] = {
        {"ff", 255},
        {"FF", 255},
        {"0x1F", 31},
        {"0", 0},
        {"12345", 0x2345},
        {" 1f", 31},
        {"+f", 15},
        {"-1", 0xffff},
        {"10000", 0},
        {"", -1},
        {"12z", -1},
        {"z", -1},
        {" ", -1},
        {"0x", -1},
        {"1 ", -1},
        {"0xg", -1},
        {"ffffffffffffffffff", 0xffff},
    };
    for (const auto& [text, value] : rows) {
        const std::optional<std::uint16_t> result = hextstr_to_number(text);
        EXPECT_EQ(result ? static_cast<int>(*result) : -1, value) << '"' << text << '"';
    }
}

}  // namespace
