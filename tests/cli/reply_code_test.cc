// Frames whose code is none that a command waits for, whatever they say.
#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "cli/cli_support.h"

namespace cli {
namespace {

constexpr char kAuth[] = R"({"status":"auth"})";
constexpr char kDeviceTable[] = "ID\tVID: PID: REV\tPort\tDevice name and status\n";
constexpr char kConnectionTable[] = "Type\tIP/Name\t\tPort/PID\n";
constexpr char kOneDevice[] =
    R"({"devices":[{"id":1,"vid":1,"pid":1,"rev":1,"port":"1","built-in":false,"name":"n","state":"s",)"
    R"("serial":""}]})";
constexpr char kOneConnection[] = R"({"connections":[{"addr":"h","port":1}]})";

using Codes = std::vector<std::uint32_t>;

// All small codes but these, and those that differ from them in their higher bytes alone.
Codes otherThan(const Codes& codes) {
    Codes others;
    for (std::uint32_t code = 0; code <= 32; ++code) {
        if (std::find(codes.begin(), codes.end(), code) == codes.end()) {
            others.push_back(code);
        }
    }
    for (const std::uint32_t code : codes) {
        others.insert(others.end(), {code + 0x100, code + 0x10000, code + 0x80000000, ~code});
    }
    return others;
}

struct Row {
    const char* name;
    Words words;
    std::string other;  ///< in the frames of other codes; it would show if one of them were taken
    std::vector<std::pair<std::uint32_t, std::string>> replies;
    std::string out;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

class ReplyCode : public ::testing::TestWithParam<Row> {};

TEST_P(ReplyCode, OthersAreIgnoredBeforeEachReply) {
    Codes codes;
    for (const auto& reply : GetParam().replies) {
        codes.push_back(reply.first);
    }
    Script script;
    for (const auto& [code, body] : GetParam().replies) {
        script.receive();
        for (const std::uint32_t other : otherThan(codes)) {
            script.sendFrame(other, GetParam().other);
        }
        script.sendFrame(code, body);
    }
    const Exchange exchange = converse(tool(GetParam().words), script);
    expectResult(exchange.tool, kOk, GetParam().out, "");
    EXPECT_EQ(codes.size(), exchange.requests.size());
}

INSTANTIATE_TEST_SUITE_P(
    Commands, ReplyCode,
    ::testing::Values(Row{"DevList", {"dev"}, kOneDevice, {{kDevices, R"({"devices":[]})"}}, kDeviceTable},
                      Row{"ConnList",
                          {"conn"},
                          kOneConnection,
                          {{kConnections, R"({"connections":[]})"}},
                          kConnectionTable},
                      Row{"DevUnplug", {"dev", "unplug", "1"}, kAuth, {{kUnplug, kReplyOk}}, ""},
                      Row{"ConnDrop", {"conn", "drop", "h"}, kAuth, {{kDrop, kReplyOk}}, ""},
                      Row{"DevShare",
                          {"dev", "share", "1"},
                          kAuth,
                          {{kStart, kReplyOk}, {kInsert, kReplyOk}, {kEnd, kReplyOk}},
                          ""},
                      Row{"RuleList",
                          {"rule"},
                          kAuth,
                          {{kStart, kReplyOk}, {kRules, R"({"rules":[{"action":"share"}]})"}},
                          "1: share\n"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(ReplyCodeOfPreferences, MayBeAny) {
    for (const std::uint32_t code : otherThan({})) {
        SCOPED_TRACE(code);
        expectResult(converse(tool({"pref", "remove", "1"}), Script().reply(code, kReplyOk)).tool, kOk, "",
                     "");
    }
}

TEST(ReplyCodeOfEvents, OthersPrintNothing) {
    Script script;
    for (const std::uint32_t code : otherThan({kDeviceEvent, kConnectionEvent, kRulesChanged})) {
        script.sendFrame(code, "{}");
    }
    expectResult(converse(tool({"monitor"}), script.drain().close()).tool, kIo, "", kTerminated);
}

}  // namespace
}  // namespace cli
