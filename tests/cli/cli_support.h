/// What the tests of the tool share: running it against a scripted daemon, and its fixed texts.
#ifndef RV_CLI_TEST_SUPPORT_H
#define RV_CLI_TEST_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cli/process.h"
#include "fake_daemon/fake_daemon.h"

namespace cli {

using Words = std::vector<std::string>;
using fake::FakeDaemon;
using fake::Frame;
using fake::Script;

// Exit statuses.
inline constexpr int kOk = 0;
inline constexpr int kNotFound = 2;
inline constexpr int kIo = 5;
inline constexpr int kInvalid = 22;
inline constexpr int kPermission = 80;

// Texts of the tool.
inline constexpr char kInternalError[] = "Internal error.\n";
inline constexpr char kDeviceNotFound[] = "The device has not been found.\n";
inline constexpr char kTerminated[] = "connection terminated\n";
inline constexpr char kCannotConnect[] = "cannot connect\n";
inline constexpr char kCopyLine[] = "In case of error the copy of rules is put into \"";
inline constexpr char kCommitted[] = "Sharing rules have been successfully updated.\n";
inline constexpr char kReadingFromStdin[] = "(reading from stdin. Press ^D to finish.)\n";
inline constexpr char kEditAgain[] = "Edit again [y/n]? ";
inline constexpr char kEditorTrouble[] =
    "Something went wrong with editor. Press any key to try one more time [y/n]: ";

// Replies.
inline constexpr char kReplyOk[] = R"({"status":"ok"})";
inline constexpr char kReplyNotFound[] = R"({"status":"notfound"})";

/// Codes of requests, replies and events.
enum Code : std::uint32_t {
    kDevices = 0,
    kConnections = 1,
    kDrop = 2,
    kUnplug = 3,
    kDeviceEvent = 4,
    kConnectionEvent = 5,
    kStart = 6,
    kRules = 7,
    kLoad = 8,
    kInsert = 9,
    kTest = 10,
    kEnd = 11,
    kRulesChanged = 12,
    kPreferences = 19,
    kAddPreferences = 20,
    kRemovePreferences = 21,
};

/// The tool with these words, nothing on standard input.
Command tool(Words words);

/// The same command with some directories empty and others refusing new files.
Command covered(const Command& command, const std::vector<std::string>& cover,
                const std::vector<std::string>& freeze);

/// The usage text for a program of this name.
std::string usageText(std::string_view programName = "rvusbpctl");

/// What came of one run of the tool and its daemon.
struct Exchange {
    Result tool;
    std::size_t connections = 0;
    std::vector<Frame> requests;
    bool scriptDone = false;
};

/// Runs the command to its end while a daemon follows the script.
Exchange converse(const Command& command, const Script& script);

/// Waits for a tool that was started by hand and gathers the same.
Exchange finish(Process& process, FakeDaemon& daemon);

/// A request as a test expects it; an empty body means a frame of exactly eight bytes.
struct Expected {
    std::uint32_t code;
    std::string_view body;
};

void expectResult(const Result& result, int status, std::string_view out, std::string_view err);

/// One connection that carried exactly these requests; bodies are compared as JSON and must be compact.
void expectRequests(const Exchange& exchange, const std::vector<Expected>& expected);

/// The daemon was never contacted.
void expectNoContact(const Exchange& exchange);

void writeFile(const std::string& path, std::string_view text);
std::string readFile(const std::string& path);

/// Nested JSON: `{"devices":` and so many arrays, closed again; `depth` counts the object too.
std::string nestedReply(std::size_t depth);

}  // namespace cli

#endif
