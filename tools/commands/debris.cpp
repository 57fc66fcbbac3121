// SPDX-License-Identifier: Apache-2.0
// halden debris: rocks break off the steep slopes of a height grid, fall,
// bounce and roll, and come to rest as scree and boulders.
#include <cstring>

#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"

namespace {

class DebrisCommand final : public cli::Command {
public:
    void define(cli::Definition& d) override {
        d.description(
            "Runs rock debris over the height grid in IN on one device and writes the terrain\n"
            "with the rocks laid on it to OUT: rocks break off cells steeper than the source\n"
            "slope, fall, bounce and roll down as point masses with friction, and come to\n"
            "rest on slopes gentler than the friction angle, as faceted or rounded rocks.\n"
            "No cell ends lower than it was.\n");
        d.input("IN", in_);
        d.output("OUT", out_);
        d.text("--sources", sources_path_, "S",
               "a grid of IN's shape, 0 to 1: each cell's weight as a source (default: every steep cell fully; a "
               "PNG's samples span 0 to 1)");
        d.text("--warp", warp_path_, "W",
               "a grid of IN's shape, -1 to 1, used instead of the built-in warp noise: below 0 fewer rocks break "
               "off, and it stretches (above 0) or shrinks the rocks' outlines, by 1 / (1 - 0.3 W) (a PNG's samples "
               "span 0 to 1)");
        d.text("--debris", debris_path_, "FILE", "also write the thickness of rock laid on each cell, in height units");
        d.text("--ids", ids_path_, "FILE", "also write which rock tops each cell (its id), -1 where none does");
        cell_size_option_ =
            &d.number("--cell-size", cell_size_, cli::Sign::kPositive, "S",
                      "world width of one cell, > 0 (default: from IN's georeference in metres, else 1)");
        d.number("--height-scale", height_scale_, cli::Sign::kPositive, "S",
                 "world height of one height unit, > 0 (default 1)");
        d.number("--density", density_, cli::Interval{0.0f, true, 16.0f, true}, "D",
                 "expected rocks per source cell, 0 to 16 (default 0.5)");
        size_min_option_ = &d.number("--size-min", size_min_, cli::Sign::kPositive, "R",
                                     "smallest rock radius in world units, > 0 (default half a cell)");
        size_max_option_ = &d.number("--size-max", size_max_, cli::Sign::kPositive, "R",
                                     "largest rock radius in world units, at least --size-min and at most 64 cells "
                                     "(default 3 cells)");
        d.number("--size-exponent", size_exponent_, cli::Interval{0.0f, true, 8.0f, true}, "A",
                 "radii follow a power law r^-A, 0 (uniform) to 8 (default 2.5): larger gives more scree and "
                 "fewer boulders");
        d.number("--source-slope", source_slope_, cli::Interval{0.0f, false, 90.0f, false}, "DEG",
                 "steeper cells shed rocks, above 0 and below 90 degrees (default 40)");
        d.number("--friction-angle", friction_angle_, cli::Interval{0.0f, false, 90.0f, false}, "DEG",
                 "rolling friction and the steepest slope a rock rests on, above 0 and below 90 degrees (default "
                 "32)");
        d.number("--restitution", restitution_, cli::Interval{0.0f, true, 1.0f, false}, "E",
                 "share of the normal speed kept in a bounce, at least 0 and below 1 (default 0.3)");
        d.whole("--max-steps", max_steps_, 1, 100000, "N", "time steps a rock may take, 1 to 100000 (default 4000)");
        d.text("--mode", mode_, "MODE",
               "async (default: rocks fall in batches, later ones piling on earlier ones) or sync (every rock on "
               "the input terrain)");
        d.whole("--batches", batches_, 1, 1024, "N", "batches of an async run, 1 to 1024 (default 8)");
        d.text("--shape", shape_, "SHAPE", "sharp (default: faceted rocks) or rounded (superellipsoid caps)");
        d.whole("--facets", facets_, 4, 32, "N", "planes of a sharp rock, 4 to 32 (default 7)");
        d.number("--roundness", roundness_, cli::Interval{0.0f, true, 1.0f, true}, "R",
                 "rounded rocks from boxy (0) to ellipsoidal (1) (default 0.5)");
        d.number("--embedding", embedding_, cli::Interval{0.0f, true, 1.0f, false}, "E",
                 "share of a rock's height below the ground, at least 0 and below 1 (default 0.4)");
        d.number("--warp-amplitude", warp_amplitude_, cli::Interval{0.0f, true, 10000.0f, true}, "A",
                 "cells the warp noise's domain is displaced by, 0 to 10000 (default 8)");
        d.number("--warp-frequency", warp_frequency_, cli::Interval{0.0f, false, 1.0f, true}, "F",
                 "warp noise features per cell, above 0 and at most 1 (default 0.02)");
        d.whole("--seed", seed_, 0, UINT32_MAX, "S", "seed of every random choice (default 1)");
        d.check([this]() -> int {
            if (mode_ != "async" && mode_ != "sync")
                return cli::fail(cli::kUsage, "--mode expects sync or async, got '%s'", mode_.c_str());
            if (shape_ != "sharp" && shape_ != "rounded")
                return cli::fail(cli::kUsage, "--shape expects sharp or rounded, got '%s'", shape_.c_str());
            return cli::kOk;
        });
        d.operation(R"({"operation", "device", "width", "height", "milliseconds", "timings"})");
        d.footer(
            "A record the library refuses (rocks wider than 64 cells, --size-max below\n"
            "--size-min) exits 3 with its reason. Numbers must be finite and in plain decimal\n"
            "or exponent form. File formats and exit codes: see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        Grid grid;
        std::vector<size_t> missing;
        if (const int code = cli::read_heights(c, in_, grid, missing); code != cli::kOk) return code;
        if (!cli::int32_grid_ok(grid))
            return cli::fail(cli::kIo, "%s: the debris simulation takes at most 2^31 - 1 cells, this grid is %ux%u",
                             in_.c_str(), grid.width, grid.height);
        Grid sources, warp;
        if (!sources_path_.empty())
            if (const int code = cli::read_mask(c, sources_path_, in_, grid, sources, "sources grid"); code != cli::kOk)
                return code;
        if (!warp_path_.empty())
            if (const int code = cli::read_mask(c, warp_path_, in_, grid, warp, "warp grid"); code != cli::kOk)
                return code;
        if (!cell_size_option_->given()) {
            const double metres = cli::cell_width(grid);
            cell_size_ = metres > 0.0 ? static_cast<float>(metres) : 1.0f;
        }
        halden_debris_parameters p{};
        p.width = static_cast<int32_t>(grid.width);
        p.height = static_cast<int32_t>(grid.height);
        p.cell_size = cell_size_;
        p.height_scale = height_scale_;
        p.seed = seed_;
        p.density = density_;
        p.size_min = size_min_option_->given() ? size_min_ : 0.5f * cell_size_;
        p.size_max = size_max_option_->given() ? size_max_ : 3.0f * cell_size_;
        p.size_exponent = size_exponent_;
        p.source_slope = source_slope_;
        p.friction_angle = friction_angle_;
        p.restitution = restitution_;
        p.max_steps = static_cast<int32_t>(max_steps_);
        p.mode = mode_ == "sync" ? HALDEN_DEBRIS_SYNCHRONOUS : HALDEN_DEBRIS_ASYNCHRONOUS;
        p.batches = static_cast<int32_t>(batches_);
        p.shape = shape_ == "rounded" ? HALDEN_DEBRIS_ROUNDED : HALDEN_DEBRIS_SHARP;
        p.facets = static_cast<int32_t>(facets_);
        p.roundness = roundness_;
        p.embedding = embedding_;
        p.warp_amplitude = warp_amplitude_;
        p.warp_frequency = warp_frequency_;

        Grid thickness, ids;
        for (Grid* g : {&thickness, &ids}) {
            g->width = grid.width;
            g->height = grid.height;
        }
        if (!debris_path_.empty()) thickness.cells.assign(grid.cells.size(), 0.0f);
        if (!ids_path_.empty()) ids.cells.assign(grid.cells.size(), -1.0f);
        const auto data = [](Grid& g) { return g.cells.empty() ? nullptr : g.cells.data(); };
        if (const int code =
                cli::run_on_device(c, "the debris simulation",
                                   [&](halden_queue* q) {
                                       return cli::timed(static_cast<double>(grid.cells.size()), c.call, [&] {
                                           DebrisSimulation(q, grid.cells.data(), data(sources), data(thickness),
                                                            data(ids), data(warp), &p);
                                           return HALDEN_STATUS_OK;
                                       });
                                   });
            code != cli::kOk)
            return code;

        cli::Outputs outputs(c);
        cli::mark_missing(grid, missing);
        if (const int code = outputs.grid(out_, grid, c.read.range); code != cli::kOk) return code;
        if (!debris_path_.empty()) {
            cli::mark_missing(thickness, missing);
            if (const int code = outputs.grid(debris_path_, thickness, {}); code != cli::kOk) return code;
        }
        if (!ids_path_.empty())
            if (const int code = outputs.grid(ids_path_, ids, {}); code != cli::kOk) return code;
        if (const int code = outputs.commit(); code != cli::kOk) return code;

        c.report(cli::JsonObject()
                     .add("operation", "debris")
                     .add("device", c.key)
                     .add("width", grid.width)
                     .add("height", grid.height)
                     .add("milliseconds", c.call.milliseconds),
                 cli::format("debris %ux%u, %s %s rocks, source slope %g, friction angle %g degrees on %s: %.3f ms, "
                             "%.1f Mcells/s",
                             grid.width, grid.height, mode_.c_str(), shape_.c_str(), source_slope_, friction_angle_,
                             c.key.c_str(), c.call.milliseconds, c.call.rate));
        return cli::kOk;
    }

private:
    std::string in_, out_, sources_path_, warp_path_, debris_path_, ids_path_;
    std::string mode_ = "async", shape_ = "sharp";
    float cell_size_ = 1.0f, height_scale_ = 1.0f, density_ = 0.5f, size_min_ = 0.5f, size_max_ = 3.0f;
    float size_exponent_ = 2.5f, source_slope_ = 40.0f, friction_angle_ = 32.0f, restitution_ = 0.3f;
    float roundness_ = 0.5f, embedding_ = 0.4f, warp_amplitude_ = 8.0f, warp_frequency_ = 0.02f;
    uint32_t max_steps_ = 4000, batches_ = 8, facets_ = 7, seed_ = 1;
    const cli::Option* cell_size_option_ = nullptr;
    const cli::Option* size_min_option_ = nullptr;
    const cli::Option* size_max_option_ = nullptr;
};

}  // namespace

std::unique_ptr<cli::Command> commands::debris() { return std::make_unique<DebrisCommand>(); }
