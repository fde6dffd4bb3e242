#include "ipc/json_text.h"

#include <algorithm>
#include <array>
#include <boost/json/serialize.hpp>
#include <charconv>

namespace {

/// Of bytes that cannot stand in a JSON string as they are.
constexpr bool needsEscape(char byte) noexcept {
    return static_cast<unsigned char>(byte) < 0x20 || byte == '"' || byte == '\\';
}

}  // namespace

void appendJsonString(std::string& json, std::string_view text) {
    if (std::any_of(text.begin(), text.end(), needsEscape)) {
        json += boost::json::serialize(boost::json::string_view(text.data(), text.size()));
        return;
    }
    json += '"';
    json += text;
    json += '"';
}

void appendJsonNumber(std::string& json, std::uint64_t number) {
    std::array<char, 20> digits;
    const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number);
    json.append(digits.data(), end);
}
