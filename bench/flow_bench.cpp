// SPDX-License-Identifier: Apache-2.0
// Flow simulation per listed device: Mcells/s through the export, and particle
// steps per second from a counted run of the same work (the count costs one
// read-back per call, outside the timed loop). Named Flow/<device>/<size>.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "device/queue.hpp"
#include "halden/halden.h"
#include "modules/flow/flow.hpp"

namespace {

void run_flow(benchmark::State& state, std::string key, int size) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const std::vector<float> heights = halden::bench::hills(size);
    std::vector<float> map(heights.size());
    const halden_flow_parameters p{size, size, 0.5f, 1.0f, 1};

    // One counted run: the steps every call makes, and a warm-up.
    std::uint64_t steps = 0;
    {
        flow::Flow counted(q->queue, p, HALDEN_FLOW_NO_MASK, heights.data(), map.data());
        counted.count_steps();
        counted.process();
        steps = counted.steps();
    }
    for (auto _ : state) {
        if (FlowSimulation(q, HALDEN_FLOW_NO_MASK, heights.data(), map.data(), &p, nullptr) != 0)
            state.SkipWithError("operation failed");
        benchmark::DoNotOptimize(map.data());
    }
    const double calls = double(state.iterations());
    state.counters["Mcells"] = benchmark::Counter(double(size) * size * calls / 1e6, benchmark::Counter::kIsRate);
    state.counters["Msteps"] = benchmark::Counter(double(steps) * calls / 1e6, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_flow_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices())
        for (int size : {1024, 4096})
            benchmark::RegisterBenchmark(("Flow/" + d.label + "/" + std::to_string(size)).c_str(), run_flow, d.key,
                                         size)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime()
                ->MinTime(0.5);
}
