/// The engine itself.
#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/engine/loop.h"
#include "bench/engine/sockets.h"
#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/RvKQueueStreamSocket.h"
#include "libio-macOS/RvKQueueTimer.h"

namespace {

using namespace enginebench;

/// Stops loops beside the benchmark, since each takes a second for it; waits for them at the program's end.
class Stopper {
  public:
    ~Stopper() {
        for (std::thread& thread : threads) thread.join();
    }
    void stop(std::shared_ptr<RvKQueue> loop) {
        threads.emplace_back([loop = std::move(loop)] { loop->stop(); });
    }

  private:
    std::vector<std::thread> threads;
};

void stopBeside(std::shared_ptr<RvKQueue> loop) {
    static Stopper stopper;
    stopper.stop(std::move(loop));
}

/// The engine does not tell when output has left, so a receiver confirms what has come and the sender stays
/// this far ahead of it at most.
constexpr std::size_t kAheadBytes = 512 << 10;

class RvioLoop : public Loop {
  public:
    RvioLoop() : loop(RvKQueue::initWithSubsystem("bench")) {}
    ~RvioLoop() override {
        for (const auto& job : jobs) loop->stopObject(job->end);
        stopBeside(loop);
    }
    RvioLoop(const RvioLoop&) = delete;
    RvioLoop& operator=(const RvioLoop&) = delete;

    void echo(int fd) override {
        connect(fd,
                [this](Job&, RvKQueueEventProtocol* end, const char* bytes, std::uint64_t size, int event) {
                    if (event == kEventData) loop->write(end, bytes, size);
                });
    }
    void ping(int fd, std::size_t bytes, std::size_t rounds, Done done) override {
        Job& job = connect(
            fd, [this](Job& it, RvKQueueEventProtocol* end, const char*, std::uint64_t size, int event) {
                if (event == kEventConnected) loop->write(end, it.block.data(), it.block.size());
                if (event == kEventData) takePing(it, end, size);
            });
        job.block.assign(bytes, 'x');
        job.left = rounds;
        job.done = std::move(done);
    }
    void send(int fd, std::size_t writeBytes, std::size_t totalBytes) override {
        Job& job = connect(
            fd, [this](Job& it, RvKQueueEventProtocol* end, const char*, std::uint64_t size, int event) {
                if (event == kEventData) it.received += size * (kAheadBytes / 2);
                if (event == kEventConnected || event == kEventData) sendBlocks(it, end);
            });
        job.block.assign(writeBytes, 'x');
        job.left = totalBytes;
    }
    void receive(int fd, std::size_t totalBytes, Done done) override {
        Job& job = connect(
            fd, [this](Job& it, RvKQueueEventProtocol* end, const char*, std::uint64_t size, int event) {
                if (event == kEventData) takeBytes(it, end, size);
            });
        job.left = totalBytes;
        job.done = std::move(done);
    }
    void serve(int fd) override {
        served = connect(fd, [](Job&, RvKQueueEventProtocol*, const char*, std::uint64_t, int) {}).end;
    }
    void post(std::size_t bytes) override { loop->write(served, std::string(bytes, 'x').data(), bytes); }
    void run() override {
        loop->start();
        for (const auto& job : jobs) {
            loop->startObject(job->end, [it = job](RvKQueueEventProtocol* end, const char* bytes,
                                                   std::uint64_t size, std::uint64_t*, std::int32_t event) {
                it->onEvent(*it, end, bytes, size, event);
                return true;
            });
        }
    }

  private:
    struct Job {
        std::shared_ptr<RvKQueueStreamSocket> end;
        std::function<void(Job&, RvKQueueEventProtocol*, const char*, std::uint64_t, int)> onEvent;
        std::string block;
        std::size_t left = 0;
        std::size_t sent = 0;
        std::size_t received = 0;
        Done done;
    };

    template <class OnEvent>
    Job& connect(int fd, OnEvent onEvent) {
        auto job = std::make_shared<Job>();
        job->end = loop->createStreamSocket(fd, true);
        job->onEvent = std::move(onEvent);
        jobs.push_back(job);
        return *job;
    }

    void takePing(Job& it, RvKQueueEventProtocol* end, std::size_t size) {
        it.received += size;
        if (it.received < it.block.size() || it.left == 0) return;
        it.received = 0;
        if (--it.left == 0) {
            it.done();
        } else {
            loop->write(end, it.block.data(), it.block.size());
        }
    }

    void sendBlocks(Job& it, RvKQueueEventProtocol* end) {
        while (it.left > 0 && it.sent < it.received + kAheadBytes) {
            loop->write(end, it.block.data(), it.block.size());
            it.sent += it.block.size();
            it.left -= std::min(it.left, it.block.size());
        }
    }

    void takeBytes(Job& it, RvKQueueEventProtocol* end, std::size_t size) {
        if (it.left == 0) return;
        it.left -= std::min(it.left, size);
        it.received += size;
        if (it.left == 0) {
            it.done();
        } else if (it.received >= kAheadBytes / 2) {
            it.received -= kAheadBytes / 2;
            loop->write(end, "c", 1);
        }
    }

    std::shared_ptr<RvKQueue> loop;
    std::vector<std::shared_ptr<Job>> jobs;
    std::shared_ptr<RvKQueueStreamSocket> served;
};

std::unique_ptr<Loop> make() {
    return std::make_unique<RvioLoop>();
}

/// The loop drops an event block when it has stopped the timer: the last block ends the measurement.
double timers(std::size_t count) {
    auto loop = RvKQueue::initWithSubsystem("bench");
    loop->start();
    std::promise<void> allGone;
    auto token = std::shared_ptr<void>(nullptr, [&](void*) { allGone.set_value(); });
    std::vector<std::shared_ptr<RvKQueueTimer>> armed;
    armed.reserve(count);
    const double start = wallSeconds();
    for (std::size_t i = 0; i < count; ++i) {
        armed.push_back(loop->createTimer(60000, true));
        loop->startObject(armed.back(), [token](RvKQueueEventProtocol*, const char*, std::uint64_t,
                                                std::uint64_t*, std::int32_t) { return true; });
    }
    token.reset();
    for (const auto& timer : armed) loop->stopObject(timer);
    armed.clear();
    allGone.get_future().wait();
    const double seconds = wallSeconds() - start;
    stopBeside(std::move(loop));
    return seconds;
}

}  // namespace

const Peer enginebench::kRvioPeer = {"rvio", make, timers};
