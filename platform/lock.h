/// Locks that the compiler can check: a recursive lock, a plain lock, and the annotations of clang's
/// thread-safety analysis (-Wthread-safety), which mean nothing to other compilers.
#ifndef RV_PLATFORM_LOCK_H
#define RV_PLATFORM_LOCK_H

#include <pthread.h>

#if defined(__clang__)
#define RV_ANNOTATE(x) __attribute__((x))
#else
#define RV_ANNOTATE(x)
#endif

#define RV_CAPABILITY(kind) RV_ANNOTATE(capability(kind))
#define RV_SCOPED_CAPABILITY RV_ANNOTATE(scoped_lockable)
#define RV_GUARDED_BY(x) RV_ANNOTATE(guarded_by(x))
#define RV_ACQUIRED_BEFORE(...) RV_ANNOTATE(acquired_before(__VA_ARGS__))
#define RV_REQUIRES(...) RV_ANNOTATE(requires_capability(__VA_ARGS__))
#define RV_ACQUIRE(...) RV_ANNOTATE(acquire_capability(__VA_ARGS__))
#define RV_RELEASE(...) RV_ANNOTATE(release_capability(__VA_ARGS__))
#define RV_ASSERT_CAPABILITY(x) RV_ANNOTATE(assert_capability(x))
#define RV_NO_THREAD_SAFETY_ANALYSIS RV_ANNOTATE(no_thread_safety_analysis)

/// A lock that the thread holding it may take again; it is free after as many unlocks. Unlike the standard
/// library's, it reports a failed creation as a value.
class RV_CAPABILITY("mutex") RecursiveLock {
  public:
    RecursiveLock() noexcept;
    ~RecursiveLock();
    RecursiveLock(const RecursiveLock&) = delete;
    RecursiveLock& operator=(const RecursiveLock&) = delete;

    /// False when the system refused to create the lock; lock and unlock then must not be called.
    bool isUsable() const noexcept { return usable; }

    void lock() noexcept RV_ACQUIRE() { pthread_mutex_lock(&mutex); }
    void unlock() noexcept RV_RELEASE() { pthread_mutex_unlock(&mutex); }

  private:
    pthread_mutex_t mutex;
    bool usable;
};

/// A lock that is taken once at a time; its creation cannot fail.
class RV_CAPABILITY("mutex") Lock {
  public:
    Lock() noexcept = default;
    ~Lock() { pthread_mutex_destroy(&mutex); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void lock() noexcept RV_ACQUIRE() { pthread_mutex_lock(&mutex); }
    void unlock() noexcept RV_RELEASE() { pthread_mutex_unlock(&mutex); }

  private:
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

/// Holds a lock until the end of the scope.
template <class LockType>
class RV_SCOPED_CAPABILITY LockGuard {
  public:
    explicit LockGuard(LockType& heldLock) noexcept RV_ACQUIRE(heldLock) : held(heldLock) { held.lock(); }
    ~LockGuard() RV_RELEASE() { held.unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

  private:
    LockType& held;
};

#endif
