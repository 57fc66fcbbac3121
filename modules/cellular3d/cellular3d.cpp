// SPDX-License-Identifier: Apache-2.0
#include "modules/cellular3d/cellular3d.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "core/checks.hpp"
#include "core/math.hpp"
#include "core/random.hpp"
#include "device/messages.hpp"

// The 27 candidates of the first block, unrolled whole so that the host
// compiler can run the loop over samples in vector lanes.
#if defined(__CUDA_ARCH__) || defined(__clang__)
#  define CELLULAR_UNROLL_ALL _Pragma("unroll")
#else
#  define CELLULAR_UNROLL_ALL _Pragma("GCC unroll 32")
#endif

namespace cellular3d {

using halden::max_of;
using halden::min_of;
using halden::compute::queue;
using halden::compute::range;

halden_callbacks callbacks{};

namespace {

using halden::core::got;

constexpr int kEuclidean = HALDEN_CELLULAR3D_EUCLIDEAN;
constexpr int kSquared = HALDEN_CELLULAR3D_SQUARED;
constexpr int kManhattan = HALDEN_CELLULAR3D_MANHATTAN;
constexpr int kChebyshev = HALDEN_CELLULAR3D_CHEBYSHEV;
constexpr int kMinkowski = HALDEN_CELLULAR3D_MINKOWSKI;

constexpr float kInf = __builtin_huge_valf();
// Offsets and distances are below 6 in size, so their rounding stays far
// below this; the lower bounds that end a search are lowered by it so that
// they stay bounds of the rounded distances too.
constexpr float kMargin = 1e-5f;
// With jitter 1 the first feature lies within 1 of the sample along every
// axis and the second within 2 along one: under any norm up to Manhattan's,
// F2 < 4, which the block of radius 4 settles. Smooth F1 stops there too.
constexpr int kMaxRadius = 4;
// Smooth F1 leaves out terms below 2^-kSmoothCut of the nearest feature's.
constexpr float kSmoothCut = 40.0f;
// Samples per work item on devices other than the host, where a small tile
// keeps enough threads busy.
constexpr int kDeviceTile = 4;
// Rows of at most about this many cells per launch, with progress between.
constexpr std::int64_t kBandCells = std::int64_t(1) << 20;

bool finite(float v) { return std::isfinite(v); }

// A feature relative to the corner of the sample's lattice cell, and the
// value its cell gives CELL_VALUE.
struct feature {
    float x, y, z, value;
};

// The sample's lattice cell and its place inside it, [0, 1] per axis.
struct sample {
    float fx, fy, fz;
    int cx, cy, cz;
};

// Keys of the candidates found so far: a key is a distance under a
// monotonic map (squared for the Euclidean norms, the power sum for
// Minkowski's), so that the search needs no root.
struct nearest {
    float k1, k2;
    feature m;  // the feature of k1
};

HALDEN_HD inline float abs_of(float v) { return v < 0.0f ? -v : v; }

// The lattice cell of u and the place of u inside it. u - floor(u) is exact
// in double; only its rounding to float is left.
HALDEN_HD inline void split(double u, int& cell, float& place) {
    double t = double(std::int64_t(u));
    if (t > u) t -= 1.0;
    cell = int(t);
    place = float(u - t);
}

// The feature of the lattice cell (dx, dy, dz) away from the sample's cell
// (cx, cy, cz). Its coordinates wrap with the octave's period before they
// are hashed, so periodic copies share their features.
HALDEN_HD HALDEN_FORCE_INLINE feature feature_at(const octave& o, int cx, int cy, int cz, int dx, int dy, int dz,
                                                 float jitter) {
    int x = cx + dx, y = cy + dy;
    if (o.period > 0) {
        x = halden::core::wrap_index(x, o.period);
        y = halden::core::wrap_index(y, o.period);
    }
    const halden::hash3 h =
        halden::pcg3d({std::uint32_t(x) + o.sx, std::uint32_t(y) + o.sy, std::uint32_t(cz + dz) + o.sz});
    return {float(dx) + (0.5f + jitter * (halden::uniform_f(h.x) - 0.5f)),
            float(dy) + (0.5f + jitter * (halden::uniform_f(h.y) - 0.5f)),
            float(dz) + (0.5f + jitter * (halden::uniform_f(h.z) - 0.5f)),
            halden::uniform_f(halden::xorshift(h.x ^ h.y ^ h.z))};
}

template <int M>
HALDEN_HD inline float key3(float dx, float dy, float dz, float e) {
    if constexpr (M == kEuclidean || M == kSquared) {
        return (dx * dx + dy * dy) + dz * dz;
    } else if constexpr (M == kManhattan) {
        return (abs_of(dx) + abs_of(dy)) + abs_of(dz);
    } else if constexpr (M == kChebyshev) {
        return max_of(max_of(abs_of(dx), abs_of(dy)), abs_of(dz));
    } else {
        return (halden::pow_p(abs_of(dx), e) + halden::pow_p(abs_of(dy), e)) + halden::pow_p(abs_of(dz), e);
    }
}

// The key of a distance g along one axis: no norm of a vector is below any
// one of its components.
template <int M>
HALDEN_HD inline float key1(float g, float e) {
    if constexpr (M == kEuclidean || M == kSquared)
        return g * g;
    else if constexpr (M == kMinkowski)
        return halden::pow_p(g, e);
    else
        return g;
}

template <int M>
HALDEN_HD inline float distance(float key, float inverse_e) {
    if constexpr (M == kEuclidean)
        return sqrtf(key);
    else if constexpr (M == kMinkowski)
        return halden::pow_p(key, inverse_e);
    else
        return key;
}

// A lower bound of the distance along one axis from the sample to every
// feature outside the block of radius r around its cell: a cell's feature
// stays within half the jitter of the cell's centre.
HALDEN_HD HALDEN_FORCE_INLINE float block_gap(const sample& s, int r, float half_jitter) {
    const float lo = (float(r) + 0.5f) - half_jitter, hi = (float(r) + 1.5f) - half_jitter;
    float g = min_of(s.fx + lo, hi - s.fx);
    g = min_of(g, min_of(s.fy + lo, hi - s.fy));
    g = min_of(g, min_of(s.fz + lo, hi - s.fz));
    return g - kMargin;
}

// The distance along one axis from the sample's place f to the jitter box
// of the cell d away, lowered by the margin.
HALDEN_HD inline float box_gap(float f, int d, float half_jitter) {
    const float below = ((float(d) + 0.5f) - half_jitter) - f, above = f - ((float(d) + 0.5f) + half_jitter);
    return max_of(max_of(below, above) - kMargin, 0.0f);
}

// The cells of the shell of radius r (the block of radius r less the block of
// radius r - 1), always in the same order, so every sum and every tie comes
// out the same wherever the sample is evaluated.
template <class Visit>
HALDEN_HD inline void for_shell(int r, Visit& visit) {
    for (int dz = -r; dz <= r; ++dz)
        for (int dy = -r; dy <= r; ++dy) {
            const bool face = dz == -r || dz == r || dy == -r || dy == r;
            for (int dx = -r; dx <= r; dx += face ? 1 : 2 * r) visit(dx, dy, dz);
        }
}

// What a sample's search reads besides the sample itself.
struct context {
    const octave* o;
    float jitter, half_jitter, e, inverse_e;
};

// Widens the F1 (and F2, when `second`) search past the first block for as
// long as a feature outside the searched block could beat the candidates.
template <int M>
struct widen_visit {
    const context& c;
    const sample& s;
    nearest& n;
    bool second;
    HALDEN_HD void operator()(int dx, int dy, int dz) {
        const float target = second ? n.k2 : n.k1;
        const float bound = key3<M>(box_gap(s.fx, dx, c.half_jitter), box_gap(s.fy, dy, c.half_jitter),
                                    box_gap(s.fz, dz, c.half_jitter), c.e);
        if (bound > target) return;
        const feature f = feature_at(*c.o, s.cx, s.cy, s.cz, dx, dy, dz, c.jitter);
        const float k = key3<M>(f.x - s.fx, f.y - s.fy, f.z - s.fz, c.e);
        n.k2 = min_of(n.k2, max_of(n.k1, k));
        if (k < n.k1) {
            n.k1 = k;
            n.m = f;
        }
    }
};

template <int M>
HALDEN_HD inline void widen(const context& c, const sample& s, nearest& n, bool second) {
    widen_visit<M> visit{c, s, n, second};
    for (int r = 1; r < kMaxRadius; ++r) {
        const float target = second ? n.k2 : n.k1;
        if (!(target > key1<M>(block_gap(s, r, c.half_jitter), c.e))) return;
        for_shell(r + 1, visit);
    }
}

// The Euclidean distance from the sample to the plane halfway between the
// nearest feature m and another feature f; infinite for m itself.
HALDEN_HD inline float bisector(const feature& m, const feature& f, const sample& s) {
    const float ex = f.x - m.x, ey = f.y - m.y, ez = f.z - m.z;
    const float separation = (ex * ex + ey * ey) + ez * ez;
    if (!(separation > 0.0f)) return kInf;
    const float mx = (m.x + f.x) * 0.5f - s.fx, my = (m.y + f.y) * 0.5f - s.fy, mz = (m.z + f.z) * 0.5f - s.fz;
    return ((mx * ex + my * ey) + mz * ez) / sqrtf(separation);
}

struct edge_visit {
    const context& c;
    const sample& s;
    const feature& m;
    float f1, edge;
    HALDEN_HD void operator()(int dx, int dy, int dz) {
        // A feature at distance d from the sample has its bisector with m at
        // least (d - F1) / 2 away.
        const float bound = sqrtf(key3<kEuclidean>(box_gap(s.fx, dx, c.half_jitter), box_gap(s.fy, dy, c.half_jitter),
                                                   box_gap(s.fz, dz, c.half_jitter), c.e));
        if (0.5f * (bound - f1) >= edge) return;
        edge = min_of(edge, bisector(m, feature_at(*c.o, s.cx, s.cy, s.cz, dx, dy, dz, c.jitter), s));
    }
};

// Distance to the nearest cell border, exact: every feature whose bisector
// with the nearest could be closer than the best so far is visited.
HALDEN_HD inline float edge_distance(const context& c, const sample& s, const nearest& n, const feature* block) {
    edge_visit visit{c, s, n.m, sqrtf(n.k1), kInf};
    for (int k = 0; k < 27; ++k) visit.edge = min_of(visit.edge, bisector(n.m, block[k], s));
    for (int r = 1; r < kMaxRadius && visit.edge > 0.5f * (block_gap(s, r, c.half_jitter) - visit.f1); ++r)
        for_shell(r + 1, visit);
    return visit.edge;
}

template <int M>
struct smooth_visit {
    const context& c;
    const sample& s;
    float f1, sharpness, sum;
    HALDEN_HD void add(const feature& f) {
        const float d = distance<M>(key3<M>(f.x - s.fx, f.y - s.fy, f.z - s.fz, c.e), c.inverse_e);
        sum = sum + halden::exp2_p((f1 - d) * sharpness);
    }
    HALDEN_HD void operator()(int dx, int dy, int dz) {
        const float bound = distance<M>(key3<M>(box_gap(s.fx, dx, c.half_jitter), box_gap(s.fy, dy, c.half_jitter),
                                                box_gap(s.fz, dz, c.half_jitter), c.e),
                                        c.inverse_e);
        if (sharpness * (bound - f1) >= kSmoothCut) return;
        add(feature_at(*c.o, s.cx, s.cy, s.cz, dx, dy, dz, c.jitter));
    }
};

// F1 - s log2(sum of 2^-((d - F1) / s)): the nearest feature's term is 1, so
// the sum never underflows.
template <int M>
HALDEN_HD inline float smooth_f1(const context& c, const sample& s, const nearest& n, const feature* block,
                                 float smoothness, float sharpness) {
    smooth_visit<M> visit{c, s, distance<M>(n.k1, c.inverse_e), sharpness, 0.0f};
    for (int k = 0; k < 27; ++k) visit.add(block[k]);
    for (int r = 1; r < kMaxRadius && sharpness * (block_gap(s, r, c.half_jitter) - visit.f1) < kSmoothCut; ++r)
        for_shell(r + 1, visit);
    return visit.f1 - halden::log2_p(visit.sum) * smoothness;
}

template <int M>
HALDEN_HD inline float finish(const context& c, const plan& p, const sample& s, nearest n, const feature* block) {
    const bool second = p.result == HALDEN_CELLULAR3D_F2 || p.result == HALDEN_CELLULAR3D_F2_MINUS_F1 ||
                        p.result == HALDEN_CELLULAR3D_F1_TIMES_F2;
    widen<M>(c, s, n, second);
    switch (p.result) {
        case HALDEN_CELLULAR3D_F1:
            return distance<M>(n.k1, c.inverse_e);
        case HALDEN_CELLULAR3D_F2:
            return distance<M>(n.k2, c.inverse_e);
        case HALDEN_CELLULAR3D_F2_MINUS_F1:
            return distance<M>(n.k2, c.inverse_e) - distance<M>(n.k1, c.inverse_e);
        case HALDEN_CELLULAR3D_F1_TIMES_F2:
            return distance<M>(n.k1, c.inverse_e) * distance<M>(n.k2, c.inverse_e);
        case HALDEN_CELLULAR3D_CELL_VALUE:
            return n.m.value;
        case HALDEN_CELLULAR3D_EDGE:
            return edge_distance(c, s, n, block);
        default:
            return smooth_f1<M>(c, s, n, block, p.smoothness, p.sharpness);
    }
}

// The first block for a run of samples in one lattice cell: the candidates
// are the same for all of them, so the loop over samples has no branch and
// runs in vector lanes on the host. `Id` also tracks which candidate is
// nearest (first in block order on ties).
template <int M, bool Id>
HALDEN_HD HALDEN_FORCE_INLINE void block_pass(const float* bx, const float* by, const float* bz, const float* fx,
                                              float fy, const float* fz, float* k1, float* k2, int* best, int count,
                                              float e) {
    for (int i = 0; i < count; ++i) {
        const float sx = fx[i], sz = fz[i];
        float a = kInf, b = kInf;
        int m = 0;
        CELLULAR_UNROLL_ALL
        for (int k = 0; k < 27; ++k) {
            const float d = key3<M>(bx[k] - sx, by[k] - fy, bz[k] - sz, e);
            b = min_of(b, max_of(a, d));
            if constexpr (Id) m = d < a ? k : m;
            a = min_of(a, d);
        }
        k1[i] = a;
        k2[i] = b;
        if constexpr (Id) best[i] = m;
    }
}

// Samples x0 .. x0 + count - 1 of row y, every octave, into `out`.
template <int M, bool Id>
HALDEN_HD inline void render_tile(const plan& p, const float* z, float* out, int w, int y, int x0, int count) {
    float sum[max_tile], fx[max_tile], fz[max_tile], k1[max_tile], k2[max_tile];
    int ix[max_tile], iz[max_tile], best[max_tile];
    feature block[27];
    float bx[27], by[27], bz[27];
    const std::size_t row = std::size_t(y) * std::size_t(w);
    for (int i = 0; i < count; ++i) sum[i] = 0.0f;
    // Positions come from whole cell indices wrapped to the period, never
    // from a float grown large, so that periodic cells give the same bits.
    const int yw = p.grid_period > 0 ? y % p.grid_period : y;
    for (int oi = 0; oi < p.count; ++oi) {
        const octave& o = p.octaves[oi];
        const context c{&o, p.jitter, 0.5f * p.jitter, p.exponent, p.inverse_exponent};
        int iy;
        float fy;
        split((double(yw) + 0.5) * o.step, iy, fy);
        for (int i = 0; i < count; ++i) {
            const int x = x0 + i, xw = p.grid_period > 0 ? x % p.grid_period : x;
            split((double(xw) + 0.5) * o.step, ix[i], fx[i]);
            const float zv = z ? z[row + std::size_t(x)] : p.z;
            split((double(zv) * p.z_scale) * o.step, iz[i], fz[i]);
        }
        for (int i0 = 0; i0 < count;) {
            int i1 = i0 + 1;
            while (i1 < count && ix[i1] == ix[i0] && iz[i1] == iz[i0]) ++i1;
            for (int k = 0; k < 27; ++k) {
                block[k] = feature_at(o, ix[i0], iy, iz[i0], k % 3 - 1, (k / 3) % 3 - 1, k / 9 - 1, p.jitter);
                bx[k] = block[k].x;
                by[k] = block[k].y;
                bz[k] = block[k].z;
            }
            block_pass<M, Id>(bx, by, bz, fx + i0, fy, fz + i0, k1 + i0, k2 + i0, best + i0, i1 - i0, p.exponent);
            for (int i = i0; i < i1; ++i) {
                const sample s{fx[i], fy, fz[i], ix[i0], iy, iz[i0]};
                const nearest n{k1[i], k2[i], Id ? block[best[i]] : feature{0.0f, 0.0f, 0.0f, 0.0f}};
                sum[i] = sum[i] + o.amplitude * finish<M>(c, p, s, n, block);
            }
            i0 = i1;
        }
    }
    for (int i = 0; i < count; ++i) out[row + std::size_t(x0 + i)] = sum[i] * p.scale + p.offset;
}

// The largest step of any octave: lattice units per grid cell.
double widest_step(const plan& p) {
    double s = 0.0;
    for (int o = 0; o < p.count; ++o) s = std::max(s, p.octaves[o].step);
    return s;
}

}  // namespace

std::string check(const Parameters& p) {
    if (std::string problem = halden::core::check_grid_size(p.width, p.height); !problem.empty()) return problem;
    if (!(p.frequency > 0.0f && finite(p.frequency))) return "frequency must be positive and finite" + got(p.frequency);
    if (!finite(p.z)) return "z must be finite" + got(p.z);
    if (!finite(p.z_scale)) return "z_scale must be finite" + got(p.z_scale);
    if (!(p.jitter >= 0.0f && p.jitter <= 1.0f)) return "jitter must lie in [0, 1]" + got(p.jitter);
    if (p.metric < kEuclidean || p.metric > kMinkowski)
        return "metric must be 0 (Euclidean) to 4 (Minkowski)" + got(std::int64_t(p.metric));
    if (p.metric == kMinkowski && !(p.exponent >= 1.0f && p.exponent <= 64.0f))
        return "exponent must lie in [1, 64] for the Minkowski metric" + got(p.exponent);
    if (p.result < HALDEN_CELLULAR3D_F1 || p.result > HALDEN_CELLULAR3D_SMOOTH_F1)
        return "result must be 0 (F1) to 6 (smooth F1)" + got(std::int64_t(p.result));
    if (p.result == HALDEN_CELLULAR3D_EDGE && p.metric != kEuclidean)
        return "metric must be 0 (Euclidean) for the edge result: cell borders are planes only there" +
               got(std::int64_t(p.metric));
    if (p.result == HALDEN_CELLULAR3D_SMOOTH_F1 && !(p.smoothness >= 1e-6f && p.smoothness <= 0.125f))
        return "smoothness must lie in [1e-6, 0.125] for the smooth F1 result" + got(p.smoothness);
    if (p.octaves < 1 || p.octaves > max_octaves)
        return "octaves must lie in [1, " + std::to_string(max_octaves) + "]" + got(std::int64_t(p.octaves));
    if (!(p.lacunarity > 0.0f && p.lacunarity <= 16.0f)) return "lacunarity must lie in (0, 16]" + got(p.lacunarity);
    if (!(p.gain >= -16.0f && p.gain <= 16.0f)) return "gain must lie in [-16, 16]" + got(p.gain);
    if (!finite(p.scale)) return "scale must be finite" + got(p.scale);
    if (!finite(p.offset)) return "offset must be finite" + got(p.offset);
    const double widest = double(p.frequency) * std::pow(double(p.lacunarity), p.octaves - 1);
    if (!(widest <= 0x1p24))
        return "frequency x lacunarity^(octaves - 1) must not pass 2^24 features" + got(float(widest));
    if (p.period < 0 || p.period > (1 << 24))
        return "period must be 0 (none) or 1 to 2^24 features" + got(std::int64_t(p.period));
    if (p.period > 0) {
        if (p.lacunarity != std::floor(p.lacunarity))
            return "lacunarity must be a whole number with a period, so that every octave tiles" + got(p.lacunarity);
        if (!(double(p.period) * std::pow(double(p.lacunarity), p.octaves - 1) <= 0x1p24))
            return "period x lacunarity^(octaves - 1) must not pass 2^24 features" + got(std::int64_t(p.period));
        const double cells = double(p.period) * double(p.width) / double(p.frequency);
        const double whole = std::round(cells);
        if (!(whole >= 1.0 && whole <= 0x1p31 - 1.0 && std::abs(cells - whole) <= 1e-6 * whole))
            return "period x width / frequency must be a whole number of cells, the tile's size (got " +
                   std::to_string(cells) + ")";
    }
    const plan pl = make_plan(p);
    const double step = widest_step(pl);
    if (!(step * double(std::max(p.width, p.height)) < 0x1p24))
        return "frequency puts more than 2^24 features along the grid's longer side" + got(p.frequency);
    if (!(std::abs(double(p.z) * double(p.z_scale)) * step < max_lattice))
        return "z x z_scale reaches past 2^30 lattice cells" + got(p.z * p.z_scale);
    return {};
}

std::string check_z(const Parameters& p, const float* h_z) {
    const std::size_t n = std::size_t(p.width) * std::size_t(p.height);
    const double reach = std::abs(double(p.z_scale)) * widest_step(make_plan(p));
    for (std::size_t i = 0; i < n; ++i) {
        if (!finite(h_z[i])) return "z grid must be finite (cell " + std::to_string(i) + " is not)";
        if (!(std::abs(double(h_z[i])) * reach < max_lattice))
            return "z grid x z_scale reaches past 2^30 lattice cells at cell " + std::to_string(i) + got(h_z[i]);
    }
    return {};
}

std::uint64_t memory_estimate(const Parameters& p, bool with_z) {
    return (with_z ? 8u : 4u) * std::uint64_t(p.width) * std::uint64_t(p.height);
}

plan make_plan(const Parameters& p) {
    plan pl{};
    pl.count = std::clamp(p.octaves, 1, max_octaves);
    pl.metric = p.metric;
    pl.result = p.result;
    pl.jitter = p.jitter;
    pl.exponent = p.exponent;
    pl.inverse_exponent = p.exponent != 0.0f ? 1.0f / p.exponent : 1.0f;
    pl.smoothness = p.smoothness;
    pl.sharpness = p.smoothness > 0.0f ? 1.0f / p.smoothness : 0.0f;
    pl.z = p.z;
    pl.z_scale = double(p.z_scale);
    pl.scale = p.scale;
    pl.offset = p.offset;
    pl.grid_period = p.period > 0 ? int(std::llround(double(p.period) * double(p.width) / double(p.frequency))) : 0;
    float amplitude = 1.0f;
    double multiple = 1.0;
    for (int o = 0; o < pl.count; ++o) {
        octave& oc = pl.octaves[o];
        if (pl.grid_period > 0) {
            oc.period = std::int32_t(double(p.period) * multiple);
            oc.step = double(oc.period) / double(pl.grid_period);
        } else {
            oc.period = 0;
            oc.step = double(p.frequency) * multiple / double(p.width);
        }
        // Each octave reads the hash at its own offset in the lattice.
        const halden::hash3 s = halden::pcg3d({p.seed, std::uint32_t(o), 0x9E3779B9u});
        oc.sx = s.x;
        oc.sy = s.y;
        oc.sz = s.z;
        oc.amplitude = amplitude;
        amplitude *= p.gain;
        multiple *= double(p.lacunarity);
    }
    return pl;
}

Cellular3D::Cellular3D(queue& q, float* h_out, const float* h_z, const Parameters& parameters,
                       const halden_callbacks* callbacks)
    : m_queue(q), m_parameters(parameters), m_out(h_out), m_callbacks(halden::complete(callbacks)), m_z(nullptr) {
    const std::string problem = check(m_parameters);
    if (!problem.empty()) throw std::invalid_argument(problem);
    m_plan = make_plan(m_parameters);
    const int w = m_parameters.width, h = m_parameters.height;
    m_result = halden::core::grid(q, halden::core::grid_extent(w, h), "cellular noise");
    if (q.get_device().get_backend() == halden::compute::backend::native) {
        m_z = h_z;
    } else {
        m_z_copy = halden::core::upload_optional(q, h_z, w, h, "z grid");
        m_z = m_z_copy.get();
    }
}

Cellular3D::~Cellular3D() {
    try {
        m_queue.synchronize();
    } catch (...) {
    }
}

void Cellular3D::render_band(int row0, int rows) {
    const plan p = m_plan;
    const float* z = m_z;
    float* out = m_result.get();
    const int w = m_parameters.width;
    const int tile = m_queue.get_device().get_backend() == halden::compute::backend::native ? max_tile : kDeviceTile;
    const int tiles = (w + tile - 1) / tile;
    // Tiles are work items of a 1-D launch: a tile's body is a loop of its
    // own, which the host compiler vectorises inside, not across tiles.
    // The metric and whether the nearest feature itself is needed pick the
    // instantiation, so that neither is tested inside the loops.
    const bool id = p.result == HALDEN_CELLULAR3D_CELL_VALUE || p.result == HALDEN_CELLULAR3D_EDGE;
    const int variant = p.metric * 2 + (id ? 1 : 0);
    m_queue.parallel_for(
        range<1>{std::size_t(rows) * std::size_t(tiles)}, HALDEN_KERNEL(std::size_t k) {
            const int y = row0 + int(k / std::size_t(tiles)), x0 = int(k % std::size_t(tiles)) * tile;
            const int count = w - x0 < tile ? w - x0 : tile;
            switch (variant) {
                case 0:
                    render_tile<kEuclidean, false>(p, z, out, w, y, x0, count);
                    break;
                case 1:
                    render_tile<kEuclidean, true>(p, z, out, w, y, x0, count);
                    break;
                case 2:
                    render_tile<kSquared, false>(p, z, out, w, y, x0, count);
                    break;
                case 3:
                    render_tile<kSquared, true>(p, z, out, w, y, x0, count);
                    break;
                case 4:
                    render_tile<kManhattan, false>(p, z, out, w, y, x0, count);
                    break;
                case 5:
                    render_tile<kManhattan, true>(p, z, out, w, y, x0, count);
                    break;
                case 6:
                    render_tile<kChebyshev, false>(p, z, out, w, y, x0, count);
                    break;
                case 7:
                    render_tile<kChebyshev, true>(p, z, out, w, y, x0, count);
                    break;
                case 8:
                    render_tile<kMinkowski, false>(p, z, out, w, y, x0, count);
                    break;
                default:
                    render_tile<kMinkowski, true>(p, z, out, w, y, x0, count);
                    break;
            }
        });
}

bool Cellular3D::render() {
    const int w = m_parameters.width, h = m_parameters.height;
    const int band = int(std::max<std::int64_t>(1, kBandCells / w));
    for (int row0 = 0; row0 < h; row0 += band) {
        const int rows = std::min(band, h - row0);
        render_band(row0, rows);
        m_queue.synchronize();
        const float percent = float(100.0 * double(row0 + rows) / double(h));
        if (m_callbacks.progress(percent) != 0 || m_callbacks.cancel() != 0) return false;
    }
    // A failed device leaves the caller's grid as it was.
    if (m_queue.has_pending_errors()) return true;
    m_result.copy_to_host(m_out);
    m_queue.synchronize();
    return true;
}

}  // namespace cellular3d
