// SPDX-License-Identifier: Apache-2.0
// Mesh rendering: coverage, winding, interpolation and shared edges of
// hand-made triangles, supersampling, bad input, the renderers against each
// other and device agreement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "modules/mesh_rasterizer/mesh_rasterizer.hpp"
#include "support.hpp"

namespace {

constexpr float kNone = -3.4028235e38f;

mesh_rasterizer::Parameters record(int w, int h, bool supersample = false) {
    mesh_rasterizer::Parameters p{};
    p.width = w, p.height = h, p.scale = p.depth_divisor = 1.0f, p.supersample = supersample ? 1 : 0;
    return p;
}

using halden::test::mesh_data;

// Vertices on the cell centres of an n x n heightfield, two triangles per quad in the drawn winding.
mesh_data terrain_mesh(const std::vector<float>& h, std::uint32_t n) {
    mesh_data m;
    for (std::uint32_t i = 0; i < n * n; ++i) m.vertices.insert(m.vertices.end(), {i % n + 0.5f, i / n + 0.5f, h[i]});
    for (std::uint32_t a = 0; a + n + 1 < n * n; ++a)
        if ((a + 1) % n != 0) m.triangles.insert(m.triangles.end(), {a, a + n, a + 1, a + 1, a + n, a + n + 1});
    return m;
}

class MeshExport : public halden::test::DeviceTest {};

TEST_P(MeshExport, HandMadeTriangles) {
    auto render = [&](const mesh_data& m, std::vector<float>& heights, std::vector<float>* ids, int n) {
        const halden_mesh mesh = m.record();
        mesh_rasterizer::Parameters p = record(n, n);
        return MeshRasterizer_RenderMesh(queue, &mesh, heights.data(), ids ? ids->data() : nullptr, &p, nullptr);
    };
    // Right angle at (1, 1), legs of 6 cells, drawn winding, on the plane z = x + 2 y: a cell whose centre lies
    // inside takes the height there of the triangle enlarged by 0.5 % about its centroid (3, 3, 9).
    std::vector<float> h(100), ids(100), g(64);
    ASSERT_EQ(render({{1, 1, 3, 1, 7, 15, 7, 1, 9}, {0, 1, 2}}, h, &ids, 10), 0u);
    for (int i = 0; i < 100; ++i) {
        const float cx = i % 10 + 0.5f, cy = i / 10 + 0.5f;
        if (cx > 1.0f && cy > 1.0f && cx + cy < 8.0f) {
            EXPECT_NEAR(h[i], 9.0 + (cx - 3.0 + 2.0 * (cy - 3.0)) / 1.005, 1e-4) << i;
            EXPECT_EQ(ids[i], mesh_rasterizer::triangle_value(0)) << i;
        } else if (cx + cy > 8.1f || cx < 0.9f || cy < 0.9f) {
            EXPECT_TRUE(h[i] == kNone && ids[i] == -1.0f) << i;
        }
    }
    // Two flat triangles of a square, heights 1 and 2, share the diagonal: the higher wins on it, no cell is missed.
    ASSERT_EQ(render({{0, 0, 1, 8, 0, 1, 0, 8, 1, 8, 0, 2, 0, 8, 2, 8, 8, 2}, {0, 2, 1, 3, 4, 5}}, g, nullptr, 8), 0u);
    for (int i = 0; i < 64; ++i) EXPECT_NEAR(g[i], i % 8 + i / 8 < 7 ? 1.0f : 2.0f, 1e-5f) << i;
    // The other winding, wholly outside the grid, collinear, or indexing past the vertices: nothing.
    const mesh_data none{{1, 1, 5, 7, 1, 5, 1, 7, 5, 20, 20, 1, 20, 30, 1, 30, 20, 1, 1, 1, 1, 3, 3, 1, 5, 5, 1},
                         {0, 1, 2, 3, 4, 5, 6, 7, 8, 0, 1, 99}};
    ASSERT_EQ(render(none, g, &ids, 8), 0u);
    EXPECT_EQ(g, std::vector<float>(64, kNone));
    EXPECT_TRUE(std::all_of(ids.begin(), ids.begin() + 64, [](float v) { return v == -1.0f; }));
}

TEST_P(MeshExport, SupersamplingDoublesTheRecordAndKeepsBlockMaxima) {
    const int n = 17;
    std::vector<float> field(n * n), small(n * n), ids(n * n), big(4 * n * n);
    for (int i = 0; i < n * n; ++i) field[i] = float((i * 37) % 11);
    const mesh_data m = terrain_mesh(field, n);
    const halden_mesh mesh = m.record();
    mesh_rasterizer::Parameters p = record(n, n, true), twice = record(2 * n, 2 * n);
    ASSERT_EQ(MeshRasterizer_RenderMesh(queue, &mesh, small.data(), ids.data(), &p, nullptr), 0u);
    EXPECT_TRUE(p.width == 2 * n && p.height == 2 * n);
    // The same mesh at twice the scale, reduced here by 2 x 2 maxima; every cell names a triangle.
    twice.scale = twice.depth_divisor = 2.0f;
    ASSERT_EQ(MeshRasterizer_RenderMesh(queue, &mesh, big.data(), nullptr, &twice, nullptr), 0u);
    for (int i = 0; i < n * n; ++i) {
        const int c = (i / n) * 4 * n + (i % n) * 2;
        ASSERT_EQ(small[i], std::max({big[c], big[c + 1], big[c + 2 * n], big[c + 2 * n + 1]})) << i;
        ASSERT_GE(ids[i], 0.0f) << i;
    }
}

TEST_P(MeshExport, BadInputLeavesTheGridsAlone) {
    const mesh_data m{{1, 1, 5, 1, 7, 5, 7, 1, 5}, {0, 1, 2}};
    const halden_mesh mesh = m.record(), no_vertices{nullptr, 3, 0, m.triangles.data(), 1, 0};
    std::vector<float> h(100, 3.0f);
    // A zero depth divisor, no width, and a supersampled width past the limit (the record keeps its width).
    mesh_rasterizer::Parameters p = record(10, 10), bad[3] = {p, p, record(10000, 10, true)};
    bad[0].depth_divisor = 0.0f, bad[1].width = 0;
    const halden_callbacks* cb = &halden::test::capturing_callbacks();
    EXPECT_EQ(MeshRasterizer_RenderMesh(queue, nullptr, h.data(), nullptr, &p, nullptr), 3u);
    EXPECT_EQ(MeshRasterizer_RenderMesh(queue, &mesh, nullptr, nullptr, &p, nullptr), 3u);
    EXPECT_EQ(MeshRasterizer_RenderMesh(nullptr, &mesh, h.data(), nullptr, &p, nullptr), 3u);
    EXPECT_EQ(MeshRasterizer_RenderMesh(queue, &no_vertices, h.data(), nullptr, &p, cb), 3u);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(MeshRasterizer_RenderMesh(queue, &mesh, h.data(), nullptr, &bad[i], cb), 3u) << i;
    EXPECT_TRUE(bad[2].width == 10000 && h == std::vector<float>(100, 3.0f));
    EXPECT_EQ(halden::test::messages().error.size(), 7u);
    // An empty mesh renders an empty grid.
    const halden_mesh empty{nullptr, 0, 0, nullptr, 0, 0};
    EXPECT_EQ(MeshRasterizer_RenderMesh(queue, &empty, h.data(), nullptr, &p, nullptr), 0u);
    EXPECT_EQ(h, std::vector<float>(100, kNone));
}

TEST_P(MeshExport, IdsNameTheHighestTriangleAndTheFirstOfEqualOnes) {
    // Overlapping triangles at random heights, and copies of some of them,
    // so that cells tie. Rendered one by one, they give each cell's
    // candidates: the winner is the highest, and of equal ones the first.
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> pos(-2.0f, 26.0f), z(0.0f, 4.0f);
    mesh_data m;
    for (int i = 0; i < 90; ++i) m.vertices.insert(m.vertices.end(), {pos(rng), pos(rng), std::round(z(rng))});
    for (std::uint32_t t = 0; t < 30; ++t) m.triangles.insert(m.triangles.end(), {3 * t, 3 * t + 1, 3 * t + 2});
    for (std::uint32_t t = 0; t < 30; t += 3) m.triangles.insert(m.triangles.end(), {3 * t, 3 * t + 1, 3 * t + 2});
    const int n = 24, count = int(m.triangles.size() / 3);
    std::vector<float> want(n * n, kNone), want_ids(n * n, -1.0f), one(n * n);
    for (int t = 0; t < count; ++t) {
        const mesh_data single{m.vertices, {m.triangles.begin() + 3 * t, m.triangles.begin() + 3 * t + 3}};
        const halden_mesh mesh = single.record();
        mesh_rasterizer::Parameters p = record(n, n);
        ASSERT_EQ(MeshRasterizer_RenderMesh(queue, &mesh, one.data(), nullptr, &p, nullptr), 0u);
        for (int i = 0; i < n * n; ++i)
            if (one[i] > want[i]) want[i] = one[i], want_ids[i] = mesh_rasterizer::triangle_value(std::uint32_t(t));
    }
    const halden_mesh mesh = m.record();
    for (int round = 0; round < 10; ++round) {
        std::vector<float> h(n * n), ids(n * n);
        mesh_rasterizer::Parameters p = record(n, n);
        ASSERT_EQ(MeshRasterizer_RenderMesh(queue, &mesh, h.data(), ids.data(), &p, nullptr), 0u);
        halden::test::expect_same_bits(h, want);
        halden::test::expect_same_bits(ids, want_ids);
    }
    EXPECT_GT(std::count_if(want.begin(), want.end(), [](float v) { return v != kNone; }), n * n / 2);
}

HALDEN_INSTANTIATE_ON_DEVICES(MeshExport);

class MeshKernels : public halden::test::BackendTest {};

TEST_P(MeshKernels, WorkGroupRenderersMatchTheFragmentRenderer) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> pos(-4.0f, 68.0f), z(-10.0f, 10.0f);
    std::uniform_int_distribution<std::uint32_t> pick(0, 99);
    mesh_data m;
    for (int i = 0; i < 300; ++i) m.vertices.insert(m.vertices.end(), {pos(rng), pos(rng), z(rng)});
    for (int i = 0; i < 200; ++i) m.triangles.insert(m.triangles.end(), {pick(rng), pick(rng), pick(rng)});
    const halden_mesh mesh = m.record();
    auto heights_of = [&](int which) {
        mesh_rasterizer::MeshRasterizer r(*q, mesh, record(64, 64), false);
        r.process_vertices();
        if (which == 0) r.render<true, false, true, false>(mesh_rasterizer::size_limit);
        if (which == 1) r.render3<true, false, true, false>();
        if (which == 2) r.render3_cpu<true, false, true, false>();
        return halden::test::download(r.heights());
    };
    const std::vector<float> fragments = heights_of(0);
    halden::test::expect_same_bits(heights_of(1), fragments);
    halden::test::expect_same_bits(heights_of(2), fragments);
    EXPECT_GT(std::count_if(fragments.begin(), fragments.end(), [](float v) { return v != kNone; }), 1000);
}

