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
