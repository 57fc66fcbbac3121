// SPDX-License-Identifier: Apache-2.0
// halden demo: median-filters, shapes, erodes, flow-maps and shades a
// generated terrain and a real elevation model into pictures, timing every
// step, on one device or on all of them, compared bit for bit.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "cli/progress.hpp"
#include "commands/commands.hpp"
#include "commands/runs.hpp"
#include "commands/terrain.hpp"
#include "formats/png.hpp"

namespace {

// The real elevation model the demo shades when Debian's
// python-matplotlib-data is installed: a 3 arc-second model of a fault zone
// in Tennessee, heights in metres. Its cells are about 75 m wide east-west
// (93 m north-south), and the file carries no georeference.
const char kSampleDem[] = "/usr/share/matplotlib/mpl-data/sample_data/jacksboro_fault_dem.npz";
constexpr float kSampleCellMetres = 75.0f;
// Landscapes are gentle at the scale of a whole map: the demo's pictures
// shade their heights three times over to bring the hills out.
constexpr float kPictureRelief = 3.0f;

// The demo's erosion of the shaped terrain, all its settings here: thermal
// weathering, then water, each from the defaults of 'halden thermal-erode'
// and 'halden erode' (commands::defaults in runs.hpp) with the changes
// below, which keep the pair to a few seconds at 1024 x 1024 on two cores.
// Heights are metres, so the height scale is 1 and the cell size the map's
// width over its cells.
constexpr uint32_t kWeatheringIterations = commands::defaults::kThermalIterations;
constexpr uint32_t kRounds = 3;  // per level

halden_thermal_parameters demo_weathering(float cell_size) {
    halden_thermal_parameters p = commands::thermal_erosion_defaults(cell_size, 1.0f);
    p.iterations = static_cast<int32_t>(kWeatheringIterations);
    return p;
}

halden_erosion_parameters demo_erosion(float cell_size) {
    halden_erosion_parameters p = commands::erosion_defaults(cell_size, 1.0f);
    p.rounds = static_cast<int32_t>(kRounds);
    return p;
}

// The demo's runs: every step on each of its devices, timed, and the
// devices' results compared bit for bit.
class DemoRun {
  public:
    DemoRun(cli::Context& context, std::vector<std::string> keys) : context_(context), keys_(std::move(keys)) {}

    // Runs `operation(queue, grid, timing)`, which works on `grid`, a copy of
    // `input`, on every device, and returns the first device's result (no
    // cells when every device failed or Ctrl-C was pressed).
    template <class Operation>
    Grid run(const std::string& step, const Grid& input, double mcells, Operation operation) {
        std::vector<Grid> results;
        const cli::Common& common = context_.common;
        for (const std::string& key : keys_) {
            if (cli::interrupted()) return Grid{};
            const cli::Stopwatch watch;
            halden_queue* queue = CreateSyclQueue(key.c_str(), cli::callbacks());
            Grid grid = input;
            cli::Timing timing{};
            uint32_t status = HALDEN_STATUS_DEVICE_ERROR;
            {
                cli::ProgressBar progress(step, cli::progress_wanted(common.quiet, common.json, common.no_progress));
                if (queue) status = operation(queue, grid, timing);
                DestroySyclQueue(queue);
                // Waiting for the queue may report late failures too.
                if (cli::library_error()) status = HALDEN_STATUS_DEVICE_ERROR;
                if (status == HALDEN_STATUS_OK) progress.complete();
            }
            context_.timings.run += watch.milliseconds();
            const std::string reason = cli::library_reason();
            if (cli::interrupted()) return Grid{};
            if (status != HALDEN_STATUS_OK) {
                failed_ = true;
                cli::fail(cli::kDevice, "%s failed on %s%s%s", step.c_str(), key.c_str(),
                          !queue                                  ? " (no queue)"
                          : status == HALDEN_STATUS_OUT_OF_MEMORY ? " (not enough device memory)"
                                                                  : "",
                          reason.c_str());
                continue;
            }
            record(step, key, timing.milliseconds,
                   timing.milliseconds > 0.0 ? mcells / (timing.milliseconds * 1e3) : 0.0);
            results.push_back(std::move(grid));
        }
        for (size_t i = 1; i < results.size(); ++i) {
            const bool same = results[i].cells == results[0].cells ||
                              std::memcmp(results[i].cells.data(), results[0].cells.data(),
                                          results[0].cells.size() * sizeof(float)) == 0;
            if (!same) say("  " + step + ": the devices' results differ");
            agree_ = agree_ && same;
        }
        compared_ = compared_ || results.size() > 1;
        return results.empty() ? Grid{} : std::move(results[0]);
    }

    // Records a step's time; host steps have no device and no rate.
    void record(const std::string& step, const std::string& device, double milliseconds, double rate = 0.0) {
        steps_.push_back({step, device, milliseconds});
        if (silent()) return;
        std::printf("  %-28s %10.1f ms", step.c_str(), milliseconds);
        if (rate > 0.0) std::printf("  %8.1f Mcells/s", rate);
        if (keys_.size() > 1 && !device.empty()) std::printf("  on %s", device.c_str());
        std::printf("\n");
    }

    void say(const std::string& line) const {
        if (!silent()) std::printf("%s\n", line.c_str());
    }

