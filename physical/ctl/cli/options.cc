#include "cli/options.h"

#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "cli/exit_status.h"
#include "cli/usage.h"

namespace {

struct CommandRow {
    std::string_view first;
    std::string_view second;  ///< empty: the first word alone
    CommandKind kind;
    const char* options;  ///< for getopt(3); null when the command has none
};

/// "+" keeps getopt(3) from reordering: it stops at the first word that is not an option.
constexpr CommandRow kCommands[] = {
    {"dev", "", CommandKind::kDevList, nullptr},           {"dev", "list", CommandKind::kDevList, nullptr},
    {"dev", "unplug", CommandKind::kDevUnplug, nullptr},   {"dev", "share", CommandKind::kDevShare, nullptr},
    {"dev", "block", CommandKind::kDevBlock, nullptr},     {"conn", "", CommandKind::kConnList, nullptr},
    {"conn", "list", CommandKind::kConnList, nullptr},     {"conn", "drop", CommandKind::kConnDrop, "+p:"},
    {"rule", "", CommandKind::kRuleList, nullptr},         {"rule", "list", CommandKind::kRuleList, "+N"},
    {"rule", "load", CommandKind::kRuleLoad, nullptr},     {"rule", "edit", CommandKind::kRuleEdit, nullptr},
    {"rule", "test", CommandKind::kRuleTest, "+f:rh:"},    {"pref", "", CommandKind::kPrefList, nullptr},
    {"pref", "list", CommandKind::kPrefList, nullptr},     {"pref", "add", CommandKind::kPrefAdd, nullptr},
    {"pref", "remove", CommandKind::kPrefRemove, nullptr},
};
constexpr std::string_view kMonitorWord = "monitor";
constexpr char kInvalid[] = "Error: Invalid argument.\n";

const CommandRow* findCommand(std::string_view first, std::string_view second) noexcept {
    for (const CommandRow& row : kCommands) {
        if (row.first == first && row.second == second) {
            return &row;
        }
    }
    return nullptr;
}

void readOption(int option, Invocation& invocation) noexcept {
    switch (option) {
        case 'p':
            invocation.port = static_cast<std::uint16_t>(wordToNumber(optarg));
            invocation.portGiven = true;
            break;
        case 'N':
            invocation.noIndex = true;
            break;
        case 'f':
            invocation.rulePath = optarg;
            break;
        case 'h':  // the later of -h and -r decides
            invocation.host = optarg;
            invocation.remoteDesktop = false;
            break;
        case 'r':
            invocation.remoteDesktop = true;
            invocation.host = nullptr;
            break;
        default:  // getopt(3) has written its diagnostic
            usage(kExitInvalid);
    }
}

/// `words` begins with the second word, which stands where getopt(3) expects a program name.
/// Returns how many of them are read.
int readOptions(std::span<char* const> words, const char* options, Invocation& invocation) noexcept {
    if (options == nullptr) {
        return 1;
    }
    const int count = static_cast<int>(words.size());
    for (;;) {
        const int option = getopt(count, words.data(), options);
        if (option == -1) {
            return optind;
        }
        readOption(option, invocation);
    }
}

}  // namespace

std::int32_t wordToNumber(const char* word) noexcept {
    constexpr int kDecimal = 10;
    return static_cast<std::int32_t>(std::strtol(word, nullptr, kDecimal));
}

Invocation parseCommandLine(int argc, char** argv) noexcept {
    setProgramName(argc, argv);
    if (argc < 2) {
        usageError("Error: arguments must be specified.\n");
    }
    Invocation invocation;
    const std::string_view first = argv[1];
    if (first == kMonitorWord) {
        invocation.kind = CommandKind::kMonitor;
        return invocation;
    }
    const CommandRow* row = findCommand(first, "");
    if (row == nullptr) {
        if (first == "-h" || first == "--help") {
            usage(kExitOk);
        }
        usageError(kInvalid);
    }
    if (argc > 2) {
        // An empty second word is a word, and no command has it.
        row = argv[2][0] == '\0' ? nullptr : findCommand(first, argv[2]);
        if (row == nullptr) {
            usageError(kInvalid);
        }
        const std::span<char* const> words(argv + 2, static_cast<std::size_t>(argc - 2));
        invocation.words =
            words.subspan(static_cast<std::size_t>(readOptions(words, row->options, invocation)));
    }
    invocation.kind = row->kind;
    return invocation;
}
