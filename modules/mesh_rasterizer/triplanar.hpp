// SPDX-License-Identifier: Apache-2.0
// A mesh rendered with a displacement texture projected along the three axes:
// every triangle is cut into small pieces whose corners move along the
// interpolated vertex normal by a triplanar texture read, and the pieces are
// rendered by MeshRasterizer under the name of their triangle.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "compute/compute.hpp"
#include "halden/halden.h"
#include "modules/mesh_rasterizer/mesh_rasterizer.hpp"

namespace mesh_rasterizer {

inline constexpr std::uint64_t max_pieces = std::uint64_t(1) << 30;
inline constexpr std::uint32_t max_cuts = 1024;
inline constexpr float max_sharpness = 64.0f;

// The pieces an edge of two vertices is cut into: ceil(length in cells /
// edge_length), 1 to max_subdivision. Callers pass the endpoints in a
// canonical order so that both triangles of an edge agree.
std::uint32_t edge_cuts(const float* a, const float* b, const TriplanarParameters& p);

// One triangle cut into a regular grid of `order` steps per side; point
// (i, j) is v0 + i/order (v1 - v0) + j/order (v2 - v0), and the points on
// edge e (v0v1, v1v2, v2v0) are moved onto that edge's cuts[e] cut points.
struct patch {
    std::uint32_t v[3];
    std::uint32_t order;
    std::uint32_t cuts[3];
    std::uint32_t parent;
};

// Where one batch of patches puts its points and pieces: patch s owns points
// [point_start[s], point_start[s + 1]) and pieces [piece_start[s], ...).
struct batch {
    std::vector<patch> patches;
    std::vector<std::uint32_t> point_start{0}, piece_start{0};
    std::uint32_t points() const { return point_start.back(); }
    std::uint32_t pieces() const { return piece_start.back(); }
};

// Why the call cannot run, or empty when it can.
std::string check(const Mesh* mesh, const Texture* texture, const TriplanarParameters& p);
// Cuts every edge and groups the triangles into batches of bounded size, on
// the host; returns why the mesh cannot be cut (too many pieces), or empty.
std::string plan(const Mesh& mesh, const TriplanarParameters& p, std::vector<batch>& batches);
// Bytes of device memory the call takes (the mesh's own render included).
std::uint64_t memory_estimate(const Mesh& mesh, const Texture& texture, const TriplanarParameters& p,
                              const std::vector<batch>& batches);

class TriplanarDisplacement {
public:
    // Copies the mesh and texture to the device; `batches` come from plan().
    TriplanarDisplacement(halden::compute::queue& q, const Mesh& mesh, const Texture& texture,
                          const TriplanarParameters& parameters, std::vector<batch> batches);

    // Per vertex, the normalised sum of its triangles' area-weighted normals,
    // gathered in an order set by the triangles' corners.
    void compute_normals();
    // The displaced points of a batch in world coordinates, then the pieces
    // over them (vertex slots into `points`, pad = the patch's triangle).
    void make_points(const patch* d_patches, const std::uint32_t* d_point_start, std::size_t patch_count,
                     vertex* d_points, std::uint32_t point_count);
    void make_pieces(const patch* d_patches, const std::uint32_t* d_point_start, const std::uint32_t* d_piece_start,
                     std::size_t patch_count, triangle* d_pieces, std::uint32_t piece_count);
    // Renders every batch into `r` (made over the same mesh and transform);
    // cancel is asked between batches. False when cancelled.
    bool render(MeshRasterizer& r, bool values, const halden_callbacks& callbacks);

private:
    halden::compute::queue& m_queue;
    TriplanarParameters m_parameters;
    int m_texture_width, m_texture_height;
    std::uint32_t m_vertex_count;
    std::vector<batch> m_batches;
    halden::compute::usm_ptr<vertex, 1> m_positions, m_normals;
    halden::compute::usm_ptr<triangle, 1> m_triangles;
    // Each vertex's triangles: [m_first[v], m_first[v + 1]).
    halden::compute::usm_ptr<std::uint32_t, 1> m_first, m_incident;
    halden::compute::usm_ptr<float, 1> m_texture;
};

}  // namespace mesh_rasterizer
