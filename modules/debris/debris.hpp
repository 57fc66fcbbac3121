// SPDX-License-Identifier: Apache-2.0
// Rock debris: rocks break off steep slopes, fall, bounce and roll down the
// terrain as point masses, and come to rest as scree and boulders that are
// rendered into the heights.
//
// Each rock is one work item from its source to its rest, stepping with a
// fixed time step on a surface that is the height field seen through the
// rock's footprint: four bilinear samples half a cell around it give its
// height and gradient, so the gradient varies continuously and a rock slowed
// by friction settles where the slope is gentler than the friction angle. In
// contact, gravity pulls along the slope and Coulomb friction (tan of the
// friction angle times the normal force) brakes; an impact keeps the
// restitution's share of the normal speed and loses friction times the normal
// impulse from the tangential one. The energy lost to friction grows with the
// horizontal distance run, so the runout reaches about as far as a line at
// the friction angle below the source allows (the shadow angle).
//
// Rocks are drawn per source cell from (seed, cell, round), numbered in row
// order through per-row counts, and rendered as per-rock footprints: each
// cell keeps the highest rock top through one 64-bit atomic maximum of the
// ordered key of the top and the rock's id, so neither the order of the
// rocks nor the threads change a bit. Synchronous runs put every rock on the
// input terrain; asynchronous runs take the rocks in batches and render each
// batch before the next one falls, so later rocks pile on earlier ones.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "compute/compute.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"

namespace debris {

using halden::core::grid;

inline constexpr float max_density = 16.0f;
inline constexpr int max_steps = 100000;
inline constexpr int max_batches = 1024;
inline constexpr int min_facets = 4;
inline constexpr int max_facets = 32;
// Rock radii in cells; a footprint spans at most this radius over 0.7.
inline constexpr float max_radius_cells = 64.0f;
// Ids travel as floats: every id below 2^24 is exact.
inline constexpr std::uint32_t max_rocks = 1u << 24;
// Entries of the host-made table of unit directions (facet azimuths).
inline constexpr int direction_steps = 256;

// Why a record cannot be run (naming the field), or empty when it can.
std::string check(const Parameters& p);

// What became of a rock.
enum rock_state : std::uint32_t {
    moving = 0,   // not yet run
    resting = 1,  // came to rest on a slope gentler than the friction angle
    left = 2,     // crossed the border (position clamped to it); not rendered
    stopped = 3,  // ran out of steps; rendered where it stopped
};

// One rock. Positions are in cells (cell (i, j) spans [i, i + 1) x [j, j + 1),
// its centre at i + 0.5), z and the velocity in cell widths (heights times
// height_scale / cell_size) and cell widths per unit of time, the time unit
// being sqrt(cell_size / g).
struct rock {
    float x, y, z;
    float vx, vy, vz;
    float radius;    // world units
    float flatness;  // vertical over horizontal radius, 0.6 to 1
    std::uint32_t id;
    std::uint32_t state;
    std::uint32_t steps;  // steps taken
    std::uint32_t reserved;
};

// The constants of a run, worked out on the host once.
struct constants {
    int w, h;
    std::uint32_t seed;
    float slope_scale;    // height units to cell widths: height_scale / cell_size
    float source_slope2;  // tan^2 of the source slope
    float mu;             // tan of the friction angle
    float restitution;
    float density;
    float min_radius, max_radius;  // world units
    float size_power;              // 1 / (1 - exponent), or 0 for exponent 1 (log-uniform)
    float size_lo, size_span;      // min^(1-a) and max^(1-a) - min^(1-a), or min and max / min
    float cell_size, height_scale;
    int max_steps;
    int facets;
    bool rounded;
    float shape_power;  // superellipsoid exponent of rounded rocks, 2 to 6
    float embedding;
    float warp_amplitude, warp_frequency;
};

constants plan(const Parameters& p);
// cos and sin of direction_steps evenly spaced azimuths, interleaved.
std::vector<float> directions();

// The modulation field, -1 to 1 per cell: domain-warped gradient noise, or
// `user` (a device grid, which may be `field` itself) clamped.
void warp_noise(halden::compute::queue& q, float* field, const float* user, const constants& k);
// Rocks of each row (sources only), then the rocks themselves in row order:
// `offsets` holds each row's first id; ids from `limit` (at most max_rocks)
// on are dropped.
void count_rocks(halden::compute::queue& q, const float* heights, const float* sources, const float* field,
                 std::uint64_t* counts, const constants& k);
void place_rocks(halden::compute::queue& q, const float* heights, const float* sources, const float* field,
                 const std::uint64_t* offsets, std::uint32_t limit, rock* rocks, const constants& k);
// Runs rocks first, first + stride, ... (count of them) to rest on `heights`.
void run_rocks(halden::compute::queue& q, const float* heights, rock* rocks, std::uint32_t first, std::uint32_t stride,
               std::uint32_t count, const constants& k);
// Renders those rocks onto `heights` into `tops` (key << 32 | id maxima).
void render_rocks(halden::compute::queue& q, const float* heights, const float* field, const float* dirs,
                  const rock* rocks, std::uint32_t first, std::uint32_t stride, std::uint32_t count,
                  std::uint64_t* tops, const constants& k);
// current = max(input, the rocks' tops).
void resolve(halden::compute::queue& q, const float* input, const std::uint64_t* tops, float* current, int w, int h);

class Debris {
public:
    // Copies the record and uploads the grids; sources, debris, rock_ids and
    // warp may be null. The caller's arrays must outlive the object.
    Debris(halden::compute::queue& q, float* h_heights, const float* h_sources, float* h_debris, float* h_rock_ids,
           const float* h_warp, const Parameters& parameters);
    ~Debris();
    Debris(const Debris&) = delete;
    Debris& operator=(const Debris&) = delete;

    // Places, runs and renders the rocks and writes the results back, unless
    // the device reported a failure meanwhile.
    void process();

    // The steps of process(), for tests: place_rocks() returns the count;
    // set_rocks() replaces the placed rocks (any order, in synchronous
    // mode); simulate() runs and renders them; write_back() delivers.
    std::uint32_t place_rocks();
    std::vector<rock> rocks() const;
    void set_rocks(const std::vector<rock>& rocks);
    void simulate();
    void write_back();

private:
    halden::compute::queue& m_queue;
    Parameters m_parameters;
    constants m_constants;
    float* m_heights;
    float* m_debris;
    float* m_rock_ids;
    const float* m_sources_host;
    const float* m_warp_host;
    grid m_input, m_current, m_sources, m_field;
    halden::compute::usm_ptr<float, 1> m_directions;
    halden::compute::usm_ptr<std::uint64_t, 1> m_tops;
    halden::compute::usm_ptr<rock, 1> m_rocks;
    std::uint32_t m_count = 0;
};

}  // namespace debris
