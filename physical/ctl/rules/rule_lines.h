/// Cuts rule text into logical lines: comments and leading white space gone, continuations joined.
#ifndef RV_RULES_RULE_LINES_H
#define RV_RULES_RULE_LINES_H

#include <cstddef>
#include <string>
#include <string_view>

#include "rules/plain_line.h"

/// Walks over a text once. A line that stands in the text without gaps is handed out as a view of the text;
/// only the others are put together in a buffer. Used by one thread.
class RuleLines {
  public:
    /// text  borrowed; must outlive this object
    explicit RuleLines(std::string_view text) noexcept : text_(text) {}

    /// Finds the next logical line; false at the end of the text.
    ///
    /// line  out: never empty; valid until the next call
    /// Throws std::bad_alloc.
    bool next(std::string_view& line);

    /// Takes the next line when it is a plain one; false, and nothing has happened, when it is not, or when
    /// the flag of the quotes is set.
    bool nextPlain(PlainLine& line) noexcept;

  private:
    bool endsLine(std::size_t at) const noexcept;
    std::size_t findStop(std::size_t at, std::size_t last) noexcept;
    bool stopsRun(std::size_t at) const noexcept;
    void skipLeadingSpace() noexcept;
    void skipComment() noexcept;
    void takeRun();
    void append(std::string_view bytes);
    bool finish(std::string_view& line);

    std::string_view text_;
    std::size_t at_ = 0;     ///< the first byte that has not been dealt with
    bool quoted_ = false;    ///< an odd number of double quotes has been kept so far, in the whole text
    std::string_view line_;  ///< what has been kept of the current line: a piece of text_, or joined_
    bool copied_ = false;    ///< line_ is joined_
    std::string joined_;
};

#endif
