/// The log lines of a test case, instead of the system log.
#ifndef RV_TESTS_ENGINE_LOG_CAPTURE_H
#define RV_TESTS_ENGINE_LOG_CAPTURE_H

#include <string>
#include <vector>

#include "platform/oslog.h"

struct LogLine {
    LogLevel level;
    std::string subsystem;
    std::string category;
    std::string text;
};

/// Diverts all lines here from now on and forgets those of before. Debug lines need RVIO_DEBUG, which the
/// test program sets.
void captureLog();

/// The sink that captureLog installs, for a case that wants one of its own around it.
void recordLogLine(LogLevel level, const char* subsystem, const char* category, const char* text);

std::vector<LogLine> capturedLog();

/// How many lines of this level are exactly this text.
int countLogged(LogLevel level, const std::string& text);
bool isLogged(LogLevel level, const std::string& text);

/// Waits for such a line; false when it has not come after a generous limit.
bool waitForLogged(LogLevel level, const std::string& text);

/// "0x..." as %p writes it.
std::string pointerText(const void* pointer);

#endif
