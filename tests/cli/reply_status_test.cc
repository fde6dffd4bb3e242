// What every command does with every status at every step.
#include <gtest/gtest.h>

#include <filesystem>
#include <utility>

#include "cli/cli_support.h"

namespace cli {
namespace {

namespace fs = std::filesystem;

constexpr char kRuleFile[] = "/tmp/rules";
constexpr char kLoadedRules[] = R"({"rules":[{"action":"share"}]})";
constexpr char kNoRules[] = R"({"rules":[]})";
constexpr char kCommit[] = R"({"action":"commit"})";
constexpr char kNoPermission[] =
    "Error: you don't have permissions to drop the connection.\n"
    "Administrative user or root is allowed to do this operation.\n";
constexpr char kConnectionNotFound[] = "Connection has not been found.\n";
constexpr char kTestedDeviceNotFound[] = "Device has not been found.\n";

// A status member as it stands in the reply; an empty text leaves it out.
struct Status {
    const char* name;
    const char* json;
};

constexpr Status kStatuses[] = {
    {"Ok", R"("ok")"},
    {"NotFound", R"("notfound")"},
    {"Auth", R"("auth")"},
    {"Another", R"("busy")"},
    {"OkInCapitals", R"("OK")"},
    {"OkWithABlank", R"("ok ")"},
    {"OkWithANul", R"("ok\u0000")"},
    {"NotFoundInCapitals", R"("NotFound")"},
    {"Empty", R"("")"},
    {"Missing", ""},
    {"Zero", "0"},
    {"One", "1"},
    {"Fraction", "0.5"},
    {"True", "true"},
    {"False", "false"},
    {"Null", "null"},
    {"Array", R"(["ok"])"},
    {"Object", R"({"status":"ok"})"},
};

struct Outcome {
    int status;
    const char* err;
};

constexpr Outcome kSuccess = {kOk, ""};
constexpr Outcome kInternal = {kIo, kInternalError};
constexpr Outcome kSilent = {kIo, ""};
constexpr Outcome kUnplugNotFound = {kNotFound, kDeviceNotFound};

// One reply of one command. The replies before it say "ok"; after an "ok" of its own the command goes on to
// its end, for which `after` holds the replies.
struct Step {
    const char* name;
    Words words;
    std::vector<std::pair<std::uint32_t, std::string>> before;
    std::uint32_t code;
    std::string members;  ///< of this reply, beside the status
    std::vector<std::pair<std::uint32_t, std::string>> after;
    std::vector<Expected>
        requests;     ///< of a run that goes well; a failure at this step ends the list with it
    std::string out;  ///< of a run that goes well; "@" stands for the path of the edited file
    Outcome ok, notFound, auth, otherText, missing, notText;
    std::string outOnFailure = "";
};

const std::pair<std::uint32_t, std::string> kStarted = {kStart, kReplyOk};
const std::pair<std::uint32_t, std::string> kFetched = {kRules, kNoRules};
const std::pair<std::uint32_t, std::string> kLoaded = {kLoad, kReplyOk};
const std::pair<std::uint32_t, std::string> kInserted = {kInsert, kReplyOk};
const std::pair<std::uint32_t, std::string> kCommittedReply = {kEnd, kReplyOk};
const std::pair<std::uint32_t, std::string> kTested = {kTest, R"({"status":"ok","verdict":"block"})"};

const std::string kCopyOut = std::string(kCopyLine) + "@\".\n";
const std::string kEditOut = kCopyOut + kCommitted;

Step deviceRule(const char* name, const char* action, std::uint32_t code) {
    const bool shares = std::string_view(action) == "share";
    Step step{name,      {"dev", action, "7"},
              {},        code,
              "",        {},
              {},        "",
              kSuccess,  kInternal,
              kInternal, kInternal,
              kInternal, kInternal};
    step.requests = {{kStart, ""},
                     {kInsert, shares ? R"({"id":7,"action":"share"})" : R"({"id":7,"action":"block"})"},
                     {kEnd, kCommit}};
    const std::vector<std::pair<std::uint32_t, std::string>> all = {kStarted, kInserted, kCommittedReply};
    bool isBefore = true;
    for (const auto& reply : all) {
        if (reply.first == code) {
            isBefore = false;
        } else {
            (isBefore ? step.before : step.after).push_back(reply);
        }
    }
    if (code == kInsert) {
        step.notFound = {kNotFound, kDeviceNotFound};
    }
    return step;
}

Step strict(const char* name, Words words, std::uint32_t code) {
    return {name, std::move(words), {},        code,      "",        {},        {},
            "",   kSuccess,         kInternal, kInternal, kInternal, kInternal, kInternal};
}

Step ruleList() {
    Step step = strict("RuleListStart", {"rule", "list"}, kStart);
    step.after = {{kRules, R"({"rules":[{"action":"share"}]})"}};
    step.requests = {{kStart, ""}, {kRules, ""}};
    step.out = "1: share\n";
    return step;
}

Step ruleLoad(const char* name, std::uint32_t code) {
    Step step = strict(name, {"rule", "load", kRuleFile}, code);
    step.requests = {{kStart, ""}, {kLoad, kLoadedRules}, {kEnd, kCommit}};
    if (code == kStart) {
        step.after = {kLoaded, kCommittedReply};
    } else if (code == kLoad) {
        step.before = {kStarted};
        step.after = {kCommittedReply};
    } else {
        step.before = {kStarted, kLoaded};
    }
    return step;
}

Step ruleEdit(const char* name, std::uint32_t code) {
    Step step = strict(name, {"rule", "edit"}, code);
    step.requests = {{kStart, ""}, {kRules, ""}, {kLoad, kNoRules}, {kEnd, kCommit}};
    step.out = kEditOut;
    step.outOnFailure = kCopyOut;
    if (code == kStart) {
        step.after = {kFetched, kLoaded, kCommittedReply};
        step.outOnFailure = "";
    } else if (code == kLoad) {
        step.before = {kStarted, kFetched};
        step.after = {kCommittedReply};
    } else {
        step.before = {kStarted, kFetched, kLoaded};
    }
    return step;
}

Step ruleTest(const char* name, std::uint32_t code) {
    Step step = strict(name, {"rule", "test", "-r", "-f", kRuleFile, "7"}, code);
    step.requests = {{kStart, ""}, {kLoad, kLoadedRules}, {kTest, R"({"id":7,"type":"rdesk"})"}};
    step.out = "block\n";
    step.notFound = {kNotFound, kTestedDeviceNotFound};
    if (code == kStart) {
        step.after = {kLoaded, kTested};
    } else if (code == kLoad) {
        step.before = {kStarted};
        step.after = {kTested};
    } else {
        step.before = {kStarted, kLoaded};
        step.members = R"("verdict":"block")";
    }
    return step;
}

Step unplug() {
    Step step = strict("DevUnplug", {"dev", "unplug", "7"}, kUnplug);
    step.requests = {{kUnplug, R"({"id":7})"}};
    step.notFound = step.auth = step.otherText = step.notText = kUnplugNotFound;
    step.missing = kSuccess;
    return step;
}

Step drop() {
    Step step = strict("ConnDrop", {"conn", "drop", "h"}, kDrop);
    step.requests = {{kDrop, R"({"host":"h"})"}};
    step.notFound = {kNotFound, kConnectionNotFound};
    step.auth = {kPermission, kNoPermission};
    return step;
}

Step preference(const char* name, Words words, std::uint32_t code, const char* request) {
    Step step = strict(name, std::move(words), code);
    step.requests = {{code, request}};
    step.notFound = step.auth = step.otherText = step.missing = step.notText = kSilent;
    return step;
}

Step preferenceList() {
    Step step = preference("PrefList", {"pref", "list"}, kPreferences, "");
    step.members = R"("preferences":{"0a5c":{"grab_on_plug":true}})";
    step.out = "VID:PID:REV\tPreferences\n0a5c\tgrab_on_plug \n";
    return step;
}

// The device and connection lists do not look at a status at all.
Step deviceList() {
    Step step = strict("DevList", {"dev", "list"}, kDevices);
    step.requests = {{kDevices, ""}};
    step.members = R"("devices":[])";
    step.out = step.outOnFailure = "ID\tVID: PID: REV\tPort\tDevice name and status\n";
    step.notFound = step.auth = step.otherText = step.missing = step.notText = kSuccess;
    return step;
}

Step connectionList() {
    Step step = strict("ConnList", {"conn", "list"}, kConnections);
    step.requests = {{kConnections, ""}};
    step.members = R"("connections":[])";
    step.out = step.outOnFailure = "Type\tIP/Name\t\tPort/PID\n";
    step.notFound = step.auth = step.otherText = step.missing = step.notText = kSuccess;
    return step;
}

// A rule list with a status text is an error reply; any other status does not count.
Step ruleListFetch() {
    Step step = strict("RuleListFetch", {"rule", "list"}, kRules);
    step.before = {kStarted};
    step.requests = {{kStart, ""}, {kRules, ""}};
    step.members = R"("rules":[{"action":"share"}])";
    step.out = "1: share\n";
    step.ok = kInternal;
    step.missing = step.notText = kSuccess;
    return step;
}

Step ruleEditFetch() {
    Step step = strict("RuleEditFetch", {"rule", "edit"}, kRules);
    step.before = {kStarted};
    step.after = {kLoaded, kCommittedReply};
    step.requests = {{kStart, ""}, {kRules, ""}, {kLoad, kNoRules}, {kEnd, kCommit}};
    step.members = R"("rules":[])";
    step.out = kEditOut;
    step.ok = step.notFound = step.auth =
        step.otherText = {kIo, "Internal error.\nCannot create reopen file.\n"};
    step.missing = step.notText = kSuccess;
    return step;
}

const std::vector<Step>& allSteps() {
    static const std::vector<Step> steps = {
        deviceList(),
        connectionList(),
        unplug(),
        deviceRule("DevShareStart", "share", kStart),
        deviceRule("DevShareInsert", "share", kInsert),
        deviceRule("DevShareCommit", "share", kEnd),
        deviceRule("DevBlockStart", "block", kStart),
        deviceRule("DevBlockInsert", "block", kInsert),
        deviceRule("DevBlockCommit", "block", kEnd),
        drop(),
        ruleList(),
        ruleListFetch(),
        ruleLoad("RuleLoadStart", kStart),
        ruleLoad("RuleLoadLoad", kLoad),
        ruleLoad("RuleLoadCommit", kEnd),
        ruleEdit("RuleEditStart", kStart),
        ruleEditFetch(),
        ruleEdit("RuleEditLoad", kLoad),
        ruleEdit("RuleEditCommit", kEnd),
        ruleTest("RuleTestStart", kStart),
        ruleTest("RuleTestLoad", kLoad),
        ruleTest("RuleTestTest", kTest),
        preferenceList(),
        preference("PrefAdd", {"pref", "add", "a", "grab_on_plug"}, kAddPreferences,
                   R"({"preferences":{"grab_on_plug":true},"hwid":"000a"})"),
        preference("PrefRemove", {"pref", "remove", "a"}, kRemovePreferences, R"({"hwid":"000a"})"),
    };
    return steps;
}

const Outcome& outcomeOf(const Step& step, const Status& status) {
    const std::string_view json = status.json;
    if (json == R"("ok")") {
        return step.ok;
    }
    if (json == R"("notfound")") {
        return step.notFound;
    }
    if (json == R"("auth")") {
        return step.auth;
    }
    if (json.empty()) {
        return step.missing;
    }
    return json.front() == '"' ? step.otherText : step.notText;
}

std::string replyOf(const Step& step, const Status& status) {
    std::string text = "{";
    if (*status.json != '\0') {
        text += std::string(R"("status":)") + status.json + (step.members.empty() ? "" : ",");
    }
    return text + step.members + "}";
}

// Puts "@" in the place of the edited file's name.
std::string withoutPath(std::string out) {
    const std::size_t begin = out.find("/tmp/tmp.");
    if (begin != std::string::npos) {
        out.replace(begin, std::string_view("/tmp/tmp.XXXXXXXXXXXX").size(), "@");
    }
    return out;
}

using Cell = std::tuple<std::size_t, std::size_t>;

class ReplyStatus : public ::testing::TestWithParam<Cell> {
  protected:
    void TearDown() override {
        for (const auto& entry : fs::directory_iterator("/tmp")) {
            if (entry.is_regular_file()) {
                fs::remove(entry);
            }
        }
    }
};

TEST_P(ReplyStatus, EndsAsTheTableSays) {
    const Step& step = allSteps()[std::get<0>(GetParam())];
    const Status& status = kStatuses[std::get<1>(GetParam())];
    const Outcome& outcome = outcomeOf(step, status);
    writeFile(kRuleFile, "share\n");
    Script script;
    for (const auto& [code, body] : step.before) {
        script.reply(code, body);
    }
    const std::string reply = replyOf(step, status);
    script.reply(step.code, reply);
    for (const auto& [code, body] : step.after) {
        script.reply(code, body);
    }
    Command command = tool(step.words);
    command.environment["VISUAL"] = "true";

    Exchange exchange = converse(command, script);
    SCOPED_TRACE(reply);
    exchange.tool.out = withoutPath(exchange.tool.out);
    const bool goesOn = outcome.status == kOk;
    expectResult(exchange.tool, outcome.status, goesOn ? step.out : step.outOnFailure, outcome.err);
    std::vector<Expected> requests = step.requests;
    if (!goesOn) {
        requests.resize(step.before.size() + 1);
    }
    expectRequests(exchange, requests);
}

std::string cellName(const ::testing::TestParamInfo<Cell>& row) {
    return std::string(allSteps()[std::get<0>(row.param)].name) + "_" +
           kStatuses[std::get<1>(row.param)].name;
}

INSTANTIATE_TEST_SUITE_P(Table, ReplyStatus,
                         ::testing::Combine(::testing::Range<std::size_t>(0, allSteps().size()),
                                            ::testing::Range<std::size_t>(0, std::size(kStatuses))),
                         cellName);

}  // namespace
}  // namespace cli
