#include "unit/libio-macOS/support/log_capture.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "unit/libio-macOS/support/recorder.h"

namespace {

struct Capture {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<LogLine> lines;
};

// Never destroyed: an I/O thread may still log while the process ends.
Capture& capture() {
    static Capture* const instance = new Capture;
    return *instance;
}

int countLocked(const std::vector<LogLine>& lines, LogLevel level, const std::string& text) {
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) {
        return line.level == level && line.text == text;
    }));
}

}  // namespace

void recordLogLine(LogLevel level, const char* subsystem, const char* category, const char* text) {
    Capture& c = capture();
    const std::lock_guard guard(c.mutex);
    c.lines.push_back({level, subsystem, category, text});
    c.changed.notify_all();
}

void captureLog() {
    Capture& c = capture();
    const std::lock_guard guard(c.mutex);
    c.lines.clear();
    setOsLogSink(&recordLogLine);
}

std::vector<LogLine> capturedLog() {
    Capture& c = capture();
    const std::lock_guard guard(c.mutex);
    return c.lines;
}

int countLogged(LogLevel level, const std::string& text) {
    return countLocked(capturedLog(), level, text);
}

bool isLogged(LogLevel level, const std::string& text) {
    return countLogged(level, text) > 0;
}

bool waitForLogged(LogLevel level, const std::string& text) {
    Capture& c = capture();
    std::unique_lock guard(c.mutex);
    return c.changed.wait_for(guard, kWaitLimit, [&] { return countLocked(c.lines, level, text) > 0; });
}

std::string pointerText(const void* pointer) {
    char text[32];
    (void)std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}
