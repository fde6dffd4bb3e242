/// Prints values of the rule language as the tests compare them.
#ifndef RV_TEST_RULES_RULE_TEXT_H
#define RV_TEST_RULES_RULE_TEXT_H

#include <boost/json.hpp>
#include <string>
#include <string_view>

#include "ipc/json.h"
#include "rules/rule_parser.h"
#include "rules/rule_printer.h"

/// A literal that may hold NUL bytes.
template <std::size_t Size>
std::string bytes(const char (&literal)[Size]) {
    return std::string(literal, Size - 1);
}

/// The records of a rule set as values. rules  not null
inline JsonArray records(const RuleSet& rules) {
    return boost::json::parse(*rules).as_array();
}

inline std::string toText(const JsonValue& value) {
    return boost::json::serialize(value);
}

/// What outputRuleList writes for a reply; its status goes to `status`.
inline std::string printReply(const JsonObject& reply, bool numbered, int* status = nullptr) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* const stream = ::open_memstream(&text, &size);
    const int result = outputRuleList(reply, numbered, stream);
    std::fclose(stream);
    std::string printed(text, size);
    std::free(text);
    if (status != nullptr) {
        *status = result;
    }
    return printed;
}

inline std::string printRules(const JsonArray& rules, bool numbered = false) {
    JsonObject reply;
    reply.emplace("rules", JsonArray(rules, {}));
    return printReply(reply, numbered);
}

#endif
