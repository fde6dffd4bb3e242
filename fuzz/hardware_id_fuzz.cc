// Hardware ids, compared with a reading of the rules that takes another way: a regular expression.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <regex>
#include <string>

#include "cli/hardware_id.h"
#include "fuzz/require.h"

namespace {

std::optional<std::string> expected(const std::string& text) {
    static const std::regex form("([0-9A-Fa-f]{1,4})(?::([0-9A-Fa-f]{1,4}))?(?::([0-9A-Fa-f]{1,4}))?");
    std::smatch match;
    if (!std::regex_match(text, match, form)) {
        return {};
    }
    std::string id;
    for (std::size_t group = 1; group < match.size() && match[group].matched; ++group) {
        char digits[5];
        (void)std::snprintf(digits, sizeof digits, "%04lx", std::stoul(match[group].str(), nullptr, 16));
        id += (id.empty() ? "" : ":") + std::string(digits);
    }
    return id;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(std::string(reinterpret_cast<const char*>(data), size).c_str());
    if (text.size() < 100) {  // the expression recurses
        require(validate_hwid(text.c_str()) == expected(text), "a hardware id is read differently");
    }
    if (const auto id = validate_hwid(text.c_str())) {
        require(validate_hwid(id->c_str()) == id, "a normal form is not its own normal form");
    }
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 16);
    const std::optional<std::uint16_t> number = hextstr_to_number(text.c_str());
    require(number.has_value() == (!text.empty() && *end == '\0'),
            "a number is taken, or not, against the rules");
    require(!number || *number == static_cast<std::uint16_t>(value), "a number has another value");
    return 0;
}
