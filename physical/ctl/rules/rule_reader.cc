#include "rules/rule_reader.h"

#include "ipc/utf8.h"
#include "rules/rule_tokens.h"

RuleReader::Step RuleReader::next() noexcept {
    RuleBuilder rule;
    if (lines_.nextPlain(plain_)) {
        return takePlainLine(rule) ? add(rule) : Step::kBadRule;
    }
    std::string_view line;
    try {
        if (!lines_.next(line)) {
            return Step::kEnd;
        }
    } catch (...) {
        return Step::kBadLines;
    }
    return takeLine(line, rule) ? add(rule) : Step::kBadRule;
}

bool RuleReader::finish() noexcept {
    try {
        json_.add(before_ == "[" ? "[]" : "]");
        json_.flush();
        return true;
    } catch (...) {
        return false;
    }
}

// A leading "!" is split off as by RuleTokens.
bool RuleReader::takePlainLine(RuleBuilder& rule) noexcept {
    for (std::size_t number = 0; number < plain_.tokenCount(); ++number) {
        std::string_view token = plain_.token(number);
        if (token.front() == '!' && token.size() > 1) {
            if (!rule.take(token.substr(0, 1))) {
                return false;
            }
            token.remove_prefix(1);
        }
        if (!(plain_.isAscii() || isUtf8(token)) || !rule.take(token)) {
            return false;
        }
    }
    return true;
}

bool RuleReader::takeLine(std::string_view line, RuleBuilder& rule) noexcept {
    try {
        RuleTokens tokens(line, arena_);
        std::string_view token;
        RuleTokens::Step step;
        while ((step = tokens.next(token)) == RuleTokens::Step::kToken) {
            if (!rule.take(token)) {
                return false;
            }
        }
        return step == RuleTokens::Step::kEnd;
    } catch (...) {
        return false;
    }
}

RuleReader::Step RuleReader::add(const RuleBuilder& rule) noexcept {
    if (!rule.complete()) {
        return Step::kBadRule;
    }
    try {
        json_.add(before_);
        rule.addRecord(json_);
        before_ = ",";
        return Step::kRule;
    } catch (...) {
        return Step::kBadRule;
    }
}
