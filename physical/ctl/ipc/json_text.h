/// Writes JSON text piece by piece, for values that are sent and never looked at again.
///
/// The functions append to the text and throw std::bad_alloc. Any thread.
#ifndef RV_IPC_JSON_TEXT_H
#define RV_IPC_JSON_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>

/// Appends a string with its quotes. text  UTF-8
void appendJsonString(std::string& json, std::string_view text);

/// Appends an unsigned number in decimal digits.
void appendJsonNumber(std::string& json, std::uint64_t number);

#endif
