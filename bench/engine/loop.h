/// The jobs that every event loop does in these benchmarks.
#ifndef RV_BENCH_LOOP_H
#define RV_BENCH_LOOP_H

#include <cstddef>
#include <functional>
#include <memory>

namespace enginebench {

/// An event loop with one thread of its own. Connections are given to it before run, and close with it.
class Loop {
  public:
    using Done = std::function<void()>;

    Loop() = default;
    virtual ~Loop() = default;
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    /// Sends back what arrives.
    virtual void echo(int fd) = 0;
    /// Sends a message and, each time it has come back, the next one; the first when run is called. Calls
    /// `done` on the loop's thread after the last round.
    virtual void ping(int fd, std::size_t bytes, std::size_t rounds, Done done) = 0;
    /// Sends bytes in writes of `writeBytes`, beginning when run is called.
    virtual void send(int fd, std::size_t writeBytes, std::size_t totalBytes) = 0;
    /// Counts bytes and calls `done` on the loop's thread when all have come.
    virtual void receive(int fd, std::size_t totalBytes, Done done) = 0;
    /// Keeps a connection for post.
    virtual void serve(int fd) = 0;
    /// Has the loop's thread write `bytes` bytes to the connection of serve. Any thread, once run is called.
    virtual void post(std::size_t bytes) = 0;

    /// Starts the thread.
    virtual void run() = 0;
};

/// One library.
struct Peer {
    const char* name;
    std::unique_ptr<Loop> (*make)();
    /// Arms timers of a minute and cancels them all. Returns the seconds from the first to the last trace.
    double (*timers)(std::size_t count);
};

extern const Peer kRvioPeer;
extern const Peer kUvPeer;
extern const Peer kLibeventPeer;
extern const Peer kAsioPeer;
extern const Peer kEpollPeer;

/// What a large read takes at most, and a large enough message for every job.
inline constexpr std::size_t kBufferBytes = 65536;

}  // namespace enginebench

#endif
