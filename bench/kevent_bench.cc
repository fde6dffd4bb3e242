/// kevent against bare epoll: the same messages through both loops, in turns within one run, so that what the
/// machine does meanwhile falls on both.
///
/// Echo: a client writes on every connection, then the loop answers all. PingPong: one message at a time,
/// between two threads. The counters are nanoseconds a message and their ratio; the time column is kevent's.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "kevent_loops.h"
#include "platform/kevent.h"

namespace {

using namespace keventbench;
using Clock = std::chrono::steady_clock;

constexpr size_t kMessageBytes = 64;

void send(int fd) {
    static const std::array<char, kMessageBytes> message{};
    if (write(fd, message.data(), message.size()) != static_cast<ssize_t>(message.size())) abort();
}

void receive(int fd) {
    std::array<char, kMessageBytes> message;
    if (read(fd, message.data(), message.size()) != static_cast<ssize_t>(message.size())) abort();
}

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// Connections with a loop that answers them, and the times of its rounds.
struct Side {
    Connections connections;
    std::unique_ptr<EchoLoop> loop;
    std::vector<double> seconds;

    Side(Family family, size_t count, std::unique_ptr<EchoLoop> (*make)(const std::vector<int>&))
        : connections(family, count), loop(make(connections.servers())) {}

    /// The middle of the times: a preempted round does not count.
    double median() {
        std::nth_element(seconds.begin(), seconds.begin() + static_cast<long>(seconds.size() / 2),
                         seconds.end());
        return seconds[seconds.size() / 2];
    }
};

void report(benchmark::State& state, Side& bare, Side& queue, size_t messages) {
    const double scale = 1e9 / static_cast<double>(messages);
    state.counters["epoll_ns"] = bare.median() * scale;
    state.counters["kevent_ns"] = queue.median() * scale;
    state.counters["ratio"] = queue.median() / bare.median();
}

double echoRound(Side& side) {
    const auto begin = Clock::now();
    for (const int fd : side.connections.clients()) send(fd);
    for (size_t answered = 0; answered < side.connections.clients().size();) answered += side.loop->turn();
    for (const int fd : side.connections.clients()) receive(fd);
    side.seconds.push_back(secondsSince(begin));
    return side.seconds.back();
}

void echo(benchmark::State& state, Family family) {
    const auto count = static_cast<size_t>(state.range(0));
    Side bare(family, count, makeEpollLoop);
    Side queue(family, count, makeKeventLoop);
    while (state.KeepRunning()) {
        echoRound(bare);
        state.SetIterationTime(echoRound(queue));
    }
    report(state, bare, queue, count);
}

void pingPongRounds(Side& side, int rounds) {
    const int fd = side.connections.clients().front();
    const auto begin = Clock::now();
    for (int i = 0; i < rounds; ++i) {
        send(fd);
        receive(fd);
    }
    side.seconds.push_back(secondsSince(begin));
}

/// Answers until `rounds` messages are out.
class Server {
  public:
    Server(Side& side, int rounds)
        : thread_([&side, rounds] {
              for (size_t answered = 0; answered < static_cast<size_t>(rounds);)
                  answered += side.loop->turn();
          }) {}
    ~Server() { thread_.join(); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

  private:
    std::thread thread_;
};

void pingPong(benchmark::State& state, Family family) {
    constexpr int kRounds = 200;
    Side bare(family, 1, makeEpollLoop);
    Side queue(family, 1, makeKeventLoop);
    while (state.KeepRunning()) {
        for (Side* side : {&bare, &queue}) {
            const Server server(*side, kRounds);
            pingPongRounds(*side, kRounds);
        }
        state.SetIterationTime(queue.seconds.back());
    }
    report(state, bare, queue, kRounds);
}

void startTimers(benchmark::State& state) {
    const int kq = kqueue();
    const auto count = static_cast<uint64_t>(state.range(0));
    while (state.KeepRunning()) {
        for (uint64_t ident = 0; ident < count; ++ident) {
            struct kevent timer {};
            EV_SET(&timer, ident, EVFILT_TIMER, EV_ADD | EV_ENABLE, 0, 3'600'000 + (ident * 7919) % 1000,
                   nullptr);
            if (kevent(kq, &timer, 1, nullptr, 0, nullptr) != 0) abort();
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    (void)close(kq);
}

void turnWithTimers(benchmark::State& state) {
    const int kq = kqueue();
    std::vector<struct kevent> timers(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < timers.size(); ++i) {
        EV_SET(&timers[i], i, EVFILT_TIMER, EV_ADD | EV_ENABLE, 0, 3'600'000, nullptr);
    }
    if (kevent(kq, timers.data(), static_cast<int>(timers.size()), nullptr, 0, nullptr) != 0) abort();
    while (state.KeepRunning()) {
        struct kevent event {};
        const timespec none{};
        benchmark::DoNotOptimize(kevent(kq, nullptr, 0, &event, 1, &none));
    }
    (void)close(kq);
}

BENCHMARK_CAPTURE(echo, Unix, Family::kUnix)->Arg(1)->Arg(100)->UseManualTime();
BENCHMARK_CAPTURE(echo, Tcp, Family::kTcp)->Arg(1)->Arg(100)->UseManualTime();
BENCHMARK_CAPTURE(pingPong, Unix, Family::kUnix)->UseManualTime();
BENCHMARK_CAPTURE(pingPong, Tcp, Family::kTcp)->UseManualTime();
BENCHMARK(startTimers)->Arg(10)->Arg(10'000);
BENCHMARK(turnWithTimers)->Arg(0)->Arg(10'000);

}  // namespace

BENCHMARK_MAIN();
