// SPDX-License-Identifier: Apache-2.0
#include "modules/mesh_rasterizer/triplanar.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>

#include "core/checks.hpp"
#include "core/grid.hpp"
#include "core/math.hpp"

namespace mesh_rasterizer {

using halden::compute::queue;
using halden::compute::range;
using halden::compute::usm_ptr;

namespace {

// Points plus pieces of one batch: bounds the batch buffers (about 128 MiB)
// and still takes the largest patch, (1024 + 1)(1024 + 2)/2 + 1024^2 entries.
constexpr std::uint64_t batch_entries = std::uint64_t(1) << 23;

HALDEN_HD inline vertex normalised(float x, float y, float z) {
    const float l2 = x * x + y * y + z * z;
    // A normal that vanishes (or overflows) points up.
    if (!(l2 > 0.0f && l2 < 3.4028235e38f)) return {0.0f, 0.0f, 1.0f, 0.0f};
    const float l = sqrtf(l2);
    return {x / l, y / l, z / l, 0.0f};
}

// Largest m with m (m + 1) / 2 <= n; the float root is only a guess, so the
// answer is the same on every device.
HALDEN_HD inline std::uint32_t triangular_root(std::uint32_t n) {
    std::uint64_t m = std::uint64_t((sqrtf(8.0f * float(n) + 1.0f) - 1.0f) * 0.5f);
    while (m > 0 && m * (m + 1) / 2 > n) --m;
    while ((m + 1) * (m + 2) / 2 <= n) ++m;
    return std::uint32_t(m);
}

// Largest m with m^2 <= n.
HALDEN_HD inline std::uint32_t square_root(std::uint32_t n) {
    std::uint64_t m = std::uint64_t(sqrtf(float(n)));
    while (m > 0 && m * m > n) --m;
    while ((m + 1) * (m + 1) <= n) ++m;
    return std::uint32_t(m);
}

// Index of the entry s with start[s] <= k < start[s + 1].
HALDEN_HD inline std::size_t owner(const std::uint32_t* start, std::size_t count, std::uint32_t k) {
    std::size_t lo = 0, hi = count;
    while (lo < hi) {
        const std::size_t mid = (lo + hi) / 2;
        if (start[mid + 1] > k)
            hi = mid;
        else
            lo = mid + 1;
    }
    return lo;
}

// A repeating texture read bilinearly, texel centres at +0.5.
struct texture_view {
    const float* values;
    int width, height;

    HALDEN_HD static float repeat(float u) {
        const float f = u - floorf(u);
        return f >= 0.0f && f <= 1.0f ? f : 0.0f;  // NaN and infinities read at 0
    }
    HALDEN_HD float read(float u, float v) const {
        const float tx = repeat(u) * float(width) - 0.5f, ty = repeat(v) * float(height) - 0.5f;
        int x0 = halden::core::floor_index(tx), y0 = halden::core::floor_index(ty);
        const float fx = tx - float(x0), fy = ty - float(y0);
        // tx lies in [-0.5, width - 0.5]: one wrap at either end.
        if (x0 < 0) x0 += width;
        if (y0 < 0) y0 += height;
        const int x1 = x0 + 1 == width ? 0 : x0 + 1, y1 = y0 + 1 == height ? 0 : y0 + 1;
        const std::size_t r0 = std::size_t(y0) * std::size_t(width), r1 = std::size_t(y1) * std::size_t(width);
        // Differences, not weighted sums: a constant texture reads as exactly its value.
        const float a = values[r0 + x0] + fx * (values[r0 + x1] - values[r0 + x0]);
        const float b = values[r1 + x0] + fx * (values[r1 + x1] - values[r1 + x0]);
        return a + fy * (b - a);
    }
};

// The surface a patch samples: vertex positions and normals, and the
// triplanar displacement.
struct surface {
    const vertex* positions;
    const vertex* normals;
    texture_view texture;
    float size, amplitude, midlevel, sharpness;
    int whole_sharpness;  // sharpness as a repeat count, or -1

    HALDEN_HD float weight(float c) const {
        const float a = c < 0.0f ? -c : c;
        if (whole_sharpness < 0) return halden::pow_p(a, sharpness);
        float w = 1.0f;
        for (int i = 0; i < whole_sharpness; ++i) w *= a;
        return w;
    }

