/// Moves rule text between files and records.
#ifndef RV_RULES_RULE_FILE_H
#define RV_RULES_RULE_FILE_H

#include <optional>
#include <string>

#include "ipc/json.h"
#include "rules/rule_parser.h"

/// Reads a whole file, or standard input to its end.
///
/// path  the file; null for standard input. A pipe or a device is read to its end as well
/// what  a short noun for the message, "rules"
/// Returns the content, possibly empty, or nothing after one line on standard error: "Error loading WHAT from
/// PATH." or "Error loading WHAT from stdin.".
/// Thread: any, but only one at a time may use standard input.
std::optional<std::string> load_any_file(const char* path, const char* what) noexcept;

/// Reads and parses a rule file.
///
/// path  the file; null for standard input
/// Returns the records (see rule_parser_run), or null after one line on standard error, by load_any_file
/// or rule_parser_run.
RuleSet load_rule_file(const char* path) noexcept;

/// Writes the rules of a rule-list reply, without numbers, into a new file of the user's own under /tmp and
/// tells on standard output where it is. The file stays until the caller removes it.
///
/// reply  as for outputRuleList
/// Returns the file's path, or nothing after a message on standard error; then no file is left behind. A file
/// that cannot be written completely counts as one that cannot be made, for it will become the rule set.
std::optional<std::string> rules2file(const JsonObject& reply) noexcept;

#endif
