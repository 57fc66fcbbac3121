// SPDX-License-Identifier: Apache-2.0
// Shade per listed device: diffuse light alone, sun shadows with 1, 7 and 19
// samples, and sky visibility traced or hybrid with 16 and 64 directions.
// Reports Mcells/s and Grays (rays x cells per second: every sample sweeps
// every cell once). Named Shade/<device>/<size>/<diffuse|sun1|sky16|...>.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "halden/halden.h"

namespace {

enum class kind { diffuse, sun, sky, hybrid };

void run_shade(benchmark::State& state, std::string key, int size, kind what, int count) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    std::vector<float> heights = halden::bench::terrain(std::uint32_t(size));
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x)
            heights[std::size_t(y) * size + x] += 60.0f * std::sin(0.02f * x) * std::cos(0.017f * y);
    const std::size_t n = heights.size();
    std::vector<float> diffuse(n), shadow(n), ao(n), r(n), g(n), b(n);
    halden_lighting_parameters p{};
    p.width = p.height = size;
    p.terrain_size = float(size);
    p.height_scale = 1.0f;
    p.sun_direction[0] = 0.6f;
    p.sun_direction[1] = 0.3f;
    p.sun_direction[2] = std::sqrt(1.0f - 0.36f - 0.09f);
    p.sun_size = 0.53f;
    p.light_scale = p.sun_strength = p.exposure = 1.0f;
    p.sky_strength = 0.4f;
    p.sun_enabled = p.sky_enabled = 1;
    int rays = count;
    if (what == kind::diffuse) {
        rays = 0;
    } else if (what == kind::sun) {
        p.shadows_enabled = 1;
        p.shadow_samples = count == 1 ? 0 : (count == 7 ? 1 : 2);
    } else {
        p.ao_enabled = 1;
        p.ao_mode = what == kind::hybrid ? 1 : 0;
        p.ao_directions = p.hybrid_ao_directions = count;
    }
    auto call = [&] {
        return Shade(q, heights.data(), diffuse.data(), shadow.data(), ao.data(), r.data(), g.data(), b.data(), nullptr,
                     nullptr, nullptr, &p, nullptr);
    };
    if (call() != 0) state.SkipWithError("operation failed");
    for (auto _ : state) {
        call();
        benchmark::DoNotOptimize(r.data());
    }
    const double calls = double(state.iterations()), cells = double(n);
    state.counters["Mcells"] = benchmark::Counter(cells * calls / 1e6, benchmark::Counter::kIsRate);
    state.counters["Grays"] = benchmark::Counter(cells * rays * calls / 1e9, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_shade_benchmarks() {
    struct config {
        kind what;
        int count;
        const char* name;
    };
    const config configs[] = {{kind::diffuse, 0, "diffuse"}, {kind::sun, 1, "sun1"},      {kind::sun, 7, "sun7"},       {kind::sun, 19, "sun19"},
                              {kind::sky, 16, "sky16"},    {kind::sky, 64, "sky64"},     {kind::hybrid, 16, "hybrid16"},
                              {kind::hybrid, 64, "hybrid64"}};
    for (const halden::bench::device_entry& d : halden::bench::devices())
        for (int size : {1024, 4096})
            for (const config& c : configs)
                benchmark::RegisterBenchmark(
                    ("Shade/" + d.label + "/" + std::to_string(size) + "/" + c.name).c_str(), run_shade, d.key, size,
                    c.what, c.count)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime()
                    ->MinTime(0.5);
}