    HALDEN_HD vertex displaced(const vertex& p, const vertex& n) const {
        float wx = weight(n.x), wy = weight(n.y);
        const float sum = (wx + wy) + weight(n.z);
        wx = wx / sum;
        wy = wy / sum;
        // The xy plane is the base; a plane of weight 0 is not read, and
        // then adds exactly +0.
        const float sz = texture.read(p.x / size, p.y / size);
        const float sx = wx > 0.0f ? texture.read(p.y / size, p.z / size) : sz;
        const float sy = wy > 0.0f ? texture.read(p.x / size, p.z / size) : sz;
        const float t = (sz + wx * (sx - sz)) + wy * (sy - sz);
        const float d = amplitude * (t - midlevel);
        return {p.x + n.x * d, p.y + n.y * d, p.z + n.z * d, 0.0f};
    }

    HALDEN_HD vertex corner(std::uint32_t v) const { return displaced(positions[v], normals[v]); }

    // Cut point k of n on the edge from u to w; measured from the lower
    // vertex index, so that both triangles of the edge compute the same bits.
    HALDEN_HD vertex on_edge(std::uint32_t u, std::uint32_t w, std::uint32_t k, std::uint32_t n) const {
        if (u > w) {
            const std::uint32_t s = u;
            u = w;
            w = s;
            k = n - k;
        }
        if (k == 0) return corner(u);
        if (k == n) return corner(w);
        const float t = float(k) / float(n);
        const vertex a = positions[u], b = positions[w], na = normals[u], nb = normals[w];
        const vertex p{a.x + t * (b.x - a.x), a.y + t * (b.y - a.y), a.z + t * (b.z - a.z), 0.0f};
        return displaced(p, normalised(na.x + t * (nb.x - na.x), na.y + t * (nb.y - na.y), na.z + t * (nb.z - na.z)));
    }

