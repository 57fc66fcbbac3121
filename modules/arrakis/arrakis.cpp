// SPDX-License-Identifier: Apache-2.0
#include "modules/arrakis/arrakis.hpp"

#include <cmath>
#include <stdexcept>

#include "core/checks.hpp"
#include "core/math.hpp"
#include "core/random.hpp"
#include "device/messages.hpp"
#include "modules/blur/blur.hpp"
#include "modules/thermal/thermal.hpp"

namespace arrakis {

using halden::max_of;
using halden::min_of;
using halden::compute::queue;
using halden::compute::range;
using halden::core::got;

halden_callbacks callbacks{};

namespace {

constexpr double kRadians = 3.14159265358979323846 / 180.0;
constexpr float kDiagonal = 1.41421356f;
// Share of the sand landing on a cell that stays there: on sand, and on
// bare rock when grains scour it.
constexpr float kStayOnSand = 0.6f, kStayOnRock = 0.4f;
// The avalanche's rate: half the excess per pass settles without ringing.
constexpr float kAvalancheRate = 0.5f;
// The upwind horizon is sampled at 12 distances (cells), closer together
// near the cell; the furthest shelters the lee of a dune 6 cells high.
constexpr int kHorizonSamples = 12;
HALDEN_HD inline float horizon_distance(int s) {
    constexpr float d[kHorizonSamples] = {1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 8.0f, 10.0f, 13.0f, 16.0f, 20.0f, 24.0f};
    return d[s];
}
// Sand may send at most this share of itself in one avalanche pass, so
// that the rounding of the caps and of the outflow's sums never takes more
// than a cell holds.
constexpr float kCapShare = 1.0f - 0x1p-20f;

bool angle_ok(float a) { return a > 0.0f && a < 90.0f; }

std::string in_range(const char* field, float v, float lo, float hi) {
    if (v >= lo && v <= hi) return {};
    return std::string(field) + " must lie in [" + std::to_string(lo) + ", " + std::to_string(hi) + "]" + got(v);
}

// Neighbour indices wrap on periodic grids and are clamped otherwise.
HALDEN_HD inline int edge(int v, int n, bool periodic) {
    return periodic ? halden::core::wrap_index(v, n) : halden::core::clamp_index(v, 0, n - 1);
}

HALDEN_HD inline std::int64_t to_fixed(float v) {
    return std::int64_t(double(v) * double(std::int64_t(1) << fixed_shift) + 0.5);
}

HALDEN_HD inline float from_fixed(std::int64_t v) { return float(v) * 0x1p-20f; }

// floor(a * w / 2^bits) for 0 <= w <= 2^bits without overflow: the high
// part of `a` multiplies exactly, the low part is rounded down once.
template <int Bits>
HALDEN_HD inline std::int64_t part(std::int64_t a, std::int64_t w) {
    constexpr std::int64_t mask = (std::int64_t(1) << Bits) - 1;
    return (a >> Bits) * w + (((a & mask) * w) >> Bits);
}

HALDEN_HD inline float sample(const float* g, int n, float px, float py, bool periodic) {
    const int x0 = halden::core::floor_index(px), y0 = halden::core::floor_index(py);
    const float fx = px - float(x0), fy = py - float(y0);
    // Inside the grid, as nearly every sample is, no edge rule applies.
    const bool inside = x0 >= 0 && y0 >= 0 && x0 < n - 1 && y0 < n - 1;
    const int xa = inside ? x0 : edge(x0, n, periodic), xb = inside ? x0 + 1 : edge(x0 + 1, n, periodic);
    const int ya = inside ? y0 : edge(y0, n, periodic), yb = inside ? y0 + 1 : edge(y0 + 1, n, periodic);
    const float* ra = g + std::size_t(ya) * std::size_t(n);
    const float* rb = g + std::size_t(yb) * std::size_t(n);
    const float top = ra[xa] + (ra[xb] - ra[xa]) * fx;
    const float bottom = rb[xa] + (rb[xb] - rb[xa]) * fx;
    return top + (bottom - top) * fy;
}

struct wind {
    float vx, vy, speed;
};

// The wind at a cell: the iteration's wind with part of its climb up the
// blurred terrain turned aside (the part along the gradient, damped where
// the gradient is steep), sped up with the height above the blurred terrain.
HALDEN_HD inline wind wind_at(const float* heights, const float* smooth, int x, int y, const wind_constants& k) {
    const int n = k.n;
    const std::size_t row = std::size_t(y) * std::size_t(n);
    const int xl = edge(x - 1, n, k.periodic), xr = edge(x + 1, n, k.periodic);
    const int yu = edge(y - 1, n, k.periodic), yd = edge(y + 1, n, k.periodic);
    const float gx = (smooth[row + std::size_t(xr)] - smooth[row + std::size_t(xl)]) * 0.5f * k.slope_scale;
    const float gy = (smooth[std::size_t(yd) * std::size_t(n) + std::size_t(x)] -
                      smooth[std::size_t(yu) * std::size_t(n) + std::size_t(x)]) *
                     0.5f * k.slope_scale;
    const float climb = k.wx * gx + k.wy * gy;
    const float t = k.warp * climb / (1.0f + (gx * gx + gy * gy));
    const std::size_t i = row + std::size_t(x);
    const float gain = 1.0f + k.speed_up * ((heights[i] - smooth[i]) * k.slope_scale);
    const float m = min_of(max_of(gain, 0.0f), 4.0f);
    const float vx = (k.wx - t * gx) * m, vy = (k.wy - t * gy) * m;
    return {vx, vy, std::sqrt(vx * vx + vy * vy)};
}

// 0 where the cell is exposed, 1 where the upwind horizon rises above the
// steeper shadow angle, a smooth step between the two angles.
HALDEN_HD inline float shadow_at(const float* heights, int x, int y, float ux, float uy, const wind_constants& k) {
    const float h0 = heights[std::size_t(y) * std::size_t(k.n) + std::size_t(x)];
    float rise = 0.0f;
    for (int s = 0; s < kHorizonSamples; ++s) {
        const float d = horizon_distance(s);
        const float h = sample(heights, k.n, float(x) - ux * d, float(y) - uy * d, k.periodic);
        rise = max_of(rise, (h - h0) / d);
    }
    const float tan_h = rise * k.slope_scale;
    if (!(k.tan_shadow_max > k.tan_shadow_min)) return tan_h > k.tan_shadow_min ? 1.0f : 0.0f;
    const float u = min_of(max_of((tan_h - k.tan_shadow_min) / (k.tan_shadow_max - k.tan_shadow_min), 0.0f), 1.0f);
    return u * u * (3.0f - 2.0f * u);
}

HALDEN_HD inline void land(std::int64_t* landed, int n, bool periodic, int x, int y, std::int64_t amount) {
    if (amount == 0) return;
    if (periodic) {
        x = halden::core::wrap_index(x, n);
        y = halden::core::wrap_index(y, n);
    } else if (x < 0 || y < 0 || x >= n || y >= n) {
        return;  // blown off the grid
    }
    halden::compute::atomic_add(landed + std::size_t(y) * std::size_t(n) + std::size_t(x), amount);
}

HALDEN_HD inline float cover(const float* vegetation, std::size_t i) {
    return vegetation ? min_of(max_of(vegetation[i], 0.0f), 1.0f) : 0.0f;
}

}  // namespace

std::string check(const Parameters& p) {
    if (p.size < 1 || p.size > max_size) return "size must lie in [1, " + std::to_string(max_size) + "]" + got(p.size);
    if (!halden::core::positive_finite(p.cell_size)) return "cell_size must be positive and finite" + got(p.cell_size);
    if (!halden::core::positive_finite(p.height_scale))
        return "height_scale must be positive and finite" + got(p.height_scale);
    const float ratio = p.height_scale / p.cell_size;
    if (!(ratio >= 1e-6f && ratio <= 1e6f)) return "height_scale / cell_size must lie in [1e-6, 1e6]" + got(ratio);
    if (!std::isfinite(p.wind_direction)) return "wind_direction must be finite" + got(p.wind_direction);
    if (auto s = in_range("wind_speed", p.wind_speed, 0.0f, 8.0f); !s.empty()) return s;
    if (!std::isfinite(p.second_wind_direction))
        return "second_wind_direction must be finite" + got(p.second_wind_direction);
    if (auto s = in_range("second_wind_speed", p.second_wind_speed, 0.0f, 8.0f); !s.empty()) return s;
    if (auto s = in_range("second_wind_share", p.second_wind_share, 0.0f, 1.0f); !s.empty()) return s;
    if (p.iterations < 0 || p.iterations > max_iterations)
        return "iterations must lie in [0, " + std::to_string(max_iterations) + "]" + got(p.iterations);
    if (auto s = in_range("slab", p.slab, 0.0f, max_sand); !s.empty()) return s;
    if (!(p.hop_length > 0.0f && p.hop_length <= 64.0f))
        return "hop_length must lie above 0 and at most 64" + got(p.hop_length);
    if (auto s = in_range("speed_up", p.speed_up, 0.0f, 16.0f); !s.empty()) return s;
    if (auto s = in_range("warp_strength", p.warp_strength, 0.0f, 1.0f); !s.empty()) return s;
    if (!angle_ok(p.shadow_angle_min))
        return "shadow_angle_min must lie above 0 and below 90 degrees" + got(p.shadow_angle_min);
    if (!angle_ok(p.shadow_angle_max) || p.shadow_angle_max < p.shadow_angle_min)
        return "shadow_angle_max must lie from shadow_angle_min to below 90 degrees" + got(p.shadow_angle_max);
    if (!angle_ok(p.sand_repose)) return "sand_repose must lie above 0 and below 90 degrees" + got(p.sand_repose);
    if (!angle_ok(p.bedrock_repose))
        return "bedrock_repose must lie above 0 and below 90 degrees" + got(p.bedrock_repose);
    if (p.periodic > 1) return "periodic must be 0 or 1" + got(std::int64_t(p.periodic));
    if (p.abrasion > 1) return "abrasion must be 0 or 1" + got(std::int64_t(p.abrasion));
    return {};
}

std::string check_grids(const Parameters& p, const float* bedrock, const float* sand, const float* vegetation) {
    const std::size_t cells = std::size_t(p.size) * std::size_t(p.size);
    // Keeps heights and their differences finite in float.
    constexpr float kHighest = 0x1p60f;
    double total = 0.0;
    for (std::size_t i = 0; i < cells; ++i) {
        if (!(bedrock[i] >= -kHighest && bedrock[i] <= kHighest))
            return "bedrock must be finite and within +-2^60 (cell " + std::to_string(i) + got(bedrock[i]);
        if (!(sand[i] >= 0.0f && sand[i] <= max_sand))
            return "sand must lie in [0, 2^20] (cell " + std::to_string(i) + got(sand[i]);
        if (vegetation && !(vegetation[i] >= 0.0f && vegetation[i] <= 1.0f))
            return "vegetation must lie in [0, 1] (cell " + std::to_string(i) + got(vegetation[i]);
        total += sand[i];
    }
    // The fixed-point sum of all the sand must fit 62 bits.
    if (total > 0x1p41) return "sand: the total volume must stay below 2^41 height units" + got(total);
    return {};
}

std::uint64_t memory_estimate(const Parameters& p) { return 68u * std::uint64_t(p.size) * std::uint64_t(p.size); }

wind_constants wind_of(const Parameters& p, int iteration) {
    // The second wind takes every iteration in which the running count of
    // its share steps up: its iterations are spread evenly.
    const double share = p.second_wind_share;
    const bool second = share > 0.0 && std::floor((iteration + 1) * share) > std::floor(iteration * share);
    const double angle = (second ? p.second_wind_direction : p.wind_direction) * kRadians;
    const double speed = second ? p.second_wind_speed : p.wind_speed;
    wind_constants k{};
    k.wx = float(std::cos(angle) * speed);
    k.wy = float(std::sin(angle) * speed);
    k.slope_scale = p.height_scale / p.cell_size;
    k.warp = p.warp_strength;
    k.speed_up = p.speed_up;
    k.tan_shadow_min = float(std::tan(p.shadow_angle_min * kRadians));
    k.tan_shadow_max = float(std::tan(p.shadow_angle_max * kRadians));
    k.slab = p.slab;
    k.hop = p.hop_length;
    k.n = p.size;
    k.periodic = p.periodic != 0;
    k.seed = p.seed;
    k.round = std::uint32_t(iteration);
    return k;
}

Arrakis::Arrakis(queue& q, const float* h_bedrock, float* h_sand, const float* h_vegetation,
                 const Parameters& parameters, const halden_callbacks* callbacks)
    : m_queue(q),
      m_parameters(parameters),
      m_sand_out(h_sand),
      m_callbacks(halden::complete(callbacks)),
      m_n(parameters.size) {
    const std::string problem = check(m_parameters);
    if (!problem.empty()) throw std::invalid_argument(problem);
    const int n = m_n;
    const auto ext = halden::core::grid_extent(n, n);
    m_bedrock = halden::core::upload_optional(q, h_bedrock, n, n, "bedrock");
    m_sand_in = halden::core::upload_optional(q, h_sand, n, n, "sand");
    m_vegetation = halden::core::upload_optional(q, h_vegetation, n, n, "vegetation");
    m_sand = fixed_grid(q, ext, "sand (fixed point)");
    m_airborne = fixed_grid(q, ext, "airborne sand");
    m_landed = fixed_grid(q, ext, "landed sand");
    m_heights = halden::core::grid(q, ext, "heights");
    m_scratch = halden::core::grid(q, ext, "blur scratch");
    m_smooth = halden::core::grid(q, ext, "blurred heights");
    m_talus = halden::core::grid(q, ext, "talus heights");
    m_shadow = halden::core::grid(q, ext, "wind shadow");
    load_sand();
    prepare_talus();
}

Arrakis::~Arrakis() {
    try {
        m_queue.synchronize();
    } catch (...) {
    }
}

void Arrakis::load_sand() {
    const int n = m_n;
    const float* in = m_sand_in.get();
    std::int64_t *sand = m_sand.get(), *airborne = m_airborne.get(), *landed = m_landed.get();
    m_queue.parallel_for(
        range<1>{std::size_t(n) * std::size_t(n)}, HALDEN_KERNEL(std::size_t i) {
            sand[i] = to_fixed(in[i]);
            airborne[i] = 0;
            landed[i] = 0;
        });
}

void Arrakis::prepare_talus() {
    const int n = m_n;
    const float slope_scale = m_parameters.height_scale / m_parameters.cell_size;
    const float talus_height = float(std::tan(m_parameters.sand_repose * kRadians)) / slope_scale;
    const float cliff = float(std::tan(m_parameters.bedrock_repose * kRadians));
    const float* bedrock = m_bedrock.get();
    float* talus = m_talus.get();
    m_queue.parallel_for(
        range<2>{std::size_t(n), std::size_t(n)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const int x = int(col), y = int(row);
            const float b = bedrock[row * std::size_t(n) + col];
            float steepest = 0.0f;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const int nx = x + dx, ny = y + dy;
                    if ((dx == 0 && dy == 0) || nx < 0 || ny < 0 || nx >= n || ny >= n) continue;
                    const float drop = (b - bedrock[std::size_t(ny) * std::size_t(n) + std::size_t(nx)]) * slope_scale;
                    steepest = max_of(steepest, dx != 0 && dy != 0 ? drop / kDiagonal : drop);
                }
            // Sand on a rock face steeper than the rock's own repose slides at any slope.
            talus[row * std::size_t(n) + col] = steepest > cliff ? 0.0f : talus_height;
        });
}

