// pref, pref add and pref remove.
#include <gtest/gtest.h>

#include "cli/cli_support.h"

namespace cli {
namespace {

const std::string kHeading = "VID:PID:REV\tPreferences\n";

struct Row {
    const char* name;
    const char* reply;
    int status;
    std::string out;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

class Pref : public ::testing::TestWithParam<Row> {};

TEST_P(Pref, IsPrinted) {
    const Exchange exchange = converse(tool({"pref"}), Script().reply(kPreferences, GetParam().reply));
    expectResult(exchange.tool, GetParam().status, GetParam().out, "");
    expectRequests(exchange, {{kPreferences, ""}});
}

INSTANTIATE_TEST_SUITE_P(
    Replies, Pref,
    ::testing::Values(Row{"OkWithoutPreferences", R"({"status":"ok"})", kIo, ""},
                      Row{"PreferencesIsAnArray", R"({"status":"ok","preferences":[]})", kIo, ""},
                      Row{"PreferencesIsAString", R"({"status":"ok","preferences":"x"})", kIo, ""},
                      Row{"PreferencesIsNull", R"({"status":"ok","preferences":null})", kIo, ""},
                      Row{"PreferencesWithoutStatus", R"({"preferences":{}})", kIo, ""},
                      Row{"NoPreferences", R"({"status":"ok","preferences":{}})", kOk, kHeading},
                      Row{"OneDevice", R"({"status":"ok","preferences":{"0a5c:4500":{"grab_on_plug":true}}})",
                          kOk, kHeading + "0a5c:4500\tgrab_on_plug \n"},
                      Row{"ValueIsNotLookedAt",
                          R"({"status":"ok","preferences":{"0a5c":{"grab_on_plug":false}}})", kOk,
                          kHeading + "0a5c\tgrab_on_plug \n"},
                      Row{"DeviceWithoutPreferences", R"({"status":"ok","preferences":{"0a5c":{}}})", kOk,
                          kHeading + "0a5c\t\n"},
                      Row{"FormatsAreText", R"({"status":"ok","preferences":{"%s":{"%n":1}}})", kOk,
                          kHeading + "%s\t%n \n"}),
    [](const auto& row) { return std::string(row.param.name); });

// The order of devices and of names is nobody's promise.
TEST(PrefList, SeveralDevicesInAnyOrder) {
    const Exchange exchange =
        converse(tool({"pref", "list"}),
                 Script().reply(kPreferences,
                                R"({"status":"ok","preferences":{"0001":{"a":1,"b":2},"0002":{"c":3}}})"));
    EXPECT_EQ(kOk, exchange.tool.status);
    std::string out = exchange.tool.out;
    ASSERT_TRUE(out.starts_with(kHeading));
    out.erase(0, kHeading.size());
    EXPECT_TRUE(out == "0001\ta b \n0002\tc \n" || out == "0001\tb a \n0002\tc \n" ||
                out == "0002\tc \n0001\ta b \n" || out == "0002\tc \n0001\tb a \n")
        << out;
}

struct Ending {
    const char* name;
    Words words;
};

void PrintTo(const Ending& row, std::ostream* out) {
    *out << row.name;
}

class PrefFirstFrame : public ::testing::TestWithParam<Ending> {};

// Whatever comes first is taken as the reply, whatever its code.
TEST_P(PrefFirstFrame, OfAnyCodeWithoutStatusIsAFailure) {
    Script script;
    script.receive()
        .sendFrame(kRulesChanged, "{}")
        .sendFrame(kPreferences, R"({"status":"ok","preferences":{}})");
    expectResult(converse(tool(GetParam().words), script).tool, kIo, "", "");
}

TEST_P(PrefFirstFrame, OfAnyCodeWithStatusOkIsASuccess) {
    Script script;
    script.receive()
        .sendFrame(99, R"({"status":"ok","preferences":{}})")
        .sendFrame(kPreferences, kReplyNotFound);
    const bool lists = GetParam().words.size() < 3;
    expectResult(converse(tool(GetParam().words), script).tool, kOk, lists ? kHeading : "", "");
}

INSTANTIATE_TEST_SUITE_P(Commands, PrefFirstFrame,
                         ::testing::Values(Ending{"Alone", {"pref"}}, Ending{"List", {"pref", "list"}},
                                           Ending{"Add", {"pref", "add", "1", "grab_on_plug"}},
                                           Ending{"Remove", {"pref", "remove", "1"}}),
                         [](const auto& row) { return std::string(row.param.name); });

struct HardwareId {
    const char* name;
    const char* typed;
    const char* sent;  ///< null: refused
};

void PrintTo(const HardwareId& row, std::ostream* out) {
    *out << row.name;
}

class PrefHardwareId : public ::testing::TestWithParam<HardwareId> {
  protected:
    static void expectSent(const Words& words, std::uint32_t code, const std::string& body) {
        const Exchange exchange = converse(tool(words), Script().reply(code, kReplyOk));
        if (GetParam().sent == nullptr) {
            expectResult(exchange.tool, kIo, "", "Error: cannot get hardware Id.\n");
            expectNoContact(exchange);
            return;
        }
        expectResult(exchange.tool, kOk, "", "");
        expectRequests(exchange, {{code, body}});
    }
    static std::string hwid() {
        return std::string(R"("hwid":")") + (GetParam().sent ? GetParam().sent : "") + "\"";
    }
};

TEST_P(PrefHardwareId, OfPrefAdd) {
    expectSent({"pref", "add", GetParam().typed, "grab_on_plug"}, kAddPreferences,
               R"({"preferences":{"grab_on_plug":true},)" + hwid() + "}");
}

TEST_P(PrefHardwareId, OfPrefRemove) {
    expectSent({"pref", "remove", GetParam().typed}, kRemovePreferences, "{" + hwid() + "}");
}

INSTANTIATE_TEST_SUITE_P(
    Texts, PrefHardwareId,
    ::testing::Values(
        HardwareId{"OneDigit", "A", "000a"}, HardwareId{"TwoGroups", "0A5C:4500", "0a5c:4500"},
        HardwareId{"ThreeShortGroups", "1:2:3", "0001:0002:0003"},
        HardwareId{"ThreeFullGroups", "abcd:ef01:2345", "abcd:ef01:2345"}, HardwareId{"Empty", "", nullptr},
        HardwareId{"EmptyVendor", ":12", nullptr}, HardwareId{"EmptyProduct", "12:", nullptr},
        HardwareId{"EmptyProductBeforeRevision", "12::3", nullptr},
        HardwareId{"EmptyRevision", "12:3:", nullptr}, HardwareId{"LongVendor", "12345", nullptr},
        HardwareId{"LongProduct", "1:12345", nullptr}, HardwareId{"LongRevision", "1:2:12345", nullptr},
        HardwareId{"FourGroups", "1:2:3:4", nullptr}, HardwareId{"FourGroupsLong", "1:2:3:4444", nullptr},
        HardwareId{"NotHexadecimal", "12g4", nullptr}, HardwareId{"Prefix", "0x1", nullptr},
        HardwareId{"Blank", " 1", nullptr}, HardwareId{"OnlyColon", ":", nullptr},
        HardwareId{"NotAscii", "\xc3\xa9", nullptr}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace cli
