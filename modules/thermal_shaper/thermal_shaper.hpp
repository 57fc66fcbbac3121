// SPDX-License-Identifier: Apache-2.0
// Slope- and curvature-driven shaping of a height field over a Laplacian
// pyramid, optionally inverted (valleys instead of ridges), masked per cell
// and blended with the input.
#pragma once

#include <memory>
#include <string>

#include "compute/compute.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"

namespace thermal_shaper {

using halden::core::grid;
class LaplacianLevel;

// The module's copy of the caller's callback record, replaced on every call.
extern halden_callbacks callbacks;

// More levels than this would all be single cells.
inline constexpr int max_levels = 64;

// Why a record cannot be run, or empty when it can.
std::string check(const Parameters& p);

// Device memory the shaper needs: three full-size grids (four with a mask)
// plus a third more for the coarser levels.
std::uint64_t memory_estimate(const Parameters& p, bool masked);

// The host-side plan; single precision throughout, so every device gets the
// same pass counts and rates.
namespace plan {
// Pyramid depth n: log2(width * level_factor / height_scale), pulled into
// (0, 1) by tanh(n - 1) + 1 below 1. ceil(n) levels are built (at least 1).
float level_count(const Parameters& p);
int levels(float n);
// 64 / (1 + f + f^2 + ...) with one term per level, f = (1 + amount) / 4.
float level_weight(int levels, float amount, float initial_weight);

struct passes {
    int count = 0;       // passes to run (0: none)
    float rate = 0;      // r of every pass but the last
    float last_rate = 0; // r of the last pass: the fractional part of the count
    float g = 0;         // gradient scale
    float gk = 0;        // g times the curvature weight
    float e = 0;         // step factor, 1 / g
};
// Depth 0 is the coarsest level; `fraction` is n - floor(n).
passes for_level(const Parameters& p, int depth, int level_width, float fraction, float weight, float amount);
}  // namespace plan

struct pass_constants {
    float g;   // gradient scale
    float gk;  // g times the curvature weight
    float e;   // step factor, 1 / g
    float r;   // lowering rate
};

// One shaping pass over a w x h grid: reads `in` only, writes `out`. With
// Masked, each cell's lowering is scaled by mask(y, x).
template <bool Masked>
void shape_pass(halden::compute::queue& q, const float* in, float* out, int w, int h, const float* mask,
                const pass_constants& k);

class ThermalShaper {
public:
    // Copies the record and uploads the heights (and the mask, which may be
    // null); the caller's arrays must outlive the shaper.
    ThermalShaper(halden::compute::queue& q, float* h_heights, const float* h_mask, const Parameters& parameters);
    ~ThermalShaper();
    ThermalShaper(const ThermalShaper&) = delete;
    ThermalShaper& operator=(const ThermalShaper&) = delete;

    // Shapes the heights and writes them back into the caller's array, unless
    // the device reported a failure meanwhile.
    void process();

    // The shaping passes on one level; Masked scales each cell's lowering by
    // the level's mask. Public: the kernels are submitted from here.
    template <int Variant, bool Masked>
    void process_level(LaplacianLevel& level);

    float level_weight() const { return m_level_weight; }

private:
    halden::compute::queue& m_queue;
    Parameters m_parameters;
    float* m_heights;
    bool m_masked;
    float m_level_weight = 64.0f;
    float m_fraction = 0.0f;
    float m_amount = 0.0f;
    bool m_invert = false;
    grid m_input;
    std::unique_ptr<LaplacianLevel> m_finest;
};

}  // namespace thermal_shaper
