// Parsing and printing rule sets; see the column bytes_per_second, which is of processor time.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "rules/rule_parser.h"

namespace {

std::string ruleText(std::int64_t count) {
    std::string text;
    for (std::int64_t i = 0; i < count; ++i) {
        char line[200];
        (void)std::snprintf(
            line, sizeof line,
            "%s quick host \"10.0.%d.%d,lab-pc\" name contains \"Keyboard %d\" hwid 046d:%04x\n",
            i % 2 == 0 ? "share" : "block", static_cast<int>(i >> 8 & 255), static_cast<int>(i & 255),
            static_cast<int>(i), static_cast<unsigned>(i & 0xffff));
        text += line;
    }
    return text;
}

void parse(benchmark::State& state) {
    const std::string text = ruleText(state.range(0));
    for (auto _ : state) {
        auto rules = rule_parser_run(text);
        if (!rules) {
            std::abort();
        }
        benchmark::DoNotOptimize(rules);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

BENCHMARK(parse)->RangeMultiplier(10)->Range(10, 1000000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
