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
    double processorSeconds = 0;  ///< of its own, in user and kernel mode
    double peakBytes = 0;
};

constexpr int kLostConnection = 5;

double secondsOf(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// Runs a program with its output in a file; any exit status but `wanted` ends the benchmark. What it says on
/// standard error is thrown away.
Run runOnce(const std::vector<const char*>& words, const char* output, int wanted = 0) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
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
    posix_spawn_file_actions_destroy(&actions);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != wanted) {
        std::fprintf(stderr, "%s failed (%d)\n", words[0], status);
        std::exit(1);
    }
    return {taken.count(), secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime),
            static_cast<double>(usage.ru_maxrss) * 1024};
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

std::vector<std::string> deviceList(std::int64_t count) {
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
    return {frame(0, body + "]}")};
}

std::vector<std::string> connectionList(std::int64_t count) {
    std::string body = "{\"connections\":[";
    for (std::int64_t i = 0; i < count; ++i) {
        char element[200];
        const char* format = i % 4 == 0 ? "%s{\"app\":\"/Applications/Viewer%d.app\",\"appPID\":%d}"
                                        : "%s{\"addr\":\"10.0.%d.17\",\"port\":%d}";
        (void)std::snprintf(element, sizeof element, format, i > 0 ? "," : "", static_cast<int>(i),
                            static_cast<int>(i % 65536));
        body += element;
    }
    return {frame(1, body + "]}")};
}

std::vector<std::string> preferenceList(std::int64_t count) {
    std::string body = R"({"status":"ok","preferences":{)";
    for (std::int64_t i = 0; i < count; ++i) {
        char element[200];
        (void)std::snprintf(element, sizeof element, "%s\"%04x:%04x:0100\":{\"grab_on_plug\":true}",
                            i > 0 ? "," : "", static_cast<unsigned>(i >> 16),
                            static_cast<unsigned>(i & 0xffff));
        body += element;
    }
    return {frame(19, body + "}}")};
}

std::string okReply(std::uint32_t code) {
    return frame(code, R"({"status":"ok"})");
}

/// A rule list of believable rules, as the daemon sends it. A million of them must stay below the largest
/// frame that the tool accepts, 100 MiB.
std::vector<std::string> ruleList(std::int64_t count) {
    std::string body = "{\"rules\":[";
    for (std::int64_t i = 0; i < count; ++i) {
        char element[300];
        (void)std::snprintf(element, sizeof element,
                            "%s{\"action\":\"%s\",\"quick\":true,\"host\":[\"10.0.%d.%d\",\"lab\"],"
                            "\"serial\":\"SN%d\",\"vid\":1133,\"pid\":%d}",
                            i > 0 ? "," : "", i % 2 == 0 ? "share" : "block", static_cast<int>(i >> 8 & 255),
                            static_cast<int>(i & 255), static_cast<int>(i), static_cast<int>(i & 0xffff));
        body += element;
    }
    return {okReply(6), frame(7, body + "]}")};
}

std::vector<std::string> loadReplies(std::int64_t) {
    return {okReply(6), okReply(8), okReply(11)};
}

constexpr char kRuleFile[] = "/tmp/rvusbpctl-bench.rules";

void writeRuleFile(std::int64_t count) {
    std::FILE* file = std::fopen(kRuleFile, "w");
    for (std::int64_t i = 0; i < count; ++i) {
        (void)std::fprintf(
            file, "%s quick host \"10.0.%d.%d,lab-pc\" name contains \"Keyboard %d\" hwid 046d:%04x\n",
            i % 2 == 0 ? "share" : "block", static_cast<int>(i >> 8 & 255), static_cast<int>(i & 255),
            static_cast<int>(i), static_cast<unsigned>(i & 0xffff));
    }
    (void)std::fclose(file);
}

double fileBytes(const char* path) {
    std::FILE* file = std::fopen(path, "r");
    (void)std::fseek(file, 0, SEEK_END);
    const long size = std::ftell(file);
    (void)std::fclose(file);
    return static_cast<double>(size);
}

