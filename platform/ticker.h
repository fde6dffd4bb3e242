/// A descriptor that becomes readable once in a period.
#ifndef RV_PLATFORM_TICKER_H
#define RV_PLATFORM_TICKER_H

#include <cstdint>

/// Ticks from its construction on. The descriptor is close-on-exec and closed by the destructor; who waits
/// for it reads eight bytes after each tick, see keventTick.
class Ticker {
  public:
    /// periodNs  nanoseconds from tick to tick, 1 or more
    explicit Ticker(std::int64_t periodNs) noexcept;
    ~Ticker();
    Ticker(const Ticker&) = delete;
    Ticker& operator=(const Ticker&) = delete;

    /// False when descriptors have run out.
    bool isUsable() const noexcept { return fd != -1; }
    int descriptor() const noexcept { return fd; }

  private:
    int fd;
};

#endif
