// SPDX-License-Identifier: Apache-2.0
#include "modules/lighting/lighting.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <future>
#include <map>
#include <stdexcept>
#include <utility>

#include "core/accumulate.hpp"
#include "core/checks.hpp"
#include "core/math.hpp"
#include "core/random.hpp"
#include "core/resampling.hpp"
#include "device/messages.hpp"

namespace lighting {

using halden::max_of;
using halden::min_of;
using halden::compute::queue;
using halden::compute::range;
using halden::compute::usm_ptr;

halden_callbacks callbacks{};

switches::switches(const Parameters& p)
    : sun(p.sun_enabled != 0),
      shadows(p.sun_enabled != 0 && p.shadows_enabled != 0),
      sky(p.sky_enabled != 0),
      traced_ao(p.sky_enabled != 0 && p.ao_enabled != 0 && p.ao_from_caller == 0 && p.ao_mode == 0),
      hybrid_ao(p.sky_enabled != 0 && p.ao_enabled != 0 && p.ao_from_caller == 0 && p.ao_mode != 0),
      caller_ao(p.sky_enabled != 0 && p.ao_enabled != 0 && p.ao_from_caller != 0) {}

std::string check(const Parameters& p) {
    if (std::string problem = halden::core::check_grid_size(p.width, p.height); !problem.empty()) return problem;
    if (!(p.terrain_size > 0.0f) || !std::isfinite(p.terrain_size)) return "terrain_size must be positive and finite";
    if (!(p.height_scale > 0.0f) || !std::isfinite(p.height_scale)) return "height_scale must be positive and finite";
    for (float v : p.sun_direction)
        if (!std::isfinite(v)) return "sun_direction must be finite";
    const switches on(p);
    if (on.shadows || on.traced_ao || on.hybrid_ao) {
        if (p.width != p.height)
            return "shadows and sky visibility trace a square grid (got " + std::to_string(p.width) + " x " +
                   std::to_string(p.height) + ")";
        if (p.width > max_traced_width)
            return "shadows and sky visibility trace grids up to " + std::to_string(max_traced_width) + " cells wide";
    }
    if (on.shadows) {
        if (p.shadow_samples > 64 || p.shadow_samples < -max_sky_directions)
            return "shadow_samples must lie in [-4096, 64]";
        if (!(p.sun_size >= 0.0f) || !(p.sun_size < 180.0f)) return "sun_size must lie in [0, 180) degrees";
    }
    const int sky = on.hybrid_ao ? p.hybrid_ao_directions : p.ao_directions;
    if ((on.traced_ao || on.hybrid_ao) && (sky < 1 || sky > max_sky_directions))
        return "the number of sky directions must lie in [1, " + std::to_string(max_sky_directions) + "]";
    // The colour is (sun x diffuse x shadow + sky x visibility) x exposure,
    // with diffuse and shadow at most 1 and visibility at most 4: factors that
    // overflow there give infinities and NaN, not a picture.
    for (int c = 0; c < 3; ++c) {
        const float sun = p.sun_color[c] * (p.light_scale * p.sun_strength);
        const float sky_light = p.sky_color[c] * (p.light_scale * p.sky_strength);
        const float top = (std::fabs(sun) + 4.0f * std::fabs(sky_light)) * std::fabs(p.exposure);
        if (!std::isfinite(top))
            return "light_scale, the sun and sky strengths and colours, and exposure must keep the colour finite";
    }
    return {};
}

std::uint64_t memory_estimate(const Parameters& p) { return 72u * std::uint64_t(p.width) * std::uint64_t(p.height); }

namespace samples {

set sun(const Parameters& p) {
    const vec3 l{p.sun_direction[0], p.sun_direction[1], p.sun_direction[2]};
    set out;
    const int n = p.shadow_samples;
    if (n == -4 || n == -8) {
        static constexpr vec2 four[] = {{0.625f, 0.125f}, {0.125f, 0.375f}, {0.875f, 0.625f}, {0.375f, 0.875f}};
        static constexpr vec2 eight[] = {{0.0625f, 0.3125f}, {0.1875f, 0.5625f}, {0.3125f, 0.1875f},
                                         {0.4375f, 0.9375f}, {0.5625f, 0.0625f}, {0.6875f, 0.8125f},
                                         {0.8125f, 0.4375f}, {0.9375f, 0.6875f}};
        for (int i = 0; i < -n; ++i) {
            out.directions.push_back(l);
            out.jitters.push_back(n == -4 ? four[i] : eight[i]);
        }
        return out;
    }
    if (n < 0) {
        // Every sample is the centre one: the sun direction through the cell centres.
        out.directions.assign(std::size_t(-n), l);
        out.jitters.assign(std::size_t(-n), vec2{0.5f, 0.5f});
        return out;
    }
    out.directions.push_back(l);
    out.jitters.push_back({0.5f, 0.5f});
    if (n == 0) return out;

    const double pi = 3.14159265358979323846;
    const double t = p.sun_size == 0.0f ? 1e19 : std::tan(pi / 2 - double(p.sun_size) * pi / 360.0);
    // P1 horizontal and perpendicular to L, P2 perpendicular to both.
    double p1x = -double(l.y), p1y = double(l.x);
    const double p1n = std::sqrt(p1x * p1x + p1y * p1y);
    if (p1n > 0) {
        p1x /= p1n;
        p1y /= p1n;
    } else {
        p1x = 1.0;
        p1y = 0.0;
    }
    double p2x = double(l.y) * 0.0 - double(l.z) * p1y, p2y = double(l.z) * p1x - double(l.x) * 0.0,
           p2z = double(l.x) * p1y - double(l.y) * p1x;
    const double p2n = std::sqrt(p2x * p2x + p2y * p2y + p2z * p2z);
    p2x /= p2n;
    p2y /= p2n;
    p2z /= p2n;

    std::uint32_t s = 0xA2351342u;
    for (int k = 1; k <= n; ++k)
        for (int j = 0; j < 6 * k; ++j) {
            s = halden::xorshift(s);
            const double r = double(std::uint32_t(s * 625341313u - 1u)) * 0.6 * 0x1p-32;
            const double a = (j + r) * (pi / 3) / k;
            const double ca = std::cos(a), sa = std::sin(a), f = double(k) / n;
            const double x = t * l.x + f * (ca * p1x + sa * p2x);
            const double y = t * l.y + f * (ca * p1y + sa * p2y);
            const double z = t * l.z + f * (sa * p2z);
            const double len = std::sqrt(x * x + y * y + z * z);
            out.directions.push_back({float(x / len), float(y / len), float(z / len)});
            // The ring angle mapped onto the square, turned by atan(1/2) and
            // halved: each sample of a ring starts its lanes elsewhere in the cell.
            const double m = 1.0 / std::max(std::fabs(ca), std::fabs(sa));
            out.jitters.push_back({float(0.5 + m * (0.4472136 * ca - 0.2236068 * sa)),
                                   float(0.5 + m * (0.2236068 * ca + 0.4472136 * sa))});
        }
    return out;
}

std::vector<vec3> sky(int count) {
    struct dvec {
        double x, y, z;
    };
    const double phi = (1.0 + std::sqrt(5.0)) / 2.0;
    std::vector<dvec> v = {{-1, phi, 0}, {1, phi, 0},  {-1, -phi, 0}, {1, -phi, 0}, {0, -1, phi}, {0, 1, phi},
                           {0, -1, -phi}, {0, 1, -phi}, {phi, 0, -1},  {phi, 0, 1},  {-phi, 0, -1}, {-phi, 0, 1}};
    for (dvec& p : v) {
        const double n = std::sqrt(p.x * p.x + p.y * p.y + p.z * p.z);
        p = {p.x / n, p.y / n, p.z / n};
    }
    std::vector<std::array<int, 3>> faces = {{0, 11, 5}, {0, 5, 1},  {0, 1, 7},   {0, 7, 10}, {0, 10, 11},
                                             {1, 5, 9},  {5, 11, 4}, {11, 10, 2}, {10, 7, 6}, {7, 1, 8},
                                             {3, 9, 4},  {3, 4, 2},  {3, 2, 6},   {3, 6, 8},  {3, 8, 9},
                                             {4, 9, 5},  {2, 4, 11}, {6, 2, 10},  {8, 6, 7},  {9, 8, 1}};
    auto upper = [&] {
        int c = 0;
        for (const dvec& p : v) c += p.z > 0.0;
        return c;
    };
    while (upper() < count) {
        std::map<std::pair<int, int>, int> midpoints;
        auto mid = [&](int a, int b) {
            const std::pair<int, int> key{std::min(a, b), std::max(a, b)};
            const auto it = midpoints.find(key);
            if (it != midpoints.end()) return it->second;
            dvec m{(v[a].x + v[b].x) / 2, (v[a].y + v[b].y) / 2, (v[a].z + v[b].z) / 2};
            const double n = std::sqrt(m.x * m.x + m.y * m.y + m.z * m.z);
            v.push_back({m.x / n, m.y / n, m.z / n});
            midpoints.emplace(key, int(v.size()) - 1);
            return int(v.size()) - 1;
        };
        std::vector<std::array<int, 3>> next;
        for (const auto& f : faces) {
            const int ab = mid(f[0], f[1]), bc = mid(f[1], f[2]), ca = mid(f[2], f[0]);
            next.push_back({f[0], ab, ca});
            next.push_back({f[1], bc, ab});
            next.push_back({f[2], ca, bc});
            next.push_back({ab, bc, ca});
        }
        faces = std::move(next);
    }
    std::vector<vec3> out;
    for (const dvec& p : v)
        if (p.z > 0.0 && int(out.size()) < count) out.push_back({float(p.x), float(p.y), float(p.z)});
    return out;
}

}  // namespace samples

namespace {

// One square grid of heights as the rays see it: bilinear for sun rays,
// nearest cell for sky rays, positions in 16.16 fixed point.
struct terrain {
    const float* h;
    int w;

