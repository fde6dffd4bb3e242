#include "cli/commands.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "IPCClient.h"
#include "cli/exit_status.h"
#include "cli/reply_status.h"
#include "ipc/command.h"
#include "reports/connection_report.h"
#include "reports/device_report.h"
#include "reports/event_monitor.h"
#include "reports/preference_report.h"
#include "rules/rule_editor.h"
#include "rules/rule_file.h"
#include "rules/rule_printer.h"

namespace {

/// One command's state while it talks to the daemon; used on the I/O thread only.
struct Conversation {
    Conversation(const std::shared_ptr<RvTetherIPCClient>& link, const Invocation& words, SharedSlots& shared)
        : client(link), invocation(words), slots(shared) {}

    std::weak_ptr<RvTetherIPCClient> client;
    Invocation invocation;
    SharedSlots& slots;
    EventMonitor monitor{stdout};
};

[[noreturn]] void internalError() noexcept {
    printStatusAndExit(kExitIo, "");
}

// ---- Requests: what is sent on connection, or after a reply. A client that is gone is asked nothing.

template <class Ask>
void ask(const Conversation& talk, Ask request) noexcept {
    if (const std::shared_ptr<RvTetherIPCClient> client = talk.client.lock()) {
        request(*client);
    }
}

/// The same for requests that tell whether they were sent.
template <class Ask>
void askOrFail(const Conversation& talk, Ask request) noexcept {
    ask(talk, [&](RvTetherIPCClient& client) {
        if (!request(client)) {
            internalError();
        }
    });
}

void askDevices(Conversation& talk) {
    ask(talk, [](RvTetherIPCClient& client) { client.getDeviceList(); });
}

void askUnplug(Conversation& talk) {
    const auto id = static_cast<std::uint32_t>(talk.invocation.deviceId);
    ask(talk, [id](RvTetherIPCClient& client) { client.requestDisconnectDevice(id); });
}

void askConnections(Conversation& talk) {
    ask(talk, [](RvTetherIPCClient& client) { client.getConnectionList(); });
}

void askDrop(Conversation& talk) {
    const Invocation& words = talk.invocation;
    const std::uint16_t* port = words.portGiven ? &words.port : nullptr;
    ask(talk, [&](RvTetherIPCClient& client) { client.requestKillConnection(words.host, port); });
}

void askTransaction(Conversation& talk) {
    ask(talk, [](RvTetherIPCClient& client) { client.startRuleTransaction(); });
}

void askRules(Conversation& talk) {
    ask(talk, [](RvTetherIPCClient& client) { client.getRuleList(); });
}

void askInsert(Conversation& talk) {
    const char* action = talk.invocation.kind == CommandKind::kDevShare ? "share" : "block";
    const auto id = static_cast<std::uint32_t>(talk.invocation.deviceId);
    askOrFail(talk, [&](RvTetherIPCClient& client) { return client.insertRuleForDevice(id, action); });
}

void askLoad(Conversation& talk) {
    // The slot keeps the rules: a daemon that answers a step twice is asked the same again.
    const RuleSet& rules = talk.slots.ruleSet;
    askOrFail(talk, [&](RvTetherIPCClient& client) { return client.loadRuleList(*rules, rules); });
}

void askTest(Conversation& talk) {
    const Invocation& words = talk.invocation;
    const auto id = static_cast<std::uint32_t>(words.deviceId);
    const char* type = words.remoteDesktop ? "rdesk" : "net";
    askOrFail(talk,
              [&](RvTetherIPCClient& client) { return client.testRuleForDevice(id, type, words.host); });
}

void askLoadOrTest(Conversation& talk) {
    return talk.slots.ruleSet ? askLoad(talk) : askTest(talk);
}

void askCommit(Conversation& talk) {
    ask(talk, [](RvTetherIPCClient& client) { client.endRuleTransaction(true); });
}

void askPreferences(Conversation& talk) {
    ask(talk, [](RvTetherIPCClient& client) { client.getPreferences(); });
}

// Deliberate: what addPreferencesWithDevice and removePreferencesWithDevice return is not looked at: the
// commands wait for a reply either way.
void askAddPreferences(Conversation& talk) {
    ask(talk, [&](RvTetherIPCClient& client) {
        (void)client.addPreferencesWithDevice(talk.invocation.hardwareId);
    });
}

void askRemovePreferences(Conversation& talk) {
    ask(talk, [&](RvTetherIPCClient& client) {
        (void)client.removePreferencesWithDevice(talk.invocation.hardwareId);
    });
}

// ---- Replies: each goes on with a request or ends the process.

using Reaction = void (*)(Conversation& talk, const JsonObject& reply);

/// Goes on with a request after "ok"; any other status is an internal error.
template <void (*Next)(Conversation&)>
void whenOk(Conversation& talk, const JsonObject& reply) {
    if (strictStatus(reply) != ReplyStatus::kOk) {
        internalError();
    }
    Next(talk);
}

/// Goes on whatever the reply says.
template <void (*Next)(Conversation&)>
void then(Conversation& talk, const JsonObject&) {
    Next(talk);
}

void finish(Conversation&) {
    std::exit(kExitOk);
}

void printDevices(Conversation&, const JsonObject& reply) {
    outputDeviceList(reply, stdout);
    std::exit(kExitOk);
}

void printConnections(Conversation&, const JsonObject& reply) {
    outputConnectionList(reply, stdout);
    std::exit(kExitOk);
}

// Deliberate: every status but "ok" is told as "not found", "auth" included, and a reply without a status is
// a success. Held by ReplyStatus.EndsAsTheTableSays.
void finishUnplug(Conversation&, const JsonObject& reply) {
    const ReplyStatus status = looseStatus(reply);
    if (status == ReplyStatus::kOk || status == ReplyStatus::kMissing) {
        std::exit(kExitOk);
    }
    printStatusAndExit(kExitNotFound, "The device");
}

void commitInsert(Conversation& talk, const JsonObject& reply) {
    switch (looseStatus(reply)) {
        case ReplyStatus::kOk:
            return askCommit(talk);
        case ReplyStatus::kNotFound:
            printStatusAndExit(kExitNotFound, "The device");
        default:
            internalError();
    }
}

void finishDrop(Conversation&, const JsonObject& reply) {
    switch (strictStatus(reply)) {
        case ReplyStatus::kOk:
            std::exit(kExitOk);
        case ReplyStatus::kNotFound:
            printStatusAndExit(kExitNotFound, "Connection");
        case ReplyStatus::kAuth:
            printStatusAndExit(kExitPermission, "to drop the connection");
        default:
            internalError();
    }
}

void printRules(Conversation& talk, const JsonObject& reply) {
    std::exit(outputRuleList(reply, !talk.invocation.noIndex, stdout));
}

void editRules(Conversation& talk, const JsonObject& reply) {
    std::optional<std::string> path = rules2file(reply);
    if (!path) {
        std::exit(kExitIo);
    }
    talk.slots.editFile = std::move(*path);
    talk.slots.ruleSet = loadRulesFromEditor(talk.slots.editFile.c_str());
    if (!talk.slots.ruleSet) {
        std::exit(kExitIo);
    }
    askLoad(talk);
}

void finishEdit(Conversation& talk) {
    (void)unlink(talk.slots.editFile.c_str());  // a copy that stays does no harm
    (void)std::puts("Sharing rules have been successfully updated.");
    std::exit(kExitOk);
}

/// Every reply of `rule test`, whatever its code, must be "ok" before anything else is looked at.
void examineTestReply(Conversation&, const JsonObject& reply) {
    switch (strictStatus(reply)) {
        case ReplyStatus::kOk:
            return;
        case ReplyStatus::kNotFound:
            printStatusAndExit(kExitNotFound, "Device");
        default:
            internalError();
    }
}

void printVerdict(Conversation&, const JsonObject& reply) {
    const JsonValue* verdict = stringMember(reply, "verdict");
    if (verdict == nullptr) {
        internalError();
    }
    const std::string_view text = asText(verdict);
    (void)std::fwrite(text.data(), 1, text.size(), stdout);
    (void)std::fputc('\n', stdout);
    std::exit(kExitOk);
}

// Deliberate: the preference commands fail without a message. Held by ReplyStatus.EndsAsTheTableSays.
void printPreferences(Conversation&, const JsonObject& reply) {
    const JsonObject* preferences = objectMember(reply, "preferences");
    if (strictStatus(reply) != ReplyStatus::kOk || preferences == nullptr) {
        std::exit(kExitIo);
    }
    outputPrefList(*preferences, stdout);
    std::exit(kExitOk);
}

void finishPreferences(Conversation&, const JsonObject& reply) {
    std::exit(strictStatus(reply) == ReplyStatus::kOk ? kExitOk : kExitIo);
}

// ---- The commands: what is asked on connection, and what the reply of each code leads to.

struct ReplyRow {
    std::int32_t code;
    Reaction react;
};

struct Flow {
    CommandKind kind;
    void (*onConnected)(Conversation&);  ///< null: nothing is asked
    Reaction examine;                    ///< what every reply goes through first, whatever its code; or null
    Reaction onAnyReply;                 ///< what takes every reply, whatever its code; or null
    std::span<const ReplyRow> replies;   ///< replies of other codes are ignored
};

constexpr ReplyRow kDevListReplies[] = {{kCmdDeviceList, printDevices}};
constexpr ReplyRow kDevUnplugReplies[] = {{kCmdDisconnectDevice, finishUnplug}};
constexpr ReplyRow kDevRuleReplies[] = {
    {kCmdStartRuleTransaction, whenOk<askInsert>},
    {kCmdInsertRule, commitInsert},
    {kCmdEndRuleTransaction, whenOk<finish>},
};
constexpr ReplyRow kConnListReplies[] = {{kCmdConnectionList, printConnections}};
constexpr ReplyRow kConnDropReplies[] = {{kCmdKillConnection, finishDrop}};
constexpr ReplyRow kRuleListReplies[] = {
    {kCmdStartRuleTransaction, whenOk<askRules>},
    {kCmdGetRules, printRules},
};
constexpr ReplyRow kRuleLoadReplies[] = {
    {kCmdStartRuleTransaction, whenOk<askLoad>},
    {kCmdLoadRules, whenOk<askCommit>},
    {kCmdEndRuleTransaction, whenOk<finish>},
};
constexpr ReplyRow kRuleEditReplies[] = {
    {kCmdStartRuleTransaction, whenOk<askRules>},
    {kCmdGetRules, editRules},
    {kCmdLoadRules, whenOk<askCommit>},
    {kCmdEndRuleTransaction, whenOk<finishEdit>},
};
constexpr ReplyRow kRuleTestReplies[] = {
    {kCmdStartRuleTransaction, then<askLoadOrTest>},
    {kCmdLoadRules, then<askTest>},
    {kCmdTestRule, printVerdict},
};

void printEvent(Conversation& talk, std::int32_t command, const JsonObject& event) noexcept {
    if (!talk.monitor.print(command, event)) {
        std::exit(kExitIo);
    }
}

constexpr Flow kFlows[] = {
    {CommandKind::kDevList, askDevices, nullptr, nullptr, kDevListReplies},
    {CommandKind::kDevUnplug, askUnplug, nullptr, nullptr, kDevUnplugReplies},
    {CommandKind::kDevShare, askTransaction, nullptr, nullptr, kDevRuleReplies},
    {CommandKind::kDevBlock, askTransaction, nullptr, nullptr, kDevRuleReplies},
    {CommandKind::kConnList, askConnections, nullptr, nullptr, kConnListReplies},
    {CommandKind::kConnDrop, askDrop, nullptr, nullptr, kConnDropReplies},
    {CommandKind::kRuleList, askTransaction, nullptr, nullptr, kRuleListReplies},
    {CommandKind::kRuleLoad, askTransaction, nullptr, nullptr, kRuleLoadReplies},
    {CommandKind::kRuleEdit, askTransaction, nullptr, nullptr, kRuleEditReplies},
    {CommandKind::kRuleTest, askTransaction, examineTestReply, nullptr, kRuleTestReplies},
    {CommandKind::kPrefList, askPreferences, nullptr, printPreferences, {}},
    {CommandKind::kPrefAdd, askAddPreferences, nullptr, finishPreferences, {}},
    {CommandKind::kPrefRemove, askRemovePreferences, nullptr, finishPreferences, {}},
};

const Flow* findFlow(CommandKind kind) noexcept {
    for (const Flow& flow : kFlows) {
        if (flow.kind == kind) {
            return &flow;
        }
    }
    return nullptr;
}

void reactTo(const Flow& flow, Conversation& talk, std::int32_t command, const JsonObject& reply) noexcept {
    if (flow.examine != nullptr) {
        flow.examine(talk, reply);
    }
    if (flow.onAnyReply != nullptr) {
        flow.onAnyReply(talk, reply);
    }
    for (const ReplyRow& row : flow.replies) {
        if (row.code == command) {
            row.react(talk, reply);
        }
    }
}

/// Nothing is asked: the daemon sends events by itself. Each line leaves at once, so that a pipe shows it and
/// an interrupted run has lost none.
bool installMonitor(RvTetherIPCClient& client, const std::shared_ptr<Conversation>& talk) {
    (void)std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // refused: the buffering stays as it is
    return client.setOnData(
        [talk](std::int32_t command, const JsonObject& event) { printEvent(*talk, command, event); });
}

bool installFlow(RvTetherIPCClient& client, const Flow& flow, const std::shared_ptr<Conversation>& talk) {
    return client.setOnConnected([talk, &flow] { flow.onConnected(*talk); }) &&
           client.setOnData([talk, &flow](std::int32_t command, const JsonObject& reply) {
               reactTo(flow, *talk, command, reply);
           });
}

}  // namespace

bool installCommand(const std::shared_ptr<RvTetherIPCClient>& client, const Invocation& invocation,
                    SharedSlots& slots) noexcept {
    try {
        const auto talk = std::make_shared<Conversation>(client, invocation, slots);
        if (invocation.kind == CommandKind::kMonitor) {
            return installMonitor(*client, talk);
        }
        const Flow* flow = findFlow(invocation.kind);
        return flow != nullptr && installFlow(*client, *flow, talk);
    } catch (const std::exception&) {
        return false;
    }
}
