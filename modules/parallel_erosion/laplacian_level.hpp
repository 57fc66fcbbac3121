// SPDX-License-Identifier: Apache-2.0
// The particle-erosion pyramid level. Its grids by position: the first is the
// level's heights (the erosion pass updates them in place), then working
// grids 1 to 10, where grid 1 holds the material the pass carries and grid 3
// its capacity. The detail band is the level's own value in reconstruction.
#pragma once

#include <array>

#include "core/laplacian.hpp"

namespace parallel_erosion {

using halden::core::grid;

// Material per cell carried from the coarse pass to the fine level, and the
// heights it leaves behind, for fine cell (y, x) of a w x h level over a
// wc x hc coarse level. a, b and d are the magic upsamplings of the coarse
// heights, carried material and capacity; c is the fine level's own value
// (its detail); p the module's carrying factor.
//   b <= 0:     a += c
//   b > c:      if c > 0: t = min(2p / b - 0.25, 1); a += t c; b -= t c
//   else:       a += max(min(p / d, 1), 0.1) (c - b); b = 0
// Writes b to `carried`, max(d - c, 0) to `capacity` and a to `heights`.
inline void reconstruct(halden::compute::queue& q, const float* coarse_heights, const float* coarse_carried,
                        const float* coarse_capacity, int wc, int hc, const float* own, float* carried,
                        float* capacity, float* heights, int w, int h, float p) {
    q.parallel_for(halden::compute::range<2>{std::size_t(h), std::size_t(w)},
                   HALDEN_KERNEL(std::size_t row, std::size_t col) {
                       const int y = int(row), x = int(col), i = y * w + x;
                       float a = resampling::magic_sum(coarse_heights, wc, hc, y, x) * 0.0625f;
                       float b = resampling::magic_sum(coarse_carried, wc, hc, y, x) * 0.0625f;
                       const float c = own[i];
                       const float d = resampling::magic_sum(coarse_capacity, wc, hc, y, x) * 0.0625f;
                       if (b <= 0.0f) {
                           a = a + c;
                       } else if (b > c) {
                           if (c > 0.0f) {
                               const float t = halden::min_of(2.0f * p / b - 0.25f, 1.0f);
                               a = a + t * c;
                               b = b - t * c;
                           }
                       } else {
                           // The floor applies after the cap: a tiny p / d still moves a tenth.
                           a = a + halden::max_of(halden::min_of(p / d, 1.0f), 0.1f) * (c - b);
                           b = 0.0f;
                       }
                       carried[i] = b;
                       capacity[i] = halden::max_of(d - c, 0.0f);
                       heights[i] = a;
                   });
}

class LaplacianLevel : public halden::core::laplacian_level<LaplacianLevel> {
public:
    static constexpr int working_grids = 10;
    static constexpr int carried_grid = 1;
    static constexpr int capacity_grid = 3;
    // Working grids of the erosion pass: the water of all rounds, the water
    // of the current round, and the mean flow's x and y (coupled runs).
    static constexpr int water_grid = 2;
    static constexpr int passing_grid = 4;
    static constexpr int mean_x_grid = 9;
    static constexpr int mean_y_grid = 10;

    LaplacianLevel(halden::compute::queue& q, grid heights, int depth)
        : laplacian_level(q, std::move(heights), depth) {
        allocate();
    }
    LaplacianLevel(halden::compute::queue& q, grid heights, LaplacianLevel& finer)
        : laplacian_level(q, std::move(heights), finer.depth() - 1) {
        allocate();
    }

    // Grid 1 to 10; 0 is the heights.
    grid& layer(int i) { return i == 0 ? m_heights : m_layers[std::size_t(i - 1)]; }

    // Clears the working grids before a pass: grids 1 to 8, and with Extra
    // also 9 and 10.
    template <bool Extra>
    void init() {
        for (int i = 1; i <= (Extra ? 10 : 8); ++i) halden::core::fill(layer(i), 0.0f);
    }

    void reconstruct_previous_level(float carrying) {
        LaplacianLevel& c = *coarser();
        reconstruct(queue(), c.heights().get(), c.layer(carried_grid).get(), c.layer(capacity_grid).get(), c.width(),
                    c.height(), m_detail.get(), layer(carried_grid).get(), layer(capacity_grid).get(),
                    m_heights.get(), width(), height(), carrying);
    }

private:
    void allocate() {
        for (grid& g : m_layers) g = grid(queue(), m_heights.extent(), "erosion layer");
    }
    std::array<grid, working_grids> m_layers;
};

}  // namespace parallel_erosion
