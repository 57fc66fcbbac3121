// SPDX-License-Identifier: Apache-2.0
// Portable math: error in ulps against double-precision libm over dense sweeps,
// exact cases, special values, monotonicity, and min/max on NaN and signed zeros.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>

#include "core/bits.hpp"
#include "core/math.hpp"

namespace {

using halden::bits_float;
using halden::exp2_p;
using halden::float_bits;
using halden::log2_p;
using halden::max_of;
using halden::min_of;
using halden::pow_p;
using halden::tanh_p;

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
    void note(double e, float at, float at_y = 0) {
        if (e > ulp) {
            ulp = e;
            x = at;
            y = at_y;
        }
    }
};

::testing::AssertionResult within(const worst& w, double bound) {
    if (w.ulp <= bound) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << w.ulp << " ulp at x = " << std::hexfloat << w.x
                                         << ", y = " << w.y;
}

TEST(Math, Exp2WithinOneUlp) {
    worst w;
    // Every 2^-12 across the whole finite-result range, subnormal results included.
    for (float x = -160.0f; x < 129.0f; x += 1.0f / 4096)
        w.note(ulp_error(exp2_p(x), std::exp2(double(x))), x);
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> small(-1.0f, 1.0f);
    for (int i = 0; i < 200000; ++i) {
        const float x = small(rng) * std::ldexp(1.0f, -(i % 40));
        w.note(ulp_error(exp2_p(x), std::exp2(double(x))), x);
    }
    EXPECT_TRUE(within(w, 1.0));
}

TEST(Math, Log2WithinThreeQuartersUlp) {
    worst w;
    // Bit patterns in even steps: log-spaced over every positive float,
    // subnormals included.
    for (std::uint32_t u = 1; u < 0x7f800000u; u += 997) {
        const float x = bits_float(u);
        w.note(ulp_error(log2_p(x), std::log2(double(x))), x);
    }
    // Densely around 1, where the result is small and its relative error shows.
    for (std::uint32_t u = float_bits(0.5f); u < float_bits(2.0f); u += 13) {
        const float x = bits_float(u);
        w.note(ulp_error(log2_p(x), std::log2(double(x))), x);
    }
    EXPECT_TRUE(within(w, 0.75));
}

TEST(Math, PowWithinOneAndAQuarterUlp) {
    worst w;
    auto check = [&](float x, float y) {
        w.note(ulp_error(pow_p(x, y), std::pow(double(x), double(y))), x, y);
    };
    // A grid over x in [0, 1e4], y in [-4, 4].
    for (int i = 0; i <= 1000; ++i) {
        const float x = i == 0 ? 0.0f : 1e4f * std::pow(1e-9f, float(1000 - i) / 1000);
        for (int j = 0; j <= 800; ++j) check(x, -4.0f + j / 100.0f);
    }
    // Random pairs, and pairs whose y * log2(x) spans the whole exponent range,
    // where any error in the logarithm is magnified most.
    std::mt19937 rng(2);
    std::uniform_real_distribution<float> xs(0.0f, 1e4f), ys(-4.0f, 4.0f), ts(-149.0f, 128.0f),
        near_one(0.5f, 2.0f);
    for (int i = 0; i < 200000; ++i) {
        check(xs(rng), ys(rng));
        const float x = near_one(rng);
        if (x != 1.0f) check(x, ts(rng) / std::log2(x));
    }
    EXPECT_TRUE(within(w, 1.25));
}

TEST(Math, TanhWithinOneAndThreeQuartersUlp) {
    worst w;
    for (float x = -10.0f; x <= 10.0f; x += 1.0f / 16384)
        w.note(ulp_error(tanh_p(x), std::tanh(double(x))), x);
    // Every float either side of the switch from the series to the exponential.
    for (std::uint32_t u = float_bits(0.49f); u < float_bits(0.51f); ++u) {
        const float x = bits_float(u);
        w.note(ulp_error(tanh_p(x), std::tanh(double(x))), x);
    }
    for (int k = 1; k <= 149; ++k) {
        const float x = std::ldexp(1.3f, -k);
        w.note(ulp_error(tanh_p(x), std::tanh(double(x))), x);
    }
    EXPECT_TRUE(within(w, 1.75));
}

