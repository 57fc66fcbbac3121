// SPDX-License-Identifier: Apache-2.0
// Colour carried by flowing water: the flow module's tracers run over the
// pit-filled terrain, each starting with its cell's colour and taking on the
// colour of the cells it crosses. Every visit leaves the difference between
// the carried colour and the cell's own in a 64-bit fixed-point tally, so the
// sums are exact and independent of the order of the visits, and a cell that
// only sees its own colour has a difference of exactly zero.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "compute/compute.hpp"
#include "core/accumulate.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"
#include "modules/flow/flow.hpp"
#include "modules/flow/tracer.hpp"

namespace color_transport {

using halden::core::grid;

// The module's copy of the caller's callback record, replaced on every call.
extern halden_callbacks callbacks;

// A cell on the device: its colour, and its tally of the carried-minus-own
// colour summed over its visits, with the visit count. A visit reads the one
// and adds to the other, which a whole cache line per cell keeps to one
// fetch: the grid outgrows the caches either way.
struct alignas(64) cell_state {
    float r, g, b, unused;
    std::int64_t tr, tg, tb, visits;
};

// Why a record cannot be run (naming the field), or empty when it can.
std::string check(const Parameters& p);
// Why the caller's grids cannot be run (naming the grid and the cell), or
// empty: heights and colours must be finite, mask values within 0 to 1.
std::string check_grids(const Parameters& p, const float* heights, const float* red, const float* green,
                        const float* blue, const float* mask);
// Device bytes: the flow surface and its pyramid, the colours, the tallies,
// the mask and the particles.
std::uint64_t memory_estimate(const Parameters& p);

// The flow record whose traces carry the colour.
flow::Parameters flow_parameters(const Parameters& p);
// The tallies' fixed-point scale: as fine as the largest possible sum allows,
// given the colours' largest spread per channel and the most visits a cell
// can get from `particles` traces.
halden::core::fixed_point tally_scale(const Parameters& p, float spread, std::uint64_t particles);

class ColorTransport {
public:
    // The colour grids are read by process() and receive the result at its
    // end (not after a cancel or a device failure); `h_mask` (may be null)
    // scales the change per cell. Progress and cancel go through `callbacks`
    // (null: none).
    ColorTransport(halden::compute::queue& q, const Parameters& parameters, const float* h_heights, float* h_red,
                   float* h_green, float* h_blue, const float* h_mask, const halden_callbacks* callbacks = nullptr);
    ~ColorTransport();
    ColorTransport(const ColorTransport&) = delete;
    ColorTransport& operator=(const ColorTransport&) = delete;

    // The whole operation; false when the caller cancelled.
    bool process();

    // Interleaves the colours into `cells` and clears their tallies.
    void gather(const halden::compute::usm_ptr<float, 1>& planar, halden::compute::usm_ptr<cell_state, 1>& cells);
    // Runs one launch of traces, tallying the colour they carry.
    void carry(const flow::tracing::trace_launch& launch, halden::compute::usm_ptr<cell_state, 1>& cells,
               halden::core::fixed_point scale);
    // Moves each colour toward the mean carried colour by strength times the
    // saturated visit weight times the mask, into `planar` (three planes).
    void blend(const halden::compute::usm_ptr<cell_state, 1>& cells, const grid& mask, halden::core::fixed_point scale,
               halden::compute::usm_ptr<float, 1>& planar);

private:
    bool report_progress(double done);

    halden::compute::queue& m_queue;
    Parameters m_parameters;
    halden_callbacks m_callbacks;
    const float* m_heights;
    float* m_red;
    float* m_green;
    float* m_blue;
    const float* m_mask;
    halden::compute::usm_ptr<std::int32_t, 1> m_claimed;
    halden::compute::usm_ptr<std::uint32_t, 1> m_overflow;
};

}  // namespace color_transport
