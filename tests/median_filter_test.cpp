// SPDX-License-Identifier: Apache-2.0
// Median filter: hand-worked cases, an independent reference on random grids,
// the selection shortcut and the host's tile network against sorting, and the
// export's checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "modules/median_filter/median_filter.hpp"
#include "support.hpp"

namespace {

using halden::test::bits, halden::test::expect_same_bits, halden::test::hex, halden::test::messages;

// Written out rather than taken from the library, so that a wrong constant there shows.
constexpr float kPad = 100000000.0f;
constexpr float kThird = 0.333333f;
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// The value for one window: pad to 256 slots, sort with the ascending bitonic network
// (the only order that fixes where NaNs and zeros of either sign end up), average the middle three.
float by_network(std::vector<float> v) {
    const int m = static_cast<int>(v.size()) / 2;
    v.resize(256, kPad);
    for (int k = 2; k <= 256; k *= 2)
        for (int j = k / 2; j >= 1; j /= 2)
            for (int i = 0; i < 256; ++i)
                if (const int l = i ^ j; l > i && ((i & k) == 0 ? v[i] > v[l] : v[i] < v[l])) std::swap(v[i], v[l]);
    return ((v[m + 1] + v[m]) + v[m - 1]) * kThird;
}

// The filter rule as plainly as it can be written; radii past 8 act as 8.
std::vector<float> reference(std::vector<float> g, int size, std::uint32_t radius, std::uint32_t iterations) {
    const int r = std::min(static_cast<std::int32_t>(radius), 8);
    auto at = [&](int y, int x) { return g[std::clamp(y, 0, size - 1) * size + std::clamp(x, 0, size - 1)]; };
    for (std::uint32_t pass = 0; pass < iterations; ++pass) {
        std::vector<float> out(g.size());
        for (int y = 0; y < size; ++y)
            for (int x = 0; x < size; ++x) {
                std::vector<float> window;
                for (int dy = -r; dy <= r; ++dy)
                    for (int dx = -r; dx <= r; ++dx)
                        if (dx * dx + dy * dy <= r * r + 2) window.push_back(at(y + dy, x + dx));
                out[y * size + x] = by_network(window);
            }
        g = out;
    }
    return g;
}

// By seed: spread values; heavy ties; values at and beyond the padding value; ties with
// zeros of both signs and NaNs. One NaN pattern only: with two, which payload survives
// an addition depends on operand order, which compilers may swap.
std::vector<float> random_grid(int size, std::uint32_t seed) {
    auto g = halden::test::random_cells(size, size, seed);
    const float beyond[] = {kPad, 3.0e8f, kInf, -kInf};
    for (float& c : g) {
        if (seed % 4 == 1) c = std::round(c / 30) + 0.0f;
        if (seed % 4 == 2 && c < -20) c = beyond[int(c + 100) % 4];
        if (seed % 4 == 3) c = c > 97 ? kNaN : std::round(c / 30);
    }
    return g;
}

// For windows of comparable values without both zeros, where the padded network's order
// cannot show: gather, std::sort, the middle three ranks of the gathered values.
std::vector<float> plain_reference(std::vector<float> g, int size, int r, std::uint32_t iterations) {
    auto at = [&](int y, int x) { return g[std::clamp(y, 0, size - 1) * size + std::clamp(x, 0, size - 1)]; };
    std::vector<float> window;
    for (std::uint32_t pass = 0; pass < iterations; ++pass) {
        std::vector<float> out(g.size());
        for (int y = 0; y < size; ++y)
            for (int x = 0; x < size; ++x) {
                window.clear();
                for (int dy = -r; dy <= r; ++dy)
                    for (int dx = -r; dx <= r; ++dx)
                        if (dx * dx + dy * dy <= r * r + 2) window.push_back(at(y + dy, x + dx));
                std::sort(window.begin(), window.end());
                const std::size_t m = window.size() / 2;
                out[y * size + x] = ((window[m + 1] + window[m]) + window[m - 1]) * kThird;
            }
        g = out;
    }
    return g;
}

// Grids the host's sorting network takes whole, by seed: spread values; heavy ties with
// +0; heavy ties with -0; values up to and at the padding value, and -inf. Filtering
// keeps them so, except that it can bring +0 to a grid with -0.
std::vector<float> clean_grid(int size, std::uint32_t seed) {
    auto g = halden::test::random_cells(size, size, seed);
    const float high[] = {kPad, std::nextafter(kPad, 0.0f), 9.0e7f, -kInf};
    for (float& c : g) {
        if (seed % 4 == 1) c = std::round(c / 30) + 0.0f;
        if (seed % 4 == 2) c = c > -15 && c < 15 ? -0.0f : std::round(c / 30);
        if (seed % 4 == 3 && c > 60) c = high[int(c) % 4];
    }
    return g;
}

std::vector<float> run_filter(halden_queue* q, std::vector<float> grid, std::uint32_t size, std::uint32_t radius,
                              std::uint32_t iterations) {
    const halden_median_filter_parameters p{size, radius, iterations, 0};
    EXPECT_EQ(MedianFilter(q, grid.data(), &p), 0u);
    return grid;
}

// Every device against the same host expectations, so they agree bit for bit.
class MedianFilterTest : public halden::test::DeviceTest {};

TEST_P(MedianFilterTest, HandWorkedGrids) {
    // A spike in a flat grid: every window holds at most one 100 among at least nine 1s.
    // (1 + 1 + 1) * 0.333333f is 33554397 * 2^-25, a tie between floats, to even: 0x3F7FFFEE.
    const float one = (1.0f + 1.0f + 1.0f) * kThird;
    EXPECT_EQ(bits(one), 0x3F7FFFEEu);
    std::vector<float> spike(25, 1.0f);
    spike[12] = 100.0f;
    for (std::uint32_t radius : {1u, 8u})
        expect_same_bits(run_filter(queue, spike, 5, radius, 1), std::vector<float>(25, one));
    // 1 2 3 / 4 5 6 / 7 8 9, radius 1 (the whole 3x3 window: 2 <= 1 + 2), edges replicated:
    //  (0,0): 1 1 2 1 1 2 4 4 5 -> sorted slots 3..5 = 1 2 2 -> 5 * 0.333333f
    //  (0,1): 1 2 3 1 2 3 4 5 6 -> 2 3 3 -> 8 (a swapped row/column clamp would give 13)
    //  (1,1): 4 5 6 -> 15;  (2,2): 5 6 6 8 9 9 8 9 9 -> 8 8 9 -> 25
    const auto out = run_filter(queue, {1, 2, 3, 4, 5, 6, 7, 8, 9}, 3, 1, 1);
    for (const auto& [cell, sum] : {std::pair{0, 5.0f}, {1, 8.0f}, {4, 15.0f}, {8, 25.0f}})
        EXPECT_EQ(bits(out[cell]), bits(sum * kThird)) << "cell " << cell << ": " << hex(out[cell]);
    // Every cell 2e8. Radius 1 gathers 9: the sorted slots 3..5 are all padding.
    // Radius 8 gathers 213 after 43 padding slots: slots 105..107 are all gathered.
    const std::vector<float> high(64, 2.0e8f);
    expect_same_bits(run_filter(queue, high, 8, 1, 1), std::vector<float>(64, (kPad + kPad + kPad) * kThird));
    expect_same_bits(run_filter(queue, high, 8, 8, 1), std::vector<float>(64, (2.0e8f + 2.0e8f + 2.0e8f) * kThird));
    EXPECT_TRUE(messages().error.empty());
}

TEST_P(MedianFilterTest, MatchesTheReferenceOnSizesAroundTheTile) {
    std::uint32_t seed = 0;
    for (int size : {1, 2, 33, 65})
        for (std::uint32_t radius : {1u, 2u, 5u, 8u, 0x7FFFFFFFu}) {
            const auto g = random_grid(size, ++seed);
            const auto once = reference(g, size, radius, 1);
            SCOPED_TRACE(::testing::Message() << "size " << size << ", radius " << radius << ", seed " << seed);
            expect_same_bits(run_filter(queue, g, size, radius, 1), once);
            expect_same_bits(run_filter(queue, g, size, radius, 2), reference(once, size, radius, 1));
        }
    EXPECT_TRUE(messages().error.empty());
}

// The host runs blocks of 8-row tiles, 16 tiles of 8 columns side by side, through a
// sorting network: sizes below, at and past a tile and a block, every radius, and up to
// three passes, in either instruction set the host loops have.
TEST_P(MedianFilterTest, CleanGridsMatchAPlainSort) {
    namespace native = halden::compute::native;
    const int sizes[] = {1, 2, 7, 8, 9, 31, 64, 65, 127, 129, 136};
    std::uint32_t seed = 100;
    for (int radius = 1; radius <= 8; ++radius)
        for (int k = 0; k < 3; ++k) {
            const int size = sizes[(radius * 3 + k * 5) % std::size(sizes)];
            const auto g = clean_grid(size, ++seed);
            // A pass can turn -1 + 1 into +0: grids with -0 stay clean for one pass only.
            const std::uint32_t iterations = seed % 4 == 2 ? 1 : 1 + (radius + k) % 3;
            SCOPED_TRACE(::testing::Message() << "size " << size << ", radius " << radius << ", iterations "
                                              << iterations << ", seed " << seed);
            const auto want = plain_reference(g, size, radius, iterations);
            expect_same_bits(run_filter(queue, g, size, radius, iterations), want);
            if (GetParam() == "cpu" && k == 0) {
                const native::isa before = native::active_isa();
                native::select_isa(native::isa::baseline);
                expect_same_bits(run_filter(queue, g, size, radius, iterations), want);
                native::select_isa(before);
            }
        }
    EXPECT_TRUE(messages().error.empty());
}

// Clean grids with a few cells the network cannot take: NaN, values past the padding,
// and +0 near -0. Their tiles take the exact path, the others keep the network; both
// must agree with the padded network everywhere.
TEST_P(MedianFilterTest, MixedGridsMatchTheReference) {
    const int size = 136;
    std::uint32_t seed = 200;
    for (std::uint32_t radius : {2u, 8u}) {
        auto g = halden::test::random_cells(size, size, ++seed);
        std::mt19937 rng(seed);
        const float odd[] = {kNaN, 3.0e8f, kInf, 0.0f, -0.0f, kPad};
        for (int k = 0; k < 24; ++k) g[rng() % g.size()] = odd[k % std::size(odd)];
        // A patch of zeros of both signs across a block's edge, where the network and the
        // padded sort would pick different zeros; NaN on a tile's corner.
        for (int y = 30; y < 46; ++y)
            for (int x = 110; x < 134; ++x) g[y * size + x] = rng() % 8 == 0 ? 1.0f : (rng() % 2 ? 0.0f : -0.0f);
        g[8 * size + 8] = kNaN;
        const auto once = reference(g, size, radius, 1);
        SCOPED_TRACE(::testing::Message() << "radius " << radius << ", seed " << seed);
        expect_same_bits(run_filter(queue, g, size, radius, 1), once);
        // A second pass, where NaN and the zeros have spread.
        if (radius == 8) expect_same_bits(run_filter(queue, g, size, radius, 2), reference(once, size, radius, 1));
    }
    EXPECT_TRUE(messages().error.empty());
}

TEST_P(MedianFilterTest, BadInputIsRejectedAndLeavesTheGridUntouched) {
    auto g = random_grid(16, 4);
    const auto before = g;
    const halden_median_filter_parameters p{16, 2, 1, 0}, idle{16, 2, 0, 0};
    EXPECT_EQ(MedianFilter(queue, g.data(), &idle), 0u);  // zero iterations: nothing to do or report
    EXPECT_TRUE(messages().error.empty());
    // Radii not positive as signed values, a zero size; then no queue, no grid, no record.
    const halden_median_filter_parameters bad[] = {{16, 0, 1, 0}, {16, 0x80000000u, 1, 0}, {16, 0xFFFFFFFFu, 1, 0},
                                                   {0, 2, 1, 0}};
    for (int which = 0; which < 7; ++which) {
        messages().clear();
        EXPECT_EQ(MedianFilter(which == 4 ? nullptr : queue, which == 5 ? nullptr : g.data(),
                               which == 6 ? nullptr : which < 4 ? &bad[which] : &p), 0u);
        ASSERT_EQ(messages().error.size(), 1u) << which;
        EXPECT_TRUE(which > 2 || messages().error[0].find("radius") != std::string::npos) << messages().error[0];
    }
    expect_same_bits(g, before);
}

HALDEN_INSTANTIATE_ON_DEVICES(MedianFilterTest);

// The selection shortcut against the test's network for every list length, on lists
// that put the median in and around the padding. (NaNs and mixed zeros, which take the
// library's own network, come through the random grids above.)
TEST(MedianFilterInternals, SelectionMatchesNetworkForEveryCount) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> spread(-1.0e9f, 1.0e9f);
    // The first four are not below the padding value, the first one equals it.
    const float edge[] = {kPad, 3.0e8f, kInf, std::nextafter(kPad, kInf), -kInf, std::nextafter(kPad, 0.0f), 0, 1};
    auto value = [&](int kind) {
        switch (kind) {
            case 0: return spread(rng);
            case 1: return static_cast<float>(rng() % 4);  // heavy ties
            case 2: return edge[rng() % 8];                // at and past the padding
            case 3: return edge[rng() % 4];                // none below it
            case 4: return edge[1 + rng() % 3];            // none equal: the padding run is exactly 256 - n wide
            default: return rng() % 5 ? edge[1 + rng() % 3] : spread(rng);
        }
    };
    float v[256];
    for (int n = 2; n <= 256; ++n)
        for (int kind = 0; kind < 6; ++kind)
            for (int trial = 0; trial < 3; ++trial) {
                std::vector<float> list(n);
                for (float& x : list) x = value(kind);
                std::fill(std::copy(list.begin(), list.end(), v), v + 256, -12345.0f);  // shows if read unpadded
                const float want = by_network(list), got = median_filter::mean_of_median3<256>(v, n);
                ASSERT_EQ(bits(got), bits(want)) << "n " << n << ", kind " << kind << ": " << hex(got);
            }
    // GPUs replace NaN payloads and CPUs keep them: every NaN result is stored as 0x7FC00000.
    for (std::uint32_t payload : {0xFFC00000u, 0x7FC12345u, 0xFFFFFFFFu}) {
        std::fill(v, v + 256, halden::bits_float(payload));
        EXPECT_EQ(bits(median_filter::mean_of_median3<256>(v, 9)), 0x7FC00000u) << payload;
    }
}

