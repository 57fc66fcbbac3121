// SPDX-License-Identifier: Apache-2.0
// The thermal shaper's pyramid level: heights, detail and, when the shaper
// was given one, the mask, reduced alongside the heights.
#pragma once

#include "core/laplacian.hpp"
#include "halden/halden.h"

namespace thermal_shaper {

using halden::core::grid;

// The gain s on the detail band when a level is rebuilt: 1 restores the
// heights the level was built from, up to rounding.
inline constexpr float detail_gain = 1.0f;

// height(y, x) = fma(U(coarse), 1/16, gain * detail(y, x)) over every cell of
// the w x h fine level; U is the unscaled magic sum over the wc x hc coarse grid.
inline void reconstruct(halden::compute::queue& q, const float* coarse, int wc, int hc, const float* detail,
                        float* height, int w, int h, float gain) {
    q.parallel_for(halden::compute::range<2>{std::size_t(h), std::size_t(w)},
                   HALDEN_KERNEL(std::size_t row, std::size_t col) {
                       const int y = int(row), x = int(col);
                       height[y * w + x] =
                           fmaf(resampling::magic_sum(coarse, wc, hc, y, x), 0.0625f, gain * detail[y * w + x]);
                   });
}

class LaplacianLevel : public halden::core::laplacian_level<LaplacianLevel> {
public:
    // The finest level; `mask` may be an empty grid.
    LaplacianLevel(halden::compute::queue& q, grid heights, grid mask, int depth)
        : laplacian_level(q, std::move(heights), depth), m_mask(std::move(mask)) {}
    // The next coarser level of `finer`, over its reduced heights.
    LaplacianLevel(halden::compute::queue& q, grid heights, LaplacianLevel& finer)
        : laplacian_level(q, std::move(heights), finer.depth() - 1) {
        if (finer.has_mask()) m_mask = halden::core::reduce(finer.mask(), "coarser level mask");
    }

    bool has_mask() const { return m_mask.get() != nullptr; }
    grid& mask() { return m_mask; }

    // Rebuilds this level's heights from its processed coarser level and its
    // own detail; the detail band is not needed afterwards and is freed.
    void reconstruct_previous_level(const Parameters&) {
        const grid& c = coarser()->heights();
        reconstruct(queue(), c.get(), halden::core::width_of(c), halden::core::height_of(c), m_detail.get(),
                    m_heights.get(), width(), height(), detail_gain);
        m_detail.reset();
    }

private:
    grid m_mask;
};

}  // namespace thermal_shaper