    // Exit status: 3 when a device failed, else 4 when results differ.
    int status() const { return failed_ ? cli::kDevice : agree_ ? cli::kOk : cli::kDisagree; }

    void print_json(const std::string& out) const {
        std::string devices = "[", steps = "[";
        for (size_t i = 0; i < keys_.size(); ++i) devices += (i ? ", " : "") + cli::json_string(keys_[i]);
        for (size_t i = 0; i < steps_.size(); ++i)
            steps += (i ? ", " : "") + cli::JsonObject()
                                           .add("step", steps_[i].name)
                                           .raw("device", steps_[i].device.empty()
                                                              ? "null"
                                                              : cli::json_string(steps_[i].device))
                                           .add("milliseconds", steps_[i].milliseconds)
                                           .text();
        std::printf("%s\n", cli::JsonObject()
                                .raw("devices", devices + "]")
                                .add("out", out)
                                .raw("steps", steps + "]")
                                .add("compared", compared_)
                                .add("agree", agree_)
                                .raw("timings", cli::json_timings(context_.timings))
                                .text()
                                .c_str());
    }

  private:
    bool silent() const { return context_.common.quiet || context_.common.json; }

    struct Step {
        std::string name, device;
        double milliseconds;
    };
    cli::Context& context_;
    std::vector<std::string> keys_;
    std::vector<Step> steps_;
    bool failed_ = false, agree_ = true, compared_ = false;
};

// The flow map over the shaded relief: water blue, opaque from a third of
// the map's saturating range up. `planes` are shade_grid's.
// Planes of values 0 to 1 as interleaved bytes, as they are: a normal map
// is data, read back linearly, not light to encode for display.
std::vector<uint8_t> data_bytes(const std::vector<float>& planes, size_t cells) {
    std::vector<uint8_t> bytes(3 * cells);
    for (size_t i = 0; i < 3 * cells; ++i)
        bytes[i] = static_cast<uint8_t>(std::lround(255.0f * std::clamp(planes[(i % 3) * cells + i / 3], 0.0f, 1.0f)));
    return bytes;
}

Grid flow_over_relief(const Grid& flow, const std::vector<float>& planes) {
    const size_t cells = flow.cells.size();
    Grid rgb{flow.width, flow.height, std::vector<float>(planes.begin(), planes.begin() + 3 * cells), {}};
    const float water[3] = {0.02f, 0.18f, 0.75f};
    for (size_t i = 0; i < cells; ++i) {
        const float f = flow.cells[i];
        const float a = f > 0.0f ? std::min(3.0f * f, 1.0f) : 0.0f;
        for (size_t k = 0; k < 3; ++k) rgb.cells[k * cells + i] = rgb.cells[k * cells + i] * (1.0f - a) + water[k] * a;
    }
    return rgb;
}

class DemoCommand final : public cli::Command {
  public:
    void define(cli::Definition& d) override {
        d.description(
            "Generates a deterministic fractal terrain of N x N cells with spikes and pits,\n"
            "heights 0 to 1000 m, read as a map 10 km wide, and runs on it, one after the\n"
            "other: the median filter (radius 3, 2 iterations) against the spikes and pits,\n"
            "the thermal shaper (amount -0.5, strength 1), the flow map of the shaped terrain\n"
            "(length 0.5, accumulation 1, seed 1) and its shading ('halden shade' defaults,\n"
            "heights three times over, as landscapes are gentle at map scale); then erodes\n"
            "the shaped terrain, thermal weathering and then water (the defaults of 'halden\n"
            "thermal-erode' and 'halden erode' with fewer, shorter-lived droplets on the\n"
            "full-size level only, to keep the demo short), and shades it again. Then does\n"
            "the same for a real elevation model.\n"
            "Prints the time of every step and writes pictures into DIR.\n");
        d.whole("--size", size_, 1, 32768, "N", "side of the terrain (default 1024)");
        d.text("--out", dir_, "DIR",
               "the folder for the results (default demo-output): relief.png (the shaded relief), flow.png (the "
               "flow map over the relief), eroded.png (the relief after erosion), cells.png (cellular cracks "
               "over the relief), sunlight.png (a midwinter day's sunlight), craters.png (stamped craters), "
               "debris.png (rockfall scree), points.png (a point survey gridded, its gaps filled), normals.png "
               "(the eroded terrain's detail as a tangent-space normal map for a mesh of every 16th cell), colour.png "
               "(colour carried down the rivers), dunes.png (a dune field of its own, at most 256x256), terrain.npy, "
               "median.npy, thermal.npy, flow.npy and eroded.npy, and for the real model the same pictures "
               "prefixed dem-");
        d.text("--gallery", gallery_, "DIR",
               "also write the real model's pictures at half size into DIR, named without their dem- "
               "prefix, and dunes.png as it is (the README's gallery)");
        dem_option_ = &d.text(
            "--dem", dem_, "FILE|none",
            "the real elevation model, in any format halden reads (default: the sample of Debian's "
            "python-matplotlib-data, a 3 arc-second model of a fault zone in Tennessee, skipped when not "
            "installed; a file without georeference is taken as cells 75 m wide); none skips it");
        d.operation(R"({"devices", "out", "steps": [{"step", "device", "milliseconds"}], "compared", "agree", )"
                    R"("timings"})",
                    cli::Definition::Grids::kNone, "KEY|all",
                    "cpu (default), gpu, a key listed by 'halden devices', or all: every step on every listed "
                    "device, checking that their results agree bit for bit");
        d.footer(
            "Ctrl-C stops the demo after its current step; the files written before stay.\n"
            "Exits 0, 2 when a file cannot be read or written, 3 when a device failed or the\n"
            "demo was cancelled, or else 4 when the devices' results differ.\n");
    }

