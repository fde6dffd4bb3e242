// Every short text over the bytes that mean something, alone and behind beginnings that lead into each kind
// of argument.
#include <gtest/gtest.h>

#include <string>

#include "captured_stderr.h"
#include "rule_checks.h"
#include "rule_text.h"

namespace {

const std::string kBytes = bytes(" \"\\#!\n\0ab\xff");

const std::string kFarFromTheEnd = "\n" + std::string(64, ' ');

#if defined(__SANITIZE_THREAD__)
// A race detector makes each text ten times slower and has one thread to look at: two bytes less will do.
constexpr std::size_t kBytesMore = 3;
constexpr std::size_t kTexts = 2 * 1111U;
#else
constexpr std::size_t kBytesMore = 5;
constexpr std::size_t kTexts = 2 * 111111U;
#endif

struct Beginning {
    const char* name;
    const char* text;
};

class RuleExhaustive : public testing::TestWithParam<Beginning> {};

struct Counts {
    std::size_t texts = 0;
    std::size_t accepted = 0;
    std::size_t reread = 0;
};

void check(const std::string& text, CapturedStderr& messages, Counts& counts) {
    const RuleTextCheck check = checkRuleText(text, messages);
    ++counts.texts;
    counts.accepted += check.accepted ? 1 : 0;
    counts.reread += check.printedAndReread ? 1 : 0;
    if (!check.failure.empty()) {
        ADD_FAILURE() << testing::PrintToString(text) << ": " << check.failure;
    }
}

/// Checks every text that is `prefix` and up to `more` bytes, at the end of the text and far from it: plain
/// lines are cut at once when there is a block of bytes to look at.
void checkAll(std::string& prefix, std::size_t more, CapturedStderr& messages, Counts& counts) {
    check(prefix, messages, counts);
    check(prefix + kFarFromTheEnd, messages, counts);
    if (more == 0 || testing::Test::HasFailure()) {
        return;
    }
    for (const char byte : kBytes) {
        prefix.push_back(byte);
        checkAll(prefix, more - 1, messages, counts);
        prefix.pop_back();
    }
}

TEST_P(RuleExhaustive, EveryEndingOfAFewBytes) {
    std::string text = GetParam().text;
    Counts counts;
    {
        CapturedStderr messages;
        checkAll(text, kBytesMore, messages, counts);
    }
    EXPECT_EQ(counts.texts, kTexts);
    EXPECT_GT(counts.accepted, 0U);
    EXPECT_GT(counts.reread, 0U);
    EXPECT_LT(counts.accepted, counts.texts);
}

const Beginning kBeginnings[] = {
    {"Nothing", ""},
    {"Share", "share "},
    {"Name", "share name is "},
    {"Host", "share host "},
    {"HostInQuotes", "share host \""},
    {"Port", "share port "},
    {"Hwid", "block hwid a:"},
    {"SecondLineWithOddQuote", "share port b\"\nblock serial "},
};

INSTANTIATE_TEST_SUITE_P(After, RuleExhaustive, testing::ValuesIn(kBeginnings),
                         [](const auto& beginning) { return std::string(beginning.param.name); });

}  // namespace
