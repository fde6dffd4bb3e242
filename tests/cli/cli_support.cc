#include "cli/cli_support.h"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <fstream>
#include <iterator>
#include <utility>

#include "sandbox/sandbox.h"

namespace cli {

Command tool(Words words) {
    Command command;
    command.path = RV_TOOL_PATH;
    command.words = std::move(words);
    return command;
}

Command covered(const Command& command, const std::vector<std::string>& cover,
                const std::vector<std::string>& freeze) {
    std::vector<std::string> words = sandbox::launcherWords(cover, freeze);
    Command outer = command;
    outer.path = words.front();
    outer.words.assign(words.begin() + 1, words.end());
    outer.words.push_back(command.path);
    outer.words.insert(outer.words.end(), command.words.begin(), command.words.end());
    return outer;
}

// The golden text was written with the name that the tool is installed under.
std::string usageText(std::string_view programName) {
    constexpr std::string_view kInstalledName = "rvusbpctl";
    std::string text = readFile(RV_GOLDEN_DIR "/usage.txt");
    for (std::size_t at = text.find(kInstalledName); at != std::string::npos;
         at = text.find(kInstalledName, at + programName.size())) {
        text.replace(at, kInstalledName.size(), programName);
    }
    return text;
}

Exchange finish(Process& process, FakeDaemon& daemon) {
    Exchange exchange;
    exchange.tool = process.wait();
    daemon.finish();
    exchange.scriptDone = daemon.isScriptDone();
    exchange.connections = daemon.connections();
    exchange.requests = daemon.requests();
    EXPECT_EQ("", daemon.leftovers());
    return exchange;
}

Exchange converse(const Command& command, const Script& script) {
    FakeDaemon daemon(script);
    Process process(command);
    return finish(process, daemon);
}

void expectResult(const Result& result, int status, std::string_view out, std::string_view err) {
    EXPECT_EQ(status, result.status);
    EXPECT_EQ(0, result.signal);
    EXPECT_EQ(out, result.out);
    EXPECT_EQ(err, result.err);
}

namespace {

void expectBody(const std::string& body, std::string_view expected) {
    if (expected.empty()) {
        EXPECT_EQ("", body);
        return;
    }
    boost::json::error_code error;
    const boost::json::value sent = boost::json::parse(body, error);
    EXPECT_FALSE(error) << body;
    EXPECT_EQ(boost::json::parse(expected), sent) << body;
    EXPECT_EQ(boost::json::serialize(sent).size(), body.size()) << "not compact: " << body;
}

}  // namespace

void expectRequests(const Exchange& exchange, const std::vector<Expected>& expected) {
    EXPECT_EQ(1U, exchange.connections);
    ASSERT_EQ(expected.size(), exchange.requests.size());
    for (std::size_t index = 0; index < expected.size(); ++index) {
        SCOPED_TRACE("request " + std::to_string(index));
        EXPECT_EQ(expected[index].code, exchange.requests[index].code);
        expectBody(exchange.requests[index].body, expected[index].body);
    }
}

void expectNoContact(const Exchange& exchange) {
    EXPECT_EQ(0U, exchange.connections);
    EXPECT_TRUE(exchange.requests.empty());
}

void writeFile(const std::string& path, std::string_view text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    EXPECT_TRUE(file.flush().good()) << path;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string nestedReply(std::size_t depth) {
    return R"({"devices":)" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
}

}  // namespace cli
