/// Two echo servers over one set of connections: bare epoll, and kevent as the engine uses it (WRITE is armed
/// for each answer and deleted after it). The benchmarks compare what they cost.
#ifndef RV_BENCH_KEVENT_LOOPS_H
#define RV_BENCH_KEVENT_LOOPS_H

#include <cstddef>
#include <memory>
#include <vector>

namespace keventbench {

enum class Family { kUnix, kTcp };

/// Connected pairs: the client's end blocks, the server's end belongs to a loop.
class Connections {
  public:
    Connections(Family family, size_t count);
    ~Connections();
    Connections(const Connections&) = delete;
    Connections& operator=(const Connections&) = delete;

    const std::vector<int>& clients() const { return clients_; }
    const std::vector<int>& servers() const { return servers_; }

  private:
    std::vector<int> clients_;
    std::vector<int> servers_;
};

class EchoLoop {
  public:
    virtual ~EchoLoop() = default;
    /// Waits for events and handles them. Returns the number of messages that were answered.
    virtual size_t turn() = 0;
};

std::unique_ptr<EchoLoop> makeEpollLoop(const std::vector<int>& servers);
std::unique_ptr<EchoLoop> makeKeventLoop(const std::vector<int>& servers);

}  // namespace keventbench

#endif
