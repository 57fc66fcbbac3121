// SPDX-License-Identifier: Apache-2.0
// Point clouds: single points and planes against values worked out by hand,
// pull-push over constant fields and its rules, independence of the input
// order, conserved counts, bad input and device agreement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "modules/mesh_rasterizer/point_cloud.hpp"
#include "support.hpp"

namespace {

using halden::test::expect_same_bits;

constexpr float kEmpty = -999.0f;

halden_point_parameters record(int w, int h, int mode) {
    halden_point_parameters p{};
    p.transform.width = w, p.transform.height = h;
    p.transform.scale = p.transform.depth_divisor = 1.0f;
    p.mode = mode, p.fill = HALDEN_POINTS_FILL_NONE, p.power = 2.0f, p.empty = kEmpty;
    return p;
}

struct grids {
    std::vector<float> heights, counts;
};

std::uint32_t render(halden_queue* q, const std::vector<float>& xyz, const halden_point_parameters& p, grids& out,
                     const halden_callbacks* cb = nullptr) {
    const std::size_t cells = std::size_t(p.transform.width) * std::size_t(p.transform.height);
    out.heights.assign(cells, 12345.0f);
    out.counts.assign(cells, 12345.0f);
    const halden_points points{xyz.data(), std::uint32_t(xyz.size() / 3), 0};
    return MeshRasterizer_RenderPointCloud(q, &points, out.heights.data(), out.counts.data(), &p, cb);
}

// n random points over [-2, w + 2) x [-2, h + 2), heights on a few levels so
// that cells see ties, and some exact duplicates.
std::vector<float> random_points(int n, int w, int h, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> x(-2.0f, float(w) + 2.0f), y(-2.0f, float(h) + 2.0f), z(-3.0f, 9.0f);
    std::vector<float> xyz;
    for (int i = 0; i < n; ++i) xyz.insert(xyz.end(), {x(rng), y(rng), i % 3 == 0 ? std::round(z(rng)) : z(rng)});
    for (int i = 0; i < n / 10; ++i) xyz.insert(xyz.end(), {xyz[6 * i], xyz[6 * i + 1], xyz[6 * i + 2]});
    return xyz;
}

const int kModes[] = {HALDEN_POINTS_MAX,     HALDEN_POINTS_MIN,   HALDEN_POINTS_MEAN, HALDEN_POINTS_IDW,
                      HALDEN_POINTS_NEAREST, HALDEN_POINTS_COUNT, HALDEN_POINTS_STDEV};

class PointCloud : public halden::test::DeviceTest {};

TEST_P(PointCloud, OnePointGivesItsHeightInEveryMode) {
    // (2.3, 1.6) lies in cell (row 1, column 2) of a 5 x 4 grid.
    const std::vector<float> xyz{2.3f, 1.6f, 7.25f};
    for (int mode : kModes)
        for (float radius : {0.0f, 1.5f}) {
            SCOPED_TRACE("mode " + std::to_string(mode) + " radius " + std::to_string(radius));
            halden_point_parameters p = record(5, 4, mode);
            p.radius = radius;
            grids g;
            ASSERT_EQ(render(queue, xyz, p, g), 0u);
            const float want = mode == HALDEN_POINTS_COUNT ? 1.0f : (mode == HALDEN_POINTS_STDEV ? 0.0f : 7.25f);
            for (int i = 0; i < 20; ++i) {
                const float dx = 2.3f - (float(i % 5) + 0.5f), dy = 1.6f - (float(i / 5) + 0.5f);
                const bool gathers = radius == 0.0f ? i == 7 : dx * dx + dy * dy <= radius * radius;
                EXPECT_EQ(g.counts[i], gathers ? 1.0f : 0.0f) << i;
                EXPECT_EQ(g.heights[i], gathers ? want : (mode == HALDEN_POINTS_COUNT ? 0.0f : kEmpty)) << i;
            }
        }
    // Two points of one cell: z 1 and 3, the second nearer the centre.
    const std::vector<float> two{0.1f, 0.1f, 1.0f, 0.6f, 0.4f, 3.0f};
    const float want[] = {3.0f, 1.0f, 2.0f, 0.0f, 3.0f, 2.0f, 1.0f};
    for (int mode : kModes) {
        grids g;
        ASSERT_EQ(render(queue, two, record(1, 1, mode), g), 0u);
        if (mode == HALDEN_POINTS_IDW) {
            // Weights 1 / 0.32 and 1 / 0.02: (1 * 0.02 + 3 * 0.32) / 0.34.
            EXPECT_NEAR(g.heights[0], (0.02 + 3.0 * 0.32) / 0.34, 2e-6);
        } else {
            EXPECT_EQ(g.heights[0], want[mode]) << mode;
        }
    }
}

TEST_P(PointCloud, PointsOnAPlaneGiveThePlane) {
    // z = 0.5 x + 0.25 y + 3: four points per cell at the centre +- 0.25, so
    // every cell's points (and, away from the border, every circle about a
    // centre) are symmetric about the centre, whose plane value is the mean.
    const int w = 12, h = 9;
    const auto plane = [](float x, float y) { return 0.5f * x + 0.25f * y + 3.0f; };
    std::vector<float> xyz;
    for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c)
            for (float oy : {0.25f, 0.75f})
                for (float ox : {0.25f, 0.75f}) xyz.insert(xyz.end(), {c + ox, r + oy, plane(c + ox, r + oy)});
    for (int mode : {HALDEN_POINTS_MEAN, HALDEN_POINTS_IDW})
        for (float radius : {0.0f, 1.3f, 2.6f})
            for (float power : {2.0f, 3.0f}) {
                SCOPED_TRACE("mode " + std::to_string(mode) + " radius " + std::to_string(radius) + " power " +
                             std::to_string(power));
                halden_point_parameters p = record(w, h, mode);
                p.radius = radius, p.power = power;
                grids g;
                ASSERT_EQ(render(queue, xyz, p, g), 0u);
                const int border = int(radius + 0.5f);
                for (int r = border; r < h - border; ++r)
                    for (int c = border; c < w - border; ++c) {
                        const float want = plane(c + 0.5f, r + 0.5f);
                        // Sums of quarter-cell values and weights 8 (1 / 0.125)
                        // are exact; other weights round once in double, which
                        // moves the float result by at most an ulp.
                        if (radius == 0.0f && (mode == HALDEN_POINTS_MEAN || power == 2.0f))
                            EXPECT_EQ(g.heights[r * w + c], want) << r << " " << c;
                        else
                            EXPECT_NEAR(g.heights[r * w + c], want, 4e-6f) << r << " " << c;
                    }
            }
}

