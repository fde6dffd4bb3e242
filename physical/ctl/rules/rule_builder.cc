#include "rules/rule_builder.h"

#include <algorithm>
#include <bit>
#include <cstddef>

#include "ipc/byte_words.h"
#include "rules/rule_parser.h"

namespace {

/// The first eight bytes of a keyword as a token's are compared with them.
constexpr ByteWord frontOf(std::string_view text) noexcept {
    ByteWord word = 0;
    for (std::size_t at = 0; at < std::min(text.size(), kByteWordSize); ++at) {
        word |= ByteWord{static_cast<unsigned char>(text[at])} << (8 * at);
    }
    return word;
}

constexpr std::array<ByteWord, kRuleKeywords.size()> kKeywordFronts = [] {
    std::array<ByteWord, kRuleKeywords.size()> fronts{};
    for (std::size_t at = 0; at < fronts.size(); ++at) {
        fronts[at] = frontOf(kRuleKeywords[at].text);
    }
    return fronts;
}();

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
    const ByteWord front =
        token.size() < kByteWordSize ? shortByteWord(token.data(), token.size()) : loadByteWord(token.data());
    std::size_t at = kFirstKeyword[static_cast<unsigned char>(token.front())];
    for (; at < kRuleKeywords.size() && kRuleKeywords[at].text.front() == token.front(); ++at) {
        const std::string_view keyword = kRuleKeywords[at].text;
        if (kKeywordFronts[at] == front && keyword.size() == token.size() &&
            (token.size() <= kByteWordSize || keyword == token)) {
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

/// What stands before the value of a member, for each field: the comma or brace before it, and the key.
struct MemberStart {
    std::array<char, 24> bytes;
    std::size_t size;
};

constexpr std::array<MemberStart, kRuleFieldCount> kMemberStarts = [] {
    std::array<MemberStart, kRuleFieldCount> starts{};
    for (std::size_t field = 0; field < starts.size(); ++field) {
        MemberStart& start = starts[field];
        const auto put = [&start](char byte) { start.bytes.at(start.size++) = byte; };
        put(field == index(RuleField::kAction) ? '{' : ',');  // a record has an action, and has it first
        put('"');
        for (const char byte : kRuleFields[field].key) {
            put(byte);
        }
        put('"');
        put(':');
    }
    return starts;
}();

void addHosts(JsonText& json, std::string_view argument) {
    json.add("[");
    bool first = true;
    for (std::string_view host = takeHost(argument); !host.empty(); host = takeHost(argument)) {
        json.add(first ? "" : ",");
        json.addString(host);
        first = false;
    }
    json.add("]");
}

}  // namespace

std::string_view takeHost(std::string_view& rest) noexcept {
    const auto start = std::find_if_not(rest.begin(), rest.end(), endsHost);
    const auto end = std::find_if(start, rest.end(), endsHost);
    const std::string_view host(start, end);
    rest = {end, rest.end()};
    return host;
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

void RuleBuilder::addValue(JsonText& json, RuleField field) const {
    const std::size_t at = index(field);
    switch (kRuleFields[at].value) {
        case RuleValue::kString:
            return json.addString({texts_[at].data, texts_[at].size});
        case RuleValue::kStrings:
            return addHosts(json, {texts_[at].data, texts_[at].size});
        case RuleValue::kNumber:
            return json.addNumber(numbers_[at]);
        case RuleValue::kBoolean:
            return json.add(numbers_[at] != 0 ? "true" : "false");
    }
}

void RuleBuilder::addRecord(JsonText& json) const {
    for (std::uint32_t left = present_; left != 0; left &= left - 1) {
        const auto field = static_cast<RuleField>(std::countr_zero(left));
        const MemberStart& member = kMemberStarts[index(field)];
        json.add(member.bytes, member.size);
        addValue(json, field);
    }
    json.add("}");
}
