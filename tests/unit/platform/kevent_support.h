/// What the suites of the kernel event queue share: a queue that closes itself, connected pairs, and
/// collecting with a limit. Everything goes through kqueue() and kevent() alone.
#ifndef RV_TESTS_UNIT_PLATFORM_KEVENT_SUPPORT_H
#define RV_TESTS_UNIT_PLATFORM_KEVENT_SUPPORT_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <time.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "platform/kevent.h"

namespace keventtest {

/// How long a test waits for an event that must come.
inline constexpr int kLimitMs = 20'000;
/// How long a test looks for an event that must not come.
inline constexpr int kSilenceMs = 30;
inline constexpr unsigned kArm = EV_ADD | EV_ENABLE;

#if defined(__has_feature)
#define RV_HAS_FEATURE(feature) __has_feature(feature)
#else
#define RV_HAS_FEATURE(feature) 0
#endif

/// ThreadSanitizer takes a close(2) beside another thread's wait for a race.
#if defined(__SANITIZE_THREAD__) || RV_HAS_FEATURE(thread_sanitizer)
inline constexpr bool kSeesRaces = true;
#else
inline constexpr bool kSeesRaces = false;
#endif

#if defined(__SANITIZE_ADDRESS__) || RV_HAS_FEATURE(address_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = kSeesRaces;
#endif

/// A descriptor with one owner.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(other.release()) {}
    Fd& operator=(Fd&& other) noexcept;
    ~Fd() { reset(); }
    int get() const { return fd_; }
    int release();
    void reset(int fd = -1);

  private:
    int fd_ = -1;
};

/// The two ends of a connection: what is written to one is read from the other. The ends of a pipe are
/// one-way: `reader` only reads.
struct Pair {
    Fd reader;
    Fd writer;
};

Pair unixPair();
Pair tcpPair();
Pair pipePair();

/// An empty file without a name, for reading and writing.
Fd temporaryFile();

/// A TCP socket that listens on a free port of the loopback address, and a blocking connection to it.
Fd listenTcp();
Fd connectTo(int listener);

/// A record; udata is the address of a static place with this number, null for 0.
struct kevent change(uint64_t ident, int filter, unsigned flags, int64_t data = 0, unsigned fflags = 0,
                     int mark = 0);
void* markAddress(int mark);

class Queue {
  public:
    Queue();
    int fd() const { return fd_.get(); }
    void close() { fd_.reset(); }

    /// Applies one change without collecting; returns 0 or the errno.
    int apply(const struct kevent& one) const;

    /// At most `room` events; waits at most `ms` for the first. The changes are applied in the same call.
    std::vector<struct kevent> collect(int ms = 0, int room = 64,
                                       const std::vector<struct kevent>& changes = {}) const;

    /// The next event alone in the list; a failure and a zero record if none comes in time.
    struct kevent next() const;

    /// Collects until a call returns an event of this filter; a failure and a zero record if none comes in
    /// time.
    struct kevent nextOf(int filter) const;

  private:
    Fd fd_;
};

std::string describe(const std::vector<struct kevent>& events);

/// The events of one filter.
std::vector<struct kevent> only(const std::vector<struct kevent>& events, int filter);

void writeAll(int fd, const std::string& bytes);
std::string readSome(int fd, size_t limit = 65536);

/// Writes until the descriptor takes no more.
void fill(int fd);

/// Makes one descriptor write until the kernel has this many bytes at the other end.
void waitReadable(int fd, int bytes);

/// Resets a TCP connection from this end.
void resetConnection(Fd& fd);

/// The state letter of a thread of this process: 'S' while it sleeps in the kernel.
char threadState(pid_t tid);

/// The eventfds that this process has open.
std::vector<int> eventfds();

/// A thread in kevent() without a time-out.
class Waiter {
  public:
    /// Returns when the thread sleeps. The changes are applied in the thread's call.
    explicit Waiter(const Queue& queue, std::vector<struct kevent> changes = {});
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    ~Waiter();

    /// The event that ended the wait.
    struct kevent finish();

    /// The errno of a wait that failed.
    int failure();

  private:
    void run(int fd);

    const std::vector<struct kevent> changes_;
    std::atomic<pid_t> tid_{0};
    struct kevent event_ {};
    int result_ = 0;
    int error_ = 0;
    std::thread thread_;  // last: it uses the others
};

/// Lets the process have as many descriptors as the system allows it.
void raiseDescriptorLimit();

int64_t nowNs(clockid_t clock = CLOCK_MONOTONIC);
int64_t nowMs();

MATCHER_P2(IsEvent, ident, filter, "") {
    return arg.ident == static_cast<uint64_t>(ident) && arg.filter == filter && (arg.flags & EV_ERROR) == 0;
}

}  // namespace keventtest

/// Printed by GoogleTest.
void PrintTo(const struct kevent& event, std::ostream* out);

#endif
