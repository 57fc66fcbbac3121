// SPDX-License-Identifier: Apache-2.0
// Triplanar displacement: no displacement is RenderMesh, a constant texture
// lifts a plane exactly, displaced surfaces stay closed, triangle order does
// not matter, bad input is refused, and devices agree.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "modules/mesh_rasterizer/mesh_rasterizer.hpp"
#include "modules/mesh_rasterizer/triplanar.hpp"
#include "support.hpp"

namespace {

constexpr float kNone = -3.4028235e38f;

using halden::test::mesh_data;

// An n x n lattice of vertices `step` apart (jittered in x and y when asked),
// two triangles per quad in the drawn winding, heights from `height`.
template <class Height>
mesh_data lattice(std::uint32_t n, float step, Height height, float jitter = 0.0f) {
    mesh_data m;
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> shake(-jitter, jitter);
    for (std::uint32_t i = 0; i < n * n; ++i) {
        const bool inner = i % n != 0 && i % n != n - 1 && i / n != 0 && i / n != n - 1;
        const float x = (i % n) * step + (inner ? shake(rng) : 0.0f), y = (i / n) * step + (inner ? shake(rng) : 0.0f);
        m.vertices.insert(m.vertices.end(), {x, y, height(x, y)});
    }
    for (std::uint32_t a = 0; a + n + 1 < n * n; ++a)
        if ((a + 1) % n != 0) m.triangles.insert(m.triangles.end(), {a, a + n, a + 1, a + 1, a + n, a + n + 1});
    return m;
}

float hills(float x, float y) { return 3.0f + 2.0f * std::sin(0.3f * x) * std::cos(0.2f * y); }

std::vector<float> noise_texture(int w, int h) {
    std::vector<float> t(std::size_t(w) * h);
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (float& v : t) v = u(rng);
    return t;
}

halden_triplanar_parameters record(int w, int h) {
    halden_triplanar_parameters p{};
    p.transform.width = w, p.transform.height = h;
    p.transform.scale = p.transform.depth_divisor = 1.0f;
    p.texture_size = 8.0f, p.amplitude = 1.0f, p.midlevel = 0.5f, p.sharpness = 4.0f;
    p.edge_length = 1.0f, p.max_subdivision = 64;
    return p;
}

struct output {
    std::vector<float> heights, ids;
    std::uint32_t status;
};

output displace(halden_queue* q, const mesh_data& m, const halden_texture& t, const halden_triplanar_parameters& p,
                const halden_callbacks* cb = nullptr) {
    const std::size_t cells = std::size_t(p.transform.width) * p.transform.height;
    output o{std::vector<float>(cells, 7.0f), std::vector<float>(cells, 7.0f), 0};
    const halden_mesh mesh = m.record();
    o.status = MeshRasterizer_RenderMeshWithTriplanarDisplacement(q, &mesh, o.heights.data(), o.ids.data(), &t, &p, cb);
    return o;
}

class Triplanar : public halden::test::DeviceTest {};

TEST_P(Triplanar, NoAmplitudeRendersAsRenderMesh) {
    const mesh_data m = lattice(13, 2.5f, hills, 0.6f);
    const std::vector<float> noise = noise_texture(16, 9);
    const halden_texture t{noise.data(), 16, 9};
    for (bool supersample : {false, true}) {
        SCOPED_TRACE(supersample ? "supersampled" : "plain");
        halden_triplanar_parameters p = record(31, 29);
        p.amplitude = 0.0f, p.transform.supersample = supersample;
        p.transform.offset[0] = 0.25f, p.transform.offset[1] = -0.5f;
        const output o = displace(queue, m, t, p);
        ASSERT_EQ(o.status, 0u);
        std::vector<float> h(o.heights.size()), ids(o.ids.size());
        halden_mesh_rasterizer_parameters rp = p.transform;
        const halden_mesh mesh = m.record();
        ASSERT_EQ(MeshRasterizer_RenderMesh(queue, &mesh, h.data(), ids.data(), &rp, nullptr), 0u);
        EXPECT_EQ(halden::test::first_difference(o.heights, h), -1);
        EXPECT_EQ(halden::test::first_difference(o.ids, ids), -1);
    }
}

TEST_P(Triplanar, ConstantTextureLiftsAPlaneByExactlyItsOffset) {
    // z = 1 over a square of 12 cells: every point moves up by 2 (0.75 - 0.5) = 0.5, exactly.
    const mesh_data m{{0, 0, 1, 12, 0, 1, 0, 12, 1, 12, 12, 1}, {0, 2, 1, 1, 2, 3}};
    const std::vector<float> constant(6, 0.75f);
    const halden_texture t{constant.data(), 3, 2};
    halden_triplanar_parameters p = record(12, 12);
    p.amplitude = 2.0f, p.edge_length = 1.5f;
    const output o = displace(queue, m, t, p);
    ASSERT_EQ(o.status, 0u);
    for (int i = 0; i < 144; ++i) {
        // The renderer's own interpolation rounds across a piece.
        EXPECT_FLOAT_EQ(o.heights[i], 1.5f) << i;
        const int x = i % 12, y = i / 12;
        // The diagonal x + y = 12 splits the two triangles; cells off it name their own.
        if (x + y != 11) {
            EXPECT_EQ(o.ids[i], mesh_rasterizer::triangle_value(x + y < 11 ? 0 : 1)) << i;
        }
    }
}

TEST_P(Triplanar, DisplacedSurfacesLeaveNoHoles) {
    // Jittered, steep and coarse: neighbouring triangles cut their shared
    // edges into different counts than their other edges.
    const auto steep = [](float x, float y) { return 4.0f * std::sin(0.5f * x) + 3.0f * std::cos(0.4f * y); };
    const mesh_data m = lattice(9, 5.0f, steep, 1.5f);
    const std::vector<float> noise = noise_texture(32, 32);
    const halden_texture t{noise.data(), 32, 32};
    for (float edge : {0.7f, 2.0f, 5.0f}) {
        for (float sharpness : {1.0f, 4.0f, 2.5f}) {
            SCOPED_TRACE("edge " + std::to_string(edge) + ", sharpness " + std::to_string(sharpness));
            halden_triplanar_parameters p = record(40, 40);
            p.edge_length = edge, p.sharpness = sharpness, p.amplitude = 0.6f, p.texture_size = 6.0f;
            const output o = displace(queue, m, t, p);
            ASSERT_EQ(o.status, 0u);
            // Inside the footprint, away from its border, which displacement may move.
            int holes = 0;
            for (int y = 2; y < 38; ++y)
                for (int x = 2; x < 38; ++x) holes += o.heights[y * 40 + x] == kNone;
            EXPECT_EQ(holes, 0);
            EXPECT_TRUE(std::none_of(o.heights.begin(), o.heights.end(), [](float v) { return v == 7.0f; }));
        }
    }
}

TEST_P(Triplanar, TriangleOrderChangesNothing) {
    const mesh_data m = lattice(10, 3.0f, hills, 0.8f);
    const std::vector<float> noise = noise_texture(8, 8);
    const halden_texture t{noise.data(), 8, 8};
    halden_triplanar_parameters p = record(27, 27);
    p.amplitude = 1.5f, p.edge_length = 0.8f;
    const output a = displace(queue, m, t, p);
    std::vector<std::uint32_t> order(m.triangles.size() / 3);
    std::iota(order.begin(), order.end(), 0u);
    std::shuffle(order.begin(), order.end(), std::mt19937(3));
    mesh_data shuffled{m.vertices, {}};
    for (std::uint32_t t0 : order)
        shuffled.triangles.insert(shuffled.triangles.end(), m.triangles.begin() + 3 * t0,
                                  m.triangles.begin() + 3 * t0 + 3);
    const output b = displace(queue, shuffled, t, p);
    ASSERT_EQ(a.status + b.status, 0u);
    EXPECT_EQ(halden::test::first_difference(a.heights, b.heights), -1);
    // Ids follow their triangle to its new place.
    std::vector<float> renamed(order.size());
    for (std::size_t k = 0; k < order.size(); ++k)
        renamed[order[k]] = mesh_rasterizer::triangle_value(std::uint32_t(k));
    int moved = 0;
    for (std::size_t i = 0; i < a.ids.size(); ++i) {
        if (a.ids[i] == -1.0f) continue;
        const auto it = std::find_if(order.begin(), order.end(),
                                     [&](std::uint32_t t0) { return mesh_rasterizer::triangle_value(t0) == a.ids[i]; });
        ASSERT_NE(it, order.end());
        moved += b.ids[i] != renamed[*it];
    }
    // Only cells where two triangles reach the very same height may name the other.
    EXPECT_LE(moved, 2);
}

TEST_P(Triplanar, BadInputIsRefusedAndLeavesTheGrids) {
    const mesh_data m = lattice(4, 4.0f, hills);
    const std::vector<float> noise = noise_texture(4, 4);
    std::vector<float> nan_texture = noise;
    nan_texture[5] = std::nanf("");
    const halden_texture good{noise.data(), 4, 4};
    struct bad_case {
        const char* field;
        halden_texture texture;
        halden_triplanar_parameters p;
        bool null_texture = false;
    };
    std::vector<bad_case> cases;
    auto add = [&](const char* field, auto change) {
        bad_case c{field, good, record(8, 8)};
        change(c);
        cases.push_back(c);
    };
    add("null texture record", [](bad_case& c) { c.null_texture = true; });
    add("texture width", [](bad_case& c) { c.texture.width = 0; });
    add("null texture values", [](bad_case& c) { c.texture.values = nullptr; });
    add("not finite", [&](bad_case& c) { c.texture.values = nan_texture.data(); });
    add("must be finite", [](bad_case& c) { c.p.amplitude = std::nanf(""); });
    add("texture_size", [](bad_case& c) { c.p.texture_size = 0.0f; });
    add("sharpness", [](bad_case& c) { c.p.sharpness = 65.0f; });
    add("edge_length", [](bad_case& c) { c.p.edge_length = -1.0f; });
    add("max_subdivision", [](bad_case& c) { c.p.max_subdivision = 0; });
    add("max_subdivision", [](bad_case& c) { c.p.max_subdivision = 1025; });
    add("width and height", [](bad_case& c) { c.p.transform.width = 0; });
    for (const bad_case& c : cases) {
        SCOPED_TRACE(c.field);
        halden::test::messages().clear();
        std::vector<float> h(64, 7.0f), ids(64, 7.0f);
        const halden_mesh mesh = m.record();
        EXPECT_EQ(MeshRasterizer_RenderMeshWithTriplanarDisplacement(queue, &mesh, h.data(), ids.data(),
                                                                     c.null_texture ? nullptr : &c.texture, &c.p,
                                                                     &halden::test::capturing_callbacks()),
                  3u);
        ASSERT_EQ(halden::test::messages().error.size(), 1u);
        EXPECT_NE(halden::test::messages().error[0].find(c.field), std::string::npos)
            << halden::test::messages().error[0];
        EXPECT_EQ(h, std::vector<float>(64, 7.0f));
        EXPECT_EQ(ids, std::vector<float>(64, 7.0f));
    }
    // 1100 triangles of 1024 x 1024 pieces each pass 2^30 pieces: refused before anything runs.
    mesh_data huge{{0, 0, 0, 0, 5000, 0, 5000, 0, 0}, {}};
    for (int i = 0; i < 1100; ++i) huge.triangles.insert(huge.triangles.end(), {0, 1, 2});
    halden_triplanar_parameters p = record(8, 8);
    p.max_subdivision = 1024;
    halden::test::messages().clear();
    const output o = displace(queue, huge, good, p, &halden::test::capturing_callbacks());
    EXPECT_EQ(o.status, 3u);
    ASSERT_EQ(halden::test::messages().error.size(), 1u);
    EXPECT_NE(halden::test::messages().error[0].find("2^30 pieces"), std::string::npos);
    EXPECT_EQ(o.heights, std::vector<float>(64, 7.0f));
    EXPECT_TRUE(halden::test::messages().reserved.empty());
}

HALDEN_INSTANTIATE_ON_DEVICES(Triplanar);

class TriplanarKernels : public halden::test::BackendTest {};

TEST_P(TriplanarKernels, ConstantTextureMovesEveryPointByExactlyItsOffset) {
    // A tilted-free plane z = 1 and a constant 0.75 texture with midlevel 0.5 and amplitude 2: every point of
    // every patch, corners and cut edges included, lands at exactly z = 1.5 and keeps its x and y in the square.
    const mesh_data m{{0, 0, 1, 12, 0, 1, 0, 12, 1, 12, 12, 1, 5, 17, 1}, {0, 2, 1, 1, 2, 3, 2, 4, 3}};
    const std::vector<float> constant(6, 0.75f);
    const halden_texture t{constant.data(), 3, 2};
    halden_triplanar_parameters p = record(12, 12);
    p.amplitude = 2.0f, p.edge_length = 1.3f;
    const halden_mesh mesh = m.record();
    std::vector<mesh_rasterizer::batch> batches;
    ASSERT_EQ(mesh_rasterizer::plan(mesh, p, batches), "");
    ASSERT_EQ(batches.size(), 1u);
    const mesh_rasterizer::batch b = batches[0];
    mesh_rasterizer::TriplanarDisplacement d(*q, mesh, t, p, batches);
    d.compute_normals();
    const std::size_t n = b.patches.size();
    halden::compute::usm_ptr<mesh_rasterizer::patch, 1> patches(*q, {n});
    halden::compute::usm_ptr<std::uint32_t, 1> starts(*q, {n + 1});
    halden::compute::usm_ptr<mesh_rasterizer::vertex, 1> points(*q, {b.points()});
    patches.copy_from_host(b.patches.data());
    starts.copy_from_host(b.point_start.data());
    d.make_points(patches.get(), starts.get(), n, points.get(), b.points());
    std::vector<mesh_rasterizer::vertex> got(b.points());
    points.copy_to_host(got.data());
    q->synchronize();
    for (const mesh_rasterizer::vertex& v : got) {
        EXPECT_EQ(v.z, 1.5f);
        EXPECT_TRUE(v.x >= 0.0f && v.x <= 12.0f && v.y >= 0.0f && v.y <= 17.0f) << v.x << " " << v.y;
    }
}

HALDEN_INSTANTIATE_ON_BACKENDS(TriplanarKernels);

TEST(TriplanarDevices, CpuAndCudaAgree) {
    const std::string cuda = halden::test::first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const mesh_data m = lattice(24, 2.0f, hills, 0.5f);
    const std::vector<float> noise = noise_texture(64, 48);
    const halden_texture t{noise.data(), 64, 48};
    for (float sharpness : {4.0f, 3.3f}) {
        halden_triplanar_parameters p = record(96, 90);
        p.transform.scale = 2.0f, p.amplitude = 2.0f, p.sharpness = sharpness, p.edge_length = 0.7f;
        output results[2];
        for (int d = 0; d < 2; ++d) {
            halden_queue* q = CreateSyclQueue(d == 0 ? cuda.c_str() : "cpu", nullptr);
            ASSERT_NE(q, nullptr);
            results[d] = displace(q, m, t, p);
            DestroySyclQueue(q);
            ASSERT_EQ(results[d].status, 0u);
        }
        EXPECT_EQ(halden::test::first_difference(results[0].heights, results[1].heights), -1);
        EXPECT_EQ(halden::test::first_difference(results[0].ids, results[1].ids), -1);
    }
}

}  // namespace
