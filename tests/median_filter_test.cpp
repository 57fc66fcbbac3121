// SPDX-License-Identifier: Apache-2.0
// Median filter: hand-worked cases, an independent reference on random grids,
// the selection shortcut against the sorting network, and the export's checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "halden/halden.h"
#include "modules/median_filter/median_filter.hpp"
#include "support.hpp"

namespace {

using halden::test::bits, halden::test::DeviceTest, halden::test::expect_same_bits, halden::test::hex,
    halden::test::messages;

// Written out here rather than taken from the library, so that a wrong
// constant there shows up as a difference.
constexpr float kPad = 100000000.0f;
constexpr float kThird = 0.333333f;
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// The ascending bitonic network over 256 slots; the only order that fixes
// where NaNs and zeros of either sign end up.
void network_sort(float* v) {
    for (int k = 2; k <= 256; k *= 2)
        for (int j = k / 2; j >= 1; j /= 2)
            for (int i = 0; i < 256; ++i) {
                const int l = i ^ j;
                if (l > i && ((i & k) == 0 ? v[i] > v[l] : v[i] < v[l])) std::swap(v[i], v[l]);
            }
}

// The filter rule as plainly as it can be written. std::sort gives the same
// bits as the network unless NaNs or mixed-sign zeros are present.
std::vector<float> reference(std::vector<float> grid, int size, std::uint32_t radius, std::uint32_t iterations,
                             bool exact_network = false) {
    const int r = std::min(static_cast<std::int32_t>(radius), 8);
    std::vector<float> out(grid.size());
    auto clamp = [size](int i) { return std::clamp(i, 0, size - 1); };
    for (std::uint32_t pass = 0; pass < iterations; ++pass) {
        for (int y = 0; y < size; ++y)
            for (int x = 0; x < size; ++x) {
                float v[256];
                int n = 0;
                for (int dy = -r; dy <= r; ++dy)
                    for (int dx = -r; dx <= r; ++dx)
                        if (dx * dx + dy * dy <= r * r + 2) v[n++] = grid[clamp(y + dy) * size + clamp(x + dx)];
                std::fill(v + n, v + 256, kPad);
                exact_network ? network_sort(v) : std::sort(v, v + 256);
                const int m = n / 2;
                out[y * size + x] = ((v[m + 1] + v[m]) + v[m - 1]) * kThird;
            }
        grid.swap(out);
    }
    return grid;
}

// Kinds of random grid: spread values, heavy ties, and values at and beyond
// the padding value (including infinities).
enum class Mix { spread, ties, beyond_padding };

std::vector<float> random_grid(int size, Mix mix, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> spread(-1000.0f, 1000.0f);
    std::uniform_int_distribution<int> small(-3, 3), pick(0, 9);
    std::vector<float> g(static_cast<std::size_t>(size) * size);
    for (float& c : g) {
        if (mix == Mix::spread) c = spread(rng);
        if (mix == Mix::ties) c = static_cast<float>(small(rng));
        if (mix != Mix::beyond_padding) continue;
        const int p = pick(rng);
        c = p == 0 ? kPad : p == 1 ? 3.0e8f : p == 2 ? kInf : p == 3 ? -kInf : spread(rng);
    }
    return g;
}

std::vector<float> run_filter(halden_queue* q, std::vector<float> grid, std::uint32_t size, std::uint32_t radius,
                              std::uint32_t iterations) {
    const halden_median_filter_parameters p{size, radius, iterations, 0};
    EXPECT_EQ(MedianFilter(q, grid.data(), &p), 0u);
    return grid;
}

// Hand-worked cases.

class MedianFilterHandWorked : public DeviceTest {};

TEST_P(MedianFilterHandWorked, SpikeInFlatGridDisappears) {
    // Every window holds at most one 100 among at least nine 1s, so the three
    // middle slots are all 1: (1 + 1 + 1) * 0.333333f. That is 33554397 * 2^-25
    // exactly, a tie between float neighbours, rounded to even: 0x3F7FFFEE.
    const float want = (1.0f + 1.0f + 1.0f) * kThird;
    EXPECT_EQ(bits(want), 0x3F7FFFEEu);
    for (int size : {5, 33}) {
        std::vector<float> g(size * size, 1.0f);
        g[size * size / 2] = 100.0f;
        for (std::uint32_t radius : {1u, 3u, 8u}) {
            SCOPED_TRACE(::testing::Message() << "size " << size << ", radius " << radius);
            expect_same_bits(run_filter(queue, g, size, radius, 1), std::vector<float>(size * size, want));
        }
    }
    EXPECT_TRUE(messages().error.empty());
}

TEST_P(MedianFilterHandWorked, BorderCellsSeeReplicatedEdges) {
    // 1 2 3 / 4 5 6 / 7 8 9, radius 1 (the whole 3x3 window: 2 <= 1 + 2).
    //  (0,0): rows 0,0,1 x cols 0,0,1 -> 1 1 2 1 1 2 4 4 5 -> sorted 1 1 1 1 2 2 4 4 5,
    //         slots 3..5 = 1 2 2 -> 5 * 0.333333f
    //  (0,1): rows 0,0,1 x cols 0,1,2 -> 1 2 3 1 2 3 4 5 6 -> slots 3..5 = 2 3 3 -> 8
    //         (a swapped row/column clamp would see 1 4 7 ... and give 13)
    //  (1,1): 1..9 -> 4 5 6 -> 15
    //  (2,2): rows 1,2,2 x cols 1,2,2 -> 5 6 6 8 9 9 8 9 9 -> sorted 5 6 6 8 8 9 9 9 9,
    //         slots 3..5 = 8 8 9 -> 25
    const std::vector<float> g{1, 2, 3, 4, 5, 6, 7, 8, 9};
    const auto out = run_filter(queue, g, 3, 1, 1);
    for (const auto& [cell, sum] : {std::pair{0, 5.0f}, {1, 8.0f}, {4, 15.0f}, {8, 25.0f}})
        EXPECT_EQ(bits(out[cell]), bits(sum * kThird)) << "cell " << cell << ": " << hex(out[cell]);
    expect_same_bits(out, reference(g, 3, 1, 1));
}

TEST_P(MedianFilterHandWorked, PaddingJoinsTheMedian) {
    // Every cell 2e8. Radius 1: n = 9, the sorted 256 slots are 247 copies of
    // 1e8 then 9 of 2e8; m = 4 reads slots 3..5, all padding -> (3 * 1e8) * 0.333333f.
    // Radius 8: n = 213, 43 padding slots then 213 of 2e8; m = 106 reads slots
    // 105..107, all gathered -> (3 * 2e8) * 0.333333f.
    const std::vector<float> g(8 * 8, 2.0e8f);
    expect_same_bits(run_filter(queue, g, 8, 1, 1), std::vector<float>(64, (kPad + kPad + kPad) * kThird));
    expect_same_bits(run_filter(queue, g, 8, 8, 1), std::vector<float>(64, (2.0e8f + 2.0e8f + 2.0e8f) * kThird));
}

HALDEN_INSTANTIATE_ON_DEVICES(MedianFilterHandWorked);

// Random grids against the reference, bit for bit.

class MedianFilterReference : public DeviceTest {};

// Radii past 8 act as 8.
TEST_P(MedianFilterReference, MatchesOnSizesAroundTheTile) {
    std::uint32_t seed = 1;
    for (int size : {1, 2, 7, 31, 32, 33, 64, 65, 100})
        for (std::uint32_t radius : {1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 200u, 0x7FFFFFFFu}) {
            const Mix mix = static_cast<Mix>(seed % 3);
            const auto g = random_grid(size, mix, seed++);
            auto want = g;
            for (std::uint32_t iterations : {1u, 2u}) {
                SCOPED_TRACE(::testing::Message() << "size " << size << ", radius " << radius << ", iterations "
                                                  << iterations << ", mix " << static_cast<int>(mix));
                want = reference(want, size, radius, 1);  // one more pass
                expect_same_bits(run_filter(queue, g, size, radius, iterations), want);
            }
        }
    EXPECT_TRUE(messages().error.empty());
}

TEST_P(MedianFilterReference, NaNAndMixedZerosFollowTheNetwork) {
    // One NaN pattern only: with two, which payload survives an addition
    // depends on operand order, which compilers may swap.
    const int size = 40;
    auto g = random_grid(size, Mix::ties, 11);
    std::mt19937 rng(12);
    std::uniform_int_distribution<int> cell(0, size * size - 1);
    for (int i = 0; i < 12; ++i) g[cell(rng)] = kNaN;
    for (int i = 0; i < 200; ++i) g[cell(rng)] = i % 2 ? 0.0f : -0.0f;
    for (std::uint32_t radius : {1u, 3u}) {
        SCOPED_TRACE(radius);
        expect_same_bits(run_filter(queue, g, size, radius, 2), reference(g, size, radius, 2, true));
    }
}

HALDEN_INSTANTIATE_ON_DEVICES(MedianFilterReference);

// The selection shortcut, and the library's network it falls back on, against
// "pad, sort with the test's network, pick".

float by_network(const std::vector<float>& list) {
    float v[256];
    const int n = static_cast<int>(list.size());
    std::copy(list.begin(), list.end(), v);
    std::fill(v + n, v + 256, kPad);
    network_sort(v);
    const int m = n / 2;
    return ((v[m + 1] + v[m]) + v[m - 1]) * kThird;
}

float by_library(const std::vector<float>& list) {
    // Slots past n hold a value that would show if they were read unpadded.
    float v[256];
    std::fill(v, v + 256, -12345.0f);
    std::copy(list.begin(), list.end(), v);
    return median_filter::mean_of_median3<256>(v, static_cast<int>(list.size()));
}

TEST(MedianFilterInternals, SelectionMatchesNetworkForEveryCount) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> spread(-1.0e9f, 1.0e9f), near(-3.0f, 3.0f);
    // The first four are not below the padding value, the first one equals it.
    const float edge[] = {kPad, 3.0e8f, kInf, std::nextafter(kPad, kInf), -kInf, std::nextafter(kPad, 0.0f),
                          0.0f, 1.0f};
    auto value = [&](int kind) {
        switch (kind) {
            case 0: return spread(rng);
            case 1: return static_cast<float>(rng() % 4);  // heavy ties
            case 2: return edge[rng() % 8];                // at and past the padding
            case 3: return edge[rng() % 4];                // none below it
            // None equal to it, so the padding run is exactly Capacity - n wide.
            case 4: return edge[1 + rng() % 3];
            case 5: return rng() % 5 ? edge[1 + rng() % 3] : spread(rng);
            // NaNs among ordinary values, or mostly zeros of both signs so that
            // the median lands on them: both fall back to the network.
            case 6: return rng() % 10 == 0 ? kNaN : near(rng);
            default: {
                const unsigned k = rng() % 10;
                return k < 4 ? -0.0f : k < 7 ? 0.0f : near(rng);
            }
        }
    };
    for (int n = 2; n <= 256; ++n)
        for (int kind = 0; kind < (n <= 213 ? 8 : 6); ++kind)
            for (int trial = 0; trial < 3; ++trial) {
                std::vector<float> list(n);
                for (float& x : list) x = value(kind);
                if (kind == 6) list[rng() % n] = kNaN;
                const float want = by_network(list), got = by_library(list);
                ASSERT_EQ(bits(got), bits(want)) << "n " << n << ", kind " << kind << ": got " << hex(got)
                                                 << ", want " << hex(want);
            }
}

