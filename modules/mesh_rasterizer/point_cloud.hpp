// SPDX-License-Identifier: Apache-2.0
// Point clouds gridded into a height field: the points are brought into grid
// coordinates by the mesh vertex transform, sorted by cell with a stable
// radix sort, put into an order fixed by their values within each cell, and
// every cell reduces the points it gathers (its own, or those within a
// radius) in that order. Empty cells may then be filled by pull-push.
//
// No float atomics anywhere: the sort counts with integers, and each cell's
// value is a plain loop over a fixed sequence of points, so the bits depend
// neither on the device, the thread count nor the order of the input.
#pragma once

#include <cstdint>
#include <string>

#include "compute/compute.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"

namespace mesh_rasterizer {

using halden::core::grid;

// A transformed point and the cell that holds it (no_cell when outside).
struct cloud_point {
    float x, y, z;
    std::uint32_t cell;
};

inline constexpr std::uint32_t no_cell = 0xFFFFFFFFu;
inline constexpr float max_point_radius = 256.0f;
inline constexpr float max_point_power = 16.0f;

// Why the points and record cannot be run (naming the field), or empty.
std::string check(const Points* points, const PointParameters& p);
// Device bytes of one call: per point and per cell, by the record's options.
std::uint64_t memory_estimate(const Points& points, const PointParameters& p);

class PointCloud {
public:
    // Transformed points on the device; cancel is asked through `callbacks`
    // (null: never).
    PointCloud(halden::compute::queue& q, const Points& points, const PointParameters& parameters,
               const halden_callbacks* callbacks = nullptr);
    ~PointCloud();
    PointCloud(const PointCloud&) = delete;
    PointCloud& operator=(const PointCloud&) = delete;

    // All steps in order; false when the caller cancelled between them.
    bool render();

    // The vertex transform of MeshRasterizer::process_vertices, and the cell
    // of each point.
    void process_points();
    // Stable LSD radix sort by cell, 8 bits a pass; points outside the grid
    // are dropped by the first pass. Returns the points kept.
    std::uint32_t sort_points();
    // Each cell's range of sorted points, and (for the modes whose value
    // depends on the order) the points of each cell ordered by (z, x, y).
    void order_cells();
    // Every cell's value and count.
    void gather();
    // Pull-push over the empty cells, within the fill rules.
    void fill_holes();

    void copy_out(float* h_heights, float* h_counts);

    const grid& heights() const { return m_heights; }
    const grid& counts() const { return m_counts; }
    std::uint32_t kept() const { return m_kept; }

private:
    halden::compute::queue& m_queue;
    PointParameters m_parameters;
    halden_callbacks m_callbacks;
    const float* m_host_points;
    std::uint32_t m_count;
    std::uint32_t m_kept = 0;
    int m_width, m_height;
    halden::compute::usm_ptr<cloud_point, 1> m_points, m_spare;
    halden::compute::usm_ptr<std::uint32_t, 1> m_begin, m_end;
    grid m_heights, m_counts;
};

}  // namespace mesh_rasterizer
