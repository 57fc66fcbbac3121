// SPDX-License-Identifier: Apache-2.0
#include "commands/runs.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "cli/device.hpp"

namespace commands {
namespace {

halden_lighting_parameters lighting_record(const Lighting& l, const Grid& heights, float terrain_size,
                                           float height_scale) {
    halden_lighting_parameters p{};
    p.width = static_cast<int32_t>(heights.width);
    p.height = static_cast<int32_t>(heights.height);
    p.terrain_size = terrain_size;
    p.height_scale = height_scale;
    constexpr double kRadians = 3.14159265358979323846 / 180.0;
    const double az = l.azimuth * kRadians, el = l.elevation * kRadians;
    p.sun_direction[0] = static_cast<float>(std::cos(el) * std::cos(az));
    p.sun_direction[1] = static_cast<float>(std::cos(el) * std::sin(az));
    p.sun_direction[2] = static_cast<float>(std::sin(el));
    p.shadow_samples = static_cast<int32_t>(l.rings);
    p.sun_size = l.sun_size;
    p.ao_mode = l.hybrid ? 1 : 0;
    p.ao_directions = p.hybrid_ao_directions = static_cast<int32_t>(l.sky_directions);
    p.light_scale = 1.0f;
    p.sun_strength = 1.0f;
    p.sky_strength = 0.4f;
    const float sun_color[3] = {1.0f, 0.95f, 0.85f}, sky_color[3] = {0.6f, 0.7f, 1.0f};
    std::memcpy(p.sun_color, sun_color, sizeof sun_color);
    std::memcpy(p.sky_color, sky_color, sizeof sky_color);
    p.exposure = l.exposure;
    p.sun_enabled = 1;
    p.sky_enabled = 1;
    p.shadows_enabled = l.shadows ? 1 : 0;
    p.ao_enabled = l.sky_visibility ? 1 : 0;
    p.ao_from_caller = 0;
    return p;
}

// `grid` extended to a square by repeating its last row or column.
Grid pad_to_square(const Grid& grid) {
    const uint32_t side = std::max(grid.width, grid.height);
    Grid square{side, side, std::vector<float>(size_t{side} * side), grid.georeference};
    for (uint32_t y = 0; y < side; ++y) {
        const float* row = grid.cells.data() + size_t{std::min(y, grid.height - 1)} * grid.width;
        float* to = square.cells.data() + size_t{y} * side;
        std::copy_n(row, grid.width, to);
        std::fill(to + grid.width, to + side, row[grid.width - 1]);
    }
    return square;
}

}  // namespace

uint32_t run_median(halden_queue* queue, Grid& grid, uint32_t radius, uint32_t iterations, cli::Timing& timing) {
    const halden_median_filter_parameters parameters = {grid.width, radius, iterations, 0};
    return cli::timed(static_cast<double>(grid.cells.size()) * iterations, timing, [&] {
        MedianFilter(queue, grid.cells.data(), &parameters);
        return HALDEN_STATUS_OK;
    });
}

uint32_t run_thermal(halden_queue* queue, Grid& grid, const float* mask, halden_thermal_shaper_parameters parameters,
                     cli::Timing& timing) {
    parameters.width = static_cast<int32_t>(grid.width);
    parameters.height = static_cast<int32_t>(grid.height);
    return cli::timed(static_cast<double>(grid.cells.size()), timing, [&] {
        return ThermalShaper_Process(queue, grid.cells.data(), mask, &parameters, cli::callbacks());
    });
}

uint32_t run_flow(halden_queue* queue, const Grid& heights, Grid& map, bool masked, halden_flow_parameters parameters,
                  cli::Timing& timing) {
    parameters.width = static_cast<int32_t>(heights.width);
    parameters.height = static_cast<int32_t>(heights.height);
    map.width = heights.width;
    map.height = heights.height;
    if (!masked) map.cells.assign(heights.cells.size(), 0.0f);
    return cli::timed(static_cast<double>(heights.cells.size()), timing, [&] {
        return FlowSimulation(queue, masked ? 0u : HALDEN_FLOW_NO_MASK, heights.cells.data(), map.cells.data(),
                              &parameters, cli::callbacks());
    });
}

halden_thermal_parameters thermal_erosion_defaults(float cell_size, float height_scale) {
    using namespace defaults;
    halden_thermal_parameters p{};
    p.cell_size = cell_size;
    p.height_scale = height_scale;
    p.talus_angle = kTalusAngle;
    p.talus_noise = kTalusNoise;
    p.rate = kThermalRate;
    p.iterations = static_cast<int32_t>(kThermalIterations);
    p.levels = static_cast<int32_t>(kThermalLevels);
    p.burial_scale = kBurialScale;
    p.mask_strength = kMaskStrength;
    p.seed = kThermalSeed;
    return p;
}

halden_erosion_parameters erosion_defaults(float cell_size, float height_scale) {
    using namespace defaults;
    halden_erosion_parameters p{};
    p.cell_size = cell_size;
    p.height_scale = height_scale;
    p.droplets = kDroplets;
    p.rounds = static_cast<int32_t>(kRounds);
    p.lifetime = kLifetimeCells * cell_size;
    p.inertia = kInertia;
    p.capacity = kCapacity;
    p.min_slope = kMinSlope;
    p.erosion_rate = kErosionRate;
    p.deposition_rate = kDepositionRate;
    p.evaporation = kEvaporation;
    p.gravity = kGravity;
    p.brush_radius = kBrushRadius;
    p.flow_coupling = static_cast<int32_t>(kFlowCoupling);
    p.levels = static_cast<int32_t>(kErosionLevels);
    p.detail_scale = kDetailHeights * height_scale;
    p.seed = kErosionSeed;
    return p;
}

namespace {

// `map`, when not null, sized to `grid` and zero-filled; its cells for the
// export, or null.
float* output_for(const Grid& grid, Grid* map) {
    if (!map) return nullptr;
    map->width = grid.width;
    map->height = grid.height;
    map->georeference = grid.georeference;
    map->cells.assign(grid.cells.size(), 0.0f);
    return map->cells.data();
}

}  // namespace

uint32_t run_thermal_erosion(halden_queue* queue, Grid& grid, const float* mask, const float* hardness,
                             Grid* deposition, halden_thermal_parameters parameters, cli::Timing& timing) {
    parameters.width = static_cast<int32_t>(grid.width);
    parameters.height = static_cast<int32_t>(grid.height);
    float* const laid = output_for(grid, deposition);
    return cli::timed(static_cast<double>(grid.cells.size()), timing, [&] {
        return ThermalSimulation(queue, grid.cells.data(), mask, laid, hardness, &parameters, cli::callbacks());
    });
}

uint32_t run_erosion(halden_queue* queue, Grid& grid, const float* rain, const float* hardness,
                     const ErosionMaps& maps, halden_erosion_parameters parameters, cli::Timing& timing) {
    parameters.width = static_cast<int32_t>(grid.width);
    parameters.height = static_cast<int32_t>(grid.height);
    float* const eroded = output_for(grid, maps.erosion);
    float* const laid = output_for(grid, maps.deposition);
    float* const water = output_for(grid, maps.discharge);
    return cli::timed(static_cast<double>(grid.cells.size()), timing, [&] {
        return ParallelErosionSimulation(queue, grid.cells.data(), rain, hardness, eroded, laid, water, &parameters,
                                         cli::callbacks());
    });
}

std::string describe_lighting(const Lighting& l) {
    char text[160];
    const uint32_t samples = 3 * l.rings * l.rings + 3 * l.rings + 1;
    char shadows[48] = "no shadows", sky[64] = "no sky visibility";
    if (l.shadows) std::snprintf(shadows, sizeof shadows, "%u sun sample%s", samples, samples == 1 ? "" : "s");
    if (l.sky_visibility)
        std::snprintf(sky, sizeof sky, "%u sky direction%s (%s)", l.sky_directions, l.sky_directions == 1 ? "" : "s",
                      l.hybrid ? "hybrid" : "traced");
    std::snprintf(text, sizeof text, "sun %g/%g, %s, %s", l.azimuth, l.elevation, shadows, sky);
    return text;
}

uint32_t shade_grid(halden_queue* queue, const Grid& heights, const Lighting& lighting, float terrain_size,
                    float height_scale, const std::vector<size_t>& missing, std::vector<float>& planes,
                    cli::Timing& timing) {
    const bool pad = (lighting.shadows || lighting.sky_visibility) && !heights.square();
    const Grid padded = pad ? pad_to_square(heights) : Grid{};
    const Grid& traced = pad ? padded : heights;
    const float traced_size = terrain_size * static_cast<float>(traced.width) / static_cast<float>(heights.width);
    const halden_lighting_parameters parameters = lighting_record(lighting, traced, traced_size, height_scale);
    const size_t traced_cells = traced.cells.size(), cells = heights.cells.size();
    std::vector<float> all(6 * traced_cells, 0.0f);
    float* const p = all.data();
    const uint32_t status = cli::timed(static_cast<double>(traced_cells), timing, [&] {
        return Shade(queue, traced.cells.data(), p + 3 * traced_cells,
                     lighting.shadows ? p + 4 * traced_cells : nullptr,
                     lighting.sky_visibility ? p + 5 * traced_cells : nullptr, p, p + traced_cells,
                     p + 2 * traced_cells, nullptr, nullptr, nullptr, &parameters, cli::callbacks());
    });
    planes.assign(6 * cells, 0.0f);
    for (size_t k = 0; k < 6; ++k)
        for (uint32_t y = 0; y < heights.height; ++y)
            std::copy_n(p + k * traced_cells + size_t{y} * traced.width, heights.width,
                        planes.begin() + k * cells + size_t{y} * heights.width);
    for (const size_t i : missing)
        for (size_t k = 0; k < 3; ++k) planes[k * cells + i] = 0.0f;
    return status;
}

}  // namespace commands
