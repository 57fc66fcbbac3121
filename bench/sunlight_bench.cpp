// SPDX-License-Identifier: Apache-2.0
// SunLightIntegral per listed device, through the public interface: one
// midsummer day at 45 degrees north in 10-minute steps with diffuse light
// and 32 traced sky directions. Reports Mcells/s (grid cells times sun
// positions, each a shadow sweep) and whole days per second.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "halden/halden.h"

namespace {

void run_sunlight(benchmark::State& state, std::string key, int size) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const std::vector<float> heights = halden::bench::terrain(std::uint32_t(size));
    std::vector<float> irradiation(heights.size()), hours(heights.size());
    const halden_sunlight_parameters p = {size, size, float(size), 1.0f, 45.0f, 172, 172, 1, 10.0f,
                                          0,    3.0f, 0.7f,        0.0f, 0.2f,  32,  1,   0, {0, 0}};
    // Count the sun positions through the progress slot.
    static int positions;
    halden_callbacks cb{};
    cb.progress = [](float) -> int32_t {
        ++positions;
        return 0;
    };
    positions = 0;
    if (SunLightIntegral(q, heights.data(), irradiation.data(), hours.data(), nullptr, &p, &cb) != 0)
        state.SkipWithError("operation failed");
    const double swept = double(size) * size * positions;
    for (auto _ : state) {
        SunLightIntegral(q, heights.data(), irradiation.data(), hours.data(), nullptr, &p, nullptr);
        benchmark::DoNotOptimize(irradiation.data());
    }
    state.counters["Mcells"] =
        benchmark::Counter(swept * double(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
    state.counters["days"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_sunlight_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices())
        for (int size : {256, 1024})
            benchmark::RegisterBenchmark(("SunLight/" + d.label + "/" + std::to_string(size) + "/day").c_str(),
                                         run_sunlight, d.key, size)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime()
                ->MinTime(0.5);
}
