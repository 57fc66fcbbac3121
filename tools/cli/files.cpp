// SPDX-License-Identifier: Apache-2.0
#include "cli/files.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "cli/command.hpp"
#include "cli/device.hpp"
#include "cli/messages.hpp"
#include "cli/progress.hpp"
#include "formats/png.hpp"

namespace cli {
namespace {

// Linear colour to 8-bit sRGB: clamped to [0, 1] (NaN as 0), the sRGB
// transfer curve, rounded to nearest. The definition the pictures follow;
// Srgb8 below gives its results faster.
uint8_t srgb8(float linear) {
    const double c = linear > 0.0f ? std::min(static_cast<double>(linear), 1.0) : 0.0;
    const double encoded = c <= 0.0031308 ? 12.92 * c : 1.055 * std::pow(c, 1.0 / 2.4) - 0.055;
    return static_cast<uint8_t>(std::lround(encoded * 255.0));
}

// srgb8 through two tables, ten times faster than its pow: a picture of a
// million cells has three million samples. Both tables come from srgb8
// itself, and the result is srgb8's for every float (checked over all of
// them). A float's top 17 bits pick a bucket a 256th of an octave wide, over
// which the code rises by at most one: start_ holds the code at the bucket's
// least float and threshold_ the least float of each code.
class Srgb8 {
  public:
    Srgb8() : start_((kOne >> kShift) + 1) {
        for (int code = 1; code < 256; ++code) {
            uint32_t low = 0, high = kOne;  // srgb8 rises with the bits of non-negative floats
            while (low < high) {
                const uint32_t middle = low + (high - low) / 2;
                if (srgb8(from_bits(middle)) >= code)
                    high = middle;
                else
                    low = middle + 1;
            }
            threshold_[code] = from_bits(low);
        }
        for (size_t i = 0; i < start_.size(); ++i) start_[i] = srgb8(from_bits(static_cast<uint32_t>(i) << kShift));
    }

    uint8_t operator()(float linear) const {
        if (!(linear > 0.0f)) return 0;  // NaN too
        if (!(linear < 1.0f)) return 255;
        uint32_t bits;
        std::memcpy(&bits, &linear, sizeof bits);
        const uint8_t code = start_[bits >> kShift];
        return code < 255 && linear >= threshold_[code + 1] ? code + 1 : code;
    }

