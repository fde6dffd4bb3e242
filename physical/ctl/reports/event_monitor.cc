#include "reports/event_monitor.h"

#include <cstring>

#include "ipc/command.h"
#include "output/text_writer.h"
#include "reports/application.h"

namespace {

bool isAbsentOrNumber(const JsonValue* value) noexcept {
    return value == nullptr || isNumber(value);
}

bool printDeviceEvent(TextWriter& out, std::string_view stamp, const JsonObject& event) noexcept {
    const JsonValue* id = member(event, "id");
    const JsonValue* name = member(event, "name");
    const JsonValue* state = member(event, "state");
    const JsonValue* addr = member(event, "addr");
    const JsonValue* app = member(event, "app");
    const JsonValue* appPID = member(event, "appPID");
    if (!isNumber(id) || !isString(name) || !isString(state) || !isAbsentOrString(addr) ||
        !isAbsentOrString(app) || !isAbsentOrNumber(appPID)) {
        return false;
    }
    out.text(stamp).text(" device id:").number(asUint32(id)).text(" \"").text(asText(name)).text("\" got ");
    out.text(asText(state));
    if (addr != nullptr) {
        out.text("@").text(asText(addr));
    }
    writeApplication(out, app, appPID);
    out.text("\n");
    return true;
}

bool printConnectionEvent(TextWriter& out, std::string_view stamp, const JsonObject& event) noexcept {
    const JsonValue* state = member(event, "state");
    const JsonValue* addr = member(event, "addr");
    const JsonValue* port = member(event, "port");
    const JsonValue* app = member(event, "app");
    const JsonValue* appPID = member(event, "appPID");
    if (!isString(state) || !isAbsentOrString(addr) || !isAbsentOrNumber(port) || !isAbsentOrString(app) ||
        !isAbsentOrNumber(appPID)) {
        return false;
    }
    if (addr != nullptr && port != nullptr) {
        out.text(stamp).text(" host ").text(asText(addr)).text(":").number(asUint32(port));
        out.text(" is ").text(asText(state)).text("\n");
    } else if (app != nullptr && appPID != nullptr) {
        out.text(stamp).text(" (").number(asUint32(appPID)).text(")").text(asText(app));
        out.text(" is ").text(asText(state)).text("\n");
    }
    return true;
}

}  // namespace

/// "[Sun Nov 15 23:33:10 2026]:", or "-" when the time cannot be converted. The text changes once a second,
/// so it is kept from event to event.
std::string_view EventMonitor::stamp() noexcept {
    const std::time_t now = std::time(nullptr);
    if (stampLength_ == 0 || now != stampedAt_) {
        std::tm local{};
        stampLength_ = 0;
        stampedAt_ = now;
        stamp_[0] = '[';
        stamp_[1] = '\0';
        if (localtime_r(&now, &local) == nullptr || asctime_r(&local, stamp_ + 1) == nullptr ||
            stamp_[1] == '\0') {
            return "-";
        }
        stampLength_ = std::strlen(stamp_) + 1;
        stamp_[stampLength_ - 2] = ']';  // in the place of the final newline of asctime_r(3)
        stamp_[stampLength_ - 1] = ':';
    }
    return {stamp_, stampLength_};
}

bool EventMonitor::print(std::int32_t command, const JsonObject& event) noexcept {
    const std::string_view time = stamp();
    TextWriter out(stream_);
    bool valid = true;
    switch (command) {
        case kCmdDeviceEvent:
            valid = printDeviceEvent(out, time, event);
            break;
        case kCmdConnectionEvent:
            valid = printConnectionEvent(out, time, event);
            break;
        case kCmdRuleListEvent:
            out.text(time).text(" rule list changed\n");
            break;
        default:
            break;
    }
    if (!valid) {
        (void)std::fputs("invalid data\n", stderr);  // nobody is left to tell
    }
    return valid;
}
