#include "rules/rule_parser.h"

#include <algorithm>
#include <boost/json/parse.hpp>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "ipc/json_text.h"
#include "rules/rule_builder.h"
#include "rules/rule_lines.h"
#include "rules/rule_reader.h"
#include "rules/rule_tokens.h"

namespace {

/// Room for the rules of all but the densest texts. What is reserved and not needed is never touched.
constexpr std::size_t kJsonBytesPerTextByte = 4;

std::shared_ptr<std::string> createRules(std::string_view text) noexcept {
    try {
        auto rules = std::make_shared<std::string>();
        rules->reserve(text.size() * kJsonBytesPerTextByte);
        return rules;
    } catch (...) {
        return {};
    }
}

RuleSet refuse(const char* message) noexcept {
    (void)std::fputs(message, stderr);  // there is nowhere left to complain
    return {};
}

// Deliberate: everything that strtoul(3) takes is taken: no digits at all in an empty part (0), a sign, a
// "0x", leading white space, and values that do not fit (ULONG_MAX). Rule files rely on it, `1234::` being
// the shortest way to write two zeros. Held by RuleTriple.WhatStrtoulTakesIsTaken.
bool convertPart(std::string_view part, unsigned long& value) {
    const std::string terminated(part);
    char* stop = nullptr;
    value = std::strtoul(terminated.c_str(), &stop, 16);
    return stop == terminated.c_str() + terminated.size();
}

/// Reads the number at the front of `rest`, up to a ":" or the end, and removes it.
bool readPart(std::string_view& rest, unsigned long& value) {
    const char* const last = rest.data() + rest.size();
    const auto [stop, error] = std::from_chars(rest.data(), last, value, 16);
    if (error == std::errc{} && (stop == last || *stop == ':')) {
        rest.remove_prefix(static_cast<std::size_t>(stop - rest.data()));
        return true;  // digits only, the usual case
    }
    const std::string_view part = rest.substr(0, rest.find(':'));
    rest.remove_prefix(part.size());
    return convertPart(part, value);
}

std::size_t readTriple(std::string_view rest, RuleTriple& values) {
    RuleTriple read{};
    for (std::size_t count = 0; count < read.size(); rest.remove_prefix(1)) {
        if (!readPart(rest, read[count])) {
            return 0;
        }
        ++count;
        if (rest.empty()) {
            std::copy_n(read.begin(), count, values.begin());
            return count;
        }
    }
    return 0;  // a fourth part
}

}  // namespace

std::optional<RuleStrings> rule_parser_firstpass(std::string_view text) noexcept {
    try {
        RuleStrings result;
        RuleLines lines(text);
        for (std::string_view line; lines.next(line);) {
            result.emplace_back(line);
        }
        return result;
    } catch (...) {
        return {};
    }
}

std::optional<RuleStrings> rule_parser_line(std::string_view line) noexcept {
    try {
        RuleStrings result;
        std::string arena;
        RuleTokens tokens(line, arena);
        for (std::string_view token;;) {
            switch (tokens.next(token)) {
                case RuleTokens::Step::kToken:
                    result.emplace_back(token);
                    break;
                case RuleTokens::Step::kEnd:
                    return result;
                case RuleTokens::Step::kBad:
                    return {};
            }
        }
    } catch (...) {
        return {};
    }
}

std::optional<JsonObject> rule_parser_line2dictionary(std::span<const std::string> tokens) noexcept {
    try {
        RuleBuilder builder;
        for (const std::string& token : tokens) {
            if (!builder.take(token)) {
                return {};
            }
        }
        if (!builder.complete()) {
            return {};
        }
        std::string json;
        JsonText record(json);
        builder.addRecord(record);
        record.flush();
        return std::move(boost::json::parse(json).get_object());
    } catch (...) {
        return {};
    }
}

std::optional<JsonArray> rule_parse_host2array(std::string_view argument) noexcept {
    try {
        JsonArray hosts;
        for (std::string_view host = takeHost(argument); !host.empty(); host = takeHost(argument)) {
            hosts.emplace_back(boost::json::string_view(host.data(), host.size()));
        }
        return hosts;
    } catch (...) {
        return {};
    }
}

std::size_t rule_parser_triple2values(std::string_view argument, RuleTriple& values) noexcept {
    try {
        return readTriple(argument, values);
    } catch (...) {
        return 0;
    }
}

RuleSet rule_parser_run(std::string_view text) noexcept {
    std::shared_ptr<std::string> rules = createRules(text);
    if (!rules) {
        return refuse("Memory allocation error.\n");
    }
    RuleReader reader(text, *rules);
    for (unsigned long number = 1;; ++number) {
        switch (reader.next()) {
            case RuleReader::Step::kRule:
                break;
            case RuleReader::Step::kEnd:
                return reader.finish() ? rules : refuse("Memory allocation error.\n");
            case RuleReader::Step::kBadLines:
                return refuse("Error parsing rule data.\n");
            case RuleReader::Step::kBadRule:
                (void)std::fprintf(stderr, "Parsing error at rule #%lu\n", number);
                return {};
        }
    }
}
