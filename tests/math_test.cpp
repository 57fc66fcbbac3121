// SPDX-License-Identifier: Apache-2.0
// Portable math: error in ulps against double-precision libm over dense sweeps,
// exact cases, special values, and min/max on NaN and signed zeros.
#include <gtest/gtest.h>

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

// Distance of got from the exact value ref, in units of the float spacing at
// ref (a fixed 2^-149 among subnormals); a correctly rounded result scores at
// most 0.5. Where ref rounds to an infinity, only that infinity scores 0.
double ulp_error(float got, double ref) {
    if (std::isnan(ref)) return std::isnan(got) ? 0.0 : kInf;
    if (std::isinf(static_cast<float>(ref))) return got == static_cast<float>(ref) ? 0.0 : kInf;
    if (!std::isfinite(got)) return kInf;
    double spacing = std::ldexp(1.0, -149);
    if (std::fabs(ref) >= std::ldexp(1.0, -126)) spacing = std::ldexp(1.0, std::ilogb(ref) - 23);
    return std::fabs(static_cast<double>(got) - ref) / spacing;
}

// The largest error seen, with the input that caused it for the failure message.
struct worst {
    double ulp = 0;
    float x = 0, y = 0;
    void note(float got, double ref, float at, float at_y = 0) {
        if (const double e = ulp_error(got, ref); e > ulp) ulp = e, x = at, y = at_y;
    }
    ::testing::AssertionResult within(double bound) const {
        if (ulp <= bound) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << ulp << " ulp at x = " << std::hexfloat << x << ", y = " << y;
    }
};

TEST(Math, ErrorsWithinUlpBounds) {
    worst e, l, p, t;  // exp2, log2, pow, tanh
    auto check_exp2 = [&](float x) { e.note(exp2_p(x), std::exp2(double(x)), x); };
    auto check_log2 = [&](float x) { l.note(log2_p(x), std::log2(double(x)), x); };
    auto check_pow = [&](float x, float y) { p.note(pow_p(x, y), std::pow(double(x), double(y)), x, y); };
    auto check_tanh = [&](float x) { t.note(tanh_p(x), std::tanh(double(x)), x); };
    // exp2: every 2^-12 across the whole finite-result range, subnormal results
    // included, then small random arguments at every scale down to 2^-39.
    for (float x = -160.0f; x < 129.0f; x += 1.0f / 4096) check_exp2(x);
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> small(-1.0f, 1.0f);
    for (int i = 0; i < 200000; ++i) check_exp2(small(rng) * std::ldexp(1.0f, -(i % 40)));
    // log2: log-spaced bit patterns over every positive float, subnormals included,
    // then densely around 1, where the result is small and its relative error shows.
    for (std::uint32_t u = 1; u < 0x7f800000u; u += 997) check_log2(bits_float(u));
    for (std::uint32_t u = float_bits(0.5f); u < float_bits(2.0f); u += 13) check_log2(bits_float(u));
    // pow: a grid over x in [0, 1e4] and y in [-4, 4], random pairs, and pairs whose y * log2(x)
    // spans the whole exponent range, where any error in the logarithm is magnified most.
    for (int i = 0; i <= 1000; ++i)
        for (int j = 0; j <= 800; ++j)
            check_pow(i == 0 ? 0.0f : 1e4f * std::pow(1e-9f, float(1000 - i) / 1000), -4.0f + j / 100.0f);
    rng.seed(2);
    std::uniform_real_distribution<float> xs(0.0f, 1e4f), ys(-4.0f, 4.0f), ts(-149.0f, 128.0f), near_one(0.5f, 2.0f);
    for (int i = 0; i < 200000; ++i) {
        check_pow(xs(rng), ys(rng));
        const float x = near_one(rng);
        if (x != 1.0f) check_pow(x, ts(rng) / std::log2(x));
    }
    // tanh: a fine grid, every float either side of the switch from series to exponential, tiny ones.
    for (float x = -10.0f; x <= 10.0f; x += 1.0f / 16384) check_tanh(x);
    for (std::uint32_t u = float_bits(0.49f); u < float_bits(0.51f); ++u) check_tanh(bits_float(u));
    for (int k = 1; k <= 149; ++k) check_tanh(std::ldexp(1.3f, -k));
    EXPECT_TRUE(e.within(1.0)) << "exp2";
    EXPECT_TRUE(l.within(0.75)) << "log2";
    EXPECT_TRUE(p.within(1.25)) << "pow";
    EXPECT_TRUE(t.within(1.75)) << "tanh";
}

// An expression, its value and the value it must have: the same bits, or any NaN for a NaN.
struct exact { const char* what; float got, want; };
#define EXACT(e, want) exact{#e, e, want}
void expect_all(std::initializer_list<exact> cases) {
    for (const exact& c : cases)
        EXPECT_TRUE(std::isnan(c.want) ? std::isnan(c.got) : float_bits(c.got) == float_bits(c.want))
            << c.what << " gave " << std::hexfloat << c.got << ", want " << c.want;
}