void Arrakis::compute_heights(float* cap) {
    const float* bedrock = m_bedrock.get();
    const std::int64_t* sand = m_sand.get();
    float* heights = m_heights.get();
    m_queue.parallel_for(
        range<1>{std::size_t(m_n) * std::size_t(m_n)}, HALDEN_KERNEL(std::size_t i) {
            const float s = from_fixed(sand[i]);
            heights[i] = bedrock[i] + s;
            if (cap) cap[i] = s * kCapShare;
        });
}

void Arrakis::lift_and_hop(const wind_constants& k) {
    const float *heights = m_heights.get(), *smooth = m_smooth.get(), *vegetation = m_vegetation.get();
    float* shadow = m_shadow.get();
    std::int64_t *sand = m_sand.get(), *airborne = m_airborne.get(), *landed = m_landed.get();
    const int n = m_n;
    m_queue.parallel_for(
        range<2>{std::size_t(n), std::size_t(n)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const int x = int(col), y = int(row);
            const std::size_t i = row * std::size_t(n) + col;
            const wind w = wind_at(heights, smooth, x, y, k);
            const float sh = w.speed > 0.0f ? shadow_at(heights, x, y, w.vx / w.speed, w.vy / w.speed, k) : 0.0f;
            shadow[i] = sh;
            const float lift_h = k.slab * w.speed * (1.0f - sh) * (1.0f - cover(vegetation, i));
            const std::int64_t have = sand[i];
            std::int64_t lift = to_fixed(min_of(lift_h, max_sand));
            lift = lift < have ? lift : have;
            sand[i] = have - lift;
            const std::int64_t moving = airborne[i] + lift;
            if (moving == 0) return;
            // Hop lengths vary by a quarter either way, so that a uniform hop
            // does not imprint its length on the dunes as ripples.
            const float jitter =
                0.75f + 0.5f * halden::uniform_f(halden::counter_state(k.seed, std::uint32_t(i), k.round));
            const float px = float(x) + w.vx * k.hop * jitter, py = float(y) + w.vy * k.hop * jitter;
            const int x0 = halden::core::floor_index(px), y0 = halden::core::floor_index(py);
            const std::int64_t wx = min_of(float(int((px - float(x0)) * 256.0f)), 255.0f);
            const std::int64_t wy = min_of(float(int((py - float(y0)) * 256.0f)), 255.0f);
            // The four shares are whole units that add up to `moving`.
            const std::int64_t right = part<8>(moving, wx), left = moving - right;
            const std::int64_t right_low = part<8>(right, wy), left_low = part<8>(left, wy);
            land(landed, n, k.periodic, x0, y0, left - left_low);
            land(landed, n, k.periodic, x0 + 1, y0, right - right_low);
            land(landed, n, k.periodic, x0, y0 + 1, left_low);
            land(landed, n, k.periodic, x0 + 1, y0 + 1, right_low);
        });
}

