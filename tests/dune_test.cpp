// SPDX-License-Identifier: Apache-2.0
// Dunes: the sand kept exactly, calm sand left alone, slopes settled to the
// angle of repose, dunes that travel downwind at speeds set by their size,
// device agreement and the export's bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "modules/arrakis/arrakis.hpp"
#include "support.hpp"

namespace {

using namespace halden::test;

arrakis::Parameters record(int n) {
    return {n,    1.0f, 1.0f, 0.0f, 1.0f,  90.0f, 0.0f,  0.0f, 40, 0.1f,
            3.0f, 0.2f, 0.5f, 5.0f, 15.0f, 33.0f, 68.0f, 1,    1,  1};
}

// The volume in the library's fixed-point units; exact while every cell is
// thinner than 16 (then each float is a whole number of units).
std::int64_t units(const std::vector<float>& sand) {
    std::int64_t total = 0;
    for (float s : sand) {
        const double u = double(s) * 1048576.0;
        EXPECT_EQ(u, std::floor(u)) << "not a whole number of units: " << s;
        total += std::int64_t(u);
    }
    return total;
}

// Rolling bedrock between 0 and 20 and patchy sand in whole units.
std::vector<float> rolling(int n) {
    std::vector<float> b(std::size_t(n) * n);
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) b[y * n + x] = 10.0f + 10.0f * std::sin(0.11f * x) * std::cos(0.07f * y);
    return b;
}
std::vector<float> patchy(int n, unsigned seed) {
    std::vector<float> s = random_cells(n, n, seed);
    for (float& v : s) v = std::max(0.0f, std::floor(v * 1024.0f) / 16384.0f);  // 0 to 6.25, whole units
    return s;
}

// A round pile on flat rock, gentler than the repose angle everywhere.
std::vector<float> pile(int n, float cx, float cy, float radius, float height) {
    std::vector<float> s(std::size_t(n) * n, 0.0f);
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) {
            const float r = std::hypot(float(x) - cx, float(y) - cy) / radius;
            if (r < 1.0f) s[y * n + x] = height * 0.5f * (1.0f + std::cos(3.14159265f * r));
        }
    return s;
}

double centroid_x(const std::vector<float>& s, int n) {
    double m = 0.0, mx = 0.0;
    for (int i = 0; i < n * n; ++i) {
        m += s[i];
        mx += double(s[i]) * (i % n);
    }
    return mx / m;
}

class DuneExport : public DeviceTest {
protected:
    std::uint32_t run(const std::vector<float>& bedrock, std::vector<float>& sand, const arrakis::Parameters& p,
                      const float* vegetation = nullptr, const halden_callbacks* cb = &capturing_callbacks()) {
        return DuneSimulation(queue, bedrock.data(), sand.data(), vegetation, &p, cb);
    }
};

TEST_P(DuneExport, PeriodicBordersKeepTheSandExactlyAndNoCellGoesNegative) {
    for (int n : {1, 7, 48}) {
        SCOPED_TRACE("n = " + std::to_string(n));
        const std::vector<float> bedrock = rolling(n), in = patchy(n, 4);
        std::vector<float> vegetation(in.size());
        for (std::size_t i = 0; i < vegetation.size(); ++i) vegetation[i] = float(i % 7) / 6.0f;
        for (float direction : {0.0f, 37.0f, 200.0f}) {
            arrakis::Parameters p = record(n);
            p.wind_direction = direction;
            p.wind_speed = 2.5f;
            p.second_wind_share = 0.3f;
            p.second_wind_speed = 1.0f;
            p.slab = 0.5f;
            std::vector<float> out = in;
            ASSERT_EQ(run(bedrock, out, p, vegetation.data()), 0u);
            EXPECT_EQ(units(out), units(in));
            EXPECT_GE(*std::min_element(out.begin(), out.end()), 0.0f);
            if (n > 1) {
                EXPECT_GE(first_difference(out, in), 0) << "nothing moved";
            }
        }
    }
    // Open borders lose what blows off the grid, never more than there was.
    const int n = 40;
    const std::vector<float> bedrock = rolling(n), in = patchy(n, 9);
    arrakis::Parameters p = record(n);
    p.periodic = 0;
    p.wind_speed = 4.0f;
    std::vector<float> out = in;
    ASSERT_EQ(run(bedrock, out, p), 0u);
    EXPECT_LT(units(out), units(in));
    EXPECT_GE(*std::min_element(out.begin(), out.end()), 0.0f);
}

