// SPDX-License-Identifier: Apache-2.0
// Row-major float32 grids in .npy or raw form.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

struct Grid {
    uint32_t width = 0;        // cells per row (a .npy file's columns)
    uint32_t height = 0;       // rows
    std::vector<float> cells;  // width * height values, row-major

    bool square() const { return width == height; }
};

// True when the name ends in ".npy" (any case).
bool has_npy_extension(const std::string& path);

// Reads IN: a .npy file (recognised by its magic bytes), whose shape (rows,
// cols) gives height and width, or raw float32 rows of `width` values; a raw
// file read with `width` 0 must hold a square number of values. `width` is
// not checked against a .npy shape: the caller knows what it asked for. On
// failure sets `error`.
bool read_grid(const std::string& path, uint32_t width, Grid& grid, std::string& error);

// Writes `path` through a temporary file in the same directory that `write`
// fills and that is renamed over `path` only when everything was written, so
// an existing file is replaced only by complete content.
bool write_file_replacing(const std::string& path, const std::function<bool(std::FILE*)>& write, std::string& error);

// Writes .npy (v1.0, '<f4') when the name ends in .npy, raw float32 otherwise.
// Goes through a temporary file in the same directory that is renamed over
// `path`, so an existing file is replaced only once everything is written.
bool write_grid(const std::string& path, const Grid& grid, std::string& error);
