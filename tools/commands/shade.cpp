// SPDX-License-Identifier: Apache-2.0
// halden shade: lights a height grid with sun and sky and writes a picture.
#include <algorithm>

#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"
#include "commands/runs.hpp"
#include "formats/png.hpp"

namespace {

class ShadeCommand final : public cli::Command {
  public:
    void define(cli::Definition& d) override {
        d.description(
            "Lights the height grid in IN with sun and sky on one device and writes the\n"
            "picture to OUT.png, an 8-bit sRGB PNG whose top row is the grid's first row.\n"
            "A cell's colour is (sun colour x the cosine of the sun on its slope x the share\n"
            "of the sun's disc not hidden by terrain + 0.4 x sky colour x its sky visibility)\n"
            "x exposure, with a sun colour of (1, 0.95, 0.85) and a sky colour of (0.6, 0.7,\n"
            "1). Shadows and sky visibility are traced over a square: a grid of another shape\n"
            "is extended to one by repeating its last row or column. No-data cells are black.\n");
        d.input("IN", in_);
        d.output("OUT.png", out_);
        d.number("--sun-azimuth", lighting_.azimuth, cli::Sign::kAny, "DEG",
                 "direction of the sun in degrees from the grid's +x axis (along a row: rightwards in the "
                 "picture) towards +y (down the rows), finite (default 225: the upper left, as maps are lit)");
        const cli::Option& elevation =
            d.number("--sun-elevation", lighting_.elevation, cli::Sign::kAny, "DEG",
                     "height of the sun above the horizon, 0 to 90 (default 35)");
        d.whole("--shadows", lighting_.rings, 0, 64, "N",
                "rings of shadow samples across the sun's disc, 0 to 64, giving 3N^2 + 3N + 1 samples (default 1: "
                "7 samples); more give smoother shadow edges");
        const cli::Option& sun_size =
            d.number("--sun-size", lighting_.sun_size, cli::Sign::kNonNegative, "DEG",
                     "apparent diameter of the sun, at least 0 and below 180 (default 0.53; 0 gives hard shadows)");
        d.whole("--ao", lighting_.sky_directions, 1, 4096, "N",
                "sky directions for sky visibility, 1 to 4096 (default 32)");
        d.flag("--hybrid-ao", lighting_.hybrid,
               "estimate sky visibility over a half-size grid instead of tracing it from every cell: about a "
               "quarter of the work");
        d.flag("--no-shadows", no_shadows_, "no sun shadows: every cell gets the sun its slope faces");
        d.flag("--no-ao", no_ao_,
               "no sky visibility: it counts as 1 everywhere, about half of what open flat ground gets with it on");
        terrain_size_option_ = &d.number(
            "--terrain-size", terrain_size_, cli::Sign::kPositive, "S",
            "world width of the whole grid, > 0 (default: from IN's georeference in metres, else the width in "
            "cells, so one cell is one height unit wide)");
        d.number("--height-scale", height_scale_, cli::Sign::kPositive, "H",
                 "world height of one height unit, > 0 (default 1); above 1 it exaggerates the relief");
        d.number("--exposure", lighting_.exposure, cli::Sign::kPositive, "E",
                 "factor of the colour before it is clipped to the picture's range, > 0 (default 0.6, which keeps "
                 "sunlit ground below white)");
        d.text("--diffuse", diffuse_path_, "D", "also write the cosine of the sun on each cell, 0 to 1");
        d.text("--shadow", shadow_path_, "S",
               "also write the sun's visibility, 0 (hidden) to 1 (not with --no-shadows)");
        d.text("--ao-out", ao_path_, "A",
               "also write the sky visibility: 4 x the mean cosine of the open sky directions, about 2 on open "
               "flat ground (not with --no-ao)");
        d.check([this, &elevation, &sun_size]() -> int {
            if (!(lighting_.elevation >= 0.0f && lighting_.elevation <= 90.0f))
                return cli::fail(cli::kUsage, "--sun-elevation expects a number from 0 to 90, got '%s'",
                                 elevation.text().c_str());
            if (!(lighting_.sun_size < 180.0f))
                return cli::fail(cli::kUsage, "--sun-size expects a number of at least 0 and below 180, got '%s'",
                                 sun_size.text().c_str());
            // With a switch off the library computes nothing to write.
            if (!shadow_path_.empty() && no_shadows_)
                return cli::fail(cli::kUsage, "--shadow has nothing to write with --no-shadows");
            if (!ao_path_.empty() && no_ao_) return cli::fail(cli::kUsage, "--ao-out has nothing to write with --no-ao");
            if (!has_png_extension(out_)) return cli::fail(cli::kUsage, "%s: OUT must be a .png file", out_.c_str());
            return cli::kOk;
        });
        d.operation(R"({"operation", "device", "width", "height", "milliseconds", "timings"})");
        d.footer(
            "OUT must end in .png. Numbers must be finite and in plain decimal or exponent\n"
            "form. File formats and exit codes: see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        lighting_.shadows = !no_shadows_;
        lighting_.sky_visibility = !no_ao_;
        Grid heights;
        std::vector<size_t> missing;
        if (const int code = cli::read_heights(c, in_, heights, missing); code != cli::kOk) return code;
        const size_t side = std::max(heights.width, heights.height);  // of the square that shadows are traced over
        if (!cli::int32_grid_ok(heights) || side * side > INT32_MAX)
            return cli::fail(cli::kIo, "%s: shading takes at most 2^31 - 1 cells, this grid is %ux%u", in_.c_str(),
                             heights.width, heights.height);
        if (!terrain_size_option_->given()) {
            const double metres = cli::world_width(heights);
            terrain_size_ = static_cast<float>(metres > 0.0 ? metres : heights.width);
        }
        std::vector<float> planes;
        if (const int code = cli::run_on_device(c, "shading",
                                                [&](halden_queue* q) {
                                                    return commands::shade_grid(q, heights, lighting_, terrain_size_,
                                                                                height_scale_, missing, planes,
                                                                                c.call);
                                                });
            code != cli::kOk)
            return code;

        const size_t cells = heights.cells.size();
        cli::Outputs outputs(c);
        if (const int code = outputs.picture(out_, heights.width, heights.height, planes.data(),
                                             planes.data() + cells, planes.data() + 2 * cells);
            code != cli::kOk)
            return code;
        const std::string* const paths[] = {&diffuse_path_, &shadow_path_, &ao_path_};
        for (int i = 0; i < 3; ++i) {
            if (paths[i]->empty()) continue;
            const float* plane = planes.data() + (3 + i) * cells;
            Grid grid{heights.width, heights.height, std::vector<float>(plane, plane + cells), heights.georeference};
            cli::mark_missing(grid, missing);
            if (const int code = outputs.grid(*paths[i], grid, {}); code != cli::kOk) return code;
        }
        if (const int code = outputs.commit(); code != cli::kOk) return code;

        c.report(cli::JsonObject()
                     .add("operation", "shade")
                     .add("device", c.key)
                     .add("width", heights.width)
                     .add("height", heights.height)
                     .add("milliseconds", c.call.milliseconds),
                 cli::format("shade %ux%u, %s on %s: %.3f ms, %.1f Mcells/s", heights.width, heights.height,
                             commands::describe_lighting(lighting_).c_str(), c.key.c_str(), c.call.milliseconds,
                             c.call.rate));
        return cli::kOk;
    }

  private:
    std::string in_, out_, diffuse_path_, shadow_path_, ao_path_;
    commands::Lighting lighting_;
    bool no_shadows_ = false, no_ao_ = false;
    float terrain_size_ = 0.0f, height_scale_ = 1.0f;
    const cli::Option* terrain_size_option_ = nullptr;
};

}  // namespace

std::unique_ptr<cli::Command> commands::shade() { return std::make_unique<ShadeCommand>(); }
