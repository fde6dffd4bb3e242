/// Builds the record of one rule from its tokens.
#ifndef RV_RULES_RULE_BUILDER_H
#define RV_RULES_RULE_BUILDER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "ipc/json.h"
#include "ipc/json_arena.h"
#include "rules/rule_record.h"

/// The pieces of `argument` between commas and white space, empty ones left out, as an array of strings in
/// `storage`. Throws std::bad_alloc.
JsonArray makeHostArray(std::string_view argument, const JsonStorage& storage);

/// Takes tokens one by one. Until record() everything is a view, so that a record is made at once in its
/// final size and a refused line costs no memory. Used by one thread.
class RuleBuilder {
  public:
    RuleBuilder() noexcept {}  // leaves the values of absent fields unset

    /// Takes the next token; it must stay valid until record(). False when the line is refused.
    bool take(std::string_view token) noexcept;

    /// True when the tokens taken so far are a rule: there is an action.
    bool complete() const noexcept { return has(RuleField::kAction); }

    /// The record, once it is complete. Its values live in `storage`. Throws std::bad_alloc.
    JsonObject record(const JsonStorage& storage) const;

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
    void emplace(JsonObject& record, RuleField field) const;

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
