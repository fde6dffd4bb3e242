#include "ipc/json.h"

#include <cmath>

namespace {

constexpr double kTwoTo32 = 4294967296.0;

/// Integers are taken modulo 2^32, as a narrowing conversion does; infinity, which is what a number beyond
/// the range of double is read as, gives 0.
std::uint32_t lowBits(double number) noexcept {
    const double whole = std::fmod(std::trunc(number), kTwoTo32);
    if (std::isnan(whole)) {
        return 0;
    }
    return static_cast<std::uint32_t>(static_cast<std::int64_t>(whole));
}

std::string_view upToNul(std::string_view bytes) noexcept {
    return bytes.substr(0, bytes.find('\0'));
}

}  // namespace

const JsonValue* member(const JsonObject& object, std::string_view key) noexcept {
    return object.if_contains({key.data(), key.size()});
}

bool isNumber(const JsonValue* value) noexcept {
    return value != nullptr && (value->is_number() || value->is_bool());
}

bool isString(const JsonValue* value) noexcept {
    return value != nullptr && value->is_string();
}

bool isAbsentOrString(const JsonValue* value) noexcept {
    return value == nullptr || isString(value);
}

const JsonValue* numberMember(const JsonObject& object, std::string_view key) noexcept {
    const JsonValue* value = member(object, key);
    return isNumber(value) ? value : nullptr;
}

const JsonValue* stringMember(const JsonObject& object, std::string_view key) noexcept {
    const JsonValue* value = member(object, key);
    return isString(value) ? value : nullptr;
}

const JsonArray* arrayMember(const JsonObject& object, std::string_view key) noexcept {
    const JsonValue* value = member(object, key);
    return value == nullptr ? nullptr : value->if_array();
}

const JsonObject* objectMember(const JsonObject& object, std::string_view key) noexcept {
    const JsonValue* value = member(object, key);
    return value == nullptr ? nullptr : value->if_object();
}

std::uint32_t asUint32(const JsonValue* value) noexcept {
    if (value == nullptr) {
        return 0;
    }
    switch (value->kind()) {
        case boost::json::kind::bool_:
            return value->get_bool() ? 1U : 0U;
        case boost::json::kind::int64:
            return static_cast<std::uint32_t>(value->get_int64());
        case boost::json::kind::uint64:
            return static_cast<std::uint32_t>(value->get_uint64());
        case boost::json::kind::double_:
            return lowBits(value->get_double());
        default:
            return 0;
    }
}

std::uint16_t asUint16(const JsonValue* value) noexcept {
    return static_cast<std::uint16_t>(asUint32(value));
}

std::uint8_t asUint8(const JsonValue* value) noexcept {
    return static_cast<std::uint8_t>(asUint32(value));
}

bool asBool(const JsonValue* value) noexcept {
    if (value == nullptr) {
        return false;
    }
    switch (value->kind()) {
        case boost::json::kind::bool_:
            return value->get_bool();
        case boost::json::kind::int64:
            return value->get_int64() != 0;
        case boost::json::kind::uint64:
            return value->get_uint64() != 0;
        case boost::json::kind::double_:
            return value->get_double() != 0.0;
        default:
            return false;
    }
}

std::string_view asText(const JsonValue* value) noexcept {
    if (!isString(value)) {
        return {};
    }
    const JsonString& text = value->get_string();
    return upToNul({text.data(), text.size()});
}

std::string_view keyText(const boost::json::key_value_pair& member) noexcept {
    return upToNul({member.key().data(), member.key().size()});
}
