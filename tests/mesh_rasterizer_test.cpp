// SPDX-License-Identifier: Apache-2.0
// Mesh rendering: coverage and winding on hand-made triangles, shared edges,
// degenerate and out-of-range triangles, supersampling, a terrain mesh that
// renders back its heights, render3 against render, bad input and devices.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "modules/mesh_rasterizer/mesh_rasterizer.hpp"
#include "support.hpp"

namespace {

using halden::test::messages;

constexpr float kNone = -3.4028235e38f;

mesh_rasterizer::Parameters record(int w, int h, bool supersample = false) {
    mesh_rasterizer::Parameters p{};
    p.width = w, p.height = h, p.scale = p.depth_divisor = 1.0f, p.supersample = supersample ? 1 : 0;
    return p;
}

struct mesh_data {
    std::vector<float> vertices;
    std::vector<std::uint32_t> triangles;
    halden_mesh record() const {
        return {vertices.data(), std::uint32_t(vertices.size() / 3), 0, triangles.data(),
                std::uint32_t(triangles.size() / 3), 0};
    }
};

// A terrain mesh over an n x n heightfield, vertices on cell centres, two
// triangles per quad in the drawn winding.
mesh_data terrain_mesh(const std::vector<float>& h, int n) {
    mesh_data m;
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) m.vertices.insert(m.vertices.end(), {x + 0.5f, y + 0.5f, h[y * n + x]});
    for (int y = 0; y + 1 < n; ++y)
        for (int x = 0; x + 1 < n; ++x) {
            const std::uint32_t a = y * n + x, b = a + 1, c = a + n, d = c + 1;
            m.triangles.insert(m.triangles.end(), {a, c, b, b, c, d});
        }
    return m;
}

class MeshExport : public halden::test::DeviceTest {
protected:
    std::uint32_t render(const mesh_data& m, std::vector<float>& heights, std::vector<float>* ids,
                         mesh_rasterizer::Parameters p) {
        const halden_mesh mesh = m.record();
        return MeshRasterizer_RenderMesh(queue, &mesh, heights.data(), ids ? ids->data() : nullptr, &p,
                                         &halden::test::capturing_callbacks());
    }
};

TEST_P(MeshExport, HandMadeTriangles) {
    // Right angle at (1, 1), legs of 6 cells; the drawn winding.
    mesh_data m{{1, 1, 5, 1, 7, 5, 7, 1, 5}, {0, 1, 2}};
    std::vector<float> h(100), ids(100);
    ASSERT_EQ(render(m, h, &ids, record(10, 10)), 0u);
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 10; ++x) {
            // Centres strictly inside the enlarged triangle x >= 1, y >= 1, x + y <= 8.
            const float cx = x + 0.5f, cy = y + 0.5f;
            const bool inside = cx > 1.0f && cy > 1.0f && cx + cy < 8.0f;
            if (inside) {
                EXPECT_NEAR(h[y * 10 + x], 5.0f, 1e-5f) << y << ", " << x;
                EXPECT_EQ(ids[y * 10 + x], mesh_rasterizer::triangle_value(0));
            } else if (cx + cy > 8.1f || cx < 0.9f || cy < 0.9f) {
                EXPECT_EQ(h[y * 10 + x], kNone) << y << ", " << x;
                EXPECT_EQ(ids[y * 10 + x], -1.0f);
            }
        }
    // The other winding is culled: nothing is written.
    mesh_data culled{m.vertices, {0, 2, 1}};
    ASSERT_EQ(render(culled, h, &ids, record(10, 10)), 0u);
    EXPECT_EQ(h, std::vector<float>(100, kNone));
    EXPECT_EQ(ids, std::vector<float>(100, -1.0f));

    // Two flat triangles of a square, heights 1 and 2, share the diagonal: the
    // higher wins there and the enlargement leaves no gaps.
    mesh_data square{{0, 0, 1, 8, 0, 1, 0, 8, 1, 8, 0, 2, 0, 8, 2, 8, 8, 2}, {0, 2, 1, 3, 4, 5}};
    std::vector<float> g(64);
    ASSERT_EQ(render(square, g, nullptr, record(8, 8)), 0u);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x) {
            const float v = g[y * 8 + x];
            ASSERT_TRUE(std::fabs(v - 1.0f) < 1e-5f || std::fabs(v - 2.0f) < 1e-5f) << y << ", " << x << ": " << v;
            if (x + y == 7) {
                EXPECT_NEAR(v, 2.0f, 1e-5f) << y << ", " << x;
            }
        }
    // Wholly outside the grid, collinear, or indexing past the vertices: nothing.
    mesh_data none{{20, 20, 1, 20, 30, 1, 30, 20, 1, 1, 1, 1, 3, 3, 1, 5, 5, 1}, {0, 1, 2, 3, 4, 5, 0, 1, 99}};
    ASSERT_EQ(render(none, g, nullptr, record(8, 8)), 0u);
    EXPECT_EQ(g, std::vector<float>(64, kNone));
}

