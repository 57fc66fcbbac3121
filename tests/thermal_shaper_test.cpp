// SPDX-License-Identifier: Apache-2.0
// Thermal shaper: the host-side plan, one pass against an independent
// reference, and the export's identities, bad input and device agreement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "core/math.hpp"
#include "modules/thermal_shaper/thermal_shaper.hpp"
#include "support.hpp"

namespace {

using halden::core::grid;
using namespace halden::test;

thermal_shaper::Parameters record(int w, int h, float amount, float strength = 1.0f) {
    return {w, h, 1.0f, float(w), 0.125f, strength, amount, 0};
}

// Ridges, valleys and pits, in cell units.
std::vector<float> terrain(int w, int h, unsigned seed) {
    std::vector<float> v = random_cells(w, h, seed);
    for (std::size_t i = 0; i < v.size(); ++i) {
        const float x = float(i % w), y = float(i / w);
        v[i] = 12.0f * std::sin(0.11f * x) * std::cos(0.07f * y) + 4.0f * std::sin(0.5f * x + 0.3f * y) + 0.01f * v[i];
    }
    return v;
}

TEST(ThermalShaperPlan, LevelsWeightsAndPasses) {
    using namespace thermal_shaper::plan;
    EXPECT_EQ(level_count(record(1024, 8, 1.0f)), 7.0f);  // log2(1024 / 8)
    EXPECT_EQ(levels(level_count(record(1000, 8, 1.0f))), 7);
    // Below one level the count is pulled into (0, 1): tanh(0 - 1) + 1 for log2(1) = 0.
    EXPECT_NEAR(level_count(record(8, 8, 1.0f)), std::tanh(-1.0) + 1.0, 1e-6);
    // The weight sums from the coarsest level.
    EXPECT_EQ(level_weight(3, 1.0f, 64.0f), 4096.0f / 112.0f);  // f = 0.5: 64 + 32 + 16
    EXPECT_EQ(level_weight(2, 0.0f, 64.0f), 4096.0f / 80.0f);   // f = 0.25

    const thermal_shaper::Parameters p{256, 256, 2.0f, 512.0f, 0.125f, 1.0f, 0.0f, 0};
    // The coarsest level takes the fraction of the base; a whole count runs its last pass at rate 0.
    passes k = for_level(p, 0, 16, 0.5f, 64.0f, 0.75f);
    EXPECT_EQ(k.count, 32);
    EXPECT_EQ(k.last_rate, 0.0f);
    EXPECT_EQ(k.g, 16.0f * 2.0f / 512.0f);
    // Depth 2: u = 1.5, 64 / 2^1.5 = 22.63 passes, the last at 0.63 of the rate.
    k = for_level(p, 2, 64, 0.5f, 64.0f, 0.75f);
    EXPECT_EQ(k.count, 23);
    EXPECT_NEAR(k.last_rate, 0.75 * (64.0 / std::pow(2.0, 1.5) - 22.0), 1e-5);
    EXPECT_NEAR(k.gk / k.g, std::pow(1.5, 1.5), 1e-5);
}

class ThermalShaperPass : public BackendTest {};

TEST_P(ThermalShaperPass, MatchesTheReferenceAndPitsRise) {
    const int w = 19, h = 11;
    const std::vector<float> in = terrain(w, h, 5);
    std::vector<float> mask(in.size());
    for (std::size_t i = 0; i < mask.size(); ++i) mask[i] = float(i % 7) / 6.0f;
    grid src = upload(*q, in, w, h), dst(*q, src.extent()), m = upload(*q, mask, w, h);
    auto at = [&](int y, int x) { return in[std::size_t(std::clamp(y, 0, h - 1)) * w + std::clamp(x, 0, w - 1)]; };
    // A moderate rate, and a strong one under which the lowering limit binds on steep cells.
    using constants = thermal_shaper::pass_constants;
    for (const constants& k : {constants{0.8f, 1.7f, 1.25f, 0.6f}, constants{1.0f, 1.0f, 1.0f, 50.0f}}) {
        SCOPED_TRACE(k.r);
        // The pass written out plainly, with clamped neighbours.
        std::vector<float> want(in.size()), want_masked(in.size());
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const float nw = at(y - 1, x - 1), n = at(y - 1, x), ne = at(y - 1, x + 1);
                const float we = at(y, x - 1), c = at(y, x), ea = at(y, x + 1);
                const float sw = at(y + 1, x - 1), s = at(y + 1, x), se = at(y + 1, x + 1);
                const float gx = (3.0f * ((ne - (nw + sw)) + se) + 10.0f * (ea - we)) * k.g / 32.0f;
                const float gy = (3.0f * ((ne + nw) - (se + sw)) + 10.0f * (n - s)) * (-k.g / 32.0f);
                const float slope = std::sqrt(gx * gx + gy * gy);
                const float wt = slope > 0.0f ? 1.0f - 1.0f / (1.0f + halden::pow_p(0.1f * slope, 0.7071f)) : 0.0f;
                const float curv =
                    std::fma(nw + ne + sw + se, -0.10355339f, std::fma(n + we + ea + s, -0.14644662f, c));
                const float q = wt * std::min(-(slope + k.gk * curv), 0.0f) * k.r;
                const float limit = -(k.g * std::max(0.7071f * std::max({c - nw, c - ne, c - sw, c - se}),
                                                     std::max({c - n, c - we, c - ea, c - s})));
                const std::size_t i = std::size_t(y) * w + x;
                want[i] = c + std::max(q, limit) * k.e;
                want_masked[i] = c + std::max(q * mask[i], limit) * k.e;
            }
        thermal_shaper::shape_pass<false>(*q, src.get(), dst.get(), w, h, nullptr, k);
        expect_same_bits(download(dst), want);
        thermal_shaper::shape_pass<true>(*q, src.get(), dst.get(), w, h, m.get(), k);
        expect_same_bits(download(dst), want_masked);
    }