    HALDEN_HD float bilinear(std::int32_t px, std::int32_t py) const {
        const float fx = float(px) * (1.0f / 65536.0f) - 0.5f, fy = float(py) * (1.0f / 65536.0f) - 0.5f;
        const int tx = int(fx), ty = int(fy);
        const int x0 = halden::core::clamp_index(tx, 0, w - 1), x1 = halden::core::clamp_index(tx + 1, 0, w - 1);
        const int y0 = halden::core::clamp_index(ty, 0, w - 1), y1 = halden::core::clamp_index(ty + 1, 0, w - 1);
        // Weights against the clamped lower index: past the low border they
        // extrapolate, as the rays' first sample one step outside expects.
        const float wx = fx - float(x0), wy = fy - float(y0);
        const float top = h[y0 * w + x0] * (1.0f - wx) + h[y0 * w + x1] * wx;
        const float bottom = h[y1 * w + x0] * (1.0f - wx) + h[y1 * w + x1] * wx;
        return top * (1.0f - wy) + bottom * wy;
    }
    HALDEN_HD int nearest_index(std::int32_t px, std::int32_t py) const {
        return halden::core::clamp_index(py >> 16, 0, w - 1) * w + halden::core::clamp_index(px >> 16, 0, w - 1);
    }
};

enum sweep_mode { sun_rays, sky_rays, sky_vectors, sun_sums };

// Sun rays count 1 per lit cell and read bilinear heights; sky rays read the
// nearest cell and add 2^18 times the cosine between the cell's normal and
// the direction; sky vectors add 2^18 times the direction itself, one
// component per plane of a three-plane photon map; sun sums add the sky
// rays' cosine, weighted, to 64-bit fixed-point totals.
template <int Mode>
void sweep(queue& q, const float* heights, const vec4* normals, std::int32_t* photons, const vec3* directions,
           const vec2* jitters, int samples, int w, float terrain_size, float height_scale,
           const weighted_sums& sums = {}) {
    constexpr bool Sky = Mode != sun_rays;
    const terrain ground{heights, w};
    const std::size_t plane = std::size_t(w) * std::size_t(w);
    const float drop_scale = terrain_size / (float(w) * height_scale);
    const std::int32_t span = std::int32_t(w) * 65536;
    q.parallel_for(range<1>{std::size_t(samples) * std::size_t(w)}, HALDEN_KERNEL(std::size_t item) {
        const int d = int(item / std::size_t(w)), lane = int(item % std::size_t(w));
        const vec3 dir = directions[d];
        const vec2 jit = jitters[d];
        const float ax = dir.x < 0.0f ? -dir.x : dir.x, ay = dir.y < 0.0f ? -dir.y : dir.y;
        const auto add = [&](int cell) {
            if (Mode == sun_rays) {
                halden::compute::atomic_add(&photons[cell], std::int32_t(1));
            } else if (Mode == sky_rays) {
                const vec4 n = normals[cell];
                halden::compute::atomic_add(&photons[cell],
                                            std::int32_t(262144.0f * (n.x * dir.x + n.y * dir.y + n.z * dir.z)));
            } else if (Mode == sun_sums) {
                const vec4 n = normals[cell];
                const std::int32_t c = std::int32_t(262144.0f * (n.x * dir.x + n.y * dir.y + n.z * dir.z));
                // Cells that face away from the sun, or graze it, get nothing.
                // One direction's lanes share their major-axis position and
                // sit whole cells apart on the other axis, so each cell is
                // met by exactly one ray step: plain adds cannot race.
                if (c > 0) {
                    std::int64_t* pair = sums.totals + 2 * std::size_t(cell);
                    pair[0] += sums.fixed.encode(float(c) * sums.weight, sums.overflow);
                    pair[1] += sums.count;
                }
            } else {
                halden::compute::atomic_add(&photons[cell], std::int32_t(262144.0f * dir.x));
                halden::compute::atomic_add(&photons[plane + cell], std::int32_t(262144.0f * dir.y));
                halden::compute::atomic_add(&photons[2 * plane + cell], std::int32_t(262144.0f * dir.z));
            }
        };
        if (ax == 0.0f && ay == 0.0f) {
            // Straight down from overhead: nothing stands in the way.
            for (int y = 0; y < w; ++y) add(y * w + lane);
            return;
        }
        float sx, sy, x0, y0;
        if (ax > ay) {
            sx = -dir.x / ax;
            sy = -dir.y / ax;
            y0 = float(lane) + jit.y;
            x0 = sx > 0.0f ? jit.x : float(w - 1) + jit.x;
        } else {
            sx = -dir.x / ay;
            sy = -dir.y / ay;
            x0 = float(lane) + jit.x;
            y0 = sy > 0.0f ? jit.y : float(w - 1) + jit.y;
        }
        const float drop = dir.z * drop_scale / (ax > ay ? ax : ay);
        const std::int32_t step_x = std::int32_t(sx * 65536.0f), step_y = std::int32_t(sy * 65536.0f);
        std::int32_t px = std::int32_t(x0 * 65536.0f), py = std::int32_t(y0 * 65536.0f);
        // Sun rays start from the terrain one step back, sky rays from the current cell.
        const auto start_height = [&] {
            return Sky ? heights[ground.nearest_index(px, py)] : ground.bilinear(px - step_x, py - step_y);
        };
        float ray = start_height();
        for (int i = 0; i < w; ++i) {
            bool wrapped = false;
            if (py < 0) {
                py += span;
                wrapped = true;
            } else if (py >= span) {
                py -= span;
                wrapped = true;
            }
            if (px < 0) {
                px += span;
                wrapped = true;
            } else if (px >= span) {
                px -= span;
                wrapped = true;
            }
            if (wrapped) ray = start_height();
            ray -= drop;
            const float ground_height = Sky ? heights[ground.nearest_index(px, py)] : ground.bilinear(px, py);
            // Below the terrain the ray is caught by this cell, and grazes on.
            if (ray < ground_height) {
                add((py >> 16) * w + (px >> 16));
                ray = ground_height;
            }
            px += step_x;
            py += step_y;
        }
    });
}

}  // namespace

namespace {

// A cell's unit normal from the 3-10-3 stencil, edges clamped; 0 where the
// stencil gives a zero vector.
HALDEN_HD inline vec4 normal_at(const float* heights, int w, int h, int x, int y, float nz, float height_scale) {
    const int xl = (x > 1 ? x : 1) - 1, xr = x + 1 < w - 1 ? x + 1 : w - 1;
    const int yu = (y > 1 ? y : 1) - 1, yd = y + 1 < h - 1 ? y + 1 : h - 1;
    const float* up = heights + yu * w;
    const float* mid = heights + y * w;
    const float* down = heights + yd * w;
    // 3-10-3 differences: right column minus left, row above minus row below.
    const float sx = 3.0f * (up[xr] + down[xr]) + 10.0f * mid[xr] - 3.0f * (up[xl] + down[xl]) - 10.0f * mid[xl];
    const float sy = 3.0f * (up[xl] + up[xr]) + 10.0f * up[x] - 3.0f * (down[xl] + down[xr]) - 10.0f * down[x];
    const float nx = -height_scale * sx, ny = height_scale * sy;
    const float len = sqrtf(nx * nx + ny * ny + nz * nz);
    return len > 0.0f ? vec4{nx / len, ny / len, nz / len, 0.0f} : vec4{0.0f, 0.0f, 0.0f, 0.0f};
}

HALDEN_HD inline float lambert(const vec4& n, const vec3& l) { return max_of(0.0f, n.x * l.x + n.y * l.y + n.z * l.z); }

}  // namespace

void compute_normals_and_init_photonmap(queue& q, const float* heights, vec4* normals, std::int32_t* photons, int w,
                                        int h, float terrain_size, float height_scale) {
    const float nz = 32.0f * terrain_size / float(w);
    q.parallel_for(range<2>{std::size_t(h), std::size_t(w)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const int y = int(row), x = int(col);
        normals[y * w + x] = normal_at(heights, w, h, x, y, nz, height_scale);
        photons[y * w + x] = 0;
    });
}

void sweep_sky(queue& q, const float* heights, const vec4* normals, std::int32_t* photons, const vec3* directions,
               const vec2* jitters, int count, int w, float terrain_size, float height_scale) {
    sweep<sky_rays>(q, heights, normals, photons, directions, jitters, count, w, terrain_size, height_scale);
}

void sweep_sky_sums(queue& q, const float* heights, const vec4* normals, const vec3* direction, const vec2* jitter,
                    const weighted_sums& sums, int w, float terrain_size, float height_scale) {
    sweep<sun_sums>(q, heights, normals, nullptr, direction, jitter, 1, w, terrain_size, height_scale, sums);
}

void raytrace_ao(queue& q, const float* heights, const vec4* normals, std::int32_t* photons, float* ao,
                 const usm_ptr<vec3, 1>& directions, const usm_ptr<vec2, 1>& jitters, int w, float terrain_size,
                 float height_scale) {
    const int k = int(directions.size());
    sweep_sky(q, heights, normals, photons, directions.get(), jitters.get(), k, w, terrain_size, height_scale);
    const float count = float(k);
    q.parallel_for(range<2>{std::size_t(w), std::size_t(w)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const std::size_t i = row * std::size_t(w) + col;
        ao[i] = max_of(float(photons[i]) * 0x1p-16f / count, 0.0f);
    });
}

LightingSYCL::LightingSYCL(queue& q, const Parameters& parameters, const host_grids& grids,
                           const halden_callbacks* callbacks)
    : m_queue(q),
      m_parameters(parameters),
      m_callbacks(halden::complete(callbacks)),
      m_on(parameters),
      m_host(grids),
      m_has_albedo(grids.albedo_r && grids.albedo_g && grids.albedo_b),
      m_width(parameters.width),
      m_height(parameters.height),
      m_heights(q, grids.heights, halden::core::grid_extent(parameters.width, parameters.height)) {
    const std::string problem = check(m_parameters);
    if (!problem.empty()) throw std::invalid_argument(problem);
    const auto extent = m_heights.extent();
    // Only the sky's rays read the normals, and only rays gather photons.
    if (m_on.traced_ao || m_on.hybrid_ao) m_normals = usm_ptr<vec4, 2>(q, extent, "normals");
    if (m_on.shadows || m_on.traced_ao) m_photons = usm_ptr<std::int32_t, 2>(q, extent, "photon map");
    if (m_on.sun) m_diffuse = grid(q, extent, "diffuse");
    if (m_on.shadows) m_shadow = grid(q, extent, "shadow");
    if (m_on.sky && m_parameters.ao_enabled) {
        m_ao = grid(q, extent, "sky visibility");
        if (m_on.caller_ao) m_ao.copy_from_host(grids.ao);
    }
    // Colour channels the caller did not ask for are not made. On the host
    // the composition, the last step, writes the caller's arrays directly.
    const bool host = q.get_device().get_backend() == halden::compute::backend::native;
    const auto channel = [&](grid& g, float* target, const char* label) {
        if (target && !host) g = grid(q, extent, label);
    };
    channel(m_r, grids.r, "red");
    channel(m_g, grids.g, "green");
    channel(m_b, grids.b, "blue");
    m_direct_rgb = host;
    if (m_has_albedo) {
        const float* albedo[3] = {grids.albedo_r, grids.albedo_g, grids.albedo_b};
        for (int c = 0; c < 3; ++c) {
            m_albedo[c] = grid(q, extent, "albedo");
            m_albedo[c].copy_from_host(albedo[c]);
        }
    }
}

LightingSYCL::~LightingSYCL() {
    try {
        m_queue.synchronize();
    } catch (...) {
    }
}

void LightingSYCL::prepare_samples() {
    if (m_on.shadows) {
        m_sun = samples::sun(m_parameters);
        m_sample_count = int(m_sun.directions.size());
    }
    if (m_on.traced_ao || m_on.hybrid_ao) {
        m_sky.directions = samples::sky(m_on.hybrid_ao ? m_parameters.hybrid_ao_directions : m_parameters.ao_directions);
        m_sky.jitters.assign(m_sky.directions.size(), vec2{0.5f, 0.5f});
    }
}

// Normals, the cleared photon map and the diffuse term in one pass, each
// written only where a later step or the caller reads it: diffuse light
// alone then reads the heights once and writes one grid.
void LightingSYCL::compute_surface() {
    const float* heights = m_heights.get();
    vec4* normals = m_normals.get();
    std::int32_t* photons = m_photons.get();
    float* diffuse = m_diffuse.get();
    const vec3 l{m_parameters.sun_direction[0], m_parameters.sun_direction[1], m_parameters.sun_direction[2]};
    const int w = m_width, h = m_height;
    const float nz = 32.0f * m_parameters.terrain_size / float(w), height_scale = m_parameters.height_scale;
    m_queue.parallel_for(m_heights.extent(), HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const int y = int(row), x = int(col);
        const std::size_t i = row * std::size_t(w) + col;
        const vec4 n = normal_at(heights, w, h, x, y, nz, height_scale);
        if (normals) normals[i] = n;
        if (photons) photons[i] = 0;
        if (diffuse) diffuse[i] = lambert(n, l);
    });
}

