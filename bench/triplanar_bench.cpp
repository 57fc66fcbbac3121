// SPDX-License-Identifier: Apache-2.0
// MeshRasterizer_RenderMeshWithTriplanarDisplacement of a terrain mesh of
// 256 x 256 quads into a 2048^2 grid, cut to pieces of about one cell, per
// listed device (Mpieces/s, Mcells/s). Named Triplanar/<device>/...
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "halden/halden.h"
#include "modules/mesh_rasterizer/triplanar.hpp"

namespace {

void run_triplanar(benchmark::State& state, std::string key) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const int n = 257, size = 2048;
    std::vector<float> vertices;
    std::vector<std::uint32_t> triangles;
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x)
            vertices.insert(vertices.end(), {float(x), float(y), 20.0f * std::sin(0.05f * x) * std::cos(0.07f * y)});
    for (int y = 0; y + 1 < n; ++y)
        for (int x = 0; x + 1 < n; ++x) {
            const std::uint32_t a = std::uint32_t(y * n + x), b = a + 1, c = a + std::uint32_t(n), d = c + 1;
            triangles.insert(triangles.end(), {a, c, b, b, c, d});
        }
    const halden_mesh mesh{
        vertices.data(), std::uint32_t(n * n), 0, triangles.data(), std::uint32_t(triangles.size() / 3), 0};
    const std::vector<float> texture = halden::bench::hills(256);
    const halden_texture t{texture.data(), 256, 256};
    halden_triplanar_parameters p{};
    p.transform.width = p.transform.height = size;
    p.transform.scale = float(size) / float(n - 1);
    p.transform.depth_divisor = 1.0f;
    p.texture_size = 32.0f, p.amplitude = 0.5f, p.midlevel = 0.5f, p.sharpness = 4.0f;
    p.edge_length = 1.0f, p.max_subdivision = 64;
    std::vector<float> heights(std::size_t(size) * size), ids(heights.size());
    std::vector<mesh_rasterizer::batch> batches;
    mesh_rasterizer::plan(mesh, p, batches);
    double pieces = 0.0;
    for (const mesh_rasterizer::batch& b : batches) pieces += double(b.pieces());
    if (MeshRasterizer_RenderMeshWithTriplanarDisplacement(q, &mesh, heights.data(), ids.data(), &t, &p, nullptr) != 0)
        state.SkipWithError("operation failed");
    for (auto _ : state) {
        MeshRasterizer_RenderMeshWithTriplanarDisplacement(q, &mesh, heights.data(), ids.data(), &t, &p, nullptr);
        benchmark::DoNotOptimize(heights.data());
    }
    const double calls = double(state.iterations());
    state.counters["Mpieces"] = benchmark::Counter(pieces * calls / 1e6, benchmark::Counter::kIsRate);
    state.counters["Mcells"] = benchmark::Counter(double(size) * size * calls / 1e6, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_triplanar_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices())
        benchmark::RegisterBenchmark(("Triplanar/" + d.label + "/2048/131k-triangles").c_str(), run_triplanar, d.key)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->MinTime(0.5);
}
