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

// A cell's colour, which its visits read.
struct alignas(16) cell_colour {
    float r, g, b, unused;
};
// A cell's tally of the carried-minus-own colour over its visits, with the
// visit count: what a visit adds to, on one cache line.
struct alignas(32) cell_tally {
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

    // Tallies into one grid with atomics, as a device does, rather than into
    // a copy per host worker thread; for tests.
    void without_host_copies() { m_host_copies = false; }

    // The steps of process(); public for the device compiler, which wants
    // the functions around its lambdas so.

    // Interleaves the colours into `colours`.
    void gather(const halden::compute::usm_ptr<float, 1>& planar, halden::compute::usm_ptr<cell_colour, 1>& colours);
    // Runs one launch of traces, tallying the colour they carry.
    void carry(const flow::tracing::trace_launch& launch, const halden::compute::usm_ptr<cell_colour, 1>& colours,
               halden::compute::usm_ptr<cell_tally, 1>& tallies, halden::core::fixed_point scale);
    // Adds the workers' copies of the tallies into the first.
    void merge(halden::compute::usm_ptr<cell_tally, 1>& tallies);
    // Moves each colour toward the mean carried colour by strength times the
    // saturated visit weight times the mask, into `planar` (three planes).
    void blend(const halden::compute::usm_ptr<cell_colour, 1>& colours,
               const halden::compute::usm_ptr<cell_tally, 1>& tallies, const grid& mask,
               halden::core::fixed_point scale, halden::compute::usm_ptr<float, 1>& planar);

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
    bool m_host_copies = true;
    int m_copies = 0;  // tally copies, one per host worker thread; 0: one grid, atomics
    halden::compute::usm_ptr<std::int32_t, 1> m_counters;  // traces claimed, copies taken
    halden::compute::usm_ptr<std::uint32_t, 1> m_overflow;
};

}  // namespace color_transport
