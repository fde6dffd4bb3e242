/// A thread that is created parked, started once, and asked to end by a flag that it tests itself.
#ifndef RV_PLATFORM_THREAD_H
#define RV_PLATFORM_THREAD_H

#include <memory>

#include "platform/lock.h"

/// One thread. As a capability it is a role: data marked RV_GUARDED_BY(thread) belongs to that thread alone.
class RV_CAPABILITY("role") Thread {
  public:
    using Body = void (*)(void* argument);

    /// Creates the thread; it waits inside until start. The system thread exists from here on, so that a lack
    /// of threads shows when the owner can still be refused, and start cannot fail.
    ///
    /// body      called once on the new thread, after start; must not throw
    /// argument  handed to body; the caller keeps it alive until the body has ended
    /// Returns null when memory or threads have run out. Any thread may call it.
    static std::unique_ptr<Thread> create(Body body, void* argument) noexcept;

    /// A thread that was never started goes away without running its body; one that has finished is joined;
    /// one that still runs is left to itself, as is one that destroys its own object.
    ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// Lets the body run. Called once, on any thread.
    void start() noexcept;

    /// Asks the body to end; it does so when it next tests isCancelled. Any thread, any number of times.
    void cancel() noexcept;
    bool isCancelled() const noexcept;

    /// True once the body has returned; everything the body did is then visible to the caller.
    /// A thread that was never started counts as finished, for there is nothing to wait for.
    bool isFinished() const noexcept;

    /// Returns once isFinished() holds. Any other thread.
    void waitForEnd() const noexcept;

    /// States to the compiler's analysis that the calling thread is this one; does nothing when it runs.
    void assertCurrent() const noexcept RV_ASSERT_CAPABILITY(this) {}

  private:
    struct State;
    explicit Thread(std::shared_ptr<State> sharedState) noexcept;

    std::shared_ptr<State> state;  ///< strong; shared with the thread itself, which may outlive this object
};

#endif
