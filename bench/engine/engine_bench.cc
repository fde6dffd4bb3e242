// Each benchmark runs both loops in turn; "ratio" is ours over theirs, by the medians of one run.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "bench/engine/peers.h"

namespace {

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

template <class Ours, class Theirs>
void compare(benchmark::State& state, double units, Ours ours, Theirs theirs) {
    std::vector<double> a;
    std::vector<double> b;
    for (auto _ : state) {
        a.push_back(ours());
        b.push_back(theirs());
        state.SetIterationTime(a.back() + b.back());
    }
    state.counters["rvio_us"] = median(a) * 1e6 / units;
    state.counters["uv_us"] = median(b) * 1e6 / units;
    state.counters["ratio"] = median(a) / median(b);
}

/// Microseconds per round.
void pingPong(benchmark::State& state) {
    const auto bytes = static_cast<std::size_t>(state.range(0));
    constexpr std::size_t kRounds = 20000;
    compare(
        state, kRounds, [&] { return rvioPingPong(bytes, kRounds); },
        [&] { return uvPingPong(bytes, kRounds); });
}

/// Microseconds per MiB.
void bulk(benchmark::State& state) {
    const auto bytes = static_cast<std::size_t>(state.range(0));
    constexpr std::size_t kTotal = std::size_t{256} << 20;
    compare(
        state, kTotal >> 20, [&] { return rvioBulk(bytes, kTotal); }, [&] { return uvBulk(bytes, kTotal); });
}

BENCHMARK(pingPong)->Arg(64)->Iterations(9)->UseManualTime();
BENCHMARK(bulk)->Arg(65536)->Iterations(5)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
