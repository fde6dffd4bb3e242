#include "reports/preference_report.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "unit/reports/report_output.h"

namespace {

constexpr std::string_view kHeader = "VID:PID:REV\tPreferences\n";

std::string report(std::string_view json) {
    return printed(json, outputPrefList);
}

TEST(PreferenceReport, NoDevicesPrintTheHeaderAlone) {
    EXPECT_EQ(report("{}"), kHeader);
}

TEST(PreferenceReport, EveryNameIsFollowedByABlank) {
    EXPECT_EQ(report(R"({"046d:c31c":{"grab_on_plug":true,"other":false}})"),
              std::string(kHeader) + "046d:c31c\tgrab_on_plug other \n");
}

TEST(PreferenceReport, DeviceWithoutPreferencesPrintsItsIdentityAndATab) {
    EXPECT_EQ(report(R"({"046d":{}})"), std::string(kHeader) + "046d\t\n");
}

TEST(PreferenceReport, DaemonsOrderIsKept) {
    EXPECT_EQ(report(R"({"b":{"z":1,"a":1},"a":{}})"), std::string(kHeader) + "b\tz a \na\t\n");
}

TEST(PreferenceReport, ValuesAreNotLookedAt) {
    EXPECT_EQ(report(R"({"a":{"p":null,"q":[1],"r":"x"}})"), std::string(kHeader) + "a\tp q r \n");
}

TEST(PreferenceReport, TextIsPrintedVerbatimUpToItsFirstNul) {
    EXPECT_EQ(report(R"({"\u00e4\t%s":{"\u00fc\n":1},"046d\u0000x":{"grab\u0000y":1}})"),
              std::string(kHeader) + "\xc3\xa4\t%s\t\xc3\xbc\n \n046d\tgrab \n");
}

TEST(PreferenceReport, EntriesThatAreNoDictionaryAreSkipped) {
    EXPECT_EQ(report(R"({"a":1,"b":null,"c":[],"d":"x","e":true,"f":{"p":1}})"),
              std::string(kHeader) + "f\tp \n");
}

}  // namespace
