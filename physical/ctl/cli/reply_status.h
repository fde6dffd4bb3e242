/// The status of a reply and what the tool makes of it.
#ifndef RV_CLI_REPLY_STATUS_H
#define RV_CLI_REPLY_STATUS_H

#include "ipc/json.h"

enum class ReplyStatus {
    kOk,        ///< "ok"
    kNotFound,  ///< "notfound"
    kAuth,      ///< "auth"
    kOther,     ///< present, and none of these
    kMissing,
};

/// Reads the `status` that must be a string: of any other type it counts as missing. Pure; any thread.
ReplyStatus strictStatus(const JsonObject& reply) noexcept;

/// Reads the `status` without a look at its type: anything that is there and is not one of the known texts is
/// kOther. Deliberate: the commands that read it this way differ from the strict ones for a status that is
/// missing or no string. Held by ReplyStatus.EndsAsTheTableSays.
ReplyStatus looseStatus(const JsonObject& reply) noexcept;

/// Writes the message of `status` to standard error and ends the process with it. kExitNotFound names the
/// subject ("%s has not been found."), kExitPermission completes its sentence with it ("you don't have
/// permissions %s."), kExitIo is an internal error, and any other status ends without a message.
[[noreturn]] void printStatusAndExit(int status, const char* subject) noexcept;

#endif
