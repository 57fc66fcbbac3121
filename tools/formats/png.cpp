// SPDX-License-Identifier: Apache-2.0
#include "png.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <png.h>

#include "grid_io.hpp"

namespace {

// What the libpng callbacks leave for the caller: libpng's message, or the
// errno of a failed write.
struct EncodeState {
    std::FILE* file;
    int write_errno;
    char message[200];
};

// libpng reports errors by calling this and expects it not to return: it
// keeps the text and jumps back to encode()'s setjmp.
extern "C" void on_png_error(png_structp png, png_const_charp text) {
    auto* state = static_cast<EncodeState*>(png_get_error_ptr(png));
    std::snprintf(state->message, sizeof state->message, "%s", text ? text : "libpng failed");
    png_longjmp(png, 1);
}

// Nothing libpng warns about applies to a plain RGB picture; say nothing.
extern "C" void on_png_warning(png_structp, png_const_charp) {}

extern "C" void on_png_write(png_structp png, png_bytep data, size_t size) {
    auto* state = static_cast<EncodeState*>(png_get_io_ptr(png));
    if (std::fwrite(data, 1, size, state->file) != size) {
        state->write_errno = errno;
        png_error(png, "write failed");
    }
}

extern "C" void on_png_flush(png_structp) {}  // stage_file flushes and closes

// The whole libpng conversation. A libpng error longjmps back into this
// function, skipping the frames in between, so it and the callbacks above
// hold only trivially destructible objects: no destructor can be skipped.
// Returns false after an error, described in `state`.
bool encode(EncodeState& state, uint32_t width, uint32_t height, const uint8_t* rgb) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &state, on_png_error, on_png_warning);
    if (png == nullptr) {
        std::snprintf(state.message, sizeof state.message, "out of memory");
        return false;
    }
    png_infop info = png_create_info_struct(png);
    if (info == nullptr) {
        png_destroy_write_struct(&png, nullptr);
        std::snprintf(state.message, sizeof state.message, "out of memory");
        return false;
    }
    // `png` and `info` are not changed after this point, so they keep their
    // values across the jump.
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_set_write_fn(png, &state, on_png_write, on_png_flush);
    // libpng refuses sides past a million unless told otherwise; the format
    // allows 2^31 - 1.
    png_set_user_limits(png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
    // Level 1 and the "up" filter: a 1024 x 1024 relief halves in size in a
    // few tens of milliseconds, where the default level takes six times as
    // long for a file 8 % smaller. The demo writes its pictures between its
    // timed steps, so speed wins.
    png_set_compression_level(png, 1);
    png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_UP);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_BASE,
                 PNG_FILTER_TYPE_BASE);
    png_write_info(png, info);
    const size_t row_bytes = size_t{3} * width;
    for (uint32_t y = 0; y < height; ++y) png_write_row(png, rgb + y * row_bytes);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

}  // namespace

bool has_png_extension(const std::string& path) {
    if (path.size() < 4) return false;
    std::string tail = path.substr(path.size() - 4);
    std::transform(tail.begin(), tail.end(), tail.begin(), [](unsigned char c) { return std::tolower(c); });
    return tail == ".png";
}

bool write_png_rgb(PendingOutputs& outputs, const std::string& path, uint32_t width, uint32_t height,
                   const std::vector<uint8_t>& rgb, std::string& error) {
    // The format stores sides as 31-bit numbers.
    if (width == 0 || height == 0 || width > INT32_MAX || height > INT32_MAX) {
        error = path + ": a PNG must be 1 to 2^31 - 1 pixels wide and high, not " + std::to_string(width) + "x" +
                std::to_string(height);
        return false;
    }
    if (rgb.size() != uint64_t{3} * width * height) {
        error = path + ": " + std::to_string(rgb.size()) + " bytes are not " + std::to_string(width) + "x" +
                std::to_string(height) + " RGB pixels";
        return false;
    }
    return stage_file(
        outputs, path,
        [&](std::FILE* f) {
            EncodeState state{f, 0, {}};
            if (encode(state, width, height, rgb.data())) return true;
            // Thrown to stage_file, which names the file; a failed write says why.
            throw std::runtime_error(state.write_errno != 0 ? std::strerror(state.write_errno)
                                                            : std::string("libpng: ") + state.message);
        },
        error);
}
