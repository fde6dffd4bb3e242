#include "rule_checks.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <vector>

#include "reference_parser.h"
#include "rule_text.h"
#include "rules/rule_parser.h"

namespace {

struct Outcome {
    std::optional<JsonArray> rules;
    std::string message;

    bool operator==(const Outcome&) const = default;
};

std::string describe(const Outcome& outcome) {
    return outcome.rules ? toText(*outcome.rules) : outcome.message;
}

Outcome parseAtOnce(std::string_view text, CapturedStderr& messages) {
    const RuleSet rules = rule_parser_run(text);
    Outcome outcome;
    if (rules) {
        outcome.rules.emplace(records(rules), JsonArray().storage());
    }
    outcome.message = messages.take();
    return outcome;
}

using Lines = std::vector<std::string>;

Outcome parseByPasses(const Lines& lines,
                      const std::function<std::optional<Lines>(std::string_view)>& cutLine) {
    Outcome outcome;
    outcome.rules.emplace();
    for (std::size_t at = 0; at < lines.size(); ++at) {
        const auto tokens = cutLine(lines[at]);
        const auto record = tokens ? rule_parser_line2dictionary(*tokens) : std::nullopt;
        if (!record) {
            return {{}, "Parsing error at rule #" + std::to_string(at + 1) + "\n"};
        }
        outcome.rules->emplace_back(*record);
    }
    return outcome;
}

bool survives(const JsonValue& value) {
    const JsonString& text = value.get_string();
    return !text.empty() && text.front() != '!' && text.find_first_of("\"\\") == JsonString::npos;
}

/// Without quotes around it a port must not hold what ends a token or starts a comment.
bool survivesUnquoted(const JsonValue& value) {
    return value.get_string().find_first_of(" \t\n\v\f\r#") == JsonString::npos;
}

bool survivesPrinting(const JsonValue& rule) {
    return std::all_of(rule.get_object().begin(), rule.get_object().end(), [](const auto& member) {
        const JsonValue& value = member.value();
        if (member.key() == "takeaway") {
            return value.get_bool();
        }
        if (member.key() == "class") {
            return value.to_number<unsigned>() <= 0xff;
        }
        if (member.key() == "port" && !survivesUnquoted(value)) {
            return false;
        }
        if (value.is_array()) {
            const JsonArray& hosts = value.get_array();
            return !hosts.empty() && std::all_of(hosts.begin(), hosts.end(), survives);
        }
        return !value.is_string() || survives(value);
    });
}

}  // namespace

RuleTextCheck checkRuleText(std::string_view text, CapturedStderr& messages) {
    const Outcome found = parseAtOnce(text, messages);
    RuleTextCheck check;
    check.accepted = found.rules.has_value();
    const auto lines = rule_parser_firstpass(text);
    if (!lines || *lines != reference::cutText(text)) {
        check.failure = "the first pass cuts the text differently";
        return check;
    }
    const Outcome passes = parseByPasses(*lines, rule_parser_line);
    const Outcome expected = parseByPasses(*lines, reference::cutLine);
    if (!(found == passes) || !(found == expected)) {
        check.failure =
            describe(found) + " pass by pass: " + describe(passes) + " expected: " + describe(expected);
        return check;
    }
    if (!found.rules) {
        return check;
    }
    check.printedAndReread = std::all_of(found.rules->begin(), found.rules->end(), survivesPrinting);
    const std::string printed = printRules(*found.rules);
    const Outcome reread = parseAtOnce(printed, messages);
    if (check.printedAndReread && !(reread == found)) {
        check.failure = describe(found) + " printed: " + printed + " read back: " + describe(reread);
    }
    return check;
}