void LightingSYCL::raytrace_shadows() {
    float* shadow = m_shadow.get();
    std::int32_t* photons = m_photons.get();
    const std::size_t w = std::size_t(m_width);
    const float* l = m_parameters.sun_direction;
    if (l[0] == 0.0f && l[1] == 0.0f) {
        // A sun straight overhead casts no shadow.
        m_queue.parallel_for(m_heights.extent(), HALDEN_KERNEL(std::size_t row, std::size_t col) {
            shadow[row * w + col] = 1.0f;
        });
        return;
    }
    usm_ptr<vec3, 1> directions(m_queue, {m_sun.directions.size()}, "sun directions");
    usm_ptr<vec2, 1> jitters(m_queue, {m_sun.jitters.size()}, "sun jitters");
    directions.copy_from_host(m_sun.directions.data());
    jitters.copy_from_host(m_sun.jitters.data());
    sweep<sun_rays>(m_queue, m_heights.get(), m_normals.get(), photons, directions.get(), jitters.get(), m_sample_count,
                 m_width, m_parameters.terrain_size, m_parameters.height_scale);
    const float share = 1.0f / float(m_sample_count);
    m_queue.parallel_for(m_heights.extent(), HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const std::size_t i = row * w + col;
        shadow[i] = float(photons[i]) * share;
        photons[i] = 0;
    });
}

