// SPDX-License-Identifier: Apache-2.0
// Portable math: correct rounding against long double references over dense
// sweeps and every float of the delicate ranges, exact results, hard cases,
// special values, and min/max on NaN and signed zeros.
//
// x87's 64-bit significand (exp2l, log2l, powl, tanhl, each within a few of its
// ulps) decides the rounding of almost every float; where its value lies within
// 2^-56 of a midpoint between two floats it cannot, and the input is skipped
// and counted. Exact results are checked against exact values instead, and the
// arguments that reach the functions' slower paths against answers computed
// once with MPFR.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "core/bits.hpp"
#include "core/math.hpp"

namespace {

using halden::bits_float, halden::exp2_p, halden::float_bits, halden::log2_p, halden::max_of, halden::min_of,
    halden::pow_p, halden::tanh_p;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr bool kX87 = std::numeric_limits<long double>::digits >= 64;

bool same(float a, float b) { return (a != a && b != b) || float_bits(a) == float_bits(b); }

// Counts agreement with the correctly rounded value and reports the first few misses.
struct tally {
    const char* name;
    std::uint64_t checked = 0, skipped = 0, wrong = 0;

    // `ref` is within a few of its own ulps of the exact value.
    void against(float got, long double ref, float x, float y = 0) {
        float want = float(ref);
        if (ref == ref && ref != 0 && !std::isinf(ref)) {
            const long double d = std::fabs(ref) * 0x1p-56L;
            if (float(ref - d) != float(ref + d)) {
                ++skipped;
                return;
            }
        }
        exactly(got, want, x, y);
    }
    void exactly(float got, float want, float x, float y = 0) {
        ++checked;
        if (!same(got, want) && ++wrong <= 5)
            ADD_FAILURE() << name << " at " << std::hexfloat << x << (y != 0 ? ", " : "") << (y != 0 ? y : 0.0f)
                          << " gave " << got << ", want " << want;
    }
    // Undecidable references are rare: some 2^-31 of random arguments.
    ~tally() {
        EXPECT_EQ(wrong, 0u) << name;
        EXPECT_LE(skipped, checked / 100000 + 2) << name << ": too many arguments left undecided";
    }
};

// f(x) for every float x from a to b (of one sign), and for every stride-th bit
// pattern (NaNs, infinities, negatives and subnormals included).
template <class F>
void floats_in(float a, float b, F f) {
    std::uint32_t u0 = float_bits(a), u1 = float_bits(b);
    if (u0 > u1) std::swap(u0, u1);
    for (std::uint32_t u = u0; u <= u1; ++u) f(bits_float(u));
}
template <class F>
void every_pattern(std::uint32_t stride, F f) {
    for (std::uint64_t u = 0; u < (1ull << 32); u += stride) f(bits_float(std::uint32_t(u)));
}

struct hard_case {
    float x, want;
};
struct hard_pair {
    float x, y, want;
};

// Every argument on which the fast path's error bound straddles a rounding
// boundary (found by a run over all 2^32 floats), with MPFR's answers.
const std::vector<hard_case> kExp2Hard = {
    {-0x1.3e53bcp-3f, 0x1.cbb4acp-1f}, {-0x1.e7526ep-6f, 0x1.f58d62p-1f}, {-0x1.d8568p-10f, 0x1.ff5c68p-1f},
    {-0x1.a7a04cp-14f, 0x1.fff6d2p-1f}, {-0x1.5a3f34p-21f, 0x1.fffffp-1f}, {-0x1.cda996p-23f, 0x1.fffffcp-1f},
    {0x1.715476p-24f, 0x1.000002p+0f}, {0x1.0f39eep-18f, 0x1.00003p+0f}, {0x1.0f0af8p-11f, 0x1.00177cp+0f},
    {0x1.853a6ep-9f, 0x1.00870ap+0f}, {0x1.05535ap-7f, 0x1.016b46p+0f},
};
const std::vector<hard_case> kLog2Hard = {
    {0x1.22952p-128f, -0x1.ff44dp+6f}, {0x1.22952p-127f, -0x1.fb44dp+6f}, {0x1.22952p-126f, -0x1.f744dp+6f},
    {0x1.22952p-125f, -0x1.f344dp+6f}, {0x1.22952p-124f, -0x1.ef44dp+6f}, {0x1.22952p-123f, -0x1.eb44dp+6f},
    {0x1.22952p-122f, -0x1.e744dp+6f}, {0x1.22952p-121f, -0x1.e344dp+6f}, {0x1.22952p-120f, -0x1.df44dp+6f},
    {0x1.22952p-119f, -0x1.db44dp+6f}, {0x1.22952p-118f, -0x1.d744dp+6f}, {0x1.22952p-117f, -0x1.d344dp+6f},
    {0x1.22952p-116f, -0x1.cf44dp+6f}, {0x1.22952p-115f, -0x1.cb44dp+6f}, {0x1.22952p-114f, -0x1.c744dp+6f},
    {0x1.22952p-113f, -0x1.c344dp+6f}, {0x1.22952p-112f, -0x1.bf44dp+6f}, {0x1.22952p-111f, -0x1.bb44dp+6f},
    {0x1.22952p-110f, -0x1.b744dp+6f}, {0x1.22952p-109f, -0x1.b344dp+6f}, {0x1.22952p-108f, -0x1.af44dp+6f},
    {0x1.22952p-107f, -0x1.ab44dp+6f}, {0x1.22952p-106f, -0x1.a744dp+6f}, {0x1.22952p-105f, -0x1.a344dp+6f},
    {0x1.22952p-104f, -0x1.9f44dp+6f}, {0x1.22952p-103f, -0x1.9b44dp+6f}, {0x1.22952p-102f, -0x1.9744dp+6f},
    {0x1.22952p-101f, -0x1.9344dp+6f}, {0x1.22952p-100f, -0x1.8f44dp+6f}, {0x1.22952p-99f, -0x1.8b44dp+6f},
    {0x1.22952p-98f, -0x1.8744dp+6f}, {0x1.22952p-97f, -0x1.8344dp+6f}, {0x1.22952p-96f, -0x1.7f44dp+6f},
    {0x1.22952p-95f, -0x1.7b44dp+6f}, {0x1.22952p-94f, -0x1.7744dp+6f}, {0x1.22952p-93f, -0x1.7344dp+6f},
    {0x1.22952p-92f, -0x1.6f44dp+6f}, {0x1.22952p-91f, -0x1.6b44dp+6f}, {0x1.22952p-90f, -0x1.6744dp+6f},
    {0x1.22952p-89f, -0x1.6344dp+6f}, {0x1.22952p-88f, -0x1.5f44dp+6f}, {0x1.22952p-87f, -0x1.5b44dp+6f},
    {0x1.22952p-86f, -0x1.5744dp+6f}, {0x1.22952p-85f, -0x1.5344dp+6f}, {0x1.22952p-84f, -0x1.4f44dp+6f},
    {0x1.22952p-83f, -0x1.4b44dp+6f}, {0x1.22952p-82f, -0x1.4744dp+6f}, {0x1.22952p-81f, -0x1.4344dp+6f},
    {0x1.22952p-80f, -0x1.3f44dp+6f}, {0x1.22952p-79f, -0x1.3b44dp+6f}, {0x1.22952p-78f, -0x1.3744dp+6f},
    {0x1.22952p-77f, -0x1.3344dp+6f}, {0x1.22952p-76f, -0x1.2f44dp+6f}, {0x1.22952p-75f, -0x1.2b44dp+6f},
    {0x1.22952p-74f, -0x1.2744dp+6f}, {0x1.22952p-73f, -0x1.2344dp+6f}, {0x1.22952p-72f, -0x1.1f44dp+6f},
    {0x1.22952p-71f, -0x1.1b44dp+6f}, {0x1.22952p-70f, -0x1.1744dp+6f}, {0x1.22952p-69f, -0x1.1344dp+6f},
    {0x1.22952p-68f, -0x1.0f44dp+6f}, {0x1.22952p-67f, -0x1.0b44dp+6f}, {0x1.22952p-66f, -0x1.0744dp+6f},
    {0x1.22952p-65f, -0x1.0344dp+6f}, {0x1.aa932cp-32f, -0x1.f436aap+4f}, {0x1.aa932cp-31f, -0x1.e436aap+4f},
    {0x1.aa932cp-30f, -0x1.d436aap+4f}, {0x1.aa932cp-29f, -0x1.c436aap+4f}, {0x1.aa932cp-28f, -0x1.b436aap+4f},
    {0x1.aa932cp-27f, -0x1.a436aap+4f}, {0x1.aa932cp-26f, -0x1.9436aap+4f}, {0x1.aa932cp-25f, -0x1.8436aap+4f},
    {0x1.aa932cp-24f, -0x1.7436aap+4f}, {0x1.aa932cp-23f, -0x1.6436aap+4f}, {0x1.aa932cp-22f, -0x1.5436aap+4f},
    {0x1.aa932cp-21f, -0x1.4436aap+4f}, {0x1.aa932cp-20f, -0x1.3436aap+4f}, {0x1.aa932cp-19f, -0x1.2436aap+4f},
    {0x1.aa932cp-18f, -0x1.1436aap+4f}, {0x1.aa932cp-17f, -0x1.0436aap+4f}, {0x1.ff800cp-16f, -0x1.e00b8ap+3f},
    {0x1.40f572p-2f, -0x1.ac7b44p+0f}, {0x1.40f572p+1f, 0x1.5384bcp+0f}, {0x1.ff800cp+14f, 0x1.dff476p+3f},
    {0x1.ff800cp+15f, 0x1.fff476p+3f}, {0x1.aa932cp+16f, 0x1.0bc956p+4f}, {0x1.aa932cp+17f, 0x1.1bc956p+4f},
    {0x1.aa932cp+18f, 0x1.2bc956p+4f}, {0x1.aa932cp+19f, 0x1.3bc956p+4f}, {0x1.aa932cp+20f, 0x1.4bc956p+4f},
    {0x1.aa932cp+21f, 0x1.5bc956p+4f}, {0x1.aa932cp+22f, 0x1.6bc956p+4f}, {0x1.aa932cp+23f, 0x1.7bc956p+4f},
    {0x1.aa932cp+24f, 0x1.8bc956p+4f}, {0x1.aa932cp+25f, 0x1.9bc956p+4f}, {0x1.aa932cp+26f, 0x1.abc956p+4f},
    {0x1.aa932cp+27f, 0x1.bbc956p+4f}, {0x1.aa932cp+28f, 0x1.cbc956p+4f}, {0x1.aa932cp+29f, 0x1.dbc956p+4f},
    {0x1.aa932cp+30f, 0x1.ebc956p+4f}, {0x1.aa932cp+31f, 0x1.fbc956p+4f}, {0x1.22952p+64f, 0x1.00bb3p+6f},
    {0x1.22952p+65f, 0x1.04bb3p+6f}, {0x1.22952p+66f, 0x1.08bb3p+6f}, {0x1.22952p+67f, 0x1.0cbb3p+6f},
    {0x1.22952p+68f, 0x1.10bb3p+6f}, {0x1.22952p+69f, 0x1.14bb3p+6f}, {0x1.22952p+70f, 0x1.18bb3p+6f},
    {0x1.22952p+71f, 0x1.1cbb3p+6f}, {0x1.22952p+72f, 0x1.20bb3p+6f}, {0x1.22952p+73f, 0x1.24bb3p+6f},
    {0x1.22952p+74f, 0x1.28bb3p+6f}, {0x1.22952p+75f, 0x1.2cbb3p+6f}, {0x1.22952p+76f, 0x1.30bb3p+6f},
    {0x1.22952p+77f, 0x1.34bb3p+6f}, {0x1.22952p+78f, 0x1.38bb3p+6f}, {0x1.22952p+79f, 0x1.3cbb3p+6f},
    {0x1.22952p+80f, 0x1.40bb3p+6f}, {0x1.22952p+81f, 0x1.44bb3p+6f}, {0x1.22952p+82f, 0x1.48bb3p+6f},
    {0x1.22952p+83f, 0x1.4cbb3p+6f}, {0x1.22952p+84f, 0x1.50bb3p+6f}, {0x1.22952p+85f, 0x1.54bb3p+6f},
    {0x1.22952p+86f, 0x1.58bb3p+6f}, {0x1.22952p+87f, 0x1.5cbb3p+6f}, {0x1.22952p+88f, 0x1.60bb3p+6f},
    {0x1.22952p+89f, 0x1.64bb3p+6f}, {0x1.22952p+90f, 0x1.68bb3p+6f}, {0x1.22952p+91f, 0x1.6cbb3p+6f},
    {0x1.22952p+92f, 0x1.70bb3p+6f}, {0x1.22952p+93f, 0x1.74bb3p+6f}, {0x1.22952p+94f, 0x1.78bb3p+6f},
    {0x1.22952p+95f, 0x1.7cbb3p+6f}, {0x1.22952p+96f, 0x1.80bb3p+6f}, {0x1.22952p+97f, 0x1.84bb3p+6f},
    {0x1.22952p+98f, 0x1.88bb3p+6f}, {0x1.22952p+99f, 0x1.8cbb3p+6f}, {0x1.22952p+100f, 0x1.90bb3p+6f},
    {0x1.22952p+101f, 0x1.94bb3p+6f}, {0x1.22952p+102f, 0x1.98bb3p+6f}, {0x1.22952p+103f, 0x1.9cbb3p+6f},
    {0x1.22952p+104f, 0x1.a0bb3p+6f}, {0x1.22952p+105f, 0x1.a4bb3p+6f}, {0x1.22952p+106f, 0x1.a8bb3p+6f},
    {0x1.22952p+107f, 0x1.acbb3p+6f}, {0x1.22952p+108f, 0x1.b0bb3p+6f}, {0x1.22952p+109f, 0x1.b4bb3p+6f},
    {0x1.22952p+110f, 0x1.b8bb3p+6f}, {0x1.22952p+111f, 0x1.bcbb3p+6f}, {0x1.22952p+112f, 0x1.c0bb3p+6f},
    {0x1.22952p+113f, 0x1.c4bb3p+6f}, {0x1.22952p+114f, 0x1.c8bb3p+6f}, {0x1.22952p+115f, 0x1.ccbb3p+6f},
    {0x1.22952p+116f, 0x1.d0bb3p+6f}, {0x1.22952p+117f, 0x1.d4bb3p+6f}, {0x1.22952p+118f, 0x1.d8bb3p+6f},
    {0x1.22952p+119f, 0x1.dcbb3p+6f}, {0x1.22952p+120f, 0x1.e0bb3p+6f}, {0x1.22952p+121f, 0x1.e4bb3p+6f},
    {0x1.22952p+122f, 0x1.e8bb3p+6f}, {0x1.22952p+123f, 0x1.ecbb3p+6f}, {0x1.22952p+124f, 0x1.f0bb3p+6f},
    {0x1.22952p+125f, 0x1.f4bb3p+6f}, {0x1.22952p+126f, 0x1.f8bb3p+6f}, {0x1.22952p+127f, 0x1.fcbb3p+6f},
};
const std::vector<hard_case> kTanhHard = {
    {-0x1.5969ap+2f, -0x1.fffaap-1f}, {-0x1.dc0accp-2f, -0x1.bc797cp-2f}, {-0x1.a83722p-6f, -0x1.a81eep-6f},
    {-0x1.86fbc4p-10f, -0x1.86fbb2p-10f}, {0x1.86fbc4p-10f, 0x1.86fbb2p-10f}, {0x1.a83722p-6f, 0x1.a81eep-6f},
    {0x1.dc0accp-2f, 0x1.bc797cp-2f}, {0x1.5969ap+2f, 0x1.fffaap-1f},
};
// Pairs that the CORE-MATH project lists as hard for binary32 pow (x^y within
// 2^-68 of a midpoint between two floats) and some of its regression cases, with
// MPFR's answers.
const std::vector<hard_pair> kPowHard = {
    {0x1.1058p+0f, 0x1.ap+64f, kInf}, {0x1.1058p+0f, -0x1.ap+64f, 0x0p+0f},
    {0x1.8fdb0ep-21f, 0x1.a31bp-102f, 0x1p+0f}, {0x1.0dfe0ep-56f, -0x1.1c882ep-107f, 0x1p+0f},
    {0x1.7240b8p+45f, -0x1.b4222p-103f, 0x1p+0f}, {0x1.9a1p-20f, 0x1.ep+0f, 0x1.b5e4d6p-37f},
    {0x1.9a1p-76f, 0x1.ep+0f, 0x1.b6p-142f}, {0x1.7632cp-45f, -0x1.5f9314p-23f, 0x1.000054p+0f},
    {0x1.7ac7cp+5f, 0x1.7p+4f, 0x1.fffffep+127f}, {0x1.767d72p-31f, 0x1.002808p+0f, 0x1.71b158p-31f},
    {0x1.bc784cp+57f, 0x1.022be6p+0f, 0x1.382b7p+58f}, {0x1.2e9178p-119f, 0x1.023178p+0f, 0x1.2aee66p-120f},
    {0x1.aa25fp-122f, 0x1.04d8e4p+0f, 0x1.5b148p-124f}, {0x1.9b35c6p+6f, 0x1.053cc8p+0f, 0x1.c41786p+6f},
    {0x1.c347d6p-59f, 0x1.055618p+0f, 0x1.856448p-60f}, {0x1.098cbcp-102f, 0x1.05f7dep+0f, 0x1.990a98p-105f},
    {0x1.e695eap-26f, 0x1.06a6a2p+0f, 0x1.35c9ccp-26f}, {0x1.293686p-18f, 0x1.08594ep+0f, 0x1.8da5e6p-19f},
    {0x1.5bc2b6p+34f, 0x1.08e49p+0f, 0x1.8e7c1cp+35f}, {0x1.79395cp+69f, 0x1.0980c4p+0f, 0x1.1a5c28p+72f},
    {0x1.3e29bep+3f, 0x1.09eb9ap+0f, 0x1.5bc794p+3f}, {0x1.2ccb16p-12f, 0x1.0b9bdp+0f, 0x1.9f976cp-13f},
    {0x1.a8aa04p+31f, 0x1.0bb31cp+0f, 0x1.221444p+33f}, {0x1.2ce352p-107f, 0x1.0cd3f8p+0f, 0x1.d822cp-113f},
    {0x1.40d3dap+33f, 0x1.0cd484p+0f, 0x1.fe8872p+34f}, {0x1.41c9f6p+24f, 0x1.0cf972p+0f, 0x1.7a35c4p+25f},
    {0x1.d6a9eap-89f, 0x1.1249fcp+0f, 0x1.7f7c9p-95f}, {0x1.527dc8p+0f, 0x1.146f4p+0f, 0x1.5a1f86p+0f},
    {0x1.49b684p-69f, 0x1.1509f6p+0f, 0x1.a6f95cp-75f}, {0x1.8b178cp+69f, 0x1.159f0ap+0f, 0x1.6badc2p+75f},
    {0x1.58e756p+58f, 0x1.16d3fp+0f, 0x1.8f06b2p+63f}, {0x1.3dfbbep+97f, 0x1.16fb68p+0f, 0x1.08d502p+106f},
    {0x1.fe9e08p+64f, 0x1.1709cap+0f, 0x1.cbf084p+70f}, {0x1.545382p-57f, 0x1.176758p+0f, 0x1.2dc788p-62f},
    {0x1.267e7p-18f, 0x1.176c6p+0f, 0x1.7cfeeep-20f}, {0x1.d8c0f6p+8f, 0x1.17e80ep+0f, 0x1.a41f12p+9f},
    {0x1.e45312p-84f, 0x1.1977f6p+0f, 0x1.92f33cp-92f}, {0x1.20cba8p-73f, 0x1.1af204p+0f, 0x1.6c31ecp-81f},
    {0x1.cc53e8p-96f, 0x1.1bb752p+0f, 0x1.7569e8p-106f}, {0x1.8b4c76p+26f, 0x1.1d14fep+0f, 0x1.922a5cp+29f},
    {0x1.3e4b38p+35f, 0x1.1dc21ap+0f, 0x1.565498p+39f}, {0x1.89abdep-68f, 0x1.1e783ap+0f, 0x1.845bcep-76f},
    {0x1.95c6c2p+113f, 0x1.1f771cp+0f, 0x1.8d9a96p+127f}, {0x1.6e7bbcp-15f, 0x1.20bb46p+0f, 0x1.962a14p-17f},
    {0x1.e8ab78p+63f, 0x1.214b36p+0f, 0x1.2fe44cp+72f}, {0x1.78c6eep+93f, 0x1.22f03p+0f, 0x1.40eb62p+106f},
    {0x1.5079d4p+106f, 0x1.24861cp+0f, 0x1.7d096p+121f}, {0x1.147798p+75f, 0x1.2618d6p+0f, 0x1.38b77cp+86f},
    {0x1.060fc4p+91f, 0x1.262eeap+0f, 0x1.873286p+104f}, {0x1.c1243cp-1f, 0x1.26ef18p+0f, 0x1.b8485ap-1f},
    {0x1.4ec09p-72f, 0x1.27766ep+0f, 0x1.45c6b8p-83f}, {0x1.f4ff26p-81f, 0x1.2a584p+0f, 0x1.a8d4c6p-94f},
    {0x1.dc62aap-3f, 0x1.2a7a1ep+0f, 0x1.75feb4p-3f}, {0x1.731524p+80f, 0x1.2c788ap+0f, 0x1.7090eep+94f},
    {0x1.8029bep+15f, 0x1.2d8c12p+0f, 0x1.483966p+18f}, {0x1.a1d14ep-83f, 0x1.2ea14cp+0f, 0x1.a4d644p-98f},
    {0x1.14073ap-4f, 0x1.301934p+0f, 0x1.4c942p-5f}, {0x1.cc0b74p+14f, 0x1.3076dep+0f, 0x1.9369a4p+17f},
    {0x1.3cd062p-107f, 0x1.326734p+0f, 0x1.3b69a8p-128f}, {0x1.bc1292p+79f, -0x1.361c46p-24f, 0x1.ffff7ap-1f},
    {0x1.152526p+7f, -0x1.37794ep-24f, 0x1.fffff4p-1f}, {0x1.2b0014p+57f, -0x1.390654p-24f, 0x1.ffffap-1f},
    {0x1.f61294p+111f, -0x1.3b0004p-24f, 0x1.ffff4p-1f}, {0x1.0341f4p+36f, -0x1.3ddf92p-24f, 0x1.ffffc2p-1f},
    {0x1.647b2ep+69f, -0x1.3ef2fp-24f, 0x1.ffff88p-1f}, {0x1.1be07ep-80f, -0x1.3f242cp-24f, 0x1.000046p+0f},
    {0x1.1eba92p+112f, -0x1.3f669p-24f, 0x1.ffff3ep-1f}, {0x1.15c536p+12f, -0x1.40060ap-24f, 0x1.ffffecp-1f},
    {0x1.3382aep-85f, -0x1.46e554p-24f, 0x1.00004ap+0f}, {0x1.6137bp+21f, -0x1.46ed08p-24f, 0x1.ffffdap-1f},
    {0x1.61fabap+119f, -0x1.47b252p-24f, 0x1.ffff2cp-1f}, {0x1.db1beap+40f, -0x1.49a95ap-24f, 0x1.ffffb8p-1f},
    {0x1.5379d6p-16f, -0x1.4b9a24p-24f, 0x1.00000ep+0f}, {0x1.a31c66p+120f, -0x1.4bf82ep-24f, 0x1.ffff26p-1f},
    {0x1.eb5aa4p-52f, -0x1.4cbbb6p-24f, 0x1.00002ep+0f}, {0x1.5db93ap+119f, -0x1.4deda6p-24f, 0x1.ffff28p-1f},
    {0x1.5f732p+101f, -0x1.4ee782p-24f, 0x1.ffff48p-1f}, {0x1.469fa2p-101f, -0x1.5197ep-24f, 0x1.00005cp+0f},
    {0x1.f92cd2p-106f, -0x1.519c2p-24f, 0x1.00006p+0f}, {0x1.11633ap+25f, -0x1.528008p-24f, 0x1.ffffd2p-1f},
    {0x1.b06f78p-68f, -0x1.54876ap-24f, 0x1.00003ep+0f}, {0x1.eed4a8p+84f, -0x1.554912p-24f, 0x1.ffff62p-1f},
    {0x1.d33c88p+65f, -0x1.5608f8p-24f, 0x1.ffff86p-1f}, {0x1.fdcbeep+6f, -0x1.57412p-24f, 0x1.fffff2p-1f},
    {0x1.963f1ep-126f, -0x1.58c55ep-24f, 0x1.000074p+0f}, {0x1.403804p-89f, -0x1.59af46p-24f, 0x1.000052p+0f},
    {0x1.36b668p-122f, -0x1.59e716p-24f, 0x1.000072p+0f}, {0x1.3c5be6p-45f, -0x1.5b1024p-24f, 0x1.00002ap+0f},
    {0x1.b81db4p+105f, -0x1.5b661p-24f, 0x1.ffff38p-1f}, {0x1.1d045ap+63f, -0x1.5bf4e8p-24f, 0x1.ffff88p-1f},
    {0x1.0d0868p+123f, -0x1.5f1c4ep-24f, 0x1.ffff16p-1f}, {0x1.ad7cd4p+68f, -0x1.62935cp-24f, 0x1.ffff7cp-1f},
    {0x1.50cbb4p-41f, -0x1.62bcc2p-24f, 0x1.000026p+0f}, {0x1.3363cap-126f, -0x1.636accp-24f, 0x1.00007ap+0f},
    {0x1.418402p-28f, -0x1.685edp-24f, 0x1.00001ap+0f}, {0x1.7eaab4p+3f, -0x1.691514p-24f, 0x1.fffff8p-1f},
    {0x1.52e3fep-79f, -0x1.69d51cp-24f, 0x1.00004cp+0f},
};

TEST(Math, Exp2IsCorrectlyRounded) {
    tally t{"exp2"};
    for (const hard_case& c : kExp2Hard) t.exactly(exp2_p(c.x), c.want, c.x);
    if (!kX87) GTEST_SKIP() << "needs a 64-bit long double significand";
    auto at = [&](float x) { t.against(exp2_p(x), exp2l(x), x); };
    every_pattern(1021, at);
    floats_in(-150.0f, -125.0f, at);  // subnormal results, and the last ties to zero
    floats_in(127.0f, 128.0f, at);    // up to overflow
    // Where 2^x leaves 1 for the floats either side, at |x| ln 2 = 2^-24 and 2^-25.
    floats_in(0x1.6p-24f, 0x1.8p-24f, at);
    floats_in(-0x1.6p-25f, -0x1.8p-25f, at);
}

TEST(Math, Log2IsCorrectlyRounded) {
    tally t{"log2"};
    for (const hard_case& c : kLog2Hard) t.exactly(log2_p(c.x), c.want, c.x);
    if (!kX87) GTEST_SKIP() << "needs a 64-bit long double significand";
    auto at = [&](float x) { t.against(log2_p(x), log2l(x), x); };
    every_pattern(1021, at);
    floats_in(0.9375f, 1.0625f, at);  // small results, where relative error shows
    for (std::uint32_t u = 1; u < 0x00800000u; u += 13) at(bits_float(u));  // subnormal arguments
}

TEST(Math, TanhIsCorrectlyRounded) {
    tally t{"tanh"};
    for (const hard_case& c : kTanhHard) t.exactly(tanh_p(c.x), c.want, c.x);
    if (!kX87) GTEST_SKIP() << "needs a 64-bit long double significand";
    auto at = [&](float x) { t.against(tanh_p(x), tanhl(x), x); };
    every_pattern(1021, at);
    floats_in(8.0f, 10.0f, at);  // the approach to 1 - 2^-25, past which it rounds to 1
    // Where x - x^3/3 leaves x for the float below: x^3 = 3 * 2^-36.
    floats_in(0x1.6p-12f, 0x1.8p-12f, at);
    floats_in(-0x1.6p-12f, -0x1.8p-12f, at);
}

TEST(Math, PowIsCorrectlyRounded) {
    tally t{"pow"};
    for (const hard_pair& c : kPowHard) t.exactly(pow_p(c.x, c.y), c.want, c.x, c.y);
    if (!kX87) GTEST_SKIP() << "needs a 64-bit long double significand";
    auto at = [&](float x, float y) { t.against(pow_p(x, y), powl(x, y), x, y); };
    std::mt19937_64 rng(7);
    auto uniform = [&](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); };
    // The thermal shaper's exponent over bases from 2^-20 to 2^12.
    for (std::uint32_t u = float_bits(0x1p-20f); u < float_bits(0x1p12f); u += 509) at(bits_float(u), 0.7071f);
    // Random bases, and exponents that put y log2(x) anywhere from underflow to overflow.
    for (int i = 0; i < 400000; ++i) {
        const float x = bits_float(std::uint32_t(rng() % 0x7f800000u));
        if (x != 0.0f && x != 1.0f) at(x, float(uniform(-155, 132) / std::log2(double(x))));
    }
    // Bases near 1 with large exponents: the relative error of log2(x) counts most there.
    for (int i = 0; i < 200000; ++i) {
        const float x = float(1.0 + uniform(-0x1p-4, 0x1p-4));
        if (x != 1.0f) at(x, float(uniform(-155, 132) / std::log2(double(x))));
    }
    // Any bit patterns: NaNs, infinities, zeros, negatives, overflow and underflow.
    for (int i = 0; i < 200000; ++i) {
        const float x = bits_float(std::uint32_t(rng())), y = bits_float(std::uint32_t(rng()));
        if (x < 0.0f || x != x) t.exactly(pow_p(x, y), y == 0.0f ? 1.0f : kNaN, x, y);
        else if (x == 0.0f) t.exactly(pow_p(x, y), y != y ? kNaN : y > 0.0f ? 0.0f : y < 0.0f ? kInf : 1.0f, x, y);
        else at(x, y);
    }
}

