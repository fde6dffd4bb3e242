// The connection list as a program made for nothing else. It checks nothing.
#include <cstdint>
#include <string_view>

#include "bench/process/tuned.h"

int main() {
    const Reply reply = request(1);
    simdjson::dom::parser parser;
    const simdjson::dom::array rows =
        parser.parse(reply.bytes, reply.size, false)["connections"].get_array().value();
    static Output out;
    out.text("Type\tIP/Name\t\tPort/PID\n");
    for (const simdjson::dom::element element : rows) {
        std::string_view addr;
        std::string_view app;
        std::uint64_t port = 0;
        std::uint64_t appPID = 0;
        for (const auto& [key, value] : simdjson::dom::object(element)) {
            if (key == "addr") {
                addr = value.get_string().value();
            } else if (key == "port") {
                port = value.get_uint64().value();
            } else if (key == "app") {
                app = value.get_string().value();
            } else if (key == "appPID") {
                appPID = value.get_uint64().value();
            }
        }
        const bool remote = app.data() != nullptr;
        const std::string_view whole = remote ? app : addr;
        out.text(remote ? "rdesk\t" : "net\t");
        out.text(remote ? app.substr(app.rfind('/') + 1) : addr);
        out.text(whole.size() < 8 ? "\t\t" : "\t");
        out.number(remote ? appPID : port);
        out.text("\n");
    }
}