// The hybrid estimate: sky rays swept over the half-size grid gather, per
// coarse cell, the mean of the directions that reach it (a bent normal whose
// length is the open sky). Each fine cell upsamples that vector and takes its
// cosine with the cell's own normal. The intermediate holds the vector's
// horizontal part and the visibility; a quarter of the ray steps of the
// traced path.
void LightingSYCL::compute_hybrid_ao() {
    queue& q = m_queue;
    const int w = m_width;
    const int wc = (w + 1) / 2;
    const std::size_t plane = std::size_t(wc) * std::size_t(wc);
    halden::core::grid_buffer coarse(q, {std::size_t(wc), std::size_t(wc)});
    resampling::downsample_magic(m_heights, coarse, q);
    usm_ptr<std::int32_t, 1> sums(q, {3 * plane}, "sky vectors");
    std::int32_t* d_sums = sums.get();
    q.parallel_for(range<1>{3 * plane}, HALDEN_KERNEL(std::size_t i) { d_sums[i] = 0; });
    usm_ptr<vec3, 1> directions(q, {m_sky.directions.size()}, "sky directions");
    usm_ptr<vec2, 1> jitters(q, {m_sky.jitters.size()}, "sky jitters");
    directions.copy_from_host(m_sky.directions.data());
    jitters.copy_from_host(m_sky.jitters.data());
    const int k = int(m_sky.directions.size());
    sweep<sky_vectors>(q, coarse.get(), nullptr, d_sums, directions.get(), jitters.get(), k, wc,
                       m_parameters.terrain_size, m_parameters.height_scale);

    usm_ptr<float, 1> vectors(q, {3 * plane}, "coarse sky vectors");
    float* d_vectors = vectors.get();
    const float count = float(k);
    q.parallel_for(range<1>{3 * plane}, HALDEN_KERNEL(std::size_t i) {
        d_vectors[i] = float(d_sums[i]) * 0x1p-16f / count;
    });

    usm_ptr<vec3, 2> intermediate(q, m_heights.extent(), "hybrid sky visibility");
    vec3* d_mid = intermediate.get();
    const vec4* d_normals = m_normals.get();
    q.parallel_for(m_heights.extent(), HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const int y = int(row), x = int(col);
        const float rx = resampling::magic_sum(d_vectors, wc, wc, y, x) * 0.0625f;
        const float ry = resampling::magic_sum(d_vectors + plane, wc, wc, y, x) * 0.0625f;
        const float rz = resampling::magic_sum(d_vectors + 2 * plane, wc, wc, y, x) * 0.0625f;
        const vec4 n = d_normals[y * w + x];
        d_mid[y * w + x] = {rx, ry, max_of(0.0f, n.x * rx + n.y * ry + n.z * rz)};
    });
    float* d_ao = m_ao.get();
    q.parallel_for(m_heights.extent(), HALDEN_KERNEL(std::size_t row, std::size_t col) {
        d_ao[row * std::size_t(w) + col] = d_mid[row * std::size_t(w) + col].z;
    });
}