TEST_P(MeshKernels, HugeTrianglesCostOnlyTheGridAndCancelStopsARender) {
    // Two flat triangles 16,000 cells wide over a 4 x 4 grid: only the grid's
    // cells become fragments.
    const mesh_data huge{{-8000, -8000, 5, -8000, 8000, 5, 8000, -8000, 5, 8000, 8000, 5}, {0, 1, 2, 2, 1, 3}};
    const halden_mesh mesh = huge.record();
    mesh_rasterizer::MeshRasterizer r(*q, mesh, record(4, 4), false);
    r.process_vertices();
    EXPECT_EQ((r.render<true, false, true, false>(mesh_rasterizer::size_limit)), 32u);
    for (float v : halden::test::download(r.heights())) EXPECT_NEAR(v, 5.0f, 1e-5f);

    // A render of more fragments than one launch takes asks cancel between
    // launches, and stops there with cells left to draw.
    const int side = 4200;
    const mesh_data square{{0, 0, 1, 0, side, 1, side, 0, 1, side, side, 1}, {0, 1, 2, 2, 1, 3}};
    const halden_mesh big = square.record();
    halden_callbacks cb{};
    cb.cancel = []() -> std::int32_t { return 1; };
    mesh_rasterizer::MeshRasterizer c(*q, big, record(side, side), false, &cb);
    c.process_vertices();
    c.render<true, false, true, false>(mesh_rasterizer::size_limit);
    EXPECT_TRUE(c.cancelled());
    const std::vector<float> h = halden::test::download(c.heights());
    EXPECT_GT(std::count(h.begin(), h.end(), kNone), 0);
    EXPECT_GT(std::count(h.begin(), h.end(), 1.0f), 0);
}

HALDEN_INSTANTIATE_ON_BACKENDS(MeshKernels);

TEST(MeshDevices, CpuAndCudaAgree) {
    const std::string cuda = halden::test::first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int n = 129;
    const mesh_data m = terrain_mesh(halden::test::random_cells(n, n, 6), n);
    const halden_mesh mesh = m.record();
    for (bool supersample : {false, true}) {
        std::vector<float> h[2] = {std::vector<float>(n * n), std::vector<float>(n * n)}, ids[2] = {h[0], h[0]};
        for (int d = 0; d < 2; ++d) {
            halden_queue* q = CreateSyclQueue(d == 0 ? cuda.c_str() : "cpu", nullptr);
            mesh_rasterizer::Parameters p = record(n, n, supersample);
            EXPECT_EQ(MeshRasterizer_RenderMesh(q, &mesh, h[d].data(), ids[d].data(), &p, nullptr), 0u);
            DestroySyclQueue(q);
        }
        halden::test::expect_same_bits(h[0], h[1]);
        halden::test::expect_same_bits(ids[0], ids[1]);
    }
}

}  // namespace