    // A pit one below its flat surroundings rises by 0.7071 of its lowest drop.
    std::vector<float> pit(25, 1.0f);
    pit[12] = 0.0f;
    grid p = upload(*q, pit, 5, 5), pout(*q, p.extent());
    thermal_shaper::shape_pass<false>(*q, p.get(), pout.get(), 5, 5, nullptr, {1.0f, 1.0f, 1.0f, 0.5f});
    EXPECT_EQ(download(pout)[12], 0.7071f);
}

HALDEN_INSTANTIATE_ON_BACKENDS(ThermalShaperPass);

class ThermalShaperExport : public DeviceTest {
protected:
    std::uint32_t shape(std::vector<float>& h, const thermal_shaper::Parameters& p, const float* mask = nullptr) {
        return ThermalShaper_Process(queue, h.data(), mask, &p, &capturing_callbacks());
    }
};

TEST_P(ThermalShaperExport, IdentitiesAndTheAmountsSign) {
    const int w = 75, h = 50;
    const std::vector<float> in = terrain(w, h, 9), one(in.size(), 1.0f), zero(in.size(), 0.0f);
    // A flat field, and zero strength, change nothing; a unit mask is no mask.
    const std::vector<float> level(in.size(), 12.5f);
    std::vector<float> flat = level, still = in, ridges = in, ones = in, valleys = in, zeros = in;
    EXPECT_EQ(shape(flat, record(w, h, 0.7f), one.data()), 0u);
    expect_same_bits(flat, level);
    EXPECT_EQ(shape(still, record(w, h, 0.5f, 0.0f)), 0u);
    expect_same_bits(still, in);
    ASSERT_EQ(shape(ridges, record(w, h, -0.5f)), 0u);
    ASSERT_EQ(shape(ones, record(w, h, -0.5f), one.data()), 0u);
    expect_same_bits(ones, ridges);
    // Wearing ridges lowers the high ground; shaping valleys raises the low ground.
    ASSERT_EQ(shape(valleys, record(w, h, 0.5f)), 0u);
    double top_in = 0, top_ridges = 0, bottom_in = 0, bottom_valleys = 0;
    for (std::size_t i = 0; i < in.size(); ++i) {
        if (in[i] > 8.0f) top_in += in[i], top_ridges += ridges[i];
        if (in[i] < -8.0f) bottom_in += in[i], bottom_valleys += valleys[i];
    }
    EXPECT_LT(top_ridges, top_in);
    EXPECT_GT(bottom_valleys, bottom_in);
    // With nothing lowered, passes only raise pits; the pyramid's reconstruction may round.
    ASSERT_EQ(shape(zeros, record(w, h, -0.5f), zero.data()), 0u);
    for (std::size_t i = 0; i < in.size(); ++i) ASSERT_GE(zeros[i], in[i] - 1e-4f) << i;
    EXPECT_EQ(messages().reserved.size(), 6u);
    EXPECT_EQ(messages().released, messages().reserved);
    EXPECT_TRUE(messages().error.empty());
}

TEST_P(ThermalShaperExport, BadInputIsRejectedAndTheHeightsKept) {
    const std::vector<float> in = terrain(16, 16, 11);
    std::vector<float> h = in;
    const thermal_shaper::Parameters p = record(16, 16, 0.5f);
    EXPECT_EQ(ThermalShaper_Process(nullptr, h.data(), nullptr, &p, nullptr), 3u);
    EXPECT_EQ(ThermalShaper_Process(queue, nullptr, nullptr, &p, nullptr), 3u);
    EXPECT_EQ(ThermalShaper_Process(queue, h.data(), nullptr, nullptr, nullptr), 3u);
    messages().clear();
    thermal_shaper::Parameters bad[5] = {p, p, p, p, p};
    bad[0].extent = -1.0f;
    bad[1].width = 0;
    bad[2].amount = std::numeric_limits<float>::quiet_NaN();
    bad[3].height_scale = 1e-30f;  // far too many levels
    // Few levels, but slopes scaled by 16e-60, which is 0 in float.
    bad[4].height_scale = 1e-30f, bad[4].extent = 1e30f, bad[4].level_factor = 1e-31f;
    for (int i = 0; i < 5; ++i) EXPECT_EQ(shape(h, bad[i]), 3u) << i;
    ASSERT_EQ(messages().error.size(), 5u);
    EXPECT_NE(messages().error[0].find("ThermalShaper_Process: extent"), std::string::npos) << messages().error[0];
    EXPECT_TRUE(messages().reserved.empty());
    expect_same_bits(h, in);
}

HALDEN_INSTANTIATE_ON_DEVICES(ThermalShaperExport);

TEST(ThermalShaperDevices, CpuAndCudaAgree) {
    const std::string cuda = first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int w = 301, h = 207;
    const std::vector<float> in = terrain(w, h, 12);
    std::vector<float> mask(in.size());
    for (std::size_t i = 0; i < mask.size(); ++i) mask[i] = float(i % 11) / 10.0f;
    auto on = [&](const std::string& key, float amount, const float* m) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        std::vector<float> out = in;
        const thermal_shaper::Parameters p = record(w, h, amount, 0.8f);
        EXPECT_EQ(ThermalShaper_Process(q, out.data(), m, &p, nullptr), 0u) << key;
        DestroySyclQueue(q);
        return out;
    };
    expect_same_bits(on(cuda, -0.6f, nullptr), on("cpu", -0.6f, nullptr));
    expect_same_bits(on(cuda, 0.45f, mask.data()), on("cpu", 0.45f, mask.data()));
}

}  // namespace
