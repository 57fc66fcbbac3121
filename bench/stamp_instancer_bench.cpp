// SPDX-License-Identifier: Apache-2.0
// StampInstancer_Populate per listed device: 10,000 copies of sixteen 64 x 64
// stamps, turned at random, into a 4096^2 grid with the max blend, placement
// included. Stamp/<device>/<filter> reports instances/s and Mcells/s (cells
// of the grid).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "halden/halden.h"

namespace {

void run_stamp(benchmark::State& state, std::string key, int filter) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const int size = 4096, side = 64, stamps = 16;
    const std::vector<float> input = halden::bench::terrain(std::uint32_t(size));
    std::vector<float> heights = input, atlas;
    std::vector<halden_stamp_entry> entries;
    // Round hills of differing heights and sharpness.
    for (int k = 0; k < stamps; ++k) {
        entries.push_back({side, side, atlas.size()});
        for (int y = 0; y < side; ++y)
            for (int x = 0; x < side; ++x) {
                const float dx = (x + 0.5f) / side - 0.5f, dy = (y + 0.5f) / side - 0.5f;
                const float r2 = (dx * dx + dy * dy) * 4.0f;
                atlas.push_back(r2 < 1.0f ? (4.0f + k) * std::pow(1.0f - r2, 1.0f + 0.2f * k) : 0.0f);
            }
    }
    const halden_stamps record{atlas.data(), atlas.size(), entries.data(), stamps, 0};
    halden_stamp_parameters p{};
    p.width = p.height = size, p.seed = 1, p.count = 10000;
    p.scale_min = p.scale_max = 1.0f, p.rotation_max = 360.0f, p.height_min = p.height_max = 1.0f;
    p.height_mode = HALDEN_STAMP_RELATIVE, p.blend = HALDEN_STAMP_MAX, p.opacity = 1.0f, p.smoothness = 1.0f;
    p.falloff = 0.25f, p.filter = filter;
    p.slope_min = p.elevation_min = -INFINITY;
    p.slope_max = p.elevation_max = INFINITY;
    std::vector<halden_stamp_instance> placed(p.count);
    std::uint32_t n = 0;
    if (StampInstancer_Populate(q, heights.data(), &record, nullptr, placed.data(), &n, nullptr, &p, nullptr) != 0)
        state.SkipWithError("operation failed");
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(heights.data(), input.data(), input.size() * sizeof(float));
        n = 0;
        state.ResumeTiming();
        StampInstancer_Populate(q, heights.data(), &record, nullptr, placed.data(), &n, nullptr, &p, nullptr);
        benchmark::DoNotOptimize(heights.data());
    }
    state.counters["instances"] =
        benchmark::Counter(double(p.count) * double(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["Mcells"] =
        benchmark::Counter(double(size) * size * double(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_stamp_instancer_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices())
        for (int filter : {HALDEN_STAMP_BILINEAR, HALDEN_STAMP_BICUBIC})
            benchmark::RegisterBenchmark(
                ("Stamp/" + d.label + (filter == HALDEN_STAMP_BICUBIC ? "/bicubic" : "/bilinear")).c_str(), run_stamp,
                d.key, filter)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime()
                ->MinTime(0.5);
}
