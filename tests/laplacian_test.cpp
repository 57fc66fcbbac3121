// SPDX-License-Identifier: Apache-2.0
// Laplacian levels: the shared construction, the round trip, and each module's
// reconstruction rule on hand-worked cells over a 1 x 1 coarse level.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "modules/parallel_erosion/laplacian_level.hpp"
#include "modules/thermal/laplacian_level.hpp"
#include "modules/thermal_shaper/laplacian_level.hpp"
#include "support.hpp"

namespace {

using halden::core::grid;
using namespace halden::test;
using v = std::vector<float>;

class Laplacian : public BackendTest {};

TEST_P(Laplacian, ChainHalvesRoundingUpAndAConstantFieldHasNoDetail) {
    thermal_shaper::LaplacianLevel finest(*q, upload(*q, v(15, 3.5f), 5, 3), grid{}, 3);
    finest.create_subsequent_level().create_subsequent_level().create_subsequent_level();
    const int want[4][2] = {{5, 3}, {3, 2}, {2, 1}, {1, 1}};
    int i = 0;
    for (thermal_shaper::LaplacianLevel* l = &finest; l; l = l->coarser(), ++i) {
        ASSERT_LT(i, 4);
        EXPECT_EQ(l->width(), want[i][0]);
        EXPECT_EQ(l->height(), want[i][1]);
        EXPECT_EQ(l->depth(), 3 - i);
        EXPECT_EQ(download(l->heights()), v(want[i][0] * want[i][1], 3.5f));
        EXPECT_EQ(l->detail().get() != nullptr, l->coarser() != nullptr);
        if (l->coarser()) {
            EXPECT_EQ(download(l->detail()), v(want[i][0] * want[i][1], 0.0f));
        }
    }
}

TEST_P(Laplacian, RebuildingWithNothingCarriedGivesTheFieldBack) {
    // Gain one: two roundings, each within half an ulp of |value| <= 2^7.
    const v field = random_cells(37, 23, 4);
    thermal_shaper::LaplacianLevel ts(*q, upload(*q, field, 37, 23), grid{}, 2);
    ts.create_subsequent_level().create_subsequent_level();
    ts.coarser()->reconstruct_previous_level({});
    ts.reconstruct_previous_level({});
    const v rebuilt = download(ts.heights());
    for (std::size_t i = 0; i < field.size(); ++i) ASSERT_NEAR(rebuilt[i], field[i], std::ldexp(1.0f, 7 - 23)) << i;

    // The other modules' levels start with empty layers, so nothing is carried.
    const v in = random_cells(9, 6, 5);
    parallel_erosion::LaplacianLevel pe(*q, upload(*q, in, 9, 6), 1);
    pe.create_subsequent_level();
    pe.init<true>();
    pe.coarser()->init<false>();
    pe.reconstruct_previous_level(1.0f);
    thermal::LaplacianLevel th(*q, upload(*q, in, 9, 6), grid{}, 1);
    th.create_subsequent_level();
    th.reconstruct_previous_level(1.0f, 0.5f);
    const v a = download(pe.heights()), b = download(th.heights());
    for (std::size_t i = 0; i < in.size(); ++i) {
        ASSERT_NEAR(a[i], in[i], 1.6e-5f) << i;
        ASSERT_NEAR(b[i], in[i], 1.6e-5f) << i;
    }
}

TEST_P(Laplacian, ThermalShaperRuleHandWorked) {
    // Detail against one coarse cell is the fine value minus that cell.
    grid fine = upload(*q, {9.0f, 1.0f, -3.0f, 8.0f}, 2, 2), coarse = upload(*q, {8.0f}, 1, 1), detail(*q, {2, 2});
    halden::core::fill_detail(*q, fine.get(), detail.get(), 2, 2, coarse.get(), 1, 1);
    EXPECT_EQ(download(detail), (v{1.0f, -7.0f, -11.0f, 0.0f}));
    // height = up(coarse) + gain * detail.
    grid d = upload(*q, {1.0f, 2.0f, 3.0f, 4.0f}, 2, 2), out(*q, {2, 2});
    thermal_shaper::reconstruct(*q, coarse.get(), 1, 1, d.get(), out.get(), 2, 2, 0.5f);
    EXPECT_EQ(download(out), (v{8.5f, 9.0f, 9.5f, 10.0f}));
}

// Over a coarse cell of height 10 carrying b with capacity d: {carried, capacity, heights}.
std::vector<v> erode(halden::compute::queue& q, float b, float d, const v& own, float p) {
    grid ch = upload(q, {10.0f}, 1, 1), cb = upload(q, {b}, 1, 1), cd = upload(q, {d}, 1, 1);
    grid c = upload(q, own, 2, 2), ob(q, {2, 2}), od(q, {2, 2}), oa(q, {2, 2});
    parallel_erosion::reconstruct(q, ch.get(), cb.get(), cd.get(), 1, 1, c.get(), ob.get(), od.get(), oa.get(), 2, 2,
                                  p);
    return {download(ob), download(od), download(oa)};
}

TEST_P(Laplacian, ParallelErosionRuleHandWorked) {
    // Nothing carried: the own value is added back.
    EXPECT_EQ(erode(*q, 0, 8, {1, -2, 9, 0}, 1), (std::vector<v>{{0, 0, 0, 0}, {7, 10, 0, 8}, {11, 8, 19, 10}}));
    // More carried than a positive own value: t = min(2p / b - 0.25, 1) of it settles.
    EXPECT_EQ(erode(*q, 4, 8, {1, -1, 0, 4}, 1),
              (std::vector<v>{{3.75f, 4, 4, 0}, {7, 9, 8, 4}, {10.25f, 10, 10, 10}}));
    EXPECT_EQ(erode(*q, 4, 8, {1, -1, 0, 4}, 3)[2], (v{11, 10, 10, 10}));
    // Less carried: the factor p / d, capped at 1, then floored at 0.1.
    EXPECT_EQ(erode(*q, 2, 8, {6, 10, 3, 2}, 4), (std::vector<v>{{0, 0, 0, 0}, {2, 0, 5, 6}, {12, 14, 10.5f, 10}}));
    EXPECT_EQ(erode(*q, 2, 8, {6, 6, 6, 6}, 100)[2][0], 14.0f);
    EXPECT_EQ(erode(*q, 2, 8, {6, 6, 6, 6}, 0.01f)[2][0], 10.0f + 0.1f * 4.0f);
}

// Over a coarse cell of height 10, moved material 1 and resting d, with mask
// g under a fine mask: {resting, heights, moved}.
std::vector<v> weather(halden::compute::queue& q, float d, const v& own, float p, const v* mask = nullptr,
                       float g = 0) {
    grid ch = upload(q, {10.0f}, 1, 1), cm = upload(q, {1.0f}, 1, 1), cd = upload(q, {d}, 1, 1);
    grid cg = upload(q, {g}, 1, 1), c = upload(q, own, 2, 2), e = upload(q, mask ? *mask : v(4, 0.0f), 2, 2);
    grid os(q, {2, 2}), oa(q, {2, 2}), om(q, {2, 2});
    thermal::reconstruct(q, ch.get(), cm.get(), cd.get(), cg.get(), 1, 1, c.get(), e.get(), os.get(), oa.get(),
                         om.get(), 2, 2, p, 0.5f, mask != nullptr);
    return {download(os), download(oa), download(om)};
}

TEST_P(Laplacian, ThermalRuleHandWorked) {
    // Nothing resting: the own value is added back and the resting value kept.
    EXPECT_EQ(weather(*q, 0, {1, -2, 0, 3}, 1), (std::vector<v>{{0, 0, 0, 0}, {11, 8, 10, 13}, {1, 1, 1, 1}}));
    EXPECT_EQ(weather(*q, -1, {1, 1, 1, 1}, 1)[0], (v{-1, -1, -1, -1}));
    // More resting than the own value: the difference rests and, unmasked, nothing is released.
    EXPECT_EQ(weather(*q, 5, {2, 4, -1, 0}, 1), (std::vector<v>{{3, 1, 6, 5}, {10, 10, 10, 10}, {1, 1, 1, 1}}));
    // With a mask, k = min(2 max(e - g, 0), 1) q of it is released from both.
    const v mask{1.0f, 0.5f, 0.25f, 1.0f};
    EXPECT_EQ(weather(*q, 5, {2, 4, -1, 0}, 1, &mask, 0.25f),
              (std::vector<v>{{1.5f, 0.75f, 6, 2.5f}, {8.5f, 9.75f, 10, 7.5f}, {1, 1, 1, 1}}));
    // Less resting: the factor p / max(B / 8, p), capped at 1.
    EXPECT_EQ(weather(*q, 2, {6, 2, 10, 3}, 1),
              (std::vector<v>{{0, 0, 0, 0}, {12, 10, 14, 10.5f}, {1, 1, 1, 1}}));
    EXPECT_EQ(weather(*q, 2, {6, 6, 6, 6}, 4)[1][0], 14.0f);
}

HALDEN_INSTANTIATE_ON_BACKENDS(Laplacian);

}  // namespace
