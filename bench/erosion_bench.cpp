// SPDX-License-Identifier: Apache-2.0
// ParallelErosionSimulation per listed device with the documented defaults
// on the benchmark terrain: Erosion/<device>/<size>/level runs the finest
// level alone, Erosion/<device>/<size>/pyramid the default pyramid. Reports
// droplet steps per second (a step walked by both passes counts once) and
// the milliseconds of one whole run.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "device/queue.hpp"
#include "modules/parallel_erosion/parallel_erosion.hpp"

namespace {

parallel_erosion::Parameters defaults(int size, bool pyramid) {
    // The benchmark terrain's cells are one height unit wide.
    const float cell = 1.0f;
    return {size, size, cell, 1.0f, 0.25f, 8, 64.0f * cell, 0.3f, 0.05f, 0.01f, 0.3f, 0.3f, 0.02f, 4.0f, 3.0f,
            1,    pyramid ? 0 : 1, 10.0f, 1};
}

void run_erosion(benchmark::State& state, std::string key, int size, bool pyramid) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const std::vector<float> input = halden::bench::terrain(std::uint32_t(size));
    const parallel_erosion::Parameters p = defaults(size, pyramid);
    double steps = 0.0;
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<float> heights = input;
        state.ResumeTiming();
        parallel_erosion::ParallelErosion e(q->queue, heights.data(), nullptr, nullptr, nullptr, nullptr, nullptr, p,
                                            nullptr);
        if (!e.process()) state.SkipWithError("cancelled");
        q->queue.synchronize();
        steps += double(e.steps_run());
        benchmark::DoNotOptimize(heights.data());
    }
    state.counters["Msteps"] = benchmark::Counter(steps / 1e6, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_erosion_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices())
        for (int size : {1024})
            for (bool pyramid : {false, true})
                benchmark::RegisterBenchmark(
                    ("Erosion/" + d.label + "/" + std::to_string(size) + (pyramid ? "/pyramid" : "/level")).c_str(),
                    run_erosion, d.key, size, pyramid)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime()
                    ->MinTime(0.5);
}
