// SPDX-License-Identifier: Apache-2.0
// Thermal weathering: what must not move, what must be kept, where slopes
// settle, and the export's bad input, cancel and device agreement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "modules/thermal/thermal.hpp"
#include "support.hpp"

namespace {

using namespace halden::test;

thermal::Parameters record(int w, int h) { return {w, h, 1.0f, 1.0f, 35.0f, 0.2f, 0.5f, 64, 0, 1.0f, 1.0f, 1}; }

// Rough hills between 100 and 200: every height lies within a factor of two
// of every other, so a level rebuilt from its coarser one and an unchanged
// detail comes back exactly.
std::vector<float> hills(int w, int h, unsigned seed) {
    std::vector<float> v = random_cells(w, h, seed);
    for (std::size_t i = 0; i < v.size(); ++i) {
        const float x = float(i % w), y = float(i / w);
        v[i] = 150.0f + 20.0f * std::sin(0.2f * x) * std::cos(0.15f * y) + 0.02f * v[i];
    }
    return v;
}

double total(const std::vector<float>& v) {
    double s = 0.0;
    for (float x : v) s += x;
    return s;
}

// The steepest drop from a cell to a neighbour, as a slope (height per world distance).
double steepest(const std::vector<float>& v, int w, int h) {
    double worst = 0.0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const int nx = x + dx, ny = y + dy;
                    if ((dx == 0 && dy == 0) || nx < 0 || ny < 0 || nx >= w || ny >= h) continue;
                    const double d = double(v[y * w + x]) - v[ny * w + nx];
                    worst = std::max(worst, d / std::sqrt(double(dx * dx + dy * dy)));
                }
    return worst;
}

class ThermalExport : public DeviceTest {
protected:
    std::uint32_t run(std::vector<float>& h, const thermal::Parameters& p, const float* mask = nullptr,
                      float* deposition = nullptr, const float* hardness = nullptr,
                      const halden_callbacks* cb = &capturing_callbacks()) {
        return ThermalSimulation(queue, h.data(), mask, deposition, hardness, &p, cb);
    }
};

TEST_P(ThermalExport, WhatCannotSlideStaysBitForBit) {
    const int w = 70, h = 45;
    // A flat field, over the whole pyramid.
    std::vector<float> flat(w * h, 123.25f), deposition(w * h, -1.0f);
    ASSERT_EQ(run(flat, record(w, h), nullptr, deposition.data()), 0u);
    expect_same_bits(flat, std::vector<float>(w * h, 123.25f));
    expect_same_bits(deposition, std::vector<float>(w * h, 0.0f));
    // A ramp and ripples everywhere gentler than the gentlest noisy angle
    // (35 - 0.2 x 35 = 28 degrees: slope 0.53).
    std::vector<float> gentle(w * h);
    for (int i = 0; i < w * h; ++i)
        gentle[i] = 150.0f + 0.3f * float(i % w) + 0.1f * std::sin(0.5f * float(i / w));
    std::vector<float> out = gentle;
    ASSERT_EQ(run(out, record(w, h)), 0u);
    expect_same_bits(out, gentle);
    // A zero mask, and a hardness of 1, stop everything on rough ground.
    const std::vector<float> rough = hills(w, h, 3);
    const std::vector<float> zero(w * h, 0.0f), one(w * h, 1.0f);
    out = rough;
    ASSERT_EQ(run(out, record(w, h), zero.data()), 0u);
    expect_same_bits(out, rough);
    out = rough;
    ASSERT_EQ(run(out, record(w, h), nullptr, nullptr, one.data()), 0u);
    expect_same_bits(out, rough);
}

TEST_P(ThermalExport, MaterialIsKept) {
    const int w = 96, h = 80;
    const std::vector<float> in = hills(w, h, 7);
    std::vector<float> spiky = in;
    for (int i = 0; i < w * h; i += 37) spiky[i] += 30.0f;
    thermal::Parameters p = record(w, h);
    p.levels = 1;
    std::vector<float> one = spiky;
    ASSERT_EQ(run(one, p), 0u);
    EXPECT_NEAR(total(one) / total(spiky), 1.0, 1e-6);
    EXPECT_LT(steepest(one, w, h), steepest(spiky, w, h));
    // Over the pyramid the levels' rule buries fine relief under what was
    // laid down on it, which keeps material only nearly.
    p.levels = 0;
    std::vector<float> all = in, deposition(w * h);
    ASSERT_EQ(run(all, p, nullptr, deposition.data()), 0u);
    EXPECT_NE(first_difference(all, in), -1);
    EXPECT_NEAR(total(all) / total(in), 1.0, 1e-3);
    EXPECT_GE(*std::min_element(deposition.begin(), deposition.end()), 0.0f);
    EXPECT_GT(*std::max_element(deposition.begin(), deposition.end()), 0.0f);
}

