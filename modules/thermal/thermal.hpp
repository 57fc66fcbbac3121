// SPDX-License-Identifier: Apache-2.0
// Thermal weathering: material on slopes steeper than the angle of repose
// slides to lower neighbours until the slopes settle, run coarse to fine
// over a Laplacian pyramid so that long slopes settle in few iterations.
//
// An iteration is two gathers and no atomics: every cell first works out one
// outflow factor f (what it sends to a lower neighbour is f times the drop to
// it), then every cell subtracts what it sends and adds what its neighbours
// send it, recomputing each product exactly as the sender does. Sender and
// receiver round each transfer alike, so only the order of a cell's own sum
// is left to rounding, and that order is fixed.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "compute/compute.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"

namespace thermal {

using halden::core::grid;
class LaplacianLevel;

// The module's copy of the caller's callback record, replaced on every call.
extern halden_callbacks callbacks;

inline constexpr int max_levels = 64;
inline constexpr int max_iterations = 100000;
// Noise values per cell: the angle's variation is quantised to this many
// steps, whose tangents the host works out once for every device.
inline constexpr int talus_steps = 256;

// Why a record cannot be run (naming the field), or empty when it can.
std::string check(const Parameters& p);
// 68 bytes per cell: the level's grids, its scratch and the coarser levels.
std::uint64_t memory_estimate(const Parameters& p);

namespace plan {
// Levels to build: the record's, or as many as halve the shorter side down
// to at most 48 cells.
int levels(const Parameters& p);
// tan of each quantised talus angle; step k stands for the noise value
// (k + 0.5) / talus_steps.
std::array<float, talus_steps> talus_slopes(const Parameters& p);
}  // namespace plan

// The per-iteration constants of one level.
struct level_constants {
    float talus_height;  // height units per unit slope over one cell of this level
    float rate;
};

// Works out each cell's talus height difference to its side neighbours
// (height units) from the hashed noise, and its rate from the mask and
// hardness (either may be null; `rates` may be null when both are).
void prepare_level(halden::compute::queue& q, float* talus, float* rates, const float* slopes, const float* mask,
                   const float* hardness, int w, int h, std::uint32_t seed, int depth, const level_constants& k);
// One iteration's first gather: each cell's outflow factor. Null `rates`
// stands for `rate` everywhere.
void outflow(halden::compute::queue& q, const float* heights, const float* talus, const float* rates, float rate,
             float* factor, int w, int h);
// The same, each cell sending at most cap[i] in all: for loose material over
// a fixed floor, where a cell holds only so much that can slide.
void outflow(halden::compute::queue& q, const float* heights, const float* talus, const float* rates, float rate,
             const float* cap, float* factor, int w, int h);
// One iteration's second gather: new heights, and the material moved and
// resting on each cell (unless `moved` and `resting` are null).
void settle(halden::compute::queue& q, const float* heights, const float* talus, const float* factor, float* next,
            float* moved, float* resting, int w, int h);
// The second gather in fixed point: amount[i] (units of 2^-shift height)
// gains what cell i receives and loses what it sends, each transfer
// truncated once to whole units and held below 2^31 units per pass and
// pair. Sender and receiver form the same product and truncate and hold it
// alike, so the total is kept exactly.
void settle_fixed(halden::compute::queue& q, const float* heights, const float* talus, const float* factor,
                  std::int64_t* amount, int shift, int w, int h);

class Thermal {
public:
    // Copies the record and uploads the grids; any of mask, deposition and
    // hardness may be null. The caller's arrays must outlive the object.
    Thermal(halden::compute::queue& q, float* h_heights, const float* h_mask, float* h_deposition,
            const float* h_hardness, const Parameters& parameters, const halden_callbacks* callbacks);
    ~Thermal();
    Thermal(const Thermal&) = delete;
    Thermal& operator=(const Thermal&) = delete;

    // Weathers the heights and writes them (and the deposition) back, unless
    // cancelled (false) or the device reported a failure meanwhile.
    bool process();

private:
    bool weather(LaplacianLevel& level);
    bool report_progress();

    halden::compute::queue& m_queue;
    Parameters m_parameters;
    float* m_heights;
    float* m_deposition;
    halden_callbacks m_callbacks;
    halden::compute::usm_ptr<float, 1> m_slopes;
    std::unique_ptr<LaplacianLevel> m_finest;
    double m_done = 0.0, m_total = 0.0;
};

}  // namespace thermal
