/// OsLog over syslog(3).
#include "platform/oslog.h"

#include <syslog.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

namespace {

constexpr std::size_t kMaxLineBytes = 1024;

constinit std::atomic<OsLogSink> currentSink{nullptr};

}  // namespace

struct OsLog::Target {
    std::string subsystem;
    std::string category;
};

OsLog OsLog::create(const char* subsystem, const char* category) noexcept try {
    OsLog log;
    log.target = std::make_shared<const Target>(Target{subsystem, category});
    log.debugEnabled = std::getenv("RVIO_DEBUG") != nullptr;
    return log;
} catch (const std::exception&) {
    return {};
}

void OsLog::send(LogLevel level, const char* format, ...) const noexcept {
    const int savedErrno = errno;
    char text[kMaxLineBytes];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the check does not see the va_start above.
    (void)std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const char* subsystem = target ? target->subsystem.c_str() : "";
    const char* category = target ? target->category.c_str() : "";
    if (const OsLogSink sink = currentSink.load(std::memory_order_acquire)) {
        sink(level, subsystem, category, text);
    } else {
        // openlog is the program's to call; without it syslog uses neither the console nor standard error.
        syslog(level == LogLevel::kError ? LOG_ERR : LOG_DEBUG, "[%s:%s] %s", subsystem, category, text);
    }
    errno = savedErrno;
}

void setOsLogSink(OsLogSink sink) noexcept {
    currentSink.store(sink, std::memory_order_release);
}
