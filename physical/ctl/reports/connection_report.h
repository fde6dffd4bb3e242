/// Prints the daemon's list of active connections.
#ifndef RV_REPORTS_CONNECTION_REPORT_H
#define RV_REPORTS_CONNECTION_REPORT_H

#include <cstdio>

#include "ipc/json.h"

/// Prints the `connections` of `reply` to `stream`, in their order: remote-desktop sessions and network
/// connections; elements that are neither are skipped. A reply without a `connections` array prints nothing.
/// Its `status` is not looked at. Both arguments are borrowed; write errors stay with the stream. Any thread.
/// See docs/protocol.md, "Connection list".
void outputConnectionList(const JsonObject& reply, std::FILE* stream) noexcept;

#endif