TEST_P(PointCloud, PullPushFillsAConstantFieldExactlyWithinItsRules) {
    // Points of height 3.7 (not a dyadic value) on a ring of cells around
    // (10, 8) of radius 4 to 6, in a 23 x 19 grid: a hole inside the ring,
    // and empty cells outside it that reach the border.
    const int w = 23, h = 19;
    const float value = 3.7f;
    std::vector<float> xyz;
    for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c) {
            const int d2 = (c - 10) * (c - 10) + (r - 8) * (r - 8);
            if (d2 >= 16 && d2 <= 36) xyz.insert(xyz.end(), {c + 0.5f, r + 0.5f, value});
        }
    const auto dist2 = [](int c, int r) {
        // Squared distance to the nearest ring cell, by brute force.
        int best = 1 << 30;
        for (int rr = 0; rr < 19; ++rr)
            for (int cc = 0; cc < 23; ++cc) {
                const int d2 = (cc - 10) * (cc - 10) + (rr - 8) * (rr - 8);
                if (d2 >= 16 && d2 <= 36) best = std::min(best, (cc - c) * (cc - c) + (rr - r) * (rr - r));
            }
        return best;
    };
    for (int fill : {HALDEN_POINTS_FILL_PULL_PUSH, HALDEN_POINTS_FILL_INNER})
        for (float max_fill : {0.0f, 2.5f}) {
            SCOPED_TRACE("fill " + std::to_string(fill) + " max_fill " + std::to_string(max_fill));
            halden_point_parameters p = record(w, h, HALDEN_POINTS_MEAN);
            p.fill = fill, p.max_fill = max_fill;
            grids g;
            ASSERT_EQ(render(queue, xyz, p, g), 0u);
            for (int r = 0; r < h; ++r)
                for (int c = 0; c < w; ++c) {
                    const int d2 = (c - 10) * (c - 10) + (r - 8) * (r - 8);
                    const bool data = d2 >= 16 && d2 <= 36, inner = d2 < 16;
                    const bool filled = !data && (fill != HALDEN_POINTS_FILL_INNER || inner) &&
                                        (max_fill == 0.0f || float(dist2(c, r)) <= max_fill * max_fill);
                    EXPECT_EQ(g.heights[r * w + c], data || filled ? value : kEmpty) << r << " " << c;
                    EXPECT_EQ(g.counts[r * w + c], data ? 1.0f : 0.0f);
                }
        }
    // A varying field: the data cells keep their bits, holes take values
    // within the data's range.
    std::vector<float> ramp;
    for (int i = 0; i < 40; ++i) ramp.insert(ramp.end(), {float(i % 23) + 0.5f, float((i * 7) % 19) + 0.5f, float(i)});
    halden_point_parameters p = record(w, h, HALDEN_POINTS_MAX);
    grids plain, filled;
    ASSERT_EQ(render(queue, ramp, p, plain), 0u);
    p.fill = HALDEN_POINTS_FILL_PULL_PUSH;
    ASSERT_EQ(render(queue, ramp, p, filled), 0u);
    for (int i = 0; i < w * h; ++i) {
        if (plain.counts[i] > 0.0f)
            EXPECT_EQ(filled.heights[i], plain.heights[i]) << i;
        else
            EXPECT_TRUE(filled.heights[i] >= 0.0f && filled.heights[i] <= 39.0f) << i;
    }
}

