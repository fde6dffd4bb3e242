/// Prints the daemon's events, one line each, with a local time stamp.
#ifndef RV_REPORTS_EVENT_MONITOR_H
#define RV_REPORTS_EVENT_MONITOR_H

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string_view>

#include "ipc/json.h"

/// Used by one thread.
class EventMonitor {
  public:
    /// stream  borrowed for the life of the monitor; each event is handed to it in one write
    explicit EventMonitor(std::FILE* stream) noexcept : stream_(stream) {}
    EventMonitor(const EventMonitor&) = delete;
    EventMonitor& operator=(const EventMonitor&) = delete;

    /// Prints the event of one frame; a frame with another code prints nothing.
    /// Returns false for a malformed event, after "invalid data\n" on standard error and with nothing
    /// printed. See docs/protocol.md, "Events".
    bool print(std::int32_t command, const JsonObject& event) noexcept;

  private:
    std::string_view stamp() noexcept;

    static constexpr std::size_t kStampBytes = 64;  // asctime_r(3) needs 26, a far year some more

    std::FILE* stream_;
    std::time_t stampedAt_ = -1;   ///< the second that stamp_ shows
    std::size_t stampLength_ = 0;  ///< 0: nothing is kept
    char stamp_[kStampBytes];
};

#endif
