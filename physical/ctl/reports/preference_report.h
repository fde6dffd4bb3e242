/// Prints the per-device preferences.
#ifndef RV_REPORTS_PREFERENCE_REPORT_H
#define RV_REPORTS_PREFERENCE_REPORT_H

#include <cstdio>

#include "ipc/json.h"

/// Prints one line per device of `preferences` to `stream`: its identity and the names of its preferences, in
/// the order in which the daemon sent them. An entry whose value is not a dictionary is skipped.
/// Both arguments are borrowed; write errors stay with the stream. Any thread.
/// See docs/protocol.md, "Preferences".
void outputPrefList(const JsonObject& preferences, std::FILE* stream) noexcept;

#endif
