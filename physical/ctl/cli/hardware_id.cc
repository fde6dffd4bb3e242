#include "cli/hardware_id.h"

#include <cstdlib>
#include <string_view>

namespace {

constexpr std::size_t kGroups = 3;
constexpr std::size_t kGroupDigits = 4;
constexpr std::string_view kHexDigits = "0123456789abcdef";

char toLower(char letter) noexcept {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

/// Appends one group, padded; false when it is empty, too long or holds anything but hexadecimal digits.
bool appendGroup(std::string& id, std::string_view group) noexcept {
    if (group.empty() || group.size() > kGroupDigits) {
        return false;
    }
    id.append(kGroupDigits - group.size(), '0');
    for (const char letter : group) {
        const char lower = toLower(letter);
        if (kHexDigits.find(lower) == std::string_view::npos) {
            return false;
        }
        id.push_back(lower);
    }
    return true;
}

}  // namespace

std::optional<std::string> validate_hwid(const char* text) noexcept {
    std::string id;  // 14 characters at most: kept in place, without memory of its own
    std::string_view rest = text;
    for (std::size_t group = 1;; ++group) {
        // What follows the second colon is the third group, further colons included, which no group may hold.
        const std::size_t colon = group < kGroups ? rest.find(':') : std::string_view::npos;
        if (!appendGroup(id, rest.substr(0, colon))) {
            return std::nullopt;
        }
        if (colon == std::string_view::npos) {
            return id;
        }
        id.push_back(':');
        rest.remove_prefix(colon + 1);
    }
}

std::optional<std::uint16_t> hextstr_to_number(const char* text) noexcept {
    constexpr int kHexadecimal = 16;
    if (*text == '\0') {
        return std::nullopt;
    }
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, kHexadecimal);
    if (*end != '\0') {
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(value);
}
