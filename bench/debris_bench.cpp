// SPDX-License-Identifier: Apache-2.0
// DebrisSimulation per listed device, through the public interface, on
// rolling hills with steep flanks: Debris/<device>/<size>/<mode>/<shape>
// places about 100,000 rocks on a 1024 grid (400,000 on 2048) and reports
// rocks per second, placement, runs and rendering included.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "compute/compute.hpp"
#include "halden/halden.h"
#include "modules/debris/debris.hpp"

namespace {

std::vector<float> hills(int size) {
    std::vector<float> h(std::size_t(size) * size);
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x)
            h[std::size_t(y) * size + x] = 0.25f * float(x) +
                                           30.0f * std::sin(0.02f * float(x)) * std::cos(0.017f * float(y)) +
                                           20.0f * std::sin(0.05f * float(y) + 0.03f * float(x));
    return h;
}

halden_debris_parameters record(int size, int mode, int shape) {
    return {size, size, 1.0f, 1.0f, 1,     0.17f, 0.4f, 2.5f, 2.5f, 30.0f, 32.0f,
            0.3f, 4000, mode, 8,    shape, 7,     0.5f, 0.4f, 8.0f, 0.02f};
}

// Rocks do not depend on the device: counted once, on the host.
double rocks_of(const std::vector<float>& input, const halden_debris_parameters& p) {
    for (const halden::compute::device& dev : halden::compute::get_devices()) {
        if (dev.get_backend() != halden::compute::backend::native) continue;
        halden::compute::queue q(dev);
        std::vector<float> heights = input;
        debris::Debris d(q, heights.data(), nullptr, nullptr, nullptr, nullptr, p);
        return double(d.place_rocks());
    }
    return 0.0;
}

void run_debris(benchmark::State& state, std::string key, int size, int mode, int shape) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const std::vector<float> input = hills(size);
    std::vector<float> heights = input;
    const halden_debris_parameters p = record(size, mode, shape);
    const double rocks = rocks_of(input, p);
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(heights.data(), input.data(), input.size() * sizeof(float));
        state.ResumeTiming();
        DebrisSimulation(q, heights.data(), nullptr, nullptr, nullptr, nullptr, &p);
        benchmark::DoNotOptimize(heights.data());
    }
    state.counters["rocks"] = rocks;
    state.counters["rocks/s"] = benchmark::Counter(rocks * double(state.iterations()), benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_debris_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices())
        for (int size : {1024, 2048})
            for (int mode : {HALDEN_DEBRIS_SYNCHRONOUS, HALDEN_DEBRIS_ASYNCHRONOUS})
                for (int shape : {HALDEN_DEBRIS_SHARP, HALDEN_DEBRIS_ROUNDED}) {
                    if (size == 2048 && (mode != HALDEN_DEBRIS_SYNCHRONOUS || shape != HALDEN_DEBRIS_SHARP)) continue;
                    const std::string name = "Debris/" + d.label + "/" + std::to_string(size) +
                                             (mode == HALDEN_DEBRIS_SYNCHRONOUS ? "/sync" : "/async") +
                                             (shape == HALDEN_DEBRIS_SHARP ? "/sharp" : "/rounded");
                    benchmark::RegisterBenchmark(name.c_str(), run_debris, d.key, size, mode, shape)
                        ->Unit(benchmark::kMillisecond)
                        ->UseRealTime()
                        ->Iterations(2);
                }
}