void LightingSYCL::compose_light() {
    const Parameters& p = m_parameters;
    const float sun_factor = p.light_scale * p.sun_strength, sky_factor = p.light_scale * p.sky_strength;
    const vec3 c_sun{p.sun_color[0] * sun_factor, p.sun_color[1] * sun_factor, p.sun_color[2] * sun_factor};
    const vec3 c_sky{p.sky_color[0] * sky_factor, p.sky_color[1] * sky_factor, p.sky_color[2] * sky_factor};
    const bool sun = m_on.sun, shadows = m_on.shadows, sky = m_on.sky, ao_on = p.ao_enabled != 0;
    const bool albedo = m_has_albedo;
    const float exposure = p.exposure;
    const float *d_diffuse = m_diffuse.get(), *d_shadow = m_shadow.get(), *d_ao = m_ao.get();
    const float *ar = m_albedo[0].get(), *ag = m_albedo[1].get(), *ab = m_albedo[2].get();
    float* r = m_direct_rgb ? m_host.r : m_r.get();
    float* g = m_direct_rgb ? m_host.g : m_g.get();
    float* b = m_direct_rgb ? m_host.b : m_b.get();
    if (!r && !g && !b) return;
    const std::size_t w = std::size_t(m_width);
    m_queue.parallel_for(m_heights.extent(), HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const std::size_t i = row * w + col;
        const float direct = (sun ? d_diffuse[i] : 1.0f) * (sun ? (shadows ? d_shadow[i] : 1.0f) : 0.0f);
        const float ambient = sky ? (ao_on ? d_ao[i] : 1.0f) : 0.0f;
        if (r) r[i] = (c_sun.x * direct + c_sky.x * ambient) * (albedo ? ar[i] : exposure);
        if (g) g[i] = (c_sun.y * direct + c_sky.y * ambient) * (albedo ? ag[i] : exposure);
        if (b) b[i] = (c_sun.z * direct + c_sky.z * ambient) * (albedo ? ab[i] : exposure);
    });
}

