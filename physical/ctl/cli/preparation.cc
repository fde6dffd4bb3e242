#include "cli/preparation.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "cli/exit_status.h"
#include "cli/hardware_id.h"
#include "cli/usage.h"
#include "rules/rule_file.h"

namespace {

constexpr char kNoDeviceId[] = "Error: device Id is missing.\n";
constexpr char kNoHost[] = "Error: hostname is missing.\n";
constexpr char kNoHardwareId[] = "Error: hardware Id is missing.\n";
constexpr char kBadHardwareId[] = "Error: cannot get hardware Id.\n";
constexpr char kBadPreference[] = "Error: unknown preference.\n";
constexpr char kNoTestSource[] = "Error: Host or Remote Desktop connection should be specified.\n";
constexpr char kPreference[] = "grab_on_plug";

/// path  null for standard input
void loadRules(const char* path, SharedSlots& slots) noexcept {
    slots.ruleSet = load_rule_file(path);
    if (!slots.ruleSet) {  // the loader has told why
        std::exit(kExitIo);
    }
}

void prepareDevice(Invocation& invocation) noexcept {
    if (invocation.words.empty()) {
        usageError(kNoDeviceId);
    }
    invocation.deviceId = wordToNumber(invocation.words.front());
}

void prepareConnDrop(Invocation& invocation) noexcept {
    if (invocation.words.empty()) {
        usageError(kNoHost);
    }
    invocation.host = invocation.words.front();
}

void prepareRuleLoad(const Invocation& invocation, SharedSlots& slots) noexcept {
    if (!invocation.words.empty()) {
        loadRules(invocation.words.front(), slots);
        return;
    }
    (void)std::puts("(reading from stdin. Press ^D to finish.)");
    (void)std::fflush(stdout);  // the user reads it before typing
    loadRules(nullptr, slots);
}

/// The file is read and parsed before the device id is looked at.
void prepareRuleTest(Invocation& invocation, SharedSlots& slots) noexcept {
    if (invocation.rulePath != nullptr) {
        loadRules(std::strcmp(invocation.rulePath, "-") == 0 ? nullptr : invocation.rulePath, slots);
    }
    prepareDevice(invocation);
    if (invocation.host == nullptr && !invocation.remoteDesktop) {
        usageError(kNoTestSource);
    }
}

void prepareHardwareId(Invocation& invocation, std::size_t wordsNeeded) noexcept {
    if (invocation.words.size() < wordsNeeded) {
        usageError(kNoHardwareId);
    }
    std::optional<std::string> id = validate_hwid(invocation.words.front());
    if (!id) {
        (void)std::fputs(kBadHardwareId, stderr);
        std::exit(kExitIo);
    }
    invocation.hardwareId = std::move(*id);
}

void preparePrefAdd(Invocation& invocation) noexcept {
    prepareHardwareId(invocation, 2);
    if (std::strcmp(invocation.words[1], kPreference) != 0) {
        usageError(kBadPreference);
    }
}

}  // namespace

void prepareLocally(Invocation& invocation, SharedSlots& slots) noexcept {
    switch (invocation.kind) {
        case CommandKind::kDevList:
        case CommandKind::kConnList:
        case CommandKind::kRuleList:
        case CommandKind::kRuleEdit:
        case CommandKind::kPrefList:
        case CommandKind::kMonitor:
            return;
        case CommandKind::kDevUnplug:
        case CommandKind::kDevShare:
        case CommandKind::kDevBlock:
            return prepareDevice(invocation);
        case CommandKind::kConnDrop:
            return prepareConnDrop(invocation);
        case CommandKind::kRuleLoad:
            return prepareRuleLoad(invocation, slots);
        case CommandKind::kRuleTest:
            return prepareRuleTest(invocation, slots);
        case CommandKind::kPrefAdd:
            return preparePrefAdd(invocation);
        case CommandKind::kPrefRemove:
            return prepareHardwareId(invocation, 1);
    }
    (void)std::fputs("Error: not implemented.\n", stderr);
    std::exit(kExitInvalid);
}
