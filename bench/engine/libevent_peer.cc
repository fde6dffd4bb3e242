/// libevent, with plain events: its buffered streams make more system calls.
#include <event2/event.h>
#include <event2/thread.h>

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

class LibeventLoop : public Loop {
  public:
    LibeventLoop() {
        evthread_use_pthreads();
        base = event_base_new();
        requested = event_new(base, -1, EV_PERSIST, onRequest, this);
        event_add(requested, nullptr);
    }
    ~LibeventLoop() override {
        event_base_loopbreak(base);
        if (thread.joinable()) thread.join();
        for (const auto& it : watched) {
            event_free(it->input);
            event_free(it->room);
        }
        event_free(requested);
        event_base_free(base);
    }
    LibeventLoop(const LibeventLoop&) = delete;
    LibeventLoop& operator=(const LibeventLoop&) = delete;

    void echo(int fd) override { connect(fd, Job::kEcho); }
    void ping(int fd, std::size_t bytes, std::size_t rounds, Done done) override {
        RawConnection& it = connect(fd, Job::kPing);
        it.block.assign(bytes, 'x');
        it.left = rounds;
        it.done = std::move(done);
    }
    void send(int fd, std::size_t writeBytes, std::size_t totalBytes) override {
        RawConnection& it = connect(fd, Job::kSend);
        it.block.assign(writeBytes, 'x');
        it.left = totalBytes;
    }
    void receive(int fd, std::size_t totalBytes, Done done) override {
        RawConnection& it = connect(fd, Job::kReceive);
        it.left = totalBytes;
        it.done = std::move(done);
    }
    void serve(int fd) override { connect(fd, Job::kServe); }
    void post(std::size_t bytes) override {
        {
            const std::lock_guard guard(lock);
            requests.emplace_back(bytes, 'x');
        }
        event_active(requested, EV_READ, 0);
    }
    void run() override {
        thread = std::thread([this] {
            for (const auto& it : watched) {
                it->connection.begin();
                it->follow();
            }
            event_base_dispatch(base);
        });
    }

  private:
    struct Watched {
        Watched(int fd, Job job) : connection(fd, job) {}

        void follow() const {
            if (connection.wantsRoom() && !event_pending(room, EV_WRITE, nullptr)) event_add(room, nullptr);
        }

        RawConnection connection;
        event* input = nullptr;
        event* room = nullptr;
    };

    static void onInput(int, short, void* argument) {
        auto* const it = static_cast<Watched*>(argument);
        it->connection.onReadable();
        it->follow();
    }
    static void onRoom(int, short, void* argument) {
        auto* const it = static_cast<Watched*>(argument);
        it->connection.onWritable();
        if (!it->connection.wantsRoom()) event_del(it->room);
    }
    static void onRequest(int, short, void* argument) {
        auto* const self = static_cast<LibeventLoop*>(argument);
        std::vector<std::string> taken;
        {
            const std::lock_guard guard(self->lock);
            taken.swap(self->requests);
        }
        for (const std::string& request : taken) {
            self->served->connection.writeOrKeep(request.data(), request.size());
        }
        self->served->follow();
    }

    RawConnection& connect(int fd, Job job) {
        watched.push_back(std::make_unique<Watched>(fd, job));
        Watched* const it = watched.back().get();
        if (job == Job::kServe) served = it;
        it->input = event_new(base, fd, EV_READ | EV_PERSIST, onInput, it);
        it->room = event_new(base, fd, EV_WRITE | EV_PERSIST, onRoom, it);
        event_add(it->input, nullptr);
        return it->connection;
    }

    event_base* base = nullptr;
    event* requested = nullptr;
    std::vector<std::unique_ptr<Watched>> watched;
    Watched* served = nullptr;
    std::mutex lock;
    std::vector<std::string> requests;
    std::thread thread;
};

std::unique_ptr<Loop> make() {
    return std::make_unique<LibeventLoop>();
}

double timers(std::size_t count) {
    event_base* const base = event_base_new();
    std::vector<event*> armed;
    armed.reserve(count);
    const timeval minute{60, 0};
    const double start = wallSeconds();
    for (std::size_t i = 0; i < count; ++i) {
        armed.push_back(evtimer_new(
            base, [](int, short, void*) {}, nullptr));
        evtimer_add(armed.back(), &minute);
    }
    for (event* const timer : armed) event_free(timer);
    event_base_loop(base, EVLOOP_NONBLOCK);
    const double seconds = wallSeconds() - start;
    event_base_free(base);
    return seconds;
}

}  // namespace

const Peer enginebench::kLibeventPeer = {"libevent", make, timers};