// Exact results, midpoints between two floats among them (ties go to even):
// long double holds these values exactly, so one rounding gives the answer.
TEST(Math, PowExactResults) {
    if (!kX87) GTEST_SKIP() << "needs a 64-bit long double significand";
    tally t{"pow (exact)"};
    std::mt19937 rng(11);
    for (int i = 0; i < 100000; ++i) {
        // Integer exponents of bases with a small odd part.
        const float x = std::ldexp(float(1 + 2 * (rng() % 2048)), int(rng() % 40) - 20);
        const int n = 2 + int(rng() % 4);
        long double p = 1;
        for (int j = 0; j < n; ++j) p *= x;  // exact: at most 5 * 12 bits
        t.exactly(pow_p(x, float(n)), float(p), x, float(n));
        // Squares of 13-bit odd numbers have 25 or 26 bits: many are midpoints,
        // down among the subnormals too.
        const float m = std::ldexp(float(4097 + 2 * (rng() % 2048)), int(rng() % 140) - 90);
        t.exactly(pow_p(m, 2.0f), float((long double)m * m), m, 2.0f);
        // (r^(2^k))^(n / 2^k) = r^n, and its reciprocal for -n / 2^k (rounded unless a power of two).
        const int k = 1 + int(rng() % 2), odd = 1 + 2 * int(rng() % 4);
        const float r = std::ldexp(float(1 + rng() % 63), int(rng() % 20) - 10);
        const float base = k == 1 ? r * r : (r * r) * (r * r);  // exact: at most 24 bits
        long double rn = 1;
        for (int j = 0; j < odd; ++j) rn *= r;
        const float y = std::ldexp(float(odd), -k);
        t.exactly(pow_p(base, y), float(rn), base, y);
        t.against(pow_p(base, -y), 1.0L / rn, base, -y);
    }
    // x^0.5 is sqrt(x), and rounding sqrt first to 64 bits then to 24 is harmless (64 >= 2 * 24 + 2).
    for (std::uint32_t u = 1; u < 0x7f800000u; u += 997) {
        const float x = bits_float(u);
        t.exactly(pow_p(x, 0.5f), float(std::sqrt((long double)x)), x, 0.5f);
    }
    // Powers of two to quarter-integer exponents, 2^-150 being the tie below the least subnormal.
    for (int e = -149; e <= 127; ++e)
        for (int q = -600; q <= 600; q += 7) {
            const float x = std::ldexp(1.0f, e), y = float(q) / 4;
            const long double ez = (long double)e * y;
            if (ez == std::floor(ez) && ez >= -200 && ez <= 200)
                t.exactly(pow_p(x, y), float(std::ldexp(1.0L, int(ez))), x, y);
            else
                t.against(pow_p(x, y), powl(x, y), x, y);
        }
}

