/// What it costs the loop to have many endpoints: one that comes and goes each turn, and all of them idle.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "bench/engine/sockets.h"
#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/RvKQueueStreamSocket.h"

namespace {

using namespace enginebench;

bool ignore(RvKQueueEventProtocol*, const char*, std::uint64_t, std::uint64_t*, std::int32_t) {
    return true;
}

/// A running loop with armed endpoints on which nothing ever comes: descriptors of one connection, since two
/// for each would be more than a process may have.
class CrowdedLoop {
  public:
    explicit CrowdedLoop(std::size_t count) {
        loop->start();
        for (std::size_t i = 0; i < count; ++i) {
            crowd.push_back(loop->createStreamSocket(must(dup(silent[1])), true));
            loop->startObject(crowd.back(), ignore);
        }
    }
    ~CrowdedLoop() {
        loop->stop();
        for (const int fd : silent) (void)close(fd);  // nothing is left to undo
    }
    CrowdedLoop(const CrowdedLoop&) = delete;
    CrowdedLoop& operator=(const CrowdedLoop&) = delete;

    /// Opens an endpoint, has it stopped, and returns when it was.
    void openAndClose() {
        const auto ends = connectedPair(Family::kUnix);
        const auto endpoint = loop->createStreamSocket(ends[1], true);
        loop->startObject(endpoint, ignore);
        loop->stopObject(endpoint);
        char end = 0;
        must(static_cast<int>(read(ends[0], &end, 1)));  // the end: the endpoint has been closed
        must(close(ends[0]));
    }

  private:
    std::shared_ptr<RvKQueue> loop = RvKQueue::initWithSubsystem("bench");
    std::vector<std::shared_ptr<RvKQueueStreamSocket>> crowd;
    std::array<int, 2> silent = connectedPair(Family::kUnix);
};

/// Per turn that opens and closes one endpoint beside this many others.
void openAndClose(benchmark::State& state) {
    CrowdedLoop loop(static_cast<std::size_t>(state.range(0)));
    while (state.KeepRunning()) loop.openAndClose();
}

/// "core_percent" is what all threads use of one core while nothing happens.
void idle(benchmark::State& state) {
    constexpr std::chrono::seconds kWatched{3};
    CrowdedLoop loop(static_cast<std::size_t>(state.range(0)));
    loop.openAndClose();  // all endpoints are armed by then
    double wall = 0;
    double cpu = 0;
    while (state.KeepRunning()) {
        const double wallBefore = wallSeconds();
        const double cpuBefore = cpuSeconds();
        std::this_thread::sleep_for(kWatched);
        wall += wallSeconds() - wallBefore;
        cpu += cpuSeconds() - cpuBefore;
    }
    state.counters["core_percent"] = 100 * cpu / wall;
}

BENCHMARK(openAndClose)->RangeMultiplier(10)->Range(10, 10'000)->UseRealTime();
BENCHMARK(idle)->Arg(10'000)->Iterations(1)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    raiseDescriptorLimit();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
