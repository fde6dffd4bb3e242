/// The system log as the engine uses it: a handle with subsystem and category, and two levels.
///
/// Errors always go to the system log. Debug lines go there only when the environment variable RVIO_DEBUG is
/// set (to anything) at the time the handle is created; otherwise a debug line costs one branch and its
/// arguments are not evaluated. Nothing is ever written to the terminal or to standard error.
#ifndef RV_PLATFORM_OSLOG_H
#define RV_PLATFORM_OSLOG_H

#include <cstdint>
#include <memory>

enum class LogLevel : std::uint8_t { kDebug, kError };

/// A log handle: a value; its copies share one destination. Usable from any thread. A handle that could not
/// get memory, like a default one, logs nothing.
class OsLog {
  public:
    OsLog() noexcept = default;

    /// subsystem, category  zero-terminated; copied. Each line shows them as "[subsystem:category] text".
    static OsLog create(const char* subsystem, const char* category) noexcept;

    bool isEnabled(LogLevel level) const noexcept {
        return target != nullptr && (level == LogLevel::kError || debugEnabled);
    }

    /// Sends one line, printf(3) fashion, whether the level is enabled or not; leaves errno as it was. Lines
    /// longer than 1023 bytes are cut.
    void send(LogLevel level, const char* format, ...) const noexcept __attribute__((format(printf, 3, 4)));

  private:
    struct Target;

    std::shared_ptr<const Target> target;
    bool debugEnabled = false;
};

/// Log a line at debug or error level if that level is enabled: RV_LOG_DEBUG(log, "<%p>: stop", pointer).
#define RV_LOG_DEBUG(log, ...)                                                            \
    do {                                                                                  \
        if ((log).isEnabled(LogLevel::kDebug)) (log).send(LogLevel::kDebug, __VA_ARGS__); \
    } while (0)
#define RV_LOG_ERROR(log, ...)                                                            \
    do {                                                                                  \
        if ((log).isEnabled(LogLevel::kError)) (log).send(LogLevel::kError, __VA_ARGS__); \
    } while (0)

/// Receives each enabled line instead of the system log; all pointers are valid during the call. Called on
/// the logging thread, by several at once.
using OsLogSink = void (*)(LogLevel level, const char* subsystem, const char* category, const char* text);

/// Diverts the lines of all handles to `sink`; null sends them to the system log again. For tests.
void setOsLogSink(OsLogSink sink) noexcept;

#endif