    // Point (i, j) of a patch. A border point at step s of the patch's
    // `order` goes to the nearest of its edge's own cut points (ties away
    // from the edge's start): the same set of points from either side.
    HALDEN_HD vertex point(const patch& s, std::uint32_t i, std::uint32_t j) const {
        const std::uint32_t n = s.order;
        const auto snap = [n](std::uint32_t step, std::uint32_t cuts) {
            return std::uint32_t((2 * std::uint64_t(step) * cuts + n) / (2 * std::uint64_t(n)));
        };
        if (j == 0) return on_edge(s.v[0], s.v[1], snap(i, s.cuts[0]), s.cuts[0]);
        if (i + j == n) return on_edge(s.v[1], s.v[2], snap(j, s.cuts[1]), s.cuts[1]);
        if (i == 0) return on_edge(s.v[2], s.v[0], snap(n - j, s.cuts[2]), s.cuts[2]);
        const float fi = float(i) / float(n), fj = float(j) / float(n);
        const vertex a = positions[s.v[0]], b = positions[s.v[1]], c = positions[s.v[2]];
        const vertex na = normals[s.v[0]], nb = normals[s.v[1]], nc = normals[s.v[2]];
        const vertex p{(a.x + fi * (b.x - a.x)) + fj * (c.x - a.x), (a.y + fi * (b.y - a.y)) + fj * (c.y - a.y),
                       (a.z + fi * (b.z - a.z)) + fj * (c.z - a.z), 0.0f};
        return displaced(p, normalised((na.x + fi * (nb.x - na.x)) + fj * (nc.x - na.x),
                                       (na.y + fi * (nb.y - na.y)) + fj * (nc.y - na.y),
                                       (na.z + fi * (nb.z - na.z)) + fj * (nc.z - na.z)));
    }
};

bool finite_record(const TriplanarParameters& p) {
    return std::isfinite(p.texture_size) && std::isfinite(p.amplitude) && std::isfinite(p.midlevel) &&
           std::isfinite(p.sharpness) && std::isfinite(p.edge_length);
}

}  // namespace

std::string check(const Mesh* mesh, const Texture* texture, const TriplanarParameters& p) {
    std::string problem = check(mesh, p.transform);
    if (!problem.empty()) return problem;
    if (mesh->triangle_count > (1u << 30)) return "the mesh has more than 2^30 triangles";
    if (!texture) return "null texture record";
    if (!halden::core::grid_size_ok(texture->width, texture->height) || texture->width > 65536 ||
        texture->height > 65536)
        return "texture width and height must lie in [1, 65536] and hold at most 2^31 - 1 texels (got " +
               std::to_string(texture->width) + " x " + std::to_string(texture->height) + ")";
    if (!texture->values) return "null texture values";
    if (!finite_record(p)) return "texture_size, amplitude, midlevel, sharpness and edge_length must be finite";
    if (!(p.texture_size > 0.0f)) return "texture_size must be positive" + halden::core::got(p.texture_size);
    if (!(p.sharpness >= 0.0f && p.sharpness <= max_sharpness))
        return "sharpness must lie in [0, 64]" + halden::core::got(p.sharpness);
    if (!(p.edge_length > 0.0f)) return "edge_length must be positive" + halden::core::got(p.edge_length);
    if (p.max_subdivision < 1 || p.max_subdivision > max_cuts)
        return "max_subdivision must lie in [1, 1024]" + halden::core::got(std::int64_t(p.max_subdivision));
    const std::size_t texels = std::size_t(texture->width) * std::size_t(texture->height);
    for (std::size_t i = 0; i < texels; ++i)
        if (!std::isfinite(texture->values[i])) return "texture value " + std::to_string(i) + " is not finite";
    return {};
}

std::uint32_t edge_cuts(const float* a, const float* b, const TriplanarParameters& p) {
    const float dx = b[0] - a[0], dy = b[1] - a[1], dz = b[2] - a[2];
    const float cells = std::sqrt(dx * dx + dy * dy + dz * dz) * std::fabs(p.transform.scale);
    const float q = cells / p.edge_length;
    const std::uint32_t most = p.max_subdivision;
    if (!(q > 1.0f)) return 1;  // NaN included: such a triangle is not drawn
    if (!(q < float(most))) return most;
    const std::uint32_t n = std::uint32_t(q);
    return float(n) < q ? n + 1 : n;
}

std::string plan(const Mesh& mesh, const TriplanarParameters& p, std::vector<batch>& batches) {
    batches.clear();
    const std::uint32_t nv = mesh.vertex_count;
    std::uint64_t total = 0;
    batch current;
    std::uint64_t entries = 0;
    for (std::uint32_t t = 0; t < mesh.triangle_count; ++t) {
        const std::uint32_t* v = mesh.triangles + 3 * std::size_t(t);
        // The renderer skips triangles that name a vertex past the array.
        if (v[0] >= nv || v[1] >= nv || v[2] >= nv) continue;
        patch s{{v[0], v[1], v[2]}, 1, {1, 1, 1}, t};
        for (int e = 0; e < 3; ++e) {
            const std::uint32_t u = v[e], w = v[(e + 1) % 3];
            const std::uint32_t lo = u < w ? u : w, hi = u < w ? w : u;
            s.cuts[e] = edge_cuts(mesh.vertices + 3 * std::size_t(lo), mesh.vertices + 3 * std::size_t(hi), p);
            if (s.cuts[e] > s.order) s.order = s.cuts[e];
        }
        const std::uint64_t pieces = std::uint64_t(s.order) * s.order;
        const std::uint64_t points = (std::uint64_t(s.order) + 1) * (s.order + 2) / 2;
        total += pieces;
        if (total > max_pieces) {
            batches.clear();
            return "the mesh would be cut into more than 2^30 pieces (" + std::to_string(total) + " by triangle " +
                   std::to_string(t) + "); raise edge_length or lower max_subdivision";
        }
        if (entries + pieces + points > batch_entries) {
            batches.push_back(std::move(current));
            current = batch{};
            entries = 0;
        }
        current.patches.push_back(s);
        current.point_start.push_back(current.point_start.back() + std::uint32_t(points));
        current.piece_start.push_back(current.piece_start.back() + std::uint32_t(pieces));
        entries += pieces + points;
    }
    if (!current.patches.empty()) batches.push_back(std::move(current));
    return {};
}

std::uint64_t memory_estimate(const Mesh& mesh, const Texture& texture, const TriplanarParameters& p,
                              const std::vector<batch>& batches) {
    std::uint64_t largest = 0;
    for (const batch& b : batches) {
        const std::uint64_t bytes =
            16u * std::uint64_t(b.points()) + 16u * std::uint64_t(b.pieces()) + 40u * std::uint64_t(b.patches.size());
        if (bytes > largest) largest = bytes;
    }
    const std::uint64_t nv = mesh.vertex_count, nt = mesh.triangle_count;
    return memory_estimate(mesh, p.transform) + (batches.empty() ? 0 : 36u * nv + 28u * nt) +
           4u * std::uint64_t(texture.width) * std::uint64_t(texture.height) + largest;
}

TriplanarDisplacement::TriplanarDisplacement(queue& q, const Mesh& mesh, const Texture& texture,
                                             const TriplanarParameters& parameters, std::vector<batch> batches)
    : m_queue(q),
      m_parameters(parameters),
      m_texture_width(texture.width),
      m_texture_height(texture.height),
      m_vertex_count(mesh.vertex_count),
      m_batches(std::move(batches)),
      m_positions(q, {std::size_t(mesh.vertex_count)}, "vertex positions"),
      m_normals(q, {std::size_t(mesh.vertex_count)}, "vertex normals"),
      m_triangles(q, {std::size_t(mesh.triangle_count)}, "triangles"),
      m_first(q, {std::size_t(mesh.vertex_count) + 1}, "incident offsets"),
      m_texture(q, {std::size_t(texture.width) * std::size_t(texture.height)}, "texture") {
    const std::size_t nv = mesh.vertex_count, nt = mesh.triangle_count;
    std::vector<vertex> h_positions(nv);
    for (std::size_t i = 0; i < nv; ++i)
        h_positions[i] = {mesh.vertices[3 * i], mesh.vertices[3 * i + 1], mesh.vertices[3 * i + 2], 0.0f};
    std::vector<triangle> h_triangles(nt);
    for (std::size_t t = 0; t < nt; ++t) {
        const std::uint32_t* v = mesh.triangles + 3 * t;
        h_triangles[t] = {v[0], v[1], v[2], 0u};
    }
    std::vector<std::uint32_t> h_first, h_incident;
    vertex_triangles(mesh, h_first, h_incident);
    if (h_incident.empty()) h_incident.push_back(0u);
    // Within a vertex, by the triangle's corners (rotated to start at the
    // lowest index, keeping the winding) rather than by its place in the
    // list: the order of the triangles then changes no bit of a normal.
    const auto corners = [&](std::uint32_t t) {
        const std::uint32_t* v = mesh.triangles + 3 * std::size_t(t);
        const int r = v[0] <= v[1] && v[0] <= v[2] ? 0 : (v[1] <= v[2] ? 1 : 2);
        return std::array<std::uint32_t, 3>{v[r], v[(r + 1) % 3], v[(r + 2) % 3]};
    };
    for (std::size_t i = 0; i < nv; ++i)
        std::sort(h_incident.begin() + h_first[i], h_incident.begin() + h_first[i + 1],
                  [&](std::uint32_t a, std::uint32_t b) { return corners(a) < corners(b); });
    m_incident = usm_ptr<std::uint32_t, 1>(q, {h_incident.size()}, "incident triangles");
    m_positions.copy_from_host(h_positions.data());
    m_triangles.copy_from_host(h_triangles.data());
    m_first.copy_from_host(h_first.data());
    m_incident.copy_from_host(h_incident.data());
    m_texture.copy_from_host(texture.values);
    m_queue.synchronize();
}

void TriplanarDisplacement::compute_normals() {
    const vertex* positions = m_positions.get();
    const triangle* triangles = m_triangles.get();
    const std::uint32_t* first = m_first.get();
    const std::uint32_t* incident = m_incident.get();
    vertex* normals = m_normals.get();
    m_queue.parallel_for(
        range<1>{m_normals.size()}, HALDEN_KERNEL(std::size_t v) {
            float sx = 0.0f, sy = 0.0f, sz = 0.0f;
            for (std::uint32_t e = first[v]; e < first[v + 1]; ++e) {
                const triangle t = triangles[incident[e]];
                const vertex a = positions[t.a], b = positions[t.b], c = positions[t.c];
                const float e1x = b.x - a.x, e1y = b.y - a.y, e1z = b.z - a.z;
                const float e2x = c.x - a.x, e2y = c.y - a.y, e2z = c.z - a.z;
                // (v2 - v0) x (v1 - v0): up for the winding the renderer draws.
                sx += e2y * e1z - e2z * e1y;
                sy += e2z * e1x - e2x * e1z;
                sz += e2x * e1y - e2y * e1x;
            }
            normals[v] = normalised(sx, sy, sz);
        });
}

void TriplanarDisplacement::make_points(const patch* d_patches, const std::uint32_t* d_point_start,
                                        std::size_t patch_count, vertex* d_points, std::uint32_t point_count) {
    const TriplanarParameters& p = m_parameters;
    const float k = p.sharpness;
    const int whole = float(int(k)) == k ? int(k) : -1;
    const surface s{m_positions.get(),
                    m_normals.get(),
                    {m_texture.get(), m_texture_width, m_texture_height},
                    p.texture_size,
                    p.amplitude,
                    p.midlevel,
                    k,
                    whole};
    m_queue.parallel_for(
        range<1>{point_count}, HALDEN_KERNEL(std::size_t i) {
            const std::uint32_t k = std::uint32_t(i);
            const std::size_t owner_index = owner(d_point_start, patch_count, k);
            const patch pt = d_patches[owner_index];
            const std::uint32_t local = k - d_point_start[owner_index];
            // Points run row by row from the corner v2 (row length m + 1 at j = order - m).
            const std::uint32_t m = triangular_root(local);
            const std::uint32_t col = local - m * (m + 1) / 2;
            d_points[i] = s.point(pt, col, pt.order - m);
        });
}

void TriplanarDisplacement::make_pieces(const patch* d_patches, const std::uint32_t* d_point_start,
                                        const std::uint32_t* d_piece_start, std::size_t patch_count, triangle* d_pieces,
                                        std::uint32_t piece_count) {
    m_queue.parallel_for(
        range<1>{piece_count}, HALDEN_KERNEL(std::size_t i) {
            const std::uint32_t k = std::uint32_t(i);
            const std::size_t owner_index = owner(d_piece_start, patch_count, k);
            const patch pt = d_patches[owner_index];
            const std::uint32_t local = k - d_piece_start[owner_index];
            const std::uint32_t base = d_point_start[owner_index];
            // The strip between rows j and j + 1 (m and m - 1 steps long) holds
            // 2m - 1 pieces, and the strips before it (m - 1)^2.
            const std::uint32_t m = square_root(local) + 1, r = local - (m - 1) * (m - 1);
            const std::uint32_t j = pt.order - m;
            const auto at = [&](std::uint32_t x, std::uint32_t y) {
                const std::uint32_t row = pt.order - y;
                return base + row * (row + 1) / 2 + x;
            };
            // Both kinds keep the winding of (v0, v1, v2).
            const std::uint32_t x = r / 2;
            if (r % 2 == 0)
                d_pieces[i] = {at(x, j), at(x + 1, j), at(x, j + 1), pt.parent};
            else
                d_pieces[i] = {at(x + 1, j), at(x + 1, j + 1), at(x, j + 1), pt.parent};
        });
}

bool TriplanarDisplacement::render(MeshRasterizer& r, bool values, const halden_callbacks& callbacks) {
    if (m_batches.empty()) return true;
    compute_normals();
    std::size_t most_patches = 0;
    std::uint32_t most_points = 0, most_pieces = 0;
    for (const batch& b : m_batches) {
        if (b.patches.size() > most_patches) most_patches = b.patches.size();
        if (b.points() > most_points) most_points = b.points();
        if (b.pieces() > most_pieces) most_pieces = b.pieces();
    }
    usm_ptr<patch, 1> patches(m_queue, {most_patches}, "patches");
    usm_ptr<std::uint32_t, 1> point_start(m_queue, {most_patches + 1}, "point offsets");
    usm_ptr<std::uint32_t, 1> piece_start(m_queue, {most_patches + 1}, "piece offsets");
    usm_ptr<vertex, 1> points(m_queue, {most_points}, "points");
    usm_ptr<triangle, 1> pieces(m_queue, {most_pieces}, "pieces");
    for (std::size_t i = 0; i < m_batches.size(); ++i) {
        if (i > 0) {
            m_queue.synchronize();
            if (callbacks.cancel() != 0) return false;
        }
        const batch& b = m_batches[i];
        const std::size_t n = b.patches.size();
        m_queue.copy(b.patches.data(), patches.get(), n * sizeof(patch));
        m_queue.copy(b.point_start.data(), point_start.get(), (n + 1) * sizeof(std::uint32_t));
        m_queue.copy(b.piece_start.data(), piece_start.get(), (n + 1) * sizeof(std::uint32_t));
        make_points(patches.get(), point_start.get(), n, points.get(), b.points());
        r.transform_vertices(points.get(), b.points());
        make_pieces(patches.get(), point_start.get(), piece_start.get(), n, pieces.get(), b.pieces());
        if (values)
            r.render_pieces<true>(points.get(), b.points(), pieces.get(), b.pieces());
        else
            r.render_pieces<false>(points.get(), b.points(), pieces.get(), b.pieces());
    }
    m_queue.synchronize();
    return true;
}

}  // namespace mesh_rasterizer
