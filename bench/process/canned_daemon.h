/// A peer that says the same to each connection.
#ifndef RV_BENCH_CANNED_DAEMON_H
#define RV_BENCH_CANNED_DAEMON_H

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

/// Serves the control socket from construction to destruction, in a process of its own: what a program that
/// is measured here uses at its peak includes what the process that starts it uses.
class CannedDaemon {
  public:
    using Make = std::function<std::vector<std::string>()>;

    /// make   makes whole frames, in the daemon's process
    /// times  0: the n-th request is answered with the n-th frame; else the first of them is sent that often
    /// as
    ///        soon as there is a connection, which is then closed
    explicit CannedDaemon(const Make& make, std::size_t times = 0);
    ~CannedDaemon();
    CannedDaemon(const CannedDaemon&) = delete;
    CannedDaemon& operator=(const CannedDaemon&) = delete;

    /// Bytes of all frames that make() gave.
    std::size_t size() const { return size_; }

  private:
    pid_t process_ = -1;
    std::size_t size_ = 0;
};

#endif