TEST(Math, ExactCases) {
    for (int k = -149; k <= 127; ++k) {
        const float p = std::ldexp(1.0f, k);
        EXPECT_EQ(exp2_p(float(k)), p) << k;
        EXPECT_EQ(log2_p(p), float(k)) << k;
        EXPECT_EQ(pow_p(2.0f, float(k)), p) << k;
    }
    EXPECT_EQ(exp2_p(3.0f), 8.0f);
    EXPECT_EQ(exp2_p(-1.0f), 0.5f);
    EXPECT_EQ(exp2_p(0.0f), 1.0f);
    EXPECT_EQ(exp2_p(-0.0f), 1.0f);
    EXPECT_EQ(log2_p(1.0f), 0.0f);
    EXPECT_EQ(log2_p(8.0f), 3.0f);
    EXPECT_EQ(pow_p(4.0f, 0.5f), 2.0f);
    EXPECT_EQ(pow_p(0.25f, -1.5f), 8.0f);
    // Integer powers of small integers come out exact whenever the float can hold them.
    for (int a = 2; a <= 64; ++a)
        for (int b = -8; b <= 8; ++b) {
            const double r = std::pow(double(a), b);
            if (double(float(r)) == r && std::isfinite(float(r))) {
                EXPECT_EQ(pow_p(float(a), float(b)), float(r)) << a << "^" << b;
            }
        }
    // A first power gives the base back, up to the largest float.
    for (std::uint32_t u = 1; u < 0x7f800000u; u += 4099) {
        const float x = bits_float(u);
        EXPECT_EQ(pow_p(x, 1.0f), x) << std::hexfloat << x;
    }
    EXPECT_EQ(pow_p(std::numeric_limits<float>::max(), 1.0f), std::numeric_limits<float>::max());
    EXPECT_EQ(float_bits(tanh_p(0.0f)), float_bits(0.0f));
    EXPECT_EQ(float_bits(tanh_p(-0.0f)), float_bits(-0.0f));
    EXPECT_EQ(tanh_p(1e-30f), 1e-30f);
    EXPECT_EQ(tanh_p(9.0f), 1.0f);
    EXPECT_EQ(tanh_p(-20.0f), -1.0f);
}

TEST(Math, SpecialValues) {
    const float tiny = std::numeric_limits<float>::denorm_min();
    EXPECT_TRUE(std::isnan(exp2_p(kNaN)));
    EXPECT_EQ(exp2_p(kInf), kInf);
    EXPECT_EQ(exp2_p(-kInf), 0.0f);
    EXPECT_EQ(exp2_p(128.0f), kInf);
    EXPECT_EQ(exp2_p(-149.0f), tiny);
    EXPECT_EQ(exp2_p(-149.5f), tiny);  // 0.71 of the smallest subnormal rounds up to it
    EXPECT_EQ(exp2_p(-150.0f), 0.0f);  // exactly half of it: a tie, to even
    EXPECT_EQ(exp2_p(-1000.0f), 0.0f);

    EXPECT_TRUE(std::isnan(log2_p(kNaN)));
    EXPECT_TRUE(std::isnan(log2_p(-1.0f)));
    EXPECT_TRUE(std::isnan(log2_p(-tiny)));
    EXPECT_TRUE(std::isnan(log2_p(-kInf)));
    EXPECT_EQ(log2_p(0.0f), -kInf);
    EXPECT_EQ(log2_p(-0.0f), -kInf);
    EXPECT_EQ(log2_p(kInf), kInf);
    EXPECT_EQ(log2_p(tiny), -149.0f);

    // Any base to the power 0, and 1 to any power, is 1, NaNs included.
    for (float x : {0.0f, -0.0f, 1.0f, 3.0f, -2.0f, kInf, -kInf, kNaN}) {
        EXPECT_EQ(pow_p(x, 0.0f), 1.0f) << x;
        EXPECT_EQ(pow_p(x, -0.0f), 1.0f) << x;
    }
    for (float y : {2.0f, -2.0f, 0.5f, kInf, -kInf, kNaN}) EXPECT_EQ(pow_p(1.0f, y), 1.0f) << y;
    for (float z : {0.0f, -0.0f}) {
        EXPECT_EQ(float_bits(pow_p(z, 2.0f)), float_bits(0.0f));
        EXPECT_EQ(float_bits(pow_p(z, 3.0f)), float_bits(0.0f));
        EXPECT_EQ(pow_p(z, -1.0f), kInf);
        EXPECT_EQ(pow_p(z, -kInf), kInf);
        EXPECT_TRUE(std::isnan(pow_p(z, kNaN)));
    }
    // Only non-negative bases are taken: every negative one gives NaN.
    for (float x : {-1e-30f, -2.0f, -8.0f, -kInf}) {
        EXPECT_TRUE(std::isnan(pow_p(x, 2.0f))) << x;
        EXPECT_TRUE(std::isnan(pow_p(x, 1.0f / 3))) << x;
    }
    EXPECT_TRUE(std::isnan(pow_p(kNaN, 2.0f)));
    EXPECT_TRUE(std::isnan(pow_p(2.0f, kNaN)));
    EXPECT_EQ(pow_p(kInf, 0.5f), kInf);
    EXPECT_EQ(pow_p(kInf, -0.5f), 0.0f);
    EXPECT_EQ(pow_p(2.0f, kInf), kInf);
    EXPECT_EQ(pow_p(2.0f, -kInf), 0.0f);
    EXPECT_EQ(pow_p(0.5f, kInf), 0.0f);
    EXPECT_EQ(pow_p(0.5f, -kInf), kInf);
    EXPECT_EQ(pow_p(10.0f, 39.0f), kInf);
    EXPECT_EQ(pow_p(10.0f, -46.0f), 0.0f);
    EXPECT_EQ(pow_p(1e4f, 1e30f), kInf);

    EXPECT_TRUE(std::isnan(tanh_p(kNaN)));
    EXPECT_EQ(tanh_p(kInf), 1.0f);
    EXPECT_EQ(tanh_p(-kInf), -1.0f);
}

