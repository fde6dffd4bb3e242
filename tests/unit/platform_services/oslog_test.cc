#include "platform/oslog.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct Line {
    LogLevel level;
    std::string text;
};

std::vector<Line>& lines() {
    static std::vector<Line> all;
    return all;
}

class OsLogHandle : public testing::Test {
  protected:
    void SetUp() override {
        lines().clear();
        unsetenv("RVIO_DEBUG");
        setOsLogSink([](LogLevel level, const char* subsystem, const char* category, const char* text) {
            lines().push_back({level, std::string(subsystem) + "/" + category + "/" + text});
        });
    }
    void TearDown() override { setOsLogSink(nullptr); }
};

TEST_F(OsLogHandle, ErrorsAreAlwaysSent) {
    const OsLog log = OsLog::create("org.example", "kqueue");
    RV_LOG_ERROR(log, "<%p>: %s %d", static_cast<void*>(nullptr), "text", 7);
    ASSERT_EQ(1u, lines().size());
    EXPECT_EQ(LogLevel::kError, lines()[0].level);
    EXPECT_EQ("org.example/kqueue/<(nil)>: text 7", lines()[0].text);
}

TEST_F(OsLogHandle, DebugLinesAreOffUnlessAskedFor) {
    const OsLog quiet = OsLog::create("s", "c");
    EXPECT_FALSE(quiet.isEnabled(LogLevel::kDebug));
    RV_LOG_DEBUG(quiet, "not sent");
    EXPECT_EQ(0u, lines().size());
    setenv("RVIO_DEBUG", "", 1);
    const OsLog loud = OsLog::create("s", "c");
    RV_LOG_DEBUG(loud, "sent");
    RV_LOG_DEBUG(quiet, "still not sent");
    ASSERT_EQ(1u, lines().size());
    EXPECT_EQ(LogLevel::kDebug, lines()[0].level);
    EXPECT_EQ("s/c/sent", lines()[0].text);
}

TEST_F(OsLogHandle, ArgumentsOfADisabledLevelAreNotEvaluated) {
    const OsLog log = OsLog::create("s", "c");
    int evaluations = 0;
    RV_LOG_DEBUG(log, "%d", ++evaluations);
    EXPECT_EQ(0, evaluations);
    RV_LOG_ERROR(log, "%d", ++evaluations);
    EXPECT_EQ(1, evaluations);
}

TEST_F(OsLogHandle, ADefaultHandleLogsNothing) {
    const OsLog log;
    EXPECT_FALSE(log.isEnabled(LogLevel::kError));
    RV_LOG_ERROR(log, "lost");
    EXPECT_EQ(0u, lines().size());
}

TEST_F(OsLogHandle, CopiesShareTheDestination) {
    OsLog copy;
    {
        const OsLog log = OsLog::create("s", "c");
        copy = log;
    }
    RV_LOG_ERROR(copy, "text");
    ASSERT_EQ(1u, lines().size());
    EXPECT_EQ("s/c/text", lines()[0].text);
}

TEST_F(OsLogHandle, LongLinesAreCut) {
    const OsLog log = OsLog::create("s", "c");
    RV_LOG_ERROR(log, "%s", std::string(5000, 'x').c_str());
    ASSERT_EQ(1u, lines().size());
    EXPECT_EQ("s/c/" + std::string(1023, 'x'), lines()[0].text);
}

TEST_F(OsLogHandle, ErrnoIsLeftAlone) {
    const OsLog log = OsLog::create("s", "c");
    setOsLogSink([](LogLevel, const char*, const char*, const char*) { errno = EIO; });
    errno = ENOENT;
    RV_LOG_ERROR(log, "text");
    EXPECT_EQ(ENOENT, errno);
}

}  // namespace
