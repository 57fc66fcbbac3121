// SPDX-License-Identifier: Apache-2.0
// halden color-transport: colour carried downstream by the flow of water.
#include <png.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"
#include "formats/grid_io.hpp"
#include "formats/png.hpp"

namespace {

// A colour picture as three planes of width * height floats.
struct Colours {
    uint32_t width = 0, height = 0;
    std::vector<float> r, g, b;
};

bool has_npy_extension(const std::string& path) {
    return path.size() >= 4 && strcasecmp(path.c_str() + path.size() - 4, ".npy") == 0;
}

// An 8-bit (or 16-bit) RGB or grey PNG, samples taken as 0 to 1 as they are.
bool read_png_colours(const std::string& path, Colours& c, std::string& error) {
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) {
        error = path + ": " + image.message;
        return false;
    }
    image.format = PNG_FORMAT_RGB;
    std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) {
        error = path + ": " + image.message;
        png_image_free(&image);
        return false;
    }
    c.width = image.width, c.height = image.height;
    const size_t n = size_t(c.width) * c.height;
    c.r.resize(n), c.g.resize(n), c.b.resize(n);
    for (size_t i = 0; i < n; ++i) {
        c.r[i] = float(pixels[3 * i]) / 255.0f;
        c.g[i] = float(pixels[3 * i + 1]) / 255.0f;
        c.b[i] = float(pixels[3 * i + 2]) / 255.0f;
    }
    return true;
}

// A little-endian float32 or float64 .npy of shape (h, w, 3) in C order.
bool read_npy_colours(const std::string& path, Colours& c, std::string& error) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    const auto bad = [&](const char* why) {
        std::fclose(f);
        error = path + ": " + why;
        return false;
    };
    unsigned char magic[10];
    if (std::fread(magic, 1, 10, f) != 10 || std::memcmp(magic, "\x93NUMPY", 6) != 0) return bad("not a .npy file");
    size_t header_length = size_t(magic[8]) | size_t(magic[9]) << 8;
    if (magic[6] >= 2) {
        unsigned char more[2];
        if (std::fread(more, 1, 2, f) != 2) return bad("truncated header");
        header_length |= size_t(more[0]) << 16 | size_t(more[1]) << 24;
    }
    if (header_length > 65536) return bad("header too long");
    std::string header(header_length, '\0');
    if (std::fread(header.data(), 1, header_length, f) != header_length) return bad("truncated header");
    const bool f4 = header.find("'<f4'") != std::string::npos, f8 = header.find("'<f8'") != std::string::npos;
    if (!f4 && !f8) return bad("colours must be little-endian float32 or float64");
    if (header.find("'fortran_order': False") == std::string::npos) return bad("colours must be in C order");
    unsigned long h = 0, w = 0, k = 0;
    const size_t shape = header.find("'shape': (");
    if (shape == std::string::npos || std::sscanf(header.c_str() + shape + 10, "%lu, %lu, %lu)", &h, &w, &k) != 3 ||
        k != 3 || h == 0 || w == 0 || h > 0xFFFFFFFFul || w > 0xFFFFFFFFul)
        return bad("colours must have the shape (height, width, 3)");
    c.width = uint32_t(w), c.height = uint32_t(h);
    const size_t n = size_t(w) * h;
    std::vector<double> values(3 * n);
    if (f4) {
        std::vector<float> raw(3 * n);
        if (std::fread(raw.data(), sizeof(float), raw.size(), f) != raw.size()) return bad("truncated data");
        for (size_t i = 0; i < raw.size(); ++i) values[i] = raw[i];
    } else if (std::fread(values.data(), sizeof(double), values.size(), f) != values.size()) {
        return bad("truncated data");
    }
    std::fclose(f);
    c.r.resize(n), c.g.resize(n), c.b.resize(n);
    for (size_t i = 0; i < n; ++i) {
        c.r[i] = float(values[3 * i]), c.g[i] = float(values[3 * i + 1]), c.b[i] = float(values[3 * i + 2]);
        if (!std::isfinite(c.r[i]) || !std::isfinite(c.g[i]) || !std::isfinite(c.b[i])) {
            error = path + ": colours must be finite (cell x " + std::to_string(i % w) + ", y " +
                    std::to_string(i / w) + ")";
            return false;
        }
    }
    return true;
}

