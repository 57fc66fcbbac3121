// SPDX-License-Identifier: Apache-2.0
#include "modules/debris/debris.hpp"

#include <cmath>
#include <stdexcept>

#include "core/checks.hpp"
#include "core/accumulate.hpp"
#include "core/math.hpp"
#include "core/random.hpp"

namespace debris {

using halden::max_of;
using halden::min_of;
using halden::compute::queue;
using halden::compute::range;
using halden::compute::usm_ptr;
using halden::core::clamp_index;

namespace {

using halden::core::got;
using halden::core::positive_finite;
using halden::core::within;

constexpr double kRadians = 3.14159265358979323846 / 180.0;

// Time step in units of sqrt(cell_size / g); gravity is then one cell width
// per unit of time squared.
constexpr float kStep = 0.2f;
// A rock this close above its surface (cell widths) is in contact with it.
constexpr float kContact = 1e-3f;
// Impacts slower than this along the normal (a drop of half a cell) do not
// bounce: the rock stays on the ground and rolls on.
constexpr float kBounceSpeed = 1.0f;
// The warp w stretches an outline by 1 / (1 - kOutline w).
constexpr float kOutline = 0.3f;
// Draws per rock at placement: two jitters, the size and the flatness.
constexpr std::uint32_t kRockRounds = 4;

// Bilinear height at (x, y) through the cell centres, edge cells repeated.
HALDEN_HD inline float bilinear(const float* h, int w, int rows, float x, float y) {
    const float px = x - 0.5f, py = y - 0.5f;
    const float fx0 = floorf(px), fy0 = floorf(py);
    const float fx = px - fx0, fy = py - fy0;
    const int ix = int(fx0), iy = int(fy0);
    const int x0 = clamp_index(ix, 0, w - 1), x1 = clamp_index(ix + 1, 0, w - 1);
    const int y0 = clamp_index(iy, 0, rows - 1), y1 = clamp_index(iy + 1, 0, rows - 1);
    const std::ptrdiff_t r0 = std::ptrdiff_t(y0) * w, r1 = std::ptrdiff_t(y1) * w;
    const float top = h[r0 + x0] * (1.0f - fx) + h[r0 + x1] * fx;
    const float bottom = h[r1 + x0] * (1.0f - fx) + h[r1 + x1] * fx;
    return top * (1.0f - fy) + bottom * fy;
}

// The surface a rock feels: four bilinear samples half a cell to either side
// of it give its height and gradient (in cell widths), which vary
// continuously even across the creases of the bilinear surface. The samples
// share their fractions and twelve cells, read once.
struct feel {
    float h, gx, gy;
};
HALDEN_HD inline feel surface(const float* h, int w, int rows, float x, float y, float scale) {
    const float px = x - 0.5f, py = y - 0.5f;
    const float fx0 = floorf(px), fy0 = floorf(py);
    const float fx = px - fx0, fy = py - fy0, gx = 1.0f - fx, gy = 1.0f - fy;
    const int ix = int(fx0), iy = int(fy0);
    int c[4];
    std::ptrdiff_t r[4];
    for (int k = 0; k < 4; ++k) {
        c[k] = clamp_index(ix - 1 + k, 0, w - 1);
        r[k] = std::ptrdiff_t(clamp_index(iy - 1 + k, 0, rows - 1)) * w;
    }
    // Rows iy and iy + 1 across columns ix - 1 to ix + 2, interpolated along x.
    const float w1 = h[r[1] + c[0]] * gx + h[r[1] + c[1]] * fx, w2 = h[r[2] + c[0]] * gx + h[r[2] + c[1]] * fx;
    const float m1 = h[r[1] + c[1]] * gx + h[r[1] + c[2]] * fx, m2 = h[r[2] + c[1]] * gx + h[r[2] + c[2]] * fx;
    const float e1 = h[r[1] + c[2]] * gx + h[r[1] + c[3]] * fx, e2 = h[r[2] + c[2]] * gx + h[r[2] + c[3]] * fx;
    const float m0 = h[r[0] + c[1]] * gx + h[r[0] + c[2]] * fx, m3 = h[r[3] + c[1]] * gx + h[r[3] + c[2]] * fx;
    const float east = e1 * gy + e2 * fy, west = w1 * gy + w2 * fy;
    const float north = m0 * gy + m1 * fy, south = m2 * gy + m3 * fy;
    return {((east + west) + (north + south)) * 0.25f * scale, (east - west) * scale, (south - north) * scale};
}

// Gradient noise on the unit lattice: hashed unit gradients at the corners,
// quintic fade; about -1 to 1.
HALDEN_HD inline float corner(std::uint32_t cx, std::uint32_t cy, std::uint32_t seed, float dx, float dy) {
    constexpr float s = 0.70710678f;
    constexpr float gx[8] = {1.0f, -1.0f, 0.0f, 0.0f, s, s, -s, -s};
    constexpr float gy[8] = {0.0f, 0.0f, 1.0f, -1.0f, s, -s, s, -s};
    const std::uint32_t k = halden::pcg3d({cx, cy, seed}).x >> 29;
    return gx[k] * dx + gy[k] * dy;
}
HALDEN_HD inline float fade(float t) { return t * t * t * (t * (t * 6.0f - 15.0f) + 10.0f); }
HALDEN_HD inline float noise(float x, float y, std::uint32_t seed) {
    const float fx0 = floorf(x), fy0 = floorf(y);
    const float fx = x - fx0, fy = y - fy0;
    const std::uint32_t ix = std::uint32_t(int(fx0)), iy = std::uint32_t(int(fy0));
    const float a = corner(ix, iy, seed, fx, fy), b = corner(ix + 1u, iy, seed, fx - 1.0f, fy);
    const float c = corner(ix, iy + 1u, seed, fx, fy - 1.0f), d = corner(ix + 1u, iy + 1u, seed, fx - 1.0f, fy - 1.0f);
    const float u = fade(fx), v = fade(fy);
    const float top = a + (b - a) * u, bottom = c + (d - c) * u;
    return min_of(max_of((top + (bottom - top) * v) * 1.41421356f, -1.0f), 1.0f);
}

// Rocks that cell i sheds: stochastic rounding of its expected count.
HALDEN_HD inline std::uint32_t cell_rocks(const float* heights, const float* sources, const float* field, int x, int y,
                                          const constants& k) {
    const int w = k.w;
    const std::ptrdiff_t row = std::ptrdiff_t(y) * w;
    const std::ptrdiff_t up = std::ptrdiff_t(clamp_index(y - 1, 0, k.h - 1)) * w;
    const std::ptrdiff_t down = std::ptrdiff_t(clamp_index(y + 1, 0, k.h - 1)) * w;
    const float gx = (heights[row + clamp_index(x + 1, 0, w - 1)] - heights[row + clamp_index(x - 1, 0, w - 1)]) *
                     (0.5f * k.slope_scale);
    const float gy = (heights[down + x] - heights[up + x]) * (0.5f * k.slope_scale);
    if (!(gx * gx + gy * gy > k.source_slope2)) return 0;
    const std::ptrdiff_t i = row + x;
    const float weight = sources ? min_of(max_of(sources[i], 0.0f), 1.0f) : 1.0f;
    const float modulation = min_of(max_of(1.0f + 2.0f * field[i], 0.0f), 1.0f);
    const float expected = k.density * weight * modulation;
    if (!(expected > 0.0f)) return 0;
    const float u = halden::uniform_f(halden::counter_state(k.seed, std::uint32_t(i), 0));
    return std::uint32_t(expected + u);
}

}  // namespace

std::string check(const Parameters& p) {
    if (std::string problem = halden::core::check_grid_and_scales(p.width, p.height, p.cell_size, p.height_scale);
        !problem.empty())
        return problem;
    if (!positive_finite(p.height_scale / p.cell_size))
        return "height_scale / cell_size must be positive and finite" + got(p.height_scale / p.cell_size);
    if (!within(p.density, 0.0f, max_density)) return "density must lie in [0, 16] rocks per cell" + got(p.density);
    if (!positive_finite(p.size_min)) return "size_min must be positive and finite" + got(p.size_min);
    if (!(p.size_max >= p.size_min && std::isfinite(p.size_max)))
        return "size_max must be finite and at least size_min" + got(p.size_max);
    if (!(p.size_max / p.cell_size <= max_radius_cells))
        return "size_max must be at most 64 cells" + got(p.size_max / p.cell_size);
    if (!within(p.size_exponent, 0.0f, 8.0f)) return "size_exponent must lie in [0, 8]" + got(p.size_exponent);
    if (!(p.source_slope > 0.0f && p.source_slope < 90.0f))
        return "source_slope must lie above 0 and below 90 degrees" + got(p.source_slope);
    if (!(p.friction_angle > 0.0f && p.friction_angle < 90.0f))
        return "friction_angle must lie above 0 and below 90 degrees" + got(p.friction_angle);
    if (!(p.restitution >= 0.0f && p.restitution < 1.0f)) return "restitution must lie in [0, 1)" + got(p.restitution);
    if (p.max_steps < 1 || p.max_steps > max_steps) return "max_steps must lie in [1, 100000]" + got(p.max_steps);
    if (p.mode != HALDEN_DEBRIS_SYNCHRONOUS && p.mode != HALDEN_DEBRIS_ASYNCHRONOUS)
        return "mode must be 0 (synchronous) or 1 (asynchronous)" + got(p.mode);
    if (p.batches < 1 || p.batches > max_batches) return "batches must lie in [1, 1024]" + got(p.batches);
    if (p.shape != HALDEN_DEBRIS_SHARP && p.shape != HALDEN_DEBRIS_ROUNDED)
        return "shape must be 0 (sharp) or 1 (rounded)" + got(p.shape);
    if (p.facets < min_facets || p.facets > max_facets) return "facets must lie in [4, 32]" + got(p.facets);
    if (!within(p.roundness, 0.0f, 1.0f)) return "roundness must lie in [0, 1]" + got(p.roundness);
    if (!(p.embedding >= 0.0f && p.embedding < 1.0f)) return "embedding must lie in [0, 1)" + got(p.embedding);
    if (!within(p.warp_amplitude, 0.0f, 10000.0f))
        return "warp_amplitude must lie in [0, 10000] cells" + got(p.warp_amplitude);
    if (!(p.warp_frequency > 0.0f && p.warp_frequency <= 1.0f))
        return "warp_frequency must lie above 0 and at most 1 per cell" + got(p.warp_frequency);
    return {};
}

constants plan(const Parameters& p) {
    constants k{};
    k.w = p.width;
    k.h = p.height;
    k.seed = p.seed;
    k.slope_scale = p.height_scale / p.cell_size;
    const double source = std::tan(double(p.source_slope) * kRadians);
    k.source_slope2 = float(source * source);
    k.mu = float(std::tan(double(p.friction_angle) * kRadians));
    k.restitution = p.restitution;
    k.density = p.density;
    k.min_radius = p.size_min;
    k.max_radius = p.size_max;
    // Inverse of the power law's distribution function: r = (lo + u span)^power.
    const double a = p.size_exponent;
    if (a == 1.0) {
        k.size_power = 0.0f;
        k.size_lo = p.size_min;
        k.size_span = p.size_max / p.size_min;
    } else {
        k.size_power = float(1.0 / (1.0 - a));
        const double lo = std::pow(double(p.size_min), 1.0 - a), hi = std::pow(double(p.size_max), 1.0 - a);
        k.size_lo = float(lo);
        k.size_span = float(hi - lo);
    }
    k.cell_size = p.cell_size;
    k.height_scale = p.height_scale;
    k.max_steps = p.max_steps;
    k.facets = p.facets;
    k.rounded = p.shape == HALDEN_DEBRIS_ROUNDED;
    k.shape_power = 2.0f + 4.0f * (1.0f - p.roundness);
    k.embedding = p.embedding;
    k.warp_amplitude = p.warp_amplitude;
    k.warp_frequency = p.warp_frequency;
    return k;
}

std::vector<float> directions() {
    std::vector<float> d(2 * direction_steps);
    for (int i = 0; i < direction_steps; ++i) {
        const double a = 2.0 * 3.14159265358979323846 * i / direction_steps;
        d[2 * std::size_t(i)] = float(std::cos(a));
        d[2 * std::size_t(i) + 1] = float(std::sin(a));
    }
    return d;
}

void warp_noise(queue& q, float* field, const float* user, const constants& k) {
    const int w = k.w;
    const std::uint32_t seed = k.seed;
    const float frequency = k.warp_frequency, reach = k.warp_amplitude * k.warp_frequency;
    q.parallel_for(
        range<2>{std::size_t(k.h), std::size_t(w)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const std::size_t i = row * std::size_t(w) + col;
            if (user) {
                field[i] = min_of(max_of(user[i], -1.0f), 1.0f);
                return;
            }
            const float x = (float(col) + 0.5f) * frequency, y = (float(row) + 0.5f) * frequency;
            // Domain warp: two noises displace where the third is read.
            const float wx = noise(x + 5.2f, y + 1.3f, seed ^ 0x68E31DA4u);
            const float wy = noise(x + 1.7f, y + 9.2f, seed ^ 0xB5297A4Du);
            field[i] = noise(x + reach * wx, y + reach * wy, seed);
        });
}

void count_rocks(queue& q, const float* heights, const float* sources, const float* field, std::uint64_t* counts,
                 const constants& k) {
    q.parallel_for(
        range<1>{std::size_t(k.h)}, HALDEN_KERNEL(std::size_t row) {
            std::uint32_t n = 0;
            for (int x = 0; x < k.w; ++x) n += cell_rocks(heights, sources, field, x, int(row), k);
            counts[row] = n;
        });
}

void place_rocks(queue& q, const float* heights, const float* sources, const float* field, const std::uint64_t* offsets,
                 std::uint32_t limit, rock* rocks, const constants& k) {
    q.parallel_for(
        range<1>{std::size_t(k.h)}, HALDEN_KERNEL(std::size_t row) {
            std::uint64_t id = offsets[row];
            for (int x = 0; x < k.w && id < limit; ++x) {
                const std::uint32_t n = cell_rocks(heights, sources, field, x, int(row), k);
                const std::uint32_t cell = std::uint32_t(row * std::size_t(k.w) + std::size_t(x));
                for (std::uint32_t j = 0; j < n && id < limit; ++j, ++id) {
                    const std::uint32_t round = 1 + j * kRockRounds;
                    const float jx = halden::uniform_f(halden::counter_state(k.seed, cell, round));
                    const float jy = halden::uniform_f(halden::counter_state(k.seed, cell, round + 1));
                    const float us = halden::uniform_f(halden::counter_state(k.seed, cell, round + 2));
                    const float uf = halden::uniform_f(halden::counter_state(k.seed, cell, round + 3));
                    float radius;
                    if (k.size_power == 0.0f)
                        radius = k.size_lo * halden::pow_p(k.size_span, us);
                    else
                        radius = halden::pow_p(max_of(k.size_lo + us * k.size_span, 1e-30f), k.size_power);
                    rock r{};
                    r.x = float(x) + jx;
                    r.y = float(row) + jy;
                    r.radius = min_of(max_of(radius, k.min_radius), k.max_radius);
                    r.flatness = 0.6f + 0.4f * uf;
                    r.id = std::uint32_t(id);
                    r.state = moving;
                    rocks[id] = r;
                }
            }
        });
}

void run_rocks(queue& q, const float* heights, rock* rocks, std::uint32_t first, std::uint32_t stride,
               std::uint32_t count, const constants& k) {
    const int w = k.w, rows = k.h, steps = k.max_steps;
    const float scale = k.slope_scale, mu = k.mu, mu2 = k.mu * k.mu, e = k.restitution;
    q.parallel_for(
        range<1>{count}, HALDEN_KERNEL(std::size_t j) {
            rock& r = rocks[first + std::size_t(stride) * j];
            if (r.state != moving) return;
            float x = r.x, y = r.y, z = surface(heights, w, rows, x, y, scale).h;
            float vx = 0.0f, vy = 0.0f, vz = 0.0f;
            std::uint32_t state = stopped;
            int step = 0;
            for (; step < steps; ++step) {
                const feel s = surface(heights, w, rows, x, y, scale);
                if (z - s.h > kContact) {
                    vz = vz - kStep;
                } else {
                    z = s.h;
                    const float g2 = s.gx * s.gx + s.gy * s.gy;
                    const float inv = 1.0f / sqrtf(1.0f + g2);
                    const float nx = -s.gx * inv, ny = -s.gy * inv, nz = inv;
                    const float vn = vx * nx + vy * ny + vz * nz;
                    bool bounced = false;
                    if (vn < 0.0f) {
                        // Impact: the normal speed is reversed by the restitution
                        // (or taken up when slow); the tangential speed loses
                        // friction times the normal impulse.
                        const float tx = vx - vn * nx, ty = vy - vn * ny, tz = vz - vn * nz;
                        const float tn = sqrtf(tx * tx + ty * ty + tz * tz);
                        const float out = -vn > kBounceSpeed ? -vn * e : 0.0f;
                        const float loss = mu * (out - vn);
                        const float keep = tn > loss ? (tn - loss) / tn : 0.0f;
                        vx = tx * keep + out * nx;
                        vy = ty * keep + out * ny;
                        vz = tz * keep + out * nz;
                        bounced = out > 0.0f;
                    }
                    if (bounced) {
                        vz = vz - kStep;
                    } else {
                        // Gravity's share along the slope, g (-gx, -gy, -g2) / (1 + g2),
                        // and friction against the motion, mu times the normal force.
                        const float pull = inv * inv;
                        vx = vx - s.gx * pull * kStep;
                        vy = vy - s.gy * pull * kStep;
                        vz = vz - g2 * pull * kStep;
                        const float speed = sqrtf(vx * vx + vy * vy + vz * vz);
                        const float brake = mu * inv * kStep;
                        if (speed <= brake) {
                            vx = vy = vz = 0.0f;
                            if (g2 <= mu2) {
                                state = resting;
                                break;
                            }
                        } else {
                            const float keep = (speed - brake) / speed;
                            vx = vx * keep;
                            vy = vy * keep;
                            vz = vz * keep;
                        }
                    }
                }
                x = x + vx * kStep;
                y = y + vy * kStep;
                z = z + vz * kStep;
                if (!(x >= 0.0f && x < float(w) && y >= 0.0f && y < float(rows))) {
                    x = x >= 0.0f ? min_of(x, float(w)) : 0.0f;
                    y = y >= 0.0f ? min_of(y, float(rows)) : 0.0f;
                    state = left;
                    ++step;
                    break;
                }
            }
            if (state == stopped) z = surface(heights, w, rows, x, y, scale).h;
            r.x = x;
            r.y = y;
            r.z = z;
            r.vx = vx;
            r.vy = vy;
            r.vz = vz;
            r.state = state;
            r.steps = std::uint32_t(step);
        });
}

void render_rocks(queue& q, const float* heights, const float* field, const float* dirs, const rock* rocks,
                  std::uint32_t first, std::uint32_t stride, std::uint32_t count, std::uint64_t* tops,
                  const constants& k) {
    q.parallel_for(
        range<1>{count}, HALDEN_KERNEL(std::size_t j) {
            const rock r = rocks[first + std::size_t(stride) * j];
            if (r.state != resting && r.state != stopped) return;
            const int w = k.w, rows = k.h;
            const float ground = bilinear(heights, w, rows, r.x, r.y);
            if (!(ground == ground)) return;
            const float rc = r.radius / k.cell_size;
            const float c = r.radius * r.flatness / k.height_scale;
            // zc - c lies embedding x 2c below the ground.
            const float zc = ground + c * (1.0f - 2.0f * k.embedding);
            const float reach = rc * (1.0f / (1.0f - kOutline));
            const int x0 = clamp_index(int(floorf(r.x - reach)), 0, w - 1),
                      x1 = clamp_index(int(floorf(r.x + reach)), 0, w - 1);
            const int y0 = clamp_index(int(floorf(r.y - reach)), 0, rows - 1),
                      y1 = clamp_index(int(floorf(r.y + reach)), 0, rows - 1);
            // The shape's draws, a stream apart from placement's: round 0
            // turns the rock, 1 elongates it, then three per facet and the top.
            const std::uint32_t shape_seed = k.seed ^ 0x2C1B3C6Du;
            const std::uint32_t turn = halden::counter_state(shape_seed, r.id, 0);
            const float ca = dirs[2 * (turn >> 24)], sa = dirs[2 * (turn >> 24) + 1];
            const float aspect = 0.75f + 0.25f * halden::uniform_f(halden::counter_state(shape_seed, r.id, 1));
            const float inv = 1.0f / rc, inv_long = inv, inv_short = inv / aspect;
            // A sharp rock's planes, w <= a - b u - c v in units of its radii.
            float pa[max_facets + 1], pb[max_facets + 1], pc[max_facets + 1];
            int planes = 0;
            if (!k.rounded) {
                const int sector = direction_steps / k.facets;
                for (int f = 0; f < k.facets; ++f) {
                    const std::uint32_t base = 2 + 3 * std::uint32_t(f);
                    const std::uint32_t s0 = halden::counter_state(shape_seed, r.id, base);
                    const float tilt =
                        0.45f + 0.4f * halden::uniform_f(halden::counter_state(shape_seed, r.id, base + 1));
                    const float offset =
                        0.8f + 0.2f * halden::uniform_f(halden::counter_state(shape_seed, r.id, base + 2));
                    const int a = (f * sector + int((s0 >> 8) % std::uint32_t(sector))) & (direction_steps - 1);
                    const float nz = sqrtf(1.0f - tilt * tilt);
                    pa[planes] = offset / nz;
                    pb[planes] = tilt * dirs[2 * a] / nz;
                    pc[planes] = tilt * dirs[2 * a + 1] / nz;
                    ++planes;
                }
                pa[planes] =
                    0.5f + 0.35f * halden::uniform_f(halden::counter_state(shape_seed, r.id, 2 + 3 * max_facets));
                pb[planes] = 0.0f;
                pc[planes] = 0.0f;
                ++planes;
            }
            const float power = k.shape_power, inv_power = 1.0f / power;
            const std::uint32_t id = r.id;
            for (int y = y0; y <= y1; ++y)
                for (int x = x0; x <= x1; ++x) {
                    const std::ptrdiff_t i = std::ptrdiff_t(y) * w + x;
                    const float dx = (float(x) + 0.5f) - r.x, dy = (float(y) + 0.5f) - r.y;
                    // The warp stretches (> 0) or shrinks (< 0) the outline here.
                    const float stretch = 1.0f - kOutline * field[i];
                    const float u = (dx * ca + dy * sa) * inv_long * stretch;
                    const float v = (dy * ca - dx * sa) * inv_short * stretch;
                    const float d2 = u * u + v * v;
                    float top;
                    if (k.rounded) {
                        if (power == 2.0f) {
                            if (!(d2 < 1.0f)) continue;
                            top = sqrtf(1.0f - d2);
                        } else {
                            const float au = u < 0.0f ? -u : u, av = v < 0.0f ? -v : v;
                            if (!(au < 1.0f && av < 1.0f)) continue;
                            const float t = halden::pow_p(au, power) + halden::pow_p(av, power);
                            if (!(t < 1.0f)) continue;
                            top = halden::pow_p(1.0f - t, inv_power);
                        }
                    } else {
                        if (!(d2 < 1.0f)) continue;
                        // The facets cut an ellipsoid a quarter taller than the rock.
                        top = 1.25f * sqrtf(1.0f - d2);
                        for (int f = 0; f < planes; ++f) top = min_of(top, pa[f] - pb[f] * u - pc[f] * v);
                    }
                    const float z = zc + c * top;
                    if (!(z > heights[i])) continue;
                    halden::core::accumulate_winner(&tops[i], z, id);
                }
        });
}

void resolve(queue& q, const float* input, const std::uint64_t* tops, float* current, int w, int h) {
    q.parallel_for(
        range<2>{std::size_t(h), std::size_t(w)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const std::size_t i = row * std::size_t(w) + col;
            const std::uint64_t t = tops[i];
            const float base = input[i], top = halden::core::winner_value(t);
            current[i] = t != 0 && top > base ? top : base;
        });
}

namespace {

// The thickness laid on each cell and which rock tops it (either may be null).
void outputs(queue& q, const float* input, const std::uint64_t* tops, const float* current, float* thickness,
             float* ids, int w, int h) {
    q.parallel_for(
        range<2>{std::size_t(h), std::size_t(w)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const std::size_t i = row * std::size_t(w) + col;
            const std::uint64_t t = tops[i];
            const bool covered = t != 0 && halden::core::winner_value(t) > input[i];
            if (thickness) thickness[i] = covered ? current[i] - input[i] : 0.0f;
            if (ids) ids[i] = covered ? float(halden::core::winner_id(t)) : -1.0f;
        });
}

void clear(queue& q, std::uint64_t* p, std::size_t n) {
    q.parallel_for(
        range<1>{n}, HALDEN_KERNEL(std::size_t i) { p[i] = 0; });
}

}  // namespace

Debris::Debris(queue& q, float* h_heights, const float* h_sources, float* h_debris, float* h_rock_ids,
               const float* h_warp, const Parameters& parameters)
    : m_queue(q),
      m_parameters(parameters),
      m_heights(h_heights),
      m_debris(h_debris),
      m_rock_ids(h_rock_ids),
      m_sources_host(h_sources),
      m_warp_host(h_warp) {
    const std::string problem = check(m_parameters);
    if (!problem.empty()) throw std::invalid_argument(problem);
    m_constants = plan(m_parameters);
    const int w = m_parameters.width, h = m_parameters.height;
    const auto extent = halden::core::grid_extent(w, h);
    m_input = grid(q, extent, "heights");
    m_input.copy_from_host(h_heights);
    m_current = grid(q, extent, "current heights");
    q.copy(m_input.get(), m_current.get(), m_input.bytes());
    m_sources = halden::core::upload_optional(q, h_sources, w, h, "sources");
    m_field = halden::core::upload_optional(q, h_warp, w, h, "warp");
    if (!m_field.get()) m_field = grid(q, extent, "warp noise");
    warp_noise(q, m_field.get(), h_warp ? m_field.get() : nullptr, m_constants);
    const std::vector<float> dirs = directions();
    m_directions = usm_ptr<float, 1>(q, {dirs.size()}, "directions");
    m_directions.copy_from_host(dirs.data());
    m_tops = usm_ptr<std::uint64_t, 1>(q, {m_input.size()}, "rock tops");
    clear(q, m_tops.get(), m_tops.size());
}

Debris::~Debris() {
    try {
        m_queue.synchronize();
    } catch (...) {
    }
}

std::uint32_t Debris::place_rocks() {
    queue& q = m_queue;
    const constants& k = m_constants;
    usm_ptr<std::uint64_t, 1> counts(q, {std::size_t(k.h)}, "rocks per row");
    count_rocks(q, m_input.get(), m_sources.get(), m_field.get(), counts.get(), k);
    std::vector<std::uint64_t> h_counts(std::size_t(k.h));
    counts.copy_to_host(h_counts.data());
    q.synchronize();
    std::vector<std::uint64_t> h_offsets(std::size_t(k.h));
    std::uint64_t total = 0;
    for (std::size_t y = 0; y < h_counts.size(); ++y) {
        h_offsets[y] = total;
        total += h_counts[y];
    }
    m_count = std::uint32_t(total < max_rocks ? total : max_rocks);
    m_rocks = usm_ptr<rock, 1>();
    if (m_count == 0) return 0;
    m_rocks = usm_ptr<rock, 1>(q, {m_count}, "rocks");
    usm_ptr<std::uint64_t, 1> offsets(q, {std::size_t(k.h)}, "row offsets");
    offsets.copy_from_host(h_offsets.data());
    debris::place_rocks(q, m_input.get(), m_sources.get(), m_field.get(), offsets.get(), m_count, m_rocks.get(), k);
    q.synchronize();
    return m_count;
}

std::vector<rock> Debris::rocks() const {
    std::vector<rock> v(m_count);
    if (m_count == 0) return v;
    m_rocks.copy_to_host(v.data());
    m_queue.synchronize();
    return v;
}

void Debris::set_rocks(const std::vector<rock>& rocks) {
    m_count = std::uint32_t(rocks.size());
    m_rocks = usm_ptr<rock, 1>();
    if (m_count == 0) return;
    m_rocks = usm_ptr<rock, 1>(m_queue, {m_count}, "rocks");
    m_rocks.copy_from_host(rocks.data());
}

void Debris::simulate() {
    queue& q = m_queue;
    const constants& k = m_constants;
    const std::uint32_t batches =
        m_parameters.mode == HALDEN_DEBRIS_ASYNCHRONOUS ? std::uint32_t(m_parameters.batches) : 1u;
    for (std::uint32_t b = 0; b < batches && b < m_count; ++b) {
        const std::uint32_t n = (m_count - b + batches - 1) / batches;
        run_rocks(q, m_current.get(), m_rocks.get(), b, batches, n, k);
        render_rocks(q, m_current.get(), m_field.get(), m_directions.get(), m_rocks.get(), b, batches, n, m_tops.get(),
                     k);
        resolve(q, m_input.get(), m_tops.get(), m_current.get(), k.w, k.h);
    }
}

void Debris::write_back() {
    queue& q = m_queue;
    const int w = m_constants.w, h = m_constants.h;
    const auto extent = halden::core::grid_extent(w, h);
    grid thickness = m_debris ? grid(q, extent, "debris") : grid();
    grid ids = m_rock_ids ? grid(q, extent, "rock ids") : grid();
    if (m_debris || m_rock_ids)
        outputs(q, m_input.get(), m_tops.get(), m_current.get(), thickness.get(), ids.get(), w, h);
    // A failed device leaves the caller's grids as they were.
    q.synchronize();
    if (q.has_pending_errors()) return;
    m_current.copy_to_host(m_heights);
    if (m_debris) thickness.copy_to_host(m_debris);
    if (m_rock_ids) ids.copy_to_host(m_rock_ids);
    q.synchronize();
}

void Debris::process() {
    place_rocks();
    simulate();
    write_back();
}

}  // namespace debris
