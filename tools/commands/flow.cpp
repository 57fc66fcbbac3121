// SPDX-License-Identifier: Apache-2.0
// halden flow: maps where water runs on a height grid.
#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"
#include "commands/runs.hpp"

namespace {

class FlowCommand final : public cli::Command {
  public:
    void define(cli::Definition& d) override {
        d.description(
            "Computes the flow map of the height grid in IN on one device and writes it to\n"
            "OUT: the pits are filled, a particle starts from every cell and runs downhill,\n"
            "and each cell's value grows with the particles that crossed it (0 where none\n"
            "did). OUT has IN's shape; --range applies to IN only.\n");
        d.input("IN", in_);
        d.output("OUT", out_);
        d.text("--mask", mask_path_, "M",
               "a grid of IN's shape giving each cell's chance of starting a particle: 0 never, 1 always (a "
               "PNG's samples span 0 to 1); a mask of another shape exits 2");
        d.number("--length", length_, cli::Sign::kNonNegative, "L",
                 "how far the long traces run, as a fraction of the width, at least 0 (default 0.5): 0 gives each "
                 "a single visit, 1 lets rivers cross the whole map");
        d.number("--accumulation", accumulation_, cli::Sign::kAny, "A",
                 "weight of the part of the map that grows linearly with the visits (default 1): 0 keeps only the "
                 "saturating part, larger values make big rivers stand out");
        d.whole("--seed", seed_, 0, UINT32_MAX, "S",
                "seed of every random choice, 0 to 4294967295 (default 1); a seed gives the same map on every "
                "device");
        d.operation(R"({"operation", "device", "width", "height", "milliseconds", "timings"})");
        d.footer(
            "A progress bar shows on stderr while the particles run. Ctrl-C cancels the run:\n"
            "OUT is not written and the exit code is 3 (a second Ctrl-C stops at once).\n"
            "Numbers must be finite and in plain decimal or exponent form. File formats and\n"
            "exit codes: see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        Grid heights;
        std::vector<size_t> missing;
        if (const int code = cli::read_heights(c, in_, heights, missing); code != cli::kOk) return code;
        if (!cli::int32_grid_ok(heights))
            return cli::fail(cli::kIo, "%s: the flow simulation takes at most 2^31 - 1 cells, this grid is %ux%u",
                             in_.c_str(), heights.width, heights.height);
        Grid map;  // the mask, when given, which the run then overwrites with the map
        if (!mask_path_.empty())
            if (const int code = cli::read_mask(c, mask_path_, in_, heights, map); code != cli::kOk) return code;

        const halden_flow_parameters parameters = {0, 0, length_, accumulation_, seed_};
        // The first report comes only after the pits are filled: the bar
        // shows from the start.
        if (const int code = cli::run_on_device(
                c, "the flow simulation",
                [&](halden_queue* q) {
                    return commands::run_flow(q, heights, map, !mask_path_.empty(), parameters, c.call);
                },
                cli::Bar::kAtOnce);
            code != cli::kOk)
            return code;
        map.georeference = heights.georeference;
        cli::mark_missing(map, missing);
        // --range maps IN's samples; the map's own values span something else.
        if (const int code = cli::write_output(c, out_, map, {}); code != cli::kOk) return code;

        c.report(cli::JsonObject()
                     .add("operation", "flow")
                     .add("device", c.key)
                     .add("width", heights.width)
                     .add("height", heights.height)
                     .add("milliseconds", c.call.milliseconds),
                 cli::format("flow %ux%u, length %g, accumulation %g, seed %u on %s: %.3f ms, %.1f Mcells/s",
                             heights.width, heights.height, length_, accumulation_, seed_, c.key.c_str(),
                             c.call.milliseconds, c.call.rate));
        return cli::kOk;
    }

  private:
    std::string in_, out_, mask_path_;
    float length_ = 0.5f, accumulation_ = 1.0f;
    uint32_t seed_ = 1;
};

}  // namespace

std::unique_ptr<cli::Command> commands::flow() { return std::make_unique<FlowCommand>(); }
