/// Bare epoll: the limit of what a loop on this system can do.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/engine/loop.h"
#include "bench/engine/raw_connection.h"
#include "bench/engine/sockets.h"

namespace {

using namespace enginebench;
using Job = RawConnection::Job;

class EpollLoop : public Loop {
  public:
    EpollLoop() { add(wake, nullptr); }
    ~EpollLoop() override {
        ended = true;
        signal();
        if (thread.joinable()) thread.join();
        (void)close(wake);
        (void)close(epoll);
    }
    EpollLoop(const EpollLoop&) = delete;
    EpollLoop& operator=(const EpollLoop&) = delete;

    void echo(int fd) override { connect(fd, Job::kEcho); }
    void ping(int fd, std::size_t bytes, std::size_t rounds, Done done) override {
        Watched& it = connect(fd, Job::kPing);
        it.connection.block.assign(bytes, 'x');
        it.connection.left = rounds;
        it.connection.done = std::move(done);
    }
    void send(int fd, std::size_t writeBytes, std::size_t totalBytes) override {
        Watched& it = connect(fd, Job::kSend);
        it.connection.block.assign(writeBytes, 'x');
        it.connection.left = totalBytes;
    }
    void receive(int fd, std::size_t totalBytes, Done done) override {
        Watched& it = connect(fd, Job::kReceive);
        it.connection.left = totalBytes;
        it.connection.done = std::move(done);
    }
    void serve(int fd) override { served = &connect(fd, Job::kServe); }
    void post(std::size_t bytes) override {
        {
            const std::lock_guard guard(lock);
            requests.emplace_back(bytes, 'x');
        }
        signal();
    }
    void run() override {
        thread = std::thread([this] { turns(); });
    }

  private:
    struct Watched {
        Watched(int fd, Job job) : connection(fd, job) {}
        RawConnection connection;
        bool forRoom = false;
    };

    Watched& connect(int fd, Job job) {
        watched.push_back(std::make_unique<Watched>(fd, job));
        add(fd, watched.back().get());
        return *watched.back();
    }

    void add(int fd, Watched* what) const {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = what;
        must(epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event));
    }

    void follow(Watched& it) const {
        if (it.connection.wantsRoom() == it.forRoom) return;
        it.forRoom = !it.forRoom;
        epoll_event event{};
        event.events = it.forRoom ? EPOLLIN | EPOLLOUT : EPOLLIN;
        event.data.ptr = &it;
        must(epoll_ctl(epoll, EPOLL_CTL_MOD, it.connection.fd(), &event));
    }

    void turns() {
        for (const auto& it : watched) {
            it->connection.begin();
            follow(*it);
        }
        while (!ended) turn();
    }

    void turn() {
        const int count = epoll_wait(epoll, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < count; ++i) {
            const epoll_event& event = events[static_cast<std::size_t>(i)];
            auto* const it = static_cast<Watched*>(event.data.ptr);
            if (it == nullptr) {
                takeRequests();
                continue;
            }
            if ((event.events & EPOLLIN) != 0) it->connection.onReadable();
            if ((event.events & EPOLLOUT) != 0) it->connection.onWritable();
            follow(*it);
        }
    }

    void takeRequests() {
        std::uint64_t count = 0;
        if (read(wake, &count, sizeof count) == -1) return;
        std::vector<std::string> taken;
        {
            const std::lock_guard guard(lock);
            taken.swap(requests);
        }
        for (const std::string& request : taken)
            served->connection.writeOrKeep(request.data(), request.size());
    }

    void signal() const {
        const std::uint64_t one = 1;
        if (write(wake, &one, sizeof one) == -1) must(-1);
    }

    int epoll = must(epoll_create1(EPOLL_CLOEXEC));
    int wake = must(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    std::array<epoll_event, 1000> events{};
    std::vector<std::unique_ptr<Watched>> watched;
    Watched* served = nullptr;
    std::mutex lock;
    std::vector<std::string> requests;
    std::atomic<bool> ended = false;
    std::thread thread;
};

std::unique_ptr<Loop> make() {
    return std::make_unique<EpollLoop>();
}

/// epoll has no timers: a program of its own keeps the deadlines in an ordered map.
double timers(std::size_t count) {
    std::multimap<std::int64_t, std::function<void()>> deadlines;
    std::vector<std::multimap<std::int64_t, std::function<void()>>::iterator> armed;
    armed.reserve(count);
    const double start = wallSeconds();
    for (std::size_t i = 0; i < count; ++i) {
        armed.push_back(
            deadlines.emplace(60'000'000'000 + static_cast<std::int64_t>(wallSeconds() * 1e9), [] {}));
    }
    for (const auto& deadline : armed) deadlines.erase(deadline);
    return wallSeconds() - start;
}

}  // namespace

const Peer enginebench::kEpollPeer = {"epoll", make, timers};
