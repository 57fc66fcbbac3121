// SPDX-License-Identifier: Apache-2.0
#include "modules/mesh_rasterizer/mesh_rasterizer.hpp"

#include <cmath>
#include <stdexcept>
#include <vector>

#include "core/bits.hpp"
#include "core/math.hpp"
#include "core/resampling.hpp"
#include "device/messages.hpp"

namespace mesh_rasterizer {

using halden::max_of;
using halden::min_of;
using halden::compute::queue;
using halden::compute::range;
using halden::compute::usm_ptr;
using halden::core::fill;

halden_callbacks callbacks{};

namespace {

bool finite3(const float* v) { return std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]); }

// Coordinates past this can only belong to triangles too large to render.
constexpr float coordinate_limit = 1073741824.0f;

// The coverage and depth rules, shared by every renderer.
struct raster {
    const vertex* vertices;
    const triangle* triangles;
    std::uint32_t vertex_count;
    float* heights;
    // With triangle values: the winner of each cell, packed (see winner()).
    std::uint64_t* winners;
    int width, height;

    HALDEN_HD bool corners(std::uint32_t t, vertex& a, vertex& b, vertex& c) const {
        const triangle tri = triangles[t];
        if (tri.a >= vertex_count || tri.b >= vertex_count || tri.c >= vertex_count) return false;
        a = vertices[tri.a];
        b = vertices[tri.b];
        c = vertices[tri.c];
        return true;
    }
    // One winding only is drawn.
    HALDEN_HD static bool culled(const vertex& a, const vertex& b, const vertex& c) {
        return (c.y - a.y) * (b.x - a.x) + (a.x - c.x) * (b.y - a.y) > 0.0f;
    }
    HALDEN_HD static bool within_limits(const vertex& a, const vertex& b, const vertex& c) {
        const float m = coordinate_limit;
        return a.x > -m && a.x < m && a.y > -m && a.y < m && b.x > -m && b.x < m && b.y > -m && b.y < m &&
               c.x > -m && c.x < m && c.y > -m && c.y < m;
    }
    // Tests cell (x, y) against the triangle enlarged by 0.5 % about its
    // centroid and keeps the greater height. With Values the height and the
    // triangle are kept together as one packed winner.
    template <bool Values>
    HALDEN_HD void write(const vertex& a, const vertex& b, const vertex& c, std::uint32_t t, int x, int y) const {
        const float gx = ((a.x + b.x) + c.x) / 3.0f, gy = ((a.y + b.y) + c.y) / 3.0f;
        const float ax = gx + 1.005f * (a.x - gx), ay = gy + 1.005f * (a.y - gy);
        const float bx = gx + 1.005f * (b.x - gx), by = gy + 1.005f * (b.y - gy);
        const float cx = gx + 1.005f * (c.x - gx), cy = gy + 1.005f * (c.y - gy);
        const float e1x = bx - ax, e1y = by - ay, e2x = cx - ax, e2y = cy - ay;
        const float qx = (float(x) + 0.5f) - ax, qy = (float(y) + 0.5f) - ay;
        const float d00 = e1x * e1x + e1y * e1y, d11 = e2x * e2x + e2y * e2y, d01 = e1x * e2x + e1y * e2y;
        const float den = d00 * d11 - d01 * d01;
        const float d20 = qx * e1x + qy * e1y, d21 = qx * e2x + qy * e2y;
        const float b1 = (d11 * d20 - d01 * d21) / den, b2 = (d00 * d21 - d01 * d20) / den;
        const float b0 = 1.0f - b1 - b2;
        // A degenerate triangle gives non-finite weights and covers nothing.
        if (!(b0 >= 0.0f && b1 >= 0.0f && b2 >= 0.0f)) return;
        const float z = b0 * a.z + b1 * b.z + b2 * c.z;
        // Nothing at or below the cleared value (and no NaN) is written.
        if (!(z > lowest_height)) return;
        const std::size_t i = std::size_t(y) * std::size_t(width) + std::size_t(x);
        if (Values) {
            halden::compute::atomic_max(&winners[i], winner(z, t));
            return;
        }
        // Ordered keys also settle -0 against +0 the same way in every order.
        std::uint32_t* cell = reinterpret_cast<std::uint32_t*>(&heights[i]);
        std::uint32_t seen = halden::float_bits(heights[i]);
        while (halden::ordered_key(z) > halden::ordered_key(halden::bits_float(seen))) {
            const std::uint32_t found = halden::compute::atomic_compare_exchange(cell, seen, halden::float_bits(z));
            if (found == seen) return;
            seen = found;
        }
    }
    // The height's ordered key above the complement of the triangle index: the
    // 64-bit maximum is the highest triangle, and among triangles of equal
    // height the first, as if they were drawn one after another in order.
    HALDEN_HD static std::uint64_t winner(float z, std::uint32_t t) {
        return (std::uint64_t(halden::ordered_key(z)) << 32) | std::uint64_t(~t);
    }
};

