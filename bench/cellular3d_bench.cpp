// SPDX-License-Identifier: Apache-2.0
// Cellular3D_Render per listed device, through the public interface:
// Cellular3D/<device>/<size>/F1 is one octave of F1 on a flat slice,
// Cellular3D/<device>/<size>/cracks four octaves of F2 - F1 on a slice that
// follows the benchmark terrain. Both report cells per second.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "halden/halden.h"

namespace {

void run_cellular(benchmark::State& state, std::string key, int size, bool cracks) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const std::vector<float> z = cracks ? halden::bench::terrain(std::uint32_t(size)) : std::vector<float>();
    std::vector<float> out(std::size_t(size) * size);
    halden_cellular3d_parameters p{
        size, size, 16.0f, 0.0f, 1.0f, 1,    1.0f, HALDEN_CELLULAR3D_EUCLIDEAN, 3.0f, HALDEN_CELLULAR3D_F1, 0.05f,
        1,    2.0f, 0.5f,  0,    1.0f, 0.0f, 0};
    if (cracks) {
        p.result = HALDEN_CELLULAR3D_F2_MINUS_F1;
        p.octaves = 4;
    }
    const float* zp = cracks ? z.data() : nullptr;
    if (Cellular3D_Render(q, out.data(), zp, &p, nullptr) != 0) state.SkipWithError("operation failed");
    for (auto _ : state) {
        Cellular3D_Render(q, out.data(), zp, &p, nullptr);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["Mcells"] =
        benchmark::Counter(double(size) * size * double(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_cellular3d_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices())
        for (int size : {1024, 2048})
            for (bool cracks : {false, true})
                benchmark::RegisterBenchmark(
                    ("Cellular3D/" + d.label + "/" + std::to_string(size) + (cracks ? "/cracks" : "/F1")).c_str(),
                    run_cellular, d.key, size, cracks)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime()
                    ->MinTime(0.5);
}
