#include "cli/reply_status.h"

#include <cstdio>
#include <cstdlib>

#include "cli/exit_status.h"

namespace {

ReplyStatus statusOfText(const JsonString& text) noexcept {
    if (text == "ok") {
        return ReplyStatus::kOk;
    }
    if (text == "notfound") {
        return ReplyStatus::kNotFound;
    }
    return text == "auth" ? ReplyStatus::kAuth : ReplyStatus::kOther;
}

}  // namespace

ReplyStatus strictStatus(const JsonObject& reply) noexcept {
    const JsonValue* status = stringMember(reply, "status");
    return status == nullptr ? ReplyStatus::kMissing : statusOfText(status->get_string());
}

ReplyStatus looseStatus(const JsonObject& reply) noexcept {
    const JsonValue* status = member(reply, "status");
    if (status == nullptr) {
        return ReplyStatus::kMissing;
    }
    return isString(status) ? statusOfText(status->get_string()) : ReplyStatus::kOther;
}

void printStatusAndExit(int status, const char* subject) noexcept {
    // What cannot be written has nobody left to be told.
    switch (status) {
        case kExitNotFound:
            (void)std::fprintf(stderr, "%s has not been found.\n", subject);
            break;
        case kExitIo:
            (void)std::fputs("Internal error.\n", stderr);
            break;
        case kExitPermission:
            (void)std::fprintf(stderr,
                               "Error: you don't have permissions %s.\n"
                               "Administrative user or root is allowed to do this operation.\n",
                               subject);
            break;
        default:
            break;
    }
    std::exit(status);
}
