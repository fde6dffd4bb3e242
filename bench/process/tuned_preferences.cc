// The preference list as a program made for nothing else. It checks nothing.
#include "bench/process/tuned.h"

int main() {
    const Reply reply = request(19);
    simdjson::dom::parser parser;
    const simdjson::dom::object devices =
        parser.parse(reply.bytes, reply.size, false)["preferences"].get_object().value();
    static Output out;
    out.text("VID:PID:REV\tPreferences\n");
    for (const auto& [identity, names] : devices) {
        out.text(identity);
        out.text("\t");
        for (const auto& [name, value] : simdjson::dom::object(names)) {
            out.text(name);
            out.text(" ");
        }
        out.text("\n");
    }
}
