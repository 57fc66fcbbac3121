// SPDX-License-Identifier: Apache-2.0
// Resampling: hand-worked cells, identities on constants and ramps, both
// forms against a plain reference, and the grid form of upsample_box writing
// only its top-left quarter.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "core/resampling.hpp"
#include "support.hpp"

namespace {

using halden::test::expect_same_bits;
using halden::core::grid;
using halden::core::grid_buffer;
using halden::test::download;
using halden::test::random_cells;
using halden::test::upload;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

class Resampling : public halden::test::BackendTest {};

// Plain references, written from the filter definitions rather than from the library.
struct ref {
    const std::vector<float>& in;
    int w, h;
    float at(int r, int c) const { return in[std::size_t(r) * w + c]; }
    float clamped(int r, int c) const { return at(std::clamp(r, 0, h - 1), std::clamp(c, 0, w - 1)); }

    std::vector<float> downsample_magic(int wo, int ho) const {
        std::vector<float> out(std::size_t(wo) * ho);
        for (int y = 0; y < ho; ++y)
            for (int x = 0; x < wo; ++x) {
                const int r = 2 * y, c = 2 * x;
                auto v = [&](int dr, int dc) { return clamped(r + dr, c + dc); };
                const float edges = v(-1, 1) + v(-1, 0) + v(0, -1) + v(0, 2) + v(1, -1) + v(1, 2) + v(2, 0) + v(2, 1);
                const float centre = v(0, 1) + v(0, 0) + v(1, 0) + v(1, 1);
                const float corners = (v(-1, 2) + v(-1, -1)) + v(2, -1);
                out[std::size_t(y) * wo + x] =
                    std::fma(edges, 3.0f, std::fma(centre, 9.0f, corners) + v(2, 2)) / 64.0f;
            }
        return out;
    }
    std::vector<float> upsample_magic() const {
        std::vector<float> out(std::size_t(4) * w * h);
        for (int y = 0; y < 2 * h; ++y)
            for (int x = 0; x < 2 * w; ++x) {
                const int py = y / 2, px = x / 2;
                const int ny = y % 2 ? py + 1 : py - 1, nx = x % 2 ? px + 1 : px - 1;
                const float a = at(py, px), b = clamped(py, nx), c = clamped(ny, px), d = clamped(ny, nx);
                out[std::size_t(y) * 2 * w + x] = std::fma(c + b, 3.0f, std::fma(a, 9.0f, d)) / 16.0f;
            }
        return out;
    }
    std::vector<float> sharpen_magic() const {
        std::vector<float> out(in.size());
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                auto v = [&](int dy, int dx) { return clamped(y + dy, x + dx); };
                const float corners = ((v(-1, -1) + v(-1, 1)) + v(1, -1)) + v(1, 1);
                const float edges = ((v(0, -1) + v(-1, 0)) + v(0, 1)) + v(1, 0);
                out[std::size_t(y) * w + x] = std::fma(corners, 0.0625f, std::fma(edges, -0.375f, v(0, 0) * 2.25f));
            }
        return out;
    }
};

