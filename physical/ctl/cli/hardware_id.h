/// The USB identity of a device as preferences name it: vid[:pid[:rev]] in hexadecimal.
#ifndef RV_CLI_HARDWARE_ID_H
#define RV_CLI_HARDWARE_ID_H

#include <cstdint>
#include <optional>
#include <string>

/// Normalises a hardware id: one to three groups of 1 to 4 hexadecimal digits give as many groups of exactly
/// four lower-case ones, so "A5C:1" gives "0a5c:0001". Returns nothing for any other text; prints nothing.
/// Pure; any thread.
std::optional<std::string> validate_hwid(const char* text) noexcept;

/// Converts one hexadecimal group to a number as strtoul(3) reads it, cut to its low 16 bits: white space, a
/// sign and "0x" may stand before it. Returns nothing for an empty text or one with anything left over.
/// Pure; any thread.
std::optional<std::uint16_t> hextstr_to_number(const char* text) noexcept;

#endif
