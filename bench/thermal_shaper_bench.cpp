// SPDX-License-Identifier: Apache-2.0
// ThermalShaper_Process throughput per listed device, through the public
// interface. Each benchmark is named ThermalShaper/<device>/<size>[/mask].
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "halden/halden.h"

namespace {

void run_thermal_shaper(benchmark::State& state, std::string key, int size, bool masked) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const std::vector<float> input = halden::bench::terrain(std::uint32_t(size));
    std::vector<float> heights = input, mask;
    if (masked) {
        mask.resize(input.size());
        for (std::size_t i = 0; i < mask.size(); ++i) mask[i] = float(i % std::size_t(size)) / float(size);
    }
    // Heights in cell units: the benchmark terrain rises 0.25 per cell across.
    const halden_thermal_shaper_parameters p{size, size, 1.0f, float(size), 0.125f, 1.0f, -0.5f, 0};
    const float* m = masked ? mask.data() : nullptr;
    if (ThermalShaper_Process(q, heights.data(), m, &p, nullptr) != 0) state.SkipWithError("operation failed");
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(heights.data(), input.data(), input.size() * sizeof(float));
        state.ResumeTiming();
        ThermalShaper_Process(q, heights.data(), m, &p, nullptr);
        benchmark::DoNotOptimize(heights.data());
    }
    state.counters["Mcells"] =
        benchmark::Counter(double(size) * size * double(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_thermal_shaper_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices())
        for (int size : {1024, 4096})
            for (bool masked : {false, true})
                benchmark::RegisterBenchmark(("ThermalShaper/" + d.label + "/" + std::to_string(size) +
                                              (masked ? "/mask" : ""))
                                                 .c_str(),
                                             run_thermal_shaper, d.key, size, masked)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime()
                    ->MinTime(0.5);
}
