// SPDX-License-Identifier: Apache-2.0
// Fast blur: the running-sum pass against the same steps written plainly in
// double precision, constant rows, the 25-wide box of radius 12, small grids,
// the two-dimensional export and device agreement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "modules/blur/blur.hpp"
#include "support.hpp"

namespace {

using halden::test::download;
using halden::test::upload;

// One row blurred by the pass's steps, in double.
std::vector<double> reference_row(const std::vector<float>& s, float radius) {
    const int n = int(s.size()), r = int(radius);
    const double f = double(radius) - r, g = 1.0 - f, k = 1.0 / (2.0 * radius + 1.0);
    auto at = [&](int i) { return double(s[std::clamp(i, 0, n - 1)]); };
    const double first = s[0], last = s[n - 1];
    double sum = radius * first + first;
    for (int i = 1; i <= r; ++i) sum += at(i);
    sum += f * at(r);
    std::vector<double> out(n);
    double e = at(r), p = first;
    for (int j = 0; j <= std::min(r, n - 1); ++j) {
        sum = sum - first + g * e + f * at(j + r + 1);
        out[j] = sum * k;
        e = at(j + r + 1);
    }
    for (int j = r + 1; j <= n - r - 2; ++j) {
        sum += g * (e - at(j - r - 1)) + f * (at(j + r + 1) - p);
        out[j] = sum * k;
        p = at(j - r - 1);
        e = at(j + r + 1);
    }
    for (int j = std::max(n - r - 1, r + 1); j < n; ++j) {
        sum += g * (e - at(j - r - 1)) + f * (last - p);
        out[j] = sum * k;
        p = at(j - r - 1);
        e = last;
    }
    return out;
}

class BlurPass : public halden::test::BackendTest {
protected:
    std::vector<float> pass(const std::vector<float>& grid, int n, float radius, bool transposed) {
        halden::core::grid src = upload(*q, grid, n, n), dst(*q, {std::size_t(n), std::size_t(n)});
        if (transposed)
            blur::detail::fastblur_half_pass<true, false>(*q, src.get(), dst.get(), n, radius);
        else
            blur::detail::fastblur_half_pass<true, true>(*q, src.get(), dst.get(), n, radius);
        return download(dst);
    }
};

TEST_P(BlurPass, PassFollowsItsStepsTransposesAndKeepsConstants) {
    for (float radius : {2.5f, 12.0f, 0.75f, 7.3f}) {
        for (int n : {64, 9, 3}) {
            SCOPED_TRACE(testing::Message() << "radius " << radius << ", n " << n);
            const std::vector<float> grid = halden::test::random_cells(n, n, unsigned(n));
            const std::vector<float> rows = pass(grid, n, radius, false), cols = pass(grid, n, radius, true);
            for (int i = 0; i < n; ++i) {
                const std::vector<float> row(grid.begin() + i * n, grid.begin() + (i + 1) * n);
                const std::vector<double> want = reference_row(row, radius);
                for (int j = 0; j < n; ++j) {
                    ASSERT_NEAR(rows[i * n + j], want[j], 2e-4) << i << ", " << j;
                    ASSERT_EQ(cols[j * n + i], rows[i * n + j]) << i << ", " << j;
                }
            }
        }
    }
    // Constant rows stay constant.
    for (float c : {1.0f, -3.0f, 0.0f, 1024.0f})
        for (float radius : {12.0f, 2.5f, 1.0f})
            for (int n : {40, 5})
                for (float v : pass(std::vector<float>(n * n, c), n, radius, false))
                    ASSERT_EQ(v, c) << c << " " << radius << " " << n;
}

TEST_P(BlurPass, RadiusTwelveIsATwentyFiveWideBox) {
    // Rows whose first 13 values agree: the start offset vanishes and each
    // output is the mean of the 25 cells around it.
    const int n = 80;
    std::vector<float> grid = halden::test::random_cells(n, n, 3);
    for (int i = 0; i < n; ++i)
        for (int j = 1; j <= 12; ++j) grid[i * n + j] = grid[i * n];
    const std::vector<float> out = pass(grid, n, 12.0f, false);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            double box = 0;
            for (int k = j - 12; k <= j + 12; ++k) box += grid[i * n + std::clamp(k, 0, n - 1)];
            ASSERT_NEAR(out[i * n + j], box / 25.0, 1e-4) << i << ", " << j;
        }
    // The direct pass has the same weights.
    halden::core::grid src = upload(*q, grid, n, n), dst(*q, {std::size_t(n), std::size_t(n)});
    blur::detail::blur_half_pass<1>(*q, src.get(), dst.get(), n, 12.0f);
    const std::vector<float> direct = download(dst);
    for (int i = 0; i < n * n; ++i) ASSERT_NEAR(direct[i], out[i], 1e-4) << i;
}

HALDEN_INSTANTIATE_ON_BACKENDS(BlurPass);

class BlurExport : public halden::test::DeviceTest {};

TEST_P(BlurExport, BlursInPlaceAndRejectsBadInput) {
    const int n = 50;
    std::vector<float> flat(n * n, 2.0f);
    EXPECT_EQ(Blur(queue, flat.data(), n, 12.0f, &halden::test::capturing_callbacks()), 0u);
    EXPECT_EQ(flat, std::vector<float>(n * n, 2.0f));

    // A spike spreads symmetrically and keeps its total.
    std::vector<float> spike(n * n, 0.0f);
    spike[25 * n + 25] = 1000.0f;
    EXPECT_EQ(Blur(queue, spike.data(), n, 2.5f, nullptr), 0u);
    double total = 0;
    for (float v : spike) total += v;
    EXPECT_NEAR(total, 1000.0, 1e-2);
    EXPECT_NEAR(spike[25 * n + 22], spike[25 * n + 28], 1e-4);
    EXPECT_NEAR(spike[22 * n + 25], spike[25 * n + 22], 1e-4);
    EXPECT_LT(spike[25 * n + 25], 1000.0f);

    const std::vector<float> before = spike;
    EXPECT_EQ(Blur(queue, spike.data(), 0, 2.0f, &halden::test::capturing_callbacks()), 3u);
    EXPECT_EQ(Blur(queue, spike.data(), n, 0.0f, &halden::test::capturing_callbacks()), 3u);
    EXPECT_EQ(Blur(queue, spike.data(), n, NAN, &halden::test::capturing_callbacks()), 3u);
    EXPECT_EQ(Blur(queue, nullptr, n, 2.0f, &halden::test::capturing_callbacks()), 3u);
    EXPECT_EQ(Blur(nullptr, spike.data(), n, 2.0f, nullptr), 3u);
    EXPECT_EQ(spike, before);
    EXPECT_EQ(halden::test::messages().error.size(), 4u);
}

HALDEN_INSTANTIATE_ON_DEVICES(BlurExport);

TEST(BlurDevices, CpuAndCudaAgree) {
    const std::string cuda = halden::test::first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int n = 333;
    const std::vector<float> grid = halden::test::random_cells(n, n, 9);
    auto on = [&](const std::string& key) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        std::vector<float> g = grid;
        EXPECT_EQ(Blur(q, g.data(), n, 7.3f, nullptr), 0u);
        DestroySyclQueue(q);
        return g;
    };
    EXPECT_EQ(halden::test::first_difference(on(cuda), on("cpu")), -1);
}

}  // namespace
