/// What the tests of the demo daemon share: JSON texts as values and a small inventory.
#ifndef RV_TESTS_DEMO_SUPPORT_H
#define RV_TESTS_DEMO_SUPPORT_H

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "demo/state.h"

namespace demo {

inline JsonArray array(std::string_view text) {
    return boost::json::parse(boost::json::string_view(text.data(), text.size())).as_array();
}

inline JsonObject object(std::string_view text) {
    return boost::json::parse(boost::json::string_view(text.data(), text.size())).as_object();
}

inline RuleSet ruleSet(std::string_view text) {
    return std::make_shared<const JsonArray>(array(text));
}

/// "4 {...}", one for each event.
inline std::vector<std::string> texts(const std::vector<Event>& events) {
    std::vector<std::string> result;
    result.reserve(events.size());
    for (const Event& event : events) {
        result.push_back(std::to_string(event.command) + " " + boost::json::serialize(event.body));
    }
    return result;
}

inline Device keyboard() {
    return {.vid = 0xe001,
            .pid = 0x0101,
            .rev = 0x0110,
            .port = "1-1",
            .name = "Office keyboard",
            .serial = "",
            .builtIn = false,
            .classes = {{3, 1, 1}, {3, 0, 0}},
            .user = {}};
}

inline Device printer() {
    return {.vid = 0xe004,
            .pid = 0x1220,
            .rev = 0x0101,
            .port = "2-1",
            .name = "Front desk printer",
            .serial = "P-2043",
            .builtIn = true,
            .classes = {{7, 1, 2}},
            .user = {}};
}

/// Device 1 is the keyboard, 2 the printer, and lab-pc is connected on two ports.
inline State makeState(std::string_view rules) {
    Inventory inventory;
    inventory.devices = {keyboard(), printer()};
    inventory.connections = {{.user = {.addr = "lab-pc"}, .port = 1000},
                             {.user = {.addr = "desk"}, .port = 2000},
                             {.user = {.addr = "lab-pc"}, .port = 3000},
                             {.user = {.app = "/bin/session", .appPid = 7}, .port = 0}};
    inventory.rules = array(rules);
    return State(std::move(inventory));
}

}  // namespace demo

#endif
