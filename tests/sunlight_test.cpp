// SPDX-License-Identifier: Apache-2.0
// Sun-light integral: flat open ground against the closed-form daily sum,
// slopes facing the sun and away from it, east-west mirror symmetry, a pit
// that sees only a high sun, bad records, cancel, and agreement between
// devices.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "modules/lighting/sunlight.hpp"
#include "support.hpp"

namespace {

using namespace halden::test;

constexpr double pi = 3.14159265358979323846;

lighting::SunLightParameters record(int w) {
    return {w, w, float(w), 1.0f, 45.0f, 172, 172, 1, 10.0f, 0, 3.0f, 0.7f, 0.0f, 0.2f, 0, 1, 0, {0, 0}};
}

struct result {
    std::vector<float> irradiation, hours, view;
};

class SunLightExport : public DeviceTest {
protected:
    result integrate(const lighting::SunLightParameters& p, const std::vector<float>& heights, bool view = false) {
        const std::size_t n = std::size_t(p.width) * std::size_t(p.height);
        result r{std::vector<float>(n, -1.0f), std::vector<float>(n, -1.0f), std::vector<float>(view ? n : 0, -1.0f)};
        EXPECT_EQ(SunLightIntegral(queue, heights.data(), r.irradiation.data(), r.hours.data(),
                                   view ? r.view.data() : nullptr, &p, &capturing_callbacks()),
                  0u);
        return r;
    }
};

// A sloping plane: heights fall by tan(slope) per metre towards +y (south)
// or -y (north); cells are 1 m.
std::vector<float> plane(int w, double slope_degrees, bool facing_south) {
    std::vector<float> h(std::size_t(w) * w);
    const double t = std::tan(slope_degrees * pi / 180.0);
    for (int y = 0; y < w; ++y)
        for (int x = 0; x < w; ++x) h[std::size_t(y) * w + x] = float((facing_south ? w - y : y) * t);
    return h;
}

TEST_P(SunLightExport, FlatOpenGroundIsTheClosedFormDailySum) {
    const int w = 24;
    const std::vector<float> flat(std::size_t(w) * w, 12.5f);
    for (const float latitude : {-30.0f, 0.0f, 40.0f, 60.0f})
        for (const int day : {100, 300}) {
            // No atmosphere and no sky: the beam on flat ground is G0 sin(h),
            // whose day integral is (24 / pi) G0 (cos phi cos d sin ws + ws sin phi sin d).
            lighting::SunLightParameters p = record(w);
            p.latitude = latitude;
            p.first_day = p.last_day = day;
            p.time_step = 4.0f;
            p.atmosphere = lighting::plain_transmittance;
            p.transmittance = 1.0f;
            p.diffuse = 0;
            const result r = integrate(p, flat);
            const double phi = latitude * pi / 180.0, d = lighting::solar_declination(day);
            const double ws = std::acos(std::clamp(-std::tan(phi) * std::tan(d), -1.0, 1.0));
            const double want = 24.0 / pi * lighting::extraterrestrial_irradiance(day) *
                                (std::cos(phi) * std::cos(d) * std::sin(ws) + ws * std::sin(phi) * std::sin(d));
            const std::string at = "latitude " + std::to_string(latitude) + ", day " + std::to_string(day);
            EXPECT_NEAR(r.irradiation[0], want, 2e-3 * want) << at;
            EXPECT_NEAR(r.hours[0], 24.0 * ws / pi, 4.0 / 60.0) << at;
            // Open ground is the same everywhere, wraps and edges included.
            for (std::size_t i = 0; i < r.irradiation.size(); ++i) {
                ASSERT_EQ(bits(r.irradiation[i]), bits(r.irradiation[0])) << at << ", cell " << i;
                ASSERT_EQ(bits(r.hours[i]), bits(r.hours[0])) << at << ", cell " << i;
            }
        }

    // With an atmosphere, diffuse light and a traced sky, flat open ground
    // sees the whole sky and is the unit of the relative output.
    lighting::SunLightParameters p = record(w);
    p.sky_directions = 73;
    p.relative = 1;
    const result r = integrate(p, flat, true);
    for (std::size_t i = 0; i < r.view.size(); ++i) {
        ASSERT_EQ(r.view[i], 1.0f) << "cell " << i;
        ASSERT_NEAR(r.irradiation[i], 1.0f, 1e-5f) << "cell " << i;
    }
}

TEST_P(SunLightExport, AnEquatorFacingSlopeGetsMoreInWinterAndThePoleFacingOneLess) {
    const int w = 32;
    const std::size_t centre = std::size_t(w / 2) * w + w / 2;
    for (const float latitude : {45.0f, -45.0f}) {
        lighting::SunLightParameters p = record(w);
        p.latitude = latitude;
        p.first_day = p.last_day = latitude > 0 ? 355 : 172;  // midwinter
        p.sky_directions = 32;
        const bool south = latitude > 0;
        const result flat = integrate(p, std::vector<float>(std::size_t(w) * w, 0.0f));
        const result towards = integrate(p, plane(w, 30.0, south));
        const result away = integrate(p, plane(w, 30.0, !south));
        // The low winter sun meets a 30 degree equator-facing slope nearly
        // twice as squarely as flat ground.
        EXPECT_GT(towards.irradiation[centre], 1.5f * flat.irradiation[centre]) << latitude;
        EXPECT_LT(away.irradiation[centre], 0.5f * flat.irradiation[centre]) << latitude;
        // The pole-facing slope at 30 degrees, steeper than the 21.5 degree
        // noon sun, lies in its own shadow all day.
        EXPECT_EQ(away.hours[centre], 0.0f) << latitude;
        EXPECT_GT(towards.hours[centre], 7.0f) << latitude;
    }
}

TEST_P(SunLightExport, MirroringEastWestMirrorsTheResult) {
    const int w = 48;
    std::vector<float> h(std::size_t(w) * w), mirrored(h.size());
    for (int y = 0; y < w; ++y)
        for (int x = 0; x < w; ++x) {
            const double u = (x - 17.3) / 7.0, v = (y - 26.1) / 9.0, s = (x - 35.0) / 5.0, t = (y - 12.0) / 6.0;
            h[std::size_t(y) * w + x] = float(20.0 / (1.0 + u * u + v * v) + 12.0 / (1.0 + s * s + t * t) + 0.1 * y);
        }
    for (int y = 0; y < w; ++y)
        for (int x = 0; x < w; ++x) mirrored[std::size_t(y) * w + (w - 1 - x)] = h[std::size_t(y) * w + x];
    lighting::SunLightParameters p = record(w);
    p.latitude = 30.0f;
    p.first_day = 140;
    p.last_day = 160;
    p.day_step = 7;
    const result a = integrate(p, h), b = integrate(p, mirrored);
    // A day of midpoints symmetric about noon gives mirrored sun positions;
    // only roundings that do not mirror (the normals' stencil sums, cell
    // boundaries met exactly) may differ.
    int far = 0;
    for (int y = 0; y < w; ++y)
        for (int x = 0; x < w; ++x) {
            const float u = a.irradiation[std::size_t(y) * w + x], v = b.irradiation[std::size_t(y) * w + (w - 1 - x)];
            ASSERT_NEAR(u, v, 0.02f * u) << "cell " << x << ", " << y;
            far += std::fabs(u - v) > 1e-4f * u;
        }
    EXPECT_LT(far, w * w / 50);
}

TEST_P(SunLightExport, ADeepPitSeesOnlyAHighSun) {
    // A 16 m square pit 16 m deep in flat ground, at the equator in March.
    const int w = 64, lo = 24, hi = 40;
    const double depth = 16.0;
    std::vector<float> h(std::size_t(w) * w, 0.0f);
    for (int y = lo; y < hi; ++y)
        for (int x = lo; x < hi; ++x) h[std::size_t(y) * w + x] = float(-depth);
    lighting::SunLightParameters p = record(w);
    p.latitude = 0.0f;
    p.first_day = p.last_day = 80;
    p.time_step = 5.0f;
    p.atmosphere = lighting::plain_transmittance;
    p.transmittance = 1.0f;
    p.diffuse = 0;
    const result r = integrate(p, h);
    const int cx = 31, cy = 31;  // the floor's centre cell spans [31, 32)
    // Lit only where the sun clears the wall along its azimuth: count the
    // positions high enough for a wall a cell and a half nearer and farther.
    double sure = 0.0, possible = 0.0, all = 0.0;
    for (const lighting::sun_position& s : lighting::sun_path(p)) {
        const double dx = s.direction.x, dy = s.direction.y, c = cx + 0.5, d = cy + 0.5;
        double reach = 1e30;
        if (dx > 0) reach = std::min(reach, (hi - c) / dx);
        if (dx < 0) reach = std::min(reach, (c - lo) / -dx);
        if (dy > 0) reach = std::min(reach, (hi - d) / dy);
        if (dy < 0) reach = std::min(reach, (d - lo) / -dy);
        const double horizontal = std::sqrt(dx * dx + dy * dy);
        const double rise = s.direction.z / horizontal;  // tan of the altitude
        if (rise * (reach * horizontal - 1.5) > depth) sure += s.hours;
        if (rise * (reach * horizontal + 1.5) > depth) possible += s.hours;
        all += s.hours;
    }
    const float floor = r.hours[std::size_t(cy) * w + cx], open = r.hours[5];
    EXPECT_NEAR(open, all, 1e-4);
    EXPECT_GE(floor, sure - 1e-4);
    EXPECT_LE(floor, possible + 1e-4);
    EXPECT_LT(floor, 0.5 * open);
    // Light per sunlit hour is that of a high sun: more than open ground's average.
    EXPECT_GT(r.irradiation[std::size_t(cy) * w + cx] / floor, 1.2f * r.irradiation[5] / open);
}

TEST_P(SunLightExport, BadInputIsRefusedNamingTheFieldAndCancelLeavesTheOutputsUnchanged) {
    const int w = 16;
    std::vector<float> heights(std::size_t(w) * w, 1.0f), out(heights.size(), 5.0f), hours(out), view(out);
    const std::vector<float> untouched = out;
    const auto refuse = [&](const lighting::SunLightParameters& p, const char* field, bool with_view = false) {
        messages().clear();
        EXPECT_EQ(SunLightIntegral(queue, heights.data(), out.data(), hours.data(), with_view ? view.data() : nullptr,
                                   &p, &capturing_callbacks()),
                  3u)
            << field;
        ASSERT_FALSE(messages().error.empty()) << field;
        EXPECT_NE(messages().error.back().find(field), std::string::npos) << messages().error.back();
        expect_same_bits(out, untouched);
        expect_same_bits(hours, untouched);
        expect_same_bits(view, untouched);
    };
    lighting::SunLightParameters p = record(w);
    refuse((p.width = 0, p), "width");
    p = record(w);
    refuse((p.height = 8, p), "width and height must be equal");
    p = record(w);
    for (float v : {0.0f, NAN, INFINITY}) refuse((p.terrain_size = v, p), "terrain_size");
    p = record(w);
    refuse((p.height_scale = -1.0f, p), "height_scale");
    p = record(w);
    for (float v : {91.0f, NAN}) refuse((p.latitude = v, p), "latitude");
    p = record(w);
    for (int v : {0, 367}) refuse((p.first_day = v, p), "first_day");
    p = record(w);
    refuse((p.last_day = 100, p), "last_day");
    p = record(w);
    refuse((p.day_step = 0, p), "day_step");
    p = record(w);
    for (float v : {0.5f, 300.0f, NAN}) refuse((p.time_step = v, p), "time_step");
    p = record(w);
    refuse((p.atmosphere = 2, p), "atmosphere");
    p = record(w);
    for (float v : {0.0f, 11.0f, NAN}) refuse((p.linke_turbidity = v, p), "linke_turbidity");
    p = record(w);
    p.atmosphere = lighting::plain_transmittance;
    for (float v : {0.0f, 1.5f, NAN}) refuse((p.transmittance = v, p), "transmittance");
    p = record(w);
    refuse((p.site_elevation = 1e5f, p), "site_elevation");
    p = record(w);
    for (float v : {-0.1f, NAN}) refuse((p.albedo = v, p), "albedo");
    p = record(w);
    for (int v : {-1, 5000}) refuse((p.sky_directions = v, p), "sky_directions");
    p = record(w);
    refuse(p, "sky_view needs sky_directions", true);
    heights[37] = NAN;
    refuse(record(w), "heights must be finite (cell 5, 2)");
    heights[37] = 1.0f;

    p = record(w);
    EXPECT_EQ(SunLightIntegral(queue, nullptr, out.data(), nullptr, nullptr, &p, nullptr), 3u);
    EXPECT_EQ(SunLightIntegral(queue, heights.data(), nullptr, nullptr, nullptr, &p, nullptr), 3u);
    EXPECT_EQ(SunLightIntegral(queue, heights.data(), out.data(), nullptr, nullptr, nullptr, nullptr), 3u);
    EXPECT_EQ(SunLightIntegral(nullptr, heights.data(), out.data(), nullptr, nullptr, &p, nullptr), 3u);
    expect_same_bits(out, untouched);

    // A cancel from the progress slot leaves every output unchanged; a full
    // run reports once per sun position, ending at 100 percent.
    halden_callbacks cb = capturing_callbacks();
    cb.progress = [](float) -> int32_t { return 1; };
    p.sky_directions = 8;
    EXPECT_EQ(SunLightIntegral(queue, heights.data(), out.data(), hours.data(), view.data(), &p, &cb), 3u);
    expect_same_bits(out, untouched);
    expect_same_bits(hours, untouched);
    expect_same_bits(view, untouched);
    messages().clear();
    EXPECT_EQ(
        SunLightIntegral(queue, heights.data(), out.data(), hours.data(), view.data(), &p, &capturing_callbacks()), 0u);
    EXPECT_EQ(messages().progress.size(), lighting::sun_path(p).size());
    ASSERT_FALSE(messages().progress.empty());
    EXPECT_FLOAT_EQ(messages().progress.back(), 100.0f);
}

HALDEN_INSTANTIATE_ON_DEVICES(SunLightExport);

TEST(SunLightDevices, CpuAndCudaAgree) {
    const std::string cuda = first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int w = 131;
    const std::vector<float> h = random_cells(w, w, 7);
    auto on = [&](const std::string& key) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        std::vector<float> all;
        for (int relative = 0; relative <= 1; ++relative) {
            lighting::SunLightParameters p = record(w);
            p.height_scale = 0.2f;
            p.first_day = 60;
            p.last_day = 120;
            p.day_step = 20;
            p.time_step = 15.0f;
            p.sky_directions = 40;
            p.relative = std::uint8_t(relative);
            std::vector<float> out(h.size()), hours(h.size()), view(h.size());
            EXPECT_EQ(SunLightIntegral(q, h.data(), out.data(), hours.data(), view.data(), &p, nullptr), 0u);
            for (const auto* g : {&out, &hours, &view}) all.insert(all.end(), g->begin(), g->end());
        }
        DestroySyclQueue(q);
        return all;
    };
    expect_same_bits(on(cuda), on("cpu"));
}

}  // namespace
