// SPDX-License-Identifier: Apache-2.0
// The Laplacian pyramid scheme shared by the multiresolution modules.
//
// A level holds its heights, its detail band and, owned, the next coarser
// level. Going down, the heights are reduced with downsample_magic and the
// detail keeps what the magic upsampling of the coarser heights misses:
// detail = fine - up(coarse). Going up, each module rebuilds a level from the
// coarser one in its own way (its reconstruct_previous_level).
//
// Level is the module's class (CRTP): it is constructed for a coarser level as
// Level(queue&, grid heights, Level& finer), and may carry grids of its own.
// Odd sizes halve by rounding up.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "core/grid.hpp"
#include "core/math.hpp"
#include "core/resampling.hpp"

namespace halden::core {

// detail(y, x) = height(y, x) - up(coarse)(y, x) over every cell of a w x h
// level whose coarser level is wc x hc.
inline void fill_detail(compute::queue& q, const float* height, float* detail, int w, int h, const float* coarse,
                        int wc, int hc) {
    q.parallel_for(compute::range<2>{std::size_t(h), std::size_t(w)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const int y = int(row), x = int(col);
        detail[y * w + x] = fmaf(resampling::magic_sum(coarse, wc, hc, y, x), -0.0625f, height[y * w + x]);
    });
}

// downsample_magic of a grid into a new half-size grid.
inline grid reduce(const grid& fine, const char* label) {
    grid coarse(fine.get_queue(), half_extent(fine.extent()), label);
    resampling::downsample_magic(coarse, fine);
    return coarse;
}

template <class Level>
class laplacian_level {
public:
    laplacian_level(compute::queue& q, grid heights, int depth)
        : m_queue(&q), m_heights(std::move(heights)), m_depth(depth) {}
    laplacian_level(const laplacian_level&) = delete;
    laplacian_level& operator=(const laplacian_level&) = delete;

    // Builds the next coarser level from this one's heights and fills this
    // level's detail grid.
    Level& create_subsequent_level() {
        grid coarse = reduce(m_heights, "coarser level heights");
        m_coarser = std::make_unique<Level>(*m_queue, std::move(coarse), static_cast<Level&>(*this));
        m_detail = grid(*m_queue, m_heights.extent(), "detail");
        const grid& ch = m_coarser->heights();
        fill_detail(*m_queue, m_heights.get(), m_detail.get(), width(), height(), ch.get(), width_of(ch), height_of(ch));
        return *m_coarser;
    }

    // This level and every coarser one down to depth 0, built in turn: the
    // finest first, the coarsest last.
    std::vector<Level*> build_chain() {
        std::vector<Level*> chain{static_cast<Level*>(this)};
        for (int i = 0; i < m_depth; ++i) chain.push_back(&chain.back()->create_subsequent_level());
        return chain;
    }

    compute::queue& queue() const { return *m_queue; }
    grid& heights() { return m_heights; }
    const grid& heights() const { return m_heights; }
    grid& detail() { return m_detail; }
    const grid& detail() const { return m_detail; }
    int width() const { return width_of(m_heights); }
    int height() const { return height_of(m_heights); }
    // Grows from the coarsest level towards the finest; the finest level's
    // depth is chosen by the module that builds the pyramid.
    int depth() const { return m_depth; }
    Level* coarser() const { return m_coarser.get(); }
    // Frees the coarser levels once this one has been rebuilt from them.
    void release_coarser() { m_coarser.reset(); }

protected:
    ~laplacian_level() = default;

    compute::queue* m_queue;
    grid m_heights;
    grid m_detail;
    int m_depth;
    std::unique_ptr<Level> m_coarser;
};

// The cells of all the levels of a chain: a pyramid's work per iteration.
template <class Level>
double cells_of(const std::vector<Level*>& chain) {
    double cells = 0.0;
    for (const Level* level : chain) cells += double(level->width()) * double(level->height());
    return cells;
}

}  // namespace halden::core