void Arrakis::deposit(bool abrasion) {
    const float *shadow = m_shadow.get(), *vegetation = m_vegetation.get();
    std::int64_t *sand = m_sand.get(), *airborne = m_airborne.get(), *landed = m_landed.get();
    m_queue.parallel_for(
        range<1>{std::size_t(m_n) * std::size_t(m_n)}, HALDEN_KERNEL(std::size_t i) {
            const std::int64_t a = landed[i];
            landed[i] = 0;
            if (a == 0) {
                airborne[i] = 0;
                return;
            }
            // Sheltered cells keep everything (the slip face's lee), exposed
            // ones the share for their surface; cover holds on to the rest.
            const float sh = shadow[i];
            const float stay = abrasion && sand[i] == 0 ? kStayOnRock : kStayOnSand;
            float keep = sh + (1.0f - sh) * stay;
            keep = keep + (1.0f - keep) * cover(vegetation, i);
            const std::int64_t q = std::int64_t(min_of(keep * 65536.0f, 65536.0f));
            const std::int64_t kept = part<16>(a, q);
            sand[i] = sand[i] + kept;
            airborne[i] = a - kept;
        });
}

void Arrakis::avalanche() {
    const int n = m_n;
    for (int pass = 0; pass < avalanche_passes; ++pass) {
        // B holds the caps and C the outflow factors: the blur is done with them.
        compute_heights(m_scratch.get());
        thermal::outflow(m_queue, m_heights.get(), m_talus.get(), nullptr, kAvalancheRate, m_scratch.get(),
                         m_smooth.get(), n, n);
        thermal::settle_fixed(m_queue, m_heights.get(), m_talus.get(), m_smooth.get(), m_sand.get(), fixed_shift, n, n);
    }
}

