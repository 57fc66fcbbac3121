// SPDX-License-Identifier: Apache-2.0
// MedianFilter throughput per listed device, through the public interface.
// Each benchmark is named MedianFilter/<device>/<size>/r<radius>.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "halden/halden.h"

namespace {

void run_median_filter(benchmark::State& state, std::string key, std::uint32_t size, std::uint32_t radius) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const std::vector<float> input = halden::bench::terrain(size);
    std::vector<float> grid = input;
    const halden_median_filter_parameters p{size, radius, 1, 0};
    MedianFilter(q, grid.data(), &p);  // warm-up: first-use costs stay out of the figures
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(grid.data(), input.data(), input.size() * sizeof(float));
        state.ResumeTiming();
        MedianFilter(q, grid.data(), &p);
        benchmark::DoNotOptimize(grid.data());
    }
    state.counters["Mcells"] =
        benchmark::Counter(double(size) * size * double(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_median_filter_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices())
        for (std::uint32_t size : {1024u, 4096u})
            for (std::uint32_t radius : {1u, 3u, 8u})
                benchmark::RegisterBenchmark(
                    ("MedianFilter/" + d.label + "/" + std::to_string(size) + "/r" + std::to_string(radius)).c_str(),
                    run_median_filter, d.key, size, radius)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime()
                    ->MinTime(0.5);
}