// The cleared winner: the key of lowest_height (-FLT_MAX, bits 0xFF7FFFFF)
// with no triangle, below every winner that may be written.
constexpr std::uint64_t no_winner = std::uint64_t(0x00800000u) << 32;

}  // namespace

std::string check(const Mesh* mesh, const Parameters& p) {
    if (!mesh) return "null mesh record";
    if (mesh->vertex_count > 0 && !mesh->vertices) return "null vertex array";
    if (mesh->triangle_count > 0 && !mesh->triangles) return "null triangle array";
    const int limit = p.supersample ? max_side / 2 : max_side;
    if (p.width < 1 || p.height < 1 || p.width > limit || p.height > limit)
        return "width and height must lie in [1, " + std::to_string(limit) + "] (got " + std::to_string(p.width) + " x " +
               std::to_string(p.height) + ")";
    if (!finite3(p.centre) || !finite3(p.offset) || !std::isfinite(p.scale) || !std::isfinite(p.shift))
        return "centre, scale, offset and shift must be finite";
    if (!std::isfinite(p.depth_divisor) || p.depth_divisor == 0.0f) return "depth_divisor must be finite and not 0";
    return {};
}

void clear_winners(queue& q, std::uint64_t* w, std::size_t n);

std::uint64_t memory_estimate(const Mesh& mesh, const Parameters& p) {
    return 16u * std::uint64_t(mesh.vertex_count) + 16u * std::uint64_t(mesh.triangle_count) +
           (p.supersample ? 52u : 16u) * std::uint64_t(p.width) * std::uint64_t(p.height);
}

MeshRasterizer::MeshRasterizer(queue& q, const Mesh& mesh, const Parameters& parameters, bool with_ids,
                               const halden_callbacks* callbacks)
    : m_queue(q),
      m_parameters(parameters),
      m_callbacks(halden::complete(callbacks)),
      m_vertex_count(mesh.vertex_count),
      m_triangle_count(mesh.triangle_count),
      m_vertices(q, {std::size_t(mesh.vertex_count)}, "vertices"),
      m_triangles(q, {std::size_t(mesh.triangle_count)}, "triangles"),
      m_heights(q, halden::core::grid_extent(parameters.width, parameters.height), "rendered heights") {
    // Packed host arrays into 16-byte device slots.
    std::vector<vertex> v(mesh.vertex_count);
    for (std::size_t i = 0; i < v.size(); ++i)
        v[i] = {mesh.vertices[3 * i], mesh.vertices[3 * i + 1], mesh.vertices[3 * i + 2], 0.0f};
    std::vector<triangle> t(mesh.triangle_count);
    for (std::size_t i = 0; i < t.size(); ++i)
        t[i] = {mesh.triangles[3 * i], mesh.triangles[3 * i + 1], mesh.triangles[3 * i + 2], 0u};
    m_vertices.copy_from_host(v.data());
    m_triangles.copy_from_host(t.data());
    m_queue.synchronize();

    fill(m_heights, lowest_height);
    if (with_ids) {
        m_ids = grid(q, m_heights.extent(), "triangle ids");
        fill(m_ids, no_triangle);
        m_winners = usm_ptr<std::uint64_t, 1>(q, {m_heights.extent().count()}, "cell winners");
        clear_winners(q, m_winners.get(), m_winners.size());
    }
}

MeshRasterizer::~MeshRasterizer() {
    try {
        m_queue.synchronize();
    } catch (...) {
    }
}