TEST_P(Resampling, HandWorkedCells) {
    // Downsample box, 5 x 5 with row 4 and column 4 poisoned: they must never be read.
    std::vector<float> in(25);
    for (int i = 0; i < 25; ++i) in[i] = (i % 5 == 4 || i >= 20) ? kNaN : float(i);
    grid src = upload(*q, in, 5, 5);
    grid dst(*q, {2, 2});
    resampling::downsample_box(dst, src);
    expect_same_bits(download(dst), {3.0f, 5.0f, 13.0f, 15.0f});

    std::vector<float> host(4, -1.0f);
    {
        grid_buffer bsrc(*q, in.data(), {5, 5});
        grid_buffer bdst(*q, host.data(), {2, 2});
        resampling::downsample_box(bsrc, bdst, *q);
    }
    expect_same_bits(host, {3.0f, 5.0f, 13.0f, 15.0f});

    // Downsample magic: a 64 at (1, 1) of a 4 x 4 grid is the centre tap of
    // output (0, 0), an edge tap of (0, 1) and (1, 0), and a corner tap of (1, 1).
    std::vector<float> spike(16, 0.0f);
    spike[5] = 64.0f;
    grid impulse = upload(*q, spike, 4, 4);
    resampling::downsample_magic(dst, impulse);
    expect_same_bits(download(dst), {9.0f, 3.0f, 3.0f, 1.0f});

    // 2 x 2 into 1 x 1: every tap clamps into the grid; the weights sum to 64.
    grid small = upload(*q, {1.0f, 2.0f, 3.0f, 4.0f}, 2, 2);
    grid one(*q, {1, 1});
    resampling::downsample_magic(one, small);
    expect_same_bits(download(one), {2.5f});

    // Upsample magic.
    grid g = upload(*q, {0.0f, 16.0f, 32.0f, 48.0f}, 2, 2);
    resampling::upsample_magic(g);
    ASSERT_EQ(g.extent().rows, 4u);
    ASSERT_EQ(g.extent().cols, 4u);
    const std::vector<float> out = download(g);
    // (0,0): all taps on the corner parent. (0,1): parent 0, side 16 twice,
    // diagonal 16: (48 + 16) / 16. (1,1): (3 (32 + 16) + 48) / 16.
    // (2,2): (9 * 48 + 3 (32 + 16) + 0) / 16.
    expect_same_bits({out[0], out[1], out[5], out[10]}, {0.0f, 4.0f, 12.0f, 36.0f});

    grid cell = upload(*q, {7.25f}, 1, 1);
    resampling::upsample_magic(cell);
    expect_same_bits(download(cell), {7.25f, 7.25f, 7.25f, 7.25f});
}

