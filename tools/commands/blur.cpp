// SPDX-License-Identifier: Apache-2.0
// halden blur: blurs a square grid with an almost-Gaussian filter.
#include <charconv>

#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"

namespace {

class BlurCommand final : public cli::Command {
  public:
    void define(cli::Definition& d) override {
        d.description(
            "Blurs the square grid in IN on one device and writes it to OUT: two box filters\n"
            "along the rows and two along the columns, which together come close to a\n"
            "Gaussian. Each box gives full weight to the 2 trunc(R) + 1 cells around a cell\n"
            "and weight R - trunc(R) to the next cell either side, so the blur grows smoothly\n"
            "with R; cells past the edges repeat the edge cells, so a constant grid stays\n"
            "constant.\n");
        d.input("IN", in_);
        d.output("OUT", out_);
        const cli::Option& radius =
            d.number("--radius", radius_, cli::Sign::kPositive, "R",
                     "radius of the boxes in cells, a positive number up to 16777216 (2^24; default 12: boxes 25 "
                     "cells wide); larger radii blur more at the same cost");
        // The library refuses radii past 2^24, beyond which a float no longer
        // holds every whole number of cells. Checked on the text's own value,
        // as 16777217 rounds to 2^24 in float.
        d.check([&radius]() -> int {
            constexpr double kMaxBlurRadius = 16777216.0;
            if (!radius.given()) return cli::kOk;
            double exact = 0.0;
            std::from_chars(radius.text().data(), radius.text().data() + radius.text().size(), exact);
            if (!(exact <= kMaxBlurRadius))
                return cli::fail(cli::kUsage, "--radius expects a positive number of at most 16777216 (2^24), got '%s'",
                                 radius.text().c_str());
            return cli::kOk;
        });
        d.operation(R"({"operation", "device", "size", "milliseconds", "timings"})");
        d.footer(
            "A grid that is not square, or more than 46340 cells wide, exits 2. Numbers must\n"
            "be finite and in plain decimal or exponent form. File formats and exit codes:\n"
            "see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        Grid grid;
        std::vector<size_t> missing;
        if (const int code = cli::read_heights(c, in_, grid, missing); code != cli::kOk) return code;
        if (!grid.square())
            return cli::fail(cli::kIo, "%s: the blur needs a square grid, this one is %ux%u", in_.c_str(), grid.width,
                             grid.height);
        // The export's own limit, caught here because it is the input's
        // shape that is wrong, not the device.
        constexpr uint32_t kMaxBlurSide = 46340;
        if (grid.width > kMaxBlurSide)
            return cli::fail(cli::kIo, "%s: the blur takes grids of at most %u x %u cells, this one is %ux%u",
                             in_.c_str(), kMaxBlurSide, kMaxBlurSide, grid.width, grid.height);

        if (const int code = cli::run_operation(c, "the blur", static_cast<double>(grid.cells.size()),
                                                [&](halden_queue* q, const halden_callbacks* callbacks) {
                                                    return Blur(q, grid.cells.data(),
                                                                static_cast<int32_t>(grid.width), radius_,
                                                                callbacks);
                                                });
            code != cli::kOk)
            return code;
        cli::mark_missing(grid, missing);
        if (const int code = cli::write_output(c, out_, grid, c.read.range); code != cli::kOk) return code;

        c.report(cli::JsonObject()
                     .add("operation", "blur")
                     .add("device", c.key)
                     .add("size", grid.width)
                     .add("milliseconds", c.call.milliseconds),
                 cli::format("blur %ux%u, radius %g on %s: %.3f ms, %.1f Mcells/s", grid.width, grid.height, radius_,
                             c.key.c_str(), c.call.milliseconds, c.call.rate));
        return cli::kOk;
    }

  private:
    std::string in_, out_;
    float radius_ = 12.0f;
};

}  // namespace

std::unique_ptr<cli::Command> commands::blur() { return std::make_unique<BlurCommand>(); }
