// Whole processes in turn, A B A B ...: the ratio of their medians is what to look at. Run it where it may
// have /var/run/rvusbpctl.sock for itself: bench/run makes such a place.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/process/canned_daemon.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Run {
    double seconds = 0;
    double peakBytes = 0;
};

Run runOnce(const std::vector<const char*>& words) {
    static posix_spawn_file_actions_t actions = [] {
        posix_spawn_file_actions_t made;
        posix_spawn_file_actions_init(&made);
        posix_spawn_file_actions_addopen(&made, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        return made;
    }();
    std::vector<char*> vector;
    for (const char* word : words) {
        vector.push_back(const_cast<char*>(word));
    }
    vector.push_back(nullptr);
    const Clock::time_point start = Clock::now();
    pid_t child = -1;
    if (posix_spawn(&child, words[0], &actions, nullptr, vector.data(), environ) != 0) {
        std::fprintf(stderr, "cannot start %s\n", words[0]);
        std::exit(1);
    }
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    const std::chrono::duration<double> taken = Clock::now() - start;
    if (status != 0) {
        std::fprintf(stderr, "%s failed (%d)\n", words[0], status);
        std::exit(1);
    }
    return {taken.count(), static_cast<double>(usage.ru_maxrss) * 1024};
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

std::string frame(std::uint32_t code, const std::string& body) {
    const std::uint32_t header[2] = {code, static_cast<std::uint32_t>(body.size())};
    return std::string(reinterpret_cast<const char*>(header), sizeof header) + body;
}

std::string deviceList(std::int64_t count) {
    std::string body = "{\"devices\":[";
    for (std::int64_t i = 0; i < count; ++i) {
        char element[400];
        (void)std::snprintf(element, sizeof element,
                            "%s{\"id\":%d,\"vid\":1133,\"pid\":49948,\"rev\":256,\"port\":\"1-%d.%d\","
                            "\"built-in\":%s,\"name\":\"Keyboard number %d\",\"state\":\"shared\","
                            "\"serial\":\"SN%08d\",\"addr\":\"host-%d.example\"}",
                            i > 0 ? "," : "", static_cast<int>(i), static_cast<int>(i % 4),
                            static_cast<int>(i), i % 2 == 0 ? "true" : "false", static_cast<int>(i),
                            static_cast<int>(i), static_cast<int>(i));
        body += element;
    }
    return frame(0, body + "]}");
}

/// One iteration is one run of each program.
void compare(benchmark::State& state, const std::vector<const char*>& ours,
             const std::vector<const char*>& theirs) {
    const std::string reply = deviceList(state.range(0));
    const CannedDaemon daemon(reply);
    std::vector<double> a;
    std::vector<double> b;
    double peak = 0;
    for (auto _ : state) {
        const Run first = runOnce(ours);
        const Run second = runOnce(theirs);
        a.push_back(first.seconds);
        b.push_back(second.seconds);
        peak = std::max(peak, first.peakBytes);
        state.SetIterationTime(first.seconds + second.seconds);
    }
    state.counters["tool_us"] = median(a) * 1e6;
    state.counters["other_us"] = median(b) * 1e6;
    state.counters["ratio"] = median(a) / median(b);
    state.counters["peak_per_frame"] = peak / static_cast<double>(reply.size());
}

void devListAgainstBare(benchmark::State& state) {
    compare(state, {RV_TOOL, "dev", "list"}, {RV_BARE});
}

void devListAgainstTuned(benchmark::State& state) {
    compare(state, {RV_TOOL, "dev", "list"}, {RV_TUNED_DEVICES});
}

BENCHMARK(devListAgainstBare)->Arg(10)->Iterations(500)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(devListAgainstTuned)->Arg(100000)->Iterations(20)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
