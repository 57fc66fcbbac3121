// SPDX-License-Identifier: Apache-2.0
#include "modules/stamp_instancer/stamp_instancer.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <type_traits>

#include "core/checks.hpp"
#include "core/math.hpp"
#include "core/random.hpp"
#include "core/resampling.hpp"

namespace stamp_instancer {

using halden::max_of;
using halden::min_of;
using halden::compute::queue;
using halden::compute::range;
using halden::compute::usm_ptr;

halden_callbacks callbacks{};

namespace {

using halden::core::clamp_index;
using halden::core::got;

bool finite(float v) { return std::isfinite(v); }

// A range field pair: both finite (or, with `infinite`, not NaN) and in order.
std::string range_problem(const char* low_name, float low, const char* high_name, float high, bool infinite) {
    const auto ok = [&](float v) { return infinite ? !std::isnan(v) : std::isfinite(v); };
    const char* rule = infinite ? " must not be NaN" : " must be finite";
    if (!ok(low)) return std::string(low_name) + rule + got(low);
    if (!ok(high)) return std::string(high_name) + rule + got(high);
    if (low > high)
        return std::string(low_name) + " must not exceed " + high_name + " (got " + std::to_string(low) + " > " +
               std::to_string(high) + ")";
    return {};
}

bool smooth(std::int32_t blend) { return blend == HALDEN_STAMP_SMOOTH_MAX || blend == HALDEN_STAMP_SMOOTH_MIN; }

// Draw purposes: each is its own stream of counter_state(seed, index, round).
enum : std::uint32_t {
    round_x = 0,
    round_y = 1,
    round_keep = 2,
    round_stamp = 3,
    round_scale = 4,
    round_rotation = 5,
    round_height = 6,
    round_pick = 7,
    round_ring = 8,
    round_order = 9,
};

double draw(std::uint32_t seed, std::uint32_t index, std::uint32_t round) {
    return double(halden::uniform_f(halden::counter_state(seed, index, round)));
}

float in_range(float low, float high, double u) { return float(double(low) + u * (double(high) - double(low))); }

double lookup_cell(double spacing) { return spacing / std::sqrt(2.0); }

// The terrain under a candidate centre, as the placement limits see it.
struct terrain {
    const float* heights;
    const float* density;
    int w, h;

