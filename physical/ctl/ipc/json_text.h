/// Writes JSON text piece by piece, for values that are sent and never looked at again.
#ifndef RV_IPC_JSON_TEXT_H
#define RV_IPC_JSON_TEXT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

/// Text on its way into a string. Pieces of a few bytes are collected first: appended to the string one by
/// one, the appending would take longer than the rest. Used by one thread.
class JsonText {
  public:
    /// What add() takes may be as long as this.
    static constexpr std::size_t kPieceBytes = 64;

    /// target  gets the text; borrowed, and left alone by others until flush()
    explicit JsonText(std::string& target) noexcept : target_(target) {}
    JsonText(const JsonText&) = delete;
    JsonText& operator=(const JsonText&) = delete;

    // All of these throw std::bad_alloc; of what was written before, the part that flush() would have
    // appended is then lost.

    /// Adds text that is JSON already, up to kPieceBytes of it.
    void add(std::string_view json) {
        std::memcpy(room(json.size()), json.data(), json.size());
        used_ += json.size();
    }
    /// The same for the first `size` bytes of a piece whose memory has a fixed size, which is cheaper.
    template <std::size_t Bytes>
    void add(const std::array<char, Bytes>& json, std::size_t size) {
        static_assert(Bytes <= kPieceBytes);
        std::memcpy(room(Bytes), json.data(), Bytes);
        used_ += size;
    }
    /// Adds a string of any length with its quotes. text  UTF-8
    void addString(std::string_view text);
    /// Adds an unsigned number in decimal digits.
    void addNumber(std::uint64_t number);

    /// Appends to the target what has not got there yet. What is not flushed is lost.
    void flush();

  private:
    static constexpr std::size_t kBufferBytes = 4096;

    /// Where the next `size` bytes go, at most kBufferBytes.
    char* room(std::size_t size) {
        if (size > kBufferBytes - used_) {
            flush();
        }
        return buffer_.data() + used_;
    }
    void addEscaped(std::string_view text);

    std::string& target_;
    std::size_t used_ = 0;
    std::array<char, kBufferBytes> buffer_;
};

#endif
