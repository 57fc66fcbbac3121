// SPDX-License-Identifier: Apache-2.0
// The operation calls that a command and the demo both make, so that the
// demo's results are the commands' bit for bit.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/timing.hpp"
#include "formats/grid_io.hpp"
#include "halden/halden.h"

namespace commands {

// Median-filters the square grid in place; the export reports failures
// through the error slot only, which cli::timed turns into a status.
uint32_t run_median(halden_queue* queue, Grid& grid, uint32_t radius, uint32_t iterations, cli::Timing& timing);

// Shapes the grid in place (`mask` may be null).
uint32_t run_thermal(halden_queue* queue, Grid& grid, const float* mask, halden_thermal_shaper_parameters parameters,
                     cli::Timing& timing);

// Computes the flow map of `heights` into `map`. `map` is resized to the
// grid and, when `masked`, must already hold the mask (the library reads it,
// then overwrites it with the map); otherwise it is zero-filled.
uint32_t run_flow(halden_queue* queue, const Grid& heights, Grid& map, bool masked, halden_flow_parameters parameters,
                  cli::Timing& timing);

// The defaults of 'halden thermal-erode' and 'halden erode', in this one
// place: the commands' options start from them, their help quotes them, and
// the demo's runs start from them too (thermal_erosion_defaults,
// erosion_defaults).
namespace defaults {
// ThermalSimulation
inline constexpr float kTalusAngle = 35.0f;  // degrees
inline constexpr float kTalusNoise = 0.2f;
inline constexpr float kThermalRate = 0.5f;
inline constexpr uint32_t kThermalIterations = 64;
inline constexpr uint32_t kThermalLevels = 0;  // as many as halve the shorter side down to 48 cells
inline constexpr float kBurialScale = 1.0f;    // world height
inline constexpr float kMaskStrength = 1.0f;
inline constexpr uint32_t kThermalSeed = 1;
// ParallelErosionSimulation
inline constexpr float kDroplets = 0.25f;  // per cell per round
inline constexpr uint32_t kRounds = 8;
inline constexpr float kLifetimeCells = 64.0f;  // lifetime = kLifetimeCells x cell_size
inline constexpr float kInertia = 0.3f;
inline constexpr float kCapacity = 0.05f;
inline constexpr float kMinSlope = 0.01f;
inline constexpr float kErosionRate = 0.3f;
inline constexpr float kDepositionRate = 0.3f;
inline constexpr float kEvaporation = 0.02f;
inline constexpr float kGravity = 4.0f;
inline constexpr float kBrushRadius = 3.0f;  // cells
inline constexpr uint32_t kFlowCoupling = 1;
inline constexpr uint32_t kErosionLevels = 0;  // as many as halve the shorter side down to about 48 cells
inline constexpr float kDetailHeights = 10.0f;  // detail_scale = kDetailHeights x height_scale
inline constexpr uint32_t kErosionSeed = 1;
}  // namespace defaults

// Records filled from `defaults` for cells `cell_size` wide and heights
// `height_scale` high; the size is left 0 (the runs below set it).
halden_thermal_parameters thermal_erosion_defaults(float cell_size, float height_scale);
halden_erosion_parameters erosion_defaults(float cell_size, float height_scale);

// Weathers the grid in place. `mask` and `hardness` may be null; so may
// `deposition`, which otherwise is resized to the grid and receives the
// thickness of loose material laid down.
uint32_t run_thermal_erosion(halden_queue* queue, Grid& grid, const float* mask, const float* hardness,
                             Grid* deposition, halden_thermal_parameters parameters, cli::Timing& timing);

// Erodes the grid in place with water droplets. `rain` and `hardness` may be
// null; so may each of `maps` (erosion, deposition, discharge), which
// otherwise is resized to the grid and receives that map.
struct ErosionMaps {
    Grid* erosion = nullptr;
    Grid* deposition = nullptr;
    Grid* discharge = nullptr;
};
uint32_t run_erosion(halden_queue* queue, Grid& grid, const float* rain, const float* hardness,
                     const ErosionMaps& maps, halden_erosion_parameters parameters, cli::Timing& timing);

// What 'halden shade' lights with unless told otherwise.
struct Lighting {
    float azimuth = 225.0f;   // degrees from +x towards +y: light from the upper left
    float elevation = 35.0f;  // degrees above the horizon
    uint32_t rings = 1;       // shadow sample rings across the sun's disc
    float sun_size = 0.53f;   // degrees
    uint32_t sky_directions = 32;
    bool hybrid = false;
    bool shadows = true;
    bool sky_visibility = true;
    // The sky term is 0.4 x the sky visibility, which is 4 x the mean cosine
    // of the open sky (about 2.15 on open flat ground), so sunlit ground comes
    // to about 1.35 in blue and would mostly clip at exposure 1. At 0.6 no
    // cell of the demo terrain clips (its brightest reach 0.82), and even flat
    // ground under an overhead sun, the brightest case, stays at about 1.
    float exposure = 0.6f;
};

// "sun 225/35, 7 sun samples, 32 sky directions (traced)"
std::string describe_lighting(const Lighting& lighting);

// Shades `heights` of any shape into `planes`: red, green, blue, diffuse,
// shadow and sky visibility, each of the grid's shape, one after another.
// Shadows and sky visibility are traced over a square, so another shape is
// extended to one by repeating its last row or column and the results are
// cropped back. Cells listed in `missing` come out black. Returns the
// export's status.
uint32_t shade_grid(halden_queue* queue, const Grid& heights, const Lighting& lighting, float terrain_size,
                    float height_scale, const std::vector<size_t>& missing, std::vector<float>& planes,
                    cli::Timing& timing);

}  // namespace commands