void MeshRasterizer::process_vertices() {
    vertex* v = m_vertices.get();
    const Parameters& p = m_parameters;
    const vertex c{p.centre[0], p.centre[1], p.centre[2], 0.0f};
    const float s = p.scale, ox = p.offset[0], oy = p.offset[1], oz = p.offset[2], dz = p.depth_divisor;
    m_queue.parallel_for(range<1>{m_vertices.size()}, HALDEN_KERNEL(std::size_t i) {
        const float wx = v[i].x - c.x, wy = v[i].y - c.y, wz = v[i].z - c.z;
        v[i] = {s * wx + ox, s * wy + oy, (s * wz + oz) / dz, 0.0f};
    });
    // The second pass: one offset off every component, then the doubling of
    // a supersampled render.
    const float shift = p.shift, grid_scale = p.supersample ? 2.0f : 1.0f;
    m_queue.parallel_for(range<1>{m_vertices.size()}, HALDEN_KERNEL(std::size_t i) {
        v[i] = {(v[i].x - shift) * grid_scale, (v[i].y - shift) * grid_scale, v[i].z - shift, 0.0f};
    });
}

namespace {

// The cells the fragment renderer walks for one triangle: `area` fragments
// (the floor/ceiling box's cell count) laid row by row over a box of width bw
// anchored by truncation at (x0, y0), so full rows and then one partial row.
// Only the part inside the grid is kept: the same cells, without walking the
// rest of a huge box.
struct fragment_span {
    int x0 = 0, x1 = -1;          // columns of the full rows, clipped
    int y0 = 0, y1 = -1;          // the full rows, clipped
    int tail_x0 = 0, tail_x1 = -1;  // columns of the partial row, clipped
    int tail_y = 0;

    HALDEN_HD fragment_span(const vertex& a, const vertex& b, const vertex& c, std::uint32_t area, int w, int h) {
        const int ax = int(min_of(min_of(a.x, b.x), c.x)), ay = int(min_of(min_of(a.y, b.y), c.y));
        const int bw = int(max_of(max_of(a.x, b.x), c.x)) - ax + 1;
        const int rows = int(area / std::uint32_t(bw)), rest = int(area % std::uint32_t(bw));
        x0 = ax < 0 ? 0 : ax;
        x1 = ax + bw - 1 > w - 1 ? w - 1 : ax + bw - 1;
        y0 = ay < 0 ? 0 : ay;
        y1 = ay + rows - 1 > h - 1 ? h - 1 : ay + rows - 1;
        tail_y = ay + rows;
        if (rest > 0 && tail_y >= 0 && tail_y < h) {
            tail_x0 = x0;
            tail_x1 = ax + rest - 1 > w - 1 ? w - 1 : ax + rest - 1;
        }
    }
    HALDEN_HD std::int64_t full_count() const {
        return x1 < x0 || y1 < y0 ? 0 : std::int64_t(x1 - x0 + 1) * (y1 - y0 + 1);
    }
    HALDEN_HD std::int64_t count() const { return full_count() + (tail_x1 < tail_x0 ? 0 : tail_x1 - tail_x0 + 1); }
    HALDEN_HD void cell(std::int64_t local, int& x, int& y) const {
        const std::int64_t full = full_count();
        if (local < full) {
            const std::int64_t cols = x1 - x0 + 1;
            x = x0 + int(local % cols);
            y = y0 + int(local / cols);
        } else {
            x = tail_x0 + int(local - full);
            y = tail_y;
        }
    }
};

// Fragments per launch: cancel is asked between launches.
constexpr std::uint64_t fragment_batch = std::uint64_t(1) << 24;

}  // namespace