bool LightingSYCL::run() {
    // Sample preparation on a second host thread while this one submits the
    // normals and the diffuse term.
    std::future<void> samples = std::async(std::launch::async, [this] { prepare_samples(); });
    try {
        compute_surface();
    } catch (...) {
        samples.wait();
        throw;
    }
    samples.get();

    if (m_on.shadows) raytrace_shadows();
    if (m_on.traced_ao) {
        usm_ptr<vec3, 1> directions(m_queue, {m_sky.directions.size()}, "sky directions");
        usm_ptr<vec2, 1> jitters(m_queue, {m_sky.jitters.size()}, "sky jitters");
        directions.copy_from_host(m_sky.directions.data());
        jitters.copy_from_host(m_sky.jitters.data());
        raytrace_ao(m_queue, m_heights.get(), m_normals.get(), m_photons.get(), m_ao.get(), directions, jitters, m_width,
                    m_parameters.terrain_size, m_parameters.height_scale);
    }
    if (m_on.hybrid_ao) compute_hybrid_ao();

    m_queue.synchronize();
    if (m_callbacks.cancel() != 0) return false;
    if (!m_direct_rgb) compose_light();

    // A failed device leaves the caller's arrays as they were.
    m_queue.synchronize();
    if (m_queue.has_pending_errors()) return true;
    const auto out = [&](const grid& g, float* h) {
        if (h && g.get()) g.copy_to_host(h);
    };
    out(m_diffuse, m_host.diffuse);
    out(m_shadow, m_host.shadow);
    if (m_on.traced_ao || m_on.hybrid_ao) out(m_ao, m_host.ao);
    if (m_direct_rgb) {
        // In the same order as the copies, should the caller's arrays overlap.
        compose_light();
    } else {
        out(m_r, m_host.r);
        out(m_g, m_host.g);
        out(m_b, m_host.b);
    }
    m_queue.synchronize();
    return true;
}

}  // namespace lighting
