// SPDX-License-Identifier: Apache-2.0
// Tangent-space normals: a mesh that follows the heights bakes the flat
// normal, a flat mesh bakes the heights' own normal, the green switch, the
// vertex frames against an independent computation, the margin's rings, bad
// input and device agreement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "device/queue.hpp"
#include "modules/mesh_rasterizer/tangent_normals.hpp"
#include "support.hpp"

namespace {

using mesh_rasterizer::vertex_frame;

halden_tangent_parameters record(int w, int h, int margin = 0, bool directx = false, bool unit = false) {
    halden_tangent_parameters p{};
    p.transform.width = w, p.transform.height = h, p.transform.scale = p.transform.depth_divisor = 1.0f;
    p.terrain_size = float(w), p.height_scale = 1.0f, p.margin = margin;
    p.encoding = unit ? HALDEN_TANGENT_UNSIGNED : HALDEN_TANGENT_SIGNED, p.flip_green = directx ? 1u : 0u;
    return p;
}

using halden::test::mesh_data;

// An nx x ny lattice of vertices `step` cells apart from the grid's corner,
// heights from `z`, two triangles per quad in the drawn winding.
template <class Z>
mesh_data lattice(std::uint32_t nx, std::uint32_t ny, float x0, float step, Z z) {
    mesh_data m;
    for (std::uint32_t j = 0; j < ny; ++j)
        for (std::uint32_t i = 0; i < nx; ++i) {
            const float x = x0 + step * float(i), y = x0 + step * float(j);
            m.vertices.insert(m.vertices.end(), {x, y, z(x, y)});
        }
    for (std::uint32_t j = 0; j + 1 < ny; ++j)
        for (std::uint32_t i = 0; i + 1 < nx; ++i) {
            const std::uint32_t a = j * nx + i;
            m.triangles.insert(m.triangles.end(), {a, a + nx, a + 1, a + 1, a + nx, a + nx + 1});
        }
    return m;
}

struct planes {
    std::vector<float> r, g, b;
    explicit planes(std::size_t n, float fill = 7.0f) : r(n, fill), g(n, fill), b(n, fill) {}
};

std::uint32_t bake(halden_queue* q, const mesh_data& m, const std::vector<float>& heights, planes& out,
                   const halden_tangent_parameters& p, const halden_callbacks* cb = nullptr) {
    const halden_mesh mesh = m.record();
    return MeshRasterizer_ComputeTangentSpaceNormals(q, &mesh, heights.data(), out.r.data(), out.g.data(), out.b.data(),
                                                     &p, cb);
}

class TangentExport : public halden::test::DeviceTest {};

TEST_P(TangentExport, AMeshOfTheHeightsBakesTheFlatNormal) {
    const int n = 24;
    // Flat heights: the frame and the surface normal are exact, so is the result.
    {
        const std::vector<float> heights(n * n, 3.0f);
        planes out(n * n);
        ASSERT_EQ(bake(queue, lattice(n, n, 0.5f, 1.0f, [](float, float) { return 3.0f; }), heights, out, record(n, n)),
                  0u);
        for (int i = 0; i < n * n; ++i) ASSERT_TRUE(out.r[i] == 0.0f && out.g[i] == 0.0f && out.b[i] == 1.0f) << i;
    }
    // A dome, one vertex per cell centre. Each centre is a vertex, so its
    // weights are exactly one-hot and the frame is the vertex's own; the
    // 3-10-3 stencil and the six faces around a vertex (a ring symmetric
    // about it) both give the exact normal of a quadratic surface, so only
    // rounding remains: differences of heights near 9 carry about 1e-6 into
    // each normal. The border ring is left out: the stencil is one-sided there.
    auto dome = [](float x, float y) { return 9.0f - 0.02f * ((x - 11.0f) * (x - 11.0f) + (y - 13.0f) * (y - 13.0f)); };
    std::vector<float> heights(n * n);
    for (int i = 0; i < n * n; ++i) heights[i] = dome(i % n + 0.5f, i / n + 0.5f);
    for (bool directx : {false, true}) {
        planes out(n * n);
        ASSERT_EQ(bake(queue, lattice(n, n, 0.5f, 1.0f, dome), heights, out, record(n, n, 0, directx)), 0u);
        for (int y = 1; y + 1 < n; ++y)
            for (int x = 1; x + 1 < n; ++x) {
                const int i = y * n + x;
                EXPECT_NEAR(out.r[i], 0.0f, 1e-5f) << x << ", " << y;
                EXPECT_NEAR(out.g[i], 0.0f, 1e-5f) << x << ", " << y;
                EXPECT_NEAR(out.b[i], 1.0f, 1e-6f) << x << ", " << y;
            }
    }
}

TEST_P(TangentExport, AFlatMeshBakesTheHeightsOwnNormal) {
    // Two triangles over the whole grid: the frame is the grid's (tangent
    // along the columns, bitangent up the picture), so DirectX's green (down
    // the rows) gives the surface normal as the shading module has it, x
    // along columns and y along rows, and OpenGL's its mirror.
    const int n = 16;
    const mesh_data flat{{0, 0, 0, 0, 16, 0, 16, 0, 0, 16, 16, 0}, {0, 1, 2, 2, 1, 3}};
    std::vector<float> heights = halden::test::random_cells(n, n, 3);
    for (float& v : heights) v *= 0.05f;
    halden::compute::queue& q = queue->queue;
    halden::compute::input_view<float, 2> d_heights(q, heights.data(), halden::core::grid_extent(n, n));
    halden::compute::usm_ptr<lighting::vec4, 2> normals(q, halden::core::grid_extent(n, n));
    halden::compute::usm_ptr<std::int32_t, 2> photons(q, halden::core::grid_extent(n, n));
    lighting::compute_normals_and_init_photonmap(q, d_heights.get(), normals.get(), photons.get(), n, n, 16.0f, 1.0f);
    std::vector<lighting::vec4> want(n * n);
    normals.copy_to_host(want.data());
    q.synchronize();
    for (bool directx : {false, true}) {
        planes out(n * n);
        ASSERT_EQ(bake(queue, flat, heights, out, record(n, n, 0, directx)), 0u);
        for (int i = 0; i < n * n; ++i) {
            EXPECT_NEAR(out.r[i], want[i].x, 2e-7f) << i;
            EXPECT_NEAR(out.g[i], directx ? want[i].y : -want[i].y, 2e-7f) << i;
            EXPECT_NEAR(out.b[i], want[i].z, 2e-7f) << i;
        }
    }
}

TEST_P(TangentExport, FlipGreenNegatesOnlyGreen) {
    // A coarse bumpy mesh over part of the grid, with a margin.
    const int n = 40;
    const std::vector<float> heights = halden::test::random_cells(n, n, 9);
    const mesh_data m = lattice(5, 4, 3.0f, 7.5f, [](float x, float y) { return 20.0f * std::sin(0.2f * x) + y; });
    planes gl(n * n), dx(n * n), gl01(n * n), dx01(n * n);
    ASSERT_EQ(bake(queue, m, heights, gl, record(n, n, 3, false)), 0u);
    ASSERT_EQ(bake(queue, m, heights, dx, record(n, n, 3, true)), 0u);
    ASSERT_EQ(bake(queue, m, heights, gl01, record(n, n, 3, false, true)), 0u);
    ASSERT_EQ(bake(queue, m, heights, dx01, record(n, n, 3, true, true)), 0u);
    halden::test::expect_same_bits(dx.r, gl.r);
    halden::test::expect_same_bits(dx.b, gl.b);
    std::vector<float> negated = gl.g;
    for (float& v : negated) v = -v;
    halden::test::expect_same_bits(dx.g, negated);
    int tilted = 0;
    for (int i = 0; i < n * n; ++i) {
        tilted += std::fabs(gl.g[i]) > 0.05f;
        EXPECT_NEAR(gl.r[i] * gl.r[i] + gl.g[i] * gl.g[i] + gl.b[i] * gl.b[i], 1.0f, 1e-5f) << i;
        EXPECT_EQ(gl01.r[i], 0.5f * gl.r[i] + 0.5f) << i;
        EXPECT_NEAR(dx01.g[i], 1.0f - gl01.g[i], 1e-7f) << i;
    }
    EXPECT_GT(tilted, n * n / 4);
}

TEST_P(TangentExport, MarginFillsExactlyThatManyRings) {
    // A tilted plane: every baked and every filled cell leans away from
    // (0, 0, 1), which only the cells beyond the margin keep.
    const int n = 32;
    std::vector<float> heights(n * n);
    for (int i = 0; i < n * n; ++i) heights[i] = 0.3f * float(i % n) + 0.2f * float(i / n);
    const mesh_data m{{10, 12, 0, 10, 18, 0, 20, 12, 0, 20, 18, 0, 2, 2, 0, 2, 2.9f, 0, 2.9f, 2, 0},
                      {0, 1, 2, 2, 1, 3, 4, 5, 6}};
    auto filled = [&](int margin) {
        planes out(n * n);
        EXPECT_EQ(bake(queue, m, heights, out, record(n, n, margin)), 0u);
        std::vector<bool> f(n * n);
        for (int i = 0; i < n * n; ++i) f[i] = !(out.r[i] == 0.0f && out.g[i] == 0.0f && out.b[i] == 1.0f);
        return f;
    };
    const std::vector<bool> footprint = filled(0);
    // The square's cell centres lie inside it; the small triangle covers none.
    for (int i = 0; i < n * n; ++i) {
        const int x = i % n, y = i / n;
        ASSERT_EQ(footprint[i], x >= 10 && x < 20 && y >= 12 && y < 18) << x << ", " << y;
    }
    for (int margin : {1, 2, 5}) {
        SCOPED_TRACE(margin);
        const std::vector<bool> f = filled(margin);
        for (int i = 0; i < n * n; ++i) {
            const int x = i % n, y = i / n;
            const int dx = x < 10 ? 10 - x : (x > 19 ? x - 19 : 0), dy = y < 12 ? 12 - y : (y > 17 ? y - 17 : 0);
            EXPECT_EQ(f[i], std::max(dx, dy) <= margin) << x << ", " << y;
        }
    }
}

TEST_P(TangentExport, BadInputLeavesThePlanesAlone) {
    const int n = 8;
    const mesh_data m = lattice(3, 3, 0.0f, 4.0f, [](float x, float) { return x; });
    const halden_mesh mesh = m.record(), no_triangles{m.vertices.data(), 9, 0, nullptr, 2, 0};
    std::vector<float> heights(n * n, 1.0f);
    planes out(n * n);
    const halden_tangent_parameters good = record(n, n);
    const halden_callbacks* cb = &halden::test::capturing_callbacks();
    halden::test::messages().clear();
    auto call = [&](const halden_mesh* me, const float* h, float* r, const halden_tangent_parameters* p) {
        return MeshRasterizer_ComputeTangentSpaceNormals(queue, me, h, r, out.g.data(), out.b.data(), p, cb);
    };
    EXPECT_EQ(call(nullptr, heights.data(), out.r.data(), &good), 3u);
    EXPECT_EQ(call(&no_triangles, heights.data(), out.r.data(), &good), 3u);
    EXPECT_EQ(call(&mesh, nullptr, out.r.data(), &good), 3u);
    EXPECT_EQ(call(&mesh, heights.data(), nullptr, &good), 3u);
    EXPECT_EQ(call(&mesh, heights.data(), out.r.data(), nullptr), 3u);
    EXPECT_EQ(MeshRasterizer_ComputeTangentSpaceNormals(nullptr, &mesh, heights.data(), out.r.data(), out.g.data(),
                                                        out.b.data(), &good, cb),
              3u);
    struct bad_case {
        const char* field;
        halden_tangent_parameters p;
    };
    std::vector<bad_case> bad(8, bad_case{"", good});
    bad[0].field = "margin", bad[0].p.margin = -1;
    bad[1].field = "margin", bad[1].p.margin = 65;
    bad[2].field = "encoding", bad[2].p.encoding = 2;
    bad[3].field = "flip_green", bad[3].p.flip_green = 7;
    bad[4].field = "terrain_size", bad[4].p.terrain_size = std::nanf("");
    bad[5].field = "height_scale", bad[5].p.height_scale = 0.0f;
    bad[6].field = "supersample", bad[6].p.transform.supersample = 1;
    bad[7].field = "width", bad[7].p.transform.width = 0;
    for (const bad_case& c : bad) {
        halden::test::messages().clear();
        EXPECT_EQ(call(&mesh, heights.data(), out.r.data(), &c.p), 3u) << c.field;
        ASSERT_EQ(halden::test::messages().error.size(), 1u) << c.field;
        EXPECT_NE(halden::test::messages().error[0].find(c.field), std::string::npos)
            << halden::test::messages().error[0];
    }
    halden::test::messages().clear();
    heights[19] = std::nanf("");
    EXPECT_EQ(call(&mesh, heights.data(), out.r.data(), &good), 3u);
    ASSERT_EQ(halden::test::messages().error.size(), 1u);
    EXPECT_NE(halden::test::messages().error[0].find("heights must be finite (cell 19"), std::string::npos);
    for (const std::vector<float>* v : {&out.r, &out.g, &out.b}) EXPECT_EQ(*v, std::vector<float>(n * n, 7.0f));
    // An empty mesh covers nothing: the flat normal everywhere, in 0..1 here.
    const halden_mesh empty{nullptr, 0, 0, nullptr, 0, 0};
    heights[19] = 1.0f;
    const halden_tangent_parameters unit = record(n, n, 2, false, true);
    EXPECT_EQ(call(&empty, heights.data(), out.r.data(), &unit), 0u);
    EXPECT_TRUE(out.r == std::vector<float>(n * n, 0.5f) && out.g == out.r && out.b == std::vector<float>(n * n, 1.0f));
}

HALDEN_INSTANTIATE_ON_DEVICES(TangentExport);

class TangentKernels : public halden::test::BackendTest {};

// The frame written independently: world coordinates in double, each face's
// dP/du and dP/dv from the inverse of its texture-step matrix, weighted by
// texture area, the tangent made orthogonal to the area-weighted normal.
TEST_P(TangentKernels, VertexFramesMatchAnIndependentComputation) {
    const int w = 40, h = 30;
    const float terrain_size = 200.0f, height_scale = 2.5f;
    std::mt19937 rng(4);
    std::uniform_real_distribution<float> jitter(-1.5f, 1.5f), z(0.0f, 30.0f);
    mesh_data m = lattice(5, 4, 2.0f, 9.0f, [&](float, float) { return z(rng); });
    for (std::size_t i = 0; i < m.vertices.size(); i += 3)
        m.vertices[i] += jitter(rng), m.vertices[i + 1] += jitter(rng);
    // A triangle past the vertices, and a line, the only one a new vertex has.
    m.vertices.insert(m.vertices.end(), {1.0f, 1.0f, 1.0f});
    m.triangles.insert(m.triangles.end(), {0u, 1u, 99u, 20u, 20u, 3u});
    halden_tangent_parameters p = record(w, h);
    p.terrain_size = terrain_size, p.height_scale = height_scale;
    const halden_mesh mesh = m.record();
    const std::vector<float> heights(w * h, 0.0f);
    mesh_rasterizer::TangentNormals baker(*q, mesh, heights.data(), p);
    baker.rasterize();
    baker.compute_vertex_frames();
    const std::vector<vertex_frame> got = baker.frames();
    ASSERT_EQ(got.size(), mesh.vertex_count);

    const double cell = double(terrain_size) / w;
    struct d3 {
        double x, y, z;
    };
    auto sub = [](d3 a, d3 b) { return d3{a.x - b.x, a.y - b.y, a.z - b.z}; };
    auto cross = [](d3 a, d3 b) { return d3{a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; };
    auto dot = [](d3 a, d3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; };
    auto world = [&](std::uint32_t v) {
        return d3{m.vertices[3 * v] * cell, m.vertices[3 * v + 1] * cell, m.vertices[3 * v + 2] * double(height_scale)};
    };
    auto uv = [&](std::uint32_t v) {
        return std::pair<double, double>{m.vertices[3 * v] / w, 1.0 - m.vertices[3 * v + 1] / h};
    };
    for (std::uint32_t v = 0; v < mesh.vertex_count; ++v) {
        d3 n{0, 0, 0}, t{0, 0, 0}, b{0, 0, 0};
        for (std::size_t f = 0; f < m.triangles.size() / 3; ++f) {
            const std::uint32_t* c = &m.triangles[3 * f];
            if (c[0] >= mesh.vertex_count || c[1] >= mesh.vertex_count || c[2] >= mesh.vertex_count) continue;
            if (c[0] != v && c[1] != v && c[2] != v) continue;
            const d3 e1 = sub(world(c[1]), world(c[0])), e2 = sub(world(c[2]), world(c[0]));
            const d3 fn = cross(e2, e1);
            n = {n.x + fn.x, n.y + fn.y, n.z + fn.z};
            const auto [u0, v0] = uv(c[0]);
            const auto [u1, v1] = uv(c[1]);
            const auto [u2, v2] = uv(c[2]);
            const double a = u1 - u0, bb = u2 - u0, cc = v1 - v0, d = v2 - v0, det = a * d - bb * cc;
            if (det == 0.0) continue;
            // [e1 e2] = [dP/du dP/dv] [[a, bb], [cc, d]]
            const double weight = std::fabs(det);
            for (int k = 0; k < 3; ++k) {
                const double p1 = k == 0 ? e1.x : (k == 1 ? e1.y : e1.z), p2 = k == 0 ? e2.x : (k == 1 ? e2.y : e2.z);
                const double pu = (p1 * d - p2 * cc) / det, pv = (p2 * a - p1 * bb) / det;
                (k == 0 ? t.x : (k == 1 ? t.y : t.z)) += weight * pu;
                (k == 0 ? b.x : (k == 1 ? b.y : b.z)) += weight * pv;
            }
        }
        SCOPED_TRACE(v);
        const double nl = std::sqrt(dot(n, n));
        if (nl == 0.0) {
            EXPECT_TRUE(got[v].nx == 0.0f && got[v].ny == 0.0f && got[v].nz == 1.0f && got[v].tx == 1.0f &&
                        got[v].sign == 1.0f);
            continue;
        }
        n = {n.x / nl, n.y / nl, n.z / nl};
        const double tn = dot(t, n);
        t = {t.x - tn * n.x, t.y - tn * n.y, t.z - tn * n.z};
        const double tl = std::sqrt(dot(t, t));
        t = {t.x / tl, t.y / tl, t.z / tl};
        EXPECT_NEAR(got[v].nx, n.x, 2e-5);
        EXPECT_NEAR(got[v].ny, n.y, 2e-5);
        EXPECT_NEAR(got[v].nz, n.z, 2e-5);
        EXPECT_NEAR(got[v].tx, t.x, 2e-5);
        EXPECT_NEAR(got[v].ty, t.y, 2e-5);
        EXPECT_NEAR(got[v].tz, t.z, 2e-5);
        // An upward surface seen from above: v runs against the rows.
        EXPECT_EQ(got[v].sign, dot(cross(n, t), b) < 0.0 ? -1.0f : 1.0f);
        EXPECT_EQ(got[v].sign, -1.0f);
        EXPECT_GT(n.z, 0.3);
    }
}

HALDEN_INSTANTIATE_ON_BACKENDS(TangentKernels);

TEST(TangentDevices, CpuAndCudaAgree) {
    const std::string cuda = halden::test::first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int n = 157;
    std::vector<float> heights = halden::test::random_cells(n, n, 12);
    for (float& v : heights) v *= 0.1f;
    const mesh_data m = lattice(12, 12, 2.0f, 13.0f, [](float x, float y) { return 0.05f * x * y / 16.0f; });
    for (bool unit : {false, true}) {
        planes got[2] = {planes(n * n), planes(n * n)};
        for (int d = 0; d < 2; ++d) {
            halden_queue* q = CreateSyclQueue(d == 0 ? cuda.c_str() : "cpu", nullptr);
            EXPECT_EQ(bake(q, m, heights, got[d], record(n, n, 3, unit, unit)), 0u);
            DestroySyclQueue(q);
        }
        halden::test::expect_same_bits(got[0].r, got[1].r);
        halden::test::expect_same_bits(got[0].g, got[1].g);
        halden::test::expect_same_bits(got[0].b, got[1].b);
    }
}

}  // namespace
