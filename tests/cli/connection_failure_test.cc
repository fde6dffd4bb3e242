// A daemon that is not there, or goes away.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "cli/cli_support.h"

namespace cli {
namespace {

namespace fs = std::filesystem;

// A bound socket; it stays in the file system after its descriptor is closed.
int bindSocket(int type) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, fake::kSocketPath, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    return fd;
}

class ConnectionFailures : public ::testing::TestWithParam<Words> {
  protected:
    void TearDown() override { fs::remove_all(fake::kSocketPath); }

    static void expectCannotConnect() { expectResult(run(tool(GetParam())), kIo, "", kCannotConnect); }
};

TEST_P(ConnectionFailures, NoSocket) {
    expectCannotConnect();
}

TEST_P(ConnectionFailures, StaleSocket) {
    (void)close(bindSocket(SOCK_STREAM));
    ASSERT_TRUE(fs::is_socket(fake::kSocketPath));
    expectCannotConnect();
    EXPECT_TRUE(fs::is_socket(fake::kSocketPath));
}

TEST_P(ConnectionFailures, SocketThatDoesNotListen) {
    const int fd = bindSocket(SOCK_STREAM);
    expectCannotConnect();
    (void)close(fd);
}

TEST_P(ConnectionFailures, DatagramSocket) {
    const int fd = bindSocket(SOCK_DGRAM);
    expectCannotConnect();
    (void)close(fd);
}

TEST_P(ConnectionFailures, RegularFile) {
    writeFile(fake::kSocketPath, "text");
    expectCannotConnect();
    EXPECT_EQ("text", readFile(fake::kSocketPath));
}

TEST_P(ConnectionFailures, Directory) {
    fs::create_directory(fake::kSocketPath);
    expectCannotConnect();
}

TEST_P(ConnectionFailures, DanglingLink) {
    fs::create_symlink("/run/nowhere", fake::kSocketPath);
    expectCannotConnect();
}

TEST_P(ConnectionFailures, DirectoryOfTheSocketIsMissing) {
    expectResult(run(covered(tool(GetParam()), {"/var"}, {})), kIo, "", kCannotConnect);
}

TEST_P(ConnectionFailures, ClosedAtOnce) {
    const Exchange exchange = converse(tool(GetParam()), Script().close());
    expectResult(exchange.tool, kIo, "", kTerminated);
    EXPECT_EQ(1U, exchange.connections);
}

TEST_P(ConnectionFailures, ClosedAfterAHeader) {
    const Exchange exchange = converse(tool(GetParam()), Script().send(fake::header(0, 20)).drain().close());
    expectResult(exchange.tool, kIo, "", kTerminated);
}

TEST_P(ConnectionFailures, ClosedWithinAHeader) {
    const Exchange exchange = converse(tool(GetParam()), Script().send("12345").close());
    expectResult(exchange.tool, kIo, "", kTerminated);
}

TEST_P(ConnectionFailures, ClosedWithinABody) {
    const Exchange exchange =
        converse(tool(GetParam()), Script().send(fake::header(0, 20) + R"({"status":"ok")").close());
    expectResult(exchange.tool, kIo, "", kTerminated);
}

INSTANTIATE_TEST_SUITE_P(Commands, ConnectionFailures,
                         ::testing::Values(Words{"dev"}, Words{"conn", "drop", "h"}, Words{"rule", "list"},
                                           Words{"pref"}, Words{"monitor"}),
                         [](const auto& row) { return row.param.front(); });

// The path of the socket leads through /var, also where that only points to /run.
TEST(ConnectionFailure, SocketIsLookedForBelowVar) {
    const Exchange exchange = converse(covered(tool({"dev"}), {"/var"}, {}), Script());
    expectResult(exchange.tool, kIo, "", kCannotConnect);
    expectNoContact(exchange);
}

TEST(ConnectionFailure, ClosedAfterTheRequest) {
    const Exchange exchange = converse(tool({"dev", "unplug", "4"}), Script().receive().close());
    expectResult(exchange.tool, kIo, "", kTerminated);
    expectRequests(exchange, {{kUnplug, R"({"id":4})"}});
}

TEST(ConnectionFailure, ClosedInTheMiddleOfATransaction) {
    Script script;
    script.reply(kStart, kReplyOk).reply(kInsert, kReplyOk).receive().close();
    const Exchange exchange = converse(tool({"dev", "share", "4"}), script);
    expectResult(exchange.tool, kIo, "", kTerminated);
    expectRequests(
        exchange,
        {{kStart, ""}, {kInsert, R"({"id":4,"action":"share"})"}, {kEnd, R"({"action":"commit"})"}});
}

TEST(ConnectionFailure, ReplyBeforeTheCloseIsTaken) {
    const Exchange exchange =
        converse(tool({"conn", "drop", "h"}), Script().reply(kDrop, kReplyNotFound).close());
    expectResult(exchange.tool, kNotFound, "", "Connection has not been found.\n");
}

TEST(ConnectionFailure, StalledReplyIsWaitedFor) {
    const std::string reply = fake::frame(kUnplug, kReplyOk);
    FakeDaemon daemon(Script().receive().send(reply.substr(0, 12)).drain().hold().send(reply.substr(12)));
    Process process(tool({"dev", "unplug", "4"}));
    ASSERT_TRUE(daemon.waitForHold(1));
    EXPECT_TRUE(process.isRunning());
    daemon.release();
    expectResult(finish(process, daemon).tool, kOk, "", "");
}

// The daemon accepts late: the request lies in the socket until then.
TEST(ConnectionFailure, ConnectionThatNobodyAcceptsIsWaitedFor) {
    const int listener = bindSocket(SOCK_STREAM);
    ASSERT_EQ(0, listen(listener, 1));
    Process process(tool({"dev", "unplug", "4"}));
    const int connection = accept(listener, nullptr, nullptr);
    ASSERT_NE(-1, connection);
    const std::string reply = fake::frame(kUnplug, kReplyOk);
    ASSERT_EQ(static_cast<ssize_t>(reply.size()), send(connection, reply.data(), reply.size(), MSG_NOSIGNAL));
    expectResult(process.wait(), kOk, "", "");
    (void)close(connection);
    (void)close(listener);
    (void)unlink(fake::kSocketPath);
}

TEST(ConnectionFailure, SignalEndsAWaitingTool) {
    FakeDaemon daemon(Script().receive().hold());
    Process process(tool({"dev"}));
    ASSERT_TRUE(daemon.waitForHold(1));
    process.kill(SIGINT);
    const Exchange exchange = finish(process, daemon);
    EXPECT_EQ(SIGINT, exchange.tool.signal);
    EXPECT_EQ("", exchange.tool.out + exchange.tool.err);
}

// A connection that took the number of a closed stream would receive what is written for the user.
TEST(ConnectionFailure, ClosedStreamsAreNotReplacedByTheConnection) {
    const Command direct = tool({"dev", "unplug", "4"});
    for (const char* closed : {"<&-", ">&-", "2>&-", "<&- >&-", "<&- >&- 2>&-"}) {
        SCOPED_TRACE(closed);
        Command command = direct;
        command.path = "/bin/sh";
        command.words = {"-c", std::string("exec \"$0\" \"$@\" ") + closed, direct.path};
        command.words.insert(command.words.end(), direct.words.begin(), direct.words.end());
        const Exchange exchange = converse(command, Script().reply(kUnplug, kReplyNotFound));
        const bool silent = std::string_view(closed).find('2') != std::string_view::npos;
        expectResult(exchange.tool, kNotFound, "", silent ? "" : kDeviceNotFound);
        expectRequests(exchange, {{kUnplug, R"({"id":4})"}});
    }
}

TEST(ConnectionFailure, ReportForAClosedStreamDoesNotGoToTheDaemon) {
    const Command direct = tool({"dev"});
    Command command = direct;
    command.path = "/bin/sh";
    command.words = {"-c", "exec \"$0\" dev >&-", direct.path};
    const Exchange exchange = converse(command, Script().reply(kDevices, R"({"devices":[]})"));
    expectResult(exchange.tool, kOk, "", "");
    expectRequests(exchange, {{kDevices, ""}});
}

// A closed pipe on standard output is a failed write, not a death by signal.
TEST(ConnectionFailure, ReaderOfStandardOutputMayGoAway) {
    FakeDaemon daemon(Script().receive().hold().sendFrame(kDevices, R"({"devices":[]})"));
    Process process(tool({"dev"}));
    ASSERT_TRUE(daemon.waitForHold(1));
    process.closeOut();
    daemon.release();
    expectResult(finish(process, daemon).tool, kOk, "", "");
}

TEST(ConnectionFailure, FullDiskUnderStandardOutputIsIgnored) {
    Command command = tool({"dev"});
    command.outputFile = "/dev/full";
    const Exchange exchange = converse(command, Script().reply(kDevices, R"({"devices":[]})"));
    expectResult(exchange.tool, kOk, "", "");
}

}  // namespace
}  // namespace cli
