// SPDX-License-Identifier: Apache-2.0
// Colour transport per listed device: Mcells/s through the export, on the
// flow benchmark's terrain with the same length, so the two compare.
// Named ColorTransport/<device>/<size>.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "halden/halden.h"

namespace {

void run_color_transport(benchmark::State& state, std::string key, int size) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const std::vector<float> heights = halden::bench::hills(size);
    // Colour bands by elevation, so that the traces carry real differences.
    std::vector<float> r0(heights.size()), g0(heights.size()), b0(heights.size());
    for (std::size_t i = 0; i < heights.size(); ++i) {
        const int band = int(heights[i] * 0.02f) & 3;
        r0[i] = 0.2f + 0.2f * float(band);
        g0[i] = 0.8f - 0.15f * float(band);
        b0[i] = float(band & 1);
    }
    std::vector<float> r = r0, g = g0, b = b0;
    const halden_color_transport_parameters p{size, size, 1, 0.5f, 0.05f, 1.0f, 0.8f, 4.0f};
    for (auto _ : state) {
        state.PauseTiming();
        r = r0, g = g0, b = b0;
        state.ResumeTiming();
        if (ColorTransportSimulation(q, heights.data(), r.data(), g.data(), b.data(), nullptr, &p, nullptr) != 0)
            state.SkipWithError("operation failed");
        benchmark::DoNotOptimize(r.data());
    }
    const double calls = double(state.iterations());
    state.counters["Mcells"] = benchmark::Counter(double(size) * size * calls / 1e6, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_color_transport_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices())
        for (int size : {1024, 4096})
            benchmark::RegisterBenchmark(("ColorTransport/" + d.label + "/" + std::to_string(size)).c_str(),
                                         run_color_transport, d.key, size)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime()
                ->MinTime(0.5);
}