bool write_npy_colours(std::FILE* f, const Colours& c) {
    std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': (" + std::to_string(c.height) + ", " +
                         std::to_string(c.width) + ", 3), }";
    // Magic, version, length and header end on a multiple of 64 bytes.
    header.append(63 - (10 + header.size()) % 64, ' ');
    header += '\n';
    const unsigned char start[10] = {
        0x93, 'N', 'U', 'M', 'P', 'Y', 1, 0, uint8_t(header.size() & 0xFF), uint8_t(header.size() >> 8)};
    if (std::fwrite(start, 1, 10, f) != 10 || std::fwrite(header.data(), 1, header.size(), f) != header.size())
        return false;
    std::vector<float> row(3 * size_t(c.width));
    for (size_t y = 0; y < c.height; ++y) {
        for (size_t x = 0; x < c.width; ++x) {
            const size_t i = y * c.width + x;
            row[3 * x] = c.r[i], row[3 * x + 1] = c.g[i], row[3 * x + 2] = c.b[i];
        }
        if (std::fwrite(row.data(), sizeof(float), row.size(), f) != row.size()) return false;
    }
    return true;
}

uint8_t to_byte(float v) {
    const float clamped = v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f;
    return uint8_t(std::lround(clamped * 255.0f));
}

class ColorTransportCommand final : public cli::Command {
public:
    void define(cli::Definition& d) override {
        d.description(
            "Carries colour along the flow of water over the height grid in IN on one\n"
            "device: the pits are filled, a particle starts from every cell with the cell's\n"
            "colour and runs downhill, taking on the colour of the cells it crosses, and\n"
            "each cell moves toward the colour of the particles that crossed it. Rivers and\n"
            "gullies so take on the colour of the material upstream. COLOUR_IN and\n"
            "COLOUR_OUT are colour pictures of IN's shape: a .npy of shape (height, width,\n"
            "3), float32 or float64 (written as float32), or a PNG whose 8-bit samples\n"
            "stand for 0 to 1 as they are (written clamped to 0 to 1).\n");
        d.input("IN", in_);
        d.input("COLOUR_IN", colour_in_);
        d.output("COLOUR_OUT", colour_out_);
        d.text("--mask", mask_path_, "M",
               "a grid of IN's shape scaling the change per cell: 0 keeps the colour, 1 lets it change fully (a "
               "PNG's samples span 0 to 1); a mask of another shape exits 2");
        d.number("--length", length_, cli::Sign::kNonNegative, "L",
                 "how far the long traces run, as a fraction of the width, at least 0 (default 0.5), as in "
                 "'halden flow'");
        d.number("--pickup", pickup_, cli::Interval{0.0f, true, 1.0f, true}, "P",
                 "how far the carried colour moves toward each crossed cell's colour, 0 to 1 (default 0.05): 0 "
                 "carries the source colour all the way, 1 changes nothing");
        d.number("--weight", weight_, cli::Sign::kPositive, "W", "weight of one visit, above 0 (default 1)");
        d.number("--strength", strength_, cli::Interval{0.0f, true, 1.0f, true}, "S",
                 "how far a cell's colour moves toward the carried colour, 0 to 1 (default 0.8)");
        d.number("--saturation", saturation_, cli::Sign::kNonNegative, "T",
                 "visit weight at which a cell moves half of the strength, at least 0 (default 4): larger values "
                 "keep the change to the big rivers");
        d.whole("--seed", seed_, 0, UINT32_MAX, "S",
                "seed of every random choice, 0 to 4294967295 (default 1); the same seed sends the colour down "
                "the paths of 'halden flow' with that seed");
        d.operation(R"({"operation", "device", "width", "height", "milliseconds", "timings"})");
        d.footer(
            "A progress bar shows on stderr while the pits fill and the particles run.\n"
            "Ctrl-C cancels the run: COLOUR_OUT is not written and the exit code is 3 (a\n"
            "second Ctrl-C stops at once). Numbers must be finite and in plain decimal or\n"
            "exponent form. File formats and exit codes: see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        Grid heights;
        std::vector<size_t> missing;
        if (const int code = cli::read_heights(c, in_, heights, missing); code != cli::kOk) return code;
        if (!cli::int32_grid_ok(heights))
            return cli::fail(cli::kIo, "%s: colour transport takes at most 2^31 - 1 cells, this grid is %ux%u",
                             in_.c_str(), heights.width, heights.height);
        Colours colours;
        std::string error;
        const bool png = has_png_extension(colour_in_);
        if (!png && !has_npy_extension(colour_in_))
            return cli::fail(cli::kIo, "%s: colours must be a .npy or a .png file", colour_in_.c_str());
        if (!(png ? read_png_colours(colour_in_, colours, error) : read_npy_colours(colour_in_, colours, error)))
            return cli::fail(cli::kIo, "%s", error.c_str());
        if (colours.width != heights.width || colours.height != heights.height)
            return cli::fail(cli::kIo, "%s: the colours are %ux%u, %s is %ux%u", colour_in_.c_str(), colours.width,
                             colours.height, in_.c_str(), heights.width, heights.height);
        if (!has_png_extension(colour_out_) && !has_npy_extension(colour_out_))
            return cli::fail(cli::kUsage, "%s: COLOUR_OUT must end in .npy or .png", colour_out_.c_str());
        Grid mask;
        if (!mask_path_.empty())
            if (const int code = cli::read_mask(c, mask_path_, in_, heights, mask); code != cli::kOk) return code;

        halden_color_transport_parameters p{
            int32_t(heights.width), int32_t(heights.height), seed_, length_, pickup_, weight_, strength_, saturation_};
        if (const int code = cli::run_operation(
                c, "colour transport", double(heights.cells.size()),
                [&](halden_queue* q, const halden_callbacks* cb) {
                    return ColorTransportSimulation(q, heights.cells.data(), colours.r.data(), colours.g.data(),
                                                    colours.b.data(), mask_path_.empty() ? nullptr : mask.cells.data(),
                                                    &p, cb);
                },
                cli::Bar::kAtOnce);
            code != cli::kOk)
            return code;

        PendingOutputs outputs;
        bool staged;
        if (has_png_extension(colour_out_)) {
            std::vector<uint8_t> rgb(3 * colours.r.size());
            for (size_t i = 0; i < colours.r.size(); ++i) {
                rgb[3 * i] = to_byte(colours.r[i]);
                rgb[3 * i + 1] = to_byte(colours.g[i]);
                rgb[3 * i + 2] = to_byte(colours.b[i]);
            }
            staged = write_png_rgb(outputs, colour_out_, colours.width, colours.height, rgb, error);
        } else {
            staged = stage_file(
                outputs, colour_out_, [&](std::FILE* f) { return write_npy_colours(f, colours); }, error);
        }
        if (!staged || !outputs.commit(error)) return cli::fail(cli::kIo, "%s", error.c_str());

        c.report(cli::JsonObject()
                     .add("operation", "color-transport")
                     .add("device", c.key)
                     .add("width", heights.width)
                     .add("height", heights.height)
                     .add("milliseconds", c.call.milliseconds),
                 cli::format("color-transport %ux%u, length %g, pickup %g, strength %g, seed %u on %s: %.3f ms, "
                             "%.1f Mcells/s",
                             heights.width, heights.height, length_, pickup_, strength_, seed_, c.key.c_str(),
                             c.call.milliseconds, c.call.rate));
        return cli::kOk;
    }

private:
    std::string in_, colour_in_, colour_out_, mask_path_;
    float length_ = 0.5f, pickup_ = 0.05f, weight_ = 1.0f, strength_ = 0.8f, saturation_ = 4.0f;
    uint32_t seed_ = 1;
};

}  // namespace

std::unique_ptr<cli::Command> commands::color_transport() { return std::make_unique<ColorTransportCommand>(); }
