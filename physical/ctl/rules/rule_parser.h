/// Turns rule text into rule records, all or nothing.
///
/// Rule text goes through two passes. The first knows only quotes, comments and line ends, and cuts the text
/// into logical lines, one per rule; the second cuts a line into tokens and builds the record. Rules are
/// numbered by logical line from 1, so blank lines, comment lines and continuations do not count.
///
/// The functions are independent of the locale, keep nothing between calls and may be called on any thread. A
/// lack of memory is an error like any other. See docs/rule-language.md, "Text".
#ifndef RV_RULES_RULE_PARSER_H
#define RV_RULES_RULE_PARSER_H

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ipc/json.h"

/// The records of a text as the JSON text of their array, "[]" when there are none; null where there is no
/// rule set. Nobody on this side looks into a rule set, it is only sent: as values a large one would take
/// many times the time and the memory.
using RuleSet = std::shared_ptr<const std::string>;

/// Logical lines, or tokens.
using RuleStrings = std::vector<std::string>;

/// Up to three hexadecimal numbers.
using RuleTriple = std::array<unsigned long, 3>;

/// Cuts text into logical lines: comments and leading white space dropped, a backslash before a line feed
/// joining two lines. "share # x\n  block \\\n quick\n" gives "share " and "block  quick".
///
/// text  any bytes; a NUL ends a line as a line feed does
/// Returns the lines, none of them empty, or nothing when memory runs out.
std::optional<RuleStrings> rule_parser_firstpass(std::string_view text) noexcept;

/// Cuts one logical line into tokens at white space outside double quotes; a backslash takes away the meaning
/// of the byte after it. `!name is "a b"` gives "!", "name", "is" and "a b".
///
/// line  any bytes
/// Returns the tokens, none of them empty, or nothing when a quote is left open, a token is not UTF-8, or
/// memory runs out.
std::optional<RuleStrings> rule_parser_line(std::string_view line) noexcept;

/// Builds the record of one rule: the tokens "share", "!", "rdesk" give {"action":"share","rdesk":false}.
///
/// Returns the record, which owns its values, or nothing when the tokens are no rule.
std::optional<JsonObject> rule_parser_line2dictionary(std::span<const std::string> tokens) noexcept;

/// Cuts the argument of `host` at commas and white space and drops empty pieces: "a, b,,c" gives three
/// strings.
///
/// argument  UTF-8
/// Returns the hosts, possibly none, or nothing when memory runs out.
std::optional<JsonArray> rule_parse_host2array(std::string_view argument) noexcept;

/// Reads the argument of `hwid` or `class`: one to three hexadecimal numbers with ":" between them, each as
/// strtoul(3) reads it in base 16 up to its last byte.
///
/// values  out: as many as the return value says; the others, and all on an error, are left as they are
/// Returns how many there are, 1 to 3, or 0 on an error.
std::size_t rule_parser_triple2values(std::string_view argument, RuleTriple& values) noexcept;

/// Parses a whole text: the first pass, then tokens and record of each line. A text without rules gives an
/// empty array.
///
/// text  borrowed for the call
/// Returns the records, as UTF-8 and in the order of the text; on the first error null, after one line on
/// standard error: "Memory allocation error.", "Error parsing rule data." or "Parsing error at rule #N".
RuleSet rule_parser_run(std::string_view text) noexcept;

#endif
