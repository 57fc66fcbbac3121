// SPDX-License-Identifier: Apache-2.0
// Dunes: sand over a fixed bedrock, lifted where the wind is exposed,
// carried downwind in hops and laid down in expected shares, then slid down
// to its angle of repose.
//
// The sand is held in 64-bit fixed point (units of 2^-fixed_shift height)
// and every transfer is a whole number of units taken from one cell and
// given to another, so the volume is kept exactly and the result does not
// depend on the order in which the device adds.
//
// One iteration:
//  1. heights = bedrock + sand (grid A);
//  2. the fast blur, radius 12, A -> B -> C -> B -> C: C is the smooth
//     terrain that turns the wind aside and speeds it up over crests;
//  3. lift: per cell the local wind, the wind shadow from the upwind horizon,
//     the sand lifted; what is airborne there hops downwind and is spread
//     over the four cells around its landing point (integer atomics);
//  4. deposit: each cell keeps the expected share of what landed on it, the
//     rest stays airborne for the next iteration;
//  5. avalanche: the thermal module's outflow (capped by the sand a cell
//     holds) and its fixed-point gather, twice.
// Airborne sand lands where it is after the last iteration.
#pragma once

#include <cstdint>
#include <string>

#include "compute/compute.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"

namespace arrakis {

// The module's copy of the caller's callback record, replaced on every call.
extern halden_callbacks callbacks;

inline constexpr int max_size = 46340;
inline constexpr int max_iterations = 100000;
inline constexpr int fixed_shift = 20;
// The thickest sand a cell may hold on input, in height units: keeps every
// sum of the whole grid's sand inside 63 bits of fixed point.
inline constexpr float max_sand = 1048576.0f;  // 2^20
inline constexpr float blur_radius = 12.0f;
inline constexpr int avalanche_passes = 2;

using fixed_grid = halden::compute::usm_ptr<std::int64_t, 2>;

// Why a record cannot be run (naming the field), or empty when it can.
std::string check(const Parameters& p);
// Why the caller's grids cannot be used (naming the grid), or empty.
std::string check_grids(const Parameters& p, const float* bedrock, const float* sand, const float* vegetation);
// 68 bytes per cell (56 used: five float grids besides the inputs, three
// fixed-point grids).
std::uint64_t memory_estimate(const Parameters& p);

// Per-iteration constants worked out on the host (trigonometry included).
struct wind_constants {
    float wx, wy;          // wind direction times speed
    float slope_scale;     // height units to slope: height_scale / cell_size
    float warp, speed_up;  // as in the record
    float tan_shadow_min, tan_shadow_max;
    float slab, hop;  // in height units and cells
    int n;
    bool periodic;
    std::uint32_t seed, round;
};
wind_constants wind_of(const Parameters& p, int iteration);

class Arrakis {
public:
    // Copies the record and uploads the grids (vegetation may be null). The
    // caller's arrays must outlive the object.
    Arrakis(halden::compute::queue& q, const float* h_bedrock, float* h_sand, const float* h_vegetation,
            const Parameters& parameters, const halden_callbacks* callbacks);
    ~Arrakis();
    Arrakis(const Arrakis&) = delete;
    Arrakis& operator=(const Arrakis&) = delete;

    // Runs every iteration and writes the sand back, unless cancelled (false)
    // or the device reported a failure meanwhile.
    bool process();

    // The steps of one iteration; public because nvcc needs kernel-launching
    // members to be.
    void load_sand();
    void compute_heights(float* cap);
    void prepare_talus();
    void lift_and_hop(const wind_constants& k);
    void deposit(bool abrasion);
    void avalanche();
    void land_airborne();
    void write_back();

private:
    halden::compute::queue& m_queue;
    Parameters m_parameters;
    float* m_sand_out;
    halden_callbacks m_callbacks;
    int m_n;
    halden::core::grid m_bedrock, m_sand_in, m_vegetation;
    fixed_grid m_sand, m_airborne, m_landed;
    // A: heights; B: blur scratch, then the avalanche's caps; C: the blurred
    // terrain, then the avalanche's outflow factors.
    halden::core::grid m_heights, m_scratch, m_smooth;
    halden::core::grid m_talus, m_shadow;
};

}  // namespace arrakis
