// SPDX-License-Identifier: Apache-2.0
// halden cellular: renders 3-D cellular noise on a slice, flat or following
// a height grid, into a grid.
#include <cmath>
#include <cstring>

#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"

namespace {

// The names the options take, in the order of the library's enums.
constexpr const char* kMetrics[] = {"euclidean", "squared", "manhattan", "chebyshev", "minkowski"};
constexpr const char* kResults[] = {"f1", "f2", "f2-f1", "f1*f2", "cell", "edge", "smooth"};

template <size_t N>
int index_of(const char* const (&names)[N], const std::string& name) {
    for (size_t i = 0; i < N; ++i)
        if (name == names[i]) return static_cast<int>(i);
    return -1;
}

class CellularCommand final : public cli::Command {
public:
    void define(cli::Definition& d) override {
        d.description(
            "Renders 3-D cellular noise into a W x H float32 grid on one device and writes it\n"
            "to OUT: one feature point scattered in each cell of a 3-D lattice, and per grid\n"
            "cell a function of the distances to the nearest features, in lattice units.\n"
            "The slice is flat (every cell at --z) or follows a height grid (--z-grid), so\n"
            "that the cells wrap over the terrain like rock strata. Octaves add finer\n"
            "layers. The same options give the same bits on every device.\n");
        d.output("OUT", out_);
        size_ = &d.pair("--size", "W H", "width and height of the grid in cells (default: the --z-grid's shape)");
        d.text("--z-grid", z_path_, "FILE",
               "a height grid that gives each cell its third coordinate, in height units (a PNG's samples span 0 "
               "to 1); missing cells take the lowest height");
        d.number("--z", z_, cli::Sign::kAny, "Z", "the third coordinate of every cell without --z-grid (default 0)");
        d.number("--z-scale", z_scale_, cli::Sign::kAny, "S",
                 "grid cells per unit of z (default 1: heights in cells); 0 gives a flat slice");
        d.number("--frequency", frequency_, cli::Sign::kPositive, "F",
                 "features across the grid's width in the first octave, > 0 (default 16)");
        d.whole("--seed", seed_, 0, UINT32_MAX, "S", "seed of the feature points (default 1)");
        d.number("--jitter", jitter_, cli::Interval{0.0f, true, 1.0f, true}, "J",
                 "0 to 1 (default 1): how far features stray from their lattice cells' centres; 0 is a regular "
                 "lattice");
        d.text("--metric", metric_, "NAME",
               "euclidean (default), squared, manhattan, chebyshev or minkowski (with --exponent)");
        d.number("--exponent", exponent_, cli::Interval{1.0f, true, 64.0f, true}, "E",
                 "the Minkowski exponent, 1 to 64 (default 3)");
        d.text("--result", result_, "NAME",
               "f1 (default: distance to the nearest feature), f2 (to the second nearest), f2-f1 (cracks), f1*f2, "
               "cell (a value in [0, 1) per cell: flat stones), edge (distance to the nearest cell border, "
               "euclidean only) or smooth (f1 with rounded creases, see --smoothness)");
        d.number("--smoothness", smoothness_, cli::Interval{1e-6f, true, 0.125f, true}, "S",
                 "rounding width of the smooth result in lattice units, 1e-6 to 0.125 (default 0.05)");
        d.whole("--octaves", octaves_, 1, 16, "N", "octaves summed, 1 to 16 (default 1)");
        d.number("--lacunarity", lacunarity_, cli::Interval{0.0f, false, 16.0f, true}, "L",
                 "frequency factor from one octave to the next, above 0 and at most 16 (default 2; a whole number "
                 "with --period)");
        d.number("--gain", gain_, cli::Interval{-16.0f, true, 16.0f, true}, "G",
                 "amplitude factor from one octave to the next, -16 to 16 (default 0.5)");
        d.whole("--period", period_, 0, 1u << 24, "P",
                "tile every P features along x and y, so the grid repeats every P x W / F cells, which must be a "
                "whole number (default 0: no tiling)");
        d.number("--scale", scale_, cli::Sign::kAny, "S", "factor of the result (default 1)");
        d.number("--offset", offset_, cli::Sign::kAny, "O", "added to the result last (default 0)");
        d.check([this]() -> int {
            if (size_->given()) {
                uint64_t width = 0, height = 0;
                if (!cli::parse_whole(size_->text(), 1, INT32_MAX, width) ||
                    !cli::parse_whole(size_->second(), 1, INT32_MAX, height))
                    return cli::fail(cli::kUsage, "--size expects two whole numbers from 1 to %d, got '%s %s'",
                                     INT32_MAX, size_->text().c_str(), size_->second().c_str());
                width_ = static_cast<uint32_t>(width);
                height_ = static_cast<uint32_t>(height);
            } else if (z_path_.empty()) {
                return cli::fail(cli::kUsage, "give --size W H, or --z-grid FILE for the size");
            }
            if (index_of(kMetrics, metric_) < 0)
                return cli::fail(cli::kUsage,
                                 "--metric expects euclidean, squared, manhattan, chebyshev or minkowski, got '%s'",
                                 metric_.c_str());
            if (index_of(kResults, result_) < 0)
                return cli::fail(cli::kUsage, "--result expects f1, f2, f2-f1, f1*f2, cell, edge or smooth, got '%s'",
                                 result_.c_str());
            if (result_ == "edge" && metric_ != "euclidean")
                return cli::fail(cli::kUsage, "--result edge measures in the euclidean metric only, got --metric %s",
                                 metric_.c_str());
            return cli::kOk;
        });
        d.operation(R"({"operation", "device", "width", "height", "milliseconds", "timings"})",
                    cli::Definition::Grids::kWrite);
        d.footer(
            "The grid may hold at most 2^31 - 1 cells. A record the library refuses (a period\n"
            "that does not make whole tiles, a slice reaching too far) exits 3 with its\n"
            "reason. Numbers must be finite and in plain decimal or exponent form. File\n"
            "formats and exit codes: see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        Grid z;
        if (!z_path_.empty()) {
            const int code = cli::add_time(c.timings.read, [&] {
                std::string error, said;
                ReadOptions options;
                options.width = width_;
                options.range = std::make_pair(0.0f, 1.0f);
                if (!read_grid(z_path_, options, z, error, said)) return cli::fail(cli::kIo, "%s", error.c_str());
                if (size_->given() && (z.width != width_ || z.height != height_))
                    return cli::fail(cli::kIo, "%s: the z grid is %ux%u, but --size is %ux%u", z_path_.c_str(), z.width,
                                     z.height, width_, height_);
                bool all = false;
                cli::fill_missing(z, all);
                if (all) return cli::fail(cli::kIo, "%s: no cell has a height", z_path_.c_str());
                return static_cast<int>(cli::kOk);
            });
            if (code != cli::kOk) return code;
            width_ = z.width;
            height_ = z.height;
        }
        Grid grid{width_, height_, {}, z.georeference};
        if (!cli::int32_grid_ok(grid))
            return cli::fail(cli::kIo, "cellular noise takes at most 2^31 - 1 cells, this grid is %ux%u", width_,
                             height_);
        grid.cells.resize(size_t{width_} * height_);

        const halden_cellular3d_parameters parameters = {static_cast<int32_t>(width_),
                                                         static_cast<int32_t>(height_),
                                                         frequency_,
                                                         z_,
                                                         z_scale_,
                                                         seed_,
                                                         jitter_,
                                                         index_of(kMetrics, metric_),
                                                         exponent_,
                                                         index_of(kResults, result_),
                                                         smoothness_,
                                                         static_cast<int32_t>(octaves_),
                                                         lacunarity_,
                                                         gain_,
                                                         static_cast<int32_t>(period_),
                                                         scale_,
                                                         offset_,
                                                         0};
        if (const int code = cli::run_operation(c, "cellular noise", static_cast<double>(grid.cells.size()),
                                                [&](halden_queue* q, const halden_callbacks* callbacks) {
                                                    return Cellular3D_Render(q, grid.cells.data(),
                                                                             z.cells.empty() ? nullptr : z.cells.data(),
                                                                             &parameters, callbacks);
                                                });
            code != cli::kOk)
            return code;
        if (const int code = cli::write_output(c, out_, grid, c.read.range); code != cli::kOk) return code;

        c.report(
            cli::JsonObject()
                .add("operation", "cellular")
                .add("device", c.key)
                .add("width", width_)
                .add("height", height_)
                .add("milliseconds", c.call.milliseconds),
            cli::format("cellular %ux%u, %s %s, frequency %g, %u octave%s%s on %s: %.3f ms, %.1f Mcells/s", width_,
                        height_, result_.c_str(), metric_.c_str(), frequency_, octaves_, octaves_ == 1 ? "" : "s",
                        z_path_.empty() ? "" : " over the z grid", c.key.c_str(), c.call.milliseconds, c.call.rate));
        return cli::kOk;
    }

private:
    std::string out_, z_path_, metric_ = "euclidean", result_ = "f1";
    const cli::Option* size_ = nullptr;
    uint32_t width_ = 0, height_ = 0, seed_ = 1, octaves_ = 1, period_ = 0;
    float z_ = 0.0f, z_scale_ = 1.0f, frequency_ = 16.0f, jitter_ = 1.0f, exponent_ = 3.0f, smoothness_ = 0.05f;
    float lacunarity_ = 2.0f, gain_ = 0.5f, scale_ = 1.0f, offset_ = 0.0f;
};

}  // namespace

std::unique_ptr<cli::Command> commands::cellular() { return std::make_unique<CellularCommand>(); }
