/// The echo servers that the kernel event queue's benchmarks compare.
#include "kevent_loops.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "platform/kevent.h"

namespace keventbench {

namespace {

constexpr size_t kBufferBytes = 65536;
constexpr int kEvents = 1000;
constexpr int kTurnMs = 5;  // both wait with a limit, as the engine does: a timer is armed for each wait

/// A benchmark that cannot be set up measures nothing.
int must(int result) {
    if (result == -1) abort();
    return result;
}

std::array<int, 2> connectTcp() {
    const int listener = must(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    must(bind(listener, reinterpret_cast<sockaddr*>(&address), size));
    must(listen(listener, 1));
    must(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size));
    const int client = must(socket(AF_INET, SOCK_STREAM, 0));
    must(connect(client, reinterpret_cast<sockaddr*>(&address), size));
    const int server = must(accept(listener, nullptr, nullptr));
    const int on = 1;
    for (const int fd : {client, server}) must(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
    must(close(listener));
    return {client, server};
}

std::array<int, 2> connectUnix() {
    std::array<int, 2> fds{};
    must(socketpair(AF_UNIX, SOCK_STREAM, 0, fds.data()));
    return fds;
}

class EpollLoop : public EchoLoop {
  public:
    explicit EpollLoop(const std::vector<int>& servers) : epoll_(must(epoll_create1(EPOLL_CLOEXEC))) {
        for (const int fd : servers) {
            epoll_event event{};
            event.events = EPOLLIN | EPOLLRDHUP;
            event.data.fd = fd;
            must(epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event));
        }
    }
    ~EpollLoop() override { (void)close(epoll_); }
    EpollLoop(const EpollLoop&) = delete;
    EpollLoop& operator=(const EpollLoop&) = delete;

    size_t turn() override {
        const int n = epoll_wait(epoll_, events_.data(), kEvents, kTurnMs);
        for (int i = 0; i < n; ++i) answer(events_[static_cast<size_t>(i)].data.fd);
        return n < 0 ? 0 : static_cast<size_t>(n);
    }

  private:
    void answer(int fd) {
        const ssize_t size = read(fd, buffer_.data(), buffer_.size());
        if (size > 0) must(write(fd, buffer_.data(), static_cast<size_t>(size)) == size ? 0 : -1);
    }

    int epoll_;
    std::array<epoll_event, kEvents> events_{};
    std::vector<char> buffer_ = std::vector<char>(kBufferBytes);
};

class KeventLoop : public EchoLoop {
  public:
    explicit KeventLoop(const std::vector<int>& servers) : kq_(must(kqueue())) {
        endpoints_.resize(servers.size());
        for (size_t i = 0; i < servers.size(); ++i) {
            endpoints_[i].fd = servers[i];
            change(endpoints_[i], EVFILT_READ, EV_ADD | EV_ENABLE);
        }
    }
    ~KeventLoop() override { (void)close(kq_); }
    KeventLoop(const KeventLoop&) = delete;
    KeventLoop& operator=(const KeventLoop&) = delete;

    size_t turn() override {
        const timespec limit{0, kTurnMs * 1'000'000};
        const int n =
            kevent(kq_, changes_.data(), static_cast<int>(changes_.size()), events_.data(), kEvents, &limit);
        changes_.clear();
        size_t answered = 0;
        for (int i = 0; i < n; ++i) answered += handle(events_[static_cast<size_t>(i)]);
        return answered;
    }

  private:
    struct Endpoint {
        int fd = -1;
        size_t pending = 0;
        std::array<char, 4096> bytes;
    };

    void change(Endpoint& endpoint, int filter, unsigned flags) {
        struct kevent record {};
        EV_SET(&record, endpoint.fd, filter, flags, 0, 0, &endpoint);
        changes_.push_back(record);
    }

    size_t handle(const struct kevent& event) {
        auto& endpoint = *static_cast<Endpoint*>(event.udata);
        return event.filter == EVFILT_READ ? takeIn(endpoint, event) : flush(endpoint, event);
    }

    size_t takeIn(Endpoint& endpoint, const struct kevent& event) {
        const size_t room = endpoint.bytes.size() - endpoint.pending;
        const ssize_t n = read(endpoint.fd, endpoint.bytes.data() + endpoint.pending,
                               std::min(room, static_cast<size_t>(event.data)));
        if (n < 1) return 0;
        endpoint.pending += static_cast<size_t>(n);
        change(endpoint, EVFILT_WRITE, EV_ADD | EV_ENABLE);
        return 0;
    }

    size_t flush(Endpoint& endpoint, const struct kevent& event) {
        const size_t size = std::min(endpoint.pending, static_cast<size_t>(event.data));
        must(write(endpoint.fd, endpoint.bytes.data(), size) == static_cast<ssize_t>(size) ? 0 : -1);
        endpoint.pending -= size;
        if (endpoint.pending == 0) change(endpoint, EVFILT_WRITE, EV_DELETE);
        return 1;
    }

    int kq_;
    std::vector<Endpoint> endpoints_;
    std::vector<struct kevent> changes_;
    std::array<struct kevent, kEvents> events_{};
};

}  // namespace

Connections::Connections(Family family, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        const auto [client, server] = family == Family::kTcp ? connectTcp() : connectUnix();
        clients_.push_back(client);
        servers_.push_back(server);
    }
}

Connections::~Connections() {
    for (const int fd : clients_) (void)close(fd);
    for (const int fd : servers_) (void)close(fd);
}

std::unique_ptr<EchoLoop> makeEpollLoop(const std::vector<int>& servers) {
    return std::make_unique<EpollLoop>(servers);
}

std::unique_ptr<EchoLoop> makeKeventLoop(const std::vector<int>& servers) {
    return std::make_unique<KeventLoop>(servers);
}

}  // namespace keventbench
