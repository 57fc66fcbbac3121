// SPDX-License-Identifier: Apache-2.0
// A minimal PNG writer: 8-bit RGB, no compression, no dependencies.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class PendingOutputs;

// True when the name ends in ".png" (any case).
bool has_png_extension(const std::string& path);

// Writes `rgb` (width * height pixels of three bytes, rows top to bottom) as
// an 8-bit RGB PNG. The pixel data goes into the zlib stream as uncompressed
// "stored" blocks, so the file is about as large as the pixels. The file is
// staged in `outputs`, whose commit replaces an existing one. On failure sets
// `error`.
bool write_png_rgb(PendingOutputs& outputs, const std::string& path, uint32_t width, uint32_t height,
                   const std::vector<uint8_t>& rgb, std::string& error);