TEST(Math, ExactCases) {
    for (int k = -149; k <= 127; ++k) {
        const float p = std::ldexp(1.0f, k);
        expect_all({EXACT(exp2_p(float(k)), p), EXACT(log2_p(p), float(k)), EXACT(pow_p(2.0f, float(k)), p)});
    }
    // Integer powers of small integers come out exact whenever the float can hold them.
    for (int a = 2; a <= 64; ++a)
        for (int b = -8; b <= 8; ++b)
            if (const double r = std::pow(double(a), b); double(float(r)) == r && std::isfinite(float(r))) {
                EXPECT_EQ(pow_p(float(a), float(b)), float(r)) << a << "^" << b;
            }
    // A first power gives the base back, up to the largest float.
    for (std::uint32_t u = 1; u < 0x7f800000u; u += 4099) EXPECT_EQ(pow_p(bits_float(u), 1.0f), bits_float(u)) << u;
    const float max = std::numeric_limits<float>::max();
    expect_all({EXACT(pow_p(max, 1.0f), max), EXACT(exp2_p(-0.0f), 1.0f), EXACT(pow_p(4.0f, 0.5f), 2.0f),
                EXACT(pow_p(0.25f, -1.5f), 8.0f), EXACT(tanh_p(0.0f), 0.0f), EXACT(tanh_p(-0.0f), -0.0f),
                EXACT(tanh_p(1e-30f), 1e-30f), EXACT(tanh_p(9.0f), 1.0f), EXACT(tanh_p(-20.0f), -1.0f)});
}

TEST(Math, SpecialValues) {
    const float tiny = std::numeric_limits<float>::denorm_min();
    expect_all({EXACT(exp2_p(kNaN), kNaN), EXACT(exp2_p(kInf), kInf), EXACT(exp2_p(-kInf), 0.0f),
                EXACT(exp2_p(128.0f), kInf),
                EXACT(exp2_p(-149.5f), tiny),  // 0.71 of the smallest subnormal rounds up to it
                EXACT(exp2_p(-150.0f), 0.0f),  // exactly half of it: a tie, to even
                EXACT(exp2_p(-1000.0f), 0.0f), EXACT(log2_p(kNaN), kNaN), EXACT(log2_p(-1.0f), kNaN),
                EXACT(log2_p(-tiny), kNaN), EXACT(log2_p(-kInf), kNaN), EXACT(log2_p(0.0f), -kInf),
                EXACT(log2_p(-0.0f), -kInf), EXACT(log2_p(kInf), kInf),
                EXACT(pow_p(kNaN, 2.0f), kNaN), EXACT(pow_p(2.0f, kNaN), kNaN), EXACT(pow_p(kInf, 0.5f), kInf),
                EXACT(pow_p(kInf, -0.5f), 0.0f), EXACT(pow_p(2.0f, kInf), kInf), EXACT(pow_p(2.0f, -kInf), 0.0f),
                EXACT(pow_p(0.5f, kInf), 0.0f), EXACT(pow_p(0.5f, -kInf), kInf), EXACT(pow_p(10.0f, 39.0f), kInf),
                EXACT(pow_p(10.0f, -46.0f), 0.0f), EXACT(pow_p(1e4f, 1e30f), kInf), EXACT(tanh_p(kNaN), kNaN),
                EXACT(tanh_p(kInf), 1.0f), EXACT(tanh_p(-kInf), -1.0f)});
    // Any base to the power 0, and 1 to any power, is 1, NaNs included.
    for (float x : {0.0f, -0.0f, 0.5f, 1.0f, 2.0f, 3.0f, -2.0f, kInf, -kInf, kNaN}) {
        SCOPED_TRACE(x);
        expect_all({EXACT(pow_p(x, 0.0f), 1.0f), EXACT(pow_p(x, -0.0f), 1.0f), EXACT(pow_p(1.0f, x), 1.0f)});
    }
    for (float z : {0.0f, -0.0f}) {
        SCOPED_TRACE(z);
        expect_all({EXACT(pow_p(z, 2.0f), 0.0f), EXACT(pow_p(z, 3.0f), 0.0f), EXACT(pow_p(z, -1.0f), kInf),
                    EXACT(pow_p(z, -kInf), kInf), EXACT(pow_p(z, kNaN), kNaN)});
    }
    // Only non-negative bases are taken: every negative one gives NaN.
    for (float x : {-1e-30f, -2.0f, -8.0f, -kInf}) {
        SCOPED_TRACE(x);
        expect_all({EXACT(pow_p(x, 2.0f), kNaN), EXACT(pow_p(x, 1.0f / 3), kNaN)});
    }
}

// Never decreasing on grids of step 2^-12, which cross every seam. Consecutive
// floats need not be ordered: where many inputs share one output ulp, a 1-ulp
// error can step back (exp2 near 0 and tanh do, rarely).
TEST(Math, MinMaxTakeTheFirstArgumentOnNaNOrEquality) {
    expect_all({EXACT(max_of(1.0f, 2.0f), 2.0f), EXACT(max_of(2.0f, 1.0f), 2.0f), EXACT(min_of(1.0f, 2.0f), 1.0f),
                EXACT(min_of(2.0f, 1.0f), 1.0f), EXACT(max_of(-kInf, kInf), kInf), EXACT(min_of(-kInf, kInf), -kInf),
                EXACT(max_of(kNaN, 1.0f), kNaN), EXACT(max_of(1.0f, kNaN), 1.0f), EXACT(min_of(kNaN, 1.0f), kNaN),
                EXACT(min_of(1.0f, kNaN), 1.0f), EXACT(max_of(0.0f, -0.0f), 0.0f), EXACT(max_of(-0.0f, 0.0f), -0.0f),
                EXACT(min_of(0.0f, -0.0f), 0.0f), EXACT(min_of(-0.0f, 0.0f), -0.0f)});
}

}  // namespace