TEST(MedianFilterInternals, NaNResultsTakeOnePattern) {
    // GPUs replace NaN payloads, CPUs keep them: every NaN result is stored as
    // 0x7FC00000 so the devices agree.
    for (std::uint32_t payload : {0x7FC00000u, 0xFFC00000u, 0x7FC12345u, 0xFFFFFFFFu})
        EXPECT_EQ(bits(by_library(std::vector<float>(9, std::bit_cast<float>(payload)))), 0x7FC00000u) << payload;
}

// The export's own checks.

class MedianFilterExport : public DeviceTest {};

TEST_P(MedianFilterExport, ZeroIterationsDoNothingAndNonPositiveRadiiAreRejected) {
    const auto g = random_grid(16, Mix::spread, 22);
    expect_same_bits(run_filter(queue, g, 16, 3, 0), g);
    EXPECT_TRUE(messages().error.empty());
    for (std::uint32_t radius : {0u, 0xFFFFFFFFu, 0x80000000u}) {
        SCOPED_TRACE(radius);
        messages().clear();
        expect_same_bits(run_filter(queue, g, 16, radius, 1), g);
        ASSERT_EQ(messages().error.size(), 1u);
        EXPECT_NE(messages().error[0].find("radius"), std::string::npos) << messages().error[0];
    }
}

