// SPDX-License-Identifier: Apache-2.0
// Flow maps: the terrain's pits are filled on a pyramid, one tracer particle
// per cell runs downhill with inertia and a little randomness, and the visit
// counts are folded batch by batch into a saturating intensity plus a linear
// accumulation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "compute/compute.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"

namespace flow {

using halden::core::grid;

// The module's copy of the caller's callback record, replaced on every call.
extern halden_callbacks callbacks;

struct vec2 {
    float x, y;
};

// Pit-filling passes per pyramid level.
inline constexpr int fill_passes = 20;
// Step limit of the short traces.
inline constexpr unsigned short_steps = 16;
// At most this many particles (a 32nd per batch) run the long step limit.
inline constexpr unsigned long_particles = 262144;
inline constexpr int batches = 32;
// Side of the square tiles of cells that order the particles of a launch.
inline constexpr unsigned order_tile = 16;
// Progress (of 64) reached when the pits are filled.
inline constexpr double fill_share = 30.0;

// Why a record cannot be run, or empty when it can.
std::string check(const Parameters& p);
// Device bytes: four grids and the particles with their ids (the host adds a
// second count grid).
std::uint64_t memory_estimate(const Parameters& p);

// Host-side pieces, deterministic for a seed.
namespace plan {
// Pyramid levels: trunc(log2(width / 128)), at least 1.
int levels(int width);
// Particle starts in row-major cell order, each jittered into [0.1, 0.9) of
// its cell; with `mask` null every cell emits, else a cell emits when its
// draw lies below its mask value.
std::vector<vec2> seed_particles(const Parameters& p, const float* mask);
// The 32 unit directions at multiples of 11.25 degrees, in angle order.
std::vector<vec2> directions();
// Shuffles with a Mersenne twister seeded by `seed`.
void shuffle(std::vector<vec2>& v, std::uint32_t seed);
// The accumulation gain of a batch with `short_count` short traces.
float batch_gain(unsigned short_count, unsigned long_count, unsigned particles, std::uint64_t cells, float long_limit);
// The launches' order of the shuffled particles: within each batch the long
// traces first, then the short ones, each kind in row-major order of
// order_tile-sided tiles, so that traces run one after another start close
// together. Slot k gets a start and that particle's index in the shuffled
// order, which keeps defining the batches and the draws. `whole`: one such
// order over all particles instead of one per batch (the batches still
// decide which trace long), for sinks whose grids outgrow the caches: traces
// run one after another then reuse what the ones before them fetched.
// Returns the number of long traces in the last (or only) sorted run.
std::size_t launch_order(const std::vector<vec2>& particles, int width, int height, vec2* starts,
                         std::uint32_t* ids, bool whole = false);
}  // namespace plan

class Flow {
public:
    // `no_mask` == HALDEN_FLOW_NO_MASK: every cell emits; otherwise h_flow is
    // read as the seeding mask. process() reads h_heights, and h_flow
    // receives the map at its end (not after a device failure). Progress and
    // cancel go through `callbacks`, the call's own record (null: none).
    Flow(halden::compute::queue& q, const Parameters& parameters, std::uint64_t no_mask, const float* h_heights,
         float* h_flow, const halden_callbacks* callbacks = nullptr);
    ~Flow();
    Flow(const Flow&) = delete;
    Flow& operator=(const Flow&) = delete;

    // The whole operation; false when the caller cancelled.
    bool process();
    // Its first part alone, for modules that run their own traces on the
    // surface: reads h_heights and fills the pits, reporting progress up to
    // fill_share of 64. False when the caller cancelled.
    bool fill_surface();

    // One pit-filling pass: every cell rises to its second-lowest neighbour
    // (or its only one), and with marks, cells at or below that target are
    // marked 1. `scratch` ends up holding the old heights.
    void fill_pits(grid& heights, grid& scratch, grid& marks);
    void fill_pits(grid& heights, grid& scratch);

    // Runs `count` particles from index `offset`, each for up to max_steps - 1
    // visits, on the heights; visits are counted into `visits`. process()
    // runs the same traces, counting in integers.
    void flow(const halden::compute::usm_ptr<vec2, 1>& particles, unsigned offset, unsigned count, unsigned max_steps,
              unsigned unused, const grid& heights, grid& visits, const halden::compute::usm_ptr<vec2, 1>& directions);

    // Counts every particle visit into a total, in process() and in flow()
    // (a synchronisation per call); for tests and benchmarks.
    void count_steps() { m_count_steps = true; }
    std::uint64_t steps() const { return m_steps; }
    // The filled heights the particles ran on (after process()).
    const grid& working_heights() const { return m_working; }

private:
    // False when the caller cancelled during the filling.
    bool fill_pyramid();
    bool report_progress();
    // The host's lane groups claim traces through this counter.
    std::int32_t* claimed_counter();

    halden::compute::queue& m_queue;
    Parameters m_parameters;
    halden_callbacks m_callbacks;
    bool m_masked;
    const float* m_mask;
    float* m_mask_or_map;
    const float* m_heights_in;
    grid m_working;
    halden::compute::usm_ptr<std::int32_t, 2> m_visits;
    grid m_intensity, m_result;
    double m_done = 0, m_total = 0, m_step = 1.0 / 64.0, m_next = 0;
    bool m_count_steps = false;
    std::uint64_t m_steps = 0;
    halden::compute::usm_ptr<std::uint32_t, 1> m_particle_steps;
    halden::compute::usm_ptr<std::int32_t, 1> m_claimed;
};

}  // namespace flow
