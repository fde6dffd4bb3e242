#include "reports/device_report.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "ipc/member_sorter.h"
#include "output/text_writer.h"
#include "reports/application.h"

namespace {

constexpr std::size_t kTabStop = 8;
constexpr std::size_t kWidePort = 16;  // from this width on the header needs tabs of its own

constexpr std::array<std::string_view, 12> kKeys = {"id",   "vid",   "pid",    "rev",  "port", "built-in",
                                                    "name", "state", "serial", "addr", "app",  "appPID"};

/// One device, its members in the order of kKeys; those that are absent are null.
struct Device {
    const JsonValue* id;
    const JsonValue* vid;
    const JsonValue* pid;
    const JsonValue* rev;
    const JsonValue* port;
    const JsonValue* builtIn;
    const JsonValue* name;
    const JsonValue* state;
    const JsonValue* serial;
    const JsonValue* addr;
    const JsonValue* app;
    const JsonValue* appPID;
};

Device readDevice(MemberSorter<kKeys.size()>& sorter, const JsonObject& row) noexcept {
    const auto [id, vid, pid, rev, port, builtIn, name, state, serial, addr, app, appPID] = sorter.sort(row);
    return {id, vid, pid, rev, port, builtIn, name, state, serial, addr, app, appPID};
}

bool isWhole(const Device& device) noexcept {
    // Deliberate: beside `appPID` it is `pid` that must be a number, which it is in any case, so an `appPID` of
    // any type passes and is read as a number. Held by DeviceReport.AppPidOfAnyTypePasses.
    return isNumber(device.id) && isNumber(device.vid) && isNumber(device.pid) && isNumber(device.rev) &&
           isNumber(device.builtIn) && isString(device.port) && device.serial != nullptr &&
           isString(device.name) && isString(device.state) && isAbsentOrString(device.addr) &&
           isAbsentOrString(device.app);
}

/// The longest port in bytes, of all elements: whether one will be printed makes no difference.
std::size_t widestPort(const JsonArray& devices) noexcept {
    std::size_t widest = 0;
    for (const JsonValue& element : devices) {
        if (const JsonObject* row = element.if_object()) {
            widest = std::max(widest, asText(member(*row, "port")).size());
        }
    }
    return widest;
}

void writeHeader(TextWriter& out, std::size_t widest) noexcept {
    out.text("ID\tVID: PID: REV\tPort\t");
    if (widest >= kWidePort) {
        out.tabs(widest / kTabStop - 1);
    }
    out.text("Device name and status\n");
}

void writeIdentity(TextWriter& out, const Device& device, std::size_t widest) noexcept {
    const std::string_view port = asText(device.port);
    out.number(asUint32(device.id)).text("\t");
    out.hex4(asUint32(device.vid)).text(":").hex4(asUint32(device.pid)).text(":").hex4(asUint32(device.rev));
    out.text("\t").text(port).text("\t").tabs(widest / kTabStop - port.size() / kTabStop);
}

void writeStatus(TextWriter& out, const Device& device) noexcept {
    out.text(asText(device.name)).text(" /");
    if (asBool(device.builtIn)) {
        out.text("built-in, ");
    }
    out.text(asText(device.state));
    if (device.addr != nullptr) {
        out.text("@").text(asText(device.addr));
    }
    writeApplication(out, device.app, device.appPID);
    if (const std::string_view serial = asText(device.serial); !serial.empty()) {
        out.text(", ").text(serial);
    }
    out.text("/\n");
}

}  // namespace

void outputDeviceList(const JsonObject& reply, std::FILE* stream) noexcept {
    const JsonArray* devices = arrayMember(reply, "devices");
    if (devices == nullptr) {
        return;
    }
    const std::size_t widest = widestPort(*devices);
    TextWriter out(stream);
    writeHeader(out, widest);
    MemberSorter sorter(kKeys);
    for (const JsonValue& element : *devices) {
        const JsonObject* row = element.if_object();
        if (row == nullptr) {
            continue;
        }
        const Device device = readDevice(sorter, *row);
        if (isWhole(device)) {
            writeIdentity(out, device, widest);
            writeStatus(out, device);
        }
    }
}
