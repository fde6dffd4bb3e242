/// Prints the daemon's rule list in the rule text language, one rule per line.
#ifndef RV_RULES_RULE_PRINTER_H
#define RV_RULES_RULE_PRINTER_H

#include <cstdio>

#include "ipc/json.h"

/// Writes the rules of a rule-list reply. Clauses of the wrong type are left out, and an element without an
/// action is skipped without a trace but for its number. Strings are written up to their first NUL and
/// without any escaping.
///
/// reply     the reply's dictionary: `rules` is an array of records; borrowed for the call
/// numbered  every line begins with the position in the array, counted from 1, and ": "
/// stream    gets the rules and nothing else; write errors are left to its owner (ferror(3))
/// Returns kExitOk; or, with nothing written to `stream` and one line on standard error, kExitIo: "Internal
/// error." when the reply has a status string, as error replies do, "Rule list format error." when it has no
/// rules array.
/// Thread: any that owns the stream. See docs/rule-language.md, "Printing".
int outputRuleList(const JsonObject& reply, bool numbered, std::FILE* stream) noexcept;

#endif
