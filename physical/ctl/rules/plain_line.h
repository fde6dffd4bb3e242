/// Cuts the usual line of a rule text at once: one that is nothing but words, quoted or not.
#ifndef RV_RULES_PLAIN_LINE_H
#define RV_RULES_PLAIN_LINE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

/// The tokens of one plain line. A line is plain when it ends in a line feed, has a token, and has no
/// comment, no backslash, no NUL and no quote but those around whole words: lines and tokens are then what
/// RuleLines and RuleTokens find. Used by one thread.
class PlainLine {
  public:
    /// Cuts the line at the front of `text`, outside quotes as the first pass sees it.
    ///
    /// Returns how many bytes it has with its line feed, or 0 when it has to be read the long way: it is not
    /// plain, has very many tokens, or stands too near to the end of the text.
    std::size_t cut(std::string_view text) noexcept;

    /// The tokens of the line that was cut, before a leading "!" is split off: none is empty, all are views
    /// of the text.
    std::size_t tokenCount() const noexcept { return edges_ / 2; }
    std::string_view token(std::size_t number) const noexcept {
        return {text_ + places_[2 * number], places_[2 * number + 1] - places_[2 * number]};
    }

    /// Whether all of the line's bytes are below 0x80.
    bool isAscii() const noexcept { return ascii_; }

  private:
    static constexpr std::size_t kMostBytes = 65536;
    static constexpr std::size_t kMostEdges = 256;

    const char* text_ = nullptr;  ///< borrowed: the line's first byte
    bool ascii_ = true;
    std::size_t edges_ = 0;                         ///< how many places are set: two for each token
    std::array<std::uint32_t, kMostEdges> places_;  ///< where tokens begin and end, in turn
};

#endif
