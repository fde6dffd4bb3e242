#include "output/text_writer.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace {

constexpr std::size_t kMaxDigits = 10;  // of a 32-bit number, decimal

}  // namespace

/// Where the next `bytes` (at most kBufferBytes) go; the caller adds what it used to used_.
char* TextWriter::room(std::size_t bytes) noexcept {
    if (kBufferBytes - used_ < bytes) {
        flush();
    }
    return buffer_ + used_;
}

TextWriter& TextWriter::text(std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const std::size_t count = std::min(bytes.size(), kBufferBytes);
        std::memcpy(room(count), bytes.data(), count);
        used_ += count;
        bytes.remove_prefix(count);
    }
    return *this;
}

TextWriter& TextWriter::number(std::uint32_t value) noexcept {
    char* const start = room(kMaxDigits);
    used_ += static_cast<std::size_t>(std::to_chars(start, start + kMaxDigits, value).ptr - start);
    return *this;
}

TextWriter& TextWriter::hex4(std::uint32_t value) noexcept {
    constexpr std::string_view kDigits = "0123456789abcdef";
    for (std::uint32_t shift = 28;; shift -= 4) {
        if (shift < 16 || value >> shift != 0) {
            *room(1) = kDigits[(value >> shift) & 0xf];
            ++used_;
        }
        if (shift == 0) {
            return *this;
        }
    }
}

TextWriter& TextWriter::tabs(std::size_t count) noexcept {
    for (; count > 0; --count) {
        text("\t");
    }
    return *this;
}

void TextWriter::flush() noexcept {
    if (used_ > 0) {
        (void)std::fwrite(buffer_, 1, used_, stream_);  // an error stays with the stream
        used_ = 0;
    }
}
