/// Reads a command line: the command, its options and its positional words.
#ifndef RV_CLI_OPTIONS_H
#define RV_CLI_OPTIONS_H

#include <cstdint>
#include <span>
#include <string>

/// The numbers are fixed; those that are missing are not in use.
enum class CommandKind : int {
    kDevList = 0,
    kDevUnplug = 1,
    kDevShare = 2,
    kDevBlock = 3,
    kConnList = 4,
    kConnDrop = 5,
    kRuleList = 6,
    kRuleLoad = 7,
    kRuleEdit = 8,
    kRuleTest = 9,
    kPrefList = 12,
    kPrefAdd = 13,
    kPrefRemove = 14,
    kMonitor = 15,
};

/// One command line as far as it is read. Pointers borrow from the argument vector.
struct Invocation {
    CommandKind kind = CommandKind::kDevList;
    std::span<char* const> words;    ///< positional words, after the options
    std::int32_t deviceId = 0;       ///< as atoi(3) reads it: text that is no number gives 0
    const char* host = nullptr;      ///< of `conn drop`, or -h of `rule test`; null when absent
    bool portGiven = false;          ///< -p
    std::uint16_t port = 0;          ///< the low 16 bits of what -p says
    bool remoteDesktop = false;      ///< -r
    bool noIndex = false;            ///< -N
    const char* rulePath = nullptr;  ///< -f of `rule test`; null when absent
    std::string hardwareId;          ///< of the preference commands, normalised
};

/// Recognises the command and reads its options; the positional words are not looked at.
///
/// A mistake gives its message and the usage text and ends the process with kExitInvalid; "-h" and "--help"
/// in the place of the command give the usage text and end it with kExitOk. Called once, by main, before any
/// other thread runs (getopt(3) keeps its state in globals).
Invocation parseCommandLine(int argc, char** argv) noexcept;

/// atoi(3) with its common, else undefined, result for numbers out of range: the low 32 bits.
std::int32_t wordToNumber(const char* word) noexcept;

#endif
