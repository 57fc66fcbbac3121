// SPDX-License-Identifier: Apache-2.0
// MeshRasterizer_RenderMesh of a terrain mesh of about two million triangles
// into a 4096^2 grid, per listed device (Mtriangles/s, Mfragments/s), and the
// four-pass blur at 4096^2 (GB/s of the least traffic: four passes each
// reading and writing the grid once). Named Rasterize/<device>/... and Blur/<device>/...
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "device/queue.hpp"
#include "halden/halden.h"
#include "modules/mesh_rasterizer/mesh_rasterizer.hpp"

namespace {

void run_rasterize(benchmark::State& state, std::string key) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    // 1001 x 1001 vertices: 2 million triangles spread over the whole grid.
    const int n = 1001, size = 4096;
    std::vector<float> vertices;
    std::vector<std::uint32_t> triangles;
    vertices.reserve(std::size_t(n) * n * 3);
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x)
            vertices.insert(vertices.end(), {float(x), float(y), 50.0f * std::sin(0.02f * x) * std::cos(0.03f * y)});
    for (int y = 0; y + 1 < n; ++y)
        for (int x = 0; x + 1 < n; ++x) {
            const std::uint32_t a = std::uint32_t(y * n + x), b = a + 1, c = a + std::uint32_t(n), d = c + 1;
            triangles.insert(triangles.end(), {a, c, b, b, c, d});
        }
    const halden_mesh mesh{vertices.data(), std::uint32_t(n * n), 0, triangles.data(),
                           std::uint32_t(triangles.size() / 3), 0};
    std::vector<float> heights(std::size_t(size) * size);
    halden_mesh_rasterizer_parameters p{};
    p.width = p.height = size;
    p.scale = float(size) / float(n - 1);
    p.depth_divisor = 1.0f;
    if (MeshRasterizer_RenderMesh(q, &mesh, heights.data(), nullptr, &p, nullptr) != 0)
        state.SkipWithError("operation failed");
    // The fragments every call walks, counted once through the renderer itself.
    std::uint64_t fragments = 0;
    {
        mesh_rasterizer::MeshRasterizer r(q->queue, mesh, p, false);
        r.process_vertices();
        fragments = r.render<true, false, true, false>(mesh_rasterizer::size_limit);
    }
    for (auto _ : state) {
        MeshRasterizer_RenderMesh(q, &mesh, heights.data(), nullptr, &p, nullptr);
        benchmark::DoNotOptimize(heights.data());
    }
    const double triangles_per_call = double(mesh.triangle_count);
    const double fragments_per_call = double(fragments);
    const double calls = double(state.iterations());
    state.counters["Mtriangles"] = benchmark::Counter(triangles_per_call * calls / 1e6, benchmark::Counter::kIsRate);
    state.counters["Mfragments"] = benchmark::Counter(fragments_per_call * calls / 1e6, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

void run_blur(benchmark::State& state, std::string key) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const int size = 4096;
    std::vector<float> grid = halden::bench::terrain(std::uint32_t(size));
    if (Blur(q, grid.data(), size, 12.0f, nullptr) != 0) state.SkipWithError("operation failed");
    for (auto _ : state) {
        Blur(q, grid.data(), size, 12.0f, nullptr);
        benchmark::DoNotOptimize(grid.data());
    }
    const double bytes = 4.0 * 2.0 * 4.0 * double(size) * size;
    state.counters["GB"] = benchmark::Counter(bytes * double(state.iterations()) / 1e9, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_mesh_rasterizer_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices()) {
        benchmark::RegisterBenchmark(("Rasterize/" + d.label + "/4096/2Mtriangles").c_str(), run_rasterize, d.key)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->MinTime(0.5);
        benchmark::RegisterBenchmark(("Blur/" + d.label + "/4096/r12").c_str(), run_blur, d.key)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->MinTime(0.5);
    }
}