    int run(cli::Context& c) override {
        std::vector<std::string> keys;
        if (c.common.device == "all") {
            const cli::DeviceList list;
            for (uint32_t i = 0; i < list.count; ++i) keys.push_back(cli::device_key(list.records[i]));
            if (keys.empty()) return cli::fail(cli::kDevice, "no devices listed");
        } else {
            halden_queue* queue = nullptr;
            std::string key;
            if (const int code = cli::open_queue(c.common.device, queue, key); code != cli::kOk) return code;
            DestroySyclQueue(queue);
            keys.push_back(key);
        }
        std::error_code ec;
        std::filesystem::create_directories(dir_, ec);
        if (ec) return cli::fail(cli::kIo, "%s: %s", dir_.c_str(), ec.message().c_str());
        if (!gallery_.empty()) {
            std::filesystem::create_directories(gallery_, ec);
            if (ec) return cli::fail(cli::kIo, "%s: %s", gallery_.c_str(), ec.message().c_str());
        }

        DemoRun demo(c, keys);
        if (keys.size() == 1)
            demo.say("on " + keys[0] + ", results in " + dir_ + "/");
        else
            demo.say("on " + std::to_string(keys.size()) + " devices, compared bit for bit; results in " + dir_ +
                     "/");

        const cli::Stopwatch generating;
        const Grid terrain = make_terrain(size_);
        demo.record("generate terrain " + std::to_string(size_) + "x" + std::to_string(size_), "",
                    generating.milliseconds());
        constexpr uint32_t kRadius = 3, kIterations = 2;
        const Grid median = demo.run("median filter", terrain, static_cast<double>(terrain.cells.size()) * kIterations,
                                     [&](halden_queue* q, Grid& g, cli::Timing& t) {
                                         return commands::run_median(q, g, kRadius, kIterations, t);
                                     });
        // The terrain's relief is 0 to 1000 m at any N while its features
        // scale with the grid, so it is read as a map of fixed width: heights
        // in metres over 10 km, which gives steep-hill slopes at every N. The
        // peaks then lose about a quarter of their height: visible, yet the
        // landscape keeps its shape. One metre per cell would turn the same
        // relief into cliffs.
        constexpr float kExtentMetres = 10000.0f;
        Grid shaped, map, eroded;
        if (!median.cells.empty())
            if (const int code = landscape(c, demo, "", median, kExtentMetres, {}, &shaped, &map, &eroded);
                code != cli::kOk)
                return code;
        const std::pair<const char*, const Grid*> grids[] = {{"terrain.npy", &terrain},
                                                             {"median.npy", &median},
                                                             {"thermal.npy", &shaped},
                                                             {"flow.npy", &map},
                                                             {"eroded.npy", &eroded}};
        for (const auto& [name, grid] : grids) {
            if (grid->cells.empty()) continue;
            std::string said;
            if (const int code = write(c, demo, name,
                                       [&](PendingOutputs& outputs, const std::string& path) {
                                           return write_grid(outputs, path, *grid, {}, error_, said);
                                       });
                code != cli::kOk)
                return code;
        }

        if (const int code = dune_field(c, demo); code != cli::kOk) return code;

        // A real elevation model, read as users read theirs.
        if (dem_ != "none") {
            if (cli::interrupted()) return cancelled();
            Grid heights;
            std::string said;
            const cli::Stopwatch reading;
            if (!read_grid(dem_, ReadOptions{}, heights, error_, said)) {
                // The default sample is optional; a model asked for is not.
                if (dem_option_->given()) return cli::fail(cli::kIo, "%s", error_.c_str());
                demo.say("no real elevation model: " + error_ +
                         (std::filesystem::exists(dem_) ? "" : " (apt-get install python-matplotlib-data)"));
            } else {
                c.timings.read += reading.milliseconds();
                demo.record("read " + std::filesystem::path(dem_).filename().string(), "", reading.milliseconds());
                bool all = false;
                const std::vector<size_t> missing = cli::fill_missing(heights, all);
                if (all) return cli::fail(cli::kIo, "%s: no cell has a height", dem_.c_str());
                const double metres = cli::world_width(heights);
                const float extent = static_cast<float>(metres > 0.0 ? metres : kSampleCellMetres * heights.width);
                demo.say(cli::format("%s: %ux%u cells, %.1f km wide", dem_.c_str(), heights.width, heights.height,
                                     extent / 1000.0));
                if (const int code = landscape(c, demo, "dem-", heights, extent, missing, nullptr, nullptr, nullptr);
                    code != cli::kOk)
                    return code;
            }
        }
        if (cli::interrupted()) return cancelled();
        c.timings.total = c.elapsed();
        if (c.common.json) demo.print_json(dir_);
        return demo.status();
    }

  private:
    int cancelled() const {
        return cli::fail(cli::kDevice, "cancelled; %s/ holds only the files written before", dir_.c_str());
    }