TEST_P(DuneExport, CalmSandBelowItsReposeStaysBitForBit) {
    const int n = 45;
    std::vector<float> bedrock(n * n), in(n * n);
    for (int i = 0; i < n * n; ++i) {
        bedrock[i] = 3.0f + 0.2f * float(i % n);                                // 11 degrees
        in[i] = 0.1f + 0.25f * std::sin(0.3f * float(i / n)) * std::sin(0.3f);  // gentle, not whole units
    }
    arrakis::Parameters p = record(n);
    p.wind_speed = 0.0f;
    for (std::uint32_t periodic : {0u, 1u}) {
        p.periodic = periodic;
        std::vector<float> out = in;
        ASSERT_EQ(run(bedrock, out, p), 0u);
        expect_same_bits(out, in);
    }
    // Vegetation of full cover holds sand in any wind.
    const std::vector<float> full(n * n, 1.0f);
    p.wind_speed = 3.0f;
    std::vector<float> out = in;
    ASSERT_EQ(run(bedrock, out, p, full.data()), 0u);
    expect_same_bits(out, in);
}

TEST_P(DuneExport, SandSlopesSettleAtTheReposeAngle) {
    const int n = 41;
    const std::vector<float> bedrock(n * n, 5.0f);
    // A cone of slope 2 (63 degrees), then calm.
    std::vector<float> sand(n * n);
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) sand[y * n + x] = std::max(0.0f, 24.0f - 2.0f * std::hypot(x - 20.0f, y - 20.0f));
    for (float& s : sand) s = std::floor(s * 1048576.0f) / 1048576.0f;
    const std::vector<float> in = sand;
    arrakis::Parameters p = record(n);
    p.wind_speed = 0.0f;
    p.periodic = 0;
    p.iterations = 400;
    ASSERT_EQ(run(bedrock, sand, p), 0u);
    EXPECT_EQ(units(sand), units(in));  // slides stop at the edges
    const double limit = std::tan(33.0 * 3.14159265358979 / 180.0);
    double worst = 0.0;
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x)
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const int nx = x + dx, ny = y + dy;
                    if ((dx == 0 && dy == 0) || nx < 0 || ny < 0 || nx >= n || ny >= n) continue;
                    if (sand[y * n + x] < 1e-3f) continue;  // only sand can slide
                    const double drop = double(sand[y * n + x]) - sand[ny * n + nx];
                    worst = std::max(worst, drop / std::hypot(double(dx), double(dy)));
                }
    EXPECT_LE(worst, limit * 1.01);
    EXPECT_GT(worst, limit * 0.8);  // it did not flatten further than it had to
    // A rock face steeper than the bedrock's repose sheds its sand.
    std::vector<float> cliff(n * n), veneer(n * n, 0.5f);
    for (int i = 0; i < n * n; ++i) cliff[i] = i % n < 20 ? 40.0f : 0.0f;
    ASSERT_EQ(run(cliff, veneer, p), 0u);
    for (int y = 0; y < n; ++y) EXPECT_LT(veneer[y * n + 19], 1e-3f) << "row " << y;
}

TEST_P(DuneExport, DunesTravelDownwindAndSmallOnesFaster) {
    const int n = 96;
    const std::vector<float> bedrock(n * n, 0.0f);
    arrakis::Parameters p = record(n);
    p.iterations = 60;
    p.slab = 0.05f;
    double moved[2] = {};
    const float heights[2] = {6.0f, 3.0f};
    for (int k = 0; k < 2; ++k) {
        std::vector<float> sand = pile(n, 30.0f, 48.0f, 14.0f, heights[k]);
        const double before = centroid_x(sand, n);
        ASSERT_EQ(run(bedrock, sand, p), 0u);
        moved[k] = centroid_x(sand, n) - before;
    }
    EXPECT_GT(moved[0], 0.5);
    EXPECT_GT(moved[1], 1.25 * moved[0]);
    // The same field under a wind turned by 180 degrees goes the other way.
    p.wind_direction = 180.0f;
    std::vector<float> sand = pile(n, 60.0f, 48.0f, 14.0f, 3.0f);
    const double before = centroid_x(sand, n);
    ASSERT_EQ(run(bedrock, sand, p), 0u);
    EXPECT_LT(centroid_x(sand, n) - before, -0.5);
}

