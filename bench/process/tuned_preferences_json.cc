// The preference list as a program made for nothing else, with the same JSON library. It checks nothing.
#include "bench/process/tuned_json.h"

int main() {
    const boost::json::object& reply = parseReply(request(19));
    static Output out;
    out.text("VID:PID:REV\tPreferences\n");
    for (const auto& device : reply.at("preferences").get_object()) {
        out.text(keyOf(device));
        out.text("\t");
        for (const auto& preference : device.value().get_object()) {
            out.text(keyOf(preference));
            out.text(" ");
        }
        out.text("\n");
    }
}
