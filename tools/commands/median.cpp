// SPDX-License-Identifier: Apache-2.0
// halden median: median-filters a square height grid.
#include <algorithm>

#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"
#include "commands/runs.hpp"

namespace {

class MedianCommand final : public cli::Command {
  public:
    void define(cli::Definition& d) override {
        d.description(
            "Median-filters the square height grid in IN on one device and writes it to OUT:\n"
            "spikes and pits go, edges stay.\n");
        d.input("IN", in_);
        d.output("OUT", out_);
        d.whole("--radius", radius_, 1, 8, "R", "radius of the circular window, 1 to 8 (default 2)");
        d.whole("--iterations", iterations_, 0, 1000000, "N", "number of passes (default 1)");
        d.operation(R"({"operation", "device", "size", "milliseconds", "timings"})");
        d.footer(
            "Heights above 1e8 (and +Inf) come out as about 1e8: the filter pads its windows\n"
            "with 1e8, which sorts below them. A warning on stderr counts the cells of IN\n"
            "that exceed 1e8.\n"
            "\n"
            "A grid that is not square exits 2. Throughput counts cells times iterations.\n"
            "File formats and exit codes: see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        Grid grid;
        std::vector<size_t> missing;
        if (const int code = cli::read_heights(c, in_, grid, missing); code != cli::kOk) return code;
        // The filter's record has a single side.
        if (!grid.square())
            return cli::fail(cli::kIo, "%s: the median filter needs a square grid, this one is %ux%u", in_.c_str(),
                             grid.width, grid.height);
        // The library pads its sorting network with 1e8, so larger heights
        // sort past the padding and the median of their windows comes out
        // near 1e8.
        constexpr float kMedianPadding = 1e8f;
        const auto above =
            std::count_if(grid.cells.begin(), grid.cells.end(), [](float h) { return h > kMedianPadding; });
        if (above > 0)
            cli::warn("%s: %zu %s 1e8; the median filter maps such values to about 1e8", in_.c_str(),
                      static_cast<size_t>(above), above == 1 ? "cell exceeds" : "cells exceed");

        if (const int code = cli::run_on_device(c, "the median filter",
                                                [&](halden_queue* q) {
                                                    return commands::run_median(q, grid, radius_, iterations_,
                                                                                c.call);
                                                });
            code != cli::kOk)
            return code;
        cli::mark_missing(grid, missing);
        if (const int code = cli::write_output(c, out_, grid, c.read.range); code != cli::kOk) return code;

        c.report(cli::JsonObject()
                     .add("operation", "median")
                     .add("device", c.key)
                     .add("size", grid.width)
                     .add("milliseconds", c.call.milliseconds),
                 cli::format("median %ux%u, radius %u, %u iteration(s) on %s: %.3f ms, %.1f Mcells/s", grid.width,
                             grid.height, radius_, iterations_, c.key.c_str(), c.call.milliseconds, c.call.rate));
        return cli::kOk;
    }

  private:
    std::string in_, out_;
    uint32_t radius_ = 2, iterations_ = 1;
};

}  // namespace

std::unique_ptr<cli::Command> commands::median() { return std::make_unique<MedianCommand>(); }
