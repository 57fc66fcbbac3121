// SPDX-License-Identifier: Apache-2.0
// halden dunes: blows the sand lying on a bedrock into dunes.
#include <cmath>

#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"

namespace {

class DunesCommand final : public cli::Command {
public:
    void define(cli::Definition& d) override {
        d.description(
            "Blows the sand of SAND_IN (thickness per cell, in height units) lying on the\n"
            "square bedrock grid BEDROCK into dunes, on one device, and writes the new sand\n"
            "thickness to SAND_OUT. Sand is lifted where the wind is exposed, hops downwind,\n"
            "settles in the lee of crests and slides where it is steeper than its angle of\n"
            "repose; the bedrock is not changed. Add SAND_OUT to BEDROCK for the surface.\n");
        d.input("BEDROCK", bedrock_path_);
        d.input("SAND_IN", sand_path_);
        d.output("SAND_OUT", out_);
        d.text("--vegetation", vegetation_path_, "V",
               "a grid of BEDROCK's shape, 0 to 1, of plant cover that holds sand: cover 1 loses none (a PNG's "
               "samples span 0 to 1)");
        d.number("--cell-size", p_.cell_size, cli::Sign::kPositive, "S", "world width of one cell, > 0 (default 1)");
        d.number("--height-scale", p_.height_scale, cli::Sign::kPositive, "S",
                 "world height of one height unit, > 0 (default 1)");
        d.number("--wind-direction", p_.wind_direction, cli::Sign::kAny, "DEG",
                 "where the wind blows to, in degrees from +x (along a row) towards +y (down the rows); default 0");
        d.number("--wind-speed", p_.wind_speed, cli::Interval{0.0f, true, 8.0f, true}, "V",
                 "relative wind speed, 0 to 8 (default 1)");
        d.number("--second-wind-direction", p_.second_wind_direction, cli::Sign::kAny, "DEG",
                 "direction of a second wind (default 90)");
        d.number("--second-wind-speed", p_.second_wind_speed, cli::Interval{0.0f, true, 8.0f, true}, "V",
                 "speed of the second wind, 0 to 8 (default 1)");
        d.number("--second-wind-share", p_.second_wind_share, cli::Interval{0.0f, true, 1.0f, true}, "F",
                 "share of the iterations the second wind blows, 0 to 1 (default 0: one wind)");
        d.whole("--iterations", iterations_, 0, 100000, "N", "iterations, 0 to 100000 (default 200)");
        d.number("--slab", p_.slab, cli::Interval{0.0f, true, 1048576.0f, true}, "H",
                 "sand lifted per iteration from an exposed cell at speed 1, in height units (default 0.1)");
        d.number("--hop-length", p_.hop_length, cli::Interval{0.0f, false, 64.0f, true}, "L",
                 "cells a grain hops at speed 1, above 0 and at most 64 (default 3)");
        d.number("--speed-up", p_.speed_up, cli::Interval{0.0f, true, 16.0f, true}, "K",
                 "the wind's gain per cell width of height above the blurred terrain, 0 to 16 (default 0.2)");
        d.number("--warp", p_.warp_strength, cli::Interval{0.0f, true, 1.0f, true}, "W",
                 "0 to 1: how much the wind turns around large dunes (default 0.5)");
        d.number("--shadow-min", p_.shadow_angle_min, cli::Interval{0.0f, false, 90.0f, false}, "DEG",
                 "upwind horizon angle where the lee shelter begins (default 5)");
        d.number("--shadow-max", p_.shadow_angle_max, cli::Interval{0.0f, false, 90.0f, false}, "DEG",
                 "upwind horizon angle of full shelter, at least --shadow-min (default 15)");
        d.number("--sand-repose", p_.sand_repose, cli::Interval{0.0f, false, 90.0f, false}, "DEG",
                 "angle of repose of sand (default 33)");
        d.number("--bedrock-repose", p_.bedrock_repose, cli::Interval{0.0f, false, 90.0f, false}, "DEG",
                 "rock faces steeper than this hold no sand (default 68)");
        d.flag("--open", open_, "sand blown off an edge is lost (default: it comes back at the opposite edge)");
        d.flag("--no-abrasion", no_abrasion_, "grains stay on bare rock as readily as on sand");
        d.whole("--seed", seed_, 0, UINT32_MAX, "S", "seed of the hop-length variation (default 1)");
        d.operation(R"({"operation", "device", "width", "height", "milliseconds"})");
        d.footer(
            "A progress bar shows on stderr while the iterations run. Ctrl-C cancels the run:\n"
            "no output is written and the exit code is 3. File formats and exit codes: see\n"
            "'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        Grid bedrock, sand, vegetation;
        std::vector<size_t> missing, missing_sand;
        if (const int code = cli::read_heights(c, bedrock_path_, bedrock, missing); code != cli::kOk) return code;
        if (bedrock.width != bedrock.height || bedrock.width > 46340u)
            return cli::fail(cli::kIo, "%s: dunes need a square grid of at most 46340 cells a side, this one is %ux%u",
                             bedrock_path_.c_str(), bedrock.width, bedrock.height);
        if (const int code = cli::read_heights(c, sand_path_, sand, missing_sand); code != cli::kOk) return code;
        if (sand.width != bedrock.width || sand.height != bedrock.height)
            return cli::fail(cli::kIo, "%s: the sand grid is %ux%u, the bedrock %ux%u", sand_path_.c_str(), sand.width,
                             sand.height, bedrock.width, bedrock.height);
        for (float& s : sand.cells) s = std::isfinite(s) && s > 0.0f ? s : 0.0f;
        if (!vegetation_path_.empty())
            if (const int code = cli::read_mask(c, vegetation_path_, bedrock_path_, bedrock, vegetation, "vegetation");
                code != cli::kOk)
                return code;
        p_.size = static_cast<int32_t>(bedrock.width);
        p_.iterations = static_cast<int32_t>(iterations_);
        p_.periodic = open_ ? 0u : 1u;
        p_.abrasion = no_abrasion_ ? 0u : 1u;
        p_.seed = seed_;
        const float* cover = vegetation.cells.empty() ? nullptr : vegetation.cells.data();
        const double work = static_cast<double>(sand.cells.size()) * iterations_;
        if (const int code = cli::run_operation(c, "dune simulation", work,
                                                [&](halden_queue* q, const halden_callbacks* cb) {
                                                    return DuneSimulation(q, bedrock.cells.data(), sand.cells.data(),
                                                                          cover, &p_, cb);
                                                });
            code != cli::kOk)
            return code;

        cli::Outputs outputs(c);
        if (const int code = outputs.grid(out_, sand, {}); code != cli::kOk) return code;
        if (const int code = outputs.commit(); code != cli::kOk) return code;
        c.report(
            cli::JsonObject()
                .add("operation", "dunes")
                .add("device", c.key)
                .add("width", sand.width)
                .add("height", sand.height)
                .add("milliseconds", c.call.milliseconds),
            cli::format("dunes %ux%u, %u iterations, wind %g degrees at %g on %s: %.3f ms, %.1f Mcell-iterations/s",
                        sand.width, sand.height, iterations_, p_.wind_direction, p_.wind_speed, c.key.c_str(),
                        c.call.milliseconds, c.call.rate));
        return cli::kOk;
    }

private:
    std::string bedrock_path_, sand_path_, out_, vegetation_path_;
    halden_dune_parameters p_{0,    1.0f, 1.0f, 0.0f, 1.0f,  90.0f, 1.0f,  0.0f, 200, 0.1f,
                              3.0f, 0.2f, 0.5f, 5.0f, 15.0f, 33.0f, 68.0f, 1,    1,   1};
    uint32_t iterations_ = 200, seed_ = 1;
    bool open_ = false, no_abrasion_ = false;
};

}  // namespace

std::unique_ptr<cli::Command> commands::dunes() { return std::make_unique<DunesCommand>(); }
