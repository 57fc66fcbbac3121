// SPDX-License-Identifier: Apache-2.0
// MedianFilter throughput per listed device, through the public interface.
// Each benchmark is named MedianFilter/<device>/<size>/r<radius>.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "halden/halden.h"

namespace {

std::vector<float> terrain(std::uint32_t size) {
    std::vector<float> h(std::size_t(size) * size);
    std::uint32_t s = 12345;
    for (std::size_t i = 0; i < h.size(); ++i) {
        s ^= s << 13;
        s ^= s >> 17;
        s ^= s << 5;
        h[i] = float(i % size) * 0.25f + float(s >> 8) * 0x1p-24f * 10.0f;
    }
    return h;
}

void run_median_filter(benchmark::State& state, std::string key, std::uint32_t size, std::uint32_t radius) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const std::vector<float> input = terrain(size);
    std::vector<float> grid = input;
    const halden_median_filter_parameters p{size, radius, 1, 0};
    MedianFilter(q, grid.data(), &p);  // warm-up: first-use costs stay out of the figures
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(grid.data(), input.data(), input.size() * sizeof(float));
        state.ResumeTiming();
        MedianFilter(q, grid.data(), &p);
        benchmark::DoNotOptimize(grid.data());
    }
    state.counters["Mcells/s"] =
        benchmark::Counter(double(size) * size * double(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

int main(int argc, char** argv) {
    halden_device_record* devices = nullptr;
    std::uint32_t count = 0;
    GetDevices(&devices, &count);
    for (std::uint32_t d = 0; d < count; ++d) {
        char key[512];
        halden_device_key(&devices[d], key, sizeof key);
        const std::string label = std::string(devices[d].backend) + ":" + devices[d].name;
        for (std::uint32_t size : {1024u, 4096u})
            for (std::uint32_t radius : {1u, 3u, 8u})
                benchmark::RegisterBenchmark(
                    ("MedianFilter/" + label + "/" + std::to_string(size) + "/r" + std::to_string(radius)).c_str(),
                    run_median_filter, key, size, radius)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime()
                    ->MinTime(0.5);
    }
    FreeDevices(devices);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
