// SPDX-License-Identifier: Apache-2.0
// Single-precision exp2, log2, pow and tanh that give the same bits on host
// and device. Only + - * /, fma, comparisons and bit manipulation are used, all
// correctly rounded on both back-ends (host: -ffp-contract=off; device:
// --fmad=false with IEEE division), so no libm transcendental ever decides a bit.
#pragma once

#include <cmath>
#include <cstdint>

#include "compute/types.hpp"
#include "core/bits.hpp"

namespace halden {

// Returns the first argument when either is NaN or they compare equal (so
// max_of(+0, -0) is +0 and max_of(-0, +0) is -0), identically on both back-ends.
HALDEN_HD inline float max_of(float a, float b) { return a < b ? b : a; }
HALDEN_HD inline float min_of(float a, float b) { return b < a ? b : a; }

namespace detail {

HALDEN_HD inline float fma_f(float a, float b, float c) {
#if defined(__CUDA_ARCH__)
    return fmaf(a, b, c);
#else
    return std::fma(a, b, c);
#endif
}

inline constexpr float kInf = __builtin_huge_valf();
inline constexpr float kNaN = __builtin_nanf("");

// 2^n for n in [-126, 127], straight from the exponent field.
HALDEN_HD inline float pow2i(int n) { return bits_float(std::uint32_t(n + 127) << 23); }

// Nearest integer, ties to even, for |x| < 2^22: adding 1.5 * 2^23 pushes the
// fraction out of the significand, and subtracting it back is exact.
HALDEN_HD inline float round_near(float x) { return (x + 12582912.0f) - 12582912.0f; }

// 2^f * 2^k for |f| <= ~0.5 and k in [-160, 128]. Taylor series of 2^f to
// degree 7 (truncation < 0.1 ulp); the constant term comes last, so f == 0
// yields exactly 1. The scale is applied in two halves so that each factor is
// a normal float and the only rounding into subnormals is the final multiply.
HALDEN_HD inline float exp2_scaled(float f, int k) {
    float p = 1.52527338e-5f;
    p = fma_f(p, f, 1.54035304e-4f);
    p = fma_f(p, f, 1.33335581e-3f);
    p = fma_f(p, f, 9.61812911e-3f);
    p = fma_f(p, f, 5.55041087e-2f);
    p = fma_f(p, f, 2.40226507e-1f);
    p = fma_f(p, f, 6.93147181e-1f);
    p = fma_f(p, f, 1.0f);
    const int k1 = k / 2;
    return p * pow2i(k1) * pow2i(k - k1);
}

// 2^(th + tl), tl being within about an ulp of th: the pair is never summed,
// as th alone cannot hold tl's bits once it is large.
HALDEN_HD inline float exp2_sum(float th, float tl) {
    // th == 128 may still be finite when tl < 0, and the scaling overflows by
    // itself otherwise.
    if (th > 128.0f) return kInf;
    if (th < -160.0f) return 0.0f;
    const float k = round_near(th);
    return exp2_scaled((th - k) + tl, int(k));  // th - k is exact (Sterbenz)
}

// log2(e) = kLog2eHi + kLog2eLo, for arguments that need more than float.
inline constexpr float kLog2eHi = 1.44269502f, kLog2eLo = 1.92596303e-8f;

// log2(x) as an unevaluated sum hi + lo, within 2^-34 relative (measured),
// for finite x > 0; pow needs the extra bits because y * log2(x) amplifies
// the absolute error of the logarithm.
HALDEN_HD inline void log2_parts(float x, float& hi, float& lo) {
    int e = 0;
    if (x < 1.17549435e-38f) {  // subnormal: normalise first
        x *= 8388608.0f;
        e = -23;
    }
    std::uint32_t u = float_bits(x);
    e += int(u >> 23) - 127;
    u = (u & 0x007fffffu) | 0x3f800000u;  // m in [1, 2)
    if (u > 0x3fb504f3u) {                // fold to m in [sqrt(1/2), sqrt(2)]
        u -= 0x00800000u;
        e += 1;
    }
    const float m = bits_float(u);
    // s = (m - 1) / (m + 1) as q + ql: m - 1 is exact, the rounding of m + 1
    // is recovered exactly (de), and fma gives the division's exact remainder.
    const float num = m - 1.0f;
    const float den = m + 1.0f;
    const float de = m - (den - 1.0f);
    const float q = num / den;
    const float ql = (fma_f(-q, den, num) - q * de) / den;
    // ln m = 2s + (2/3) s^3 + s^5 (2/5 + 2/7 s^2 + ...), |s| <= 0.172. The 2s
    // and s^3 terms need more than float, so s^2, s^3 and 2/3 are carried as
    // value + correction; even the s^5 term needs ql's share (5 ql / q).
    constexpr float kC = 0.666666687f, kCLo = -1.98682149e-8f;  // 2/3
    const float s2 = q * q;
    const float s2l = fma_f(q, q, -s2) + 2.0f * q * ql;
    const float s3 = s2 * q;
    const float s3l = fma_f(s2, q, -s3) + (s2l * q + s2 * ql);
    float t = 0.153846154f;
    t = fma_f(t, s2, 0.181818182f);
    t = fma_f(t, s2, 0.222222222f);
    t = fma_f(t, s2, 0.285714286f);
    t = fma_f(t, s2, 0.4f);
    const float s5t = fma_f(fma_f(s3, s2l, s3l * s2), t, s3 * s2 * t);
    const float a = 2.0f * q;
    const float b = kC * s3;
    const float c = (fma_f(kC, s3, -b) + 2.0f * ql) + (fma_f(kC, s3l, kCLo * s3) + s5t);
    // log2 m = (a + b + c) * log2(e): both large products are kept exact, and
    // |pa| >= |pb| makes (pa - h) + pb the exact rounding error of their sum.
    const float pa = a * kLog2eHi, pb = b * kLog2eHi;
    const float h = pa + pb;
    const float l = (((pa - h) + pb) + (fma_f(a, kLog2eHi, -pa) + fma_f(b, kLog2eHi, -pb))) +
                    fma_f(a + b, kLog2eLo, c * kLog2eHi);
    // Add the exponent: |e| >= 1 > |h| or e == 0, so the fast two-sum is exact.
    const float fe = float(e);
    const float sh = fe + h;
    const float sl = ((fe - sh) + h) + l;
    hi = sh + sl;
    lo = sl - (hi - sh);
}

}  // namespace detail

// 2^x; within 0.92 ulp (all float inputs checked), subnormal results included.
HALDEN_HD inline float exp2_p(float x) {
    if (x != x) return x;
    return detail::exp2_sum(x, 0.0f);
}

// log2(x); within 0.501 ulp (all float inputs checked); exact on powers of two.
HALDEN_HD inline float log2_p(float x) {
    if (x != x || x < 0.0f) return detail::kNaN;
    if (x == 0.0f) return -detail::kInf;
    if (x == detail::kInf) return x;
    float hi, lo;
    detail::log2_parts(x, hi, lo);
    return hi;
}

// x^y for x >= 0; within 0.99 ulp (2.5e8 sampled pairs, |y * log2(x)| up to
// 150); pow_p(x, 1) == x for every x. This library only takes powers of
// non-negative bases, so every x < 0 gives NaN.
HALDEN_HD inline float pow_p(float x, float y) {
    if (y == 0.0f || x == 1.0f) return 1.0f;
    if (x != x || y != y || x < 0.0f) return detail::kNaN;
    if (x == 0.0f) return y > 0.0f ? 0.0f : detail::kInf;
    if (x == detail::kInf) return y > 0.0f ? detail::kInf : 0.0f;
    float lh, ll;
    detail::log2_parts(x, lh, ll);
    const float th = y * lh;  // th + tl = y * log2(x); tl is unused if th is out of range
    return detail::exp2_sum(th, detail::fma_f(y, lh, -th) + y * ll);
}

// tanh(x); within 1.5 ulp (all float inputs checked).
HALDEN_HD inline float tanh_p(float x) {
    if (x != x) return x;
    const float ax = x < 0.0f ? -x : x;
    float r;
    if (ax < 0.5f) {
        // Taylor series to x^15: the next term is below 0.2 ulp at |x| = 0.5.
        const float x2 = ax * ax;
        float p = -1.45583439e-3f;
        p = detail::fma_f(p, x2, 3.59212804e-3f);
        p = detail::fma_f(p, x2, -8.86323553e-3f);
        p = detail::fma_f(p, x2, 2.18694885e-2f);
        p = detail::fma_f(p, x2, -5.39682540e-2f);
        p = detail::fma_f(p, x2, 1.33333333e-1f);
        p = detail::fma_f(p, x2, -3.33333333e-1f);
        r = detail::fma_f(ax * x2, p, ax);
    } else if (ax >= 9.0f) {
        r = 1.0f;  // tanh(9) = 1 - 3.05e-8, about half an ulp below 1
    } else {
        // t = e^(2|x|), with the argument carried in two parts, since rounding
        // it alone would cost tanh about half an ulp.
        const float a = 2.0f * ax;
        const float th = a * detail::kLog2eHi;
        const float tl = detail::fma_f(a, detail::kLog2eHi, -th) + a * detail::kLog2eLo;
        const float t = detail::exp2_sum(th, tl);
        // t - 1 is exact while t < 2^24, which spares 1 - 2 / (t + 1) its cancellation.
        r = t < 16777216.0f ? (t - 1.0f) / (t + 1.0f) : 1.0f - 2.0f / (t + 1.0f);
    }
    // Odd: the sign goes back on bitwise, so that tanh(-0) is -0.
    return bits_float(float_bits(r) | (float_bits(x) & 0x80000000u));
}

}  // namespace halden
