// SPDX-License-Identifier: Apache-2.0
// Shading: sun and sky samples, normals of a plane, a wall's shadow, flat
// ground fully lit, the switches, bad input, cancel and device agreement.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "modules/lighting/lighting.hpp"
#include "support.hpp"

namespace {

lighting::Parameters record(int w, int h) {
    lighting::Parameters p{};
    p.width = w, p.height = h, p.terrain_size = float(w), p.height_scale = 1.0f;
    p.sun_direction[0] = 0.6f, p.sun_direction[1] = 0.3f, p.sun_direction[2] = std::sqrt(1.0f - 0.36f - 0.09f);
    p.shadow_samples = 1, p.sun_size = 0.53f, p.ao_directions = p.hybrid_ao_directions = 32;
    p.light_scale = p.sun_strength = 1.0f, p.sky_strength = 0.4f, p.exposure = 0.8f;
    p.sun_color[0] = 1.0f, p.sun_color[1] = 0.95f, p.sun_color[2] = 0.85f;
    p.sky_color[0] = 0.6f, p.sky_color[1] = 0.7f, p.sky_color[2] = 1.0f;
    p.sun_enabled = p.sky_enabled = p.shadows_enabled = p.ao_enabled = 1;
    return p;
}

TEST(LightingSamples, SunAndSkyDirections) {
    lighting::Parameters p = record(8, 8);
    const lighting::vec3 l{p.sun_direction[0], p.sun_direction[1], p.sun_direction[2]};
    // The chord to the sun direction: the angle, for angles this small.
    const auto degrees = [&](lighting::vec3 d) { return std::hypot(d.x - l.x, d.y - l.y, d.z - l.z) * 57.29578; };
    // Rings of 6, 12 and 18 round the sun direction, the outer one on the rim of the 0.53 degree disc.
    p.shadow_samples = 3;
    lighting::samples::set s = lighting::samples::sun(p);
    ASSERT_EQ(s.directions.size(), 37u);
    EXPECT_TRUE(s.directions[0].x == l.x && s.jitters[0].x == 0.5f);
    for (const lighting::vec3& d : s.directions) EXPECT_LE(degrees(d), 0.2651);
    EXPECT_NEAR(degrees(s.directions.back()), 0.265, 0.001);
    // Other negative counts than the -4 and -8 patterns repeat the centre sample.
    p.shadow_samples = -5;
    s = lighting::samples::sun(p);
    EXPECT_TRUE(s.directions.size() == 5u && s.directions[4].z == l.z && s.jitters[4].y == 0.5f);

    // Sky: upper unit vectors, a longer list extending a shorter one, spread evenly (mean z of a hemisphere 1/2).
    const std::vector<lighting::vec3> many = lighting::samples::sky(1249), few = lighting::samples::sky(40);
    ASSERT_TRUE(many.size() == 1249u && few.size() == 40u);
    double mean_z = 0;
    for (std::size_t i = 0; i < many.size(); ++i) {
        const lighting::vec3& d = many[i];
        EXPECT_TRUE(d.z > 0.0f && std::fabs(d.x * d.x + d.y * d.y + d.z * d.z - 1.0f) < 1e-6f) << i;
        EXPECT_TRUE(i >= few.size() || (few[i].x == d.x && few[i].y == d.y)) << i;
        mean_z += d.z / 1249.0;
    }
    EXPECT_NEAR(mean_z, 0.5, 0.02);
}

class LightingKernels : public halden::test::BackendTest {};

TEST_P(LightingKernels, NormalsOfAPlane) {
    const int w = 6, h = 5;
    std::vector<float> plane(w * h);
    for (int i = 0; i < w * h; ++i) plane[i] = 0.5f * (i % w) - 0.25f * (i / w);
    halden::core::grid heights = halden::test::upload(*q, plane, w, h);
    halden::compute::usm_ptr<lighting::vec4, 2> normals(*q, {std::size_t(h), std::size_t(w)});
    halden::compute::usm_ptr<std::int32_t, 2> photons(*q, {std::size_t(h), std::size_t(w)});
    lighting::compute_normals_and_init_photonmap(*q, heights.get(), normals.get(), photons.get(), w, h, 12.0f, 2.0f);
    std::vector<lighting::vec4> n(w * h);
    std::vector<std::int32_t> c(w * h, 7);
    normals.copy_to_host(n.data());
    photons.copy_to_host(c.data());
    q->wait();
    // Inside the border: (-height_scale slope_x, -height_scale slope_y, cell size 12 / 6) normalised; rows run down.
    const double len = std::sqrt(1.0 + 0.25 + 4.0);
    for (int y = 1; y < h - 1; ++y)
        for (int x = 1; x < w - 1; ++x) {
            const lighting::vec4& v = n[y * w + x];
            EXPECT_TRUE(std::fabs(v.x + 1 / len) < 1e-6 && std::fabs(v.y - 0.5 / len) < 1e-6 &&
                        std::fabs(v.z - 2 / len) < 1e-6) << y << ", " << x;
        }
    EXPECT_EQ(c, std::vector<std::int32_t>(w * h, 0));
}

HALDEN_INSTANTIATE_ON_BACKENDS(LightingKernels);

class ShadeExport : public halden::test::DeviceTest {
protected:
    struct outputs {
        std::vector<float> diffuse, shadow, ao, r, g, b;
        explicit outputs(int n) { for (auto* v : {&diffuse, &shadow, &ao, &r, &g, &b}) v->assign(n, -7.0f); }
    };
    std::uint32_t shade(const std::vector<float>& heights, outputs& o, const lighting::Parameters& p,
                        const float* albedo_r = nullptr, const float* albedo_g = nullptr, const float* albedo_b = nullptr,
                        const halden_callbacks* cb = &halden::test::capturing_callbacks()) {
        return Shade(queue, heights.data(), o.diffuse.data(), o.shadow.data(), o.ao.data(), o.r.data(), o.g.data(),
                     o.b.data(), albedo_r, albedo_g, albedo_b, &p, cb);
    }
};

TEST_P(ShadeExport, AWallCastsAShadowOfItsHeightOverTheSunsSlope) {
    const int w = 64;
    std::vector<float> ground(w * w, 0.0f);
    for (int y = 0; y < w; ++y) ground[y * w + 10] = 8.0f;
    lighting::Parameters p = record(w, w);
    // From +x at 45 degrees: the ray drops one height unit per cell.
    p.sun_direction[0] = p.sun_direction[2] = 0.70710677f, p.sun_direction[1] = 0.0f;
    p.shadow_samples = 0, p.ao_enabled = 0;
    outputs o(w * w);
    ASSERT_EQ(shade(ground, o, p), 0u);
    for (int i = 0; i < w * w; ++i) ASSERT_EQ(o.shadow[i], i % w >= 2 && i % w <= 9 ? 0.0f : 1.0f) << i;
    EXPECT_EQ(o.ao, std::vector<float>(w * w, -7.0f));  // switched off, so left alone
    // A sun straight overhead casts no shadow, even with a wide disc.
    p.sun_direction[0] = 0.0f, p.sun_direction[2] = 1.0f, p.sun_size = 20.0f, p.shadow_samples = 2;
    ASSERT_EQ(shade(ground, o, p), 0u);
    EXPECT_EQ(o.shadow, std::vector<float>(w * w, 1.0f));
}

TEST_P(ShadeExport, FlatGroundIsFullyLit) {
    const int w = 48;
    const std::vector<float> flat(w * w, 3.0f);
    lighting::Parameters p = record(w, w);
    p.shadow_samples = 2;
    outputs o(w * w), hybrid(w * w);
    ASSERT_EQ(shade(flat, o, p), 0u);
    // Every sky ray escapes and adds 2^18 z, read back as count / 2^16 / directions.
    std::int64_t sum = 0;
    for (const lighting::vec3& d : lighting::samples::sky(32)) sum += std::int32_t(262144.0f * d.z);
    const float ao = float(sum) * 0x1p-16f / 32.0f;
    for (int i = 0; i < w * w; ++i)
        ASSERT_TRUE(o.shadow[i] == 1.0f && o.diffuse[i] == p.sun_direction[2] && o.ao[i] == ao) << i;
    // Colour: (sun colour x diffuse + sky colour x sky strength x ao) x exposure.
    EXPECT_EQ(o.r[0], (p.sun_direction[2] + 0.6f * 0.4f * ao) * 0.8f);
    // The hybrid sky, swept over a half-size grid, finds the same open sky.
    p.ao_mode = 1;
    ASSERT_EQ(shade(flat, hybrid, p), 0u);
    EXPECT_EQ(hybrid.ao, o.ao);
}

TEST_P(ShadeExport, SwitchesLeaveTheirOutputsAlone) {
    const int w = 32, n = w * w;
    const std::vector<float> terrain = halden::test::random_cells(w, w, 4), untouched(n, -7.0f), ao(n, 0.25f);
    // Sun off, the caller's ao: diffuse and shadow untouched, ao used as given, colour from the sky alone.
    lighting::Parameters p = record(w, w);
    p.sun_enabled = 0, p.ao_from_caller = 1, p.height_scale = 0.05f;
    outputs o(n);
    o.ao = ao;
    ASSERT_EQ(shade(terrain, o, p), 0u);
    EXPECT_TRUE(o.diffuse == untouched && o.shadow == untouched && o.ao == ao);
    EXPECT_EQ(o.r, std::vector<float>(n, 0.6f * 0.4f * 0.25f * 0.8f));
    // Sky off: no ambient light whatever ao_enabled says, ao untouched. Albedo replaces exposure only when all
    // three grids are given.
    p.sun_enabled = 1, p.sky_enabled = 0, p.ao_from_caller = 0;
    const std::vector<float> red(n, 0.5f), green(n, 0.25f), blue(n, 2.0f);
    outputs grey(n), coloured(n);
    ASSERT_EQ(shade(terrain, grey, p, red.data(), green.data(), nullptr), 0u);
    ASSERT_EQ(shade(terrain, coloured, p, red.data(), green.data(), blue.data()), 0u);
    EXPECT_EQ(grey.ao, untouched);
    for (int i = 0; i < n; ++i) {
        const float direct = grey.diffuse[i] * grey.shadow[i];
        ASSERT_TRUE(grey.r[i] == direct * 0.8f && coloured.r[i] == direct * 0.5f &&
                    coloured.b[i] == 0.85f * direct * 2.0f) << i;
    }
}

TEST_P(ShadeExport, BadInputAndCancelWriteNothing) {
    const std::vector<float> heights(40 * 30, 1.0f), untouched(40 * 30, -7.0f);
    outputs o(40 * 30);
    const auto red_only = [&](halden_queue* qu, const float* h, const lighting::Parameters* rec) {
        return Shade(qu, h, nullptr, nullptr, nullptr, o.r.data(), nullptr, nullptr, nullptr, nullptr, nullptr, rec,
                     nullptr);
    };
    // Shadows or traced sky visibility need a square grid.
    lighting::Parameters p = record(40, 30);
    EXPECT_EQ(shade(heights, o, p), 3u);
    p.shadows_enabled = 0;
    EXPECT_EQ(shade(heights, o, p), 3u);
    EXPECT_EQ(halden::test::messages().error.size(), 2u);
    lighting::Parameters bad[5] = {record(16, 16), record(16, 16), record(16, 16), record(16, 16), record(16, 16)};
    bad[0].terrain_size = std::nanf(""), bad[1].ao_directions = 0, bad[2].width = 0, bad[3].ao_from_caller = 1;
    bad[4].sun_strength = 3.4028235e38f, bad[4].light_scale = 2.0f;  // finite fields whose product overflows
    for (int i : {0, 1, 2, 4}) EXPECT_EQ(shade(heights, o, bad[i]), 3u) << i;
    EXPECT_EQ(red_only(queue, heights.data(), &bad[3]), 3u);  // the caller's ao without an ao grid
    EXPECT_EQ(red_only(queue, nullptr, &p), 3u);
    EXPECT_EQ(red_only(nullptr, heights.data(), &p), 3u);
    EXPECT_EQ(red_only(queue, heights.data(), nullptr), 3u);
    // A cancel before composing writes nothing.
    halden_callbacks cb = halden::test::capturing_callbacks();
    cb.cancel = [] { return std::int32_t(1); };
    EXPECT_EQ(shade(heights, o, record(16, 16), nullptr, nullptr, nullptr, &cb), 3u);
    EXPECT_TRUE(o.diffuse == untouched && o.ao == untouched && o.r == untouched);
    // Without shadows and traced sky a rectangle is fine, and outputs may be null.
    p.ao_enabled = 0;
    EXPECT_EQ(red_only(queue, heights.data(), &p), 0u);
    EXPECT_NE(o.r, untouched);
}

HALDEN_INSTANTIATE_ON_DEVICES(ShadeExport);

TEST(ShadeDevices, CpuAndCudaAgree) {
    const std::string cuda = halden::test::first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int w = 200, n = w * w;
    const std::vector<float> terrain = halden::test::random_cells(w, w, 7);
    // Sun rings with the traced sky, then a jitter pattern with the hybrid one; all six outputs.
    for (auto [samples, ao_mode] : {std::pair{2, 0}, {-8, 1}}) {
        std::vector<float> out[2] = {std::vector<float>(6 * n), std::vector<float>(6 * n)};
        for (int d = 0; d < 2; ++d) {
            halden_queue* q = CreateSyclQueue(d == 0 ? cuda.c_str() : "cpu", nullptr);
            lighting::Parameters p = record(w, w);
            p.shadow_samples = samples, p.ao_mode = ao_mode, p.height_scale = 0.05f;
            float* o = out[d].data();
            EXPECT_EQ(Shade(q, terrain.data(), o, o + n, o + 2 * n, o + 3 * n, o + 4 * n, o + 5 * n, nullptr, nullptr,
                            nullptr, &p, nullptr), 0u);
            DestroySyclQueue(q);
        }
        halden::test::expect_same_bits(out[0], out[1]);
    }
}

}  // namespace
