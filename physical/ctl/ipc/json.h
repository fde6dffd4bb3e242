/// Typed reads of a decoded reply: what the system calls "a number", "a string" and "present".
///
/// The only header through which the tool sees Boost.JSON. Values are borrowed: a pointer or view is valid as
/// long as the object it was taken from, at the longest until the data callback returns. All functions are
/// pure and may be called on any thread.
#ifndef RV_IPC_JSON_H
#define RV_IPC_JSON_H

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/string.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <string_view>

using JsonArray = boost::json::array;
using JsonObject = boost::json::object;
using JsonString = boost::json::string;
using JsonValue = boost::json::value;

/// The member's value, or null when there is none. A member whose value is JSON null is present.
const JsonValue* member(const JsonObject& object, std::string_view key) noexcept;

/// A JSON number or boolean: a boolean is a number that holds 0 or 1. Null pointers are neither.
bool isNumber(const JsonValue* value) noexcept;
bool isString(const JsonValue* value) noexcept;
/// What an optional string must be: a null pointer or a string.
bool isAbsentOrString(const JsonValue* value) noexcept;

/// The member when it is present and of the wanted type, else null.
const JsonValue* numberMember(const JsonObject& object, std::string_view key) noexcept;
const JsonValue* stringMember(const JsonObject& object, std::string_view key) noexcept;
const JsonArray* arrayMember(const JsonObject& object, std::string_view key) noexcept;
const JsonObject* objectMember(const JsonObject& object, std::string_view key) noexcept;

/// The number's low 32 bits; a fraction is cut off first. 0 for anything that is not a number, or null.
std::uint32_t asUint32(const JsonValue* value) noexcept;
/// The low 16 and 8 bits of the same.
std::uint16_t asUint16(const JsonValue* value) noexcept;
std::uint8_t asUint8(const JsonValue* value) noexcept;
/// True for a boolean true and for a number other than 0; false for everything else.
bool asBool(const JsonValue* value) noexcept;

/// The string's UTF-8 bytes as a C string would hold them: up to the first NUL. Empty for anything else.
std::string_view asText(const JsonValue* value) noexcept;
/// The same of a member's key.
std::string_view keyText(const boost::json::key_value_pair& member) noexcept;

#endif
