// SPDX-License-Identifier: Apache-2.0
// Shading of a height field for display: normals, a Lambert term, sun
// visibility and sky visibility swept across the grid in parallel rays, and
// the composed colour.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "compute/compute.hpp"
#include "core/accumulate.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"

namespace lighting {

using halden::core::grid;

// The module's copy of the caller's callback record, replaced on every call.
extern halden_callbacks callbacks;

struct vec2 {
    float x, y;
};
struct vec3 {
    float x, y, z;
};
// Normals are stored padded to four floats.
struct vec4 {
    float x, y, z, w;
};

// Ray positions are 16.16 fixed point: the grid's width in cells times 65536
// must stay well inside 32 bits.
inline constexpr int max_traced_width = 16384;
// Each sky direction adds up to 2^18 per cell to a 32-bit counter.
inline constexpr int max_sky_directions = 4096;

// Why a record cannot be run, or empty when it can.
std::string check(const Parameters& p);
// 18 floats per cell.
std::uint64_t memory_estimate(const Parameters& p);

// Which steps a record asks for.
struct switches {
    bool sun, shadows, sky, traced_ao, hybrid_ao, caller_ao;
    explicit switches(const Parameters& p);
};

namespace samples {
struct set {
    std::vector<vec3> directions;
    std::vector<vec2> jitters;
};
// The sun samples of `shadow_samples`: rings, the -4 and -8 patterns, or -n
// copies of the sun direction.
set sun(const Parameters& p);
// Sky directions: the vertices of an icosahedron, subdivided as often as
// needed, that lie above the horizon (z > 0), in the order they were made
// (coarser vertices first), of which the first `count` are taken.
std::vector<vec3> sky(int count);
}  // namespace samples

// Unit normals (0 where the stencil gives a zero vector) and a zeroed photon map.
void compute_normals_and_init_photonmap(halden::compute::queue& q, const float* heights, vec4* normals,
                                        std::int32_t* photons, int w, int h, float terrain_size, float height_scale);

// The sky-ray sweep alone over `count` directions: every cell a ray reaches
// gains trunc(2^18 n.d) in the photon map, n its normal, d the direction.
void sweep_sky(halden::compute::queue& q, const float* heights, const vec4* normals, std::int32_t* photons,
               const vec3* directions, const vec2* jitters, int count, int w, float terrain_size, float height_scale);

// Where a sweep adds instead of the photon map: every reached cell facing the
// direction gains weight x trunc(2^18 n.d) and `count` in its pair of 64-bit
// fixed-point totals (exact, in any order), totals[2 i] and totals[2 i + 1]:
// side by side, so that a ray step touches one cache line for both.
struct weighted_sums {
    std::int64_t* totals = nullptr;
    std::uint32_t* overflow = nullptr;  // set when a term leaves the fixed-point range
    halden::core::fixed_point fixed{0};
    float weight = 0.0f;
    std::int64_t count = 0;
};
// The sky-ray sweep of one direction into weighted sums. A sweep meets each
// cell exactly once per direction, so the sums are added without atomics:
// the same totals must not be swept by two calls at once.
void sweep_sky_sums(halden::compute::queue& q, const float* heights, const vec4* normals, const vec3* direction,
                    const vec2* jitter, const weighted_sums& sums, int w, float terrain_size, float height_scale);

// Sweeps one ray per lane and sky direction across the square w x w grid,
// then writes ao = max(0, count / 2^16 / K) for the K directions.
void raytrace_ao(halden::compute::queue& q, const float* heights, const vec4* normals, std::int32_t* photons,
                 float* ao, const halden::compute::usm_ptr<vec3, 1>& directions,
                 const halden::compute::usm_ptr<vec2, 1>& jitters, int w, float terrain_size, float height_scale);

class LightingSYCL {
public:
    struct host_grids {
        const float* heights;
        float *diffuse, *shadow, *ao, *r, *g, *b;
        const float *albedo_r, *albedo_g, *albedo_b;
    };
    // Cancel is asked through `callbacks`, the call's own record (null: never).
    LightingSYCL(halden::compute::queue& q, const Parameters& parameters, const host_grids& grids,
                 const halden_callbacks* callbacks = nullptr);
    ~LightingSYCL();
    LightingSYCL(const LightingSYCL&) = delete;
    LightingSYCL& operator=(const LightingSYCL&) = delete;

    // Runs every step and writes the outputs the record switched on; false
    // (and nothing written) when the caller cancelled.
    bool run();

    void compute_surface();
    void raytrace_shadows();
    void compute_hybrid_ao();
    void compose_light();

private:
    void prepare_samples();

    halden::compute::queue& m_queue;
    Parameters m_parameters;
    halden_callbacks m_callbacks;
    switches m_on;
    host_grids m_host;
    bool m_has_albedo;
    int m_width, m_height;
    halden::core::grid_buffer m_heights;
    halden::compute::usm_ptr<vec4, 2> m_normals;
    halden::compute::usm_ptr<std::int32_t, 2> m_photons;
    grid m_diffuse, m_shadow, m_ao, m_r, m_g, m_b, m_albedo[3];
    samples::set m_sun, m_sky;
    int m_sample_count = 0;
    bool m_direct_rgb = false;  // the composition writes the caller's colour arrays
};

}  // namespace lighting
