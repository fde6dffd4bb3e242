/// Reads the rules of a text one by one and writes their records as JSON text.
#ifndef RV_RULES_RULE_READER_H
#define RV_RULES_RULE_READER_H

#include <string>
#include <string_view>

#include "ipc/json_text.h"
#include "rules/plain_line.h"
#include "rules/rule_builder.h"
#include "rules/rule_lines.h"

/// Walks over a text once: plain lines are cut at once, all others by RuleLines and RuleTokens. Used by one
/// thread.
class RuleReader {
  public:
    enum class Step {
        kRule,      ///< a record was added
        kEnd,       ///< the text has no more rules
        kBadLines,  ///< the text cannot be cut into lines for lack of memory
        kBadRule,   ///< the next rule is refused, or there is no memory for it
    };

    /// text   borrowed; must outlive this object
    /// array  borrowed; gets the JSON text of the array of the records, whole after finish()
    RuleReader(std::string_view text, std::string& array) noexcept : lines_(text), json_(array) {}

    /// Reads the next rule. After anything but kRule only finish() is of use.
    Step next() noexcept;

    /// Ends the array; false when there is no memory for it.
    bool finish() noexcept;

  private:
    bool takePlainLine(RuleBuilder& rule) noexcept;
    bool takeLine(std::string_view line, RuleBuilder& rule) noexcept;
    Step add(const RuleBuilder& rule) noexcept;

    RuleLines lines_;
    PlainLine plain_;
    std::string arena_;  ///< of tokens that do not stand in the text as they are
    JsonText json_;
    std::string_view before_ = "[";  ///< what comes before the next record
};

#endif
