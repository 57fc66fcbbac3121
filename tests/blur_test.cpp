// SPDX-License-Identifier: Apache-2.0
// Fast blur: a hand-worked row, the 25-wide box of radius 12, constant rows,
// the in-place export and device agreement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <string>
#include <vector>

#include "modules/blur/blur.hpp"
#include "support.hpp"

namespace {

class BlurPass : public halden::test::BackendTest {};

TEST_P(BlurPass, MatchesHandWorkedRowsAndTheRadiusTwelveBox) {
    auto pass = [&](const std::vector<float>& grid, int n, float radius, bool transposed = false) {
        halden::core::grid src = halden::test::upload(*q, grid, n, n), dst(*q, {std::size_t(n), std::size_t(n)});
        (transposed ? blur::detail::fastblur_half_pass<true, false> : blur::detail::fastblur_half_pass<true, true>)(
            *q, src.get(), dst.get(), n, radius);
        return halden::test::download(dst);
    };
    // Radius 1.5 weighs the five cells around j by 1/2, 1, 1, 1, 1/2 over 4,
    // clamped at the ends; every step is exact in float.
    std::vector<float> rows, want;
    for (int i = 0; i < 7; ++i)
        rows.insert(rows.end(), {2, 2, 6, 0, 0, 4, 4}),
            want.insert(want.end(), {2.5f, 2.75f, 2.25f, 2.25f, 2.25f, 2.5f, 3.5f});
    EXPECT_EQ(pass(rows, 7, 1.5f), want);
    for (float radius : {0.75f, 12.0f})
        EXPECT_EQ(pass(std::vector<float>(25, -3.0f), 5, radius), std::vector<float>(25, -3.0f)) << radius;
    // Radius 12 averages 25 cells once the first 13 of a row agree (the start offset then vanishes).
    const int n = 80;
    std::vector<float> grid = halden::test::random_cells(n, n, 3);
    for (int i = 0; i < n; ++i) std::fill_n(grid.begin() + i * n + 1, 12, grid[i * n]);
    const std::vector<float> out = pass(grid, n, 12.0f), cols = pass(grid, n, 12.0f, true);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            double box = 0;
            for (int k = j - 12; k <= j + 12; ++k) box += grid[i * n + std::clamp(k, 0, n - 1)];
            ASSERT_NEAR(out[i * n + j], box / 25.0, 1e-4) << i << ", " << j;
            ASSERT_EQ(cols[j * n + i], out[i * n + j]) << i << ", " << j;
        }
}

// The host runs rows eight at a time; every size, radius and layout must
// give the bits of one row at a time.
TEST_P(BlurPass, RowsSideBySideGiveTheBitsOfOneRowAtATime) {
    for (int n : {1, 5, 8, 9, 23, 64, 67})
        for (float radius : {0.4f, 2.5f, 12.0f, 100.25f})
            for (int start : {0, 1}) {
                const std::vector<float> grid = halden::test::random_cells(n, n, unsigned(n));
                halden::core::grid src = halden::test::upload(*q, grid, n, n);
                const auto run = [&](auto pass) {
                    halden::core::grid dst(*q, {std::size_t(n), std::size_t(n)});
                    pass(*q, src.get(), dst.get(), n, radius, start);
                    return halden::test::download(dst);
                };
                SCOPED_TRACE(std::to_string(n) + " " + std::to_string(radius) + " " + std::to_string(start));
                halden::test::expect_same_bits(run(blur::detail::running_rows<true, 8>),
                                               run(blur::detail::running_rows<true, 1>));
                halden::test::expect_same_bits(run(blur::detail::running_rows<false, 8>),
                                               run(blur::detail::running_rows<false, 1>));
            }
}

HALDEN_INSTANTIATE_ON_BACKENDS(BlurPass);

class BlurExport : public halden::test::DeviceTest {};

