/// Prints the daemon's device list as a tab-separated table.
#ifndef RV_REPORTS_DEVICE_REPORT_H
#define RV_REPORTS_DEVICE_REPORT_H

#include <cstdio>

#include "ipc/json.h"

/// Prints the `devices` of `reply` to `stream`, in their order; elements that are not whole devices are
/// skipped. A reply without a `devices` array prints nothing, not even the header. Its `status` is not looked
/// at. Both arguments are borrowed; write errors stay with the stream. Any thread. See docs/protocol.md,
/// "Device list".
void outputDeviceList(const JsonObject& reply, std::FILE* stream) noexcept;

#endif
