// SPDX-License-Identifier: Apache-2.0
// The thermal-weathering pyramid level. Its grids by position: the first is
// the level's heights, the second the loose material the pass moved, the
// third its scratch and the fourth the material resting on the cell; the
// detail band is the level's own value in reconstruction. A level may also
// carry a mask and a hardness grid, both reduced from the finer level's.
#pragma once

#include "core/laplacian.hpp"

namespace thermal {

using halden::core::grid;

// The fine level's grids from the coarse level's, for fine cell (y, x) of a
// w x h level over a wc x hc coarse level. a and d are the magic upsamplings
// of the coarse heights and resting material, B the unscaled magic sum of the
// moved material, c the fine level's own value (its detail), p a rate and q
// the mask's release factor:
//   d <= 0:  a += c; s = d
//   d > c:   s = d - c
//   else:    a += min(p / max(B / 8, p), 1) (c - d); s = 0
// With a mask, cells whose fine mask e exceeds the upsampled coarse mask g
// release k s of the resting material, k = min(2 max(e - g, 0), 1) q.
// Writes s - r to `resting`, a - r to `heights` and B / 16 to `moved`.
inline void reconstruct(halden::compute::queue& q, const float* coarse_heights, const float* coarse_moved,
                        const float* coarse_resting, const float* coarse_mask, int wc, int hc, const float* own,
                        const float* mask, float* resting, float* heights, float* moved, int w, int h, float p,
                        float release, bool masked) {
    q.parallel_for(halden::compute::range<2>{std::size_t(h), std::size_t(w)},
                   HALDEN_KERNEL(std::size_t row, std::size_t col) {
                       const int y = int(row), x = int(col), i = y * w + x;
                       float a = resampling::magic_sum(coarse_heights, wc, hc, y, x) * 0.0625f;
                       const float B = resampling::magic_sum(coarse_moved, wc, hc, y, x);
                       const float c = own[i];
                       const float d = resampling::magic_sum(coarse_resting, wc, hc, y, x) * 0.0625f;
                       float s = 0.0f;
                       if (d <= 0.0f) {
                           a = a + c;
                           s = d;
                       } else if (d > c) {
                           s = d - c;
                       } else {
                           // B / 8 is twice the upsampled moved material.
                           a = a + halden::min_of(p / halden::max_of(B * 0.125f, p), 1.0f) * (c - d);
                       }
                       const float e = masked ? mask[i] : 1.0f;
                       const float g = masked ? resampling::magic_sum(coarse_mask, wc, hc, y, x) * 0.0625f : 1.0f;
                       const float k = halden::min_of(2.0f * halden::max_of(e - g, 0.0f), 1.0f) * release;
                       const float r = k > 0.0f && s > 0.0f ? k * s : 0.0f;
                       resting[i] = s - r;
                       heights[i] = a - r;
                       moved[i] = B * 0.0625f;
                   });
}

class LaplacianLevel : public halden::core::laplacian_level<LaplacianLevel> {
public:
    // The finest level; `mask` and `hardness` may be empty grids.
    LaplacianLevel(halden::compute::queue& q, grid heights, grid mask, int depth, grid hardness = {})
        : laplacian_level(q, std::move(heights), depth), m_mask(std::move(mask)), m_hardness(std::move(hardness)) {
        allocate();
    }
    LaplacianLevel(halden::compute::queue& q, grid heights, LaplacianLevel& finer)
        : laplacian_level(q, std::move(heights), finer.depth() - 1) {
        if (finer.has_mask()) m_mask = halden::core::reduce(finer.mask(), "coarser level mask");
        if (finer.has_hardness()) m_hardness = halden::core::reduce(finer.hardness(), "coarser level hardness");
        allocate();
    }

    bool has_mask() const { return m_mask.get() != nullptr; }
    grid& mask() { return m_mask; }
    bool has_hardness() const { return m_hardness.get() != nullptr; }
    grid& hardness() { return m_hardness; }
    grid& moved() { return m_moved; }
    grid& scratch() { return m_scratch; }
    grid& resting() { return m_resting; }

    void reconstruct_previous_level(float rate, float release) {
        LaplacianLevel& c = *coarser();
        const bool masked = has_mask();
        reconstruct(queue(), c.heights().get(), c.moved().get(), c.resting().get(),
                    masked ? c.mask().get() : nullptr, c.width(), c.height(), m_detail.get(),
                    masked ? m_mask.get() : nullptr, m_resting.get(), m_heights.get(), m_moved.get(), width(),
                    height(), rate, release, masked);
    }

private:
    // Both material grids start empty.
    void allocate() {
        m_moved = grid(queue(), m_heights.extent(), "moved material");
        m_scratch = grid(queue(), m_heights.extent(), "scratch");
        m_resting = grid(queue(), m_heights.extent(), "resting material");
        halden::core::fill(m_moved, 0.0f);
        halden::core::fill(m_resting, 0.0f);
    }
    grid m_mask, m_hardness, m_moved, m_scratch, m_resting;
};

}  // namespace thermal