TEST_P(BlurExport, BlursInPlaceAndRejectsBadInput) {
    // A spike spreads symmetrically and keeps its total.
    const int n = 50;
    std::vector<float> g(n * n, 0.0f);
    g[25 * n + 25] = 1000.0f;
    EXPECT_EQ(Blur(queue, g.data(), n, 2.5f, nullptr), 0u);
    EXPECT_NEAR(std::accumulate(g.begin(), g.end(), 0.0), 1000.0, 1e-2);
    EXPECT_NEAR(g[25 * n + 22], g[22 * n + 25], 1e-4);
    EXPECT_NEAR(g[25 * n + 22], g[25 * n + 28], 1e-4);

    const std::vector<float> before = g;
    const halden_callbacks* cb = &halden::test::capturing_callbacks();
    for (auto [size, radius] : {std::pair{0, 2.0f}, {n, 0.0f}, {n, NAN}})
        EXPECT_EQ(Blur(queue, g.data(), size, radius, cb), 3u) << size << " " << radius;
    EXPECT_EQ(Blur(queue, nullptr, n, 2.0f, cb), 3u);
    EXPECT_EQ(Blur(nullptr, g.data(), n, 2.0f, nullptr), 3u);
    EXPECT_EQ(g, before);
    EXPECT_EQ(halden::test::messages().error.size(), 5u);
}

// Four passes of the documented weights in double: rows, then columns, twice.
std::vector<float> documented_blur(const std::vector<float>& g, int n, double radius) {
    const int r = int(radius);
    const double f = radius - r;
    std::vector<double> a(g.begin(), g.end()), b(a.size());
    for (int pass = 0; pass < 4; ++pass) {
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                const auto at = [&](long long k) { return a[std::size_t(i) * n + std::clamp<long long>(k, 0, n - 1)]; };
                // Cells past the ends counted at once: any radius is cheap.
                double sum = f * (at(j - r - 1) + at(j + r + 1)) + std::max(0, r - j) * at(0) +
                             std::max(0, j + r - (n - 1)) * at(n - 1);
                for (long long k = std::max(0, j - r); k <= std::min(n - 1, j + r); ++k) sum += at(k);
                b[std::size_t(j) * n + i] = sum / (2.0 * radius + 1.0);  // transposed
            }
        std::swap(a, b);
    }
    return {a.begin(), a.end()};
}

TEST_P(BlurExport, ComputesTheDocumentedWeightsForAnyRadius) {
    // The row 0 90 0 0 at radius 1: 30 30 30 0 after one pass, 30 30 20 10 after two.
    std::vector<float> rows;
    for (int i = 0; i < 4; ++i) rows.insert(rows.end(), {0, 90, 0, 0});
    ASSERT_EQ(Blur(queue, rows.data(), 4, 1.0f, nullptr), 0u);
    for (int i = 0; i < 16; ++i) EXPECT_NEAR(rows[i], (std::vector<float>{30, 30, 20, 10})[i % 4], 1e-4) << i;
    // Radii within, at and far past the row: always inside the input's range,
    // and a radius of 2^24 costs what a small one does.
    const int n = 50;
    const std::vector<float> in = halden::test::random_cells(n, n, 21);
    for (float radius : {0.4f, 2.5f, 7.3f, 49.0f, 50.0f, 75.5f, 1000.25f, 16777216.0f}) {
        std::vector<float> g = in;
        ASSERT_EQ(Blur(queue, g.data(), n, radius, nullptr), 0u) << radius;
        const std::vector<float> want = documented_blur(in, n, radius);
        for (int i = 0; i < n * n; ++i) {
            ASSERT_GE(g[i], -100.0f) << radius << " " << i;
            ASSERT_LE(g[i], 100.0f) << radius << " " << i;
            // Float sums over huge radii lose digits to the edge cells' weight.
            ASSERT_NEAR(g[i], want[i], radius < 2000.0f ? 1e-3 : 0.05) << radius << " " << i;
        }
    }
    // Radii whose integer part overflowed an int are refused, not run.
    std::vector<float> g = in;
    EXPECT_EQ(Blur(queue, g.data(), n, 3e9f, &halden::test::capturing_callbacks()), 3u);
    EXPECT_EQ(g, in);
}

HALDEN_INSTANTIATE_ON_DEVICES(BlurExport);

TEST(BlurDevices, CpuAndCudaAgree) {
    const std::string cuda = halden::test::first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    std::vector<float> gpu = halden::test::random_cells(333, 333, 9), cpu = gpu;
    for (auto [key, g] : {std::pair{cuda, &gpu}, {std::string("cpu"), &cpu}}) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        EXPECT_EQ(Blur(q, g->data(), 333, 7.3f, nullptr), 0u) << key;
        DestroySyclQueue(q);
    }
    EXPECT_EQ(halden::test::first_difference(gpu, cpu), -1);
}

}  // namespace