TEST_P(ThermalExport, SlopesSettleAtTheTalusAngleAndASpikeBecomesACone) {
    const int n = 41, c = n / 2;
    std::vector<float> spike(n * n, 0.0f);
    spike[c * n + c] = 60.0f;
    thermal::Parameters p = record(n, n);
    p.levels = 1;
    p.talus_noise = 0.0f;
    p.talus_angle = 45.0f;  // a talus height of 1 per cell
    p.iterations = 3000;
    std::vector<float> cone = spike;
    ASSERT_EQ(run(cone, p), 0u);
    EXPECT_LT(steepest(cone, n, n), 1.0 + 1e-3);
    EXPECT_NEAR(total(cone), 60.0, 60.0 * 1e-6);
    // Highest at the centre, falling away along every ray, the same on all
    // four sides.
    const auto at = [&](int x, int y) { return cone[y * n + x]; };
    EXPECT_GT(at(c, c), 2.0f);
    for (int r = 1; r <= c; ++r) {
        EXPECT_LE(at(c + r, c), at(c + r - 1, c) + 1e-5f) << r;
        EXPECT_LE(at(c + r, c + r), at(c + r - 1, c + r - 1) + 1e-5f) << r;
        EXPECT_NEAR(at(c - r, c), at(c + r, c), 1e-4f) << r;
        EXPECT_NEAR(at(c, c - r), at(c, c + r), 1e-4f) << r;
        EXPECT_NEAR(at(c - r, c - r), at(c + r, c + r), 1e-4f) << r;
    }
    EXPECT_EQ(at(0, 0), 0.0f);  // the cone's foot does not reach the corners
}

TEST_P(ThermalExport, HardGroundIsNeverCut) {
    const int w = 64, h = 64;
    const std::vector<float> in = hills(w, h, 11);
    std::vector<float> hardness(w * h, 0.0f);
    for (int i = 0; i < w * h; ++i)
        if ((i % w) < w / 2) hardness[i] = 1.0f;
    thermal::Parameters p = record(w, h);
    p.levels = 1;
    std::vector<float> out = in;
    ASSERT_EQ(run(out, p, nullptr, nullptr, hardness.data()), 0u);
    bool moved = false;
    for (int i = 0; i < w * h; ++i) {
        if (hardness[i] == 1.0f) {
            EXPECT_GE(out[i], in[i]) << i;
        }
        moved = moved || out[i] != in[i];
    }
    EXPECT_TRUE(moved);
}

TEST_P(ThermalExport, BadInputCancelAndStatus) {
    const int w = 33, h = 21;
    const std::vector<float> in = hills(w, h, 5);
    std::vector<float> out = in;
    const auto refuse = [&](thermal::Parameters p, const char* field) {
        messages().clear();
        EXPECT_EQ(run(out, p), 3u) << field;
        ASSERT_FALSE(messages().error.empty()) << field;
        EXPECT_NE(messages().error.back().find(field), std::string::npos) << messages().error.back();
        expect_same_bits(out, in);
    };
    thermal::Parameters p = record(w, h);
    for (float v : {0.0f, 90.0f, NAN}) refuse((p.talus_angle = v, p), "talus_angle");
    p = record(w, h);
    refuse((p.talus_noise = 1.5f, p), "talus_noise");
    p = record(w, h);
    for (float v : {0.0f, 1.01f}) refuse((p.rate = v, p), "rate");
    p = record(w, h);
    refuse((p.cell_size = -1.0f, p), "cell_size");
    p = record(w, h);
    refuse((p.height_scale = INFINITY, p), "height_scale");
    p = record(w, h);
    refuse((p.iterations = -1, p), "iterations");
    p = record(w, h);
    refuse((p.levels = 65, p), "levels");
    p = record(w, h);
    refuse((p.burial_scale = 0.0f, p), "burial_scale");
    p = record(w, h);
    refuse((p.mask_strength = 2.0f, p), "mask_strength");
    p = record(w, h);
    refuse((p.width = 0, p), "width");
    EXPECT_EQ(ThermalSimulation(queue, nullptr, nullptr, nullptr, nullptr, &p, nullptr), 3u);
    EXPECT_EQ(ThermalSimulation(queue, out.data(), nullptr, nullptr, nullptr, nullptr, nullptr), 3u);

    // A cancel from the progress slot leaves the grids unchanged.
    halden_callbacks cb = capturing_callbacks();
    cb.progress = [](float percent) -> int32_t { return percent > 10.0f; };
    std::vector<float> deposition(w * h, 7.0f);
    EXPECT_EQ(run(out, record(w, h), nullptr, deposition.data(), nullptr, &cb), 3u);
    expect_same_bits(out, in);
    expect_same_bits(deposition, std::vector<float>(w * h, 7.0f));
    // Progress rises to 100 on a full run.
    messages().clear();
    EXPECT_EQ(run(out, record(w, h)), 0u);
    ASSERT_FALSE(messages().progress.empty());
    EXPECT_TRUE(std::is_sorted(messages().progress.begin(), messages().progress.end()));
    EXPECT_FLOAT_EQ(messages().progress.back(), 100.0f);
}

HALDEN_INSTANTIATE_ON_DEVICES(ThermalExport);

TEST(ThermalDevices, CpuAndCudaAgree) {
    const std::string cuda = first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int w = 301, h = 207;
    std::vector<float> in = hills(w, h, 12), mask(in.size()), hardness(in.size());
    for (std::size_t i = 0; i < in.size(); i += 13) in[i] += 25.0f;
    for (std::size_t i = 0; i < mask.size(); ++i) {
        mask[i] = float(i % 11) / 10.0f;
        hardness[i] = float(i % 5) / 8.0f;
    }
    auto on = [&](const std::string& key) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        std::vector<float> out = in, deposition(in.size());
        const thermal::Parameters p = record(w, h);
        EXPECT_EQ(ThermalSimulation(q, out.data(), mask.data(), deposition.data(), hardness.data(), &p, nullptr), 0u);
        DestroySyclQueue(q);
        out.insert(out.end(), deposition.begin(), deposition.end());
        return out;
    };
    expect_same_bits(on(cuda), on("cpu"));
}

}  // namespace
