// SPDX-License-Identifier: Apache-2.0
// ThermalSimulation per listed device, through the public interface:
// Thermal/<device>/<size>/level runs 64 iterations on the finest level alone,
// Thermal/<device>/<size>/pyramid the default pyramid. Both report cell
// iterations per second over every level they ran.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "halden/halden.h"

namespace {

void run_thermal(benchmark::State& state, std::string key, int size, bool pyramid) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const std::vector<float> input = halden::bench::terrain(std::uint32_t(size));
    std::vector<float> heights = input;
    // The benchmark terrain rises about 0.25 per cell: steep enough at 20
    // degrees for much of it to slide.
    const halden_thermal_parameters p{size, size, 1.0f, 1.0f, 20.0f, 0.2f, 0.5f, 64, pyramid ? 0 : 1, 1.0f, 1.0f, 1};
    if (ThermalSimulation(q, heights.data(), nullptr, nullptr, nullptr, &p, nullptr) != 0)
        state.SkipWithError("operation failed");
    double cells = 0.0;
    for (int side = size, level = 0; level < (pyramid ? 64 : 1); ++level, side -= side / 2) {
        cells += double(side) * side;
        if (side <= 48) break;
    }
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(heights.data(), input.data(), input.size() * sizeof(float));
        state.ResumeTiming();
        ThermalSimulation(q, heights.data(), nullptr, nullptr, nullptr, &p, nullptr);
        benchmark::DoNotOptimize(heights.data());
    }
    state.counters["Mcelliter"] =
        benchmark::Counter(cells * p.iterations * double(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_thermal_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices())
        for (int size : {1024, 4096})
            for (bool pyramid : {false, true})
                benchmark::RegisterBenchmark(
                    ("Thermal/" + d.label + "/" + std::to_string(size) + (pyramid ? "/pyramid" : "/level")).c_str(),
                    run_thermal, d.key, size, pyramid)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime()
                    ->MinTime(0.5);
}
