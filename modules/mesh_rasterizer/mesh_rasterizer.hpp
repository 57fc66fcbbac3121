// SPDX-License-Identifier: Apache-2.0
// Triangle meshes rendered into a height field: every cell takes the
// greatest height of the triangles covering its centre, and optionally a
// random value that names the winning triangle.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "compute/compute.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"

namespace mesh_rasterizer {

using halden::core::grid;

// The module's copy of the caller's callback record, replaced on every call.
extern halden_callbacks callbacks;

// 16-byte device slots.
struct vertex {
    float x, y, z, w;
};
struct triangle {
    std::uint32_t a, b, c, pad;
};

inline constexpr float lowest_height = -3.4028235e38f;
inline constexpr float no_triangle = -1.0f;
inline constexpr float size_limit = 16384.0f;
inline constexpr int max_side = 16384;

// Why a mesh and record cannot be run, or empty when they can.
std::string check(const Mesh* mesh, const Parameters& p);
std::uint64_t memory_estimate(const Mesh& mesh, const Parameters& p);

// The value in [0, 1) that names triangle t in the id grid.
HALDEN_HD inline float triangle_value(std::uint32_t t) {
    std::uint32_t s = t != 0 ? t : 0xA2351342u;
    s ^= s << 13;
    s ^= s >> 17;
    s ^= s << 5;
    return float(std::uint32_t(s * 625341313u - 1u)) * 0x1p-32f;
}

// Per vertex, its triangles in index order, as offsets (vertex_count + 1)
// into `incident`; triangles indexing past the vertex array are left out, as
// the renderer leaves them out. Sums over a vertex's triangles in this order
// come out the same on every device and thread count.
void vertex_triangles(const Mesh& mesh, std::vector<std::uint32_t>& offsets, std::vector<std::uint32_t>& incident);

class MeshRasterizer {
public:
    // Copies the mesh to the device and clears the output grids (of the
    // record's size, already doubled for supersampling). Cancel is asked
    // through `callbacks`, the call's own record (null: never).
    MeshRasterizer(halden::compute::queue& q, const Mesh& mesh, const Parameters& parameters, bool with_ids,
                   const halden_callbacks* callbacks = nullptr);
    ~MeshRasterizer();
    MeshRasterizer(const MeshRasterizer&) = delete;
    MeshRasterizer& operator=(const MeshRasterizer&) = delete;

    // Brings the vertices into grid coordinates (column, row, height).
    void process_vertices();

    // Fragment-parallel rendering: a count per triangle, a prefix sum on the
    // host, then one work item per fragment. Heights: write with the depth
    // rule; Values: write the winning triangle's value (with Heights);
    // Ids: not used by this renderer. Only the part of a triangle's box that
    // lies in the grid becomes fragments, so a huge triangle over a small
    // grid costs what the grid costs. Fragments run in batches, and cancel
    // is asked between them. Returns the fragment count.
    template <bool Heights, bool Values, bool Third, bool Ids>
    std::uint64_t render(float max_size);
    // True once a render stopped because the caller cancelled.
    bool cancelled() const { return m_cancelled; }

    // One work-group per triangle striding over its clamped box (devices),
    // or one item per triangle (render3_cpu, for the host back-end). Same
    // coverage and depth as render. With Ids, stores the triangle index as
    // an identifier without a depth test into `identifiers`.
    // Triangle values name the same winner as render does.
    template <bool Heights, bool Values, bool Third, bool Ids>
    void render3(std::uint32_t* identifiers = nullptr);
    template <bool Heights, bool Values, bool Third, bool Ids>
    void render3_cpu(std::uint32_t* identifiers = nullptr);

    // Reduces each 2 x 2 block into the caller's grids (half the size):
    // heights by the maximum, ids by the id of the maximum's cell.
    void reduce_supersampled(float* h_heights, float* h_ids, int width, int height);
    // Copies the grids to the caller's arrays.
    void copy_out(float* h_heights, float* h_ids);

    const grid& heights() const { return m_heights; }
    const grid& ids() const { return m_ids; }
    // Device vertices (grid coordinates once processed) and triangles.
    const vertex* device_vertices() const { return m_vertices.get(); }
    const triangle* device_triangles() const { return m_triangles.get(); }
    // Per cell, the packed winner of the last render with values: the
    // complement of the winning triangle's index in the low 32 bits, which
    // is past every triangle (~0) where none won.
    const std::uint64_t* cell_winners() const { return m_winners.get(); }

    // The vertex transform of process_vertices, same arithmetic, applied to
    // `count` other device vertices (pieces cut from the mesh's triangles),
    // so that they land where the mesh's own vertices would.
    void transform_vertices(vertex* d_vertices, std::size_t count);
    // Renders `count` pieces, triangles over `d_vertices` in grid
    // coordinates, by the coverage and depth rules, one item per piece over
    // its clamped box. A piece's `pad` holds the index of the mesh triangle
    // it was cut from: the winner names that triangle, so pieces write their
    // parent's value and settle ties as their parent would. With Values the
    // heights and values are resolved from the winners afterwards.
    template <bool Values>
    void render_pieces(const vertex* d_vertices, std::uint32_t vertex_count, const triangle* d_pieces,
                       std::size_t count);

private:
    // The packed winners a render writes into; a render with values needs them.
    std::uint64_t* winners(bool values);
    // Heights and values from the packed winners of a render with values.
    void resolve_winners();

    halden::compute::queue& m_queue;
    Parameters m_parameters;
    halden_callbacks m_callbacks;
    bool m_cancelled = false;
    std::uint32_t m_vertex_count, m_triangle_count;
    halden::compute::usm_ptr<vertex, 1> m_vertices;
    halden::compute::usm_ptr<triangle, 1> m_triangles;
    grid m_heights, m_ids;
    halden::compute::usm_ptr<std::uint64_t, 1> m_winners;
};

}  // namespace mesh_rasterizer