/// One iteration is one run of each program.
void compare(benchmark::State& state, std::vector<std::string> (*makeReplies)(std::int64_t),
             const std::vector<const char*>& ours, const std::vector<const char*>& theirs) {
    const CannedDaemon daemon([&] { return makeReplies(state.range(0)); });
    std::vector<double> a;
    std::vector<double> b;
    double ourProcessor = 0;
    double theirProcessor = 0;
    double peak = 0;
    for (auto _ : state) {
        const Run first = runOnce(ours, "/dev/null");
        const Run second = runOnce(theirs, "/dev/null");
        a.push_back(first.seconds);
        b.push_back(second.seconds);
        ourProcessor += first.processorSeconds;
        theirProcessor += second.processorSeconds;
        peak = std::max(peak, first.peakBytes);
        state.SetIterationTime(first.seconds + second.seconds);
    }
    state.counters["tool_us"] = median(a) * 1e6;
    state.counters["other_us"] = median(b) * 1e6;
    state.counters["ratio"] = median(a) / median(b);
    state.counters["processor_ratio"] = ourProcessor / theirProcessor;
    state.counters["peak_per_frame"] = peak / static_cast<double>(daemon.size());
}

void devListAgainstBare(benchmark::State& state) {
    compare(state, deviceList, {RV_TOOL, "dev", "list"}, {RV_BARE});
}

void devListAgainstTuned(benchmark::State& state) {
    compare(state, deviceList, {RV_TOOL, "dev", "list"}, {RV_TUNED_DEVICES});
}

void connListAgainstTuned(benchmark::State& state) {
    compare(state, connectionList, {RV_TOOL, "conn", "list"}, {RV_TUNED_CONNECTIONS});
}

void prefListAgainstTuned(benchmark::State& state) {
    compare(state, preferenceList, {RV_TOOL, "pref", "list"}, {RV_TUNED_PREFERENCES});
}

void connListAgainstSameJson(benchmark::State& state) {
    compare(state, connectionList, {RV_TOOL, "conn", "list"}, {RV_TUNED_CONNECTIONS_JSON});
}

void prefListAgainstSameJson(benchmark::State& state) {
    compare(state, preferenceList, {RV_TOOL, "pref", "list"}, {RV_TUNED_PREFERENCES_JSON});
}

void ruleListAgainstTuned(benchmark::State& state) {
    compare(state, ruleList, {RV_TOOL, "rule", "list"}, {RV_TUNED_RULE_LIST});
}

/// Peak memory is per byte of rule text here.
void ruleLoadAgainstTuned(benchmark::State& state) {
    writeRuleFile(state.range(0));
    const double text = fileBytes(kRuleFile);
    compare(state, loadReplies, {RV_TOOL, "rule", "load", kRuleFile}, {RV_TUNED_RULE_LOAD, kRuleFile});
    const double frames = static_cast<double>(3 * okReply(6).size());
    state.counters["peak_per_text"] = state.counters["peak_per_frame"] * frames / text;
    state.counters.erase("peak_per_frame");
    (void)unlink(kRuleFile);
}

/// Events of a daemon that sends as fast as it is read, through a socket into a file.
void monitorThroughput(benchmark::State& state) {
    constexpr std::int64_t kEventsPerBlock = 500;
    const CannedDaemon daemon(
        [] {
            std::string block;
            for (std::int64_t i = 0; i < kEventsPerBlock; ++i) {
                block += frame(4, R"({"id":17,"name":"Office keyboard","state":"in use",)"
                                  R"("addr":"host-17.example","appPID":4711})");
            }
            return std::vector<std::string>{block};
        },
        static_cast<std::size_t>(state.range(0) / kEventsPerBlock));
    double seconds = 0;
    double peak = 0;
    for (auto _ : state) {
        const Run run = runOnce({RV_TOOL, "monitor"}, "/tmp/rvusbpctl-monitor.out", kLostConnection);
        seconds += run.seconds;
        peak = std::max(peak, run.peakBytes);
        state.SetIterationTime(run.seconds);
    }
    (void)unlink("/tmp/rvusbpctl-monitor.out");
    state.counters["events_per_second"] =
        static_cast<double>(state.range(0)) * static_cast<double>(state.iterations()) / seconds;
    state.counters["peak_MiB"] = peak / (1 << 20);
}

BENCHMARK(devListAgainstBare)->Arg(10)->Iterations(500)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(devListAgainstTuned)->Arg(100000)->Iterations(20)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(connListAgainstTuned)->Arg(100000)->Iterations(20)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(prefListAgainstTuned)->Arg(100000)->Iterations(20)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(connListAgainstSameJson)
    ->Arg(100000)
    ->Iterations(20)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(prefListAgainstSameJson)
    ->Arg(100000)
    ->Iterations(20)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(ruleListAgainstTuned)->Arg(1000000)->Iterations(5)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(ruleLoadAgainstTuned)
    ->RangeMultiplier(10)
    ->Range(10, 1000000)
    ->Iterations(7)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(monitorThroughput)
    ->Arg(100000)
    ->Arg(5000000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
