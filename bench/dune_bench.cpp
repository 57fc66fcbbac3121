// SPDX-License-Identifier: Apache-2.0
// DuneSimulation per listed device, through the public interface:
// Dunes/<device>/<size> runs 100 iterations over rolling rock under a sheet
// of sand and reports cell iterations per second (Mcelliter).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "halden/halden.h"

namespace {

void run_dunes(benchmark::State& state, std::string key, int size) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const std::vector<float> bedrock = halden::bench::terrain(std::uint32_t(size));
    std::vector<float> input(bedrock.size());
    for (std::size_t i = 0; i < input.size(); ++i)
        input[i] = 2.0f + std::sin(0.05f * float(i % std::size_t(size))) * std::sin(0.03f * float(i / size));
    std::vector<float> sand = input;
    const halden_dune_parameters p{size, 1.0f, 1.0f, 20.0f, 1.0f,  110.0f, 0.7f,  0.2f, 100, 0.1f,
                                   3.0f, 0.2f, 0.5f, 5.0f,  15.0f, 33.0f,  68.0f, 1,    1,   1};
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(sand.data(), input.data(), input.size() * sizeof(float));
        state.ResumeTiming();
        if (DuneSimulation(q, bedrock.data(), sand.data(), nullptr, &p, nullptr) != 0) {
            state.SkipWithError("operation failed");
            break;
        }
        benchmark::DoNotOptimize(sand.data());
    }
    state.counters["Mcelliter"] = benchmark::Counter(
        double(size) * size * p.iterations * double(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_dune_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices())
        for (int size : {256, 1024})
            benchmark::RegisterBenchmark(("Dunes/" + d.label + "/" + std::to_string(size)).c_str(), run_dunes, d.key,
                                         size)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime()
                ->Iterations(1);
}
