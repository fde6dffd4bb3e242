#include "fault/commands_under_fault.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

#include "fault/user_text.h"

namespace fault {

namespace {

namespace fs = std::filesystem;
using cli::Script;

constexpr char kRuleFile[] = "/tmp/rules";
constexpr char kEdited[] = RV_EDITED;
constexpr char kUserText[] = RV_USER_TEXT;
// A request that needs more room for its output than one gets at first.
const std::string kLongRule = "block serial " + std::string(3000, 's') + "\n";
constexpr char kDevices[] =
    R"({"devices":[{"id":1,"vid":4660,"pid":22136,"rev":256,"port":"1-1","built-in":true,)"
    R"("name":"A device whose name takes memory of its own","state":"shared","serial":"A-1"},)"
    R"({"id":2,"vid":1,"pid":2,"rev":3,"port":"2-1.4.1.3","built-in":false,"name":"Mouse","state":"in use",)"
    R"("serial":"","app":"/usr/bin/viewer","appPID":77}]})";
constexpr char kConnections[] =
    R"({"connections":[{"app":"/usr/bin/viewer","appPID":12},{"addr":"192.0.2.17","port":51204}]})";
constexpr char kPreferences[] = R"({"status":"ok","preferences":{"0a5c:4500":{"grab_on_plug":true}}})";
constexpr char kRules[] =
    R"({"rules":[{"action":"block","quick":true,"name":"A name that takes memory","nameMatch":"is"}]})";
constexpr char kVerdict[] = R"({"status":"ok","verdict":"share"})";
constexpr char kEvent[] = R"({"id":3,"name":"A name that takes memory of its own","state":"shared"})";

// How long a tool may be silent before it counts as waiting. Too short a time can only make a run end with
// "connection terminated", which is a defined end as well.
constexpr std::chrono::milliseconds kPatience{400};

Script replies(std::initializer_list<std::pair<std::uint32_t, std::string_view>> rows) {
    Script script;
    for (const auto& [code, body] : rows) {
        script.reply(code, body);
    }
    return script;
}

Script transaction(std::initializer_list<std::pair<std::uint32_t, std::string_view>> rows) {
    Script script;
    script.reply(cli::kStart, cli::kReplyOk);
    for (const auto& [code, body] : rows) {
        script.reply(code, body);
    }
    return script;
}

// The messages that may stand on standard error, in the order in which they may follow one another.
bool isMadeOf(std::string_view text, const std::vector<std::string_view>& messages) {
    for (const std::string_view message : messages) {
        if (!message.empty() && text.starts_with(message)) {
            text.remove_prefix(message.size());
        }
    }
    return text.empty();
}

const std::vector<std::string_view> kLocalMessages = {
    "Memory allocation error.\n",
    "Error parsing rule data.\n",
    "Parsing error at rule #1\n",
    "Parsing error at rule #2\n",
    "Error loading rules from stdin.\n",
    "Error loading rules from /tmp/rules.\n",
    "Error loading rules from /tmp/tmp..\n",  // without the letters of its path that are random
    "Cannot create temporary file.\n",
    "Cannot create reopen file.\n",
    "Cannot create process.\n",
    "Cannot get status of editor process\n",
};
const std::vector<std::string_view> kClientMessages = {
    "cannot parse protocol",
    "cannot convert dictionary to JSON",
    "cannot allocate dictionary for request\n",
    "cannot allocate dictionary for preferences\n",
    "cannot allocate dictionary for request",
    "cannot allocate objects for request",
    "cannot allocate object for request",
    "cannot allocate number for request",
    "cannot allocate string for request",
    "cannot connect\n",
    "connection terminated\n",
    "Internal error.\n",
};

std::string withoutQuestions(std::string text) {
    for (const std::string_view question : {cli::kEditAgain, cli::kEditorTrouble}) {
        if (const std::size_t at = text.find(question); at != std::string::npos) {
            text.erase(at, question.size());
        }
    }
    return text;
}

void expectMessage(const cli::Result& tool, const cli::Result& whole) {
    switch (tool.status) {
        case 5: {
            std::vector<std::string_view> messages = kLocalMessages;
            messages.insert(messages.end(), kClientMessages.begin(), kClientMessages.end());
            EXPECT_TRUE(isMadeOf(withoutPath(tool.err), messages)) << tool.err;
            EXPECT_NE("", tool.err);
            break;
        }
        case 12:
            EXPECT_TRUE(tool.err == "cannot initialize kqueue\n" ||
                        tool.err == "cannot connect to the daemon\n")
                << tool.err;
            break;
        default:
            EXPECT_EQ(whole.status, tool.status) << tool.err;
            EXPECT_EQ(withoutPath(whole.out), withoutPath(withoutQuestions(tool.out)));
            if (tool.out == withoutQuestions(tool.out)) {
                EXPECT_EQ(whole.err, tool.err);
            } else {  // the user has been told of a failure and has tried again
                EXPECT_TRUE(isMadeOf(withoutPath(tool.err), kLocalMessages)) << tool.err;
            }
    }
}

/// What `rule edit` has left behind. Other things in /tmp are left alone: a source tree may be among them.
std::vector<fs::path> editedCopies() {
    std::vector<fs::path> copies;
    for (const fs::directory_entry& entry : fs::directory_iterator("/tmp")) {
        if (entry.is_regular_file() && entry.path().filename().string().starts_with("tmp.")) {
            copies.push_back(entry.path());
        }
    }
    return copies;
}

bool isKept(std::string_view text) {
    const std::vector<fs::path> copies = editedCopies();
    return std::any_of(copies.begin(), copies.end(),
                       [&](const fs::path& copy) { return cli::readFile(copy) == text; });
}

}  // namespace

std::vector<Scene> scenes() {
    const std::string rules = kUserText + kLongRule;
    return {
        {"DevList", {"dev", "list"}, "", replies({{cli::kDevices, kDevices}})},
        {"DevUnplug", {"dev", "unplug", "7"}, "", replies({{cli::kUnplug, cli::kReplyNotFound}}), 2},
        {"DevShare",
         {"dev", "share", "7"},
         "",
         transaction({{cli::kInsert, cli::kReplyOk}, {cli::kEnd, cli::kReplyOk}})},
        {"ConnList", {"conn"}, "", replies({{cli::kConnections, kConnections}})},
        {"ConnDrop",
         {"conn", "drop", "-p", "80", "a-host-with-a-long-name"},
         "",
         replies({{cli::kDrop, cli::kReplyOk}})},
        {"RuleList", {"rule", "list"}, "", transaction({{cli::kRules, kRules}})},
        {"RuleLoad",
         {"rule", "load", kRuleFile},
         "",
         transaction({{cli::kLoad, cli::kReplyOk}, {cli::kEnd, cli::kReplyOk}})},
        {"RuleLoadStdin",
         {"rule", "load"},
         rules,
         transaction({{cli::kLoad, cli::kReplyOk}, {cli::kEnd, cli::kReplyOk}})},
        // A user who tries again when something goes wrong.
        {"RuleEdit",
         {"rule", "edit"},
         "y\n",
         transaction({{cli::kRules, kRules}, {cli::kLoad, cli::kReplyOk}, {cli::kEnd, cli::kReplyOk}}),
         0,
         true},
        {"RuleTest",
         {"rule", "test", "-f", kRuleFile, "-h", "a-host-with-a-long-name", "3"},
         "",
         transaction({{cli::kLoad, cli::kReplyOk}, {cli::kTest, kVerdict}})},
        {"PrefList", {"pref"}, "", replies({{cli::kPreferences, kPreferences}})},
        {"PrefAdd",
         {"pref", "add", "a5c:4500:100", "grab_on_plug"},
         "",
         replies({{cli::kAddPreferences, cli::kReplyOk}})},
        {"PrefRemove",
         {"pref", "remove", "a5c:4500:100"},
         "",
         replies({{cli::kRemovePreferences, cli::kReplyOk}})},
        {"Monitor", {"monitor"}, "", Script().sendFrame(cli::kDeviceEvent, kEvent).drain().close(), 5},
    };
}

cli::Command prepare(const Scene& scene) {
    for (const fs::path& copy : editedCopies()) {
        fs::remove(copy);
    }
    fs::remove(kEdited);
    cli::writeFile(kRuleFile, kUserText + kLongRule);
    cli::Command command = cli::tool(scene.words);
    command.text = scene.input;
    command.environment["VISUAL"] = RV_QUIET_EDITOR;
    return command;
}

namespace {

bool endsWithin(const cli::Process& process, std::chrono::milliseconds time) {
    const auto pidfd = static_cast<int>(::syscall(SYS_pidfd_open, process.pid(), 0));
    pollfd end{pidfd, POLLIN, 0};
    const int ready = ::poll(&end, 1, static_cast<int>(time.count()));
    ::close(pidfd);
    return ready == 1;
}

/// Waits for what the tool has left running: after a failed wait its editor, which would write into the next
/// run.
void waitForOrphans() {
    while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
}

}  // namespace

Outcome runScene(const cli::Command& command, const Scene& scene) {
    Outcome run;
    ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    cli::FakeDaemon daemon(scene.script);
    cli::Process process(command);
    if (!endsWithin(process, kPatience)) {
        run.waited = true;
        daemon.finish();
        if (!endsWithin(process, cli::kLimit)) {
            run.hung = true;
            process.kill(SIGKILL);
        }
    }
    run.exchange = cli::finish(process, daemon);
    waitForOrphans();
    return run;
}

void expectDefinedEnd(const Scene& scene, const Outcome& run, const cli::Exchange& whole, Output output) {
    const cli::Result& tool = run.exchange.tool;
    if (run.hung) {
        ADD_FAILURE() << "the tool hangs";
        return;
    }
    ASSERT_EQ(0, tool.signal) << tool.err;
    if (output == Output::kWhole) {
        expectMessage(tool, whole.tool);
    } else {
        EXPECT_TRUE(tool.status == whole.tool.status || tool.status == 5 || tool.status == 12);
    }
    if (scene.name != "Monitor") {
        EXPECT_LE(run.exchange.requests.size(), whole.requests.size());
    }
    const std::size_t count = std::min(run.exchange.requests.size(), whole.requests.size());
    for (std::size_t at = 0; at < count; ++at) {
        EXPECT_EQ(whole.requests[at].code, run.exchange.requests[at].code);
        EXPECT_EQ(whole.requests[at].body, run.exchange.requests[at].body);
    }
    if (!scene.edits) {
        return;
    }
    if (tool.status == 0) {
        EXPECT_EQ(0U, editedCopies().size());
    } else if (fs::exists(kEdited)) {
        EXPECT_TRUE(isKept(kUserText)) << "the user's text is lost";
    } else if (tool.out.empty()) {
        EXPECT_EQ(0U, editedCopies().size()) << "a file that the user was not told of";
    }
}

std::string withoutPath(std::string text) {
    constexpr std::string_view kPrefix = "/tmp/tmp.";
    constexpr std::size_t kRandomLetters = 12;
    if (const std::size_t at = text.find(kPrefix); at != std::string::npos) {
        text.erase(at + kPrefix.size(), kRandomLetters);
    }
    return text;
}

}  // namespace fault