  private:
    static constexpr uint32_t kOne = 0x3f800000u;  // 1.0f
    static constexpr int kShift = 15;
    static float from_bits(uint32_t bits) {
        float f;
        std::memcpy(&f, &bits, sizeof f);
        return f;
    }
    std::array<float, 256> threshold_{};
    std::vector<uint8_t> start_;
};

// Reads IN. A raw file always comes out `width` wide, so a width that
// differs can only be another format's own shape.
int read_input(const std::string& path, const ReadOptions& options, Grid& grid) {
    std::string error, said;
    if (!read_grid(path, options, grid, error, said)) return fail(kIo, "%s", error.c_str());
    note(said);
    if (options.width != 0 && grid.width != options.width)
        return fail(kIo, "%s: --size %u does not match the file's shape of %ux%u", path.c_str(), options.width,
                    grid.width, grid.height);
    return kOk;
}

}  // namespace

int read_heights(Context& context, const std::string& path, Grid& grid, std::vector<size_t>& missing) {
    return add_time(context.timings.read, [&] {
        if (const int code = read_input(path, context.read, grid); code != kOk) return code;
        bool all = false;
        missing = fill_missing(grid, all);
        if (all) return fail(kIo, "%s: no cell has a height (all are no-data or NaN)", path.c_str());
        return static_cast<int>(kOk);
    });
}

int read_mask(Context& context, const std::string& path, const std::string& in, const Grid& grid, Grid& mask,
              const char* what) {
    return add_time(context.timings.read, [&] {
        std::string error, said;
        ReadOptions options;
        options.width = grid.width;
        options.range = std::make_pair(0.0f, 1.0f);
        if (!read_grid(path, options, mask, error, said)) return fail(kIo, "%s", error.c_str());
        if (mask.width != grid.width || mask.height != grid.height)
            return fail(kIo, "%s: the %s is %ux%u, but %s is %ux%u", path.c_str(), what, mask.width, mask.height,
                        in.c_str(), grid.width, grid.height);
        for (float& m : mask.cells)
            if (std::isnan(m)) m = 0.0f;
        return static_cast<int>(kOk);
    });
}

std::vector<size_t> fill_missing(Grid& grid, bool& all) {
    std::vector<size_t> missing;
    float lowest = INFINITY;
    for (size_t i = 0; i < grid.cells.size(); ++i) {
        if (std::isnan(grid.cells[i]))
            missing.push_back(i);
        else
            lowest = std::min(lowest, grid.cells[i]);
    }
    all = missing.size() == grid.cells.size();
    for (const size_t i : missing) grid.cells[i] = lowest;
    return missing;
}

void mark_missing(Grid& grid, const std::vector<size_t>& missing) {
    for (const size_t i : missing) grid.cells[i] = NAN;
}

double world_width(const Grid& grid) {
    const Georeference& geo = grid.georeference;
    if (!geo.has_transform || geo.projection.empty()) return 0.0;
    const double width = std::abs(geo.transform[1]) * grid.width;
    if (!geo.projection.starts_with("GEOGCS") && !geo.projection.starts_with("GEOGCRS")) return width;
    constexpr double kMetresPerDegree = 111320.0, kRadians = 3.14159265358979323846 / 180.0;
    const double latitude = geo.transform[3] + geo.transform[5] * grid.height / 2.0;
    return width * kMetresPerDegree * std::cos(latitude * kRadians);
}

double cell_width(const Grid& grid) { return world_width(grid) / grid.width; }

double fit_scale(double span_x, double span_y, double width, double height) {
    if (span_x > 0.0 && span_y > 0.0) return std::min(width / span_x, height / span_y);
    if (span_x > 0.0) return width / span_x;
    if (span_y > 0.0) return height / span_y;
    return 1.0;
}

bool int32_grid_ok(const Grid& grid) {
    return grid.width <= INT32_MAX && grid.height <= INT32_MAX && grid.cells.size() <= size_t{INT32_MAX};
}

bool write_picture(PendingOutputs& outputs, const std::string& path, uint32_t width, uint32_t height,
                   const float* r, const float* g, const float* b, std::string& error) {
    static const Srgb8 encode;
    const size_t cells = size_t{width} * height;
    std::vector<uint8_t> rgb(3 * cells);
    for (size_t i = 0; i < cells; ++i) {
        rgb[3 * i] = encode(r[i]);
        rgb[3 * i + 1] = encode(g[i]);
        rgb[3 * i + 2] = encode(b[i]);
    }
    return write_png_rgb(outputs, path, width, height, rgb, error);
}

int Outputs::grid(const std::string& path, const Grid& grid, const HeightRange& range) {
    return add_time(context_.timings.write, [&] {
        std::string error, said;
        if (!write_grid(pending_, path, grid, range, error, said)) return fail(kIo, "%s", error.c_str());
        notes_.push_back(said);
        return static_cast<int>(kOk);
    });
}

int Outputs::picture(const std::string& path, uint32_t width, uint32_t height, const float* r, const float* g,
                     const float* b) {
    return add_time(context_.timings.write, [&] {
        std::string error;
        if (!write_picture(pending_, path, width, height, r, g, b, error)) return fail(kIo, "%s", error.c_str());
        return static_cast<int>(kOk);
    });
}

int Outputs::commit() {
    // Ctrl-C while the files were written: the staged files go with pending_.
    if (interrupted()) return cancelled(context_);
    return add_time(context_.timings.write, [&] {
        std::string error;
        if (!pending_.commit(error)) return fail(kIo, "%s", error.c_str());
        for (const std::string& said : notes_) note(said);
        return static_cast<int>(kOk);
    });
}

int write_output(Context& context, const std::string& path, const Grid& grid, const HeightRange& range) {
    Outputs outputs(context);
    if (const int code = outputs.grid(path, grid, range); code != kOk) return code;
    return outputs.commit();
}

}  // namespace cli
