// SPDX-License-Identifier: Apache-2.0
#include "modules/mesh_rasterizer/tangent_normals.hpp"

#include <cmath>
#include <utility>

#include "core/checks.hpp"
#include "device/messages.hpp"

namespace mesh_rasterizer {

using halden::compute::queue;
using halden::compute::range;
using halden::compute::usm_ptr;
using halden::core::got;
using lighting::vec4;

namespace {

struct vec3f {
    float x, y, z;
};

HALDEN_HD inline vec3f operator+(vec3f a, vec3f b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
HALDEN_HD inline vec3f operator-(vec3f a, vec3f b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
HALDEN_HD inline vec3f operator*(float s, vec3f a) { return {s * a.x, s * a.y, s * a.z}; }
HALDEN_HD inline float dot(vec3f a, vec3f b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
HALDEN_HD inline vec3f cross(vec3f a, vec3f b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
// The unit vector along a, or `fallback` for a zero or non-finite one.
HALDEN_HD inline vec3f unit_or(vec3f a, vec3f fallback) {
    const float len = sqrtf(dot(a, a));
    if (!(len > 0.0f && len < __FLT_MAX__)) return fallback;
    return {a.x / len, a.y / len, a.z / len};
}

constexpr vec3f flat{0.0f, 0.0f, 1.0f};

}  // namespace

std::string check_tangent(const Mesh* mesh, const TangentParameters& p) {
    std::string problem = check(mesh, p.transform);
    if (!problem.empty()) return "transform: " + problem;
    if (p.transform.supersample != 0) return "transform.supersample must be 0: the map has the height grid's size";
    if (mesh->triangle_count > max_tangent_triangles)
        return "triangle_count must be at most 2^30" + got(std::int64_t(mesh->triangle_count));
    if (!halden::core::positive_finite(p.terrain_size))
        return "terrain_size must be positive and finite" + got(p.terrain_size);
    if (!halden::core::positive_finite(p.height_scale))
        return "height_scale must be positive and finite" + got(p.height_scale);
    // Heights become grid units through height_scale * width / terrain_size.
    if (!std::isfinite(double(p.height_scale) * p.transform.width / p.terrain_size) ||
        !(float(double(p.height_scale) * p.transform.width / p.terrain_size) > 0.0f))
        return "height_scale * width / terrain_size must be a positive float";
    if (p.margin < 0 || p.margin > max_margin)
        return "margin must lie in [0, " + std::to_string(max_margin) + "]" + got(p.margin);
    if (p.encoding != HALDEN_TANGENT_SIGNED && p.encoding != HALDEN_TANGENT_UNSIGNED)
        return "encoding must be HALDEN_TANGENT_SIGNED (0) or HALDEN_TANGENT_UNSIGNED (1)" +
               got(std::int64_t(p.encoding));
    if (p.flip_green > 1u) return "flip_green must be 0 or 1" + got(std::int64_t(p.flip_green));
    return {};
}

std::string check_tangent_heights(const float* h_heights, const TangentParameters& p) {
    const std::size_t n = std::size_t(p.transform.width) * std::size_t(p.transform.height);
    for (std::size_t i = 0; i < n; ++i)
        if (!std::isfinite(h_heights[i]))
            return "heights must be finite (cell " + std::to_string(i) + " is " + std::to_string(h_heights[i]) + ")";
    return {};
}

std::uint64_t tangent_memory_estimate(const Mesh& mesh, const TangentParameters& p) {
    const std::uint64_t cells = std::uint64_t(p.transform.width) * std::uint64_t(p.transform.height);
    return (p.margin > 0 ? 84u : 68u) * cells + 52u * std::uint64_t(mesh.vertex_count) +
           28u * std::uint64_t(mesh.triangle_count);
}


TangentNormals::TangentNormals(queue& q, const Mesh& mesh, const float* h_heights, const TangentParameters& parameters,
                               const halden_callbacks* callbacks)
    : m_queue(q),
      m_parameters(parameters),
      m_callbacks(halden::complete(callbacks)),
      m_width(parameters.transform.width),
      m_height(parameters.transform.height),
      m_triangle_count(mesh.triangle_count),
      m_raster(q, mesh, parameters.transform, true, callbacks),
      m_heights(q, h_heights, halden::core::grid_extent(m_width, m_height), "heights"),
      m_frames(q, {std::size_t(mesh.vertex_count)}, "vertex frames"),
      m_normals(q, halden::core::grid_extent(m_width, m_height), "surface normals"),
      m_photons(q, halden::core::grid_extent(m_width, m_height), "unused photon map"),
      m_texels(q, halden::core::grid_extent(m_width, m_height), "baked texels") {
    std::vector<std::uint32_t> offsets, incident;
    vertex_triangles(mesh, offsets, incident);
    m_offsets = usm_ptr<std::uint32_t, 1>(q, {offsets.size()}, "vertex triangle offsets");
    m_offsets.copy_from_host(offsets.data());
    m_incident = usm_ptr<std::uint32_t, 1>(q, {incident.size()}, "vertex triangles");
    m_incident.copy_from_host(incident.data());
    if (m_parameters.margin > 0) m_spare = usm_ptr<texel, 2>(q, m_texels.extent(), "dilated texels");
    for (grid& plane : m_planes) plane = grid(q, m_texels.extent(), "normal map plane");
    // The host vectors die here: the copies must have left them.
    m_queue.synchronize();
}

TangentNormals::~TangentNormals() {
    try {
        m_queue.synchronize();
    } catch (...) {
    }
}

void TangentNormals::compute_surface_normals() {
    lighting::compute_normals_and_init_photonmap(m_queue, m_heights.get(), m_normals.get(), m_photons.get(), m_width,
                                                 m_height, m_parameters.terrain_size, m_parameters.height_scale);
}

void TangentNormals::rasterize() {
    m_raster.process_vertices();
    if (m_queue.get_device().get_backend() == halden::compute::backend::native)
        m_raster.render3_cpu<true, true, true, false>();
    else
        m_raster.render3<true, true, true, false>();
}

void TangentNormals::compute_vertex_frames() {
    const vertex* d_vertices = m_raster.device_vertices();
    const triangle* d_triangles = m_raster.device_triangles();
    const std::uint32_t* d_offsets = m_offsets.get();
    const std::uint32_t* d_incident = m_incident.get();
    vertex_frame* d_frames = m_frames.get();
    // Heights in grid units, so that the frame is the world's up to one scale.
    const float k = float(double(m_parameters.height_scale) * m_width / m_parameters.terrain_size);
    m_queue.parallel_for(
        range<1>{m_frames.size()}, HALDEN_KERNEL(std::size_t v) {
            vec3f n_sum{0.0f, 0.0f, 0.0f}, t_sum = n_sum, b_sum = n_sum;
            for (std::uint32_t j = d_offsets[v]; j < d_offsets[v + 1]; ++j) {
                const triangle tri = d_triangles[d_incident[j]];
                const vertex a = d_vertices[tri.a], b = d_vertices[tri.b], c = d_vertices[tri.c];
                const vec3f e1{b.x - a.x, b.y - a.y, k * b.z - k * a.z}, e2{c.x - a.x, c.y - a.y, k * c.z - k * a.z};
                // The drawn winding faces up; the cross product weights by area.
                n_sum = n_sum + cross(e2, e1);
                // Texture steps: u along x, v against y (up the picture).
                const float du1 = e1.x, dv1 = -e1.y, du2 = e2.x, dv2 = -e2.y;
                const float det = du1 * dv2 - du2 * dv1;
                // dP/du and dP/dv times |det|: weighted by the texture area.
                const float s = det > 0.0f ? 1.0f : (det < 0.0f ? -1.0f : 0.0f);
                t_sum = t_sum + s * (dv2 * e1 - dv1 * e2);
                b_sum = b_sum + s * (du1 * e2 - du2 * e1);
            }
            const vec3f n = unit_or(n_sum, flat);
            const vec3f t = unit_or(t_sum - dot(n, t_sum) * n, vec3f{1.0f, 0.0f, 0.0f});
            const float sign = dot(cross(n, t), b_sum) < 0.0f ? -1.0f : 1.0f;
            d_frames[v] = {n.x, n.y, n.z, sign, t.x, t.y, t.z, 0.0f};
        });
}

void TangentNormals::bake() {
    const vertex* d_vertices = m_raster.device_vertices();
    const triangle* d_triangles = m_raster.device_triangles();
    const std::uint64_t* d_winners = m_raster.cell_winners();
    const vertex_frame* d_frames = m_frames.get();
    const vec4* d_normals = m_normals.get();
    texel* d_texels = m_texels.get();
    const int w = m_width;
    const std::uint32_t triangle_count = m_triangle_count;
    m_queue.parallel_for(
        m_texels.extent(), HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const std::size_t i = row * std::size_t(w) + col;
            const std::uint32_t t = ~std::uint32_t(d_winners ? d_winners[i] : 0u);
            if (t >= triangle_count) {
                d_texels[i] = {0.0f, 0.0f, 0.0f, 0.0f};
                return;
            }
            const triangle tri = d_triangles[t];
            const vertex a = d_vertices[tri.a], b = d_vertices[tri.b], c = d_vertices[tri.c];
            // The cell centre's weights in the triangle as given (the coverage
            // test enlarged it), clamped to it so the frame stays between the
            // corners' frames.
            const float e1x = b.x - a.x, e1y = b.y - a.y, e2x = c.x - a.x, e2y = c.y - a.y;
            const float qx = (float(col) + 0.5f) - a.x, qy = (float(row) + 0.5f) - a.y;
            const float d00 = e1x * e1x + e1y * e1y, d11 = e2x * e2x + e2y * e2y, d01 = e1x * e2x + e1y * e2y;
            const float den = d00 * d11 - d01 * d01;
            const float d20 = qx * e1x + qy * e1y, d21 = qx * e2x + qy * e2y;
            float w1 = (d11 * d20 - d01 * d21) / den, w2 = (d00 * d21 - d01 * d20) / den;
            float w0 = 1.0f - w1 - w2;
            w0 = w0 > 0.0f ? w0 : 0.0f;
            w1 = w1 > 0.0f ? w1 : 0.0f;
            w2 = w2 > 0.0f ? w2 : 0.0f;
            const float sum = w0 + w1 + w2;
            if (!(sum > 0.0f && sum < __FLT_MAX__)) {
                d_texels[i] = {flat.x, flat.y, flat.z, 1.0f};
                return;
            }
            if (sum != 1.0f) w0 /= sum, w1 /= sum, w2 /= sum;
            const vertex_frame fa = d_frames[tri.a], fb = d_frames[tri.b], fc = d_frames[tri.c];
            // Interpolated and not renormalised, as a shader sees them.
            const vec3f n{w0 * fa.nx + w1 * fb.nx + w2 * fc.nx, w0 * fa.ny + w1 * fb.ny + w2 * fc.ny,
                          w0 * fa.nz + w1 * fb.nz + w2 * fc.nz};
            const vec3f tg{w0 * fa.tx + w1 * fb.tx + w2 * fc.tx, w0 * fa.ty + w1 * fb.ty + w2 * fc.ty,
                           w0 * fa.tz + w1 * fb.tz + w2 * fc.tz};
            const float sign = w0 * fa.sign + w1 * fb.sign + w2 * fc.sign < 0.0f ? -1.0f : 1.0f;
            const vec3f bt = sign * cross(n, tg);
            // The shader rebuilds x t + y b + z n: solve for (x, y, z) through the
            // inverse's rows (cofactors), up to the determinant's positive scale.
            const vec4 s = d_normals[i];
            const vec3f world{s.x, s.y, s.z};
            const vec3f c1 = cross(bt, n), c2 = cross(n, tg), c3 = cross(tg, bt);
            const float det = dot(tg, c1);
            vec3f v{dot(world, c1), dot(world, c2), dot(world, c3)};
            if (det < 0.0f) v = -1.0f * v;
            const vec3f u = det != 0.0f ? unit_or(v, flat) : flat;
            d_texels[i] = {u.x, u.y, u.z, 1.0f};
        });
}

void TangentNormals::dilate_once() {
    const texel* src = m_texels.get();
    texel* dst = m_spare.get();
    const int w = m_width, h = m_height;
    m_queue.parallel_for(
        m_texels.extent(), HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const int x = int(col), y = int(row);
            const std::size_t i = std::size_t(y) * std::size_t(w) + std::size_t(x);
            const texel self = src[i];
            if (self.w != 0.0f) {
                dst[i] = self;
                return;
            }
            // The filled neighbours in row-major order: a fixed order of summation.
            vec3f sum{0.0f, 0.0f, 0.0f};
            bool any = false;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const int nx = x + dx, ny = y + dy;
                    if ((dx == 0 && dy == 0) || nx < 0 || ny < 0 || nx >= w || ny >= h) continue;
                    const texel o = src[std::size_t(ny) * std::size_t(w) + std::size_t(nx)];
                    if (o.w == 0.0f) continue;
                    sum = sum + vec3f{o.x, o.y, o.z};
                    any = true;
                }
            if (!any) {
                dst[i] = self;
                return;
            }
            const vec3f u = unit_or(sum, flat);
            dst[i] = {u.x, u.y, u.z, 1.0f};
        });
    std::swap(m_texels, m_spare);
}

void TangentNormals::encode() {
    const texel* src = m_texels.get();
    float* r = m_planes[0].get();
    float* g = m_planes[1].get();
    float* b = m_planes[2].get();
    const bool flip = m_parameters.flip_green != 0, unit = m_parameters.encoding == HALDEN_TANGENT_UNSIGNED;
    m_queue.parallel_for(
        range<1>{m_texels.size()}, HALDEN_KERNEL(std::size_t i) {
            const texel t = src[i];
            vec3f v = t.w != 0.0f ? vec3f{t.x, t.y, t.z} : flat;
            if (flip) v.y = -v.y;
            if (unit) v = vec3f{0.5f * v.x + 0.5f, 0.5f * v.y + 0.5f, 0.5f * v.z + 0.5f};
            r[i] = v.x;
            g[i] = v.y;
            b[i] = v.z;
        });
}

bool TangentNormals::run(float* h_red, float* h_green, float* h_blue) {
    auto carry_on = [&](float percent) {
        m_queue.synchronize();
        return m_callbacks.progress(percent) == 0 && m_callbacks.cancel() == 0;
    };
    compute_surface_normals();
    rasterize();
    if (m_raster.cancelled() || !carry_on(40.0f)) return false;
    compute_vertex_frames();
    bake();
    if (!carry_on(70.0f)) return false;
    for (int k = 0; k < m_parameters.margin; ++k) dilate_once();
    encode();
    if (!carry_on(100.0f)) return false;
    if (m_queue.has_pending_errors()) return true;
    m_planes[0].copy_to_host(h_red);
    m_planes[1].copy_to_host(h_green);
    m_planes[2].copy_to_host(h_blue);
    m_queue.synchronize();
    return true;
}

std::vector<vertex_frame> TangentNormals::frames() const {
    std::vector<vertex_frame> out(m_frames.size());
    m_frames.copy_to_host(out.data());
    m_queue.synchronize();
    return out;
}

std::vector<texel> TangentNormals::texels() const {
    std::vector<texel> out(m_texels.size());
    m_texels.copy_to_host(out.data());
    m_queue.synchronize();
    return out;
}

}  // namespace mesh_rasterizer