template <bool Heights, bool Values, bool Third, bool Ids>
std::uint64_t MeshRasterizer::render(float max_size) {
    static_assert(Heights && Third && !Ids, "the fragment renderer writes heights (and values)");
    const std::size_t count = m_triangles.size();
    if (count == 0) return 0;
    const raster r{m_vertices.get(), m_triangles.get(), m_vertex_count, m_heights.get(), winners(Values),
                   halden::core::width_of(m_heights), halden::core::height_of(m_heights)};
    const float limit = std::trunc(max_size) * std::trunc(max_size);

    // Pass 1: the floor/ceiling box's area decides whether a triangle is
    // drawn at all; its fragments are the cells of the walk inside the grid.
    usm_ptr<std::uint32_t, 1> counts(m_queue, {count}, "fragment counts");
    usm_ptr<std::uint32_t, 1> areas(m_queue, {count}, "fragment areas");
    std::uint32_t* d_counts = counts.get();
    std::uint32_t* d_areas = areas.get();
    m_queue.parallel_for(range<1>{count}, HALDEN_KERNEL(std::size_t i) {
        vertex a, b, c;
        std::uint32_t n = 0, area_cells = 0;
        if (r.corners(std::uint32_t(i), a, b, c) && !raster::culled(a, b, c) && raster::within_limits(a, b, c)) {
            const float x0 = floorf(min_of(min_of(a.x, b.x), c.x)), x1 = ceilf(max_of(max_of(a.x, b.x), c.x));
            const float y0 = floorf(min_of(min_of(a.y, b.y), c.y)), y1 = ceilf(max_of(max_of(a.y, b.y), c.y));
            const float area = fabsf((x1 - x0 + 1.0f) * (y1 - y0 + 1.0f));
            if (area < limit) {
                area_cells = std::uint32_t(area);
                n = std::uint32_t(fragment_span(a, b, c, area_cells, r.width, r.height).count());
            }
        }
        d_counts[i] = n;
        d_areas[i] = area_cells;
    });

    // Inclusive prefix in 32-bit arithmetic, entries sign-extended.
    std::vector<std::uint32_t> h_counts(count);
    counts.copy_to_host(h_counts.data());
    m_queue.synchronize();
    std::vector<std::int64_t> prefix(count);
    std::uint32_t running = 0;
    std::uint64_t exact = 0;
    for (std::size_t i = 0; i < count; ++i) {
        running += h_counts[i];
        exact += h_counts[i];
        prefix[i] = std::int64_t(std::int32_t(running));
    }
    if (exact > 0x7FFFFFFFu)
        throw std::length_error("the mesh covers " + std::to_string(exact) + " fragments, more than 2^31 - 1");
    if (exact == 0) return 0;
    usm_ptr<std::int64_t, 1> d_prefix_owner(m_queue, {count}, "fragment prefix");
    d_prefix_owner.copy_from_host(prefix.data());
    const std::int64_t* d_prefix = d_prefix_owner.get();
    const std::size_t triangles = count;

    // Pass 2: one item per fragment, in batches.
    for (std::uint64_t first = 0; first < exact; first += fragment_batch) {
        if (first > 0) {
            m_queue.synchronize();
            if (m_callbacks.cancel() != 0) {
                m_cancelled = true;
                return exact;
            }
        }
        const std::uint64_t n = exact - first < fragment_batch ? exact - first : fragment_batch;
        m_queue.parallel_for(range<1>{std::size_t(n)}, HALDEN_KERNEL(std::size_t k) {
            const std::int64_t f = std::int64_t(first + k);
            std::size_t lo = 0, hi = triangles;
            while (lo < hi) {
                const std::size_t mid = (lo + hi) / 2;
                if (d_prefix[mid] > f)
                    hi = mid;
                else
                    lo = mid + 1;
            }
            const std::uint32_t t = std::uint32_t(lo);
            const std::int64_t local = f - (t > 0 ? d_prefix[t - 1] : 0);
            vertex a, b, c;
            // Triangles with fragments passed the index check in pass 1.
            if (!r.corners(t, a, b, c)) return;
            int x, y;
            fragment_span(a, b, c, d_areas[t], r.width, r.height).cell(local, x, y);
            r.template write<Values>(a, b, c, t, x, y);
        });
    }
    if (Values) resolve_winners();
    return exact;
}

template std::uint64_t MeshRasterizer::render<true, false, true, false>(float);
template std::uint64_t MeshRasterizer::render<true, true, true, false>(float);

namespace {

// The clamped floor/ceiling box of a triangle; false when it is empty.
HALDEN_HD bool clamped_box(const vertex& a, const vertex& b, const vertex& c, int w, int h, int& x0, int& y0, int& bw,
                           int& bh) {
    const float fx0 = floorf(min_of(min_of(a.x, b.x), c.x)), fx1 = ceilf(max_of(max_of(a.x, b.x), c.x));
    const float fy0 = floorf(min_of(min_of(a.y, b.y), c.y)), fy1 = ceilf(max_of(max_of(a.y, b.y), c.y));
    if (!(fx1 >= 0.0f && fy1 >= 0.0f && fx0 <= float(w - 1) && fy0 <= float(h - 1))) return false;
    x0 = fx0 < 0.0f ? 0 : int(fx0);
    y0 = fy0 < 0.0f ? 0 : int(fy0);
    const int x1 = fx1 > float(w - 1) ? w - 1 : int(fx1), y1 = fy1 > float(h - 1) ? h - 1 : int(fy1);
    bw = x1 - x0 + 1;
    bh = y1 - y0 + 1;
    return bw > 0 && bh > 0;
}

}  // namespace

