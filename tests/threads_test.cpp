// SPDX-License-Identifier: Apache-2.0
// Threads: every operation gives the same bits on one worker thread and on
// two; and of two application threads, each with its own queue, one cancels
// every call (or fails it with an injected device fault) while the other's
// statuses, results and callbacks do not notice, bit for bit.
#include <gtest/gtest.h>

#include <omp.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "api/frame.hpp"
#include "compute/native/launch.hpp"
#include "support.hpp"

using halden::test::expect_same_bits;

namespace {

// What one thread's calls reported. The library calls back on the calling
// thread, so each thread keeps its own.
struct heard {
    std::vector<float> progress;
    std::vector<std::string> errors, infos;
    std::uint64_t reserved = 0, released = 0;
};
thread_local heard t_heard;
thread_local bool t_cancel = false;

halden_callbacks thread_table() {
    halden_callbacks t{};
    t.progress = [](float p) -> std::int32_t { return t_heard.progress.push_back(p), t_cancel ? 1 : 0; };
    t.info = [](const char* s) { t_heard.infos.emplace_back(s); };
    t.error = [](const char* s) { t_heard.errors.emplace_back(s); };
    t.reserve = [](std::uint64_t n) { t_heard.reserved += n; };
    t.release = [](std::uint64_t n) { t_heard.released += n; };
    t.cancel = []() -> std::int32_t { return t_cancel ? 1 : 0; };
    return t;
}

constexpr int n = 48;

std::vector<float> hills() {
    std::vector<float> h(n * n);
    for (int i = 0; i < n * n; ++i) h[i] = float((i % n) * (i / n) % 17) + 0.25f * float(i % 7);
    return h;
}

struct results {
    std::vector<float> flow = std::vector<float>(n * n), light = flow, mesh = flow, ids = flow;
    std::uint32_t status[3] = {9, 9, 9};
};

// Flow, shading and a mesh of the terrain on one queue.
results run_all(halden_queue* q, const halden_callbacks& cb) {
    const std::vector<float> h = hills();
    results r;
    const halden_flow_parameters f{n, n, 0.5f, 1.0f, 3};
    r.status[0] = FlowSimulation(q, HALDEN_FLOW_NO_MASK, h.data(), r.flow.data(), &f, &cb);
    halden_lighting_parameters l{};
    l.width = l.height = n, l.terrain_size = float(n), l.height_scale = 1.0f;
    l.sun_direction[0] = l.sun_direction[1] = l.sun_direction[2] = 0.57735027f;
    l.shadow_samples = 1, l.sun_size = 0.53f, l.ao_directions = l.hybrid_ao_directions = 8;
    l.light_scale = l.sun_strength = l.exposure = 1.0f, l.sky_strength = 0.4f;
    l.sun_enabled = l.sky_enabled = l.shadows_enabled = l.ao_enabled = 1;
    r.status[1] = Shade(q, h.data(), nullptr, nullptr, nullptr, r.light.data(), r.light.data(), r.light.data(), nullptr,
                        nullptr, nullptr, &l, &cb);
    std::vector<float> vertices;
    std::vector<std::uint32_t> triangles;
    for (std::uint32_t i = 0; i < n * n; ++i) vertices.insert(vertices.end(), {i % n + 0.5f, i / n + 0.5f, h[i]});
    for (std::uint32_t a = 0; a + n + 1 < n * n; ++a)
        if ((a + 1) % n != 0) triangles.insert(triangles.end(), {a, a + n, a + 1, a + 1, a + n, a + n + 1});
    const halden_mesh mesh{vertices.data(), n * n, 0, triangles.data(), std::uint32_t(triangles.size() / 3), 0};
    halden_mesh_rasterizer_parameters m{};
    m.width = m.height = n, m.scale = m.depth_divisor = 1.0f;
    r.status[2] = MeshRasterizer_RenderMesh(q, &mesh, r.mesh.data(), r.ids.data(), &m, &cb);
    return r;
}

TEST(Threads, OneQueueCancellingOrFailingNeverReachesAnother) {
    const halden_callbacks cb = thread_table();
    halden_queue* calm = CreateSyclQueue("cpu", nullptr);
    halden_queue* restless = CreateSyclQueue("cpu", nullptr);
    ASSERT_TRUE(calm && restless);
    const results want = run_all(calm, cb);
    const heard want_heard = t_heard;
    ASSERT_EQ(want.status[0] + want.status[1] + want.status[2], 0u);
    ASSERT_FALSE(want_heard.progress.empty());

    constexpr int rounds = 25;
    std::vector<std::string> failures[2];  // one list per thread, checked here
    std::thread a([&] {
        t_cancel = true;
        for (int round = 0; round < rounds; ++round) {
            const results r = run_all(restless, cb);
            for (std::uint32_t s : r.status)
                if (s != 3u) failures[0].push_back("a cancelled call returned " + std::to_string(s));
            // A device fault on this queue only.
            halden::api::frame f("InjectedFault", nullptr, &cb, 1);
            static halden_callbacks module_copy;
            f.module_callbacks = &module_copy;
            if (halden::api::run(*restless, f, [&] { return restless->queue.report_async_error("fault"), 0u; }) != 3u)
                failures[0].push_back("an injected fault was not reported");
        }
    });
    std::thread b([&] {
        for (int round = 0; round < rounds; ++round) {
            t_heard = heard{};
            const results r = run_all(calm, cb);
            if (r.status[0] + r.status[1] + r.status[2] != 0u) failures[1].push_back("a calm call failed");
            if (r.flow != want.flow || r.light != want.light || r.mesh != want.mesh || r.ids != want.ids)
                failures[1].push_back("a calm call's results changed");
            if (t_heard.progress != want_heard.progress || !t_heard.errors.empty() ||
                t_heard.reserved != want_heard.reserved || t_heard.released != want_heard.released)
                failures[1].push_back("a calm call heard another thread's callbacks");
        }
    });
    a.join();
    b.join();
    for (const std::vector<std::string>& f : failures)
        EXPECT_TRUE(f.empty()) << f.size() << " failures, the first: " << f.front();
    DestroySyclQueue(calm);
    DestroySyclQueue(restless);
}

// Every operation on one queue, its results end to end.
results run_everything(halden_queue* q, const halden_callbacks& cb) {
    results r = run_all(q, cb);
    std::vector<float> h = hills(), median = h, blurred = h, shaped = h, weathered = h, eroded = h;
    const halden_median_filter_parameters m{n, 3, 2, 0};
    MedianFilter(q, median.data(), &m);
    EXPECT_EQ(Blur(q, blurred.data(), n, 2.5f, &cb), 0u);
    const halden_thermal_shaper_parameters t{n, n, 1.0f, float(n), 0.125f, 1.0f, -0.5f, 0};
    EXPECT_EQ(ThermalShaper_Process(q, shaped.data(), nullptr, &t, &cb), 0u);
    const halden_thermal_parameters th{n, n, 1.0f, 1.0f, 30.0f, 0.2f, 0.5f, 16, 0, 1.0f, 1.0f, 1};
    EXPECT_EQ(ThermalSimulation(q, weathered.data(), nullptr, nullptr, nullptr, &th, &cb), 0u);
    const halden_erosion_parameters e{n,    n,    1.0f,  1.0f, 0.5f, 4, 32.0f, 0.3f, 4.0f, 0.01f,
                                      0.3f, 0.3f, 0.02f, 4.0f, 2.0f, 1, 0,     1.0f, 7};
    EXPECT_EQ(ParallelErosionSimulation(q, eroded.data(), nullptr, nullptr, nullptr, nullptr, nullptr, &e, &cb), 0u);
    std::vector<float> sand(h.size());
    for (std::size_t i = 0; i < sand.size(); ++i) sand[i] = float(i % 13) * 0.25f;
    const halden_dune_parameters du{n,    1.0f, 1.0f, 30.0f, 1.5f,  100.0f, 1.0f, 0.3f, 8, 0.2f,
                                    3.0f, 0.2f, 0.5f, 5.0f,  15.0f, 33.0f,  68.0f, 1,   1, 5};
    EXPECT_EQ(DuneSimulation(q, h.data(), sand.data(), nullptr, &du, &cb), 0u);
    r.flow.insert(r.flow.end(), sand.begin(), sand.end());
    for (const std::vector<float>* v : {&median, &blurred, &shaped, &weathered, &eroded, &r.ids})
        r.flow.insert(r.flow.end(), v->begin(), v->end());
    std::vector<float> cracks(h.size()), smooth(h.size());
    halden_cellular3d_parameters c{n,    n,    5.0f, 0.0f, 0.25f, 3, 1.0f, HALDEN_CELLULAR3D_EUCLIDEAN, 3.0f,
                                   HALDEN_CELLULAR3D_F2_MINUS_F1, 0.05f, 3, 2.0f, 0.5f, 0, 1.0f, 0.0f, 0};
    EXPECT_EQ(Cellular3D_Render(q, cracks.data(), h.data(), &c, &cb), 0u);
    c.metric = HALDEN_CELLULAR3D_MINKOWSKI;
    c.result = HALDEN_CELLULAR3D_SMOOTH_F1;
    EXPECT_EQ(Cellular3D_Render(q, smooth.data(), h.data(), &c, &cb), 0u);
    r.flow.insert(r.flow.end(), cracks.begin(), cracks.end());
    r.flow.insert(r.flow.end(), smooth.begin(), smooth.end());
    // Debris: synchronous sharp rocks, then asynchronous rounded ones.
    for (int mode : {HALDEN_DEBRIS_SYNCHRONOUS, HALDEN_DEBRIS_ASYNCHRONOUS}) {
        std::vector<float> rocky = h, laid(h.size()), rock_ids(h.size());
        const halden_debris_parameters d{n,    n,    1.0f, 1.0f, 3,    0.5f, 0.4f, 2.0f, 2.5f, 40.0f, 32.0f,
                                         0.3f, 4000, mode, 4,    mode, 7,    0.3f, 0.4f, 8.0f, 0.05f};
        DebrisSimulation(q, rocky.data(), nullptr, laid.data(), rock_ids.data(), nullptr, &d);
        for (const std::vector<float>* v : {&rocky, &laid, &rock_ids}) r.flow.insert(r.flow.end(), v->begin(), v->end());
    }
    // Stamps: Poisson-disk copies of two stamps, smooth max, bicubic.
    {
        std::vector<float> atlas(7 * 5 + 12 * 12), stamped = h, stamp_ids(h.size());
        for (std::size_t i = 0; i < atlas.size(); ++i) atlas[i] = float((i * 7) % 11) * 0.5f;
        const halden_stamp_entry entries[2] = {{7, 5, 0}, {12, 12, 35}};
        const halden_stamps stamps{atlas.data(), atlas.size(), entries, 2, 0};
        halden_stamp_parameters s{n,    n,    5,    60,   4.0f, 0.3f, 2.5f, 0.0f, 360.0f, -1.0f, 2.0f,
                                  1,    5,    0.8f, 1.5f, 0.3f, 1,    -1e30f, 1e30f, -1e30f, 1e30f, 0};
        s.height_mode = HALDEN_STAMP_RELATIVE, s.blend = HALDEN_STAMP_SMOOTH_MAX, s.filter = HALDEN_STAMP_BICUBIC;
        std::uint32_t placed = 0;
        EXPECT_EQ(StampInstancer_Populate(q, stamped.data(), &stamps, nullptr, nullptr, &placed, stamp_ids.data(), &s,
                                          &cb),
                  0u);
        for (const std::vector<float>* v : {&stamped, &stamp_ids}) r.flow.insert(r.flow.end(), v->begin(), v->end());
    }
    // Colour carried down the flow, with a mask.
    {
        std::vector<float> red(h.size()), green(h.size()), blue(h.size()), mask(h.size());
        for (std::size_t i = 0; i < h.size(); ++i) {
            red[i] = float(i % 5) * 0.25f, green[i] = h[i] * 0.05f, blue[i] = float(i % 3);
            mask[i] = float(i % 4) / 3.0f;
        }
        const halden_color_transport_parameters ct{n, n, 5, 1.5f, 0.1f, 1.0f, 0.9f, 2.0f};
        EXPECT_EQ(ColorTransportSimulation(q, h.data(), red.data(), green.data(), blue.data(), mask.data(), &ct, &cb),
                  0u);
        for (const std::vector<float>* v : {&red, &green, &blue}) r.flow.insert(r.flow.end(), v->begin(), v->end());
    }
    // Sunlight over three weeks in hourly steps, with the traced sky view.
    {
        std::vector<float> sun(h.size()), hours(h.size()), view(h.size());
        const halden_sunlight_parameters sl{n,    n,    float(n), 0.5f, 40.0f, 150, 170, 7, 60.0f, 0, 3.0f, 0.7f,
                                            300.0f, 0.2f, 24, 1, 0, {0, 0}};
        EXPECT_EQ(SunLightIntegral(q, h.data(), sun.data(), hours.data(), view.data(), &sl, &cb), 0u);
        for (const std::vector<float>* v : {&sun, &hours, &view}) r.light.insert(r.light.end(), v->begin(), v->end());
    }
    // The terrain as a mesh of 3-cell quads, displaced by a texture made of
    // itself, cut to 0.7-cell pieces, with a fractional sharpness (pow_p).
    {
        std::vector<float> verts;
        std::vector<std::uint32_t> tris;
        const std::uint32_t k = n / 3;
        for (std::uint32_t i = 0; i < k * k; ++i)
            verts.insert(verts.end(), {float(i % k) * 3.0f, float(i / k) * 3.0f, h[(i / k) * 3 * n + (i % k) * 3]});
        for (std::uint32_t a = 0; a + k + 1 < k * k; ++a)
            if ((a + 1) % k != 0) tris.insert(tris.end(), {a, a + k, a + 1, a + 1, a + k, a + k + 1});
        const halden_mesh mesh{verts.data(), std::uint32_t(verts.size() / 3), 0, tris.data(),
                               std::uint32_t(tris.size() / 3), 0};
        const halden_texture tex{h.data(), n, n};
        halden_triplanar_parameters tp{};
        tp.transform.width = tp.transform.height = n, tp.transform.scale = tp.transform.depth_divisor = 1.0f;
        tp.texture_size = 20.0f, tp.amplitude = 0.05f, tp.midlevel = 5.0f, tp.sharpness = 2.5f;
        tp.edge_length = 0.7f, tp.max_subdivision = 64;
        std::vector<float> displaced(h.size()), displaced_ids(h.size());
        EXPECT_EQ(MeshRasterizer_RenderMeshWithTriplanarDisplacement(q, &mesh, displaced.data(), displaced_ids.data(),
                                                                    &tex, &tp, &cb),
                  0u);
        for (const std::vector<float>* v : {&displaced, &displaced_ids})
            r.mesh.insert(r.mesh.end(), v->begin(), v->end());
    }
    // Points sampled from the terrain (more chunks than one radix-sort work
    // item takes), IDW within a radius, pull-push into the gaps.
    {
        std::vector<float> xyz;
        for (std::uint32_t i = 0; i < 70000; ++i) {
            const float x = float((i * 2654435761u) % 4093u) * (float(n) / 4093.0f);
            const float y = float((i * 40503u + 7u) % 4091u) * (float(n) / 4091.0f);
            if (int(x) % 9 == 4) continue;
            xyz.insert(xyz.end(), {x, y, h[std::size_t(int(y)) * n + std::size_t(int(x))] + float(i % 5) * 0.1f});
        }
        const halden_points pts{xyz.data(), std::uint32_t(xyz.size() / 3), 0};
        halden_point_parameters pp{};
        pp.transform.width = pp.transform.height = n, pp.transform.scale = pp.transform.depth_divisor = 1.0f;
        pp.mode = HALDEN_POINTS_IDW, pp.fill = HALDEN_POINTS_FILL_PULL_PUSH, pp.radius = 1.5f, pp.power = 3.0f;
        std::vector<float> gridded(h.size()), counted(h.size());
        EXPECT_EQ(MeshRasterizer_RenderPointCloud(q, &pts, gridded.data(), counted.data(), &pp, &cb), 0u);
        for (const std::vector<float>* v : {&gridded, &counted}) r.mesh.insert(r.mesh.end(), v->begin(), v->end());
    }
    // Tangent-space normals of the terrain against a mesh of 5-cell quads
    // over part of it, with a margin.
    {
        std::vector<float> verts;
        std::vector<std::uint32_t> tris;
        const std::uint32_t k = 8;
        for (std::uint32_t i = 0; i < k * k; ++i) {
            const std::uint32_t x = 3 + 5 * (i % k), y = 2 + 5 * (i / k);
            verts.insert(verts.end(), {float(x) + 0.5f, float(y) + 0.5f, h[y * n + x]});
        }
        for (std::uint32_t a = 0; a + k + 1 < k * k; ++a)
            if ((a + 1) % k != 0) tris.insert(tris.end(), {a, a + k, a + 1, a + 1, a + k, a + k + 1});
        const halden_mesh mesh{verts.data(), k * k, 0, tris.data(), std::uint32_t(tris.size() / 3), 0};
        halden_tangent_parameters tn{};
        tn.transform.width = tn.transform.height = n, tn.transform.scale = tn.transform.depth_divisor = 1.0f;
        tn.terrain_size = float(n), tn.height_scale = 0.5f, tn.margin = 3, tn.encoding = HALDEN_TANGENT_UNSIGNED;
        std::vector<float> red(h.size()), green(h.size()), blue(h.size());
        EXPECT_EQ(MeshRasterizer_ComputeTangentSpaceNormals(q, &mesh, h.data(), red.data(), green.data(), blue.data(),
                                                            &tn, &cb),
                  0u);
        for (const std::vector<float>* v : {&red, &green, &blue}) r.mesh.insert(r.mesh.end(), v->begin(), v->end());
    }
    return r;
}

void expect_same_results(const results& a, const results& b) {
    EXPECT_EQ(a.status[0] + a.status[1] + a.status[2], 0u);
    expect_same_bits(b.flow, a.flow);
    expect_same_bits(b.light, a.light);
    expect_same_bits(b.mesh, a.mesh);
}

TEST(Threads, OneWorkerThreadAndTwoGiveTheSameBits) {
    const halden_callbacks cb = thread_table();
    halden_queue* q = CreateSyclQueue("cpu", nullptr);
    ASSERT_NE(q, nullptr);
    const int before = omp_get_max_threads();
    omp_set_num_threads(1);
    const results one = run_everything(q, cb);
    omp_set_num_threads(2);
    const results two = run_everything(q, cb);
    omp_set_num_threads(before);
    expect_same_results(one, two);
    DestroySyclQueue(q);
}

// The host loops run compiled for the baseline instruction set or for a
// wider one; the wider one must not change a bit.
TEST(Threads, BaselineAndWideInstructionSetsGiveTheSameBits) {
    namespace native = halden::compute::native;
    const native::isa before = native::active_isa();
    if (native::select_isa(native::isa::x86_64_v3) != native::isa::x86_64_v3) {
        native::select_isa(before);
        GTEST_SKIP() << "the processor lacks x86-64-v3";
    }
    const halden_callbacks cb = thread_table();
    halden_queue* q = CreateSyclQueue("cpu", nullptr);
    ASSERT_NE(q, nullptr);
    const results wide = run_everything(q, cb);
    native::select_isa(native::isa::baseline);
    const results baseline = run_everything(q, cb);
    native::select_isa(before);
    expect_same_results(baseline, wide);
    DestroySyclQueue(q);
}

}  // namespace
