// SPDX-License-Identifier: Apache-2.0
// The flow module's pyramid level: heights and detail.
#pragma once

#include "core/laplacian.hpp"
#include "halden/halden.h"

namespace flow {

using halden::core::grid;

class LaplacianLevel : public halden::core::laplacian_level<LaplacianLevel> {
public:
    LaplacianLevel(halden::compute::queue& q, grid heights, int depth)
        : laplacian_level(q, std::move(heights), depth) {}
    LaplacianLevel(halden::compute::queue& q, grid heights, LaplacianLevel& finer)
        : laplacian_level(q, std::move(heights), finer.depth() - 1) {}

    LaplacianLevel& create_subsequent_level(Parameters&) { return laplacian_level::create_subsequent_level(); }

    // The heights become the magic upsampling of the coarser level's filled
    // heights plus this level's detail, so the fine passes start from the
    // coarse filling. The detail band is freed.
    void reconstruct(const Parameters&) {
        const grid& c = coarser()->heights();
        const float* coarse = c.get();
        const float* detail = m_detail.get();
        float* out = m_heights.get();
        const int w = width(), wc = halden::core::width_of(c), hc = halden::core::height_of(c);
        queue().parallel_for(m_heights.extent(), HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const int y = int(row), x = int(col);
            out[y * w + x] = fmaf(resampling::magic_sum(coarse, wc, hc, y, x), 0.0625f, detail[y * w + x]);
        });
        m_detail.reset();
    }
};

}  // namespace flow