template <bool Heights, bool Values, bool Third, bool Ids>
void MeshRasterizer::render3(std::uint32_t* identifiers) {
    const std::size_t count = m_triangles.size();
    if (count == 0) return;
    const raster r{m_vertices.get(), m_triangles.get(), m_vertex_count, m_heights.get(), winners(Values),
                   halden::core::width_of(m_heights), halden::core::height_of(m_heights)};
    constexpr std::uint32_t group = 64;
    m_queue.parallel_for_work_group<float>(
        halden::compute::nd_range{{1, count}, {1, group}}, 0,
        HALDEN_KERNEL(const halden::compute::group_item& it, float*) {
            const std::uint32_t t = it.group_col;
            vertex a, b, c;
            if (!r.corners(t, a, b, c) || raster::culled(a, b, c)) return;
            int x0, y0, bw, bh;
            if (!clamped_box(a, b, c, r.width, r.height, x0, y0, bw, bh)) return;
            const std::int64_t cells = std::int64_t(bw) * bh;
            for (std::int64_t i = it.local_linear(); i < cells; i += it.local_size()) {
                const int x = x0 + int(i % bw), y = y0 + int(i / bw);
                if (Ids)
                    identifiers[y * r.width + x] = t;
                else if (Heights)
                    r.template write<Values>(a, b, c, t, x, y);
            }
        });
    if (Values) resolve_winners();
}

template <bool Heights, bool Values, bool Third, bool Ids>
void MeshRasterizer::render3_cpu(std::uint32_t* identifiers) {
    const std::size_t count = m_triangles.size();
    if (count == 0) return;
    const raster r{m_vertices.get(), m_triangles.get(), m_vertex_count, m_heights.get(), winners(Values),
                   halden::core::width_of(m_heights), halden::core::height_of(m_heights)};
    m_queue.parallel_for(range<1>{count}, HALDEN_KERNEL(std::size_t i) {
        const std::uint32_t t = std::uint32_t(i);
        vertex a, b, c;
        if (!r.corners(t, a, b, c) || raster::culled(a, b, c)) return;
        int x0, y0, bw, bh;
        if (!clamped_box(a, b, c, r.width, r.height, x0, y0, bw, bh)) return;
        for (int y = y0; y < y0 + bh; ++y)
            for (int x = x0; x < x0 + bw; ++x) {
                if (Ids)
                    identifiers[y * r.width + x] = t;
                else if (Heights)
                    r.template write<Values>(a, b, c, t, x, y);
            }
    });
    if (Values) resolve_winners();
}

template void MeshRasterizer::render3<true, false, true, false>(std::uint32_t*);
template void MeshRasterizer::render3<true, true, true, false>(std::uint32_t*);
template void MeshRasterizer::render3<false, false, false, true>(std::uint32_t*);
template void MeshRasterizer::render3_cpu<true, false, true, false>(std::uint32_t*);
template void MeshRasterizer::render3_cpu<true, true, true, false>(std::uint32_t*);
template void MeshRasterizer::render3_cpu<false, false, false, true>(std::uint32_t*);

void MeshRasterizer::transform_vertices(vertex* v, std::size_t count) {
    const Parameters& p = m_parameters;
    const vertex c{p.centre[0], p.centre[1], p.centre[2], 0.0f};
    const float s = p.scale, ox = p.offset[0], oy = p.offset[1], oz = p.offset[2], dz = p.depth_divisor;
    const float shift = p.shift, grid_scale = p.supersample ? 2.0f : 1.0f;
    m_queue.parallel_for(range<1>{count}, HALDEN_KERNEL(std::size_t i) {
        const float wx = v[i].x - c.x, wy = v[i].y - c.y, wz = v[i].z - c.z;
        const vertex t{s * wx + ox, s * wy + oy, (s * wz + oz) / dz, 0.0f};
        v[i] = {(t.x - shift) * grid_scale, (t.y - shift) * grid_scale, t.z - shift, 0.0f};
    });
}

template <bool Values>
void MeshRasterizer::render_pieces(const vertex* d_vertices, std::uint32_t vertex_count, const triangle* d_pieces,
                                   std::size_t count) {
    if (count == 0) return;
    const raster r{d_vertices, d_pieces, vertex_count, m_heights.get(), winners(Values),
                   halden::core::width_of(m_heights), halden::core::height_of(m_heights)};
    m_queue.parallel_for(range<1>{count}, HALDEN_KERNEL(std::size_t i) {
        vertex a, b, c;
        if (!r.corners(std::uint32_t(i), a, b, c) || raster::culled(a, b, c)) return;
        const std::uint32_t parent = r.triangles[i].pad;
        int x0, y0, bw, bh;
        if (!clamped_box(a, b, c, r.width, r.height, x0, y0, bw, bh)) return;
        for (int y = y0; y < y0 + bh; ++y)
            for (int x = x0; x < x0 + bw; ++x) r.template write<Values>(a, b, c, parent, x, y);
    });
    if (Values) resolve_winners();
}