TEST_P(MeshExport, ATerrainMeshRendersBackItsHeights) {
    const int n = 33;
    std::vector<float> field(n * n);
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) field[y * n + x] = 10.0f * std::sin(0.3f * x) * std::cos(0.2f * y) + 0.1f * x * y;
    const mesh_data m = terrain_mesh(field, n);
    std::vector<float> h(n * n);
    ASSERT_EQ(render(m, h, nullptr, record(n, n)), 0u);
    // At a vertex the neighbouring triangles, enlarged by 0.5 %, reach over
    // its centre too and extrapolate their planes a little: the error is a
    // small share of the local relief.
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) {
            float relief = 0.0f;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const int yy = std::clamp(y + dy, 0, n - 1), xx = std::clamp(x + dx, 0, n - 1);
                    relief = std::max(relief, std::fabs(field[yy * n + xx] - field[y * n + x]));
                }
            ASSERT_NEAR(h[y * n + x], field[y * n + x], 0.01f * relief + 1e-5f * (1.0f + std::fabs(field[y * n + x])))
                << y << ", " << x;
        }
}

TEST_P(MeshExport, SupersamplingDoublesTheRecordAndKeepsBlockMaxima) {
    const int n = 17;
    std::vector<float> field(n * n);
    for (int i = 0; i < n * n; ++i) field[i] = float((i * 37) % 11);
    const mesh_data m = terrain_mesh(field, n);
    std::vector<float> small(n * n), ids(n * n), big(4 * n * n), big_ids(4 * n * n);
    mesh_rasterizer::Parameters p = record(n, n, true);
    const halden_mesh mesh = m.record();
    ASSERT_EQ(MeshRasterizer_RenderMesh(queue, &mesh, small.data(), ids.data(), &p, nullptr), 0u);
    EXPECT_EQ(p.width, 2 * n);
    EXPECT_EQ(p.height, 2 * n);
    // The same mesh at twice the scale, reduced here.
    mesh_rasterizer::Parameters twice = record(2 * n, 2 * n);
    twice.scale = twice.depth_divisor = 2.0f;
    ASSERT_EQ(MeshRasterizer_RenderMesh(queue, &mesh, big.data(), big_ids.data(), &twice, nullptr), 0u);
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) {
            float best = big[2 * y * 2 * n + 2 * x];
            for (int k : {1, 2 * n, 2 * n + 1}) best = std::max(best, big[2 * y * 2 * n + 2 * x + k]);
            ASSERT_EQ(small[y * n + x], best) << y << ", " << x;
            ASSERT_GE(ids[y * n + x], 0.0f);
        }
}

