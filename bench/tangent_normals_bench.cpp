// SPDX-License-Identifier: Apache-2.0
// MeshRasterizer_ComputeTangentSpaceNormals: the bench terrain at 1024^2 and
// 4096^2 baked against a mesh of 128 x 128 quads that samples it, margin 2,
// per listed device (Mcells/s). Named TangentNormals/<device>/<size>.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "halden/halden.h"

namespace {

void run_tangent_normals(benchmark::State& state, std::string key, int size) {
    halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
    if (!q) {
        state.SkipWithError("no queue");
        return;
    }
    const std::vector<float> heights = halden::bench::terrain(std::uint32_t(size));
    // 129 x 129 vertices on the grid's cell centres, heights sampled there.
    const int quads = 128, n = quads + 1;
    const float step = float(size - 1) / float(quads);
    std::vector<float> vertices;
    std::vector<std::uint32_t> triangles;
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const float x = 0.5f + step * float(i), y = 0.5f + step * float(j);
            vertices.insert(vertices.end(),
                            {x, y, heights[std::size_t(int(y)) * std::size_t(size) + std::size_t(int(x))]});
        }
    for (int j = 0; j < quads; ++j)
        for (int i = 0; i < quads; ++i) {
            const std::uint32_t a = std::uint32_t(j * n + i), b = a + 1, c = a + std::uint32_t(n), d = c + 1;
            triangles.insert(triangles.end(), {a, c, b, b, c, d});
        }
    const halden_mesh mesh{
        vertices.data(), std::uint32_t(n * n), 0, triangles.data(), std::uint32_t(triangles.size() / 3), 0};
    halden_tangent_parameters p{};
    p.transform.width = p.transform.height = size;
    p.transform.scale = p.transform.depth_divisor = 1.0f;
    p.terrain_size = float(size), p.height_scale = 1.0f, p.margin = 2, p.encoding = HALDEN_TANGENT_UNSIGNED;
    std::vector<float> r(heights.size()), g(heights.size()), b(heights.size());
    if (MeshRasterizer_ComputeTangentSpaceNormals(q, &mesh, heights.data(), r.data(), g.data(), b.data(), &p,
                                                  nullptr) != 0)
        state.SkipWithError("operation failed");
    for (auto _ : state) {
        MeshRasterizer_ComputeTangentSpaceNormals(q, &mesh, heights.data(), r.data(), g.data(), b.data(), &p, nullptr);
        benchmark::DoNotOptimize(r.data());
    }
    const double cells = double(size) * double(size) * double(state.iterations());
    state.counters["Mcells"] = benchmark::Counter(cells / 1e6, benchmark::Counter::kIsRate);
    DestroySyclQueue(q);
}

}  // namespace

void register_tangent_normals_benchmarks() {
    for (const halden::bench::device_entry& d : halden::bench::devices())
        for (int size : {1024, 4096})
            benchmark::RegisterBenchmark(("TangentNormals/" + d.label + "/" + std::to_string(size)).c_str(),
                                         run_tangent_normals, d.key, size)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime()
                ->MinTime(0.5);
}