TEST_P(PointCloud, TheOrderOfThePointsChangesNoBit) {
    const int w = 24, h = 17;
    const std::vector<float> xyz = random_points(2000, w, h, 5);
    std::vector<std::size_t> order(xyz.size() / 3);
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(9));
    std::vector<float> shuffled;
    for (std::size_t i : order) shuffled.insert(shuffled.end(), {xyz[3 * i], xyz[3 * i + 1], xyz[3 * i + 2]});
    for (int mode : kModes)
        for (float radius : {0.0f, 1.5f}) {
            SCOPED_TRACE("mode " + std::to_string(mode) + " radius " + std::to_string(radius));
            halden_point_parameters p = record(w, h, mode);
            p.radius = radius, p.power = 2.5f, p.fill = HALDEN_POINTS_FILL_PULL_PUSH;
            grids a, b;
            ASSERT_EQ(render(queue, xyz, p, a), 0u);
            ASSERT_EQ(render(queue, shuffled, p, b), 0u);
            expect_same_bits(b.heights, a.heights);
            expect_same_bits(b.counts, a.counts);
        }
}

TEST_P(PointCloud, CountsAddUpToThePointsInsideTheGrid) {
    // A transformed frame: x' = 2 (x - 1) + 0.5, y' = 2 (y - 1) + 0.5, with
    // quarter-cell coordinates so that the test's own cells are exact.
    std::vector<float> xyz;
    std::mt19937 rng(3);
    std::uniform_int_distribution<int> q(-12, 60);
    for (int i = 0; i < 3000; ++i) xyz.insert(xyz.end(), {q(rng) * 0.25f, q(rng) * 0.25f, float(i % 17)});
    halden_point_parameters p = record(19, 13, HALDEN_POINTS_COUNT);
    p.transform.centre[0] = p.transform.centre[1] = 1.0f, p.transform.scale = 2.0f;
    p.transform.offset[0] = p.transform.offset[1] = 0.5f;
    std::vector<float> want(19 * 13, 0.0f);
    std::size_t inside = 0;
    for (std::size_t i = 0; i < xyz.size(); i += 3) {
        const float x = 2.0f * (xyz[i] - 1.0f) + 0.5f, y = 2.0f * (xyz[i + 1] - 1.0f) + 0.5f;
        if (x < 0.0f || y < 0.0f || x >= 19.0f || y >= 13.0f) continue;
        want[int(y) * 19 + int(x)] += 1.0f;
        ++inside;
    }
    ASSERT_GT(inside, 500u);
    ASSERT_LT(inside, 2500u);
    grids g;
    ASSERT_EQ(render(queue, xyz, p, g), 0u);
    EXPECT_EQ(g.counts, want);
    EXPECT_EQ(g.heights, want);
    p.mode = HALDEN_POINTS_MEAN;
    ASSERT_EQ(render(queue, xyz, p, g), 0u);
    EXPECT_EQ(g.counts, want);
}

