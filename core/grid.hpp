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

// The half-size extent of a coarser level: odd sizes round up.
inline compute::range<2> half_extent(compute::range<2> fine) { return {(fine.rows + 1) / 2, (fine.cols + 1) / 2}; }

HALDEN_HD inline int clamp_index(int v, int lo, int hi) { return v < lo ? lo : (v > hi ? hi : v); }

}  // namespace halden::core
