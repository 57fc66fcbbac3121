// SPDX-License-Identifier: Apache-2.0
// halden sunlight: sums the clear-sky sunlight of a day or a season over a
// height grid, with the terrain's shadows.
#include <algorithm>

#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"

namespace {

// The shadows sweep a square grid: a non-square one is traced inside a
// square that repeats its last row or column, and cropped back.
Grid square_of(const Grid& grid) {
    const uint32_t side = std::max(grid.width, grid.height);
    Grid square{side, side, std::vector<float>(size_t{side} * side), grid.georeference};
    for (uint32_t y = 0; y < side; ++y)
        for (uint32_t x = 0; x < side; ++x)
            square.cells[size_t{y} * side + x] =
                grid.cells[size_t{std::min(y, grid.height - 1)} * grid.width + std::min(x, grid.width - 1)];
    return square;
}

Grid crop(const std::vector<float>& cells, uint32_t side, const Grid& like) {
    Grid out{like.width, like.height, std::vector<float>(size_t{like.width} * like.height), like.georeference};
    for (uint32_t y = 0; y < like.height; ++y)
        std::copy_n(cells.begin() + std::ptrdiff_t(size_t{y} * side), like.width,
                    out.cells.begin() + std::ptrdiff_t(size_t{y} * like.width));
    return out;
}

class SunlightCommand final : public cli::Command {
public:
    void define(cli::Definition& d) override {
        d.description(
            "Sums the clear-sky sunlight that falls on each cell of the height grid in IN\n"
            "over a day or a season and writes it to OUT in Wh/m^2 (or relative to flat\n"
            "open ground): beam light on the cell's slope where the terrain casts no\n"
            "shadow, diffuse sky light and light reflected by the ground. Row 0 is north.\n"
            "Good for snow-melt, vegetation and weathering masks.\n");
        d.input("IN", in_);
        d.output("OUT", out_);
        d.text("--sun-hours", hours_path_, "FILE", "also write the hours each cell sees the sun");
        d.text("--sky-view", view_path_, "FILE",
               "also write the share of the sky each cell sees (1 on flat open ground; needs --sky-directions > 0)");
        cell_size_option_ = &d.number("--cell-size", cell_size_, cli::Sign::kPositive, "S",
                                      "width of one cell in metres, > 0 (default: from IN's georeference, else 1)");
        d.number("--height-scale", height_scale_, cli::Sign::kPositive, "S",
                 "metres per unit of height, > 0 (default 1)");
        d.number("--latitude", latitude_, cli::Interval{-90.0f, true, 90.0f, true}, "DEG",
                 "latitude in degrees, -90 to 90 (default 45)");
        d.whole("--first-day", first_day_, 1, 366, "D", "first day of the year, 1 to 366 (default 172, midsummer)");
        d.whole("--last-day", last_day_, 0, 366, "D", "last day of the year (default: the first day)");
        d.whole("--day-step", day_step_, 1, 366, "N", "sample every N-th day, each standing for N days (default 1)");
        d.number("--time-step", time_step_, cli::Interval{1.0f, true, 240.0f, true}, "MIN",
                 "minutes between sun positions, 1 to 240 (default 10)");
        d.number("--linke", linke_, cli::Interval{0.5f, true, 10.0f, true}, "TL",
                 "Linke turbidity of the air, 0.5 to 10 (default 3: rural; 2 mountains, 5 haze)");
        d.number("--transmittance", transmittance_, cli::Interval{0.0f, false, 1.0f, true}, "T",
                 "instead of --linke, a plain transmittance per air mass above 0 and at most 1");
        d.number("--elevation", elevation_, cli::Interval{-500.0f, true, 9000.0f, true}, "M",
                 "site elevation in metres, thins the air (default 0)");
        d.number("--albedo", albedo_, cli::Interval{0.0f, true, 1.0f, true}, "A",
                 "ground reflectance 0 to 1 (default 0.2)");
        d.whole("--sky-directions", sky_directions_, 0, 4096, "N",
                "sky directions traced for the sky view, 0 to 4096 (default 32; 0: slopes see their open half-sky)");
        d.flag("--no-diffuse", no_diffuse_, "beam light only: no diffuse or reflected light");
        d.flag("--relative", relative_, "write irradiation relative to flat open ground instead of Wh/m^2");
        d.check([this]() -> int {
            if (last_day_ != 0 && last_day_ < first_day_)
                return cli::fail(cli::kUsage, "--last-day %u is before --first-day %u", last_day_, first_day_);
            return cli::kOk;
        });
        d.operation(R"({"operation", "device", "width", "height", "milliseconds", "timings"})");
        d.footer(
            "A progress bar shows on stderr, one step per sun position. Ctrl-C cancels the\n"
            "run: no output is written and the exit code is 3. Numbers must be finite and in\n"
            "plain decimal or exponent form. File formats and exit codes: see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        Grid grid;
        std::vector<size_t> missing;
        if (const int code = cli::read_heights(c, in_, grid, missing); code != cli::kOk) return code;
        if (std::max(grid.width, grid.height) > 16384)
            return cli::fail(cli::kIo, "%s: sunlight traces grids up to 16384 cells wide, this grid is %ux%u",
                             in_.c_str(), grid.width, grid.height);
        if (!cell_size_option_->given()) {
            const double metres = cli::cell_width(grid);
            cell_size_ = metres > 0.0 ? static_cast<float>(metres) : 1.0f;
        }
        const Grid square = grid.square() ? Grid{} : square_of(grid);
        const Grid& traced = grid.square() ? grid : square;
        const uint32_t side = traced.width;
        halden_sunlight_parameters p{};
        p.width = p.height = static_cast<int32_t>(side);
        p.terrain_size = cell_size_ * static_cast<float>(side);
        p.height_scale = height_scale_;
        p.latitude = latitude_;
        p.first_day = static_cast<int32_t>(first_day_);
        p.last_day = static_cast<int32_t>(last_day_ == 0 ? first_day_ : last_day_);
        p.day_step = static_cast<int32_t>(day_step_);
        p.time_step = time_step_;
        p.atmosphere = transmittance_ > 0.0f ? 1 : 0;
        p.linke_turbidity = linke_;
        p.transmittance = transmittance_ > 0.0f ? transmittance_ : 1.0f;
        p.site_elevation = elevation_;
        p.albedo = albedo_;
        p.sky_directions = static_cast<int32_t>(sky_directions_);
        p.diffuse = no_diffuse_ ? 0 : 1;
        p.relative = relative_ ? 1 : 0;
        if (!view_path_.empty() && sky_directions_ == 0)
            return cli::fail(cli::kUsage, "--sky-view needs --sky-directions above 0");

        const size_t cells = size_t{side} * side;
        std::vector<float> irradiation(cells), hours(hours_path_.empty() ? 0 : cells),
            view(view_path_.empty() ? 0 : cells);
        if (const int code = cli::run_operation(
                c, "sunlight", static_cast<double>(cells),
                [&](halden_queue* q, const halden_callbacks* callbacks) {
                    return SunLightIntegral(q, traced.cells.data(), irradiation.data(),
                                            hours.empty() ? nullptr : hours.data(),
                                            view.empty() ? nullptr : view.data(), &p, callbacks);
                },
                cli::Bar::kAtOnce);
            code != cli::kOk)
            return code;

        cli::Outputs outputs(c);
        const auto write = [&](const std::string& path, const std::vector<float>& cells_out) {
            Grid out = crop(cells_out, side, grid);
            cli::mark_missing(out, missing);
            return outputs.grid(path, out, {});
        };
        if (const int code = write(out_, irradiation); code != cli::kOk) return code;
        if (!hours_path_.empty())
            if (const int code = write(hours_path_, hours); code != cli::kOk) return code;
        if (!view_path_.empty())
            if (const int code = write(view_path_, view); code != cli::kOk) return code;
        if (const int code = outputs.commit(); code != cli::kOk) return code;

        c.report(cli::JsonObject()
                     .add("operation", "sunlight")
                     .add("device", c.key)
                     .add("width", grid.width)
                     .add("height", grid.height)
                     .add("milliseconds", c.call.milliseconds),
                 cli::format("sunlight %ux%u, latitude %g, days %d to %d every %d, %g-minute steps on %s: %.3f ms",
                             grid.width, grid.height, latitude_, p.first_day, p.last_day, p.day_step, time_step_,
                             c.key.c_str(), c.call.milliseconds));
        return cli::kOk;
    }

private:
    std::string in_, out_, hours_path_, view_path_;
    float cell_size_ = 1.0f, height_scale_ = 1.0f, latitude_ = 45.0f, time_step_ = 10.0f;
    float linke_ = 3.0f, transmittance_ = 0.0f, elevation_ = 0.0f, albedo_ = 0.2f;
    uint32_t first_day_ = 172, last_day_ = 0, day_step_ = 1, sky_directions_ = 32;
    bool no_diffuse_ = false, relative_ = false;
    const cli::Option* cell_size_option_ = nullptr;
};

}  // namespace

std::unique_ptr<cli::Command> commands::sunlight() { return std::make_unique<SunlightCommand>(); }
