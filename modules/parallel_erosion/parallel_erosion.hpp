// SPDX-License-Identifier: Apache-2.0
// Hydraulic erosion by droplets, run coarse to fine over a Laplacian pyramid.
//
// Every round spawns its droplets at hashed positions and runs them, each on
// its own, against the heights as the round found them. A droplet's path does
// not depend on its load, so a first pass traces the paths and gathers the
// water stepping off each cell, and the eroding pass lets each step take only
// its water's share of the cell's drop: however many droplets cross a cell,
// a round lowers it by about one drop, and the rounds stay stable. What they take up and
// lay down is gathered in 64-bit fixed point with integer atomics, whose sums
// do not depend on the order of their terms, and applied after the round.
// Erosion is asked for at the droplet's cell and spread over the brush by a
// gather afterwards, in integer shares whose remainder stays at the centre,
// so no unit of sediment is lost or made: what droplets take up equals what
// they lay down plus what leaves the grid with them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "compute/compute.hpp"
#include "core/accumulate.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"

namespace parallel_erosion {

using halden::core::grid;
class LaplacianLevel;

// The module's copy of the caller's callback record, replaced on every call.
extern halden_callbacks callbacks;

inline constexpr int max_levels = 64;
inline constexpr int max_rounds = 100000;
inline constexpr float max_droplets = 16.0f;
inline constexpr float max_brush_radius = 8.0f;
// Sediment, water and momentum are counted in units of 2^-24.
inline constexpr int fixed_shift = 24;
// How strongly a coupled droplet leans towards the last round's mean flow.
inline constexpr float lean = 0.5f;

// Why a record cannot be run (naming the field), or empty when it can.
std::string check(const Parameters& p);
// About 140 bytes per cell: the level's ten grids, six fixed-point grids,
// the brush's padded requests and softness, and the coarser levels.
std::uint64_t memory_estimate(const Parameters& p);

namespace plan {
int levels(const Parameters& p);
// The brush taps as (dx, dy, weight) triples, weights in 2^-16 of the
// erosion a droplet asks for, from max(radius - distance, 0); the centre is
// not listed: it keeps what its taps do not take.
std::vector<std::int32_t> brush(float radius);
}  // namespace plan

// Sediment totals of a run in fixed-point units, gathered when asked for.
struct mass {
    std::int64_t taken = 0;  // taken up by droplets
    std::int64_t spread = 0; // removed from the cells (the same, spread by the brush)
    std::int64_t laid = 0;   // laid down
    std::int64_t left = 0;   // carried off the grid
};

// The fixed-point accumulators of one level's round.
struct round_grids {
    std::int64_t* request;  // erosion asked for at a droplet's cell
    std::int64_t* eroded;   // the same, spread over the brush
    std::int64_t* laid;
    std::int64_t* flux;     // water passing
    std::int64_t* momentum; // water times direction, x then y (coupled runs)
    std::int64_t* left;     // one total
    std::int64_t* steps;    // droplet steps traced, one total
    const float* passing;   // water stepping off each cell in this round
    std::uint32_t* overflow;
};

struct round_constants {
    int w, h;
    std::uint32_t seed, round;
    std::uint32_t count;  // droplets spawned
    int steps;            // lifetime in steps of one cell
    float slope_scale;    // height units to world slope over one cell: height_scale / cell
    float inertia, capacity, min_slope, erosion_rate, deposition_rate, evaporation, gravity;
    bool coupled;
};

// Walks the round's droplets against `heights` without eroding, gathering
// the water stepping off each cell into `flux` and, coupled, its momentum.
// On the host the droplets run in lane groups that take them from the
// counter `claimed`, unless `host_lanes` is false (one work item per
// droplet, as on a device): the same bits either way.
void trace_droplets(halden::compute::queue& q, const float* heights, const float* rain, const float* mean_x,
                    const float* mean_y, const round_grids& g, const round_constants& k, std::int32_t* claimed,
                    bool host_lanes = true);
// Walks them again, now eroding and laying down. A step's share of its
// cell's drop is its water over the water `passing` the cell.
void run_droplets(halden::compute::queue& q, const float* heights, const float* rain, const float* hardness,
                  const float* mean_x, const float* mean_y, const round_grids& g, const round_constants& k,
                  std::int32_t* claimed, bool host_lanes = true);
// The brush works on grids with a margin of `reach` cells on every side,
// rows w + 2 reach long. soft = 65536 less the hardness in 2^-16 (65536
// without hardness), 0 in the margin, where taps take nothing.
void soften(halden::compute::queue& q, const float* hardness, std::int32_t* soft, int w, int h, int reach);
// padded = the requests with a zero margin.
void pad(halden::compute::queue& q, const std::int64_t* request, std::int64_t* padded, int w, int h, int reach);
// eroded = the padded requests spread over the brush `taps` (n of them,
// within `reach`), each tap's weight scaled by the softness of the cell it
// takes from.
void spread(halden::compute::queue& q, const std::int64_t* padded, const std::int32_t* soft, const std::int32_t* taps,
            int n, int reach, std::int64_t* eroded, int w, int h);

class ParallelErosion {
public:
    // Copies the record and uploads the grids; every pointer but h_heights
    // may be null. The caller's arrays must outlive the object.
    ParallelErosion(halden::compute::queue& q, float* h_heights, const float* h_rain, const float* h_hardness,
                    float* h_erosion, float* h_deposition, float* h_discharge, const Parameters& parameters,
                    const halden_callbacks* callbacks);
    ~ParallelErosion();
    ParallelErosion(const ParallelErosion&) = delete;
    ParallelErosion& operator=(const ParallelErosion&) = delete;

    // Erodes and writes the results back, unless cancelled (false) or the
    // device reported a failure meanwhile.
    bool process();

    // Sums the sediment totals after every round (a synchronisation and a
    // copy per round); for tests.
    void count_mass() { m_count_mass = true; }
    const mass& totals() const { return m_mass; }
    // Droplet steps walked, over every level and round (each walked twice:
    // traced, then eroding).
    std::uint64_t steps_run() const { return m_steps; }
    // Runs the host's droplets one work item each, as a device does, rather
    // than in lane groups; for tests.
    void without_host_lanes() { m_host_lanes = false; }

private:
    bool erode(LaplacianLevel& level, int level_index);
    bool report_progress();

    halden::compute::queue& m_queue;
    Parameters m_parameters;
    float* m_heights;
    float *m_erosion, *m_deposition, *m_discharge;
    halden_callbacks m_callbacks;
    grid m_rain, m_hardness;
    std::unique_ptr<LaplacianLevel> m_finest;
    halden::compute::usm_ptr<std::int32_t, 1> m_taps;
    int m_tap_count = 0;
    int m_reach = 0;  // the brush's reach in cells
    double m_done = 0.0, m_total = 0.0;
    bool m_count_mass = false;
    bool m_host_lanes = true;
    mass m_mass;
    std::uint64_t m_steps = 0;
    int m_rounds_run = 0;
};

}  // namespace parallel_erosion