    std::size_t cell(double x, double y, int& cx, int& cy) const {
        cx = int(std::clamp(std::floor(x), 0.0, double(w - 1)));
        cy = int(std::clamp(std::floor(y), 0.0, double(h - 1)));
        return std::size_t(cy) * std::size_t(w) + std::size_t(cx);
    }
    double at(int x, int y) const { return heights[std::size_t(y) * std::size_t(w) + std::size_t(x)]; }
    // Central differences, one-sided at the edges; 0 along a side of one cell.
    double slope(int x, int y) const {
        const int l = std::max(x - 1, 0), r = std::min(x + 1, w - 1), u = std::max(y - 1, 0),
                  d = std::min(y + 1, h - 1);
        const double gx = r > l ? (at(r, y) - at(l, y)) / double(r - l) : 0.0;
        const double gy = d > u ? (at(x, d) - at(x, u)) / double(d - u) : 0.0;
        return std::sqrt(gx * gx + gy * gy);
    }
    bool allows(const Parameters& p, double x, double y, std::uint32_t candidate) const {
        int cx = 0, cy = 0;
        const std::size_t i = cell(x, y, cx, cy);
        if (density && !(draw(p.seed, candidate, round_keep) < double(density[i]))) return false;
        const double e = heights[i];
        if (!(e >= p.elevation_min && e <= p.elevation_max)) return false;
        if (std::isinf(p.slope_min) && std::isinf(p.slope_max) && p.slope_min < p.slope_max) return true;
        const double s = slope(cx, cy);
        return s >= p.slope_min && s <= p.slope_max;
    }
};

// Candidate `k` at (x, y) as an instance: its other draws are keyed by the
// candidate too, so a change of density or limits that keeps a candidate
// keeps all of it.
Instance instance_at(const Parameters& p, std::uint32_t k, float x, float y, std::uint32_t stamp_count) {
    Instance in{};
    in.x = x;
    in.y = y;
    in.stamp = std::min(std::uint32_t(draw(p.seed, k, round_stamp) * stamp_count), stamp_count - 1);
    in.scale = in_range(p.scale_min, p.scale_max, draw(p.seed, k, round_scale));
    in.rotation = in_range(p.rotation_min, p.rotation_max, draw(p.seed, k, round_rotation));
    in.height = in_range(p.height_min, p.height_max, draw(p.seed, k, round_height));
    rotation_of(in.rotation, in.cos_rotation, in.sin_rotation);
    return in;
}

void place_uniform(const Parameters& p, const terrain& t, std::uint32_t stamp_count, std::vector<Instance>& out) {
    const std::uint64_t budget = std::uint64_t(p.count) * candidates_per_instance;
    for (std::uint64_t k64 = 0; k64 < budget && out.size() < p.count; ++k64) {
        const std::uint32_t k = std::uint32_t(k64);
        const float x = float(draw(p.seed, k, round_x) * p.width), y = float(draw(p.seed, k, round_y) * p.height);
        if (t.allows(p, x, y, k)) out.push_back(instance_at(p, k, x, y, stamp_count));
    }
}

// Bridson's Poisson-disk sampling over the whole grid: each step takes a
// random active point and tries up to 30 candidates in the ring from
// spacing to twice the spacing around it; the first far enough from every
// point joins (the active point stays active), and a point with no such
// candidate retires. The disk grows outwards from its first point, so its
// points are then visited in a seeded random order, which spreads any count
// over the whole grid; those the density and limits keep become instances.
void place_poisson(const Parameters& p, const terrain& t, std::uint32_t stamp_count, std::vector<Instance>& out) {
    const double r = p.spacing, r2 = r * r, cell = lookup_cell(r);
    const int gw = int(std::ceil(p.width / cell)), gh = int(std::ceil(p.height / cell));
    std::vector<std::int32_t> lookup(std::size_t(gw) * std::size_t(gh), -1);
    struct point {
        float x, y;
    };
    std::vector<point> points;
    std::vector<std::uint32_t> active;
    std::uint32_t picks = 0, rings = 0;

    const auto slot = [&](double x, double y, int& gx, int& gy) {
        gx = std::min(int(x / cell), gw - 1);
        gy = std::min(int(y / cell), gh - 1);
    };
    const auto far_enough = [&](double x, double y) {
        int gx = 0, gy = 0;
        slot(x, y, gx, gy);
        for (int j = std::max(gy - 2, 0); j <= std::min(gy + 2, gh - 1); ++j)
            for (int i = std::max(gx - 2, 0); i <= std::min(gx + 2, gw - 1); ++i) {
                const std::int32_t q = lookup[std::size_t(j) * std::size_t(gw) + std::size_t(i)];
                if (q < 0) continue;
                const double dx = points[std::size_t(q)].x - x, dy = points[std::size_t(q)].y - y;
                if (dx * dx + dy * dy < r2) return false;
            }
        return true;
    };
    // A lookup cell's diagonal is the spacing, so it holds one point at most.
    const auto join = [&](float x, float y) {
        int gx = 0, gy = 0;
        slot(x, y, gx, gy);
        lookup[std::size_t(gy) * std::size_t(gw) + std::size_t(gx)] = std::int32_t(points.size());
        active.push_back(std::uint32_t(points.size()));
        points.push_back({x, y});
    };

    join(float(draw(p.seed, 0, round_x) * p.width), float(draw(p.seed, 0, round_y) * p.height));
    while (!active.empty()) {
        const std::size_t a =
            std::min(std::size_t(draw(p.seed, picks++, round_pick) * double(active.size())), active.size() - 1);
        const point centre = points[active[a]];
        bool joined = false;
        for (int attempt = 0; attempt < 30 && !joined; ++attempt) {
            // A point of the ring by rejection from its square: no angles,
            // so nothing here depends on a math library.
            double dx = 0.0, dy = 0.0;
            bool inside = false;
            for (int tries = 0; tries < 16 && !inside; ++tries) {
                dx = (2.0 * draw(p.seed, rings, round_ring) - 1.0) * 2.0 * r;
                dy = (2.0 * draw(p.seed, rings + 1, round_ring) - 1.0) * 2.0 * r;
                rings += 2;
                const double d2 = dx * dx + dy * dy;
                inside = d2 >= r2 && d2 <= 4.0 * r2;
            }
            if (!inside) continue;
            const float x = float(centre.x + dx), y = float(centre.y + dy);
            if (!(x >= 0.0f && y >= 0.0f && x < float(p.width) && y < float(p.height))) continue;
            if (!far_enough(x, y)) continue;
            join(x, y);
            joined = true;
        }
        if (!joined) {
            active[a] = active.back();
            active.pop_back();
        }
    }

    // Fisher-Yates with counter-based draws.
    std::vector<std::uint32_t> order(points.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = std::uint32_t(i);
    for (std::size_t i = order.size(); i-- > 1;) {
        const std::size_t j = std::min(std::size_t(draw(p.seed, std::uint32_t(i), round_order) * double(i + 1)), i);
        std::swap(order[i], order[j]);
    }
    for (std::size_t n = 0; n < order.size() && out.size() < p.count; ++n) {
        const std::uint32_t k = order[n];
        if (t.allows(p, points[k].x, points[k].y, k))
            out.push_back(instance_at(p, k, points[k].x, points[k].y, stamp_count));
    }
}

// Kernel helpers.

// Texel index i clamped to [0, n - 1]: edge texels repeat past the edge.

// f = 0 gives a exactly, and equal ends give that value for every f.
HALDEN_HD inline float lerp(float a, float b, float f) { return a + f * (b - a); }

HALDEN_HD inline float bilinear(const float* t, int w, int h, float u, float v) {
    const float tu = u - 0.5f, tv = v - 0.5f;
    const int x = halden::core::floor_index(tu), y = halden::core::floor_index(tv);
    const float fx = tu - float(x), fy = tv - float(y);
    const int x0 = clamp_index(x, 0, w - 1), x1 = clamp_index(x + 1, 0, w - 1);
    const float* r0 = t + std::size_t(clamp_index(y, 0, h - 1)) * std::size_t(w);
    const float* r1 = t + std::size_t(clamp_index(y + 1, 0, h - 1)) * std::size_t(w);
    return lerp(lerp(r0[x0], r0[x1], fx), lerp(r1[x0], r1[x1], fx), fy);
}

// Catmull-Rom weights; at f = 0 they are (0, 1, 0, 0), so a texel centre
// gives its texel exactly.
struct cubic_weights {
    float w0, w1, w2, w3;
};
HALDEN_HD inline cubic_weights catmull_rom(float f) {
    return {((-0.5f * f + 1.0f) * f - 0.5f) * f, (1.5f * f - 2.5f) * f * f + 1.0f, ((-1.5f * f + 2.0f) * f + 0.5f) * f,
            (0.5f * f - 0.5f) * f * f};
}

HALDEN_HD inline float bicubic(const float* t, int w, int h, float u, float v) {
    const float tu = u - 0.5f, tv = v - 0.5f;
    const int x = halden::core::floor_index(tu), y = halden::core::floor_index(tv);
    const cubic_weights wx = catmull_rom(tu - float(x)), wy = catmull_rom(tv - float(y));
    const int x0 = clamp_index(x - 1, 0, w - 1), x1 = clamp_index(x, 0, w - 1), x2 = clamp_index(x + 1, 0, w - 1),
              x3 = clamp_index(x + 2, 0, w - 1);
    float rows[4];
    for (int j = 0; j < 4; ++j) {
        const float* r = t + std::size_t(clamp_index(y - 1 + j, 0, h - 1)) * std::size_t(w);
        rows[j] = ((wx.w0 * r[x0] + wx.w1 * r[x1]) + wx.w2 * r[x2]) + wx.w3 * r[x3];
    }
    return ((wy.w0 * rows[0] + wy.w1 * rows[1]) + wy.w2 * rows[2]) + wy.w3 * rows[3];
}

// Towards x by a: a = 1 gives x exactly, and x = t gives t exactly, so a
// max never lowers a cell nor a min raises one.
HALDEN_HD inline float mix(float t, float x, float a) { return a < 1.0f ? t + a * (x - t) : x; }

HALDEN_HD inline float abs_f(float v) { return v < 0.0f ? -v : v; }

// Narrows [lo, hi] to the columns whose dx = col + 0.5 - x may put
// k dx + b in [0, n), widened so that rounding never drops one. k = 0
// leaves every column to the exact test, and NaN bounds leave lo and hi as
// they are.
HALDEN_HD inline void limit_columns(float k, float b, float n, float x, float& lo, float& hi) {
    if (!(k != 0.0f)) return;
    float d0 = (0.0f - b) / k, d1 = (n - b) / k;
    if (d1 < d0) {
        const float swap = d0;
        d0 = d1;
        d1 = swap;
    }
    // A cell's slack, and more for far centres and long footprints, whose
    // bounds carry more rounding.
    const float slack0 = 1.0f + 0x1p-18f * (abs_f(d0) + abs_f(x)), slack1 = 1.0f + 0x1p-18f * (abs_f(d1) + abs_f(x));
    lo = max_of(lo, ((d0 + x) - 0.5f) - slack0);
    hi = min_of(hi, ((d1 + x) - 0.5f) + slack1);
}

// Narrows the columns [c0, c1) of one row to those whose texel coordinates
// u = a dx + bu and v = c dx + bv may lie inside [0, w) x [0, h): a turned
// footprint fills about 60 % of its box. The exact test still decides each
// cell. Only for grids of at most 2^22 columns, where a column and its float
// differ by far less than a cell.
HALDEN_HD inline void columns_inside(float a, float bu, float w, float c, float bv, float h, float x, int& c0,
                                     int& c1) {
    float lo = float(c0), hi = float(c1);
    limit_columns(a, bu, w, x, lo, hi);
    limit_columns(c, bv, h, x, lo, hi);
    const int first = lo >= float(c1) ? c1 : halden::core::floor_index(lo),
              end = hi < float(c0) ? c0 : halden::core::floor_index(hi) + 1;
    c0 = first > c0 ? first : c0;
    c1 = end < c1 ? end : c1;
}

// Quilez's polynomial smooth maximum of t and p (minimum with sign -1): the
// two meet in a rounded seam `k` height units wide.
HALDEN_HD inline float smooth_extreme(float t, float p, float k, float sign) {
    const float e = sign > 0.0f ? max_of(t, p) : min_of(t, p);
    const float hh = max_of(k - abs_f(t - p), 0.0f) / k;
    return e + sign * (hh * hh * k * 0.25f);
}

}  // namespace

std::string check(const Parameters& p, bool placing) {
    if (std::string problem = halden::core::check_grid_size(p.width, p.height); !problem.empty()) return problem;
    if (p.height_mode != HALDEN_STAMP_ABSOLUTE && p.height_mode != HALDEN_STAMP_RELATIVE)
        return "height_mode must be 0 (absolute) or 1 (relative) (got " + std::to_string(p.height_mode) + ")";
    if (p.blend < HALDEN_STAMP_REPLACE || p.blend > HALDEN_STAMP_MULTIPLY)
        return "blend must lie in [0, 7] (got " + std::to_string(p.blend) + ")";
    if (!(p.opacity >= 0.0f && p.opacity <= 1.0f)) return "opacity must lie in [0, 1]" + got(p.opacity);
    if (smooth(p.blend) && !(p.smoothness > 0.0f && finite(p.smoothness)))
        return "smoothness must be positive and finite for the smooth blends" + got(p.smoothness);
    if (!(p.falloff >= 0.0f && p.falloff <= 1.0f)) return "falloff must lie in [0, 1]" + got(p.falloff);
    if (p.filter != HALDEN_STAMP_BILINEAR && p.filter != HALDEN_STAMP_BICUBIC)
        return "filter must be 0 (bilinear) or 1 (bicubic) (got " + std::to_string(p.filter) + ")";
    if (!placing) return {};
    if (p.count < 1 || p.count > max_instances)
        return "count must lie in [1, 2^24] (got " + std::to_string(p.count) + ")";
    if (!(p.spacing >= 0.0f && finite(p.spacing))) return "spacing must be 0 or positive and finite" + got(p.spacing);
    if (p.spacing > 0.0f) {
        const double cell = lookup_cell(p.spacing);
        const double cells = std::ceil(p.width / cell) * std::ceil(p.height / cell);
        if (!(cells <= double(max_lookup_cells)))
            return "spacing is too small for the grid: its lookup grid would have more than 2^24 cells" +
                   got(p.spacing);
    }
    if (!(p.scale_min > 0.0f)) return "scale_min must be positive" + got(p.scale_min);
    for (std::string problem :
         {range_problem("scale_min", p.scale_min, "scale_max", p.scale_max, false),
          range_problem("rotation_min", p.rotation_min, "rotation_max", p.rotation_max, false),
          range_problem("height_min", p.height_min, "height_max", p.height_max, false),
          range_problem("slope_min", p.slope_min, "slope_max", p.slope_max, true),
          range_problem("elevation_min", p.elevation_min, "elevation_max", p.elevation_max, true)})
        if (!problem.empty()) return problem;
    return {};
}

std::string check(const Stamps* stamps) {
    if (!stamps) return "null stamp record";
    const Stamps& s = *stamps;
    if (s.count < 1 || s.count > max_stamps)
        return "stamps.count must lie in [1, 65536] (got " + std::to_string(s.count) + ")";
    if (!s.atlas) return "stamps.atlas is null";
    if (!s.entries) return "stamps.entries is null";
    for (std::uint32_t k = 0; k < s.count; ++k) {
        const Entry& e = s.entries[k];
        const std::string name = "stamps.entries[" + std::to_string(k) + "]";
        if (e.width < 1 || e.width > max_stamp_side)
            return name + ".width must lie in [1, 8192] (got " + std::to_string(e.width) + ")";
        if (e.height < 1 || e.height > max_stamp_side)
            return name + ".height must lie in [1, 8192] (got " + std::to_string(e.height) + ")";
        const std::uint64_t texels = std::uint64_t(e.width) * e.height;
        if (e.offset > s.atlas_size || texels > s.atlas_size - e.offset)
            return name + ".offset puts the stamp past stamps.atlas_size (offset " + std::to_string(e.offset) + ", " +
                   std::to_string(texels) + " texels, atlas of " + std::to_string(s.atlas_size) + ")";
        const float* t = s.atlas + e.offset;
        for (std::uint64_t i = 0; i < texels; ++i)
            if (!std::isfinite(t[i]))
                return "stamps.atlas holds a non-finite texel in stamp " + std::to_string(k) + " at " +
                       std::to_string(i);
    }
    return {};
}

std::string check(const Instance& in, std::uint32_t index, std::uint32_t stamp_count) {
    const std::string name = "instances[" + std::to_string(index) + "]";
    if (!finite(in.x) || !finite(in.y)) return name + ".x and .y must be finite";
    if (!(in.scale > 0.0f && finite(in.scale))) return name + ".scale must be positive and finite" + got(in.scale);
    if (!finite(in.rotation)) return name + ".rotation must be finite" + got(in.rotation);
    if (!finite(in.height)) return name + ".height must be finite" + got(in.height);
    if (in.stamp >= stamp_count)
        return name + ".stamp must be below stamps.count (got " + std::to_string(in.stamp) + " of " +
               std::to_string(stamp_count) + ")";
    return {};
}

std::uint64_t memory_estimate(const Parameters& p, const Stamps& stamps, std::uint64_t instances) {
    std::uint64_t texels = 0;
    for (std::uint32_t k = 0; k < stamps.count; ++k)
        texels += std::uint64_t(stamps.entries[k].width) * stamps.entries[k].height;
    return 8u * std::uint64_t(p.width) * std::uint64_t(p.height) + 6u * texels + 112u * instances;
}

void rotation_of(float degrees, float& c, float& s) {
    double r = std::fmod(double(degrees), 360.0);
    if (r < 0.0) r += 360.0;
    // Quarter turns are exact, so a turned stamp's texels land on cells.
    if (r == 0.0 || r == 90.0 || r == 180.0 || r == 270.0) {
        const int q = int(r / 90.0);
        c = q == 0 ? 1.0f : (q == 2 ? -1.0f : 0.0f);
        s = q == 1 ? 1.0f : (q == 3 ? -1.0f : 0.0f);
        return;
    }
    const double radians = r * (3.14159265358979323846 / 180.0);
    c = float(std::cos(radians));
    s = float(std::sin(radians));
}

std::vector<Instance> place(const Parameters& p, const float* h_heights, const float* h_density,
                            std::uint32_t stamp_count) {
    const terrain t{h_heights, h_density, p.width, p.height};
    std::vector<Instance> out;
    out.reserve(std::min<std::size_t>(p.count, 1u << 20));
    if (p.spacing > 0.0f)
        place_poisson(p, t, stamp_count, out);
    else
        place_uniform(p, t, stamp_count, out);
    return out;
}

std::uint64_t pyramid_layout(const Stamps& stamps, std::vector<level>& levels, std::vector<std::uint32_t>& first) {
    levels.clear();
    first.assign(std::size_t(stamps.count) + 1, 0);
    std::uint64_t texels = 0;
    for (std::uint32_t k = 0; k < stamps.count; ++k) {
        first[k] = std::uint32_t(levels.size());
        int w = int(stamps.entries[k].width), h = int(stamps.entries[k].height);
        for (;;) {
            levels.push_back({texels, w, h});
            texels += std::uint64_t(w) * std::uint64_t(h);
            if (w == 1 && h == 1) break;
            w = (w + 1) / 2;
            h = (h + 1) / 2;
        }
    }
    first[stamps.count] = std::uint32_t(levels.size());
    return texels;
}

void build_pyramid(queue& q, const Stamps& stamps, const std::vector<level>& levels,
                   const std::vector<std::uint32_t>& first, float* pyramid) {
    for (std::uint32_t k = 0; k < stamps.count; ++k) {
        const level& top = levels[first[k]];
        q.copy(stamps.atlas + stamps.entries[k].offset, pyramid + top.offset,
               std::size_t(top.width) * std::size_t(top.height) * sizeof(float));
        for (std::uint32_t l = first[k] + 1; l < first[k + 1]; ++l) {
            const level& fine = levels[l - 1];
            const level& coarse = levels[l];
            resampling::kernels::downsample_magic(q, pyramid + fine.offset, fine.width, fine.height,
                                                  pyramid + coarse.offset, coarse.width, coarse.height);
        }
    }
}

footprint footprint_of(const Instance& in, std::uint32_t index, const std::vector<level>& levels,
                       const std::vector<std::uint32_t>& first, float base, int width, int height) {
    const std::uint32_t k = in.stamp;
    const level& top = levels[first[k]];
    const double s = in.scale;
    // The coarsest level whose texels are still no larger than a cell.
    std::uint32_t l = first[k];
    while (l + 1 < first[k + 1] && std::ldexp(s, int(l + 1 - first[k])) <= 1.0) ++l;
    const level& lv = levels[l];
    float c = 1.0f, sn = 0.0f;
    rotation_of(in.rotation, c, sn);
    const double kx = double(lv.width) / double(top.width) / s, ky = double(lv.height) / double(top.height) / s;

    footprint f{};
    f.x = in.x;
    f.y = in.y;
    f.a = float(c * kx);
    f.b = float(sn * kx);
    f.c = float(-sn * ky);
    f.d = float(c * ky);
    f.half_w = 0.5f * float(lv.width);
    f.half_h = 0.5f * float(lv.height);
    f.edge_u = 2.0f / float(lv.width);
    f.edge_v = 2.0f / float(lv.height);
    f.height = in.height;
    f.base = base;
    f.offset = lv.offset;
    f.w = lv.width;
    f.h = lv.height;
    f.index = index;
    // Half the rotated rectangle's extent along each axis, a cell wider for
    // rounding; the kernel's texel test decides.
    const double ac = std::abs(double(c)), as = std::abs(double(sn));
    const double ex = 0.5 * s * (ac * top.width + as * top.height) + 1.0;
    const double ey = 0.5 * s * (as * top.width + ac * top.height) + 1.0;
    const auto clip = [](double v, int n) { return int(std::clamp(v, 0.0, double(n))); };
    f.x0 = clip(std::floor(double(in.x) - ex - 0.5), width);
    f.x1 = clip(std::floor(double(in.x) + ex - 0.5) + 1.0, width);
    f.y0 = clip(std::floor(double(in.y) - ey - 0.5), height);
    f.y1 = clip(std::floor(double(in.y) + ey - 0.5) + 1.0, height);
    return f;
}

bins bin(const std::vector<footprint>& footprints, int width, int height) {
    bins b;
    b.tiles_x = (width + tile_side - 1) / tile_side;
    b.tiles_y = (height + tile_side - 1) / tile_side;
    const std::size_t tiles = std::size_t(b.tiles_x) * std::size_t(b.tiles_y);
    b.start.assign(tiles + 1, 0);
    const auto each_tile = [&](const footprint& f, auto&& visit) {
        if (f.x0 >= f.x1 || f.y0 >= f.y1) return;
        for (int ty = f.y0 / tile_side; ty <= (f.y1 - 1) / tile_side; ++ty)
            for (int tx = f.x0 / tile_side; tx <= (f.x1 - 1) / tile_side; ++tx)
                visit(std::size_t(ty) * std::size_t(b.tiles_x) + std::size_t(tx));
    };
    std::uint64_t total = 0;
    for (const footprint& f : footprints)
        each_tile(f, [&](std::size_t t) {
            ++b.start[t + 1];
            ++total;
        });
    if (total > std::numeric_limits<std::uint32_t>::max())
        throw std::length_error("the instances reach more than 2^32 - 1 tiles in all; use fewer or smaller instances");
    for (std::size_t t = 0; t < tiles; ++t) b.start[t + 1] += b.start[t];
    b.items.resize(std::size_t(total));
    std::vector<std::uint32_t> fill(b.start.begin(), b.start.end() - 1);
    for (std::size_t i = 0; i < footprints.size(); ++i)
        each_tile(footprints[i], [&](std::size_t t) { b.items[fill[t]++] = std::uint32_t(i); });
    return b;
}

void gather(queue& q, float* heights, float* ids, const float* pyramid, const footprint* instances,
            const std::uint32_t* start, const std::uint32_t* items, int width, int height, int tiles_x,
            const blend_settings& settings) {
    const blend_settings k = settings;
    const bool narrow = width <= (1 << 22);
    q.parallel_for(
        range<1>{std::size_t(height) * std::size_t(tiles_x)}, HALDEN_KERNEL(std::size_t item) {
            const int row = int(item / std::size_t(tiles_x)), tx = int(item % std::size_t(tiles_x));
            const std::size_t tile = std::size_t(row / tile_side) * std::size_t(tiles_x) + std::size_t(tx);
            const int first_col = tx * tile_side;
            const int end_col = first_col + tile_side < width ? first_col + tile_side : width;
            float* line = heights + std::size_t(row) * std::size_t(width);
            float* id_line = ids ? ids + std::size_t(row) * std::size_t(width) : nullptr;
            const float cy = float(row) + 0.5f;
            for (std::uint32_t n = start[tile]; n < start[tile + 1]; ++n) {
                const footprint& f = instances[items[n]];
                if (row < f.y0 || row >= f.y1) continue;
                int c0 = f.x0 > first_col ? f.x0 : first_col, c1 = f.x1 < end_col ? f.x1 : end_col;
                const float dy = cy - f.y;
                const float by = f.b * dy, dv = f.d * dy;
                const float* t = pyramid + f.offset;
                const float fw = float(f.w), fh = float(f.h);
                if (narrow) columns_inside(f.a, by + f.half_w, fw, f.c, dv + f.half_h, fh, f.x, c0, c1);
                for (int col = c0; col < c1; ++col) {
                    const float dx = (float(col) + 0.5f) - f.x;
                    const float u = (f.a * dx + by) + f.half_w;
                    const float v = (f.c * dx + dv) + f.half_h;
                    if (!(u >= 0.0f && u < fw && v >= 0.0f && v < fh)) continue;
                    float a = k.opacity;
                    if (k.inverse_falloff > 0.0f) {
                        const float edge = min_of(min_of(u, fw - u) * f.edge_u, min_of(v, fh - v) * f.edge_v);
                        const float e = min_of(edge * k.inverse_falloff, 1.0f);
                        a = a * (e * e * (3.0f - 2.0f * e));
                    }
                    if (!(a > 0.0f)) continue;
                    const float texel_value =
                        k.filter == HALDEN_STAMP_BICUBIC ? bicubic(t, f.w, f.h, u, v) : bilinear(t, f.w, f.h, u, v);
                    const float raised = f.height * texel_value;
                    const float p = raised + f.base;
                    const float was = line[col];
                    float now = was;
                    bool wins = true;
                    switch (k.blend) {
                        case HALDEN_STAMP_REPLACE:
                            now = mix(was, p, a);
                            break;
                        case HALDEN_STAMP_ADD:
                            now = was + a * raised;
                            break;
                        case HALDEN_STAMP_SUBTRACT:
                            now = was - a * raised;
                            break;
                        case HALDEN_STAMP_MAX:
                            wins = p > was;
                            now = mix(was, max_of(was, p), a);
                            break;
                        case HALDEN_STAMP_MIN:
                            wins = p < was;
                            now = mix(was, min_of(was, p), a);
                            break;
                        case HALDEN_STAMP_SMOOTH_MAX:
                            now = mix(was, smooth_extreme(was, p, k.smoothness, 1.0f), a);
                            break;
                        case HALDEN_STAMP_SMOOTH_MIN:
                            now = mix(was, smooth_extreme(was, p, k.smoothness, -1.0f), a);
                            break;
                        default:
                            now = was * ((1.0f - a) + a * raised);
                            break;
                    }
                    line[col] = now;
                    if (id_line && wins) id_line[col] = float(f.index);
                }
            }
        });
}

StampInstancer::StampInstancer(queue& q, float* h_heights, const Stamps& stamps, const float* h_density,
                               const Instance* given, std::uint32_t given_count, const Parameters& parameters)
    : m_queue(q), m_parameters(parameters), m_stamps(stamps), m_heights(h_heights) {
    std::string problem = check(m_parameters, given == nullptr);
    if (problem.empty()) problem = check(&stamps);
    if (!problem.empty()) throw std::invalid_argument(problem);
    if (given) {
        m_instances.assign(given, given + given_count);
        for (std::uint32_t i = 0; i < given_count; ++i) {
            problem = check(m_instances[i], i, stamps.count);
            if (!problem.empty()) throw std::invalid_argument(problem);
            rotation_of(m_instances[i].rotation, m_instances[i].cos_rotation, m_instances[i].sin_rotation);
        }
    } else {
        m_instances = place(m_parameters, h_heights, h_density, stamps.count);
    }
}

StampInstancer::~StampInstancer() {
    try {
        m_queue.synchronize();
    } catch (...) {
    }
}

bool StampInstancer::populate(float* h_ids) {
    queue& q = m_queue;
    const Parameters& p = m_parameters;
    const int w = p.width, h = p.height;

    std::vector<level> levels;
    std::vector<std::uint32_t> first;
    const std::uint64_t texels = pyramid_layout(m_stamps, levels, first);
    usm_ptr<float, 1> pyramid(q, {std::size_t(texels)}, "stamp pyramid");
    build_pyramid(q, m_stamps, levels, first, pyramid.get());

    std::vector<footprint> footprints;
    footprints.reserve(m_instances.size());
    const terrain t{m_heights, nullptr, w, h};
    for (std::size_t i = 0; i < m_instances.size(); ++i) {
        const Instance& in = m_instances[i];
        float base = 0.0f;
        if (p.height_mode == HALDEN_STAMP_RELATIVE) {
            int cx = 0, cy = 0;
            base = m_heights[t.cell(in.x, in.y, cx, cy)];
        }
        footprints.push_back(footprint_of(in, std::uint32_t(i), levels, first, base, w, h));
    }
    const bins b = bin(footprints, w, h);

    // Empty lists still get one slot, so that every pointer a kernel takes is valid.
    const auto upload = [&](const auto& v, const char* label) {
        using T = typename std::decay_t<decltype(v)>::value_type;
        usm_ptr<T, 1> d(q, {std::max<std::size_t>(v.size(), 1)}, label);
        if (!v.empty()) q.copy(v.data(), d.get(), v.size() * sizeof(T));
        return d;
    };
    const usm_ptr<footprint, 1> d_footprints = upload(footprints, "stamp instances");
    const usm_ptr<std::uint32_t, 1> d_start = upload(b.start, "tile starts");
    const usm_ptr<std::uint32_t, 1> d_items = upload(b.items, "tile lists");

    grid heights = halden::core::upload_optional(q, m_heights, w, h, "heights");
    grid ids = h_ids ? grid(q, heights.extent(), "instance ids") : grid();
    if (h_ids) halden::core::fill(ids, no_instance);

    blend_settings settings{p.blend, p.filter, p.opacity, p.smoothness, p.falloff > 0.0f ? 1.0f / p.falloff : 0.0f};
    gather(q, heights.get(), ids.get(), pyramid.get(), d_footprints.get(), d_start.get(), d_items.get(), w, h,
           b.tiles_x, settings);

    // A failed device leaves the caller's grids as they were.
    q.synchronize();
    if (q.has_pending_errors()) return false;
    heights.copy_to_host(m_heights);
    if (h_ids) ids.copy_to_host(h_ids);
    q.synchronize();
    return !q.has_pending_errors();
}

}  // namespace stamp_instancer
