/// A descriptor by which any thread ends another thread's wait in kevent().
#ifndef RV_PLATFORM_WAKEUP_H
#define RV_PLATFORM_WAKEUP_H

/// One wake-up descriptor, close-on-exec, closed by the destructor.
///
/// The waiting thread registers it once for reading with EV_CLEAR: every signal is then a change of state of
/// its own and ends one wait, and nobody ever has to drain the descriptor.
class Wakeup {
  public:
    /// Takes one descriptor from the system. When it has none left, isUsable is false and signal does
    /// nothing.
    Wakeup() noexcept;
    ~Wakeup();
    Wakeup(const Wakeup&) = delete;
    Wakeup& operator=(const Wakeup&) = delete;

    bool isUsable() const noexcept { return fd != -1; }
    /// What to register; owned by this object.
    int descriptor() const noexcept { return fd; }
    /// Makes the descriptor's state change. Any thread; never blocks; leaves errno as it was.
    void signal() const noexcept;

  private:
    int fd;
};

#endif
