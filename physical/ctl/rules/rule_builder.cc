#include "rules/rule_builder.h"

#include <algorithm>
#include <bit>
#include <cstddef>

#include "rules/rule_parser.h"

namespace {

/// For each byte, where the keywords begin that begin with it; the table's size where there is none.
constexpr std::array<std::uint8_t, 256> kFirstKeyword = [] {
    std::array<std::uint8_t, 256> first{};
    first.fill(kRuleKeywords.size());
    for (std::size_t at = kRuleKeywords.size(); at > 0; --at) {
        first[static_cast<unsigned char>(kRuleKeywords[at - 1].text.front())] =
            static_cast<std::uint8_t>(at - 1);
    }
    return first;
}();

/// token  not empty
const RuleKeyword* findKeyword(std::string_view token) noexcept {
    std::size_t at = kFirstKeyword[static_cast<unsigned char>(token.front())];
    for (; at < kRuleKeywords.size() && kRuleKeywords[at].text.front() == token.front(); ++at) {
        if (kRuleKeywords[at].text == token) {
            return &kRuleKeywords[at];
        }
    }
    return nullptr;
}

constexpr std::size_t index(RuleField field) noexcept {
    return static_cast<std::size_t>(field);
}

constexpr RuleField after(RuleField field, std::size_t steps) noexcept {
    return static_cast<RuleField>(index(field) + steps);
}

bool endsHost(char byte) noexcept {
    return byte == ',' || isRuleSpace(byte);
}

std::size_t countHosts(std::string_view argument) noexcept {
    std::size_t count = 0;
    bool between = true;
    for (const char byte : argument) {
        const bool separator = endsHost(byte);
        count += between && !separator ? 1 : 0;
        between = separator;
    }
    return count;
}

}  // namespace

JsonArray makeHostArray(std::string_view argument, const JsonStorage& storage) {
    JsonArray hosts(storage);
    hosts.reserve(countHosts(argument));
    auto end = argument.begin();
    for (;;) {
        const auto start = std::find_if_not(end, argument.end(), endsHost);
        if (start == argument.end()) {
            return hosts;
        }
        end = std::find_if(start, argument.end(), endsHost);
        hosts.emplace_back(JsonString(&*start, static_cast<std::size_t>(end - start), storage));
    }
}

void RuleBuilder::setText(RuleField field, std::string_view text) noexcept {
    texts_[index(field)] = {text.data(), text.size()};
    present_ |= bit(field);
}

void RuleBuilder::setNumber(RuleField field, std::uint16_t number) noexcept {
    numbers_[index(field)] = number;
    present_ |= bit(field);
}

// Deliberate: a keyword still without its argument, or a "!" still without its clause, when the tokens end is
// dropped without a word, so "share host" is the rule "share". Held by
// RuleLine2Dictionary.ClauseWithoutArgumentIsDropped.
bool RuleBuilder::take(std::string_view token) noexcept {
    if (pending_ != nullptr) {
        return takeArgument(token);
    }
    const RuleKeyword* const keyword = findKeyword(token);
    return keyword != nullptr && takeKeyword(*keyword, token);
}

bool RuleBuilder::takeKeyword(const RuleKeyword& keyword, std::string_view token) noexcept {
    switch (keyword.word) {
        case RuleWord::kNegation:
            negated_ = !negated_;
            return true;
        case RuleWord::kAction:
            if (negated_ || has(keyword.field)) {
                return false;
            }
            setText(keyword.field, token);
            return true;
        case RuleWord::kFlag:
            return takeFlag(keyword);
        case RuleWord::kHosts:
            if (has(RuleField::kRdesk)) {
                return false;
            }
            break;
        default:
            break;
    }
    pending_ = &keyword;
    return true;
}

bool RuleBuilder::takeFlag(const RuleKeyword& keyword) noexcept {
    const bool refused = (negated_ && !keyword.negatable) || has(keyword.field) ||
                         (keyword.field == RuleField::kRdesk && has(RuleField::kHost));
    if (refused) {
        return false;
    }
    setNumber(keyword.field, negated_ ? 0 : 1);
    negated_ = false;
    return true;
}

// The token is the argument whatever it says, a keyword or "!" included.
bool RuleBuilder::takeArgument(std::string_view token) noexcept {
    if (pending_->word == RuleWord::kName && match_.empty()) {
        return takeMatch(token);
    }
    if (!(pending_->word == RuleWord::kTriple ? takeTriple(token) : takeText(token))) {
        return false;
    }
    if (negated_) {
        setNumber(pending_->notField, 1);
    }
    pending_ = nullptr;
    match_ = {};
    negated_ = false;
    return true;
}

bool RuleBuilder::takeMatch(std::string_view token) noexcept {
    if (token != kNameIs && token != kNameContains) {
        return false;
    }
    match_ = token;
    return true;
}

bool RuleBuilder::takeText(std::string_view token) noexcept {
    if ((negated_ && !pending_->negatable) || has(pending_->field)) {
        return false;
    }
    setText(pending_->field, token);
    if (!match_.empty()) {
        setText(RuleField::kNameMatch, match_);
    }
    return true;
}

// Deliberate: an earlier clause of the same kind is no error. Its parts are overwritten one by one and those
// that the second clause does not have stay, as does a negation by either: "hwid 1:2 hwid 3" is 3:2. Held by
// RuleLine2Dictionary.SecondHwidOverwritesPartByPart.
//
// Deliberate: numbers are cut to their low 16 bits, those of `class` too although it prints as 8 bits. Held
// by RuleLine2Dictionary.NumbersAreCutTo16Bits.
bool RuleBuilder::takeTriple(std::string_view token) noexcept {
    RuleTriple values;
    const std::size_t count = rule_parser_triple2values(token, values);
    for (std::size_t part = 0; part < count; ++part) {
        setNumber(after(pending_->field, part), static_cast<std::uint16_t>(values[part]));
    }
    return count != 0;
}

void RuleBuilder::emplace(JsonObject& record, RuleField field) const {
    const auto [name, form] = kRuleFields[index(field)];
    const boost::json::string_view key(name.data(), name.size());
    switch (form) {
        case RuleValue::kString:
            record.emplace(key,
                           boost::json::string_view(texts_[index(field)].data, texts_[index(field)].size));
            break;
        case RuleValue::kStrings:
            record.emplace(
                key, makeHostArray({texts_[index(field)].data, texts_[index(field)].size}, record.storage()));
            break;
        case RuleValue::kNumber:
            record.emplace(key, numbers_[index(field)]);
            break;
        case RuleValue::kBoolean:
            record.emplace(key, numbers_[index(field)] != 0);
            break;
    }
}

JsonObject RuleBuilder::record(const JsonStorage& storage) const {
    JsonObject record(storage);
    record.reserve(static_cast<std::size_t>(std::popcount(present_)));
    for (std::uint32_t left = present_; left != 0; left &= left - 1) {
        emplace(record, static_cast<RuleField>(std::countr_zero(left)));
    }
    return record;
}
