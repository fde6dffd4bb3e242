// A tool that is started without some of the descriptors 0, 1 and 2: their numbers must not go to what it
// opens.
#include <gtest/gtest.h>

#include <filesystem>

#include "cli/cli_support.h"

namespace cli {
namespace {

constexpr char kDeviceReply[] =
    R"({"devices":[{"id":1,"vid":1,"pid":2,"rev":3,"port":"p","built-in":false,"name":"n","state":"s","serial":""}]})";
constexpr char kTable[] = "ID\tVID: PID: REV\tPort\tDevice name and status\n1\t0001:0002:0003\tp\tn /s/\n";

struct Closing {
    const char* name;
    const char* redirections;
    bool outOpen;
    bool errOpen;
};

void PrintTo(const Closing& row, std::ostream* out) {
    *out << row.name;
}

class ClosedDescriptors : public ::testing::TestWithParam<Closing> {
  protected:
    /// The tool, started by a shell that closes the descriptors first.
    static Command without(const Words& words) {
        Command command = tool(words);
        command.words = {"-c", std::string("exec \"$0\" \"$@\" ") + GetParam().redirections, command.path};
        command.words.insert(command.words.end(), words.begin(), words.end());
        command.path = "/bin/sh";
        return command;
    }

    static const char* ifOut(const char* text) { return GetParam().outOpen ? text : ""; }
    static const char* ifErr(const char* text) { return GetParam().errOpen ? text : ""; }
};

TEST_P(ClosedDescriptors, MessageDoesNotGoToTheDaemon) {
    const Exchange exchange =
        converse(without({"dev", "unplug", "7"}), Script().reply(kUnplug, kReplyNotFound));
    expectResult(exchange.tool, kNotFound, "", ifErr(kDeviceNotFound));
    expectRequests(exchange, {{kUnplug, R"({"id":7})"}});  // and nothing behind it
}

TEST_P(ClosedDescriptors, ReportDoesNotGoToTheDaemon) {
    const Exchange exchange = converse(without({"dev"}), Script().reply(kDevices, kDeviceReply));
    expectResult(exchange.tool, kOk, ifOut(kTable), "");
    expectRequests(exchange, {{kDevices, ""}});
}

// Whatever the engine opens, its sockets and queues are no place for a message or a report.
TEST_P(ClosedDescriptors, NumbersAreTakenByWhatRefusesBoth) {
    FakeDaemon daemon(Script().receive().hold().close());
    Process process(without({"dev"}));
    ASSERT_TRUE(daemon.waitForHold(1));
    const std::string redirections = GetParam().redirections;
    const auto opened = [&process](int fd) {
        const std::string link = "/proc/" + std::to_string(process.pid()) + "/fd/" + std::to_string(fd);
        return std::filesystem::read_symlink(link).string();
    };
    EXPECT_EQ(redirections.find("<&-") != std::string::npos, opened(0) == "/");
    EXPECT_EQ(!GetParam().outOpen, opened(1) == "/");
    EXPECT_EQ(!GetParam().errOpen, opened(2) == "/");
    daemon.release();
    expectResult(process.wait(), kIo, "", ifErr(kTerminated));
}

INSTANTIATE_TEST_SUITE_P(Sets, ClosedDescriptors,
                         ::testing::Values(Closing{"Input", "<&-", true, true},
                                           Closing{"Output", ">&-", false, true},
                                           Closing{"Error", "2>&-", true, false},
                                           Closing{"InputAndOutput", "<&- >&-", false, true},
                                           Closing{"OutputAndError", ">&- 2>&-", false, false},
                                           Closing{"All", "<&- >&- 2>&-", false, false}),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace cli