void Arrakis::land_airborne() {
    std::int64_t *sand = m_sand.get(), *airborne = m_airborne.get();
    m_queue.parallel_for(
        range<1>{std::size_t(m_n) * std::size_t(m_n)}, HALDEN_KERNEL(std::size_t i) {
            sand[i] = sand[i] + airborne[i];
            airborne[i] = 0;
        });
}

void Arrakis::write_back() {
    const float* in = m_sand_in.get();
    const std::int64_t* sand = m_sand.get();
    float* out = m_heights.get();
    // Cells that end as they began keep their input bits rather than the
    // fixed-point value's rounding.
    m_queue.parallel_for(
        range<1>{std::size_t(m_n) * std::size_t(m_n)},
        HALDEN_KERNEL(std::size_t i) { out[i] = sand[i] == to_fixed(in[i]) ? in[i] : from_fixed(sand[i]); });
    m_queue.synchronize();
    if (m_queue.has_pending_errors()) return;
    m_heights.copy_to_host(m_sand_out);
    m_queue.synchronize();
}

bool Arrakis::process() {
    const Parameters& p = m_parameters;
    const int n = m_n;
    for (int it = 0; it < p.iterations; ++it) {
        compute_heights(nullptr);
        blur::blur(m_queue, m_heights.get(), m_scratch.get(), m_smooth.get(), n, blur_radius);
        lift_and_hop(wind_of(p, it));
        deposit(p.abrasion != 0);
        avalanche();
        m_queue.synchronize();
        const bool stop = m_callbacks.progress(float(100.0 * double(it + 1) / double(p.iterations))) != 0;
        if (stop || m_callbacks.cancel() != 0) return false;
    }
    land_airborne();
    write_back();
    return true;
}

}  // namespace arrakis
