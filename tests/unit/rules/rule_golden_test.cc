// Holds the parser and the printer to the files in tests/golden/rules.
//
// With RV_GOLDEN_REGENERATE=1 in the environment the cases write what they find into .ok, .json and .msg
// instead of comparing; read the difference before it is committed.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "captured_stderr.h"
#include "golden_files.h"
#include "rule_checks.h"
#include "rule_text.h"
#include "rules/rule_parser.h"

namespace {

bool regenerating() {
    return std::getenv("RV_GOLDEN_REGENERATE") != nullptr;
}

void compare(std::filesystem::path path, const char* extension, const std::string& found) {
    path.replace_extension(extension);
    if (regenerating()) {
        std::ofstream(path, std::ios::binary) << found;
    } else {
        EXPECT_EQ(readGolden(path), found) << path;
    }
}

/// The records as a rule-list reply, one to a line.
std::string replyText(const JsonArray& rules) {
    std::string text = "{\"rules\":[\n";
    for (const JsonValue& rule : rules) {
        text += toText(rule);
        text += &rule == &rules.back() ? "\n" : ",\n";
    }
    return text + "]}\n";
}

TEST(RuleGolden, AcceptedTextsGiveTheirRecords) {
    for (const auto& path : goldenFiles(".in")) {
        CapturedStderr messages;
        const RuleSet rules = rule_parser_run(readGolden(path));
        EXPECT_EQ(messages.take(), "") << path;
        ASSERT_NE(rules, nullptr) << path;
        if (regenerating()) {
            compare(path, ".json", replyText(records(rules)));
            continue;
        }
        std::filesystem::path json = path;
        const JsonValue expected = boost::json::parse(readGolden(json.replace_extension(".json")));
        EXPECT_EQ(records(rules), expected.at("rules").as_array()) << path << "\n" << *rules;
    }
}

TEST(RuleGolden, AcceptedTextsPrintTheirForm) {
    for (const auto& path : goldenFiles(".in")) {
        std::filesystem::path json = path;
        const JsonValue reply = boost::json::parse(readGolden(json.replace_extension(".json")));
        compare(path, ".ok", printReply(reply.as_object(), false));
    }
}

TEST(RuleGolden, RefusedTextsGiveTheirMessage) {
    for (const auto& path : goldenFiles(".bad")) {
        CapturedStderr messages;
        EXPECT_EQ(rule_parser_run(readGolden(path)), nullptr) << path;
        compare(path, ".msg", messages.take());
    }
}

/// Plain lines are cut at once where a block of bytes follows them.
TEST(RuleGolden, TextsAreReadAlikeFarFromTheEnd) {
    const std::string after = "\n" + std::string(64, ' ');
    CapturedStderr messages;
    for (const char* const extension : {".in", ".bad"}) {
        for (const auto& path : goldenFiles(extension)) {
            EXPECT_EQ(checkRuleText(readGolden(path) + after, messages).failure, "") << path;
        }
    }
}

TEST(RuleGolden, NoFileIsLeftOver) {
    for (const char* const extension : {".ok", ".json"}) {
        EXPECT_EQ(goldenFiles(extension).size(), goldenFiles(".in").size()) << extension;
    }
    EXPECT_EQ(goldenFiles(".msg").size(), goldenFiles(".bad").size());
    EXPECT_GE(goldenFiles(".in").size(), 150U);
    EXPECT_GE(goldenFiles(".bad").size(), 100U);
}

}  // namespace
