/// Builds the record of one rule from its tokens, as JSON text.
#ifndef RV_RULES_RULE_BUILDER_H
#define RV_RULES_RULE_BUILDER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "ipc/json_text.h"
#include "rules/rule_record.h"

/// Removes the first host from `rest`, the argument of `host` or what is left of it. Hosts are the pieces
/// between commas and white space; empty pieces are none.
///
/// Returns the host, or an empty view when there is none left.
std::string_view takeHost(std::string_view& rest) noexcept;

/// Takes tokens one by one. Until addRecord() everything is a view, so that a refused line costs no memory
/// and a rule that is only to be sent never becomes a JSON value. Used by one thread.
class RuleBuilder {
  public:
    RuleBuilder() noexcept {}  // leaves the values of absent fields unset

    /// Takes the next token; it must stay valid until addRecord(). False when the line is refused.
    bool take(std::string_view token) noexcept;

    /// True when the tokens taken so far are a rule: there is an action.
    bool complete() const noexcept { return has(RuleField::kAction); }

    /// Adds the record's JSON text to `json`, once it is complete. Throws std::bad_alloc.
    void addRecord(JsonText& json) const;

  private:
    bool has(RuleField field) const noexcept { return (present_ & bit(field)) != 0; }
    void setText(RuleField field, std::string_view text) noexcept;
    void setNumber(RuleField field, std::uint16_t number) noexcept;
    bool takeKeyword(const RuleKeyword& keyword, std::string_view token) noexcept;
    bool takeFlag(const RuleKeyword& keyword) noexcept;
    bool takeArgument(std::string_view token) noexcept;
    bool takeMatch(std::string_view token) noexcept;
    bool takeText(std::string_view token) noexcept;
    bool takeTriple(std::string_view token) noexcept;
    void addValue(JsonText& json, RuleField field) const;

    static constexpr std::uint32_t bit(RuleField field) noexcept {
        return std::uint32_t{1} << static_cast<unsigned>(field);
    }

    /// A view without a default, so that nothing is written for the fields that a rule does not have.
    struct Text {
        const char* data;
        std::size_t size;
    };

    std::uint32_t present_ = 0;  ///< one bit per field; only these have a value below
    bool negated_ = false;
    const RuleKeyword* pending_ = nullptr;                ///< the keyword that waits for its argument
    std::string_view match_;                              ///< the match word, once `name` waits for the name
    std::array<Text, kRuleFieldCount> texts_;             ///< of string fields and of `host`
    std::array<std::uint16_t, kRuleFieldCount> numbers_;  ///< of number and boolean fields
};

#endif
