// SPDX-License-Identifier: Apache-2.0
// 3-D cellular (Worley) noise on a slice: one jittered feature point per
// cell of an integer lattice, hashed from the cell's coordinates (pcg3d),
// and per sample a function of the distances to the nearest features.
//
// The search is exact for every jitter: the 3 x 3 x 3 block around the
// sample's lattice cell is searched first, and the search widens shell by
// shell only while a feature outside the searched block could still beat the
// candidates, judged by the distance from the sample to the block's faces
// (each lattice cell's feature stays inside its jitter box). The host runs
// the block for a row of samples that share a lattice cell against one set
// of hashed features, so hashing costs little per sample.
#pragma once

#include <cstdint>
#include <string>

#include "compute/compute.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"

namespace cellular3d {

// The module's copy of the caller's callback record, replaced on every call.
extern halden_callbacks callbacks;

inline constexpr int max_octaves = 16;
// Samples one work item evaluates, at most.
inline constexpr int max_tile = 32;
// Lattice coordinates stay below this, so that they fit int32 with room for
// the widest search.
inline constexpr double max_lattice = 0x1p30;

// Why a record cannot be run (naming the field), or empty when it can.
std::string check(const Parameters& p);
// Why a z grid of the record's size cannot be used, or empty.
std::string check_z(const Parameters& p, const float* h_z);
// 4 bytes per cell for the result, 4 more for a z grid.
std::uint64_t memory_estimate(const Parameters& p, bool with_z);

// What one octave's samples need: the lattice units per grid cell, the
// period of the lattice (0: none) and the offset that gives the octave its
// own stream of hashes.
struct octave {
    double step;
    std::int32_t period;
    std::uint32_t sx, sy, sz;
    float amplitude;
};

// The record turned into what the kernel reads, worked out once on the host.
struct plan {
    octave octaves[max_octaves];
    int count;
    int grid_period;  // grid cells after which x and y wrap; 0 for none
    int metric, result;
    float jitter, exponent, inverse_exponent, smoothness, sharpness;
    float z;
    double z_scale;
    float scale, offset;
};
plan make_plan(const Parameters& p);

class Cellular3D {
public:
    // Checks the record and uploads the z grid (may be null). The caller's
    // arrays must outlive the object.
    Cellular3D(halden::compute::queue& q, float* h_out, const float* h_z, const Parameters& parameters,
               const halden_callbacks* callbacks);
    ~Cellular3D();
    Cellular3D(const Cellular3D&) = delete;
    Cellular3D& operator=(const Cellular3D&) = delete;

    // Renders every row into the caller's grid, unless cancelled (false) or
    // the device reported a failure meanwhile (the grid is then untouched).
    bool render();
    // Renders rows [row0, row0 + rows) into the device grid.
    void render_band(int row0, int rows);

private:
    halden::compute::queue& m_queue;
    Parameters m_parameters;
    plan m_plan;
    float* m_out;
    halden_callbacks m_callbacks;
    halden::core::grid m_result;
    halden::core::grid m_z_copy;  // a device copy of the z grid off the host
    const float* m_z;             // what kernels read: the copy, the caller's grid, or null
};

}  // namespace cellular3d
