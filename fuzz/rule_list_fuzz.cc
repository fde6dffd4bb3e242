// Rule-list replies: whatever JSON object comes, it is refused with one message and nothing else, or printed
// one line to a rule.
#include <algorithm>
#include <boost/json.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "captured_stderr.h"
#include "rule_text.h"

namespace {

constexpr int kRefused = 5;

void require(bool holds, const char* what) {
    if (!holds) {
        (void)std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

/// The elements that are printed: objects with an action.
std::size_t printable(const JsonObject& reply) {
    std::size_t count = 0;
    for (const JsonValue& rule : reply.at("rules").as_array()) {
        count += rule.is_object() && stringMember(rule.get_object(), "action") != nullptr ? 1 : 0;
    }
    return count;
}

void check(const JsonObject& reply) {
    int status = -1;
    std::string printed;
    std::string numbered;
    std::string said;
    {
        CapturedStderr messages;
        printed = printReply(reply, false, &status);
        said = messages.take();
        numbered = printReply(reply, true);
    }
    if (stringMember(reply, "status") != nullptr || arrayMember(reply, "rules") == nullptr) {
        require(status == kRefused && printed.empty() && !said.empty(), "a refused reply is not refused");
        return;
    }
    const std::size_t lines = static_cast<std::size_t>(std::count(printed.begin(), printed.end(), '\n'));
    require(status == 0 && said.empty(), "a rule list is refused");
    require(lines >= printable(reply), "a rule has no line");
    require(numbered.size() >= printed.size() + 3 * printable(reply), "a rule has no number");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    boost::json::error_code error;
    const JsonValue value = boost::json::parse({reinterpret_cast<const char*>(data), size}, error);
    if (!error && value.is_object()) {
        check(value.get_object());
    }
    return 0;
}
