// The device list as a program made for nothing else: blocking reads into a buffer of the right size, a fast
// parser, and rows put together by hand. It checks nothing.
#include <algorithm>
#include <cstdint>
#include <string_view>

#include "bench/process/tuned.h"

namespace {

struct Device {
    std::uint64_t id, vid, pid, rev;
    bool builtIn;
    std::string_view port, name, state, serial, addr;
};

}  // namespace

int main() {
    const Reply reply = request(0);
    simdjson::dom::parser parser;
    const simdjson::dom::array devices =
        parser.parse(reply.bytes, reply.size, false)["devices"].get_array().value();
    std::size_t widest = 0;
    for (const simdjson::dom::element device : devices) {
        widest = std::max(widest, device["port"].get_string().value().size());
    }
    static Output out;
    out.text("ID\tVID: PID: REV\tPort\t");
    for (std::size_t i = 1; i < widest / 8; ++i) {
        out.text("\t");
    }
    out.text("Device name and status\n");
    for (const simdjson::dom::element element : devices) {
        Device device{};
        for (const auto& [key, value] : simdjson::dom::object(element)) {
            if (key == "id")
                device.id = value.get_uint64().value();
            else if (key == "vid")
                device.vid = value.get_uint64().value();
            else if (key == "pid")
                device.pid = value.get_uint64().value();
            else if (key == "rev")
                device.rev = value.get_uint64().value();
            else if (key == "built-in")
                device.builtIn = value.get_bool().value();
            else if (key == "port")
                device.port = value.get_string().value();
            else if (key == "name")
                device.name = value.get_string().value();
            else if (key == "state")
                device.state = value.get_string().value();
            else if (key == "serial")
                device.serial = value.get_string().value();
            else if (key == "addr")
                device.addr = value.get_string().value();
        }
        out.number(device.id);
        out.text("\t");
        out.hex4(device.vid);
        out.text(":");
        out.hex4(device.pid);
        out.text(":");
        out.hex4(device.rev);
        out.text("\t");
        out.text(device.port);
        out.text("\t");
        for (std::size_t i = device.port.size() / 8; i < widest / 8; ++i) {
            out.text("\t");
        }
        out.text(device.name);
        out.text(device.builtIn ? " /built-in, " : " /");
        out.text(device.state);
        if (device.addr.data() != nullptr) {
            out.text("@");
            out.text(device.addr);
        }
        if (!device.serial.empty()) {
            out.text(", ");
            out.text(device.serial);
        }
        out.text("/\n");
    }
}