// The host's tile network, run as plain code on random regions, against std::sort of
// every output's window: spread values, heavy ties, ordered and constant regions.
TEST(MedianFilterInternals, TileNetworkPicksTheMiddleRanks) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> spread(-1.0e6f, 1.0e6f);
    for (int r = 1; r <= 8; ++r) {
        const median_filter::detail::tile_network& net = median_filter::detail::network_for(r);
        ASSERT_EQ(net.radius, r);
        const int span = net.width + 2 * r, region = (net.height + 2 * r) * span;
        ASSERT_EQ(net.outputs.size(), std::size_t(3 * net.width * net.height));
        ASSERT_EQ(net.ops.size() % 4, 0u);
        std::vector<float> slot(std::size_t(net.slots));
        for (int trial = 0; trial < 12; ++trial) {
            for (int c = 0; c < region; ++c) {
                switch (trial % 4) {
                    case 0: slot[c] = spread(rng); break;
                    case 1: slot[c] = float(rng() % 3); break;
                    case 2: slot[c] = float(trial < 8 ? c : -c); break;
                    default: slot[c] = trial < 8 ? 5.0f : -kInf;
                }
            }
            const std::vector<float> cells(slot.begin(), slot.begin() + region);
            for (std::size_t k = 0; k < net.ops.size(); k += 4) {
                const float a = slot[net.ops[k + 2]], b = slot[net.ops[k + 3]];
                slot[net.ops[k]] = std::min(a, b);
                slot[net.ops[k + 1]] = std::max(a, b);
            }
            for (int i = 0; i < net.height; ++i)
                for (int j = 0; j < net.width; ++j) {
                    std::vector<float> window;
                    for (int dy = -r; dy <= r; ++dy)
                        for (int dx = -r; dx <= r; ++dx)
                            if (dx * dx + dy * dy <= r * r + 2)
                                window.push_back(cells[(i + r + dy) * span + j + r + dx]);
                    std::sort(window.begin(), window.end());
                    const std::size_t m = window.size() / 2, o = 3 * std::size_t(i * net.width + j);
                    for (std::size_t t = 0; t < 3; ++t)
                        ASSERT_EQ(bits(slot[net.outputs[o + t]]), bits(window[m - 1 + t]))
                            << "radius " << r << ", trial " << trial << ", output " << i << "," << j << ", rank " << t;
                }
        }
    }
}

}  // namespace
