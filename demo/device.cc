#include "demo/device.h"

#include <charconv>
#include <system_error>

namespace demo {

std::optional<std::uint16_t> parseHex(std::string_view digits) noexcept {
    constexpr std::size_t kMaxDigits = 4;
    constexpr int kBase = 16;
    std::uint16_t value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value, kBase);
    if (error != std::errc() || stop != end || digits.size() > kMaxDigits) {
        return std::nullopt;
    }
    return value;
}

}  // namespace demo
