/// The local application that uses a device, as lists and events name it.
#ifndef RV_REPORTS_APPLICATION_H
#define RV_REPORTS_APPLICATION_H

#include "ipc/json.h"
#include "output/text_writer.h"

/// Writes "@", the last component of `app`, and the process id in parentheses; nothing when `app` is null.
/// appPID  may be null or of any type: what is not a number counts as 0
void writeApplication(TextWriter& out, const JsonValue* app, const JsonValue* appPID) noexcept;

#endif
