// The monitor's time stamps with a clock that the case turns. Linked with --wrap=time,localtime_r,asctime_r.
#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "ipc/command.h"
#include "reports/event_monitor.h"
#include "unit/reports/report_output.h"

namespace {

std::time_t now = 0;
bool hasLocalTime = true;
enum class Text { kUsual, kNone, kEmpty } text = Text::kUsual;
int conversions = 0;

}  // namespace

extern "C" {

std::time_t __wrap_time(std::time_t* out);
std::tm* __wrap_localtime_r(const std::time_t* when, std::tm* out);
char* __wrap_asctime_r(const std::tm* when, char* out);

std::time_t __wrap_time(std::time_t*) {
    return now;
}

std::tm* __wrap_localtime_r(const std::time_t* when, std::tm* out) {
    ++conversions;
    return hasLocalTime ? gmtime_r(when, out) : nullptr;
}

char* __wrap_asctime_r(const std::tm* when, char* out) {
    if (text == Text::kNone) {
        return nullptr;
    }
    out[0] = '\0';
    out[1] = 'x';  // what stands behind an empty text is no part of it
    if (text == Text::kUsual) {
        (void)std::strftime(out, 32, "%a %b %d %H:%M:%S %Y\n", when);
    }
    return out;
}

}  // extern "C"

namespace {

class EventStamp : public ::testing::Test {
  protected:
    EventStamp() {
        now = 1'000'000'000;
        hasLocalTime = true;
        text = Text::kUsual;
        conversions = 0;
    }
};

TEST_F(EventStamp, ChangesWithTheSecondAndNotBefore) {
    const std::string lines = printed("{}", [](const JsonObject& event, std::FILE* stream) {
        EventMonitor monitor(stream);
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, event));
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, event));
        EXPECT_EQ(1, conversions);
        ++now;
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, event));
        EXPECT_EQ(2, conversions);
    });
    EXPECT_EQ(lines,
              "[Sun Sep 09 01:46:40 2001]: rule list changed\n"
              "[Sun Sep 09 01:46:40 2001]: rule list changed\n"
              "[Sun Sep 09 01:46:41 2001]: rule list changed\n");
}

TEST_F(EventStamp, FollowsAClockThatIsSetBack) {
    const std::string lines = printed("{}", [](const JsonObject& event, std::FILE* stream) {
        EventMonitor monitor(stream);
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, event));
        --now;
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, event));
    });
    EXPECT_EQ(lines,
              "[Sun Sep 09 01:46:40 2001]: rule list changed\n"
              "[Sun Sep 09 01:46:39 2001]: rule list changed\n");
}

TEST_F(EventStamp, IsADashWhenTheTimeCannotBeConverted) {
    const std::string lines = printed("{}", [](const JsonObject& event, std::FILE* stream) {
        EventMonitor monitor(stream);
        hasLocalTime = false;
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, event));
        hasLocalTime = true;
        text = Text::kNone;
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, event));
        text = Text::kEmpty;
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, event));
        text = Text::kUsual;
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, event));
    });
    EXPECT_EQ(lines,
              "- rule list changed\n"
              "- rule list changed\n"
              "- rule list changed\n"
              "[Sun Sep 09 01:46:40 2001]: rule list changed\n");
}

TEST_F(EventStamp, OfAnEarlierSecondIsNotKeptWhenTheTimeCannotBeConverted) {
    const std::string lines = printed("{}", [](const JsonObject& event, std::FILE* stream) {
        EventMonitor monitor(stream);
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, event));
        ++now;
        hasLocalTime = false;
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, event));
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, event));
        hasLocalTime = true;
        EXPECT_TRUE(monitor.print(kCmdRuleListEvent, event));
    });
    EXPECT_EQ(lines,
              "[Sun Sep 09 01:46:40 2001]: rule list changed\n"
              "- rule list changed\n"
              "- rule list changed\n"
              "[Sun Sep 09 01:46:41 2001]: rule list changed\n");
}

TEST_F(EventStamp, IsMadeForEveryFrame) {
    const std::string lines = printed("{}", [](const JsonObject& event, std::FILE* stream) {
        EventMonitor monitor(stream);
        EXPECT_TRUE(monitor.print(99, event));
    });
    EXPECT_EQ(lines, "");
    EXPECT_EQ(conversions, 1);
}

}  // namespace
