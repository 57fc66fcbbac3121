// SPDX-License-Identifier: Apache-2.0
// Resampling: hand-worked cells, identities on constants and ramps, and both
// forms against a plain reference on random cells.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "core/resampling.hpp"
#include "support.hpp"

namespace {

using halden::core::grid;
using halden::core::grid_buffer;
using halden::test::download, halden::test::expect_same_bits, halden::test::random_cells, halden::test::upload;

class Resampling : public halden::test::BackendTest {};

TEST_P(Resampling, HandWorkedCells) {
    // Downsample box, 5 x 5 with row 4 and column 4 poisoned: they must never be read.
    std::vector<float> in(25), host(4, -1.0f);
    for (int i = 0; i < 25; ++i) in[i] = (i % 5 == 4 || i >= 20) ? std::numeric_limits<float>::quiet_NaN() : float(i);
    grid dst(*q, {2, 2}), one(*q, {1, 1});
    resampling::downsample_box(dst, upload(*q, in, 5, 5));
    expect_same_bits(download(dst), {3.0f, 5.0f, 13.0f, 15.0f});
    {
        grid_buffer bsrc(*q, in.data(), {5, 5}), bdst(*q, host.data(), {2, 2});
        resampling::downsample_box(bsrc, bdst, *q);
    }
    expect_same_bits(host, {3.0f, 5.0f, 13.0f, 15.0f});
    // Downsample magic: a 64 at (1, 1) of a 4 x 4 grid is the centre tap of output
    // (0, 0), an edge tap of (0, 1) and (1, 0), a corner tap of (1, 1).
    std::vector<float> spike(16, 0.0f);
    spike[5] = 64.0f;
    resampling::downsample_magic(dst, upload(*q, spike, 4, 4));
    expect_same_bits(download(dst), {9.0f, 3.0f, 3.0f, 1.0f});
    // 2 x 2 into 1 x 1: every tap clamps into the grid; the weights sum to 64.
    resampling::downsample_magic(one, upload(*q, {1.0f, 2.0f, 3.0f, 4.0f}, 2, 2));
    expect_same_bits(download(one), {2.5f});
    // Upsample magic. (0,0): all taps on the corner parent. (0,1): parent 0, side 16
    // twice, diagonal 16: (48 + 16) / 16. (1,1): (3 (32 + 16) + 48) / 16. (2,2): (9 * 48 + 3 (32 + 16)) / 16.
    grid g = upload(*q, {0.0f, 16.0f, 32.0f, 48.0f}, 2, 2);
    resampling::upsample_magic(g);
    const std::vector<float> out = download(g);
    expect_same_bits({out[0], out[1], out[5], out[10]}, {0.0f, 4.0f, 12.0f, 36.0f});
}

TEST_P(Resampling, ConstantsStayConstantAndSharpenKeepsARampInside) {
    // -2.25 times any small integer is exact, so every sum is too.
    for (auto [w, h] : {std::pair{7, 5}, std::pair{1, 1}}) {
        const std::vector<float> in(std::size_t(w) * h, -2.25f);
        grid half(*q, {std::size_t(h + 1) / 2, std::size_t(w + 1) / 2}), g = upload(*q, in, w, h);
        resampling::downsample_magic(half, g);
        expect_same_bits(download(half), std::vector<float>(half.size(), -2.25f));
        resampling::sharpen_magic(g);
        expect_same_bits(download(g), in);
        resampling::upsample_magic(g);
        expect_same_bits(download(g), std::vector<float>(4 * in.size(), -2.25f));
    }
    std::vector<float> ramp(30);
    for (int i = 0; i < 30; ++i) ramp[i] = float(2 * (i % 6) + 3 * (i / 6));
    grid g = upload(*q, ramp, 6, 5);
    resampling::sharpen_magic(g);
    const std::vector<float> out = download(g);
    for (int y = 1; y < 4; ++y)
        for (int x = 1; x < 5; ++x) EXPECT_EQ(out[y * 6 + x], ramp[y * 6 + x]) << y << ", " << x;
    EXPECT_LT(out[0], ramp[0]);  // replicated borders bend the ramp: the corner overshoots it
}

// Plain references summed in the kernels' order, so every bit must match on random cells.
TEST_P(Resampling, GridAndBufferFormsMatchTheReference) {
    for (const auto& extent : {std::pair{13, 7}, std::pair{1, 5}, std::pair{40, 33}}) {
        const int w = extent.first, h = extent.second;
        SCOPED_TRACE(testing::Message() << w << " x " << h);
        std::vector<float> in = random_cells(w, h, unsigned(w * 100 + h)), host = in;
        auto v = [&](int y, int x) { return in[std::clamp(y, 0, h - 1) * w + std::clamp(x, 0, w - 1)]; };
        const int wo = (w + 1) / 2, ho = (h + 1) / 2;
        std::vector<float> down(std::size_t(wo) * ho), up(4 * in.size()), sharp(in.size());
        for (int r = 0; r < 2 * ho; r += 2)
            for (int c = 0; c < 2 * wo; c += 2) {
                const float edges = v(r - 1, c + 1) + v(r - 1, c) + v(r, c - 1) + v(r, c + 2) + v(r + 1, c - 1) +
                                    v(r + 1, c + 2) + v(r + 2, c) + v(r + 2, c + 1);
                const float centre = v(r, c + 1) + v(r, c) + v(r + 1, c) + v(r + 1, c + 1);
                const float corners = (v(r - 1, c + 2) + v(r - 1, c - 1)) + v(r + 2, c - 1);
                down[r / 2 * wo + c / 2] =
                    std::fma(edges, 3.0f, std::fma(centre, 9.0f, corners) + v(r + 2, c + 2)) / 64.0f;
            }
        for (int y = 0; y < 2 * h; ++y)
            for (int x = 0; x < 2 * w; ++x) {
                const int py = y / 2, px = x / 2, ny = py + (y % 2 ? 1 : -1), nx = px + (x % 2 ? 1 : -1);
                up[y * 2 * w + x] = std::fma(v(ny, px) + v(py, nx), 3.0f, std::fma(v(py, px), 9.0f, v(ny, nx))) / 16.0f;
            }
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const float corners = ((v(y - 1, x - 1) + v(y - 1, x + 1)) + v(y + 1, x - 1)) + v(y + 1, x + 1);
                const float edges = ((v(y, x - 1) + v(y - 1, x)) + v(y, x + 1)) + v(y + 1, x);
                sharp[y * w + x] = std::fma(corners, 0.0625f, std::fma(edges, -0.375f, v(y, x) * 2.25f));
            }

        // Both forms. The allocating buffer forms hand back an unbound buffer, so the host array keeps its input.
        auto on_grid = [&](void (*op)(grid&)) {
            grid g = upload(*q, in, w, h);
            op(g);
            return download(g);
        };
        auto on_buffer = [&](void (*op)(grid_buffer&, halden::compute::queue&)) {
            grid_buffer b(*q, host.data(), {std::size_t(h), std::size_t(w)});
            op(b, *q);
            std::vector<float> result(b.extent().count());
            q->copy(b.get(), result.data(), result.size() * sizeof(float));
            q->wait();
            return result;
        };
        expect_same_bits(on_grid(resampling::upsample_magic), up);
        expect_same_bits(on_buffer(resampling::upsample_magic), up);
        expect_same_bits(on_grid(resampling::sharpen_magic), sharp);
        expect_same_bits(on_buffer(resampling::sharpen_magic), sharp);
        std::vector<float> half_host(down.size());
        grid half(*q, {std::size_t(ho), std::size_t(wo)});
        resampling::downsample_magic(half, upload(*q, in, w, h));
        {
            grid_buffer b(*q, host.data(), {std::size_t(h), std::size_t(w)});
            grid_buffer bh(*q, half_host.data(), {std::size_t(ho), std::size_t(wo)});
            resampling::downsample_magic(b, bh, *q);
        }
        expect_same_bits(download(half), down);
        expect_same_bits(half_host, down);
        expect_same_bits(host, in);

        // upsample_box: the buffer form replicates every cell; the grid form writes only
        // the top-left quarter of its doubled grid, the source with its row stride doubled.
        const std::vector<float> box = on_buffer(resampling::upsample_box);
        const std::vector<float> top_left = on_grid(resampling::upsample_box);
        ASSERT_EQ(top_left.size(), box.size());
        for (int y = 0; y < 2 * h; ++y)
            for (int x = 0; x < 2 * w; ++x) {
                ASSERT_EQ(box[y * 2 * w + x], v(y / 2, x / 2)) << y << ", " << x;
                ASSERT_TRUE(y >= h || x >= w || top_left[y * 2 * w + x] == v(y, x)) << y << ", " << x;
            }
    }
}

HALDEN_INSTANTIATE_ON_BACKENDS(Resampling);

TEST(ResamplingLimits, DoublingPastTheCellLimitThrows) {
    EXPECT_NO_THROW(resampling::kernels::doubled({1, 46341}));
    EXPECT_THROW(resampling::kernels::doubled({46341, 46341}), halden::compute::exception);
}

}  // namespace
