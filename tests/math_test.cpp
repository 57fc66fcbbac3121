// SPDX-License-Identifier: Apache-2.0
// Portable math: error in ulps against double-precision libm over dense sweeps,
// exact cases, special values, and min/max on NaN and signed zeros.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>

#include "core/bits.hpp"
#include "core/math.hpp"

namespace {

using halden::bits_float, halden::exp2_p, halden::float_bits, halden::log2_p, halden::max_of, halden::min_of,
    halden::pow_p, halden::tanh_p;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// The largest error seen and where, in float spacings at the exact value (2^-149
// among subnormals). Where that value rounds to an infinity, only the infinity scores 0.
struct worst {
    double ulp = 0;
    float x = 0, y = 0;
    void note(float got, double ref, float at, float at_y = 0) {
        const double e = std::isinf(float(ref)) || !std::isfinite(got)
                             ? (got == float(ref) ? 0.0 : kInf)
                             : std::fabs(got - ref) / std::ldexp(1.0, std::max(std::ilogb(ref), -126) - 23);
        if (e > ulp) ulp = e, x = at, y = at_y;
    }
};

TEST(Math, ErrorsWithinUlpBounds) {
    worst e, l, p, t;
    auto exp2_at = [&](float x) { e.note(exp2_p(x), std::exp2(double(x)), x); };
    auto log2_at = [&](float x) { l.note(log2_p(x), std::log2(double(x)), x); };
    auto pow_at = [&](float x, float y) { p.note(pow_p(x, y), std::pow(double(x), double(y)), x, y); };
    auto tanh_at = [&](float x) { t.note(tanh_p(x), std::tanh(double(x)), x); };
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> ts(-149.0f, 128.0f), near_one(0.5f, 2.0f);
    // The whole finite-result range, subnormals included.
    for (float x = -160.0f; x < 129.0f; x += 1.0f / 4096) exp2_at(x);
    // Every binade, then densely around 1, where the result is small and relative error shows.
    for (std::uint32_t u = 1; u < 0x7f800000u; u += 997) log2_at(bits_float(u));
    for (std::uint32_t u = float_bits(0.5f); u < float_bits(2.0f); u += 13) log2_at(bits_float(u));
    // A log-spaced grid, then y * log2(x) across the whole exponent range, which magnifies
    // any error in the logarithm most.
    for (int i = 0; i <= 1000; ++i)
        for (int j = 0; j <= 800; ++j)
            pow_at(i == 0 ? 0.0f : 1e4f * std::pow(1e-9f, float(1000 - i) / 1000), -4.0f + j / 100.0f);
    for (int i = 0; i < 200000; ++i)
        if (const float x = near_one(rng); x != 1.0f) pow_at(x, ts(rng) / std::log2(x));
    // A fine grid, then every float either side of the switch from series to exponential.
    for (float x = -10.0f; x <= 10.0f; x += 1.0f / 16384) tanh_at(x);
    for (std::uint32_t u = float_bits(0.49f); u < float_bits(0.51f); ++u) tanh_at(bits_float(u));
    EXPECT_LE(e.ulp, 1.0) << "exp2 at " << std::hexfloat << e.x;
    EXPECT_LE(l.ulp, 0.75) << "log2 at " << std::hexfloat << l.x;
    EXPECT_LE(p.ulp, 1.25) << "pow at " << std::hexfloat << p.x << ", " << p.y;
    EXPECT_LE(t.ulp, 1.75) << "tanh at " << std::hexfloat << t.x;
}

// An expression, its value and the value it must have: the same bits, or any NaN for a NaN.
struct exact { const char* what; float got, want; };
#define EXACT(e, want) exact{#e, e, want}
void expect_all(std::initializer_list<exact> cases) {
    for (const exact& c : cases)
        EXPECT_TRUE(std::isnan(c.want) ? std::isnan(c.got) : float_bits(c.got) == float_bits(c.want))
            << c.what << " gave " << std::hexfloat << c.got << ", want " << c.want;
}

TEST(Math, ExactCasesAndSpecialValues) {
    for (int k = -149; k <= 127; ++k)
        expect_all({EXACT(exp2_p(float(k)), std::ldexp(1.0f, k)), EXACT(log2_p(std::ldexp(1.0f, k)), float(k)),
                    EXACT(pow_p(2.0f, float(k)), std::ldexp(1.0f, k))});
    // A first power gives the base back, up to the largest float.
    for (std::uint32_t u = 1; u < 0x7f800000u; u += 4099) EXPECT_EQ(pow_p(bits_float(u), 1.0f), bits_float(u)) << u;
    const float max = std::numeric_limits<float>::max(), tiny = std::numeric_limits<float>::denorm_min();
    expect_all({EXACT(pow_p(max, 1.0f), max), EXACT(pow_p(4.0f, 0.5f), 2.0f), EXACT(pow_p(0.25f, -1.5f), 8.0f),
                EXACT(tanh_p(-0.0f), -0.0f), EXACT(tanh_p(1e-30f), 1e-30f), EXACT(tanh_p(9.0f), 1.0f),
                EXACT(tanh_p(-kInf), -1.0f), EXACT(tanh_p(kNaN), kNaN), EXACT(exp2_p(kNaN), kNaN),
                EXACT(exp2_p(-kInf), 0.0f), EXACT(exp2_p(128.0f), kInf),
                EXACT(exp2_p(-149.5f), tiny),  // 0.71 of the smallest subnormal rounds up to it
                EXACT(exp2_p(-150.0f), 0.0f),  // exactly half of it: a tie, to even
                EXACT(log2_p(-tiny), kNaN), EXACT(log2_p(-0.0f), -kInf), EXACT(log2_p(kInf), kInf),
                EXACT(pow_p(2.0f, kNaN), kNaN), EXACT(pow_p(kInf, -0.5f), 0.0f), EXACT(pow_p(0.5f, -kInf), kInf),
                EXACT(pow_p(10.0f, 39.0f), kInf), EXACT(pow_p(10.0f, -46.0f), 0.0f)});
    // x^0 and 1^x are 1, NaNs included; zero bases give 0 or infinity; negative bases give NaN.
    for (float x : {0.0f, -0.0f, 2.0f, -2.0f, kInf, kNaN})
        expect_all({EXACT(pow_p(x, 0.0f), 1.0f), EXACT(pow_p(x, -0.0f), 1.0f), EXACT(pow_p(1.0f, x), 1.0f)});
    for (float z : {0.0f, -0.0f})
        expect_all({EXACT(pow_p(z, 3.0f), 0.0f), EXACT(pow_p(z, -1.0f), kInf), EXACT(pow_p(z, kNaN), kNaN)});
    for (float x : {-1e-30f, -8.0f, -kInf}) expect_all({EXACT(pow_p(x, 2.0f), kNaN), EXACT(pow_p(x, 1.0f / 3), kNaN)});
}

// The first argument wins on NaN or equality, so signed zeros come out the same on every device.
TEST(Math, MinMaxTakeTheFirstArgumentOnNaNOrEquality) {
    expect_all({EXACT(max_of(1.0f, 2.0f), 2.0f), EXACT(min_of(2.0f, 1.0f), 1.0f), EXACT(max_of(kNaN, 1.0f), kNaN),
                EXACT(max_of(1.0f, kNaN), 1.0f), EXACT(min_of(kNaN, 1.0f), kNaN), EXACT(min_of(1.0f, kNaN), 1.0f),
                EXACT(max_of(0.0f, -0.0f), 0.0f), EXACT(max_of(-0.0f, 0.0f), -0.0f), EXACT(min_of(0.0f, -0.0f), 0.0f),
                EXACT(min_of(-0.0f, 0.0f), -0.0f)});
}

}  // namespace
