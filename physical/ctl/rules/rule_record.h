/// The names a sharing rule is made of: the keys of its record and the keywords of its text form.
///
/// A rule record is a JSON object; only `action` is always there. The fields below stand in the order in
/// which the printer writes them. See docs/rule-language.md, "Records".
#ifndef RV_RULES_RULE_RECORD_H
#define RV_RULES_RULE_RECORD_H

#include <array>
#include <cstddef>
#include <string_view>

enum class RuleField : unsigned {
    kAction,
    kQuick,
    kHost,
    kNotHost,
    kRdesk,
    kName,
    kNameMatch,
    kNotName,
    kBuiltIn,
    kVid,
    kPid,
    kRev,
    kNotHwid,
    kSerial,
    kNotSerial,
    kPort,
    kNotPort,
    kClass,
    kSubclass,
    kProtocol,
    kNotClass,
    kOverrideName,
    kOverrideSerial,
    kTakeaway,
};
inline constexpr std::size_t kRuleFieldCount = 24;

/// What the parser stores in a field.
enum class RuleValue { kString, kStrings, kNumber, kBoolean };

struct RuleFieldForm {
    std::string_view key;  ///< spelled as it is on the wire
    RuleValue value;
};

inline constexpr std::array<RuleFieldForm, kRuleFieldCount> kRuleFields = {{
    {"action", RuleValue::kString},
    {"quick", RuleValue::kBoolean},
    {"host", RuleValue::kStrings},
    {"notHost", RuleValue::kBoolean},
    {"rdesk", RuleValue::kBoolean},
    {"name", RuleValue::kString},
    {"nameMatch", RuleValue::kString},
    {"notName", RuleValue::kBoolean},
    {"built-in", RuleValue::kBoolean},
    {"vid", RuleValue::kNumber},
    {"pid", RuleValue::kNumber},
    {"rev", RuleValue::kNumber},
    {"notHWID", RuleValue::kBoolean},
    {"serial", RuleValue::kString},
    {"notSerial", RuleValue::kBoolean},
    {"port", RuleValue::kString},
    {"notPort", RuleValue::kBoolean},
    {"class", RuleValue::kNumber},
    {"subclass", RuleValue::kNumber},
    {"protocol", RuleValue::kNumber},
    {"notClass", RuleValue::kBoolean},
    {"override-name", RuleValue::kString},
    {"override-serial", RuleValue::kString},
    {"takeaway", RuleValue::kBoolean},
}};

constexpr std::string_view ruleKey(RuleField field) noexcept {
    return kRuleFields[static_cast<std::size_t>(field)].key;
}

/// The member of a rule-list reply, and of a load request, that holds the records.
inline constexpr std::string_view kRuleListKey = "rules";

/// The words that say how `name` is compared.
inline constexpr std::string_view kNameIs = "is";
inline constexpr std::string_view kNameContains = "contains";

/// How a keyword is read.
enum class RuleWord {
    kNegation,  ///< turns the next clause into its opposite
    kAction,    ///< the word itself is the value
    kFlag,      ///< a boolean without an argument
    kHosts,     ///< takes a list of hosts
    kName,      ///< takes a match word, then the name
    kText,      ///< takes one string
    kTriple,    ///< takes one to three hexadecimal numbers; they go to `field` and the two fields after it
};

/// One keyword of the rule language.
struct RuleKeyword {
    std::string_view text;
    RuleWord word;
    RuleField field;
    RuleField notField;  ///< true when the clause is negated; `field` itself where a flag stores its negation
    bool negatable;      ///< false: a "!" before the keyword is an error
};

/// Keywords with the same first byte stand together: the builder looks a word up by it.
inline constexpr std::array<RuleKeyword, 15> kRuleKeywords = {{
    {"!", RuleWord::kNegation, RuleField::kAction, RuleField::kAction, true},
    {"share", RuleWord::kAction, RuleField::kAction, RuleField::kAction, false},
    {"serial", RuleWord::kText, RuleField::kSerial, RuleField::kNotSerial, true},
    {"block", RuleWord::kAction, RuleField::kAction, RuleField::kAction, false},
    {"built-in", RuleWord::kFlag, RuleField::kBuiltIn, RuleField::kBuiltIn, true},
    {"quick", RuleWord::kFlag, RuleField::kQuick, RuleField::kQuick, false},
    {"host", RuleWord::kHosts, RuleField::kHost, RuleField::kNotHost, true},
    {"hwid", RuleWord::kTriple, RuleField::kVid, RuleField::kNotHwid, true},
    {"rdesk", RuleWord::kFlag, RuleField::kRdesk, RuleField::kRdesk, true},
    {"name", RuleWord::kName, RuleField::kName, RuleField::kNotName, true},
    {"port", RuleWord::kText, RuleField::kPort, RuleField::kNotPort, true},
    {"class", RuleWord::kTriple, RuleField::kClass, RuleField::kNotClass, true},
    {"override-name", RuleWord::kText, RuleField::kOverrideName, RuleField::kOverrideName, false},
    {"override-serial", RuleWord::kText, RuleField::kOverrideSerial, RuleField::kOverrideSerial, false},
    {"takeaway", RuleWord::kFlag, RuleField::kTakeaway, RuleField::kTakeaway, true},
}};

/// White space of the rule language: the class "space" of the POSIX locale, whatever locale is set.
constexpr bool isRuleSpace(char byte) noexcept {
    return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

#endif
