/// A peer that answers the first request of each connection with the same bytes.
#ifndef RV_BENCH_CANNED_DAEMON_H
#define RV_BENCH_CANNED_DAEMON_H

#include <string>
#include <thread>

/// Serves the control socket on a thread of its own from construction to destruction.
class CannedDaemon {
  public:
    /// reply  whole frames, sent as soon as a connection has sent 8 bytes
    explicit CannedDaemon(std::string reply);
    ~CannedDaemon();
    CannedDaemon(const CannedDaemon&) = delete;
    CannedDaemon& operator=(const CannedDaemon&) = delete;

  private:
    void serve() const;

    std::string reply_;
    int listener_;
    std::thread thread_;
};

#endif
