// SPDX-License-Identifier: Apache-2.0
// Single-precision exp2, log2, pow and tanh, correctly rounded (to nearest,
// ties to even), so that host and device give the same bits. Only + - * /,
// sqrt, fma, comparisons, conversions and bit manipulation are used, all
// correctly rounded on both back-ends (host: -ffp-contract=off; device:
// --fmad=false with IEEE division), so no libm transcendental ever decides a bit.
//
// The method is the approach of the CORE-MATH project's binary32 functions:
// evaluate in double to well beyond float precision, and return the rounding
// of that unless the value lies so close to a rounding boundary that its error
// bound straddles it; those rare arguments go to a slower double-double path
// (about 2^-100), and pow settles its exactly representable results first.
// No tables: the reductions are bit manipulation, so the same code serves the
// device without constant-memory copies.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#include "compute/types.hpp"
#include "core/bits.hpp"

#if defined(__CUDACC__)
#  define HALDEN_MATH_COLD __noinline__
#else
#  define HALDEN_MATH_COLD __attribute__((noinline, cold))
#endif

namespace halden {

// Returns the first argument when either is NaN or they compare equal (so
// max_of(+0, -0) is +0 and max_of(-0, +0) is -0), identically on both back-ends.
HALDEN_HD inline float max_of(float a, float b) { return a < b ? b : a; }
HALDEN_HD inline float min_of(float a, float b) { return b < a ? b : a; }

namespace detail {

HALDEN_HD inline double fma_d(double a, double b, double c) {
#if defined(__CUDA_ARCH__)
    return fma(a, b, c);
#else
    return std::fma(a, b, c);
#endif
}

HALDEN_HD inline std::uint64_t double_bits(double x) {
#if defined(__CUDA_ARCH__)
    return std::uint64_t(__double_as_longlong(x));
#else
    std::uint64_t u;
    std::memcpy(&u, &x, sizeof u);
    return u;
#endif
}

HALDEN_HD inline double bits_double(std::uint64_t u) {
#if defined(__CUDA_ARCH__)
    return __longlong_as_double(static_cast<long long>(u));
#else
    double x;
    std::memcpy(&x, &u, sizeof x);
    return x;
#endif
}

HALDEN_HD inline int trailing_zeros(std::uint32_t u) {  // u != 0
#if defined(__CUDA_ARCH__)
    return __ffs(int(u)) - 1;
#else
    return __builtin_ctz(u);
#endif
}

// |x| by clearing the sign, where a comparison could become a branch that mispredicts.
HALDEN_HD inline double abs_d(double x) {
#if defined(__CUDA_ARCH__)
    return fabs(x);
#else
    return __builtin_fabs(x);
#endif
}

inline constexpr float kInf = __builtin_huge_valf();
inline constexpr float kNaN = __builtin_nanf("");

// 2^n for n in [-1022, 1023], straight from the exponent field.
HALDEN_HD inline double pow2d(int n) { return bits_double(std::uint64_t(n + 1023) << 52); }

// Nearest integer, ties to even, for |x| < 2^51: adding 1.5 * 2^52 pushes the
// fraction out of the significand, and subtracting it back is exact.
HALDEN_HD inline double round_d(double x) { return (x + 0x1.8p52) - 0x1.8p52; }

// The float nearest v, with ok telling whether every value within a relative
// eps of v rounds to it too. Only values next to a midpoint between two floats
// fail; a float itself, even an exact result, passes.
HALDEN_HD inline float rounding_of(double v, double eps, bool& ok) {
    const double d = abs_d(v) * eps;
    const float lo = float(v - d), hi = float(v + d);
    ok = lo == hi;
    return lo;
}

// 2^r - 1 for |r| <= 0.5001: r times a degree-10 minimax fit of (2^r - 1) / r,
// relative error 2^-54. Estrin's scheme keeps the dependency chain short.
HALDEN_HD inline double exp2m1_poly(double r) {
    const double r2 = r * r, r4 = r2 * r2;
    const double a = fma_d(r, 0x1.ebfbdff82c598p-3, 0x1.62e42fefa39efp-1);
    const double b = fma_d(r, 0x1.3b2ab6fba1e2dp-7, 0x1.c6b08d704a08ep-5);
    const double c = fma_d(r, 0x1.430913095e0b8p-13, 0x1.5d87fe78b2161p-10);
    const double d = fma_d(r, 0x1.62bfd4a4f82c3p-20, 0x1.ffcbfc1e93b74p-17);
    const double e = fma_d(r2, 0x1.e8cabfb64c1ecp-32, fma_d(r, 0x1.e605f2099707cp-28, 0x1.b525a0a2c48a9p-24));
    return r * fma_d(r4, fma_d(r4, e, fma_d(r2, d, c)), fma_d(r2, b, a));
}

// A value as an unevaluated sum hi + lo.
struct dd {
    double hi, lo;
};

// log2(x) for a finite float x > 0, within 2^-50.6 relative. x = 2^e m with m in
// [sqrt(1/2), sqrt(2)], and log2(m) = s P(s^2) with s = (m - 1) / (m + 1),
// |s| <= 0.1716, P(w) = (2 / ln 2) atanh(sqrt(w)) / sqrt(w): a degree-6 minimax
// fit, relative error 2^-52.
HALDEN_HD inline double log2_approx(float x) {
    std::uint64_t u = double_bits(double(x));  // subnormal floats are normal doubles
    int e = int(u >> 52) - 1023;
    u = (u & 0x000fffffffffffffu) | 0x3ff0000000000000u;
    const std::uint64_t halve = u > 0x3ff6a09e667f3bcdu ? 1u : 0u;  // above sqrt(2); no branch to mispredict
    u -= halve << 52;
    e += int(halve);
    const double m = bits_double(u);
    const double s = (m - 1.0) / (m + 1.0);  // both exact: m has 24 bits
    const double w = s * s, w2 = w * w, w4 = w2 * w2;
    const double p = fma_d(w4, fma_d(w2, 0x1.f184dff20fcb2p-3, fma_d(w, 0x1.0bb7bce134960p-2, 0x1.484fac27b82dcp-2)),
                           fma_d(w2, fma_d(w, 0x1.a617567707f31p-2, 0x1.2776c516a955fp-1),
                                 fma_d(w, 0x1.ec709dc39c9e5p-1, 0x1.71547652b82ffp+1)));
    return fma_d(s, p, double(e));
}

// ---- Double-double arithmetic for the rare arguments the fast paths cannot round.

HALDEN_HD inline dd two_sum(double a, double b) {
    const double s = a + b, bb = s - a;
    return {s, (a - (s - bb)) + (b - bb)};
}
HALDEN_HD inline dd fast_two_sum(double a, double b) {  // |a| >= |b| or a == 0
    const double s = a + b;
    return {s, b - (s - a)};
}
HALDEN_HD inline dd dd_add(dd a, dd b) {
    dd s = two_sum(a.hi, b.hi);
    const dd t = two_sum(a.lo, b.lo);
    s = fast_two_sum(s.hi, s.lo + t.hi);
    return fast_two_sum(s.hi, s.lo + t.lo);
}
HALDEN_HD inline dd dd_mul(dd a, dd b) {
    const double p = a.hi * b.hi;
    return fast_two_sum(p, fma_d(a.hi, b.hi, -p) + (a.hi * b.lo + a.lo * b.hi));
}
HALDEN_HD inline dd dd_mul_d(dd a, double b) {
    const double p = a.hi * b;
    return fast_two_sum(p, fma_d(a.hi, b, -p) + a.lo * b);
}
HALDEN_HD inline dd dd_div_d(dd a, double b) {
    const double q = a.hi / b;
    return fast_two_sum(q, (fma_d(-q, b, a.hi) + a.lo) / b);
}
HALDEN_HD inline dd dd_div(dd a, dd b) {
    const double q1 = a.hi / b.hi;
    dd r = dd_add(a, dd_mul_d(b, -q1));
    const double q2 = r.hi / b.hi;
    r = dd_add(r, dd_mul_d(b, -q2));
    const double q3 = r.hi / b.hi;
    return dd_add(fast_two_sum(q1, q2), dd{q3, 0.0});
}

// ln 2 and log2(e) to 2^-106; scalars, as device code can read namespace-scope
// constexpr scalars but not aggregates.
inline constexpr double kLn2Hi = 0x1.62e42fefa39efp-1, kLn2Lo = 0x1.abc9e3b39803fp-56;
inline constexpr double kLog2eHi = 0x1.71547652b82fep+0, kLog2eLo = 0x1.777d0ffda0d24p-56;

// log2(x) for a finite float x > 0, within about 2^-100 relative: the atanh
// series of the fast path, summed in double-double to 2^-107.
HALDEN_HD inline dd log2_accurate(float x) {
    std::uint64_t u = double_bits(double(x));
    int e = int(u >> 52) - 1023;
    u = (u & 0x000fffffffffffffu) | 0x3ff0000000000000u;
    if (u > 0x3ff6a09e667f3bcdu) {
        u -= 0x0010000000000000u;
        ++e;
    }
    const double m = bits_double(u);
    const double num = m - 1.0, den = m + 1.0;
    const double sh = num / den;
    const dd s = fast_two_sum(sh, fma_d(-sh, den, num) / den);  // exact remainder of a rounded quotient
    const dd w = dd_mul(s, s);
    dd sum = {1.0, 0.0}, p = {1.0, 0.0};
    for (int k = 1; k <= 20; ++k) {  // w^20 / 41 < 2^-107
        p = dd_mul(p, w);
        sum = dd_add(sum, dd_div_d(p, double(2 * k + 1)));
    }
    return dd_add(dd{double(e), 0.0}, dd_mul(dd_mul(s, sum), dd{2.0 * kLog2eHi, 2.0 * kLog2eLo}));
}

// e^u - 1 for |u| <= 0.35, within 2^-102 relative: Taylor series.
HALDEN_HD inline dd expm1_accurate(dd u) {
    dd sum = u, term = u;
    for (int n = 2; n <= 23; ++n) {  // 0.35^24 / 24! < 2^-108
        term = dd_div_d(dd_mul(term, u), double(n));
        sum = dd_add(sum, term);
    }
    return sum;
}

// Splits t = k + r with k an integer and |r| <= 0.5 + |t.lo|, and returns
// 2^r - 1 = e^(r ln 2) - 1.
HALDEN_HD inline dd exp2m1_reduced(dd t, double& k) {
    k = round_d(t.hi);
    const dd r = two_sum(t.hi - k, t.lo);  // t.hi - k is exact
    return expm1_accurate(dd_mul(r, dd{kLn2Hi, kLn2Lo}));
}

// The float nearest hi + lo >= 0 (|lo| <= half an ulp of hi), ties to even.
// float(hi) is right unless hi sits exactly on a midpoint between two floats,
// where lo's sign decides.
HALDEN_HD inline float round_pair(double hi, double lo) {
    const float f = float(hi);
    if (lo == 0.0) return f;
    const double fd = f == kInf ? 0x1p128 : double(f);
    if (fd == hi) return f;
    // g: the float on the other side of hi.
    const float g = fd < hi ? bits_float(float_bits(f) + 1u)
                            : (f == kInf ? 0x1.fffffep127f : bits_float(float_bits(f) - 1u));
    const double gd = g == kInf ? 0x1p128 : double(g);
    if ((fd + gd) * 0.5 != hi) return f;
    // On a midpoint: lo points to f or g.
    return (lo > 0.0) == (gd > fd) ? g : f;
}

HALDEN_HD inline float round_pair_signed(dd v) {
    return v.hi < 0.0 ? -round_pair(-v.hi, -v.lo) : round_pair(v.hi, v.lo);
}

// 2^t, correctly rounded, for t given as a pair to 2^-100 relative.
HALDEN_HD inline float exp2_accurate(dd t) {
    if (t.hi > 129.0) return kInf;
    if (t.hi < -152.0) return 0.0f;
    double k;
    const dd q = exp2m1_reduced(t, k);
    dd p = fast_two_sum(1.0, q.hi);
    p = fast_two_sum(p.hi, p.lo + q.lo);
    const double s = pow2d(int(k));
    return round_pair(p.hi * s, p.lo * s);
}

// x^y exactly, when that is a dyadic rational that double holds; only such
// values can lie on a midpoint between two floats, where no approximation,
// however close, could tell which way to round. x > 0, x != 1, finite, and y
// finite and nonzero. x = mx 2^ex and |y| = my 2^ey with mx and my odd.
HALDEN_HD inline bool pow_exact(float x, float y, double& value) {
    std::uint32_t ux = float_bits(x), uy = float_bits(y) & 0x7fffffffu;
    std::uint32_t mx = ux & 0x7fffffu, my = uy & 0x7fffffu;
    int ex = int(ux >> 23), ey = int(uy >> 23);
    if (ex != 0) mx |= 0x800000u; else ex = 1;
    if (ey != 0) my |= 0x800000u; else ey = 1;
    ex -= 150;
    ey -= 150;
    int z = trailing_zeros(mx);
    mx >>= z;
    ex += z;
    z = trailing_zeros(my);
    my >>= z;
    ey += z;
    if (ey < 0) {
        // y = +-my / 2^k: x must be a (2^k)-th power, so mx must be one (each
        // square root halves its bits: five at most before it is 1), and 2^k
        // must divide ex.
        const int k = -ey;
        for (int i = 0; i < k && mx != 1; ++i) {
            const std::uint32_t r = std::uint32_t(sqrt(double(mx)));
            if (r * r != mx) return false;
            mx = r;
        }
        if (k >= 16 ? ex != 0 : (ex & ((1 << k) - 1)) != 0) return false;
        ex = k >= 16 ? 0 : ex / (1 << k);
    } else {
        // An integer power. From |y| = 512 on, only a power of two can be
        // exact, and it over- or underflows.
        if (ey > 8) {
            if (mx != 1) return false;
            value = (ex < 0) == (y < 0.0f) ? kInf : 0.0;  // |ex y| >= 512
            return true;
        }
        my <<= ey;
    }
    // x^y = mx^(+-my) 2^(+-ex my); 1/mx is not dyadic unless mx == 1.
    if (mx != 1 && y < 0.0f) return false;
    std::uint64_t p = 1;
    if (mx != 1) {
        if (my > 33) return false;  // 3^34 > 2^53
        for (std::uint32_t i = 0; i < my; ++i) {
            p *= mx;
            if (p >> 53) return false;
        }
    }
    const std::int64_t ez = std::int64_t(ex) * my * (y < 0.0f ? -1 : 1);
    if (ez > 200) value = kInf;
    else if (ez < -300) value = 0.0;  // p < 2^53: below 2^-247
    else value = double(p) * pow2d(int(ez / 2)) * pow2d(int(ez - ez / 2));
    return true;
}

HALDEN_HD HALDEN_MATH_COLD inline float exp2_slow(float x) { return exp2_accurate(dd{double(x), 0.0}); }

HALDEN_HD HALDEN_MATH_COLD inline float log2_slow(float x) { return round_pair_signed(log2_accurate(x)); }

HALDEN_HD HALDEN_MATH_COLD inline float pow_slow(float x, float y) {
    double v;
    if (pow_exact(x, y, v)) return float(v);
    const dd l = log2_accurate(x);
    const double yd = y;
    const double th = yd * l.hi;
    return exp2_accurate(fast_two_sum(th, fma_d(yd, l.hi, -th) + yd * l.lo));
}

// tanh(ax) for 0 <= ax < 10: E / (E + 2) with E = e^(2 ax) - 1.
HALDEN_HD HALDEN_MATH_COLD inline float tanh_slow(float ax) {
    const double a = 2.0 * double(ax);
    const dd t = dd_mul_d(dd{kLog2eHi, kLog2eLo}, a);
    double k;
    const dd q = exp2m1_reduced(t, k);  // 2^r - 1
    const double s = pow2d(int(k));
    const dd e = dd_add(dd{s - 1.0, 0.0}, dd{q.hi * s, q.lo * s});
    const dd r = dd_div(e, dd_add(e, dd{2.0, 0.0}));
    return round_pair(r.hi, r.lo);
}

// Error bounds of the fast paths, relative, three to four times the largest
// error measured: over every float for exp2, log2 and tanh; for pow, the
// exponential's (2^-51.9, dense doubles in [-1/2, 1/2]) plus |t| ln 2 times
// log2's (2^-50.6, every float) and the rounding of t.
inline constexpr double kEpsExp2 = 0x1p-50, kEpsLog2 = 0x1p-49, kEpsTanh = 0x1p-49;
inline constexpr double kEpsPow = 0x1p-49, kEpsPowPerT = 0x1p-49;

}  // namespace detail

// 2^x, correctly rounded, subnormal results included; exact on integers.
HALDEN_HD inline float exp2_p(float x) {
    if (x != x) return x;
    if (x >= 128.0f) return detail::kInf;
    if (x <= -150.0f) return 0.0f;  // 2^-150 is a tie, to even
    const double k = detail::round_d(x);
    const double r = double(x) - k;  // exact
    const double v = (1.0 + detail::exp2m1_poly(r)) * detail::pow2d(int(k));
    bool ok;
    const float f = detail::rounding_of(v, detail::kEpsExp2, ok);
    return ok ? f : detail::exp2_slow(x);
}

// log2(x), correctly rounded; exact on powers of two.
HALDEN_HD inline float log2_p(float x) {
    if (x != x || x < 0.0f) return detail::kNaN;
    if (x == 0.0f) return -detail::kInf;
    if (x == detail::kInf) return x;
    bool ok;
    const float f = detail::rounding_of(detail::log2_approx(x), detail::kEpsLog2, ok);
    return ok ? f : detail::log2_slow(x);
}

// x^y for x >= 0, correctly rounded; pow_p(x, 1) == x, and exact results are
// exact. This library only takes powers of non-negative bases, so every x < 0
// gives NaN.
HALDEN_HD inline float pow_p(float x, float y) {
    if (y == 0.0f || x == 1.0f) return 1.0f;
    if (x != x || y != y || x < 0.0f) return detail::kNaN;
    if (x == 0.0f) return y > 0.0f ? 0.0f : detail::kInf;
    if (x == detail::kInf) return y > 0.0f ? detail::kInf : 0.0f;
    const double t = double(y) * detail::log2_approx(x);
    // Beyond these the result rounds to infinity or zero; an infinite y lands here too.
    if (t > 129.0) return detail::kInf;
    if (t < -152.0) return 0.0f;
    const double k = detail::round_d(t);
    const double v = (1.0 + detail::exp2m1_poly(t - k)) * detail::pow2d(int(k));
    // log2(x)'s relative error becomes an absolute error of t, so the bound
    // grows with |t|: about one argument in 2^22 takes the slow path at
    // |t| = 1, one in 2^17 at the ends of the range.
    bool ok;
    const float f = detail::rounding_of(v, detail::kEpsPow + detail::abs_d(t) * detail::kEpsPowPerT, ok);
    return ok ? f : detail::pow_slow(x, y);
}

// tanh(x), correctly rounded; odd, so tanh(-0) is -0.
HALDEN_HD inline float tanh_p(float x) {
    if (x != x) return x;
    const float ax = bits_float(float_bits(x) & 0x7fffffffu);
    float r;
    if (ax >= 10.0f) {
        r = 1.0f;  // tanh(10) = 1 - 4.1e-9, well within half an ulp of 1
    } else {
        // E = e^(2|x|) - 1 = 2^k (1 + q) - 1, the argument in two parts: the
        // 29-bit head of log2(e) times 2|x| (24 bits) is exact.
        const double a = 2.0 * double(ax);
        const double th = a * 0x1.7154765p+0;
        const double tl = a * 0x1.5c17f0bbbe880p-31;
        const double k = detail::round_d(th);
        const double q = detail::exp2m1_poly((th - k) + tl);
        const double s = detail::pow2d(int(k));
        const double e = (s - 1.0) + s * q;  // s - 1 is exact
        bool ok;
        r = detail::rounding_of(e / (e + 2.0), detail::kEpsTanh, ok);
        if (!ok) r = detail::tanh_slow(ax);
    }
    // Odd: the sign goes back on bitwise, so that tanh(-0) is -0.
    return bits_float(float_bits(r) | (float_bits(x) & 0x80000000u));
}

}  // namespace halden