TEST_P(DuneExport, BadInputCancelAndStatus) {
    const int n = 24;
    const std::vector<float> bedrock = rolling(n), in = patchy(n, 2);
    std::vector<float> out = in;
    const auto refuse = [&](arrakis::Parameters p, const char* field, const std::vector<float>& b,
                            const float* vegetation = nullptr) {
        messages().clear();
        EXPECT_EQ(run(b, out, p, vegetation), 3u) << field;
        ASSERT_FALSE(messages().error.empty()) << field;
        EXPECT_NE(messages().error.back().find(field), std::string::npos) << messages().error.back();
        expect_same_bits(out, in);
    };
    arrakis::Parameters p = record(n);
    refuse((p.size = 0, p), "size", bedrock);
    p = record(n);
    refuse((p.cell_size = NAN, p), "cell_size", bedrock);
    p = record(n);
    refuse((p.height_scale = 0.0f, p), "height_scale", bedrock);
    p = record(n);
    refuse((p.wind_direction = INFINITY, p), "wind_direction", bedrock);
    for (float v : {-1.0f, 9.0f, NAN}) refuse((p = record(n), p.wind_speed = v, p), "wind_speed", bedrock);
    p = record(n);
    refuse((p.second_wind_share = 1.5f, p), "second_wind_share", bedrock);
    p = record(n);
    refuse((p.iterations = -1, p), "iterations", bedrock);
    p = record(n);
    refuse((p.slab = -0.1f, p), "slab", bedrock);
    for (float v : {0.0f, 65.0f}) refuse((p = record(n), p.hop_length = v, p), "hop_length", bedrock);
    p = record(n);
    refuse((p.warp_strength = 2.0f, p), "warp_strength", bedrock);
    p = record(n);
    refuse((p.shadow_angle_max = 4.0f, p), "shadow_angle_max", bedrock);
    for (float v : {0.0f, 90.0f}) refuse((p = record(n), p.sand_repose = v, p), "sand_repose", bedrock);
    p = record(n);
    refuse((p.bedrock_repose = NAN, p), "bedrock_repose", bedrock);
    p = record(n);
    refuse((p.periodic = 2, p), "periodic", bedrock);
    p = record(n);
    refuse((p.abrasion = 7, p), "abrasion", bedrock);
    // Bad grids name the grid.
    std::vector<float> bad = bedrock;
    bad[17] = NAN;
    refuse(record(n), "bedrock", bad);
    const std::vector<float> overgrown(n * n, 1.5f);
    refuse(record(n), "vegetation", bedrock, overgrown.data());
    out[5] = -1.0f;
    const std::vector<float> negative = out;
    messages().clear();
    EXPECT_EQ(run(bedrock, out, record(n)), 3u);
    EXPECT_NE(messages().error.back().find("sand"), std::string::npos);
    expect_same_bits(out, negative);
    out = in;
    p = record(n);
    EXPECT_EQ(DuneSimulation(queue, nullptr, out.data(), nullptr, &p, nullptr), 3u);
    EXPECT_EQ(DuneSimulation(queue, bedrock.data(), nullptr, nullptr, &p, nullptr), 3u);
    EXPECT_EQ(DuneSimulation(queue, bedrock.data(), out.data(), nullptr, nullptr, nullptr), 3u);

    // A cancel from the progress slot leaves the sand unchanged.
    halden_callbacks cb = capturing_callbacks();
    cb.progress = [](float percent) -> int32_t { return percent > 10.0f; };
    EXPECT_EQ(run(bedrock, out, record(n), nullptr, &cb), 3u);
    expect_same_bits(out, in);
    messages().clear();
    EXPECT_EQ(run(bedrock, out, record(n)), 0u);
    ASSERT_EQ(messages().progress.size(), 40u);
    EXPECT_TRUE(std::is_sorted(messages().progress.begin(), messages().progress.end()));
    EXPECT_FLOAT_EQ(messages().progress.back(), 100.0f);
}

HALDEN_INSTANTIATE_ON_DEVICES(DuneExport);

TEST(DuneDevices, CpuAndCudaAgree) {
    const std::string cuda = first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int n = 131;
    const std::vector<float> bedrock = rolling(n), in = patchy(n, 21);
    std::vector<float> vegetation(in.size());
    for (std::size_t i = 0; i < vegetation.size(); ++i) vegetation[i] = float(i % 5) / 8.0f;
    auto on = [&](const std::string& key) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        std::vector<float> out = in;
        arrakis::Parameters p = record(n);
        p.wind_direction = 23.0f;
        p.second_wind_share = 0.25f;
        p.second_wind_speed = 2.0f;
        EXPECT_EQ(DuneSimulation(q, bedrock.data(), out.data(), vegetation.data(), &p, nullptr), 0u);
        p.periodic = 0;
        p.abrasion = 0;
        std::vector<float> open = in;
        EXPECT_EQ(DuneSimulation(q, bedrock.data(), open.data(), nullptr, &p, nullptr), 0u);
        DestroySyclQueue(q);
        out.insert(out.end(), open.begin(), open.end());
        return out;
    };
    expect_same_bits(on(cuda), on("cpu"));
}

}  // namespace
