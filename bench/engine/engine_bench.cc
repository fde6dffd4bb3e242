/// The engine against other event loops: in each benchmark all do the same job in turns, so that what the
/// machine does meanwhile falls on all. Medians; "ratio" is the engine over the fastest library, "limit" the
/// engine over bare epoll; "cpu" ratios compare user and system time of both ends instead of elapsed time.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <future>
#include <string>
#include <vector>

#include "bench/engine/loop.h"
#include "bench/engine/sockets.h"

namespace {

using namespace enginebench;

constexpr std::size_t kMessageBytes = 64;
const std::array<const Peer*, 5> kPeers = {&kRvioPeer, &kUvPeer, &kLibeventPeer, &kAsioPeer, &kEpollPeer};
constexpr std::size_t kLibraries = 4;  // the last of the peers is bare epoll

struct Cost {
    double wall = 0;
    double cpu = 0;
};

template <class Work>
Cost measure(Work work) {
    const double wall = wallSeconds();
    const double cpu = cpuSeconds();
    work();
    return {wallSeconds() - wall, cpuSeconds() - cpu};
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void reportRatios(benchmark::State& state, const std::string& prefix,
                  const std::array<double, kPeers.size()>& all) {
    state.counters[prefix + "ratio"] = all[0] / *std::min_element(all.begin() + 1, all.begin() + kLibraries);
    state.counters[prefix + "limit"] = all[0] / all[kLibraries];
}

/// units: what one run of the job consists of; each peer's counter is microseconds for one.
template <class Job>
void compare(benchmark::State& state, double units, Job job) {
    std::array<std::vector<double>, kPeers.size()> walls;
    std::array<std::vector<double>, kPeers.size()> cpus;
    while (state.KeepRunning()) {
        double sum = 0;
        for (std::size_t i = 0; i < kPeers.size(); ++i) {
            const Cost cost = job(*kPeers[i]);
            walls[i].push_back(cost.wall);
            cpus[i].push_back(cost.cpu);
            sum += cost.wall;
        }
        state.SetIterationTime(sum);
    }
    std::array<double, kPeers.size()> wall{};
    std::array<double, kPeers.size()> cpu{};
    for (std::size_t i = 0; i < kPeers.size(); ++i) {
        wall[i] = median(walls[i]);
        cpu[i] = median(cpus[i]);
        state.counters[std::string(kPeers[i]->name) + "_us"] = wall[i] * 1e6 / units;
    }
    reportRatios(state, "", wall);
    reportRatios(state, "cpu_", cpu);
}

/// One message to and fro between two loops.
void pingPong(benchmark::State& state, Family family) {
    constexpr std::size_t kRounds = 10000;
    compare(state, kRounds, [family](const Peer& peer) {
        const auto ends = connectedPair(family);
        const auto here = peer.make();
        const auto there = peer.make();
        std::promise<void> done;
        there->echo(ends[1]);
        here->ping(ends[0], kMessageBytes, kRounds, [&] { done.set_value(); });
        return measure([&] {
            there->run();
            here->run();
            done.get_future().wait();
        });
    });
}

/// A client writes on every connection and then awaits every answer; the loop answers.
void echo(benchmark::State& state, Family family) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const std::size_t rounds = 20000 / count;
    compare(state, static_cast<double>(rounds * count), [&](const Peer& peer) {
        const auto loop = peer.make();
        std::vector<int> clients;
        for (std::size_t i = 0; i < count; ++i) {
            const auto ends = connectedPair(family);
            clients.push_back(ends[0]);
            loop->echo(ends[1]);
        }
        const auto round = [&] {
            for (const int fd : clients) sendAll(fd, kMessageBytes);
            for (const int fd : clients) receiveAll(fd, kMessageBytes);
        };
        loop->run();
        round();
        const Cost cost = measure([&] {
            for (std::size_t i = 0; i < rounds; ++i) round();
        });
        for (const int fd : clients) must(close(fd));
        return cost;
    });
}

/// One way in writes of 64 KiB; the counters are microseconds a MiB.
void bulk(benchmark::State& state, Family family) {
    constexpr std::size_t kWriteBytes = 65536;
    constexpr std::size_t kTotal = std::size_t{256} << 20;
    compare(state, kTotal >> 20, [family](const Peer& peer) {
        const auto ends = connectedPair(family);
        const auto sender = peer.make();
        const auto receiver = peer.make();
        std::promise<void> done;
        receiver->receive(ends[1], kTotal, [&] { done.set_value(); });
        sender->send(ends[0], kWriteBytes, kTotal);
        return measure([&] {
            receiver->run();
            sender->run();
            done.get_future().wait();
        });
    });
}

/// Microseconds for a timer that is armed and cancelled.
void timers(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    compare(state, static_cast<double>(count), [count](const Peer& peer) {
        const double cpu = cpuSeconds();
        const double wall = peer.timers(count);
        return Cost{wall, cpuSeconds() - cpu};
    });
}

/// A thread has the loop write a message and awaits it at the other end.
void request(benchmark::State& state, Family family) {
    constexpr std::size_t kRounds = 10000;
    compare(state, kRounds, [family](const Peer& peer) {
        const auto ends = connectedPair(family);
        const auto loop = peer.make();
        loop->serve(ends[1]);
        loop->run();
        const Cost cost = measure([&] {
            for (std::size_t i = 0; i < kRounds; ++i) {
                loop->post(kMessageBytes);
                receiveAll(ends[0], kMessageBytes);
            }
        });
        must(close(ends[0]));
        return cost;
    });
}

BENCHMARK_CAPTURE(pingPong, Unix, Family::kUnix)->Iterations(9)->UseManualTime();
BENCHMARK_CAPTURE(pingPong, Tcp, Family::kTcp)->Iterations(9)->UseManualTime();
BENCHMARK_CAPTURE(echo, Unix, Family::kUnix)->Arg(100)->Arg(1000)->Iterations(15)->UseManualTime();
BENCHMARK_CAPTURE(echo, Tcp, Family::kTcp)->Arg(100)->Arg(1000)->Iterations(15)->UseManualTime();
BENCHMARK_CAPTURE(bulk, Unix, Family::kUnix)->Iterations(7)->UseManualTime();
BENCHMARK_CAPTURE(bulk, Tcp, Family::kTcp)->Iterations(7)->UseManualTime();
BENCHMARK(timers)->Arg(10'000)->Iterations(15)->UseManualTime();
BENCHMARK_CAPTURE(request, Unix, Family::kUnix)->Iterations(9)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
    raiseDescriptorLimit();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
