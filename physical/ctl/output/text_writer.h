/// Puts the pieces of a text together and hands them to a stream in large blocks.
///
/// printf(3) parses its format anew for each field, which is most of the time of a long list.
#ifndef RV_OUTPUT_TEXT_WRITER_H
#define RV_OUTPUT_TEXT_WRITER_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

/// A writer on a borrowed stream; used by one thread. Write errors stay with the stream (ferror(3)).
/// What is buffered is handed on by flush() and by the destructor.
class TextWriter {
  public:
    explicit TextWriter(std::FILE* stream) noexcept : stream_(stream) {}
    ~TextWriter() { flush(); }
    TextWriter(const TextWriter&) = delete;
    TextWriter& operator=(const TextWriter&) = delete;

    TextWriter& text(std::string_view bytes) noexcept;
    /// Decimal digits, as "%u".
    TextWriter& number(std::uint32_t value) noexcept;
    /// Lower-case hexadecimal digits, at least four, as "%04x".
    TextWriter& hex4(std::uint32_t value) noexcept;
    TextWriter& tabs(std::size_t count) noexcept;
    /// Hands everything to the stream in one write; the stream's own buffering decides what leaves it.
    void flush() noexcept;

  private:
    static constexpr std::size_t kBufferBytes = 32768;

    char* room(std::size_t bytes) noexcept;

    std::FILE* stream_;
    std::size_t used_ = 0;
    char buffer_[kBufferBytes];
};

#endif
