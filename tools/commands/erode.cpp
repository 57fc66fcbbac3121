// SPDX-License-Identifier: Apache-2.0
// halden erode: wears a height grid down with water droplets that carry
// sediment downhill.
#include <utility>

#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"
#include "commands/runs.hpp"

namespace {

namespace defaults = commands::defaults;

class ErodeCommand final : public cli::Command {
  public:
    void define(cli::Definition& d) override {
        d.description(
            "Erodes the height grid in IN with water on one device and writes it to OUT:\n"
            "droplets run downhill with inertia, take up sediment where they can carry more,\n"
            "lay it down where they carry too much, and evaporate, in rounds on every level\n"
            "of a pyramid, coarse to fine. The same seed gives the same result on every\n"
            "device.\n");
        d.input("IN", in_);
        d.output("OUT", out_);
        d.text("--rain", rain_path_, "R",
               "a grid of IN's shape giving the chance, 0 to 1, that a droplet spawned on a cell runs (a PNG's "
               "samples span 0 to 1); default: rain everywhere");
        d.text("--hardness", hardness_path_, "H",
               "a grid of IN's shape, 0 to 1, that scales erosion per cell: ground of hardness 1 is never cut (a "
               "PNG's samples span 0 to 1)");
        d.text("--erosion", erosion_path_, "FILE", "also write the depth removed from each cell, in height units");
        d.text("--deposition", deposition_path_, "FILE",
               "also write the thickness of sediment laid down on each cell, in height units");
        d.text("--discharge", discharge_path_, "FILE",
               "also write where water ran: 0 where none did, towards 1 along rivers");
        cell_size_option_ =
            &d.number("--cell-size", cell_size_, cli::Sign::kPositive, "S",
                      "world width of one cell, > 0 (default: from IN's georeference in metres, else 1, so one cell is "
                      "one height unit wide)");
        extent_option_ = &d.number("--extent", extent_, cli::Sign::kPositive, "E",
                                   "world width of the whole grid, > 0: the cell size is E / the width in cells "
                                   "(not with --cell-size)");
        d.number("--height-scale", height_scale_, cli::Sign::kPositive, "S",
                 "world height of one height unit, > 0 (default 1)");
        d.number("--droplets", droplets_, cli::Interval{0.0f, false, 16.0f, true}, "N",
                 cli::format("droplets per cell per round, above 0 and at most 16 (default %g)", defaults::kDroplets)
                     .c_str());
        d.whole("--rounds", rounds_, 0, 100000, "N",
                cli::format("rounds per pyramid level, 0 to 100000 (default %u); each round's droplets run against "
                            "the heights as the round found them",
                            defaults::kRounds)
                    .c_str());
        lifetime_option_ = &d.number(
            "--lifetime", lifetime_, cli::Sign::kPositive, "L",
            cli::format("world length a droplet may run, > 0 (default %g x the cell size)", defaults::kLifetimeCells)
                .c_str());
        d.number("--inertia", inertia_, cli::Interval{0.0f, true, 1.0f, false}, "I",
                 cli::format("how much of its direction a droplet keeps, of at least 0 and below 1 (default %g)",
                             defaults::kInertia)
                     .c_str());
        d.number("--capacity", capacity_, cli::Sign::kNonNegative, "C",
                 cli::format("sediment a droplet can carry per unit of slope, speed and water, at least 0 "
                             "(default %g)",
                             defaults::kCapacity)
                     .c_str());
        d.number("--min-slope", min_slope_, cli::Sign::kNonNegative, "S",
                 cli::format("the slope the capacity never drops below, at least 0 (default %g)", defaults::kMinSlope)
                     .c_str());
        d.number(
            "--erosion-rate", erosion_rate_, cli::Interval{0.0f, true, 1.0f, true}, "R",
            cli::format("share of the free capacity taken up per step, 0 to 1 (default %g)", defaults::kErosionRate)
                .c_str());
        d.number(
            "--deposition-rate", deposition_rate_, cli::Interval{0.0f, true, 1.0f, true}, "R",
            cli::format("share of the excess load laid down per step, 0 to 1 (default %g)", defaults::kDepositionRate)
                .c_str());
        d.number("--evaporation", evaporation_, cli::Interval{0.0f, true, 1.0f, false}, "E",
                 cli::format("share of the water lost per step, of at least 0 and below 1 (default %g)",
                             defaults::kEvaporation)
                     .c_str());
        d.number("--gravity", gravity_, cli::Sign::kNonNegative, "G",
                 cli::format("speed gained per unit of drop, at least 0 (default %g)", defaults::kGravity).c_str());
        d.number("--brush-radius", brush_radius_, cli::Interval{0.0f, true, 8.0f, true}, "R",
                 cli::format("radius in cells over which a step's erosion is spread, 0 to 8 (default %g; 0: the "
                             "droplet's cell alone)",
                             defaults::kBrushRadius)
                     .c_str());
        d.whole("--flow-coupling", flow_coupling_, 0, 1, "0|1",
                cli::format("1: droplets lean towards the mean direction of the water of the round before, so "
                            "rivers form and persist; 0: they do not (default %u)",
                            defaults::kFlowCoupling)
                    .c_str());
        d.whole("--levels", levels_, 0, 64, "N",
                cli::format("pyramid levels, 1 to 64, or 0 for as many as halve the shorter side down to about 48 "
                            "cells (default %u)",
                            defaults::kErosionLevels)
                    .c_str());
        detail_scale_option_ =
            &d.number("--detail-scale", detail_scale_, cli::Sign::kPositive, "D",
                      cli::format("world depth of erosion at which a finer level keeps all of its own relief where it "
                                  "sticks out of the sediment; deeper erosion keeps less of it, > 0 (default %g x the "
                                  "height scale)",
                                  defaults::kDetailHeights)
                          .c_str());
        d.whole("--seed", seed_, 0, UINT32_MAX, "S",
                cli::format("seed of every random choice, 0 to 4294967295 (default %u); a seed gives the same "
                            "result on every device",
                            defaults::kErosionSeed)
                    .c_str());
        d.check([this]() -> int {
            if (cell_size_option_->given() && extent_option_->given())
                return cli::fail(cli::kUsage, "give --cell-size or --extent, not both");
            return cli::kOk;
        });
        d.operation(R"({"operation", "device", "width", "height", "milliseconds", "timings"})");
        d.footer(
            "A progress bar shows on stderr while the rounds run. Ctrl-C cancels the run: no\n"
            "output is written and the exit code is 3 (a second Ctrl-C stops at once).\n"
            "Numbers must be finite and in plain decimal or exponent form. File formats and\n"
            "exit codes: see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        Grid grid;
        std::vector<size_t> missing;
        if (const int code = cli::read_heights(c, in_, grid, missing); code != cli::kOk) return code;
        if (!cli::int32_grid_ok(grid))
            return cli::fail(cli::kIo, "%s: erosion takes at most 2^31 - 1 cells, this grid is %ux%u", in_.c_str(),
                             grid.width, grid.height);
        Grid rain, hardness;
        if (!rain_path_.empty())
            if (const int code = cli::read_mask(c, rain_path_, in_, grid, rain, "rain grid"); code != cli::kOk)
                return code;
        if (!hardness_path_.empty())
            if (const int code = cli::read_mask(c, hardness_path_, in_, grid, hardness, "hardness grid");
                code != cli::kOk)
                return code;
        if (extent_option_->given()) {
            cell_size_ = extent_ / static_cast<float>(grid.width);
        } else if (!cell_size_option_->given()) {
            const double metres = cli::cell_width(grid);
            cell_size_ = metres > 0.0 ? static_cast<float>(metres) : 1.0f;
        }

        // Starts from the defaults for this cell size and height scale
        // (lifetime, detail scale), then takes every option.
        halden_erosion_parameters parameters = commands::erosion_defaults(cell_size_, height_scale_);
        parameters.droplets = droplets_;
        parameters.rounds = static_cast<int32_t>(rounds_);
        if (lifetime_option_->given()) parameters.lifetime = lifetime_;
        parameters.inertia = inertia_;
        parameters.capacity = capacity_;
        parameters.min_slope = min_slope_;
        parameters.erosion_rate = erosion_rate_;
        parameters.deposition_rate = deposition_rate_;
        parameters.evaporation = evaporation_;
        parameters.gravity = gravity_;
        parameters.brush_radius = brush_radius_;
        parameters.flow_coupling = static_cast<int32_t>(flow_coupling_);
        parameters.levels = static_cast<int32_t>(levels_);
        if (detail_scale_option_->given()) parameters.detail_scale = detail_scale_;
        parameters.seed = seed_;

        Grid erosion, deposition, discharge;
        const commands::ErosionMaps maps{erosion_path_.empty() ? nullptr : &erosion,
                                         deposition_path_.empty() ? nullptr : &deposition,
                                         discharge_path_.empty() ? nullptr : &discharge};
        if (const int code = cli::run_on_device(c, "erosion",
                                                [&](halden_queue* q) {
                                                    return commands::run_erosion(
                                                        q, grid, rain.cells.empty() ? nullptr : rain.cells.data(),
                                                        hardness.cells.empty() ? nullptr : hardness.cells.data(), maps,
                                                        parameters, c.call);
                                                });
            code != cli::kOk)
            return code;

        cli::Outputs outputs(c);
        cli::mark_missing(grid, missing);
        if (const int code = outputs.grid(out_, grid, c.read.range); code != cli::kOk) return code;
        const std::pair<const std::string*, Grid*> extras[] = {
            {&erosion_path_, &erosion}, {&deposition_path_, &deposition}, {&discharge_path_, &discharge}};
        for (const auto& [path, map] : extras) {
            if (path->empty()) continue;
            cli::mark_missing(*map, missing);
            if (const int code = outputs.grid(*path, *map, {}); code != cli::kOk) return code;
        }
        if (const int code = outputs.commit(); code != cli::kOk) return code;

        c.report(cli::JsonObject()
                     .add("operation", "erode")
                     .add("device", c.key)
                     .add("width", grid.width)
                     .add("height", grid.height)
                     .add("milliseconds", c.call.milliseconds),
                 cli::format("erode %ux%u, %g droplets per cell, %u rounds, seed %u, cells %g wide on %s: %.3f ms, "
                             "%.1f Mcells/s",
                             grid.width, grid.height, droplets_, rounds_, seed_, cell_size_, c.key.c_str(),
                             c.call.milliseconds, c.call.rate));
        return cli::kOk;
    }

  private:
    std::string in_, out_, rain_path_, hardness_path_, erosion_path_, deposition_path_, discharge_path_;
    float cell_size_ = 1.0f, extent_ = 0.0f, height_scale_ = 1.0f;
    float droplets_ = defaults::kDroplets;
    uint32_t rounds_ = defaults::kRounds;
    float lifetime_ = 0.0f;  // default: defaults::kLifetimeCells x the cell size
    float inertia_ = defaults::kInertia, capacity_ = defaults::kCapacity, min_slope_ = defaults::kMinSlope;
    float erosion_rate_ = defaults::kErosionRate, deposition_rate_ = defaults::kDepositionRate;
    float evaporation_ = defaults::kEvaporation, gravity_ = defaults::kGravity;
    float brush_radius_ = defaults::kBrushRadius;
    uint32_t flow_coupling_ = defaults::kFlowCoupling, levels_ = defaults::kErosionLevels;
    float detail_scale_ = 0.0f;  // default: defaults::kDetailHeights x the height scale
    uint32_t seed_ = defaults::kErosionSeed;
    const cli::Option* cell_size_option_ = nullptr;
    const cli::Option* extent_option_ = nullptr;
    const cli::Option* lifetime_option_ = nullptr;
    const cli::Option* detail_scale_option_ = nullptr;
};

}  // namespace

std::unique_ptr<cli::Command> commands::erode() { return std::make_unique<ErodeCommand>(); }
