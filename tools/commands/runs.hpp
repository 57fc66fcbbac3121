// SPDX-License-Identifier: Apache-2.0
// The operation calls that a command and the demo both make, so that the
// demo's results are the commands' bit for bit.
#pragma once

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