TEST_P(Resampling, ConstantsStayConstantAndSharpenKeepsARampInside) {
    // -2.25 times any small integer is exact, so every sum is too.
    for (auto [w, h] : {std::pair{7, 5}, std::pair{1, 1}, std::pair{2, 9}, std::pair{16, 16}}) {
        SCOPED_TRACE(testing::Message() << w << " x " << h);
        const std::vector<float> in(std::size_t(w) * h, -2.25f);
        grid src = upload(*q, in, w, h);
        const int wo = (w + 1) / 2, ho = (h + 1) / 2;
        grid half(*q, {std::size_t(ho), std::size_t(wo)});
        resampling::downsample_magic(half, src);
        expect_same_bits(download(half), std::vector<float>(half.size(), -2.25f));
        if (w > 1 && h > 1) {
            grid box(*q, {std::size_t(h / 2), std::size_t(w / 2)});
            resampling::downsample_box(box, src);
            expect_same_bits(download(box), std::vector<float>(box.size(), -2.25f));
        }
        grid up = upload(*q, in, w, h);
        resampling::upsample_magic(up);
        expect_same_bits(download(up), std::vector<float>(up.size(), -2.25f));
        grid sharp = upload(*q, in, w, h);
        resampling::sharpen_magic(sharp);
        expect_same_bits(download(sharp), in);
    }

    // Sharpening keeps a ramp inside the grid.
    const int w = 6, h = 5;
    std::vector<float> in(std::size_t(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) in[std::size_t(y) * w + x] = float(2 * x + 3 * y);
    grid g = upload(*q, in, w, h);
    resampling::sharpen_magic(g);
    const std::vector<float> out = download(g);
    for (int y = 1; y < h - 1; ++y)
        for (int x = 1; x < w - 1; ++x) EXPECT_EQ(out[std::size_t(y) * w + x], in[std::size_t(y) * w + x]);
    // Replicated borders bend the ramp: the corner overshoots it.
    EXPECT_LT(out[0], in[0]);
}

TEST_P(Resampling, GridAndBufferFormsMatchTheReference) {
    for (auto [w, h] : {std::pair{13, 7}, std::pair{8, 8}, std::pair{1, 5}, std::pair{40, 33}}) {
        SCOPED_TRACE(testing::Message() << w << " x " << h);
        std::vector<float> in = random_cells(w, h, unsigned(w * 100 + h));
        const ref r{in, w, h};
        const int wo = (w + 1) / 2, ho = (h + 1) / 2;

        grid src = upload(*q, in, w, h);
        grid half(*q, {std::size_t(ho), std::size_t(wo)});
        resampling::downsample_magic(half, src);
        expect_same_bits(download(half), r.downsample_magic(wo, ho));
        grid up = upload(*q, in, w, h);
        resampling::upsample_magic(up);
        expect_same_bits(download(up), r.upsample_magic());
        grid sharp = upload(*q, in, w, h);
        resampling::sharpen_magic(sharp);
        expect_same_bits(download(sharp), r.sharpen_magic());

        // Buffer forms: the allocating ones hand back an unbound buffer, so
        // the host array keeps its input.
        std::vector<float> host = in, half_host(std::size_t(wo) * ho);
        std::vector<float> up_host(std::size_t(4) * w * h), sharp_host(in.size()), box_host(up_host.size());
        {
            grid_buffer b(*q, host.data(), {std::size_t(h), std::size_t(w)});
            grid_buffer bh(*q, half_host.data(), {std::size_t(ho), std::size_t(wo)});
            resampling::downsample_magic(b, bh, *q);
            grid_buffer bu(*q, host.data(), {std::size_t(h), std::size_t(w)});
            resampling::upsample_magic(bu, *q);
            q->copy(bu.get(), up_host.data(), up_host.size() * sizeof(float));
            grid_buffer bs(*q, host.data(), {std::size_t(h), std::size_t(w)});
            resampling::sharpen_magic(bs, *q);
            q->copy(bs.get(), sharp_host.data(), sharp_host.size() * sizeof(float));
            grid_buffer bb(*q, host.data(), {std::size_t(h), std::size_t(w)});
            resampling::upsample_box(bb, *q);
            q->copy(bb.get(), box_host.data(), box_host.size() * sizeof(float));
            q->wait();
        }
        expect_same_bits(half_host, r.downsample_magic(wo, ho));
        expect_same_bits(up_host, r.upsample_magic());
        expect_same_bits(sharp_host, r.sharpen_magic());
        for (int y = 0; y < 2 * h; ++y)
            for (int x = 0; x < 2 * w; ++x)
                ASSERT_EQ(box_host[std::size_t(y) * 2 * w + x], in[std::size_t(y / 2) * w + x / 2]);
        expect_same_bits(host, in);
    }
}

TEST_P(Resampling, GridUpsampleBoxWritesOnlyTheTopLeftQuarter) {
    const int w = 5, h = 3;
    const std::vector<float> in = random_cells(w, h, 7);
    const float sentinel = -12345.0f;

    // The kernel the grid form runs, into a destination that shows every store.
    grid src = upload(*q, in, w, h);
    grid dst = upload(*q, std::vector<float>(std::size_t(4) * w * h, sentinel), 2 * w, 2 * h);
    resampling::kernels::upsample_box(*q, src.get(), w, h, dst.get(), true);
    const std::vector<float> out = download(dst);
    for (int y = 0; y < 2 * h; ++y)
        for (int x = 0; x < 2 * w; ++x) {
            const float want = (y < h && x < w) ? in[std::size_t(y) * w + x] : sentinel;
            ASSERT_EQ(out[std::size_t(y) * 2 * w + x], want) << y << ", " << x;
        }

    // The grid form itself: doubled extent, the source in the top-left quarter.
    grid g = upload(*q, in, w, h);
    resampling::upsample_box(g);
    ASSERT_EQ(g.extent().rows, std::size_t(2 * h));
    ASSERT_EQ(g.extent().cols, std::size_t(2 * w));
    const std::vector<float> got = download(g);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) ASSERT_EQ(got[std::size_t(y) * 2 * w + x], in[std::size_t(y) * w + x]);
}

HALDEN_INSTANTIATE_ON_BACKENDS(Resampling);

TEST(ResamplingLimits, DoublingPastTheCellLimitThrows) {
    EXPECT_NO_THROW(resampling::kernels::doubled({1, 46341}));
    EXPECT_THROW(resampling::kernels::doubled({46341, 46341}), halden::compute::exception);
}

}  // namespace
