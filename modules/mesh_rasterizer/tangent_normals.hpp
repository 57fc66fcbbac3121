// SPDX-License-Identifier: Apache-2.0
// Tangent-space normal maps: the detail of a height grid baked against a
// low-polygon mesh of the same terrain, in the per-vertex tangent frame that
// engines rebuild from the mesh (normal and tangent interpolated without
// renormalising, bitangent = sign (n x t)). Texture coordinates are the
// top-down projection, u along the columns and v up the picture.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "compute/compute.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"
#include "modules/lighting/lighting.hpp"
#include "modules/mesh_rasterizer/mesh_rasterizer.hpp"

namespace mesh_rasterizer {

inline constexpr int max_margin = 64;
// The vertex-to-triangle table indexes 3 entries per triangle in 32 bits.
inline constexpr std::uint32_t max_tangent_triangles = 0x40000000u;

// Why a mesh and record cannot be baked (naming the field), or empty.
std::string check_tangent(const Mesh* mesh, const TangentParameters& p);
// Why the height grid cannot be used, or empty.
std::string check_tangent_heights(const float* h_heights, const TangentParameters& p);
// 84 bytes per cell (68 without a margin), 52 per vertex, 28 per triangle.
std::uint64_t tangent_memory_estimate(const Mesh& mesh, const TangentParameters& p);

// A vertex's normal with the bitangent's sign, and its unit tangent.
struct vertex_frame {
    float nx, ny, nz, sign;
    float tx, ty, tz, pad;
};

// A baked cell: the tangent-space normal, and w = 1 once filled (0: empty).
using texel = lighting::vec4;

class TangentNormals {
public:
    // Uploads the mesh and binds the height grid, which must outlive the object.
    TangentNormals(halden::compute::queue& q, const Mesh& mesh, const float* h_heights,
                   const TangentParameters& parameters, const halden_callbacks* callbacks = nullptr);
    ~TangentNormals();
    TangentNormals(const TangentNormals&) = delete;
    TangentNormals& operator=(const TangentNormals&) = delete;

    // Every step; writes the three planes unless cancelled (false) or the
    // device reported a failure meanwhile (the planes are then untouched).
    bool run(float* h_red, float* h_green, float* h_blue);

    // The height grid's unit normals, by the shading module's stencil.
    void compute_surface_normals();
    // The mesh in grid coordinates and the winning triangle of every cell.
    void rasterize();
    // Per vertex, a gather over its triangles in index order.
    void compute_vertex_frames();
    // Covered cells: the height grid's normal in the interpolated frame.
    void bake();
    // One ring of empty cells takes the mean of its filled neighbours.
    void dilate_once();
    // The planes: green flipped and the encoding applied.
    void encode();

    std::vector<vertex_frame> frames() const;
    std::vector<texel> texels() const;

private:
    halden::compute::queue& m_queue;
    TangentParameters m_parameters;
    halden_callbacks m_callbacks;
    int m_width, m_height;
    std::uint32_t m_triangle_count;
    MeshRasterizer m_raster;
    halden::compute::input_view<float, 2> m_heights;
    halden::compute::usm_ptr<std::uint32_t, 1> m_offsets, m_incident;
    halden::compute::usm_ptr<vertex_frame, 1> m_frames;
    halden::compute::usm_ptr<lighting::vec4, 2> m_normals;
    halden::compute::usm_ptr<std::int32_t, 2> m_photons;
    halden::compute::usm_ptr<texel, 2> m_texels, m_spare;
    grid m_planes[3];
};

}  // namespace mesh_rasterizer
