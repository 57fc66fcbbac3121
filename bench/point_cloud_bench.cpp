// SPDX-License-Identifier: Apache-2.0
// MeshRasterizer_RenderPointCloud of 10 million points into a 4096^2 grid,
// per listed device (Mpoints/s and Mcells/s): the mean of each cell's
// points, IDW within a radius of one cell, and the mean with pull-push
// filling of the holes. Named Points/<device>/...
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "halden/halden.h"

namespace {

constexpr int kSize = 4096;
constexpr std::uint32_t kPoints = 10000000;

// Points scattered over the grid (xorshift, so every run sees the same
// cloud) on a terrain of ramps, with a few empty bands for the fill.
const std::vector<float>& cloud() {
    static const std::vector<float> xyz = [] {
        std::vector<float> v;
        v.reserve(3 * std::size_t(kPoints));
        std::uint32_t s = 0x9E3779B9u;
        const auto next = [&s] {
            s ^= s << 13;
            s ^= s >> 17;
            s ^= s << 5;
            return float(s >> 8) * 0x1p-24f;
        };
        while (v.size() < 3 * std::size_t(kPoints)) {
            const float x = next() * kSize, y = next() * kSize;
            if (int(x) % 512 < 8) continue;
            v.insert(v.end(), {x, y, 0.01f * x + 0.02f * y + 5.0f * next()});
        }
        return v;
    }();
    return xyz;
}

void run_points(benchmark::State& state, std::string key, int mode, float radius, int fill) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const halden_points points{cloud().data(), kPoints, 0};
    std::vector<float> heights(std::size_t(kSize) * kSize);
    halden_point_parameters p{};
    p.transform.width = p.transform.height = kSize;
    p.transform.scale = p.transform.depth_divisor = 1.0f;
    p.mode = mode, p.fill = fill, p.radius = radius, p.power = 2.0f, p.empty = -1.0f;
    if (MeshRasterizer_RenderPointCloud(q, &points, heights.data(), nullptr, &p, nullptr) != 0)
        state.SkipWithError("operation failed");
    for (auto _ : state) {
        MeshRasterizer_RenderPointCloud(q, &points, heights.data(), nullptr, &p, nullptr);
        benchmark::DoNotOptimize(heights.data());
    }
    const double calls = double(state.iterations());
    state.counters["Mpoints"] = benchmark::Counter(double(kPoints) * calls / 1e6, benchmark::Counter::kIsRate);
    state.counters["Mcells"] = benchmark::Counter(double(kSize) * kSize * calls / 1e6, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_point_cloud_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices()) {
        const std::string base = "Points/" + d.label + "/4096/10Mpoints/";
        benchmark::RegisterBenchmark((base + "mean").c_str(), run_points, d.key, int(HALDEN_POINTS_MEAN), 0.0f,
                                     int(HALDEN_POINTS_FILL_NONE))
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->MinTime(0.5);
        benchmark::RegisterBenchmark((base + "idw_r1").c_str(), run_points, d.key, int(HALDEN_POINTS_IDW), 1.0f,
                                     int(HALDEN_POINTS_FILL_NONE))
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->MinTime(0.5);
        benchmark::RegisterBenchmark((base + "mean_pull_push").c_str(), run_points, d.key, int(HALDEN_POINTS_MEAN),
                                     0.0f, int(HALDEN_POINTS_FILL_PULL_PUSH))
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->MinTime(0.5);
    }
}
