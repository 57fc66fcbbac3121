// SPDX-License-Identifier: Apache-2.0
// halden stamp: scatters copies of stamp grids (rocks, craters, mesas) over a
// height grid with random transforms and blends them in.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>

#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"

namespace {

struct Blend {
    const char* name;
    int32_t value;
};
constexpr Blend kBlends[] = {{"replace", HALDEN_STAMP_REPLACE},
                             {"add", HALDEN_STAMP_ADD},
                             {"subtract", HALDEN_STAMP_SUBTRACT},
                             {"max", HALDEN_STAMP_MAX},
                             {"min", HALDEN_STAMP_MIN},
                             {"smooth-max", HALDEN_STAMP_SMOOTH_MAX},
                             {"smooth-min", HALDEN_STAMP_SMOOTH_MIN},
                             {"multiply", HALDEN_STAMP_MULTIPLY}};

struct StampSet {
    std::vector<float> atlas;
    std::vector<halden_stamp_entry> entries;
};

// A 3-D .npy of little-endian float32 or float64 in C order: shape (N, rows,
// columns). Returns false (with `error` empty) when the file is not a 3-D
// .npy, so that the grid readers take it.
bool read_stack(const std::string& path, StampSet& set, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    char lead[10];
    if (!in.read(lead, 10) || std::memcmp(lead, "\x93NUMPY", 6) != 0 || lead[6] != 1) return false;
    const size_t length = static_cast<unsigned char>(lead[8]) | (static_cast<unsigned char>(lead[9]) << 8);
    std::string header(length, '\0');
    if (!in.read(header.data(), static_cast<std::streamsize>(length))) return false;
    std::smatch shape, descr;
    if (!std::regex_search(header, shape, std::regex(R"('shape':\s*\(\s*(\d+)\s*,\s*(\d+)\s*,\s*(\d+)\s*,?\s*\))")))
        return false;
    if (!std::regex_search(header, descr, std::regex(R"('descr':\s*'<f([48])')")) ||
        header.find("'fortran_order': False") == std::string::npos) {
        error = path + ": a 3-D stamp stack must be little-endian float32 or float64 in C order";
        return false;
    }
    const uint64_t n = std::stoull(shape[1]), rows = std::stoull(shape[2]), cols = std::stoull(shape[3]);
    const int item = descr[1] == "4" ? 4 : 8;
    if (n < 1 || n > 65536 || rows < 1 || rows > 8192 || cols < 1 || cols > 8192) {
        error = path + ": expected 1 to 65536 stamps of 1 to 8192 rows and columns, got shape (" + shape[1].str() +
                ", " + shape[2].str() + ", " + shape[3].str() + ")";
        return false;
    }
    const uint64_t texels = n * rows * cols;
    std::vector<char> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (data.size() != texels * item) {
        error = path + ": the data holds " + std::to_string(data.size()) + " bytes, the shape needs " +
                std::to_string(texels * item);
        return false;
    }
    set.atlas.resize(texels);
    for (uint64_t i = 0; i < texels; ++i) {
        if (item == 4) {
            std::memcpy(&set.atlas[i], data.data() + i * 4, 4);
        } else {
            double v;
            std::memcpy(&v, data.data() + i * 8, 8);
            set.atlas[i] = static_cast<float>(v);
        }
    }
    for (uint64_t k = 0; k < n; ++k)
        set.entries.push_back({static_cast<uint32_t>(cols), static_cast<uint32_t>(rows), k * rows * cols});
    return true;
}

// Any grid the tool reads, as one stamp or cut into tiles of tile_w x tile_h.
int read_tiles(cli::Context& c, const std::string& path, uint32_t tile_w, uint32_t tile_h, StampSet& set) {
    Grid grid;
    std::string error, note;
    if (!cli::add_time(c.timings.read, [&] { return read_grid(path, ReadOptions{}, grid, error, note); }))
        return cli::fail(cli::kIo, "%s", error.c_str());
    if (tile_w == 0) tile_w = grid.width, tile_h = grid.height;
    if (grid.width % tile_w != 0 || grid.height % tile_h != 0)
        return cli::fail(cli::kIo, "%s: %ux%u cells do not cut into whole tiles of %ux%u", path.c_str(), grid.width,
                         grid.height, tile_w, tile_h);
    if (tile_w > 8192 || tile_h > 8192)
        return cli::fail(cli::kIo, "%s: stamps may be at most 8192 x 8192, these are %ux%u", path.c_str(), tile_w,
                         tile_h);
    for (uint32_t ty = 0; ty < grid.height; ty += tile_h)
        for (uint32_t tx = 0; tx < grid.width; tx += tile_w) {
            set.entries.push_back({tile_w, tile_h, set.atlas.size()});
            for (uint32_t y = 0; y < tile_h; ++y)
                for (uint32_t x = 0; x < tile_w; ++x) {
                    const float v = grid.cells[size_t(ty + y) * grid.width + tx + x];
                    set.atlas.push_back(std::isnan(v) ? 0.0f : v);  // no-data texels add nothing
                }
        }
    return cli::kOk;
}

class StampCommand final : public cli::Command {
public:
    void define(cli::Definition& d) override {
        d.description(
            "Scatters copies of the stamps in STAMPS over the height grid in IN on one device\n"
            "and writes the result to OUT. Each copy has its own stamp, position, scale,\n"
            "rotation and height, drawn from --seed (or spaced by --spacing), and is blended\n"
            "into the grid in turn. The same options give the same bits on every device.\n"
            "\n"
            "STAMPS: a 3-D .npy of N stamps of the same size, shape (N, rows, columns),\n"
            "float32 or float64 (numpy.save of numpy.stack of the stamps); or any grid the\n"
            "tool reads, one stamp, or several side by side with --tile W H. Heights of a\n"
            "stamp are in height units (times --height); no-data texels count as 0.\n");
        d.input("IN", in_);
        d.input("STAMPS", stamps_path_);
        d.output("OUT", out_);
        tile_ = &d.pair("--tile", "W H", "cut STAMPS into stamps of W x H texels, row by row");
        d.whole("--count", count_, 1, 1u << 24, "N", "copies to place, 1 to 16777216 (default 100)");
        d.number("--spacing", spacing_, cli::Sign::kNonNegative, "S",
                 "least distance between centres in cells: Poisson-disk placement up to --count copies (default 0: "
                 "uniform placement)");
        d.whole("--seed", seed_, 0, UINT32_MAX, "S", "seed of the placement (default 1)");
        scale_ = &d.pair("--scale", "MIN MAX", "range of the size, in cells per stamp texel (default 0.5 2)");
        rotation_ = &d.pair("--rotation", "MIN MAX", "range of the rotation in degrees, clockwise (default 0 360)");
        height_ = &d.pair("--height", "MIN MAX", "range of the factor of the stamp's heights (default 1 1)");
        d.flag("--absolute", absolute_,
               "measure the stamps' heights from 0, not from the terrain under each copy's centre");
        d.text("--blend", blend_name_, "NAME",
               "replace, add, subtract, max (default), min, smooth-max, smooth-min or multiply");
        d.number("--opacity", opacity_, cli::Interval{0.0f, true, 1.0f, true}, "A",
                 "weight of every copy, 0 to 1 (default 1)");
        d.number("--smoothness", smoothness_, cli::Sign::kPositive, "K",
                 "width in height units of the rounded seam of smooth-max and smooth-min (default 1)");
        d.number("--falloff", falloff_, cli::Interval{0.0f, true, 1.0f, true}, "F",
                 "share of the way from a stamp's edge to its centre over which it fades in, 0 to 1 (default "
                 "0.25; 0: hard edges)");
        d.flag("--bicubic", bicubic_, "sample the stamps bicubically (sharper) instead of bilinearly");
        slope_ = &d.pair("--slope", "MIN MAX", "place only where the slope (height units per cell) lies in this range");
        elevation_ = &d.pair("--elevation", "MIN MAX", "place only where the terrain's height lies in this range");
        d.text("--density", density_path_, "FILE",
               "a grid of IN's shape, 0 to 1: the chance that a candidate centre there is kept (a PNG's samples "
               "span 0 to 1)");
        d.text("--ids", ids_path_, "FILE",
               "also write per cell the index of the copy that won it (the last blended in; for max and min the "
               "last whose height was taken), -1 where none");
        d.text("--instances", instances_path_, "FILE.json",
               "also write the copies as a JSON array of {x, y, scale, rotation, height, stamp} objects, x and y "
               "in cells");
        d.check([this]() -> int {
            if (const int code = range(*scale_, "--scale", scale_min_, scale_max_, false); code != cli::kOk)
                return code;
            if (scale_->given() && !(scale_min_ > 0.0f))
                return cli::fail(cli::kUsage, "--scale expects positive sizes, got '%s %s'", scale_->text().c_str(),
                                 scale_->second().c_str());
            if (const int code = range(*rotation_, "--rotation", rotation_min_, rotation_max_, false); code != cli::kOk)
                return code;
            if (const int code = range(*height_, "--height", height_min_, height_max_, false); code != cli::kOk)
                return code;
            if (const int code = range(*slope_, "--slope", slope_min_, slope_max_, true); code != cli::kOk) return code;
            if (const int code = range(*elevation_, "--elevation", elevation_min_, elevation_max_, true);
                code != cli::kOk)
                return code;
            if (tile_->given()) {
                uint64_t w = 0, h = 0;
                if (!cli::parse_whole(tile_->text(), 1, 8192, w) || !cli::parse_whole(tile_->second(), 1, 8192, h))
                    return cli::fail(cli::kUsage, "--tile expects two whole numbers from 1 to 8192, got '%s %s'",
                                     tile_->text().c_str(), tile_->second().c_str());
                tile_w_ = static_cast<uint32_t>(w);
                tile_h_ = static_cast<uint32_t>(h);
            }
            for (const Blend& b : kBlends)
                if (blend_name_ == b.name) {
                    blend_ = b.value;
                    return cli::kOk;
                }
            return cli::fail(cli::kUsage,
                             "--blend expects replace, add, subtract, max, min, smooth-max, smooth-min or multiply, "
                             "got '%s'",
                             blend_name_.c_str());
        });
        d.operation(R"({"operation", "device", "width", "height", "stamps", "instances", "milliseconds", "timings"})");
        d.footer(
            "The summary line counts the copies placed, which may be fewer than --count when\n"
            "--spacing fills the grid or --density and the limits keep few candidates. File\n"
            "formats and exit codes: see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        Grid grid;
        std::vector<size_t> missing;
        if (const int code = cli::read_heights(c, in_, grid, missing); code != cli::kOk) return code;
        if (!cli::int32_grid_ok(grid))
            return cli::fail(cli::kIo, "%s: stamping takes at most 2^31 - 1 cells, this grid is %ux%u", in_.c_str(),
                             grid.width, grid.height);
        StampSet set;
        std::string error;
        const bool stacked =
            !tile_->given() && cli::add_time(c.timings.read, [&] { return read_stack(stamps_path_, set, error); });
        if (!error.empty()) return cli::fail(cli::kIo, "%s", error.c_str());
        if (!stacked)
            if (const int code = read_tiles(c, stamps_path_, tile_w_, tile_h_, set); code != cli::kOk) return code;
        if (set.entries.size() > 65536)
            return cli::fail(cli::kIo, "%s: %zu stamps, more than 65536", stamps_path_.c_str(), set.entries.size());
        Grid density;
        if (!density_path_.empty())
            if (const int code = cli::read_mask(c, density_path_, in_, grid, density, "density grid"); code != cli::kOk)
                return code;

        halden_stamp_parameters p{};
        p.width = static_cast<int32_t>(grid.width);
        p.height = static_cast<int32_t>(grid.height);
        p.seed = seed_;
        p.count = count_;
        p.spacing = spacing_;
        p.scale_min = scale_min_, p.scale_max = scale_max_;
        p.rotation_min = rotation_min_, p.rotation_max = rotation_max_;
        p.height_min = height_min_, p.height_max = height_max_;
        p.height_mode = absolute_ ? HALDEN_STAMP_ABSOLUTE : HALDEN_STAMP_RELATIVE;
        p.blend = blend_;
        p.opacity = opacity_;
        p.smoothness = smoothness_;
        p.falloff = falloff_;
        p.filter = bicubic_ ? HALDEN_STAMP_BICUBIC : HALDEN_STAMP_BILINEAR;
        p.slope_min = slope_min_, p.slope_max = slope_max_;
        p.elevation_min = elevation_min_, p.elevation_max = elevation_max_;
        const halden_stamps record{set.atlas.data(), set.atlas.size(), set.entries.data(),
                                   static_cast<uint32_t>(set.entries.size()), 0};
        std::vector<halden_stamp_instance> instances(count_);
        uint32_t placed = 0;
        Grid ids{grid.width, grid.height, {}, {}};
        if (!ids_path_.empty()) ids.cells.resize(grid.cells.size());

        if (const int code = cli::run_operation(
                c, "stamping", static_cast<double>(grid.cells.size()),
                [&](halden_queue* q, const halden_callbacks* callbacks) {
                    placed = 0;
                    return StampInstancer_Populate(
                        q, grid.cells.data(), &record, density.cells.empty() ? nullptr : density.cells.data(),
                        instances.data(), &placed, ids.cells.empty() ? nullptr : ids.cells.data(), &p, callbacks);
                });
            code != cli::kOk)
            return code;
        instances.resize(placed);

        cli::Outputs outputs(c);
        cli::mark_missing(grid, missing);
        if (const int code = outputs.grid(out_, grid, c.read.range); code != cli::kOk) return code;
        if (!ids_path_.empty())
            if (const int code = outputs.grid(ids_path_, ids, {}); code != cli::kOk) return code;
        // The instance list is staged beside the grids and moved into place after them.
        PendingOutputs listed;
        if (!instances_path_.empty() &&
            !stage_file(
                listed, instances_path_, [&](std::FILE* f) { return write_instances(f, instances); }, error))
            return cli::fail(cli::kIo, "%s; %s not written", error.c_str(), out_.c_str());
        if (const int code = outputs.commit(); code != cli::kOk) return code;
        if (!instances_path_.empty() && !listed.commit(error)) return cli::fail(cli::kIo, "%s", error.c_str());

        if (placed == 0 && !c.common.quiet)
            cli::warn("no copy was placed: the density and the slope and elevation limits kept no candidate");
        c.report(cli::JsonObject()
                     .add("operation", "stamp")
                     .add("device", c.key)
                     .add("width", grid.width)
                     .add("height", grid.height)
                     .add("stamps", set.entries.size())
                     .add("instances", placed)
                     .add("milliseconds", c.call.milliseconds),
                 cli::format("stamp %ux%u, %u cop%s of %zu stamp%s (%s) on %s: %.3f ms, %.1f Mcells/s", grid.width,
                             grid.height, placed, placed == 1 ? "y" : "ies", set.entries.size(),
                             set.entries.size() == 1 ? "" : "s", blend_name_.c_str(), c.key.c_str(),
                             c.call.milliseconds, c.call.rate));
        return cli::kOk;
    }

private:
    // A pair option as two finite numbers (or, with `infinite`, any but NaN)
    // in order; unchanged when not given.
    static int range(const cli::Option& option, const char* name, float& low, float& high, bool infinite) {
        if (!option.given()) return cli::kOk;
        const auto parse = [&](const std::string& text, float& v) {
            if (infinite && (text == "inf" || text == "-inf")) {
                v = text[0] == '-' ? -INFINITY : INFINITY;
                return true;
            }
            return cli::parse_finite(text, v);
        };
        float a = 0.0f, b = 0.0f;
        if (!parse(option.text(), a) || !parse(option.second(), b) || a > b)
            return cli::fail(cli::kUsage, "%s expects two numbers MIN MAX with MIN <= MAX%s, got '%s %s'", name,
                             infinite ? " (inf and -inf allowed)" : "", option.text().c_str(), option.second().c_str());
        low = a, high = b;
        return cli::kOk;
    }

    static bool write_instances(std::FILE* f, const std::vector<halden_stamp_instance>& instances) {
        std::fputs("[", f);
        for (size_t i = 0; i < instances.size(); ++i) {
            const halden_stamp_instance& in = instances[i];
            std::fprintf(f,
                         "%s\n  {\"x\": %.9g, \"y\": %.9g, \"scale\": %.9g, \"rotation\": %.9g, \"height\": %.9g, "
                         "\"stamp\": %u}",
                         i ? "," : "", in.x, in.y, in.scale, in.rotation, in.height, in.stamp);
        }
        std::fputs(instances.empty() ? "]\n" : "\n]\n", f);
        return std::ferror(f) == 0;
    }

    std::string in_, stamps_path_, out_, density_path_, ids_path_, instances_path_, blend_name_ = "max";
    uint32_t count_ = 100, seed_ = 1, tile_w_ = 0, tile_h_ = 0;
    float spacing_ = 0.0f, opacity_ = 1.0f, smoothness_ = 1.0f, falloff_ = 0.25f;
    float scale_min_ = 0.5f, scale_max_ = 2.0f, rotation_min_ = 0.0f, rotation_max_ = 360.0f;
    float height_min_ = 1.0f, height_max_ = 1.0f;
    float slope_min_ = -INFINITY, slope_max_ = INFINITY, elevation_min_ = -INFINITY, elevation_max_ = INFINITY;
    int32_t blend_ = HALDEN_STAMP_MAX;
    bool absolute_ = false, bicubic_ = false;
    const cli::Option* tile_ = nullptr;
    const cli::Option* scale_ = nullptr;
    const cli::Option* rotation_ = nullptr;
    const cli::Option* height_ = nullptr;
    const cli::Option* slope_ = nullptr;
    const cli::Option* elevation_ = nullptr;
};

}  // namespace

std::unique_ptr<cli::Command> commands::stamp() { return std::make_unique<StampCommand>(); }