TEST_P(MeshExport, BadInputLeavesTheGridsAlone) {
    mesh_data m{{1, 1, 5, 1, 7, 5, 7, 1, 5}, {0, 1, 2}};
    std::vector<float> h(100, 3.0f);
    const halden_mesh mesh = m.record();
    halden_mesh broken = mesh;
    broken.vertices = nullptr;
    mesh_rasterizer::Parameters p = record(10, 10);
    const halden_callbacks* cb = &halden::test::capturing_callbacks();
    EXPECT_EQ(MeshRasterizer_RenderMesh(queue, nullptr, h.data(), nullptr, &p, nullptr), 3u);
    EXPECT_EQ(MeshRasterizer_RenderMesh(queue, &mesh, nullptr, nullptr, &p, nullptr), 3u);
    EXPECT_EQ(MeshRasterizer_RenderMesh(nullptr, &mesh, h.data(), nullptr, &p, nullptr), 3u);
    EXPECT_EQ(MeshRasterizer_RenderMesh(queue, &broken, h.data(), nullptr, &p, cb), 3u);
    // A zero depth divisor, no width, and a supersampled width past the limit.
    mesh_rasterizer::Parameters bad[3] = {p, p, record(10000, 10, true)};
    bad[0].depth_divisor = 0.0f;
    bad[1].width = 0;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(MeshRasterizer_RenderMesh(queue, &mesh, h.data(), nullptr, &bad[i], cb), 3u) << i;
    EXPECT_EQ(bad[2].width, 10000);
    EXPECT_EQ(h, std::vector<float>(100, 3.0f));
    EXPECT_EQ(messages().error.size(), 4u);
    // An empty mesh renders an empty grid.
    halden_mesh empty{nullptr, 0, 0, nullptr, 0, 0};
    EXPECT_EQ(MeshRasterizer_RenderMesh(queue, &empty, h.data(), nullptr, &p, nullptr), 0u);
    EXPECT_EQ(h, std::vector<float>(100, kNone));
}

HALDEN_INSTANTIATE_ON_DEVICES(MeshExport);

class MeshKernels : public halden::test::BackendTest {};

TEST_P(MeshKernels, WorkGroupRenderersMatchTheFragmentRenderer) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> pos(-4.0f, 68.0f), z(-10.0f, 10.0f);
    mesh_data m;
    for (int i = 0; i < 300; ++i) m.vertices.insert(m.vertices.end(), {pos(rng), pos(rng), z(rng)});
    std::uniform_int_distribution<std::uint32_t> pick(0, 99);
    for (int i = 0; i < 200; ++i) m.triangles.insert(m.triangles.end(), {pick(rng), pick(rng), pick(rng)});
    const halden_mesh mesh = m.record();
    const mesh_rasterizer::Parameters p = record(64, 64);
    auto heights_of = [&](int which) {
        mesh_rasterizer::MeshRasterizer r(*q, mesh, p, false);
        r.process_vertices();
        if (which == 0) r.render<true, false, true, false>(mesh_rasterizer::size_limit);
        if (which == 1) r.render3<true, false, true, false>();
        if (which == 2) r.render3_cpu<true, false, true, false>();
        return halden::test::download(r.heights());
    };
    const std::vector<float> fragments = heights_of(0);
    halden::test::expect_same_bits(heights_of(1), fragments);
    halden::test::expect_same_bits(heights_of(2), fragments);
    int covered = 0;
    for (float v : fragments) covered += v != kNone;
    EXPECT_GT(covered, 1000);
}

HALDEN_INSTANTIATE_ON_BACKENDS(MeshKernels);

TEST(MeshDevices, CpuAndCudaAgree) {
    const std::string cuda = halden::test::first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int n = 129;
    std::vector<float> field(n * n);
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) field[y * n + x] = 30.0f * std::sin(0.1f * x) * std::cos(0.07f * y);
    const mesh_data m = terrain_mesh(field, n);
    const halden_mesh mesh = m.record();
    auto on = [&](const std::string& key, bool supersample, std::vector<float>& ids) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        std::vector<float> h(n * n);
        ids.assign(n * n, 0.0f);
        mesh_rasterizer::Parameters p = record(n, n, supersample);
        EXPECT_EQ(MeshRasterizer_RenderMesh(q, &mesh, h.data(), ids.data(), &p, nullptr), 0u);
        DestroySyclQueue(q);
        return h;
    };
    for (bool supersample : {false, true}) {
        std::vector<float> ids_gpu, ids_cpu;
        halden::test::expect_same_bits(on(cuda, supersample, ids_gpu), on("cpu", supersample, ids_cpu));
        // Ids agree wherever one triangle wins outright; count the cells where they differ.
        int differ = 0;
        for (int i = 0; i < n * n; ++i) differ += ids_gpu[i] != ids_cpu[i];
        EXPECT_LT(differ, n * n / 20);
    }
}

}  // namespace
