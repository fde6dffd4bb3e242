// The rule list as a program made for nothing else, with the same JSON library. It checks nothing.
#include "bench/process/tuned_json.h"

namespace {

namespace json = boost::json;

void printRule(Output& out, std::uint64_t number, const json::object& rule) {
    const json::value* pid = nullptr;
    const json::value* vid = nullptr;
    std::string_view serial;
    out.number(number);
    out.text(": ");
    for (const auto& [key, value] : rule) {
        if (key == "action") {
            out.text(textOf(value));
        } else if (key == "quick") {
            out.text(value.get_bool() ? " quick" : " ");
        } else if (key == "host") {
            const char* separator = " host \"";
            for (const json::value& host : value.get_array()) {
                out.text(separator);
                out.text(textOf(host));
                separator = ",";
            }
            out.text("\"");
        } else if (key == "serial") {
            serial = textOf(value);
        } else if (key == "vid") {
            vid = &value;
        } else if (key == "pid") {
            pid = &value;
        }
    }
    out.text(" hwid ");
    out.hex4(static_cast<std::uint64_t>(vid->get_int64()));
    out.text(":");
    out.hex4(static_cast<std::uint64_t>(pid->get_int64()));
    out.text(" serial \"");
    out.text(serial);
    out.text("\"\n");
}

}  // namespace

int main() {
    const int sock = connectToDaemon();
    (void)request(sock, 6);
    const Reply reply = request(sock, 7);
    static Output out;
    std::uint64_t number = 0;
    for (const json::value& rule : parseReply(reply).at("rules").get_array()) {
        printRule(out, ++number, rule.get_object());
    }
}
