/// Cuts a logical line into tokens: quotes and escapes resolved, a leading "!" split off.
#ifndef RV_RULES_RULE_TOKENS_H
#define RV_RULES_RULE_TOKENS_H

#include <cstddef>
#include <string>
#include <string_view>

#include "ipc/byte_words.h"

/// Walks over one line once. A token that stands in the line without gaps is handed out as a view of the
/// line; the others are put together in the arena. Used by one thread.
class RuleTokens {
  public:
    enum class Step {
        kToken,  ///< a token was found
        kEnd,    ///< the line has no more tokens
        kBad,    ///< the line is refused: a quote is left open, or a token is not UTF-8
    };

    /// line   borrowed; must outlive this object and the tokens
    /// arena  borrowed; overwritten; tokens point into it. Lines of one text may share it in turn.
    RuleTokens(std::string_view line, std::string& arena) noexcept;

    /// Finds the next token.
    ///
    /// token  out, after kToken: never empty, valid UTF-8, valid as long as line and arena are left alone
    /// Throws std::bad_alloc. After kEnd or kBad the object is of no more use.
    Step next(std::string_view& token);

  private:
    void readBuffer();
    std::size_t findStop(std::size_t at) noexcept;
    void append(std::size_t start, std::size_t size);
    void join(std::string_view bytes);
    void skipSpace() noexcept;
    bool leavesQuoteOpen() const noexcept;
    bool isText(std::string_view token) const noexcept;

    std::string_view line_;
    std::string& arena_;
    bool arenaReady_ = false;
    bool quoted_ = false;
    bool copied_ = false;      ///< buffer_ is a piece of arena_, not of line_
    std::size_t at_ = 0;       ///< the first byte that has not been dealt with
    ByteWord seen_ = 0;        ///< has a high bit set when the buffer holds a byte above 0x7f
    std::string_view buffer_;  ///< the token that is being read, or what is left of it after its "!"
};

#endif
