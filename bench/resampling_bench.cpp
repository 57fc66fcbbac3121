// SPDX-License-Identifier: Apache-2.0
// Resampling kernels per back-end, in GB/s of the least traffic each needs
// (every source cell read once, every destination cell written once), to set
// against the device's memory bandwidth. Destinations are allocated once, so
// allocation stays out of the figures. Named Resampling/<op>/<backend>/<size>.
#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "compute/compute.hpp"
#include "core/resampling.hpp"

namespace {

using halden::compute::queue;
using halden::core::grid;

using kernel = std::function<void(queue&, const grid& src, grid& dst)>;

struct operation {
    const char* name;
    int scale_num, scale_den;  // destination side = source side * num / den
    kernel run;
};

const std::vector<operation>& operations() {
    static const std::vector<operation> ops = {
        {"downsample_box", 1, 2,
         [](queue& q, const grid& s, grid& d) {
             resampling::kernels::downsample_box(q, s.get(), int(s.extent().cols), d.get(), int(d.extent().cols),
                                                 int(d.extent().rows));
         }},
        {"downsample_magic", 1, 2,
         [](queue& q, const grid& s, grid& d) {
             resampling::kernels::downsample_magic(q, s.get(), int(s.extent().cols), int(s.extent().rows), d.get(),
                                                   int(d.extent().cols), int(d.extent().rows));
         }},
        {"upsample_box", 2, 1,
         [](queue& q, const grid& s, grid& d) {
             resampling::kernels::upsample_box(q, s.get(), int(s.extent().cols), int(s.extent().rows), d.get(), false);
         }},
        {"upsample_magic", 2, 1,
         [](queue& q, const grid& s, grid& d) {
             resampling::kernels::upsample_magic(q, s.get(), int(s.extent().cols), int(s.extent().rows), d.get());
         }},
        {"sharpen_magic", 1, 1,
         [](queue& q, const grid& s, grid& d) {
             resampling::kernels::sharpen_magic(q, s.get(), int(s.extent().cols), int(s.extent().rows), d.get());
         }},
    };
    return ops;
}

void run(benchmark::State& state, const halden::compute::device& dev, const operation& op, std::size_t size) {
    queue q(dev);
    const std::vector<float> h = halden::bench::terrain(std::uint32_t(size));
    grid src(q, {size, size}, "source");
    src.copy_from_host(h.data());
    const std::size_t out = size * std::size_t(op.scale_num) / std::size_t(op.scale_den);
    grid dst(q, {out, out}, "destination");
    op.run(q, src, dst);
    q.wait();
    for (auto _ : state) {
        op.run(q, src, dst);
        q.wait();
    }
    const double bytes = double(src.bytes() + dst.bytes());
    state.counters["GB"] = benchmark::Counter(bytes * double(state.iterations()) / 1e9, benchmark::Counter::kIsRate);
}

}  // namespace

void register_resampling_benchmarks() {
    for (const halden::compute::device& dev : halden::compute::get_devices()) {
        const std::string backend = dev.get_backend() == halden::compute::backend::native ? "Native" : "CUDA";
        for (const operation& op : operations())
            for (std::size_t size : {1024u, 4096u})
                benchmark::RegisterBenchmark(
                    (std::string("Resampling/") + op.name + "/" + backend + "/" + std::to_string(size)).c_str(), run,
                    dev, op, size)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime()
                    ->MinTime(0.3);
    }
}
