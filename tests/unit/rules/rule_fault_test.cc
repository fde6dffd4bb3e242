// Fails one allocation after the other: each failure is a documented message and never anything worse.
// Linked with --wrap=fdopen.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string>

#include "captured_stderr.h"
#include "failing_new.h"
#include "rule_text.h"
#include "rules/rule_file.h"
#include "rules/rule_parser.h"

namespace {

bool streamsFail = false;
int refusedDescriptor = -1;
std::string refusedFile;

}  // namespace

extern "C" {

std::FILE* __real_fdopen(int fd, const char* mode);
std::FILE* __wrap_fdopen(int fd, const char* mode);

std::FILE* __wrap_fdopen(int fd, const char* mode) {
    if (!streamsFail) {
        return __real_fdopen(fd, mode);
    }
    std::array<char, 100> path{};
    (void)!::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path.data(), path.size() - 1);
    refusedDescriptor = fd;
    refusedFile = path.data();
    errno = ENOMEM;
    return nullptr;
}

}  // extern "C"

namespace {

/// A text that takes every way that allocates: joined lines, pieced tokens, long values, unusual numbers.
std::string sampleText() {
    const std::string name(2000, 'n');
    std::string text =
        "share port \\\n 1 \\\n name is a\"b\"c\\d host a,b,c hwid +0000000000000000000001:2 # x\n";
    for (int rule = 0; rule < 40; ++rule) {
        text += "block name is \"" + name + "\" serial \"" + name + "\\x\" class -0000000000000000001\n";
    }
    return text;
}

/// Calls `step` with ever more allocations that succeed, until it says that it has succeeded.
template <class Step>
long failAllocations(Step step) {
    for (long successes = 0; successes < 100000; ++successes) {
        if (step(successes)) {
            return successes;
        }
    }
    return -1;
}

TEST(RuleFaults, ParserReportsEveryLackOfMemory) {
    const std::string text = sampleText();
    std::size_t whole = 0;
    std::size_t lines = 0;
    std::size_t rules = 0;
    CapturedStderr messages;
    const long needed = failAllocations([&](long successes) {
        allocationsLeft = successes;
        const RuleSet found = rule_parser_run(text);
        allocationsLeft = -1;
        const std::string message = messages.take();
        if (found) {
            EXPECT_EQ(message, "");
            EXPECT_EQ(records(found).size(), 41U);
            return true;
        }
        whole += message == "Memory allocation error.\n" ? 1 : 0;
        lines += message == "Error parsing rule data.\n" ? 1 : 0;
        rules += message.starts_with("Parsing error at rule #") ? 1 : 0;
        return false;
    });
    EXPECT_GT(needed, 5);
    EXPECT_GT(whole, 0U);
    EXPECT_GT(lines, 0U);
    EXPECT_GT(rules, 0U);
    EXPECT_EQ(whole + lines + rules, static_cast<std::size_t>(needed));
}

// Records that take more room than the parser has set aside for them: it is asked for at the very end.
TEST(RuleFaults, ParserReportsALackOfMemoryAtTheEnd) {
    const std::string text = "share !hwid :: !class ::\n";
    CapturedStderr messages;
    const long needed = failAllocations([&](long successes) {
        allocationsLeft = successes;
        const RuleSet found = rule_parser_run(text);
        allocationsLeft = -1;
        EXPECT_EQ(messages.take(), found ? "" : "Memory allocation error.\n") << successes;
        return found != nullptr;
    });
    EXPECT_GE(needed, 3);  // the set, its room, more room
}

TEST(RuleFaults, PassesGiveNothing) {
    const std::string text = sampleText();
    const RuleStrings lines = rule_parser_firstpass(text).value();
    const RuleStrings tokens = rule_parser_line(lines[1]).value();
    const auto limited = [](auto call) {
        return failAllocations([&](long successes) {
            allocationsLeft = successes;
            const bool done = call();
            allocationsLeft = -1;
            return done;
        });
    };
    EXPECT_GT(limited([&] { return rule_parser_firstpass(text).has_value(); }), 0);
    EXPECT_GT(limited([&] { return rule_parser_line(lines[1]).has_value(); }), 0);
    EXPECT_GT(limited([&] { return rule_parser_line2dictionary(tokens).has_value(); }), 0);
    EXPECT_GT(limited([&] { return rule_parse_host2array("a b,c").has_value(); }), 0);
    EXPECT_GT(limited([&] {
                  RuleTriple values;
                  return rule_parser_triple2values("+0000000000000000000000000001", values) == 1;
              }),
              0);
}

TEST(RuleFaults, LoaderReportsALackOfMemory) {
    CapturedStderr messages;
    const long needed = failAllocations([&](long successes) {
        allocationsLeft = successes;
        const auto content = load_any_file("/proc/self/status", "rules");
        allocationsLeft = -1;
        EXPECT_EQ(messages.take(), content ? "" : "Error loading rules from /proc/self/status.\n");
        return content.has_value();
    });
    EXPECT_GT(needed, 0);
}

// The name comes first, so that there is never a file that nobody is told of.
TEST(RuleFaults, NoTemporaryFileWithoutMemoryForItsName) {
    const JsonObject list = boost::json::parse(R"({"rules":[]})").as_object();
    CapturedStderr messages;
    allocationsLeft = 0;
    const auto path = rules2file(list);
    allocationsLeft = -1;
    EXPECT_FALSE(path);
    EXPECT_EQ(messages.take(), "Cannot create temporary file.\n");
}

TEST(RuleFaults, NoTemporaryFileIsLeftWithoutAStreamForIt) {
    const JsonObject list = boost::json::parse(R"({"rules":[]})").as_object();
    CapturedStderr messages;
    streamsFail = true;
    const auto path = rules2file(list);
    streamsFail = false;
    EXPECT_FALSE(path);
    EXPECT_EQ(messages.take(), "Cannot create reopen file.\n");
    EXPECT_TRUE(refusedFile.starts_with("/tmp/tmp.")) << refusedFile;
    EXPECT_NE(::access(refusedFile.c_str(), F_OK), 0);
    EXPECT_EQ(::fcntl(refusedDescriptor, F_GETFD), -1) << "it has been closed";
}

TEST(RuleFaults, PrinterNeedsNoMemory) {
    const JsonObject list =
        boost::json::parse(R"({"rules":[{"action":"share","host":["a"],"vid":1}]})").as_object();
    char buffer[100] = "";
    std::FILE* const stream = ::fmemopen(buffer, sizeof buffer, "w");
    allocationsLeft = 0;
    const int status = outputRuleList(list, true, stream);
    allocationsLeft = -1;
    (void)std::fclose(stream);
    EXPECT_EQ(status, 0);
    EXPECT_STREQ(buffer, "1: share host \"a\" hwid 0001\n");
}

}  // namespace
