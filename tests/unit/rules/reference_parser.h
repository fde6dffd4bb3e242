/// A second parser for rule texts, one byte and one rule at a time, slow and plain; the real one is compared
/// with it.
#ifndef RV_TEST_RULES_REFERENCE_PARSER_H
#define RV_TEST_RULES_REFERENCE_PARSER_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace reference {

std::vector<std::string> cutText(std::string_view text);

/// Nothing when the line is refused.
std::optional<std::vector<std::string>> cutLine(std::string_view line);

}  // namespace reference

#endif
