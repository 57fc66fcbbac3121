// SPDX-License-Identifier: Apache-2.0
// Square float32 grids in .npy or raw form.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Grid {
    uint32_t size = 0;         // side in cells
    std::vector<float> cells;  // size * size values, row-major
};

// True when the name ends in ".npy" (any case).
bool has_npy_extension(const std::string& path);

// Reads IN: a .npy file (recognised by its magic bytes) or raw float32 whose
// side is `size`, or inferred from the file size when `size` is 0. A nonzero
// `size` must also match a .npy shape. On failure sets `error`.
bool read_grid(const std::string& path, uint32_t size, Grid& grid, std::string& error);

// Writes .npy (v1.0, '<f4') when the name ends in .npy, raw float32 otherwise.
// Goes through a temporary file in the same directory that is renamed over
// `path`, so an existing file is replaced only once everything is written.
bool write_grid(const std::string& path, const Grid& grid, std::string& error);
