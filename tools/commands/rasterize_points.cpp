// SPDX-License-Identifier: Apache-2.0
// halden rasterize-points: grids a point cloud (lidar, photogrammetry) into
// a height grid.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"
#include "formats/points.hpp"

namespace {

constexpr const char* kModes[] = {"max", "min", "mean", "idw", "nearest", "count", "stdev"};
constexpr const char* kFills[] = {"none", "pull-push", "inner"};

template <size_t N>
int index_of(const char* const (&names)[N], const std::string& name) {
    for (size_t i = 0; i < N; ++i)
        if (name == names[i]) return static_cast<int>(i);
    return -1;
}

class RasterizePointsCommand final : public cli::Command {
public:
    void define(cli::Definition& d) override {
        d.description(
            "Grids the points of POINTS into a W x H float32 height grid on one device and\n"
            "writes it to OUT: every cell takes the --mode value of the points that fall into\n"
            "it (or, with --radius, lie within R cells of its centre), and cells without\n"
            "points get --empty, unless --fill interpolates them. The points are fitted into\n"
            "the grid as 'halden rasterize' fits a mesh: the x/y bounding box is scaled by\n"
            "one factor, the largest that keeps it inside, with its smallest x on the first\n"
            "column and its largest y on the first row (y points up the picture); heights\n"
            "are z times the same factor. The result does not depend on the order of the\n"
            "points.\n"
            "\n"
            "POINTS: .npy (N x 3, float32 or float64), PLY (ascii or binary little-endian,\n"
            "the vertices' x y z), LAS 1.2 to 1.4 (uncompressed; LAZ must be decompressed\n"
            "first), or text (.xyz, .txt, .csv: x y z per line separated by blanks or\n"
            "commas, further columns ignored, '#' comments, one header line allowed).\n");
        d.input("POINTS", in_);
        d.output("OUT", out_);
        const cli::Option& size =
            d.pair("--size", "W H", "width and height of the grid in cells, 1 to 16384 each", true);
        d.text("--mode", mode_, "NAME",
               "what a cell takes from its points: max, min, mean, idw (inverse-distance weighted), nearest (to "
               "the cell's centre), count or stdev (default mean)");
        d.number("--radius", radius_, cli::Interval{0.0f, true, 256.0f, true}, "R",
                 "gather the points within R cells of each cell's centre, 0 to 256; 0 (default): the points inside "
                 "the cell");
        d.number("--power", power_, cli::Interval{0.0f, false, 16.0f, true}, "P",
                 "the idw exponent: weights 1 / distance^P, above 0 and at most 16 (default 2)");
        d.text("--fill", fill_, "NAME",
               "fill cells without points: none (default), pull-push, or inner (pull-push, only holes enclosed by "
               "data)");
        d.number("--max-fill", max_fill_, cli::Sign::kNonNegative, "D",
                 "fill only cells within D cells of a cell with points (default 0: no limit)");
        d.text("--empty", empty_text_, "V", "the value of cells left without data (default nan)");
        d.text("--counts", counts_path_, "FILE", "also write the number of points each cell's value used");
        d.check([this, &size]() -> int {
            uint64_t width = 0, height = 0;
            if (!cli::parse_whole(size.text(), 1, 16384, width) || !cli::parse_whole(size.second(), 1, 16384, height))
                return cli::fail(cli::kUsage, "--size expects two whole numbers from 1 to 16384, got '%s %s'",
                                 size.text().c_str(), size.second().c_str());
            width_ = static_cast<uint32_t>(width);
            height_ = static_cast<uint32_t>(height);
            if (index_of(kModes, mode_) < 0)
                return cli::fail(cli::kUsage, "--mode expects max, min, mean, idw, nearest, count or stdev, got '%s'",
                                 mode_.c_str());
            if (index_of(kFills, fill_) < 0)
                return cli::fail(cli::kUsage, "--fill expects none, pull-push or inner, got '%s'", fill_.c_str());
            if (empty_text_ == "nan" || empty_text_ == "NaN") {
                empty_ = NAN;
            } else if (!cli::parse_finite(empty_text_, empty_)) {
                return cli::fail(cli::kUsage, "--empty expects a finite number or nan, got '%s'", empty_text_.c_str());
            }
            return cli::kOk;
        });
        d.operation(R"({"operation", "device", "width", "height", "points", "inside", "filled", "milliseconds", )"
                    R"("timings"})",
                    cli::Definition::Grids::kWrite);
        d.footer(
            "The summary line counts the points inside the grid and the cells that got a\n"
            "value. File formats and exit codes: see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        PointData data;
        std::string error;
        const bool read = cli::add_time(c.timings.read, [&] { return read_points(in_, data, error); });
        if (!read) return cli::fail(cli::kIo, "%s", error.c_str());
        if (data.count() == 0) return cli::fail(cli::kIo, "%s: no points", in_.c_str());
        if (data.count() > UINT32_MAX)
            return cli::fail(cli::kIo, "%s: %zu points, more than the 2^32 - 1 a call may take", in_.c_str(),
                             data.count());
        double x0 = INFINITY, x1 = -INFINITY, y0 = INFINITY, y1 = -INFINITY;
        for (size_t i = 0; i < data.xyz.size(); i += 3) {
            if (!std::isfinite(data.xyz[i]) || !std::isfinite(data.xyz[i + 1]) || !std::isfinite(data.xyz[i + 2]))
                return cli::fail(cli::kIo, "%s: point %zu has a non-finite coordinate", in_.c_str(), i / 3);
            x0 = std::min(x0, data.xyz[i]);
            x1 = std::max(x1, data.xyz[i]);
            y0 = std::min(y0, data.xyz[i + 1]);
            y1 = std::max(y1, data.xyz[i + 1]);
        }
        const double span_x = x1 - x0, span_y = y1 - y0;
        // Points on the far edges would land exactly on the grid's end,
        // outside its last cells: fit into a hair less.
        const double scale = cli::fit_scale(span_x, span_y, width_, height_) * (1.0 - 0x1p-20);
        if (!std::isfinite(static_cast<float>(scale)))
            return cli::fail(cli::kIo, "%s: the points span %g x %g, too little to scale to %ux%u cells in float32",
                             in_.c_str(), span_x, span_y, width_, height_);
        // Moved to the origin in double (a mapped cloud's coordinates lose
        // their centimetres in float), with y turned to run down the rows.
        std::vector<float> xyz(data.xyz.size());
        for (size_t i = 0; i < data.xyz.size(); i += 3) {
            xyz[i] = static_cast<float>(data.xyz[i] - x0);
            xyz[i + 1] = static_cast<float>(y1 - data.xyz[i + 1]);
            xyz[i + 2] = static_cast<float>(data.xyz[i + 2]);
        }
        data.xyz = {};

        halden_point_parameters parameters{};
        parameters.transform.width = static_cast<int32_t>(width_);
        parameters.transform.height = static_cast<int32_t>(height_);
        parameters.transform.scale = static_cast<float>(scale);
        parameters.transform.depth_divisor = 1.0f;
        parameters.mode = index_of(kModes, mode_);
        parameters.fill = index_of(kFills, fill_);
        parameters.radius = radius_;
        parameters.power = power_;
        parameters.max_fill = max_fill_;
        parameters.empty = empty_;
        const halden_points record = {xyz.data(), static_cast<uint32_t>(xyz.size() / 3), 0};

        Grid heights{width_, height_, std::vector<float>(size_t{width_} * height_), {}};
        Grid counts{width_, height_, std::vector<float>(heights.cells.size()), {}};
        if (const int code = cli::run_operation(c, "gridding points", static_cast<double>(record.count),
                                                [&](halden_queue* q, const halden_callbacks* callbacks) {
                                                    return MeshRasterizer_RenderPointCloud(
                                                        q, &record, heights.cells.data(), counts.cells.data(),
                                                        &parameters, callbacks);
                                                });
            code != cli::kOk)
            return code;
        cli::Outputs outputs(c);
        if (const int code = outputs.grid(out_, heights, c.read.range); code != cli::kOk) return code;
        if (!counts_path_.empty())
            if (const int code = outputs.grid(counts_path_, counts, {}); code != cli::kOk) return code;
        if (const int code = outputs.commit(); code != cli::kOk) return code;

        // Points inside the grid: every one is counted once with radius 0.
        size_t inside = 0, valued = 0;
        for (size_t i = 0; i < xyz.size(); i += 3) {
            const float x = xyz[i] * parameters.transform.scale, y = xyz[i + 1] * parameters.transform.scale;
            if (x >= 0.0f && y >= 0.0f && x < float(width_) && y < float(height_)) ++inside;
        }
        for (size_t i = 0; i < heights.cells.size(); ++i)
            if (parameters.mode == 5 ? counts.cells[i] > 0.0f
                                     : !(std::isnan(heights.cells[i]) || heights.cells[i] == empty_))
                ++valued;
        c.report(cli::JsonObject()
                     .add("operation", "rasterize-points")
                     .add("device", c.key)
                     .add("width", width_)
                     .add("height", height_)
                     .add("points", xyz.size() / 3)
                     .add("inside", inside)
                     .add("filled", valued)
                     .add("milliseconds", c.call.milliseconds),
                 cli::format("rasterize-points %s: %zu point%s (%zu inside) into %ux%u (%s, radius %g, fill %s) on "
                             "%s: %.3f ms, %.1f Mpoints/s, %zu of %zu cells with a value",
                             in_.c_str(), xyz.size() / 3, xyz.size() == 3 ? "" : "s", inside, width_, height_,
                             mode_.c_str(), double(radius_), fill_.c_str(), c.key.c_str(), c.call.milliseconds,
                             c.call.rate, valued, heights.cells.size()));
        return cli::kOk;
    }

private:
    std::string in_, out_, counts_path_, mode_ = "mean", fill_ = "none", empty_text_ = "nan";
    uint32_t width_ = 0, height_ = 0;
    float radius_ = 0.0f, power_ = 2.0f, max_fill_ = 0.0f, empty_ = NAN;
};

}  // namespace

std::unique_ptr<cli::Command> commands::rasterize_points() { return std::make_unique<RasterizePointsCommand>(); }
