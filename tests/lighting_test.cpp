// SPDX-License-Identifier: Apache-2.0
// Shading: sun and sky samples, normals of planes, a wall's shadow, flat
// ground fully lit, the switches, the hybrid sky against the traced one, bad
// input, cancel and device agreement.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "modules/lighting/lighting.hpp"
#include "support.hpp"

namespace {

using halden::test::messages;

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

std::vector<float> hills(int w, int h) {
    std::vector<float> v(std::size_t(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            v[std::size_t(y) * w + x] = 20.0f * std::sin(0.07f * x) * std::cos(0.05f * y) + 4.0f * std::sin(0.4f * x + 0.3f * y);
    return v;
}

double angle_between(const lighting::vec3& a, const lighting::vec3& b) {
    const double d = double(a.x) * b.x + double(a.y) * b.y + double(a.z) * b.z;
    const double na = std::sqrt(double(a.x) * a.x + double(a.y) * a.y + double(a.z) * a.z);
    const double nb = std::sqrt(double(b.x) * b.x + double(b.y) * b.y + double(b.z) * b.z);
    return std::acos(std::min(1.0, d / (na * nb))) * 180.0 / 3.14159265358979323846;
}

// ---------------------------------------------------------------------------
// Host-side samples.

TEST(LightingSamples, SunRingsPatternsAndCopies) {
    lighting::Parameters p = record(8, 8);
    const lighting::vec3 l{p.sun_direction[0], p.sun_direction[1], p.sun_direction[2]};
    auto sun = [&](int n) {
        p.shadow_samples = n;
        return lighting::samples::sun(p);
    };
    for (int n = 0; n <= 3; ++n) {
        const lighting::samples::set s = sun(n);
        ASSERT_EQ(s.directions.size(), std::size_t(3 * n * n + 3 * n + 1)) << n;
        EXPECT_EQ(s.directions[0].x, l.x);
        EXPECT_EQ(s.jitters[0].x, 0.5f);
        // Ring k lies k / n of the way to the rim of the disc.
        for (std::size_t i = 1; i < s.directions.size(); ++i) EXPECT_LE(angle_between(s.directions[i], l), 0.2651);
        if (n > 0) {
            EXPECT_NEAR(angle_between(s.directions.back(), l), 0.265, 0.001);
        }
    }
    lighting::samples::set s = sun(-4);
    ASSERT_EQ(s.directions.size(), 4u);
    EXPECT_EQ(s.jitters[2].x, 0.875f);
    EXPECT_EQ(s.jitters[2].y, 0.625f);
    s = sun(-8);
    ASSERT_EQ(s.directions.size(), 8u);
    EXPECT_EQ(s.jitters[3].y, 0.9375f);
    for (const lighting::vec3& d : s.directions) EXPECT_EQ(d.z, l.z);
    s = sun(-5);
    ASSERT_EQ(s.directions.size(), 5u);
    for (const lighting::vec2& j : s.jitters) EXPECT_EQ(j.y, 0.5f);
    // A point sun collapses every ring onto the sun direction.
    p.sun_size = 0.0f;
    for (const lighting::vec3& d : sun(2).directions) {
        EXPECT_NEAR(d.x, l.x, 1e-6);
        EXPECT_NEAR(d.y, l.y, 1e-6);
        EXPECT_NEAR(d.z, l.z, 1e-6);
    }
}

TEST(LightingSamples, SkyDirectionsAreUpperUnitVectorsInAFixedOrder) {
    const std::vector<lighting::vec3> many = lighting::samples::sky(1249);
    ASSERT_EQ(many.size(), 1249u);
    const std::vector<lighting::vec3> few = lighting::samples::sky(40);
    for (std::size_t i = 0; i < few.size(); ++i) EXPECT_TRUE(few[i].x == many[i].x && few[i].z == many[i].z) << i;
    double mean_z = 0;
    for (const lighting::vec3& d : many) {
        EXPECT_GT(d.z, 0.0f);
        EXPECT_NEAR(d.x * d.x + d.y * d.y + d.z * d.z, 1.0, 1e-6);
        mean_z += d.z;
    }
    // Spread evenly over the hemisphere, the directions average z = 1/2.
    EXPECT_NEAR(mean_z / double(many.size()), 0.5, 0.02);
}

// ---------------------------------------------------------------------------
// Kernels.

class LightingKernels : public halden::test::BackendTest {};

TEST_P(LightingKernels, NormalsOfPlanes) {
    const int w = 6, h = 5;
    std::vector<float> plane(w * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) plane[y * w + x] = 0.5f * x - 0.25f * y;
    halden::core::grid heights = halden::test::upload(*q, plane, w, h);
    halden::compute::usm_ptr<lighting::vec4, 2> normals(*q, {std::size_t(h), std::size_t(w)});
    halden::compute::usm_ptr<std::int32_t, 2> photons(*q, {std::size_t(h), std::size_t(w)});
    lighting::compute_normals_and_init_photonmap(*q, heights.get(), normals.get(), photons.get(), w, h, 12.0f, 2.0f);
    std::vector<lighting::vec4> n(w * h);
    std::vector<std::int32_t> c(w * h, 7);
    normals.copy_to_host(n.data());
    photons.copy_to_host(c.data());
    q->wait();
    // (-height_scale slope_x, -height_scale slope_y, cell size), normalised,
    // with cell size 12 / 6 = 2 and rows increasing downward.
    const double len = std::sqrt(1.0 + 0.25 + 4.0);
    for (int y = 1; y < h - 1; ++y)
        for (int x = 1; x < w - 1; ++x) {
            const lighting::vec4& v = n[y * w + x];
            EXPECT_NEAR(v.x, -1.0 / len, 1e-6);
            EXPECT_NEAR(v.y, 0.5 / len, 1e-6);
            EXPECT_NEAR(v.z, 2.0 / len, 1e-6);
        }
    for (std::int32_t v : c) EXPECT_EQ(v, 0);
}

HALDEN_INSTANTIATE_ON_BACKENDS(LightingKernels);

// ---------------------------------------------------------------------------
// The export.

class ShadeExport : public halden::test::DeviceTest {
protected:
    struct outputs {
        std::vector<float> diffuse, shadow, ao, r, g, b;
        explicit outputs(std::size_t n, float fill = -7.0f) : diffuse(n, fill), shadow(n, fill), ao(n, fill), r(n, fill), g(n, fill), b(n, fill) {}
    };
    std::uint32_t shade(const std::vector<float>& heights, outputs& o, const lighting::Parameters& p,
                        const float* albedo_r = nullptr, const float* albedo_g = nullptr, const float* albedo_b = nullptr,
                        const halden_callbacks* cb = nullptr) {
        return Shade(queue, heights.data(), o.diffuse.data(), o.shadow.data(), o.ao.data(), o.r.data(), o.g.data(),
                     o.b.data(), albedo_r, albedo_g, albedo_b, &p, cb ? cb : &halden::test::capturing_callbacks());
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
    for (int y = 0; y < w; ++y)
        for (int x = 0; x < w; ++x) ASSERT_EQ(o.shadow[y * w + x], x >= 2 && x <= 9 ? 0.0f : 1.0f) << y << ", " << x;
    // The ao grid was switched off and keeps its contents.
    EXPECT_EQ(o.ao, std::vector<float>(w * w, -7.0f));
}

TEST_P(ShadeExport, FlatGroundIsFullyLit) {
    const int w = 48;
    const std::vector<float> flat(w * w, 3.0f);
    lighting::Parameters p = record(w, w);
    p.shadow_samples = 2;
    outputs o(w * w);
    ASSERT_EQ(shade(flat, o, p), 0u);
    const std::vector<lighting::vec3> sky = lighting::samples::sky(p.ao_directions);
    std::int64_t sum = 0;
    for (const lighting::vec3& d : sky) sum += std::int32_t(262144.0f * d.z);
    const float ao = std::max(float(sum) * 0x1p-16f / float(sky.size()), 0.0f);
    for (int i = 0; i < w * w; ++i) {
        ASSERT_EQ(o.shadow[i], 1.0f) << i;
        ASSERT_EQ(o.diffuse[i], p.sun_direction[2]) << i;
        ASSERT_EQ(o.ao[i], ao) << i;
    }
    // Colour: (sun colour x diffuse + sky colour x ao) x exposure.
    EXPECT_EQ(o.r[0], (1.0f * (p.sun_direction[2] * 1.0f) + 0.6f * 0.4f * ao) * 0.8f);

    // A sun straight overhead casts no shadow either, even with a wide disc.
    p.sun_direction[0] = p.sun_direction[1] = 0.0f, p.sun_direction[2] = 1.0f;
    p.sun_size = 20.0f;
    ASSERT_EQ(shade(hills(w, w), o, p), 0u);
    for (float s : o.shadow) ASSERT_EQ(s, 1.0f);
}

TEST_P(ShadeExport, SwitchesLeaveTheirOutputsAlone) {
    const int w = 32, n = w * w;
    const std::vector<float> terrain = hills(w, w), untouched(n, -7.0f);
    // Red before exposure: sun colour x diffuse x shadow + sky colour x sky strength x ao.
    auto light = [](const outputs& o, int i, bool sun, float ao) {
        return 1.0f * (sun ? o.diffuse[i] * o.shadow[i] : 0.0f) + 0.6f * 0.4f * ao;
    };

    // Sun off: diffuse and shadow untouched, colour from the sky alone.
    lighting::Parameters p = record(w, w);
    p.sun_enabled = 0;
    outputs o(n);
    ASSERT_EQ(shade(terrain, o, p), 0u);
    EXPECT_EQ(o.diffuse, untouched);
    EXPECT_EQ(o.shadow, untouched);
    for (int i = 0; i < n; ++i) ASSERT_EQ(o.r[i], light(o, i, false, o.ao[i]) * 0.8f) << i;

    // Sky off: no ambient light whatever ao_enabled says; ao untouched.
    p = record(w, w);
    p.sky_enabled = 0;
    outputs s(n);
    ASSERT_EQ(shade(terrain, s, p), 0u);
    EXPECT_EQ(s.ao, untouched);
    for (int i = 0; i < n; ++i) ASSERT_EQ(s.r[i], light(s, i, true, 0.0f) * 0.8f) << i;

    // The caller's ao is used as given and comes back unchanged.
    p = record(w, w);
    p.ao_from_caller = 1;
    outputs c(n);
    for (int i = 0; i < n; ++i) c.ao[i] = float(i % 5) * 0.25f;
    const std::vector<float> given = c.ao;
    ASSERT_EQ(shade(terrain, c, p), 0u);
    EXPECT_EQ(c.ao, given);
    for (int i = 0; i < n; ++i) ASSERT_EQ(c.r[i], light(c, i, true, given[i]) * 0.8f) << i;

    // Albedo only when all three grids are given; otherwise exposure.
    p = record(w, w);
    const std::vector<float> red(n, 0.5f), green(n, 0.25f), blue(n, 2.0f);
    outputs grey(n), coloured(n);
    ASSERT_EQ(shade(terrain, grey, p, red.data(), green.data(), nullptr), 0u);
    ASSERT_EQ(shade(terrain, coloured, p, red.data(), green.data(), blue.data()), 0u);
    for (int i = 0; i < n; ++i) {
        ASSERT_EQ(grey.r[i], light(grey, i, true, grey.ao[i]) * 0.8f) << i;
        ASSERT_EQ(coloured.r[i], light(grey, i, true, grey.ao[i]) * 0.5f) << i;
    }
}

TEST_P(ShadeExport, HybridSkyTracksTheTracedOne) {
    const int w = 128;
    const std::vector<float> terrain = hills(w, w);
    lighting::Parameters p = record(w, w);
    p.ao_directions = p.hybrid_ao_directions = 64;
    outputs traced(w * w), hybrid(w * w);
    ASSERT_EQ(shade(terrain, traced, p), 0u);
    p.ao_mode = 1;
    ASSERT_EQ(shade(terrain, hybrid, p), 0u);
    double mean = 0, worst = 0, level = 0;
    for (int i = 0; i < w * w; ++i) {
        const double d = std::fabs(double(traced.ao[i]) - hybrid.ao[i]);
        mean += d;
        worst = std::max(worst, d);
        level += traced.ao[i];
    }
    mean /= w * w;
    level /= w * w;
    // Measured on this terrain: mean difference 0.052 (about 4 % of the mean
    // visibility), largest 0.43, in narrow creases the half-size grid blurs.
    EXPECT_LT(mean, 0.05 * level);
    EXPECT_LT(worst, 0.6);
    RecordProperty("mean_difference", std::to_string(mean));
    RecordProperty("max_difference", std::to_string(worst));
}

std::int32_t cancel_now() { return 1; }

TEST_P(ShadeExport, BadInputAndCancelWriteNothing) {
    const std::vector<float> terrain = hills(40, 30);
    lighting::Parameters p = record(40, 30);
    outputs o(40 * 30);
    // Non-square with shadows or sky visibility traced: refused.
    EXPECT_EQ(shade(terrain, o, p), 3u);
    p.shadows_enabled = 0;
    EXPECT_EQ(shade(terrain, o, p), 3u);
    EXPECT_EQ(o.r, std::vector<float>(40 * 30, -7.0f));
    ASSERT_EQ(messages().error.size(), 2u);
    EXPECT_NE(messages().error[0].find("square"), std::string::npos) << messages().error[0];
    // Without them a rectangle is fine.
    p.ao_enabled = 0;
    EXPECT_EQ(shade(terrain, o, p), 0u);

    std::vector<float> square = hills(16, 16);
    outputs s(16 * 16);
    lighting::Parameters q16 = record(16, 16);
    EXPECT_EQ(Shade(queue, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                    &q16, nullptr),
              3u);
    EXPECT_EQ(Shade(nullptr, square.data(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                    nullptr, &q16, nullptr),
              3u);
    lighting::Parameters bad[3] = {q16, q16, q16};
    bad[0].terrain_size = std::numeric_limits<float>::quiet_NaN();
    bad[1].ao_directions = 0;
    bad[2].width = 0;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(shade(square, s, bad[i]), 3u) << i;
    EXPECT_EQ(s.r, std::vector<float>(16 * 16, -7.0f));

    // Outputs may be null; a cancel before composing writes nothing.
    EXPECT_EQ(Shade(queue, square.data(), nullptr, nullptr, nullptr, s.r.data(), nullptr, nullptr, nullptr, nullptr,
                    nullptr, &q16, nullptr),
              0u);
    outputs c(16 * 16);
    halden_callbacks cb = halden::test::capturing_callbacks();
    cb.cancel = cancel_now;
    EXPECT_EQ(shade(square, c, q16, nullptr, nullptr, nullptr, &cb), 3u);
    EXPECT_EQ(c.r, std::vector<float>(16 * 16, -7.0f));
    EXPECT_EQ(c.diffuse, std::vector<float>(16 * 16, -7.0f));
}

HALDEN_INSTANTIATE_ON_DEVICES(ShadeExport);

TEST(ShadeDevices, CpuAndCudaAgree) {
    const std::string cuda = halden::test::first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int w = 200;
    const std::vector<float> terrain = hills(w, w);
    auto on = [&](const std::string& key, int samples, int ao_mode) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        const std::size_t n = std::size_t(w) * w;
        std::vector<float> all(6 * n, -1.0f);
        float* o = all.data();
        lighting::Parameters p = record(w, w);
        p.shadow_samples = samples, p.ao_mode = ao_mode;
        EXPECT_EQ(Shade(q, terrain.data(), o, o + n, o + 2 * n, o + 3 * n, o + 4 * n, o + 5 * n, nullptr, nullptr,
                        nullptr, &p, nullptr),
                  0u)
            << key;
        DestroySyclQueue(q);
        return all;
    };
    for (int samples : {2, -8})
        for (int ao_mode : {0, 1}) {
            SCOPED_TRACE(testing::Message() << samples << " " << ao_mode);
            halden::test::expect_same_bits(on(cuda, samples, ao_mode), on("cpu", samples, ao_mode));
        }
}

}  // namespace
