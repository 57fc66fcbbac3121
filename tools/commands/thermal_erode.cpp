// SPDX-License-Identifier: Apache-2.0
// halden thermal-erode: lets material on slopes steeper than the angle of
// repose slide down until the slopes settle.
#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"
#include "commands/runs.hpp"

namespace {

namespace defaults = commands::defaults;

class ThermalErodeCommand final : public cli::Command {
  public:
    void define(cli::Definition& d) override {
        d.description(
            "Weathers the height grid in IN on one device and writes it to OUT: material on\n"
            "slopes steeper than the angle of repose slides to lower neighbours until the\n"
            "slopes settle, on every level of a pyramid, coarse to fine. The borders are\n"
            "closed, so the total height is kept.\n");
        d.input("IN", in_);
        d.output("OUT", out_);
        d.text("--mask", mask_path_, "M",
               "a grid of IN's shape that scales the effect per cell: 0 keeps a cell, 1 weathers it fully (a "
               "PNG's samples span 0 to 1); a mask of another shape exits 2");
        d.text("--hardness", hardness_path_, "H",
               "a grid of IN's shape, 0 to 1, that slows the weathering per cell: a cell of hardness 1 sheds "
               "nothing (a PNG's samples span 0 to 1)");
        d.text("--deposition", deposition_path_, "FILE",
               "also write the thickness of loose material laid down on each cell, in height units");
        cell_size_option_ =
            &d.number("--cell-size", cell_size_, cli::Sign::kPositive, "S",
                      "world width of one cell, > 0 (default: from IN's georeference in metres, else 1, so one cell is "
                      "one height unit wide); larger cells mean gentler slopes, so less slides");
        extent_option_ = &d.number("--extent", extent_, cli::Sign::kPositive, "E",
                                   "world width of the whole grid, > 0: the cell size is E / the width in cells "
                                   "(not with --cell-size)");
        d.number("--height-scale", height_scale_, cli::Sign::kPositive, "S",
                 "world height of one height unit, > 0 (default 1)");
        d.number("--talus-angle", talus_angle_, cli::Interval{0.0f, false, 90.0f, false}, "DEG",
                 cli::format("angle of repose in degrees, above 0 and below 90 (default %g): steeper slopes shed "
                             "material",
                             defaults::kTalusAngle)
                     .c_str());
        d.number("--talus-noise", talus_noise_, cli::Interval{0.0f, true, 1.0f, true}, "N",
                 cli::format("0 to 1 (default %g): each cell's angle varies by up to this share of the way to 0 "
                             "or 90 degrees, so that settled slopes are not uniform",
                             defaults::kTalusNoise)
                     .c_str());
        d.number("--rate", rate_, cli::Interval{0.0f, false, 1.0f, true}, "R",
                 cli::format("share of the excess moved per iteration, above 0 and at most 1 (default %g)",
                             defaults::kThermalRate)
                     .c_str());
        d.whole("--iterations", iterations_, 0, 100000, "N",
                cli::format("iterations per pyramid level, 0 to 100000 (default %u)", defaults::kThermalIterations)
                    .c_str());
        d.whole("--levels", levels_, 0, 64, "N",
                cli::format("pyramid levels, 1 to 64, or 0 for as many as halve the shorter side down to at most "
                            "48 cells (default %u)",
                            defaults::kThermalLevels)
                    .c_str());
        d.number("--burial-scale", burial_scale_, cli::Sign::kPositive, "B",
                 cli::format("world height of moved material at which a finer level's relief is half restored "
                             "where it sticks out of what was laid on it, > 0 (default %g): larger keeps more "
                             "fine detail",
                             defaults::kBurialScale)
                     .c_str());
        d.number("--mask-strength", mask_strength_, cli::Interval{0.0f, true, 1.0f, true}, "M",
                 cli::format("0 to 1 (default %g): where the mask rises from a coarse level to the finer one, "
                             "that share of the loose material is released (only with --mask)",
                             defaults::kMaskStrength)
                     .c_str());
        d.whole("--seed", seed_, 0, UINT32_MAX, "S",
                cli::format("seed of the angle noise, 0 to 4294967295 (default %u)", defaults::kThermalSeed).c_str());
        d.check([this]() -> int {
            if (cell_size_option_->given() && extent_option_->given())
                return cli::fail(cli::kUsage, "give --cell-size or --extent, not both");
            return cli::kOk;
        });
        d.operation(R"({"operation", "device", "width", "height", "milliseconds", "timings"})");
        d.footer(
            "A progress bar shows on stderr while the iterations run. Ctrl-C cancels the run:\n"
            "no output is written and the exit code is 3 (a second Ctrl-C stops at once).\n"
            "Numbers must be finite and in plain decimal or exponent form. File formats and\n"
            "exit codes: see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        Grid grid;
        std::vector<size_t> missing;
        if (const int code = cli::read_heights(c, in_, grid, missing); code != cli::kOk) return code;
        if (!cli::int32_grid_ok(grid))
            return cli::fail(cli::kIo, "%s: thermal erosion takes at most 2^31 - 1 cells, this grid is %ux%u",
                             in_.c_str(), grid.width, grid.height);
        Grid mask, hardness;
        if (!mask_path_.empty())
            if (const int code = cli::read_mask(c, mask_path_, in_, grid, mask); code != cli::kOk) return code;
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

        halden_thermal_parameters parameters = commands::thermal_erosion_defaults(cell_size_, height_scale_);
        parameters.talus_angle = talus_angle_;
        parameters.talus_noise = talus_noise_;
        parameters.rate = rate_;
        parameters.iterations = static_cast<int32_t>(iterations_);
        parameters.levels = static_cast<int32_t>(levels_);
        parameters.burial_scale = burial_scale_;
        parameters.mask_strength = mask_strength_;
        parameters.seed = seed_;
        Grid deposition;
        if (const int code = cli::run_on_device(c, "thermal erosion",
                                                [&](halden_queue* q) {
                                                    return commands::run_thermal_erosion(
                                                        q, grid, mask.cells.empty() ? nullptr : mask.cells.data(),
                                                        hardness.cells.empty() ? nullptr : hardness.cells.data(),
                                                        deposition_path_.empty() ? nullptr : &deposition, parameters,
                                                        c.call);
                                                });
            code != cli::kOk)
            return code;

        cli::Outputs outputs(c);
        cli::mark_missing(grid, missing);
        if (const int code = outputs.grid(out_, grid, c.read.range); code != cli::kOk) return code;
        if (!deposition_path_.empty()) {
            cli::mark_missing(deposition, missing);
            if (const int code = outputs.grid(deposition_path_, deposition, {}); code != cli::kOk) return code;
        }
        if (const int code = outputs.commit(); code != cli::kOk) return code;

        c.report(cli::JsonObject()
                     .add("operation", "thermal-erode")
                     .add("device", c.key)
                     .add("width", grid.width)
                     .add("height", grid.height)
                     .add("milliseconds", c.call.milliseconds),
                 cli::format("thermal-erode %ux%u, talus %g degrees, %u iterations, cells %g wide on %s: %.3f ms, "
                             "%.1f Mcells/s",
                             grid.width, grid.height, talus_angle_, iterations_, cell_size_, c.key.c_str(),
                             c.call.milliseconds, c.call.rate));
        return cli::kOk;
    }

  private:
    std::string in_, out_, mask_path_, hardness_path_, deposition_path_;
    float cell_size_ = 1.0f, extent_ = 0.0f, height_scale_ = 1.0f;
    float talus_angle_ = defaults::kTalusAngle, talus_noise_ = defaults::kTalusNoise, rate_ = defaults::kThermalRate;
    uint32_t iterations_ = defaults::kThermalIterations, levels_ = defaults::kThermalLevels;
    float burial_scale_ = defaults::kBurialScale, mask_strength_ = defaults::kMaskStrength;
    uint32_t seed_ = defaults::kThermalSeed;
    const cli::Option* cell_size_option_ = nullptr;
    const cli::Option* extent_option_ = nullptr;
};

}  // namespace

std::unique_ptr<cli::Command> commands::thermal_erode() { return std::make_unique<ThermalErodeCommand>(); }
