// SPDX-License-Identifier: Apache-2.0
// Stamp instancing: copies of small height grids scattered over a terrain
// with random transforms and blended in one after another.
//
// Placement runs on the host from the seed alone, so the instances are the
// same on every device and thread count. The grid is cut into square tiles
// and each tile lists, in instance order, the instances whose footprint
// reaches it; a work item walks one row of one tile through that list, so
// every cell sees its instances in order and is written by one item only.
// Each instance carries its inverse transform, worked out on the host (the
// trigonometry included), so kernels only multiply and add.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "compute/compute.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"

namespace stamp_instancer {

using halden::core::grid;

// The module's copy of the caller's callback record, replaced on every call.
extern halden_callbacks callbacks;

inline constexpr std::uint32_t max_instances = 1u << 24;  // ids stay exact in float
inline constexpr std::uint32_t max_stamps = 65536;
inline constexpr std::uint32_t max_stamp_side = 8192;
inline constexpr std::uint32_t max_lookup_cells = 1u << 24;
inline constexpr std::uint32_t candidates_per_instance = 64;
inline constexpr int tile_side = 32;
inline constexpr float no_instance = -1.0f;

// Why the record cannot run, naming the field, or empty. `placing`: the
// placement fields are read too.
std::string check(const Parameters& p, bool placing);
// Why the stamp table cannot be used (null pointers, sizes, texels outside
// the atlas, non-finite texels), or empty.
std::string check(const Stamps* stamps);
// Why instance `index` cannot be drawn with `stamp_count` stamps, or empty.
std::string check(const Instance& instance, std::uint32_t index, std::uint32_t stamp_count);
std::uint64_t memory_estimate(const Parameters& p, const Stamps& stamps, std::uint64_t instances);

// The placement on the host: up to p.count instances, in a stable order.
// `density` may be null.
std::vector<Instance> place(const Parameters& p, const float* h_heights, const float* h_density,
                            std::uint32_t stamp_count);
// cos and sin of `degrees`, from double, rounded to float once; exact for
// multiples of 90 degrees.
void rotation_of(float degrees, float& c, float& s);

// One level of one stamp in the device pyramid.
struct level {
    std::uint64_t offset;
    std::int32_t width, height;
};

// What a kernel needs of one instance, worked out on the host. A cell at
// offset (dx, dy) from the centre lies at texel coordinates
//   u = (a dx + b dy) + half_w,  v = (c dx + d dy) + half_h
// of its level (texel i spans [i, i + 1)), inside when 0 <= u < w and
// 0 <= v < h.
struct footprint {
    float x, y;
    float a, b, c, d;
    float half_w, half_h;
    float edge_u, edge_v;  // 2 / w and 2 / h: the distance to the edge as a share of the half size
    float height, base;
    std::uint64_t offset;
    std::int32_t w, h;
    std::int32_t x0, x1, y0, y1;  // the cells whose centres may lie inside, clipped to the grid
    std::uint32_t index;          // the instance's index, its id
    std::uint32_t pad;
};

// The settings every cell's blend shares.
struct blend_settings {
    std::int32_t blend, filter;
    float opacity, smoothness, inverse_falloff;  // 0: hard edges
};

// Lays out every stamp's pyramid (levels halved, odd sides rounding up,
// down to 1 x 1) in one array: stamp k's levels are levels[first[k]] ..
// levels[first[k + 1] - 1], finest first. Returns the texels of all levels.
std::uint64_t pyramid_layout(const Stamps& stamps, std::vector<level>& levels, std::vector<std::uint32_t>& first);
// Copies each stamp into its finest level and halves it level by level with
// the magic kernel.
void build_pyramid(halden::compute::queue& q, const Stamps& stamps, const std::vector<level>& levels,
                   const std::vector<std::uint32_t>& first, float* pyramid);

// The footprint of instance `index` with its level chosen from the pyramid.
footprint footprint_of(const Instance& instance, std::uint32_t index, const std::vector<level>& levels,
                       const std::vector<std::uint32_t>& first, float base, int width, int height);

// Tile lists: tile t's instances are items[start[t]] .. items[start[t + 1]].
struct bins {
    std::vector<std::uint32_t> start, items;
    int tiles_x = 0, tiles_y = 0;
};
bins bin(const std::vector<footprint>& footprints, int width, int height);

// Blends every row of every tile; `ids` may be null.
void gather(halden::compute::queue& q, float* heights, float* ids, const float* pyramid, const footprint* instances,
            const std::uint32_t* start, const std::uint32_t* items, int width, int height, int tiles_x,
            const blend_settings& settings);

class StampInstancer {
public:
    // Checks and copies what the call needs; the caller's arrays must outlive
    // the object. `given`: the caller's instances (or null to place them).
    StampInstancer(halden::compute::queue& q, float* h_heights, const Stamps& stamps, const float* h_density,
                   const Instance* given, std::uint32_t given_count, const Parameters& parameters);
    ~StampInstancer();
    StampInstancer(const StampInstancer&) = delete;
    StampInstancer& operator=(const StampInstancer&) = delete;

    // The instances the call draws: the caller's, or the placed ones.
    const std::vector<Instance>& instances() const { return m_instances; }

    // Blends the instances into the heights, writes them (and the ids) back
    // unless the device reported a failure (then false).
    bool populate(float* h_ids);

private:
    halden::compute::queue& m_queue;
    Parameters m_parameters;
    const Stamps& m_stamps;
    float* m_heights;
    std::vector<Instance> m_instances;
};

}  // namespace stamp_instancer
