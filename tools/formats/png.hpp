// SPDX-License-Identifier: Apache-2.0
// 8-bit RGB pictures as compressed PNG files, through libpng.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class PendingOutputs;

// True when the name ends in ".png" (any case).
bool has_png_extension(const std::string& path);

// Writes `rgb` (width * height pixels of three bytes, rows top to bottom) as
// an 8-bit RGB PNG, deflate level 1 with the "up" filter on every row: about
// half the size of the pixels for a shaded relief, at a small part of the
// cost of the default level. The file is staged in `outputs`, whose commit
// replaces an existing one. On failure sets `error`.
bool write_png_rgb(PendingOutputs& outputs, const std::string& path, uint32_t width, uint32_t height,
                   const std::vector<uint8_t>& rgb, std::string& error);