    // Writes DIR/NAME through `writer(outputs, path)`, timed. Each file
    // replaces its old version at once: a demo run's files need not stand or
    // fall together. Returns kOk, or kIo or the cancel after a message.
    template <class Writer>
    int write(cli::Context& c, DemoRun& demo, const std::string& name, const Writer& writer) {
        if (cli::interrupted()) return cancelled();
        const cli::Stopwatch watch;
        PendingOutputs outputs;
        if (!writer(outputs, dir_ + "/" + name) || !outputs.commit(error_))
            return cli::fail(cli::kIo, "%s", error_.c_str());
        c.timings.write += watch.milliseconds();
        demo.record("write " + name, "", watch.milliseconds());
        return cli::kOk;
    }

    // Writes GALLERY/NAME: the picture's colour planes averaged over 2 x 2
    // blocks (in linear light, before the sRGB encoding), for a small copy.
    // `data` planes (a normal map) are stored as they are, not as light.
    int gallery_picture(cli::Context& c, const std::string& name, const Grid& planes, uint32_t width,
                        uint32_t height, bool data = false) {
        const uint32_t w = std::max<uint32_t>(width / 2, 1), h = std::max<uint32_t>(height / 2, 1);
        const size_t cells = size_t{width} * height, half = size_t{w} * h;
        std::vector<float> small(3 * half);
        for (size_t k = 0; k < 3; ++k)
            for (uint32_t y = 0; y < h; ++y)
                for (uint32_t x = 0; x < w; ++x) {
                    float sum = 0.0f;
                    int n = 0;
                    for (uint32_t dy = 0; dy < 2; ++dy)
                        for (uint32_t dx = 0; dx < 2; ++dx) {
                            const uint32_t sx = 2 * x + dx, sy = 2 * y + dy;
                            if (sx >= width || sy >= height) continue;
                            sum += planes.cells[k * cells + size_t{sy} * width + sx];
                            ++n;
                        }
                    small[k * half + size_t{y} * w + x] = sum / static_cast<float>(n);
                }
        const cli::Stopwatch watch;
        PendingOutputs outputs;
        const float* p = small.data();
        const std::string path = gallery_ + "/" + name;
        if (!(data ? write_png_rgb(outputs, path, w, h, data_bytes(small, half), error_)
                   : cli::write_picture(outputs, path, w, h, p, p + half, p + 2 * half, error_)) ||
            !outputs.commit(error_))
            return cli::fail(cli::kIo, "%s", error_.c_str());
        c.timings.write += watch.milliseconds();
        return cli::kOk;
    }

    // A dune field of its own: dunes need a square grid and hundreds of
    // iterations, so it is at most 256 x 256, whatever --size. Flat bedrock
    // under 2 to 3 m of loose sand, cells 1 m wide, one wind blowing east for
    // 600 iterations; lit from the south-east and tinted in the colour of
    // sand as dunes.png.
    int dune_field(cli::Context& c, DemoRun& demo) {
        const uint32_t side = std::min<uint32_t>(size_, 256);
        constexpr int32_t kIterations = 600;
        const size_t cells = size_t{side} * side;
        Grid sand{side, side, std::vector<float>(cells), {}};
        uint32_t state = 0x9E3779B9u;
        for (float& v : sand.cells) {
            state ^= state << 13, state ^= state >> 17, state ^= state << 5;
            v = 2.0f + static_cast<float>(state >> 8) * 0x1p-24f;
        }
        const std::vector<float> bedrock(cells, 0.0f);
        const double work = static_cast<double>(cells) * kIterations;
        const Grid field = demo.run("dunes", sand, work, [&](halden_queue* q, Grid& g, cli::Timing& t) {
            const halden_dune_parameters p = {static_cast<int32_t>(side), 1.0f, 1.0f, 0.0f, 1.0f, 90.0f, 0.0f,
                                              0.0f, kIterations, 0.5f, 5.0f, 0.2f, 0.5f, 5.0f, 15.0f, 33.0f, 68.0f,
                                              1, 1, 1};
            return cli::timed(work, t, [&] {
                return DuneSimulation(q, bedrock.data(), g.cells.data(), nullptr, &p, cli::callbacks());
            });
        });
        if (cli::interrupted()) return cancelled();
        if (field.cells.empty()) return cli::kOk;
        commands::Lighting lighting;
        lighting.azimuth = 135.0f;
        lighting.elevation = 30.0f;
        const Grid planes = demo.run("shading dunes", field, static_cast<double>(cells),
                                     [&](halden_queue* q, Grid& g, cli::Timing& t) {
                                         std::vector<float> all;
                                         const uint32_t status = commands::shade_grid(
                                             q, g, lighting, static_cast<float>(side), 1.0f, {}, all, t);
                                         g.cells = std::move(all);
                                         return status;
                                     });
        if (cli::interrupted()) return cancelled();
        if (planes.cells.empty()) return cli::kOk;
        Grid tinted = planes;
        static constexpr float kSand[3] = {1.1f, 0.82f, 0.52f};
        for (size_t k = 0; k < 3; ++k)
            for (size_t i = 0; i < cells; ++i) tinted.cells[k * cells + i] *= kSand[k];
        const float* t = tinted.cells.data();
        const auto dunes = [&](PendingOutputs& outputs, const std::string& path) {
            return cli::write_picture(outputs, path, side, side, t, t + cells, t + 2 * cells, error_);
        };
        if (const int code = write(c, demo, "dunes.png", dunes); code != cli::kOk || gallery_.empty()) return code;
        PendingOutputs outputs;
        if (!dunes(outputs, gallery_ + "/dunes.png") || !outputs.commit(error_))
            return cli::fail(cli::kIo, "%s", error_.c_str());
        return cli::kOk;
    }