// An expression, its value and the value it must have: the same bits, or any NaN for a NaN.
struct exact {
    const char* what;
    float got, want;
};
#define EXACT(e, want) exact{#e, e, want}
void expect_all(std::initializer_list<exact> cases) {
    for (const exact& c : cases)
        EXPECT_TRUE(same(c.got, c.want)) << c.what << " gave " << std::hexfloat << c.got << ", want " << c.want;
}

TEST(Math, ExactCasesAndSpecialValues) {
    for (int k = -149; k <= 127; ++k)
        expect_all({EXACT(exp2_p(float(k)), std::ldexp(1.0f, k)), EXACT(log2_p(std::ldexp(1.0f, k)), float(k)),
                    EXACT(pow_p(2.0f, float(k)), std::ldexp(1.0f, k))});
    // A first power gives the base back, up to the largest float.
    for (std::uint32_t u = 1; u < 0x7f800000u; u += 4099) EXPECT_EQ(pow_p(bits_float(u), 1.0f), bits_float(u)) << u;
    const float max = std::numeric_limits<float>::max(), tiny = std::numeric_limits<float>::denorm_min();
    expect_all({EXACT(pow_p(max, 1.0f), max), EXACT(pow_p(4.0f, 0.5f), 2.0f), EXACT(pow_p(0.25f, -1.5f), 8.0f),
                EXACT(pow_p(1.0f + 0x1p-12f, 2.0f), 1.0f + 0x1p-11f),  // 1 + 2^-11 + 2^-24: a tie, to even
                EXACT(pow_p(2.0f, -150.0f), 0.0f), EXACT(pow_p(0.5f, 150.0f), 0.0f),  // ties to zero
                EXACT(pow_p(2.0f, -149.5f), tiny),
                EXACT(tanh_p(-0.0f), -0.0f), EXACT(tanh_p(1e-30f), 1e-30f), EXACT(tanh_p(-tiny), -tiny),
                EXACT(tanh_p(9.0f), 0x1.fffffep-1f),  // 1 - 3.05e-8: below the midpoint 1 - 2^-25
                EXACT(tanh_p(9.1f), 1.0f), EXACT(tanh_p(-kInf), -1.0f), EXACT(tanh_p(kNaN), kNaN),
                EXACT(exp2_p(kNaN), kNaN), EXACT(exp2_p(-kInf), 0.0f), EXACT(exp2_p(128.0f), kInf),
                EXACT(exp2_p(-149.5f), tiny),  // 0.71 of the smallest subnormal rounds up to it
                EXACT(exp2_p(-150.0f), 0.0f),  // exactly half of it: a tie, to even
                EXACT(log2_p(-tiny), kNaN), EXACT(log2_p(-0.0f), -kInf), EXACT(log2_p(kInf), kInf),
                EXACT(pow_p(2.0f, kNaN), kNaN), EXACT(pow_p(kInf, -0.5f), 0.0f), EXACT(pow_p(0.5f, -kInf), kInf),
                EXACT(pow_p(2.0f, kInf), kInf), EXACT(pow_p(2.0f, -kInf), 0.0f), EXACT(pow_p(0.5f, kInf), 0.0f),
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
