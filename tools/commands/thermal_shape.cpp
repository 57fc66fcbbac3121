// SPDX-License-Identifier: Apache-2.0
// halden thermal-shape: wears down the ridges, or fills the valleys, of a
// height grid.
#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"
#include "commands/runs.hpp"

namespace {

class ThermalShapeCommand final : public cli::Command {
  public:
    void define(cli::Definition& d) override {
        d.description(
            "Reshapes the height grid in IN on one device and writes it to OUT: cells are\n"
            "lowered by slope and curvature on every level of a pyramid, coarse to fine, and\n"
            "the result is blended with the input.\n");
        d.input("IN", in_);
        d.output("OUT", out_);
        d.text("--mask", mask_path_, "M",
               "a grid of IN's shape that scales the lowering per cell: 0 keeps a cell, 1 shapes it fully (a "
               "PNG's samples span 0 to 1); a mask of another shape exits 2");
        d.number("--amount", amount_, cli::Sign::kAny, "A",
                 "lowering rate per pass (default -0.5): negative wears down ridges and peaks, zero or positive "
                 "widens and fills valleys");
        d.number("--strength", strength_, cli::Sign::kAny, "T",
                 "blend with the input: 0 returns IN, 1 the shaped field, past 1 exaggerates (default 1)");
        d.number("--height-scale", height_scale_, cli::Sign::kPositive, "S",
                 "world height of one height unit, > 0 (default 1); also lowers the pyramid depth");
        extent_option_ = &d.number(
            "--extent", extent_, cli::Sign::kPositive, "E",
            "world width of the whole grid, > 0 (default: from IN's georeference in metres, else the width in "
            "cells, so one cell is one height unit wide); larger values mean gentler slopes, so less is worn away");
        d.number("--level-factor", level_factor_, cli::Sign::kPositive, "F",
                 "scales the pyramid depth, > 0 (default 0.125: the coarsest level is about 16 cells wide)");
        d.operation(R"({"operation", "device", "width", "height", "milliseconds", "timings"})");
        d.footer(
            "Numbers must be finite and in plain decimal or exponent form. File formats and\n"
            "exit codes: see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        Grid grid;
        std::vector<size_t> missing;
        if (const int code = cli::read_heights(c, in_, grid, missing); code != cli::kOk) return code;
        if (!cli::int32_grid_ok(grid))
            return cli::fail(cli::kIo, "%s: the thermal shaper takes at most 2^31 - 1 cells, this grid is %ux%u",
                             in_.c_str(), grid.width, grid.height);
        Grid mask;
        if (!mask_path_.empty())
            if (const int code = cli::read_mask(c, mask_path_, in_, grid, mask); code != cli::kOk) return code;
        if (!extent_option_->given()) {
            const double metres = cli::world_width(grid);
            extent_ = static_cast<float>(metres > 0.0 ? metres : grid.width);
        }

        const halden_thermal_shaper_parameters parameters = {0,         0,       height_scale_, extent_,
                                                             level_factor_, strength_, amount_,       0};
        if (const int code = cli::run_on_device(c, "the thermal shaper",
                                                [&](halden_queue* q) {
                                                    return commands::run_thermal(
                                                        q, grid, mask.cells.empty() ? nullptr : mask.cells.data(),
                                                        parameters, c.call);
                                                });
            code != cli::kOk)
            return code;
        cli::mark_missing(grid, missing);
        if (const int code = cli::write_output(c, out_, grid, c.read.range); code != cli::kOk) return code;

        c.report(cli::JsonObject()
                     .add("operation", "thermal-shape")
                     .add("device", c.key)
                     .add("width", grid.width)
                     .add("height", grid.height)
                     .add("milliseconds", c.call.milliseconds),
                 cli::format("thermal-shape %ux%u, amount %g, strength %g, %g wide on %s: %.3f ms, %.1f Mcells/s",
                             grid.width, grid.height, amount_, strength_, extent_, c.key.c_str(),
                             c.call.milliseconds, c.call.rate));
        return cli::kOk;
    }

  private:
    std::string in_, out_, mask_path_;
    float amount_ = -0.5f, strength_ = 1.0f, height_scale_ = 1.0f, extent_ = 0.0f, level_factor_ = 0.125f;
    const cli::Option* extent_option_ = nullptr;
};

}  // namespace

std::unique_ptr<cli::Command> commands::thermal_shape() { return std::make_unique<ThermalShapeCommand>(); }
