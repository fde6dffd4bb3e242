// The connection list as a program made for nothing else, with the same JSON library. It checks nothing.
#include "bench/process/tuned_json.h"

int main() {
    const boost::json::object& reply = parseReply(request(1));
    static Output out;
    out.text("Type\tIP/Name\t\tPort/PID\n");
    for (const boost::json::value& element : reply.at("connections").get_array()) {
        std::string_view addr;
        std::string_view app;
        std::int64_t number = 0;
        for (const auto& member : element.get_object()) {
            if (keyOf(member) == "addr") {
                addr = textOf(member.value());
            } else if (keyOf(member) == "app") {
                app = textOf(member.value());
            } else {
                number = member.value().get_int64();
            }
        }
        const bool remote = app.data() != nullptr;
        const std::string_view whole = remote ? app : addr;
        out.text(remote ? "rdesk\t" : "net\t");
        out.text(remote ? app.substr(app.rfind('/') + 1) : addr);
        out.text(whole.size() < 8 ? "\t\t" : "\t");
        out.number(static_cast<std::uint64_t>(number));
        out.text("\n");
    }
}
