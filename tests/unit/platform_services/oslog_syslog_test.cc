/// Where the lines go when nobody diverts them: syslog(3), caught by --wrap.
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/oslog.h"

namespace {

int lastPriority = -1;
std::string& lastText() {
    static std::string text;
    return text;
}

void keep(int priority, const char* format, va_list arguments) {
    char text[2048];
    (void)std::vsnprintf(text, sizeof text, format, arguments);
    lastPriority = priority;
    lastText() = text;
}

TEST(OsLogSyslog, AnErrorIsAnErrorLineWithSubsystemAndCategory) {
    RV_LOG_ERROR(OsLog::create("org.example", "kqueue"), "cannot %s", "do");
    EXPECT_EQ(LOG_ERR, lastPriority);
    EXPECT_EQ("[org.example:kqueue] cannot do", lastText());
}

TEST(OsLogSyslog, ADebugLineIsADebugLine) {
    ASSERT_EQ(0, setenv("RVIO_DEBUG", "1", 1));
    RV_LOG_DEBUG(OsLog::create("org.example", "kqueue"), "100%%");
    EXPECT_EQ(LOG_DEBUG, lastPriority);
    EXPECT_EQ("[org.example:kqueue] 100%", lastText());
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's --wrap fixes these names
extern "C" {

void __wrap_syslog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void __wrap___syslog_chk(int priority, int flag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

void __wrap_syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    keep(priority, format, arguments);
    va_end(arguments);
}

// What the call becomes in a hardened build.
void __wrap___syslog_chk(int priority, int, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    keep(priority, format, arguments);
    va_end(arguments);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
