// SPDX-License-Identifier: Apache-2.0
// Tests and texts shared by the modules' parameter checks: a check returns
// what is wrong with a record, naming the field, or an empty string.
#pragma once

#include <cmath>
#include <cstdint>
#include <string>

#include "core/grid.hpp"

namespace halden::core {

inline bool positive_finite(float v) { return v > 0.0f && std::isfinite(v); }
inline bool within(float v, float lo, float hi) { return v >= lo && v <= hi; }

// " (got v)", the end of a refusal.
inline std::string got(double v) { return " (got " + std::to_string(v) + ")"; }
inline std::string got(std::int64_t v) { return " (got " + std::to_string(v) + ")"; }
inline std::string got(int v) { return got(std::int64_t(v)); }

inline std::string check_grid_size(std::int64_t width, std::int64_t height) {
    if (grid_size_ok(width, height)) return {};
    return "width and height must be at least 1 and hold at most 2^31 - 1 cells (got " + std::to_string(width) + " x " +
           std::to_string(height) + ")";
}

// The grid, and the world size of a cell and of a height unit.
inline std::string check_grid_and_scales(std::int64_t width, std::int64_t height, float cell_size, float height_scale) {
    std::string problem = check_grid_size(width, height);
    if (problem.empty() && !positive_finite(cell_size))
        problem = "cell_size must be positive and finite" + got(cell_size);
    if (problem.empty() && !positive_finite(height_scale))
        problem = "height_scale must be positive and finite" + got(height_scale);
    return problem;
}

}  // namespace halden::core
