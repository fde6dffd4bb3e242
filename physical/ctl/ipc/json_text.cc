#include "ipc/json_text.h"

#include <algorithm>
#include <boost/json/serialize.hpp>
#include <charconv>

#include "ipc/byte_words.h"

namespace {

/// Marks the bytes that cannot stand in a JSON string as they are.
constexpr ByteWord escapes(ByteWord word) noexcept {
    return bytesBelow(word, 0x20) | bytesEqual(word, '"') | bytesEqual(word, '\\');
}

/// Copies a text that needs no escape; false when it does, whatever has been copied then.
///
/// out  room for the text, and for eight bytes when it is shorter
bool copyPlain(std::string_view text, char* out) noexcept {
    const char* const from = text.data();
    if (text.size() < kByteWordSize) {
        const ByteWord word = shortByteWord(from, text.size());
        storeByteWord(word, out);
        return escapes(word | kHighBits << 8 * text.size()) == 0;  // what follows the text is no part of it
    }
    ByteWord found = 0;
    const std::size_t last = text.size() - kByteWordSize;
    for (std::size_t at = 0; at < last; at += kByteWordSize) {
        const ByteWord word = loadByteWord(from + at);
        found |= escapes(word);
        storeByteWord(word, out + at);
    }
    const ByteWord word = loadByteWord(from + last);  // it may overlap the one before
    storeByteWord(word, out + last);
    return (found | escapes(word)) == 0;
}

}  // namespace

void JsonText::addString(std::string_view text) {
    constexpr std::size_t kQuotes = 2;
    if (text.size() > kBufferBytes - kQuotes) {
        return addEscaped(text);
    }
    char* const out = room(std::max(text.size(), kByteWordSize) + kQuotes);
    out[0] = '"';
    if (!copyPlain(text, out + 1)) {
        return addEscaped(text);
    }
    out[1 + text.size()] = '"';
    used_ += text.size() + kQuotes;
}

void JsonText::addEscaped(std::string_view text) {
    flush();
    target_ += boost::json::serialize(boost::json::string_view(text.data(), text.size()));
}

void JsonText::addNumber(std::uint64_t number) {
    constexpr std::size_t kMostDigits = 20;
    char* const out = room(kMostDigits);
    used_ += static_cast<std::size_t>(std::to_chars(out, out + kMostDigits, number).ptr - out);
}

void JsonText::flush() {
    target_.append(buffer_.data(), used_);
    used_ = 0;
}