    // Runs thermal shaping, flow and shading on `heights` (`extent` metres
    // wide; shaded with heights times kPictureRelief) and writes
    // PREFIXrelief.png and PREFIXflow.png, then erodes the shaped terrain,
    // shades it again and writes PREFIXeroded.png. Returns kOk, or kIo or
    // the cancel after a message; a failed step only leaves its results out.
    int landscape(cli::Context& c, DemoRun& demo, const std::string& prefix, const Grid& heights, float extent,
                  const std::vector<size_t>& missing, Grid* shaped_out, Grid* flow_out, Grid* eroded_out) {
        const halden_thermal_shaper_parameters thermal = {0, 0, 1.0f, extent, 0.125f, 1.0f, -0.5f, 0};
        const halden_flow_parameters flow = {0, 0, 0.5f, 1.0f, 1};
        const commands::Lighting lighting;
        const double mcells = static_cast<double>(heights.cells.size());
        Grid shaped =
            demo.run(prefix + "thermal shaping", heights, mcells, [&](halden_queue* q, Grid& g, cli::Timing& t) {
                return commands::run_thermal(q, g, nullptr, thermal, t);
            });
        if (cli::interrupted()) return cancelled();
        if (shaped.cells.empty()) return cli::kOk;
        shaped.georeference = heights.georeference;
        Grid map = demo.run(prefix + "flow", shaped, mcells, [&](halden_queue* q, Grid& g, cli::Timing& t) {
            const Grid source = g;
            return commands::run_flow(q, source, g, false, flow, t);
        });
        const auto shading = [&](const std::string& step, const Grid& grid) {
            return demo.run(step, grid, mcells, [&](halden_queue* q, Grid& g, cli::Timing& t) {
                std::vector<float> all;
                const uint32_t status = commands::shade_grid(q, g, lighting, extent, kPictureRelief, missing, all, t);
                g.cells = std::move(all);
                return status;
            });
        };
        // The relief pictures: shade_grid's colour planes. With --gallery,
        // the real model's pictures also go there at half size, named
        // without their prefix.
        const auto picture = [&](const std::string& name, const Grid& planes) {
            const size_t cells = shaped.cells.size();
            const float* p = planes.cells.data();
            const int code = write(c, demo, name, [&](PendingOutputs& outputs, const std::string& path) {
                return cli::write_picture(outputs, path, shaped.width, shaped.height, p, p + cells, p + 2 * cells,
                                          error_);
            });
            if (code != cli::kOk || gallery_.empty() || prefix != "dem-") return code;
            return gallery_picture(c, name.substr(prefix.size()), planes, shaped.width, shaped.height);
        };
        Grid planes = shading(prefix + "shading", shaped);
        if (cli::interrupted()) return cancelled();
        if (planes.cells.empty()) return cli::kOk;
        if (const int code = picture(prefix + "relief.png", planes); code != cli::kOk) return code;
        // Rock cells that wrap over the ground: cellular noise sliced along
        // the heights (in cells of the map), its cracks (F2 - F1) drawn dark
        // over the relief as PREFIXcells.png.
        const float cells_per_metre = static_cast<float>(shaped.width) / extent;
        const Grid cracks =
            demo.run(prefix + "cellular noise", shaped, mcells, [&](halden_queue* q, Grid& g, cli::Timing& t) {
                const halden_cellular3d_parameters p = {static_cast<int32_t>(g.width), static_cast<int32_t>(g.height),
                                                        24.0f, 0.0f, cells_per_metre, 1, 1.0f,
                                                        HALDEN_CELLULAR3D_EUCLIDEAN, 3.0f,
                                                        HALDEN_CELLULAR3D_F2_MINUS_F1, 0.05f, 2, 2.0f, 0.5f, 0, 1.0f,
                                                        0.0f, 0};
                const std::vector<float> heights = g.cells;
                return cli::timed(mcells, t, [&] {
                    return Cellular3D_Render(q, g.cells.data(), heights.data(), &p, cli::callbacks());
                });
            });
        if (cli::interrupted()) return cancelled();
        if (!cracks.cells.empty()) {
            Grid tinted = planes;
            const size_t cells = cracks.cells.size();
            for (size_t i = 0; i < tinted.cells.size(); ++i) {
                const float shade = 0.3f + 6.0f * cracks.cells[i % cells];
                tinted.cells[i] *= shade < 1.0f ? shade : 1.0f;
            }
            if (const int code = picture(prefix + "cells.png", tinted); code != cli::kOk) return code;
        }
        // A midwinter day's sunlight at 45 degrees north, relative to flat
        // open ground, from dark blue (shade) to pale yellow (sunny slopes)
        // as PREFIXsunlight.png. Shadows trace a square: a wide map is
        // padded by repeating its last row or column.
        const Grid sun = demo.run(prefix + "sunlight", shaped, mcells, [&](halden_queue* q, Grid& g, cli::Timing& t) {
            const uint32_t side = std::max(g.width, g.height);
            std::vector<float> square(size_t{side} * side), light(square.size());
            for (uint32_t y = 0; y < side; ++y)
                for (uint32_t x = 0; x < side; ++x)
                    square[size_t{y} * side + x] =
                        g.cells[size_t{std::min(y, g.height - 1)} * g.width + std::min(x, g.width - 1)];
            const halden_sunlight_parameters p = {static_cast<int32_t>(side), static_cast<int32_t>(side),
                                                  extent * static_cast<float>(side) / static_cast<float>(g.width),
                                                  kPictureRelief, 45.0f, 355, 355, 1, 15.0f, 0, 3.0f, 0.7f, 0.0f,
                                                  0.2f, 16, 1, 1, {0, 0}};
            const uint32_t status = cli::timed(mcells, t, [&] {
                return SunLightIntegral(q, square.data(), light.data(), nullptr, nullptr, &p, cli::callbacks());
            });
            for (uint32_t y = 0; y < g.height; ++y)
                for (uint32_t x = 0; x < g.width; ++x) g.cells[size_t{y} * g.width + x] = light[size_t{y} * side + x];
            return status;
        });
        if (cli::interrupted()) return cancelled();
        if (!sun.cells.empty()) {
            Grid ramp = planes;
            const size_t cells = sun.cells.size();
            for (size_t i = 0; i < cells; ++i) {
                const float v = std::min(1.0f, std::max(0.0f, sun.cells[i] / 1.6f));
                ramp.cells[i] = 0.08f + 0.92f * v;
                ramp.cells[i + cells] = 0.12f + 0.8f * v;
                ramp.cells[i + 2 * cells] = 0.35f + 0.2f * v;
            }
            if (const int code = picture(prefix + "sunlight.png", ramp); code != cli::kOk) return code;
        }
        // Craters: bowls with raised rims, a generated 64 x 64 stamp, added
        // to the shaped terrain at Poisson-disk spaced centres, from a
        // sixtieth to an eighth of the map across, shaded as PREFIXcraters.png.
        {
            constexpr int side = 64;
            std::vector<float> bowl(side * side);
            for (int i = 0; i < side * side; ++i) {
                const float dx = ((i % side) + 0.5f) * (2.0f / side) - 1.0f;
                const float dy = ((i / side) + 0.5f) * (2.0f / side) - 1.0f;
                const float r = std::sqrt(dx * dx + dy * dy), fade = 1.0f - (r - 0.75f) * 4.0f;
                bowl[i] = r < 0.75f ? r * r * (1.3f / 0.5625f) - 1.0f : (r < 1.0f ? 0.3f * fade * fade : 0.0f);
            }
            const halden_stamp_entry entry = {side, side, 0};
            const halden_stamps stamps = {bowl.data(), bowl.size(), &entry, 1, 0};
            const float across = static_cast<float>(shaped.width) / side;
            halden_stamp_parameters p = {};
            p.width = static_cast<int32_t>(shaped.width), p.height = static_cast<int32_t>(shaped.height);
            p.seed = 1, p.count = 70, p.spacing = static_cast<float>(shaped.width) / 12.0f;
            p.scale_min = across / 60.0f, p.scale_max = across / 8.0f, p.rotation_max = 360.0f;
            p.height_min = extent / 500.0f, p.height_max = extent / 150.0f;
            p.height_mode = HALDEN_STAMP_RELATIVE, p.blend = HALDEN_STAMP_ADD, p.opacity = 1.0f, p.smoothness = 1.0f;
            p.filter = HALDEN_STAMP_BILINEAR;
            p.slope_min = p.elevation_min = -INFINITY;
            p.slope_max = p.elevation_max = INFINITY;
            const Grid cratered =
                demo.run(prefix + "craters", shaped, mcells, [&](halden_queue* q, Grid& g, cli::Timing& t) {
                    return cli::timed(mcells, t, [&] {
                        return StampInstancer_Populate(q, g.cells.data(), &stamps, nullptr, nullptr, nullptr, nullptr,
                                                       &p, cli::callbacks());
                    });
                });
            if (cli::interrupted()) return cancelled();
            if (!cratered.cells.empty()) {
                const Grid cratered_planes = shading(prefix + "shading craters", cratered);
                if (cli::interrupted()) return cancelled();
                if (!cratered_planes.cells.empty())
                    if (const int code = picture(prefix + "craters.png", cratered_planes); code != cli::kOk)
                        return code;
            }
        }
        if (!map.cells.empty()) {
            map.width = shaped.width;
            map.height = shaped.height;
            cli::mark_missing(map, missing);
            if (const int code = picture(prefix + "flow.png", flow_over_relief(map, planes.cells)); code != cli::kOk)
                return code;
        }

        // The shaped terrain eroded, shaded as before.
        const float cell_size = extent / static_cast<float>(shaped.width);
        const halden_thermal_parameters weathering = demo_weathering(cell_size);
        const halden_erosion_parameters erosion = demo_erosion(cell_size);
        Grid weathered = demo.run(prefix + "thermal erosion", shaped, mcells,
                                  [&](halden_queue* q, Grid& g, cli::Timing& t) {
                                      return commands::run_thermal_erosion(q, g, nullptr, nullptr, nullptr,
                                                                           weathering, t);
                                  });
        if (cli::interrupted()) return cancelled();
        Grid eroded;
        if (!weathered.cells.empty())
            eroded = demo.run(prefix + "erosion", weathered, mcells, [&](halden_queue* q, Grid& g, cli::Timing& t) {
                return commands::run_erosion(q, g, nullptr, nullptr, {}, erosion, t);
            });
        if (cli::interrupted()) return cancelled();
        if (!eroded.cells.empty()) {
            const Grid eroded_planes = shading(prefix + "shading eroded", eroded);
            if (cli::interrupted()) return cancelled();
            if (!eroded_planes.cells.empty())
                if (const int code = picture(prefix + "eroded.png", eroded_planes); code != cli::kOk) return code;
            // Colour carried by the rivers: bands of colour by elevation
            // (sand, grass, red rock, snow) carried down the eroded terrain,
            // lit by its relief, as PREFIXcolour.png.
            if (!eroded_planes.cells.empty()) {
                static constexpr float palette[4][3] = {
                    {0.75f, 0.6f, 0.35f}, {0.3f, 0.5f, 0.2f}, {0.6f, 0.3f, 0.2f}, {0.85f, 0.85f, 0.9f}};
                const size_t cells = eroded.cells.size();
                const auto [low, high] = std::minmax_element(eroded.cells.begin(), eroded.cells.end());
                const float base = *low, span = *high > *low ? *high - *low : 1.0f;
                Grid bands{eroded.width, eroded.height, std::vector<float>(3 * cells), {}};
                for (size_t i = 0; i < cells; ++i) {
                    const int band = std::min(3, static_cast<int>(4.0f * (eroded.cells[i] - base) / span));
                    for (size_t k = 0; k < 3; ++k) bands.cells[k * cells + i] = palette[band][k];
                }
                const Grid carried =
                    demo.run(prefix + "colour transport", bands, mcells, [&](halden_queue* q, Grid& g, cli::Timing& t) {
                        const halden_color_transport_parameters p = {static_cast<int32_t>(g.width),
                                                                     static_cast<int32_t>(g.height), 1, 0.5f, 0.02f,
                                                                     1.0f, 1.0f, 2.0f};
                        float* rgb = g.cells.data();
                        return cli::timed(mcells, t, [&] {
                            return ColorTransportSimulation(q, eroded.cells.data(), rgb, rgb + cells, rgb + 2 * cells,
                                                            nullptr, &p, cli::callbacks());
                        });
                    });
                if (cli::interrupted()) return cancelled();
                if (!carried.cells.empty()) {
                    Grid lit = eroded_planes;
                    for (size_t i = 0; i < 3 * cells; ++i) lit.cells[i] *= 1.6f * carried.cells[i];
                    if (const int code = picture(prefix + "colour.png", lit); code != cli::kOk) return code;
                }
            }
        }
        // Rockfall on the eroded terrain: rocks half a cell to two cells in
        // radius break off its steepest flanks (the map is gentle, so the
        // source slope is low) and pile up below, shaded as PREFIXdebris.png.
        if (!eroded.cells.empty()) {
            const Grid rocky = demo.run(prefix + "debris", eroded, mcells, [&](halden_queue* q, Grid& g, cli::Timing& t) {
                const halden_debris_parameters p = {static_cast<int32_t>(g.width), static_cast<int32_t>(g.height),
                                                    cell_size, 1.0f, 1, 0.5f, 0.5f * cell_size, 2.0f * cell_size,
                                                    2.5f, 22.0f, 16.0f, 0.3f, 4000, HALDEN_DEBRIS_ASYNCHRONOUS, 8,
                                                    HALDEN_DEBRIS_SHARP, 7, 0.5f, 0.4f, 8.0f, 0.02f};
                return cli::timed(mcells, t, [&] {
                    DebrisSimulation(q, g.cells.data(), nullptr, nullptr, nullptr, nullptr, &p);
                    return HALDEN_STATUS_OK;
                });
            });
            if (cli::interrupted()) return cancelled();
            if (!rocky.cells.empty()) {
                const Grid rocky_planes = shading(prefix + "shading debris", rocky);
                if (cli::interrupted()) return cancelled();
                if (!rocky_planes.cells.empty())
                    if (const int code = picture(prefix + "debris.png", rocky_planes); code != cli::kOk) return code;
            }
        }
        // A survey of the eroded terrain: one point per cell on average at
        // places drawn by xorshift, a little noise in the heights, two
        // circles left unsurveyed; gridded by the mean with pull-push
        // filling, shaded as PREFIXpoints.png.
        if (!eroded.cells.empty()) {
            const Grid surveyed = demo.run(prefix + "point cloud", eroded, mcells, [&](halden_queue* q, Grid& g,
                                                                                        cli::Timing& t) {
                const float w = static_cast<float>(g.width), h = static_cast<float>(g.height);
                std::vector<float> xyz;
                xyz.reserve(3 * g.cells.size());
                uint32_t s = 0x2545F491u;
                const auto draw = [&s] {
                    s ^= s << 13;
                    s ^= s >> 17;
                    s ^= s << 5;
                    return static_cast<float>(s >> 8) * 0x1p-24f;
                };
                for (size_t i = 0; i < g.cells.size(); ++i) {
                    const float x = draw() * w, y = draw() * h, noise = (draw() - 0.5f) * 0.0005f * extent;
                    const float ax = x - 0.3f * w, ay = y - 0.4f * h, bx = x - 0.7f * w, by = y - 0.65f * h;
                    if (ax * ax + ay * ay < 0.01f * w * w || bx * bx + by * by < 0.005f * w * w) continue;
                    const size_t cell = static_cast<size_t>(y) * g.width + static_cast<size_t>(x);
                    xyz.insert(xyz.end(), {x, y, g.cells[cell] + noise});
                }
                const halden_points cloud{xyz.data(), static_cast<uint32_t>(xyz.size() / 3), 0};
                halden_point_parameters p{};
                p.transform.width = static_cast<int32_t>(g.width);
                p.transform.height = static_cast<int32_t>(g.height);
                p.transform.scale = p.transform.depth_divisor = 1.0f;
                p.mode = HALDEN_POINTS_MEAN, p.fill = HALDEN_POINTS_FILL_PULL_PUSH, p.power = 2.0f;
                return cli::timed(mcells, t, [&] {
                    return MeshRasterizer_RenderPointCloud(q, &cloud, g.cells.data(), nullptr, &p, cli::callbacks());
                });
            });
            if (cli::interrupted()) return cancelled();
            if (!surveyed.cells.empty()) {
                const Grid surveyed_planes = shading(prefix + "shading points", surveyed);
                if (cli::interrupted()) return cancelled();
                if (!surveyed_planes.cells.empty())
                    if (const int code = picture(prefix + "points.png", surveyed_planes); code != cli::kOk)
                        return code;
            }
        }
        // The eroded terrain's detail baked for a low-polygon mesh of it (a
        // vertex every 16th cell), written as PREFIXnormals.png in the 0 to 1
        // encoding, linear bytes as engines read normal maps.
        if (!eroded.cells.empty()) {
            const Grid baked = demo.run(prefix + "tangent normals", eroded, mcells, [&](halden_queue* q, Grid& g,
                                                                                      cli::Timing& t) {
                // The last row and column of vertices on the grid's last cells.
                const uint32_t step = 16, nx = (g.width + step - 2) / step + 1, ny = (g.height + step - 2) / step + 1;
                std::vector<float> vertices;
                std::vector<uint32_t> triangles;
                for (uint32_t j = 0; j < ny; ++j)
                    for (uint32_t i = 0; i < nx; ++i) {
                        const uint32_t x = std::min(i * step, g.width - 1), y = std::min(j * step, g.height - 1);
                        vertices.insert(vertices.end(), {x + 0.5f, y + 0.5f, g.cells[size_t{y} * g.width + x]});
                    }
                for (uint32_t j = 0; j + 1 < ny; ++j)
                    for (uint32_t i = 0; i + 1 < nx; ++i) {
                        const uint32_t a = j * nx + i;
                        triangles.insert(triangles.end(), {a, a + nx, a + 1, a + 1, a + nx, a + nx + 1});
                    }
                const halden_mesh mesh{vertices.data(), nx * ny, 0, triangles.data(),
                                       static_cast<uint32_t>(triangles.size() / 3), 0};
                halden_tangent_parameters p{};
                p.transform.width = static_cast<int32_t>(g.width);
                p.transform.height = static_cast<int32_t>(g.height);
                p.transform.scale = p.transform.depth_divisor = 1.0f;
                p.terrain_size = extent, p.height_scale = kPictureRelief, p.margin = 2;
                p.encoding = HALDEN_TANGENT_UNSIGNED;
                const size_t cells = g.cells.size();
                std::vector<float> rgb(3 * cells);
                const uint32_t status = cli::timed(mcells, t, [&] {
                    return MeshRasterizer_ComputeTangentSpaceNormals(q, &mesh, g.cells.data(), rgb.data(),
                                                                     rgb.data() + cells, rgb.data() + 2 * cells, &p,
                                                                     cli::callbacks());
                });
                g.cells = std::move(rgb);
                return status;
            });
            if (cli::interrupted()) return cancelled();
            if (!baked.cells.empty()) {
                const size_t cells = size_t{baked.width} * baked.height;
                if (const int code = write(c, demo, prefix + "normals.png",
                                           [&](PendingOutputs& outputs, const std::string& path) {
                                               return write_png_rgb(outputs, path, baked.width, baked.height,
                                                                    data_bytes(baked.cells, cells), error_);
                                           });
                    code != cli::kOk)
                    return code;
                if (!gallery_.empty() && prefix == "dem-")
                    if (const int code = gallery_picture(c, "normals.png", baked, baked.width, baked.height, true);
                        code != cli::kOk)
                        return code;
            }
        }
        if (shaped_out) *shaped_out = std::move(shaped);
        if (flow_out) *flow_out = std::move(map);
        if (eroded_out) *eroded_out = std::move(eroded);
        return cli::kOk;
    }

    uint32_t size_ = 1024;
    std::string dir_ = "demo-output", dem_ = kSampleDem, gallery_, error_;
    const cli::Option* dem_option_ = nullptr;
};

}  // namespace

std::unique_ptr<cli::Command> commands::demo() { return std::make_unique<DemoCommand>(); }
