// conn drop beyond its words and statuses, which command_line_test.cc and reply_status_test.cc hold.
#include <gtest/gtest.h>

#include "cli/cli_support.h"

namespace cli {
namespace {

TEST(ConnDrop, RefusedUserIsToldWhoMay) {
    const Exchange exchange =
        converse(tool({"conn", "drop", "h"}), Script().reply(kDrop, R"({"status":"auth"})"));
    expectResult(exchange.tool, kPermission, "",
                 "Error: you don't have permissions to drop the connection.\n"
                 "Administrative user or root is allowed to do this operation.\n");
}

TEST(ConnDrop, UnknownHostIsAConnectionNotFound) {
    const Exchange exchange = converse(tool({"conn", "drop", "h"}), Script().reply(kDrop, kReplyNotFound));
    expectResult(exchange.tool, kNotFound, "", "Connection has not been found.\n");
}

TEST(ConnDrop, FramesOfOtherCodesAreIgnored) {
    Script script;
    script.sendFrame(kConnectionEvent, R"({"state":"up"})").receive();
    script.sendFrame(kUnplug, R"({"status":"notfound"})")
        .sendFrame(kRulesChanged, "{}")
        .sendFrame(kDrop, kReplyOk);
    const Exchange exchange = converse(tool({"conn", "drop", "h"}), script);
    expectResult(exchange.tool, kOk, "", "");
    expectRequests(exchange, {{kDrop, R"({"host":"h"})"}});
}

TEST(ConnDrop, LongHostIsSentWhole) {
    const std::string host(100'000, 'h');
    const Exchange exchange =
        converse(tool({"conn", "drop", "-p", "1", host}), Script().reply(kDrop, kReplyOk));
    const std::string body = R"({"host":")" + host + R"(","port":1})";
    expectRequests(exchange, {{kDrop, body}});
}

}  // namespace
}  // namespace cli