TEST_P(PointCloud, BadInputIsRefusedWithItsReason) {
    const std::vector<float> xyz{1.0f, 1.0f, 1.0f, 2.5f, 0.5f, NAN};
    const halden_points good{xyz.data(), 1, 0}, nan_point{xyz.data(), 2, 0}, none{xyz.data(), 0, 0},
        no_array{nullptr, 3, 0};
    const halden_point_parameters p = record(4, 4, HALDEN_POINTS_MEAN);
    std::vector<halden_point_parameters> bad(9, p);
    bad[0].mode = 7, bad[1].fill = -1, bad[2].transform.supersample = 1, bad[3].radius = -1.0f;
    bad[4].mode = HALDEN_POINTS_IDW, bad[4].power = 0.0f, bad[5].max_fill = NAN, bad[6].transform.width = 0;
    bad[7].transform.depth_divisor = 0.0f, bad[8].radius = NAN;
    const char* named[] = {"mode",     "fill",  "supersample",   "radius", "power",
                           "max_fill", "width", "depth_divisor", "radius"};
    const halden_callbacks* cb = &halden::test::capturing_callbacks();
    std::vector<float> heights(16, 5.0f), counts(16, 6.0f);
    const auto call = [&](const halden_points* pts, const halden_point_parameters* rec, halden_queue* q) {
        halden::test::messages().clear();
        return MeshRasterizer_RenderPointCloud(q, pts, heights.data(), counts.data(), rec, cb);
    };
    const auto last_error = [] {
        const auto& e = halden::test::messages().error;
        return e.empty() ? std::string() : e.back();
    };
    for (std::size_t i = 0; i < bad.size(); ++i) {
        EXPECT_EQ(call(&good, &bad[i], queue), 3u) << i;
        EXPECT_NE(last_error().find(named[i]), std::string::npos) << last_error();
    }
    EXPECT_EQ(call(&nan_point, &p, queue), 3u);
    EXPECT_NE(last_error().find("point 1 has a non-finite coordinate"), std::string::npos) << last_error();
    EXPECT_EQ(call(&none, &p, queue), 3u);
    EXPECT_NE(last_error().find("no points"), std::string::npos) << last_error();
    EXPECT_EQ(call(&no_array, &p, queue), 3u);
    EXPECT_NE(last_error().find("null point array"), std::string::npos) << last_error();
    EXPECT_EQ(call(nullptr, &p, queue), 3u);
    EXPECT_NE(last_error().find("null points record"), std::string::npos) << last_error();
    EXPECT_EQ(call(&good, nullptr, queue), 3u);
    EXPECT_NE(last_error().find("null parameter record"), std::string::npos) << last_error();
    EXPECT_EQ(call(&good, &p, nullptr), 3u);
    EXPECT_EQ(MeshRasterizer_RenderPointCloud(queue, &good, nullptr, nullptr, &p, cb), 3u);
    EXPECT_EQ(heights, std::vector<float>(16, 5.0f));
    EXPECT_EQ(counts, std::vector<float>(16, 6.0f));
    // Points all outside the grid are not an error: every cell is empty,
    // and a fill has nothing to fill from.
    const std::vector<float> away{-5.0f, 1.0f, 1.0f, 1.0f, 40.0f, 2.0f};
    halden_point_parameters f = p;
    f.fill = HALDEN_POINTS_FILL_PULL_PUSH, f.empty = NAN;
    grids g;
    ASSERT_EQ(render(queue, away, f, g), 0u);
    EXPECT_TRUE(std::all_of(g.heights.begin(), g.heights.end(), [](float v) { return std::isnan(v); }));
    EXPECT_EQ(g.counts, std::vector<float>(16, 0.0f));
}

HALDEN_INSTANTIATE_ON_DEVICES(PointCloud);

// Bit for bit on the host and on a GPU: every mode, with a radius, and every
// fill rule, on a grid of odd size with points beyond its edges.
TEST(PointCloudDevices, CudaMatchesTheHost) {
    const std::string cuda = halden::test::first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    halden_queue* cpu = CreateSyclQueue("cpu", nullptr);
    halden_queue* gpu = CreateSyclQueue(cuda.c_str(), nullptr);
    ASSERT_TRUE(cpu && gpu);
    const int w = 131, h = 77;
    const std::vector<float> xyz = random_points(20000, w, h, 21);
    for (int mode : kModes)
        for (int fill : {HALDEN_POINTS_FILL_NONE, HALDEN_POINTS_FILL_PULL_PUSH, HALDEN_POINTS_FILL_INNER}) {
            SCOPED_TRACE("mode " + std::to_string(mode) + " fill " + std::to_string(fill));
            halden_point_parameters p = record(w, h, mode);
            p.radius = mode % 2 ? 1.7f : 0.0f, p.power = 2.5f, p.fill = fill, p.max_fill = fill == 1 ? 3.0f : 0.0f;
            grids a, b;
            ASSERT_EQ(render(cpu, xyz, p, a), 0u);
            ASSERT_EQ(render(gpu, xyz, p, b), 0u);
            expect_same_bits(b.heights, a.heights);
            expect_same_bits(b.counts, a.counts);
        }
    DestroySyclQueue(gpu);
    DestroySyclQueue(cpu);
}

}  // namespace
