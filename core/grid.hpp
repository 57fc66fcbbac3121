// SPDX-License-Identifier: Apache-2.0
// Grid conventions: row-major float32 cells, cell (y, x) at y * width + x,
// indexed in 32-bit signed arithmetic, neighbours clamped to the grid.
#pragma once

#include <cstdint>

#include "compute/compute.hpp"

namespace halden::core {

using grid = compute::usm_ptr<float, 2>;
using grid_buffer = compute::buffer<float, 2>;

// Kernels index cells with 32-bit signed integers.
inline constexpr std::int64_t max_grid_cells = 0x7FFFFFFF;

inline bool grid_size_ok(std::int64_t width, std::int64_t height) {
    return width > 0 && height > 0 && width <= max_grid_cells / height;
}

inline compute::range<2> grid_extent(int width, int height) {
    return {static_cast<std::size_t>(height), static_cast<std::size_t>(width)};
}

template <class Grid>
int width_of(const Grid& g) {
    return static_cast<int>(g.extent().cols);
}

template <class Grid>
int height_of(const Grid& g) {
    return static_cast<int>(g.extent().rows);
}

// A device copy of the caller's w x h grid, or an empty grid for an optional
// one not given.
inline grid upload_optional(compute::queue& q, const float* host, int w, int h, const char* label) {
    if (!host) return grid();
    grid g(q, grid_extent(w, h), label);
    g.copy_from_host(host);
    return g;
}

// The half-size extent of a coarser level: odd sizes round up.
inline compute::range<2> half_extent(compute::range<2> fine) { return {(fine.rows + 1) / 2, (fine.cols + 1) / 2}; }

HALDEN_HD inline int clamp_index(int v, int lo, int hi) { return v < lo ? lo : (v > hi ? hi : v); }

// floor(v) as an int, for v within int's range, without a call to floorf.
HALDEN_HD inline int floor_index(float v) {
    const int i = int(v);
    return float(i) > v ? i - 1 : i;
}

// v modulo n in [0, n), for grids and lattices that repeat with period n.
HALDEN_HD inline int wrap_index(int v, int n) {
    if (v >= 0 && v < n) return v;  // nearly always: no division
    v %= n;
    return v < 0 ? v + n : v;
}

// Stencil kernels run their interior, where every neighbour exists, without
// bounds tests (so the host compiler can vectorise it), and the ring of
// border cells separately. The ring: the first and last rows, then the
// first and last columns of the rows between.
inline std::size_t border_cells(int w, int h) {
    const std::size_t rows = h >= 2 ? 2 : 1, cols = w >= 2 ? 2 : 1;
    return rows * std::size_t(w) + cols * std::size_t(h > 2 ? h - 2 : 0);
}
struct cell {
    int x, y;
};
HALDEN_HD inline cell border_cell(std::size_t k, int w, int h) {
    const std::size_t rows = h >= 2 ? 2 : 1, cols = w >= 2 ? 2 : 1;
    if (k < rows * std::size_t(w)) return {int(k % std::size_t(w)), k < std::size_t(w) ? 0 : h - 1};
    k -= rows * std::size_t(w);
    return {cols == 2 && k % 2 == 1 ? w - 1 : 0, 1 + int(k / cols)};
}
// The interior's extent: empty unless both sides exceed two cells.
inline compute::range<2> interior_extent(int w, int h) {
    return w > 2 && h > 2 ? compute::range<2>{std::size_t(h - 2), std::size_t(w - 2)} : compute::range<2>{0, 0};
}

}  // namespace halden::core
