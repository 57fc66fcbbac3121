// SPDX-License-Identifier: Apache-2.0
// Laplacian levels: the shared construction (chain, sizes, depth, detail) and
// each module's reconstruction rule on hand-worked cells.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "modules/parallel_erosion/laplacian_level.hpp"
#include "modules/thermal/laplacian_level.hpp"
#include "modules/thermal_shaper/laplacian_level.hpp"
#include "support.hpp"

namespace {

using halden::core::grid;
using halden::test::download;
using halden::test::random_cells;
using halden::test::upload;

class Laplacian : public halden::test::BackendTest {};

TEST_P(Laplacian, ChainHalvesRoundingUpCountsDepthDownwardAndReducesTheMask) {
    thermal_shaper::LaplacianLevel finest(*q, upload(*q, random_cells(5, 3, 1), 5, 3), grid{}, 3);
    thermal_shaper::LaplacianLevel* l = &finest;
    for (int i = 0; i < 3; ++i) l = &l->create_subsequent_level();
    const int want[4][2] = {{5, 3}, {3, 2}, {2, 1}, {1, 1}};
    int i = 0;
    for (thermal_shaper::LaplacianLevel* p = &finest; p; p = p->coarser(), ++i) {
        ASSERT_LT(i, 4);
        EXPECT_EQ(p->width(), want[i][0]);
        EXPECT_EQ(p->height(), want[i][1]);
        EXPECT_EQ(p->depth(), 3 - i);
        EXPECT_EQ(p->detail().get() != nullptr, p->coarser() != nullptr);
    }
    EXPECT_EQ(finest.coarser()->coarser()->coarser(), l);

    // A mask is reduced alongside the heights.
    const std::vector<float> heights = random_cells(6, 4, 2), mask = random_cells(6, 4, 3);
    thermal_shaper::LaplacianLevel masked(*q, upload(*q, heights, 6, 4), upload(*q, mask, 6, 4), 1);
    thermal_shaper::LaplacianLevel& coarse = masked.create_subsequent_level();
    ASSERT_TRUE(coarse.has_mask());
    grid m = upload(*q, mask, 6, 4), reduced(*q, {2, 3});
    resampling::downsample_magic(reduced, m);
    halden::test::expect_same_bits(download(coarse.mask()), download(reduced));
}

TEST_P(Laplacian, ConstantFieldHasNoDetail) {
    for (auto [w, h] : {std::pair{7, 5}, std::pair{2, 2}, std::pair{1, 6}}) {
        SCOPED_TRACE(testing::Message() << w << " x " << h);
        thermal_shaper::LaplacianLevel finest(*q, upload(*q, std::vector<float>(std::size_t(w) * h, 3.5f), w, h),
                                              grid{}, 2);
        finest.create_subsequent_level().create_subsequent_level();
        for (thermal_shaper::LaplacianLevel* l = &finest; l->coarser(); l = l->coarser()) {
            for (float d : download(l->detail())) ASSERT_EQ(d, 0.0f);
            for (float c : download(l->coarser()->heights())) ASSERT_EQ(c, 3.5f);
        }
    }
}

TEST_P(Laplacian, OneCellCoarseLevelPredictsOneValue) {
    // Detail against a 1 x 1 coarse level is the fine value minus that cell.
    grid fine = upload(*q, {9.0f, 1.0f, -3.0f, 8.0f}, 2, 2), coarse = upload(*q, {8.0f}, 1, 1), detail(*q, {2, 2});
    halden::core::fill_detail(*q, fine.get(), detail.get(), 2, 2, coarse.get(), 1, 1);
    EXPECT_EQ(download(detail), (std::vector<float>{1.0f, -7.0f, -11.0f, 0.0f}));

    // height = up(coarse) + gain * detail, with the gain applied to the detail only.
    grid d = upload(*q, {1.0f, 2.0f, 3.0f, 4.0f}, 2, 2), out(*q, {2, 2});
    thermal_shaper::reconstruct(*q, coarse.get(), 1, 1, d.get(), out.get(), 2, 2, 0.5f);
    EXPECT_EQ(download(out), (std::vector<float>{8.5f, 9.0f, 9.5f, 10.0f}));
}

// The parallel-erosion rule over a 1 x 1 coarse level (heights 10, carried b,
// capacity d) and four fine cells with own values `own`.
struct erosion_result {
    std::vector<float> carried, capacity, heights;
};
erosion_result erode(halden::compute::queue& q, float b, float d, const std::vector<float>& own, float p) {
    grid ch = upload(q, {10.0f}, 1, 1), cb = upload(q, {b}, 1, 1), cd = upload(q, {d}, 1, 1);
    grid c = upload(q, own, 2, 2), ob(q, {2, 2}), od(q, {2, 2}), oa(q, {2, 2});
    parallel_erosion::reconstruct(q, ch.get(), cb.get(), cd.get(), 1, 1, c.get(), ob.get(), od.get(), oa.get(), 2, 2,
                                  p);
    return {download(ob), download(od), download(oa)};
}

TEST_P(Laplacian, ParallelErosionRuleHandWorked) {
    using v = std::vector<float>;
    // Nothing carried: the own value is added back.
    erosion_result r = erode(*q, 0.0f, 8.0f, {1.0f, -2.0f, 9.0f, 0.0f}, 1.0f);
    EXPECT_EQ(r.heights, (v{11.0f, 8.0f, 19.0f, 10.0f}));
    EXPECT_EQ(r.carried, (v{0.0f, 0.0f, 0.0f, 0.0f}));
    EXPECT_EQ(r.capacity, (v{7.0f, 10.0f, 0.0f, 8.0f}));

    // More carried than the own value: t = min(2p / b - 0.25, 1) of it settles
    // where that value is positive; b <= c falls through to the last branch.
    r = erode(*q, 4.0f, 8.0f, {1.0f, -1.0f, 0.0f, 4.0f}, 3.0f);
    EXPECT_EQ(r.heights, (v{11.0f, 10.0f, 10.0f, 10.0f}));
    EXPECT_EQ(r.carried, (v{3.0f, 4.0f, 4.0f, 0.0f}));
    EXPECT_EQ(r.capacity, (v{7.0f, 9.0f, 8.0f, 4.0f}));
    r = erode(*q, 4.0f, 8.0f, {1.0f, -1.0f, 0.0f, 4.0f}, 1.0f);
    EXPECT_EQ(r.heights[0], 10.25f);
    EXPECT_EQ(r.carried[0], 3.75f);

    // Less carried than the own value: the factor is p / d, capped at 1,
    // then floored at 0.1.
    r = erode(*q, 2.0f, 8.0f, {6.0f, 10.0f, 3.0f, 2.0f}, 4.0f);
    EXPECT_EQ(r.heights, (v{12.0f, 14.0f, 10.5f, 10.0f}));
    EXPECT_EQ(r.carried, (v{0.0f, 0.0f, 0.0f, 0.0f}));
    EXPECT_EQ(erode(*q, 2.0f, 8.0f, {6.0f, 6.0f, 6.0f, 6.0f}, 100.0f).heights[0], 14.0f);
    EXPECT_EQ(erode(*q, 2.0f, 8.0f, {6.0f, 6.0f, 6.0f, 6.0f}, 0.01f).heights[0], 10.0f + 0.1f * 4.0f);
}

// The thermal rule over a 1 x 1 coarse level (heights 10, moved material M so
// that B = 16 M, resting d, mask m) and four fine cells.
struct thermal_result {
    std::vector<float> resting, heights, moved;
};
thermal_result weather(halden::compute::queue& q, float moved, float d, const std::vector<float>& own, float p,
                       float release, const std::vector<float>* fine_mask = nullptr, float coarse_mask = 0.0f) {
    grid ch = upload(q, {10.0f}, 1, 1), cm = upload(q, {moved}, 1, 1), cd = upload(q, {d}, 1, 1);
    grid cmask = upload(q, {coarse_mask}, 1, 1), c = upload(q, own, 2, 2);
    grid fmask = upload(q, fine_mask ? *fine_mask : std::vector<float>(4, 0.0f), 2, 2);
    grid os(q, {2, 2}), oa(q, {2, 2}), om(q, {2, 2});
    thermal::reconstruct(q, ch.get(), cm.get(), cd.get(), cmask.get(), 1, 1, c.get(), fmask.get(), os.get(), oa.get(),
                         om.get(), 2, 2, p, release, fine_mask != nullptr);
    return {download(os), download(oa), download(om)};
}

TEST_P(Laplacian, ThermalRuleHandWorked) {
    using v = std::vector<float>;
    // Nothing resting: the own value is added back and s is the resting value.
    thermal_result r = weather(*q, 1.0f, 0.0f, {1.0f, -2.0f, 0.0f, 3.0f}, 1.0f, 0.5f);
    EXPECT_EQ(r.heights, (v{11.0f, 8.0f, 10.0f, 13.0f}));
    EXPECT_EQ(r.resting, (v{0.0f, 0.0f, 0.0f, 0.0f}));
    EXPECT_EQ(r.moved, (v{1.0f, 1.0f, 1.0f, 1.0f}));
    EXPECT_EQ(weather(*q, 1.0f, -1.0f, {1.0f, 1.0f, 1.0f, 1.0f}, 1.0f, 0.5f).resting, (v{-1.0f, -1.0f, -1.0f, -1.0f}));

    // More resting than the own value: s = d - c, heights kept; without a mask
    // nothing is released.
    const v own{2.0f, 4.0f, -1.0f, 0.0f};
    r = weather(*q, 1.0f, 5.0f, own, 1.0f, 0.5f);
    EXPECT_EQ(r.resting, (v{3.0f, 1.0f, 6.0f, 5.0f}));
    EXPECT_EQ(r.heights, (v{10.0f, 10.0f, 10.0f, 10.0f}));
    // With a mask, k = min(2 max(e - g, 0), 1) q of s is released from both.
    const v mask{1.0f, 0.5f, 0.25f, 1.0f};
    r = weather(*q, 1.0f, 5.0f, own, 1.0f, 0.5f, &mask, 0.25f);
    EXPECT_EQ(r.resting, (v{1.5f, 0.75f, 6.0f, 2.5f}));
    EXPECT_EQ(r.heights, (v{8.5f, 9.75f, 10.0f, 7.5f}));

    // Less resting than the own value: the factor p / max(B / 8, p) is capped at 1.
    r = weather(*q, 1.0f, 2.0f, {6.0f, 2.0f, 10.0f, 3.0f}, 1.0f, 0.5f);
    EXPECT_EQ(r.heights, (v{12.0f, 10.0f, 14.0f, 10.5f}));
    EXPECT_EQ(r.resting, (v{0.0f, 0.0f, 0.0f, 0.0f}));
    EXPECT_EQ(weather(*q, 1.0f, 2.0f, {6.0f, 6.0f, 6.0f, 6.0f}, 4.0f, 0.5f).heights[0], 14.0f);
}

TEST_P(Laplacian, LevelsStartEmptyAndRebuildFromTheirCoarserLevel) {
    // Gain one, both levels rebuilt from the unchanged coarsest heights: two
    // roundings, each within half an ulp of |value| <= 2^7.
    const std::vector<float> field = random_cells(37, 23, 4);
    thermal_shaper::LaplacianLevel ts(*q, upload(*q, field, 37, 23), grid{}, 2);
    ts.create_subsequent_level().create_subsequent_level();
    ts.coarser()->reconstruct_previous_level({});
    ts.reconstruct_previous_level({});
    const std::vector<float> rebuilt = download(ts.heights());
    for (std::size_t i = 0; i < field.size(); ++i) ASSERT_NEAR(rebuilt[i], field[i], std::ldexp(1.0f, 7 - 23)) << i;
    EXPECT_EQ(ts.detail().get(), nullptr);

    // The module levels start with empty layers.
    const std::vector<float> in = random_cells(9, 6, 5);
    parallel_erosion::LaplacianLevel pe(*q, upload(*q, in, 9, 6), 1);
    pe.create_subsequent_level();
    pe.init<true>();
    pe.coarser()->init<false>();
    for (int i = 1; i <= 10; ++i)
        for (float c : download(pe.layer(i))) ASSERT_EQ(c, 0.0f);
    // Nothing carried anywhere: the rebuilt heights are the original ones.
    pe.reconstruct_previous_level(1.0f);
    const std::vector<float> out = download(pe.heights());
    for (std::size_t i = 0; i < in.size(); ++i) ASSERT_NEAR(out[i], in[i], 1.6e-5f);

    thermal::LaplacianLevel th(*q, upload(*q, in, 9, 6), grid{}, 1);
    th.create_subsequent_level();
    for (float c : download(th.coarser()->resting())) ASSERT_EQ(c, 0.0f);
    th.reconstruct_previous_level(1.0f, 0.5f);
    const std::vector<float> back = download(th.heights());
    for (std::size_t i = 0; i < in.size(); ++i) ASSERT_NEAR(back[i], in[i], 1.6e-5f);
}

HALDEN_INSTANTIATE_ON_BACKENDS(Laplacian);

}  // namespace