TEST_P(MedianFilterExport, NullArgumentsAndZeroSizeAreRejected) {
    auto g = random_grid(4, Mix::spread, 23);
    const auto before = g;
    const halden_median_filter_parameters p{4, 2, 1, 0};
    const halden_median_filter_parameters empty{0, 2, 1, 0};

    // No queue, no grid, no parameters, a zero size: one at a time.
    for (int which = 0; which < 4; ++which) {
        messages().clear();
        EXPECT_EQ(MedianFilter(which == 0 ? nullptr : queue, which == 1 ? nullptr : g.data(),
                               which == 2 ? nullptr : which == 3 ? &empty : &p),
                  0u);
        EXPECT_EQ(messages().error.size(), 1u) << which;
    }
    expect_same_bits(g, before);
}

HALDEN_INSTANTIATE_ON_DEVICES(MedianFilterExport);

// The host device and a CUDA device agree bit for bit.

TEST(MedianFilterDevices, CpuAndCudaAgree) {
    const std::string cuda = halden::test::first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";

    const int size = 300;
    auto g = random_grid(size, Mix::spread, 31);
    std::mt19937 rng(32);
    std::uniform_int_distribution<int> cell(0, size * size - 1);
    for (int i = 0; i < 5; ++i) g[cell(rng)] = kNaN;
    // A block of zeros of both signs, so some windows mix them.
    for (int y = 100; y < 120; ++y)
        for (int x = 100; x < 120; ++x) g[y * size + x] = (x + y) % 3 ? 0.0f : -0.0f;

    auto on = [&](const std::string& key, std::uint32_t radius) {
        halden_queue* q = CreateSyclQueue(key.c_str(), &halden::test::capturing_callbacks());
        EXPECT_NE(q, nullptr) << key;
        const auto out = q ? run_filter(q, g, size, radius, 2) : std::vector<float>{};
        DestroySyclQueue(q);
        return out;
    };
    for (std::uint32_t radius : {3u, 8u}) {
        SCOPED_TRACE(radius);
        messages().clear();
        expect_same_bits(on(cuda, radius), on("cpu", radius));
        EXPECT_TRUE(messages().error.empty());
    }
}

}  // namespace