template void MeshRasterizer::render_pieces<false>(const vertex*, std::uint32_t, const triangle*, std::size_t);
template void MeshRasterizer::render_pieces<true>(const vertex*, std::uint32_t, const triangle*, std::size_t);

// Kernels live in free functions: a device lambda may not be defined in a
// constructor or a private member.
void clear_winners(queue& q, std::uint64_t* w, std::size_t n) {
    q.parallel_for(range<1>{n}, HALDEN_KERNEL(std::size_t i) { w[i] = no_winner; });
}

void resolve_winners(queue& q, const std::uint64_t* w, float* heights, float* ids, std::size_t n) {
    q.parallel_for(range<1>{n}, HALDEN_KERNEL(std::size_t i) {
        const std::uint64_t won = w[i];
        if (won == no_winner) return;
        heights[i] = halden::key_float(std::uint32_t(won >> 32));
        ids[i] = triangle_value(~std::uint32_t(won));
    });
}

std::uint64_t* MeshRasterizer::winners(bool values) {
    if (values && !m_winners.get()) throw std::logic_error("triangle values need a rasterizer made with ids");
    return m_winners.get();
}

void MeshRasterizer::resolve_winners() {
    mesh_rasterizer::resolve_winners(m_queue, m_winners.get(), m_heights.get(), m_ids.get(), m_winners.size());
}

void MeshRasterizer::reduce_supersampled(float* h_heights, float* h_ids, int width, int height) {
    grid heights(m_queue, halden::core::grid_extent(width, height), "reduced heights");
    grid ids;
    if (h_ids && m_ids.get()) ids = grid(m_queue, heights.extent(), "reduced ids");
    const float* src = m_heights.get();
    const float* src_ids = m_ids.get();
    float* dst = heights.get();
    float* dst_ids = ids.get();
    const std::size_t w = std::size_t(width), wide = 2 * w;
    m_queue.parallel_for(heights.extent(), HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const std::size_t cells[4] = {2 * row * wide + 2 * col, 2 * row * wide + 2 * col + 1,
                                      (2 * row + 1) * wide + 2 * col, (2 * row + 1) * wide + 2 * col + 1};
        std::size_t best = cells[0];
        for (int k = 1; k < 4; ++k)
            if (src[cells[k]] > src[best]) best = cells[k];
        dst[row * w + col] = src[best];
        if (dst_ids) dst_ids[row * w + col] = src_ids[best];
    });
    m_queue.synchronize();
    if (m_queue.has_pending_errors()) return;
    heights.copy_to_host(h_heights);
    if (ids.get()) ids.copy_to_host(h_ids);
    m_queue.synchronize();
}

void MeshRasterizer::copy_out(float* h_heights, float* h_ids) {
    m_queue.synchronize();
    if (m_queue.has_pending_errors()) return;
    m_heights.copy_to_host(h_heights);
    if (h_ids && m_ids.get()) m_ids.copy_to_host(h_ids);
    m_queue.synchronize();
}

void vertex_triangles(const Mesh& mesh, std::vector<std::uint32_t>& offsets, std::vector<std::uint32_t>& incident) {
    const std::uint32_t nv = mesh.vertex_count;
    offsets.assign(std::size_t(nv) + 1, 0u);
    auto valid = [&](std::size_t t) {
        const std::uint32_t* c = mesh.triangles + 3 * t;
        return c[0] < nv && c[1] < nv && c[2] < nv;
    };
    for (std::size_t t = 0; t < mesh.triangle_count; ++t)
        if (valid(t))
            for (int k = 0; k < 3; ++k) ++offsets[mesh.triangles[3 * t + k] + 1];
    for (std::size_t v = 0; v < nv; ++v) offsets[v + 1] += offsets[v];
    incident.assign(offsets[nv], 0u);
    std::vector<std::uint32_t> next(offsets.begin(), offsets.end() - 1);
    for (std::size_t t = 0; t < mesh.triangle_count; ++t)
        if (valid(t))
            for (int k = 0; k < 3; ++k) incident[next[mesh.triangles[3 * t + k]]++] = std::uint32_t(t);
}

}  // namespace mesh_rasterizer