// Never decreasing on grids of step 2^-12, which cross every seam (where the
// exponential's integer part steps, where tanh switches formula or saturates).
// Consecutive floats need not be ordered: where many inputs share one output
// ulp, a 1-ulp error can step back (exp2 near 0 and tanh do, rarely).
TEST(Math, MonotoneOnFineGrids) {
    auto nondecreasing = [](auto f, double lo, double hi) {
        float prev = f(float(lo));
        for (double x = lo; x <= hi; x += 1.0 / 4096) {
            const float cur = f(float(x));
            if (cur < prev) return ::testing::AssertionFailure() << "drops at " << x;
            prev = cur;
        }
        return ::testing::AssertionSuccess();
    };
    EXPECT_TRUE(nondecreasing(exp2_p, -150, 128));
    EXPECT_TRUE(nondecreasing(tanh_p, -10, 10));
    EXPECT_TRUE(nondecreasing([](float y) { return pow_p(3.0f, y); }, -60, 60));
    EXPECT_TRUE(nondecreasing([](float x) { return pow_p(x, 0.4545f); }, 0, 100));
    EXPECT_TRUE(nondecreasing([](float x) { return -pow_p(x, -2.2f); }, 0, 100));
    // The logarithm holds even over consecutive floats, across its fold at
    // sqrt(2) and through 1, and in bit-pattern steps over all positive floats.
    float prev = -kInf;
    for (std::uint32_t u = float_bits(0.5f); u <= float_bits(2.0f); ++u) {
        const float cur = log2_p(bits_float(u));
        ASSERT_GE(cur, prev) << std::hexfloat << bits_float(u);
        prev = cur;
    }
    prev = -kInf;
    for (std::uint32_t u = 0; u < 0x7f800000u; u += 997) {
        const float cur = log2_p(bits_float(u));
        ASSERT_GE(cur, prev) << std::hexfloat << bits_float(u);
        prev = cur;
    }
}

TEST(Math, MinMaxTakeTheFirstArgumentOnNaNOrEquality) {
    EXPECT_EQ(max_of(1.0f, 2.0f), 2.0f);
    EXPECT_EQ(max_of(2.0f, 1.0f), 2.0f);
    EXPECT_EQ(min_of(1.0f, 2.0f), 1.0f);
    EXPECT_EQ(min_of(2.0f, 1.0f), 1.0f);
    EXPECT_EQ(max_of(-kInf, kInf), kInf);
    EXPECT_EQ(min_of(-kInf, kInf), -kInf);

    EXPECT_TRUE(std::isnan(max_of(kNaN, 1.0f)));
    EXPECT_EQ(max_of(1.0f, kNaN), 1.0f);
    EXPECT_TRUE(std::isnan(min_of(kNaN, 1.0f)));
    EXPECT_EQ(min_of(1.0f, kNaN), 1.0f);

    EXPECT_EQ(float_bits(max_of(0.0f, -0.0f)), float_bits(0.0f));
    EXPECT_EQ(float_bits(max_of(-0.0f, 0.0f)), float_bits(-0.0f));
    EXPECT_EQ(float_bits(min_of(0.0f, -0.0f)), float_bits(0.0f));
    EXPECT_EQ(float_bits(min_of(-0.0f, 0.0f)), float_bits(-0.0f));
}

}  // namespace
