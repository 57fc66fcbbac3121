// SPDX-License-Identifier: Apache-2.0
#include "modules/mesh_rasterizer/point_cloud.hpp"

#include <cmath>
#include <stdexcept>
#include <vector>

#include "compute/atomic.hpp"
#include "core/bits.hpp"
#include "core/checks.hpp"
#include "core/math.hpp"
#include "core/resampling.hpp"
#include "device/messages.hpp"
#include "modules/mesh_rasterizer/mesh_rasterizer.hpp"

namespace mesh_rasterizer {

using halden::ordered_key;
using halden::compute::queue;
using halden::compute::range;
using halden::compute::usm_ptr;
using halden::core::got;

namespace {

bool finite3(const float* v) { return std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]); }

bool needs_order(int mode) {
    return mode == HALDEN_POINTS_MEAN || mode == HALDEN_POINTS_IDW || mode == HALDEN_POINTS_STDEV;
}

bool fills(const PointParameters& p) { return p.fill != HALDEN_POINTS_FILL_NONE && p.mode != HALDEN_POINTS_COUNT; }

// Points one radix-sort work item counts and scatters in order. Any size
// gives the same sort; the host takes few long runs, a GPU many short ones.
std::uint32_t radix_chunk(const queue& q) {
    return q.get_device().get_backend() == halden::compute::backend::native ? 1u << 16 : 1u << 10;
}
constexpr int radix_buckets = 257;  // 256 digits, then the points outside the grid

HALDEN_HD inline int radix_digit(std::uint32_t cell, int shift) {
    return cell == no_cell ? 256 : int((cell >> shift) & 255u);
}

// The order of points within a cell: by the keys of z, x and y. Two points
// equal in all three are interchangeable, so the order fixes every sum.
HALDEN_HD inline bool before(const cloud_point& a, const cloud_point& b) {
    const std::uint32_t az = ordered_key(a.z), bz = ordered_key(b.z);
    if (az != bz) return az < bz;
    const std::uint32_t ax = ordered_key(a.x), bx = ordered_key(b.x);
    if (ax != bx) return ax < bx;
    return ordered_key(a.y) < ordered_key(b.y);
}

HALDEN_HD inline void sift_down(cloud_point* p, std::uint32_t root, std::uint32_t n) {
    for (;;) {
        std::uint32_t child = 2 * root + 1;
        if (child >= n) return;
        if (child + 1 < n && before(p[child], p[child + 1])) ++child;
        if (!before(p[root], p[child])) return;
        const cloud_point t = p[root];
        p[root] = p[child];
        p[child] = t;
        root = child;
    }
}

// Insertion sort for the short runs nearly every cell has; heap sort (no
// recursion, no scratch) when many points share a cell.
HALDEN_HD inline void sort_run(cloud_point* p, std::uint32_t n) {
    if (n <= 16) {
        for (std::uint32_t i = 1; i < n; ++i) {
            const cloud_point t = p[i];
            std::uint32_t j = i;
            for (; j > 0 && before(t, p[j - 1]); --j) p[j] = p[j - 1];
            p[j] = t;
        }
        return;
    }
    for (std::uint32_t i = n / 2; i-- > 0;) sift_down(p, i, n);
    for (std::uint32_t end = n - 1; end > 0; --end) {
        const cloud_point t = p[0];
        p[0] = p[end];
        p[end] = t;
        sift_down(p, 0, end);
    }
}

HALDEN_HD inline float clamp_to(float v, float lo, float hi) { return v < lo ? lo : (v > hi ? hi : v); }

}  // namespace

std::string check(const Points* points, const PointParameters& pp) {
    if (!points) return "null points record";
    if (points->count == 0) return "no points (count is 0)";
    if (!points->points) return "null point array";
    const Parameters& p = pp.transform;
    if (p.supersample) return "transform.supersample must be 0 for points" + got(int(p.supersample));
    if (p.width < 1 || p.height < 1 || p.width > max_side || p.height > max_side)
        return "transform.width and height must lie in [1, " + std::to_string(max_side) + "] (got " +
               std::to_string(p.width) + " x " + std::to_string(p.height) + ")";
    if (!finite3(p.centre) || !finite3(p.offset) || !std::isfinite(p.scale) || !std::isfinite(p.shift))
        return "transform.centre, scale, offset and shift must be finite";
    if (!std::isfinite(p.depth_divisor) || p.depth_divisor == 0.0f)
        return "transform.depth_divisor must be finite and not 0";
    if (pp.mode < HALDEN_POINTS_MAX || pp.mode > HALDEN_POINTS_STDEV)
        return "mode must be a halden_point_mode, 0 to 6" + got(pp.mode);
    if (pp.fill < HALDEN_POINTS_FILL_NONE || pp.fill > HALDEN_POINTS_FILL_INNER)
        return "fill must be a halden_point_fill, 0 to 2" + got(pp.fill);
    if (!(pp.radius >= 0.0f && pp.radius <= max_point_radius))
        return "radius must lie in [0, 256] cells" + got(double(pp.radius));
    if (pp.mode == HALDEN_POINTS_IDW && !(pp.power > 0.0f && pp.power <= max_point_power))
        return "power must lie in (0, 16]" + got(double(pp.power));
    if (!(pp.max_fill >= 0.0f && std::isfinite(pp.max_fill)))
        return "max_fill must be finite and at least 0" + got(double(pp.max_fill));
    for (std::uint64_t i = 0; i < points->count; ++i)
        if (!finite3(points->points + 3 * i)) return "point " + std::to_string(i) + " has a non-finite coordinate";
    return {};
}

std::uint64_t memory_estimate(const Points& points, const PointParameters& p) {
    const std::uint64_t n = points.count, cells = std::uint64_t(p.transform.width) * std::uint64_t(p.transform.height);
    // A device copy of the input, two sorted arrays and the radix counts.
    std::uint64_t bytes = 12 * n + 2 * sizeof(cloud_point) * n + radix_buckets * 4 * (n / 1024 + 1);
    // Cell ranges, values and counts.
    bytes += 16 * cells;
    if (fills(p)) {
        bytes += 4 * cells + 4 * cells;  // level-0 weights, the coarser levels
        if (p.max_fill > 0.0f) bytes += 12 * cells;
        if (p.fill == HALDEN_POINTS_FILL_INNER) bytes += 4 * cells;
    }
    return bytes;
}

PointCloud::PointCloud(queue& q, const Points& points, const PointParameters& parameters,
                       const halden_callbacks* callbacks)
    : m_queue(q),
      m_parameters(parameters),
      m_callbacks(halden::complete(callbacks)),
      m_host_points(points.points),
      m_count(points.count),
      m_width(parameters.transform.width),
      m_height(parameters.transform.height),
      m_points(q, {std::size_t(points.count)}, "points"),
      m_spare(q, {std::size_t(points.count)}, "sorted points"),
      m_heights(q, halden::core::grid_extent(m_width, m_height), "point heights"),
      m_counts(q, halden::core::grid_extent(m_width, m_height), "point counts") {}

PointCloud::~PointCloud() {
    try {
        m_queue.synchronize();
    } catch (...) {
    }
}

bool PointCloud::render() {
    process_points();
    sort_points();
    m_queue.synchronize();
    if (m_callbacks.cancel() != 0) return false;
    order_cells();
    gather();
    if (fills(m_parameters)) {
        m_queue.synchronize();
        if (m_callbacks.cancel() != 0) return false;
        fill_holes();
    }
    m_queue.synchronize();
    return m_callbacks.cancel() == 0;
}

void PointCloud::process_points() {
    const Parameters& p = m_parameters.transform;
    const float cx = p.centre[0], cy = p.centre[1], cz = p.centre[2];
    const float s = p.scale, ox = p.offset[0], oy = p.offset[1], oz = p.offset[2], dz = p.depth_divisor;
    const float shift = p.shift;
    const int w = m_width, h = m_height;
    const halden::compute::input_view<float, 1> in(m_queue, m_host_points, {3 * std::size_t(m_count)}, "input points");
    const float* d_in = in.get();
    cloud_point* d_out = m_points.get();
    // The arithmetic of MeshRasterizer::process_vertices, step for step, so
    // that points and meshes given one record land on the same cells (its
    // second pass multiplies by 1 without supersampling, which is exact).
    m_queue.parallel_for(
        range<1>{std::size_t(m_count)}, HALDEN_KERNEL(std::size_t i) {
            const float wx = d_in[3 * i] - cx, wy = d_in[3 * i + 1] - cy, wz = d_in[3 * i + 2] - cz;
            const float x1 = s * wx + ox, y1 = s * wy + oy, z1 = (s * wz + oz) / dz;
            const float x = x1 - shift, y = y1 - shift, z = z1 - shift;
            std::uint32_t cell = no_cell;
            // A height that overflowed would poison every sum it joins.
            if (x >= 0.0f && x < float(w) && y >= 0.0f && y < float(h) && z - z == 0.0f)
                cell = std::uint32_t(int(y)) * std::uint32_t(w) + std::uint32_t(int(x));
            d_out[i] = {x, y, z, cell};
        });
    m_queue.synchronize();
}

std::uint32_t PointCloud::sort_points() {
    const std::uint64_t cells = std::uint64_t(m_width) * std::uint64_t(m_height);
    int bits = 0;
    while (bits < 32 && ((cells - 1) >> bits) != 0) ++bits;
    // One pass at least: the first pass also drops the points outside.
    const int passes = bits == 0 ? 1 : (bits + 7) / 8;
    const std::uint32_t chunk = radix_chunk(m_queue);
    std::uint32_t n = m_count;
    for (int pass = 0; pass < passes && n > 0; ++pass) {
        const std::size_t chunks = (std::size_t(n) + chunk - 1) / chunk;
        usm_ptr<std::uint32_t, 1> offsets(m_queue, {chunks * radix_buckets}, "radix offsets");
        std::uint32_t* d_offsets = offsets.get();
        const cloud_point* src = m_points.get();
        cloud_point* dst = m_spare.get();
        const int shift = 8 * pass;
        const std::size_t total = n;
        m_queue.parallel_for(
            range<1>{chunks}, HALDEN_KERNEL(std::size_t c) {
                std::uint32_t counted[radix_buckets];
                for (int d = 0; d < radix_buckets; ++d) counted[d] = 0;
                const std::size_t first = c * chunk, last = first + chunk < total ? first + chunk : total;
                for (std::size_t i = first; i < last; ++i) ++counted[radix_digit(src[i].cell, shift)];
                for (int d = 0; d < radix_buckets; ++d) d_offsets[std::size_t(d) * chunks + c] = counted[d];
            });
        // Digit-major exclusive prefix: chunk c's points of digit d follow
        // those of every earlier chunk, which keeps the sort stable.
        std::vector<std::uint32_t> h(chunks * radix_buckets);
        offsets.copy_to_host(h.data());
        m_queue.synchronize();
        std::uint32_t running = 0;
        for (std::uint32_t& v : h) {
            const std::uint32_t here = v;
            v = running;
            running += here;
        }
        const std::uint32_t kept = h[256 * chunks];
        offsets.copy_from_host(h.data());
        m_queue.parallel_for(
            range<1>{chunks}, HALDEN_KERNEL(std::size_t c) {
                std::uint32_t next[256];
                for (int d = 0; d < 256; ++d) next[d] = d_offsets[std::size_t(d) * chunks + c];
                const std::size_t first = c * chunk, last = first + chunk < total ? first + chunk : total;
                for (std::size_t i = first; i < last; ++i) {
                    const int d = radix_digit(src[i].cell, shift);
                    if (d < 256) dst[next[d]++] = src[i];
                }
            });
        m_queue.synchronize();
        m_points.swap(m_spare);
        n = kept;
    }
    m_kept = n;
    return n;
}

void PointCloud::order_cells() {
    const std::size_t cells = std::size_t(m_width) * std::size_t(m_height);
    m_begin = usm_ptr<std::uint32_t, 1>(m_queue, {cells}, "cell starts");
    m_end = usm_ptr<std::uint32_t, 1>(m_queue, {cells}, "cell ends");
    std::uint32_t* d_begin = m_begin.get();
    std::uint32_t* d_end = m_end.get();
    m_queue.parallel_for(
        range<1>{cells}, HALDEN_KERNEL(std::size_t i) {
            d_begin[i] = 0;
            d_end[i] = 0;
        });
    cloud_point* pts = m_points.get();
    const std::uint32_t n = m_kept;
    m_queue.parallel_for(
        range<1>{std::size_t(n)}, HALDEN_KERNEL(std::size_t i) {
            const std::uint32_t c = pts[i].cell;
            if (i == 0 || pts[i - 1].cell != c) d_begin[c] = std::uint32_t(i);
            if (i + 1 == n || pts[i + 1].cell != c) d_end[c] = std::uint32_t(i + 1);
        });
    if (!needs_order(m_parameters.mode)) return;
    m_queue.parallel_for(
        range<1>{cells}, HALDEN_KERNEL(std::size_t i) {
            const std::uint32_t b = d_begin[i], e = d_end[i];
            if (e - b > 1) sort_run(pts + b, e - b);
        });
}

namespace detail {

// What a cell's gather reads: the sorted points, the cell ranges and the
// window of cells whose points may lie within the radius.
struct gather_input {
    const cloud_point* points;
    const std::uint32_t* begin;
    const std::uint32_t* end;
    int width, height;
    int reach;     // cells on each side of the window
    float limit2;  // squared radius; with radius 0 every point of the cell counts
    bool circle;   // test the radius
    float half_power;
    bool square;  // power 2: 1 / d^2 without pow
};

// Calls acc.add(point, d2) for every gathered point of cell (row, col), cells
// of the window row by row, each cell's points in their sorted order.
template <class Acc>
HALDEN_HD void visit(const gather_input& in, int row, int col, Acc& acc) {
    const float cx = float(col) + 0.5f, cy = float(row) + 0.5f;
    const int y0 = row - in.reach < 0 ? 0 : row - in.reach;
    const int y1 = row + in.reach > in.height - 1 ? in.height - 1 : row + in.reach;
    const int x0 = col - in.reach < 0 ? 0 : col - in.reach;
    const int x1 = col + in.reach > in.width - 1 ? in.width - 1 : col + in.reach;
    for (int y = y0; y <= y1; ++y)
        for (int x = x0; x <= x1; ++x) {
            const std::size_t c = std::size_t(y) * std::size_t(in.width) + std::size_t(x);
            const std::uint32_t e = in.end[c];
            for (std::uint32_t k = in.begin[c]; k < e; ++k) {
                const cloud_point p = in.points[k];
                const float dx = p.x - cx, dy = p.y - cy;
                const float d2 = dx * dx + dy * dy;
                if (in.circle && !(d2 <= in.limit2)) continue;
                acc.add(p, d2);
            }
        }
}

// Greatest (or least) z by ordered key, so that -0 and +0 settle alike in
// any order.
template <bool Greatest>
struct extreme_acc {
    std::uint32_t n = 0, key = 0;
    HALDEN_HD void add(const cloud_point& p, float) {
        const std::uint32_t k = ordered_key(p.z);
        if (n == 0 || (Greatest ? k > key : k < key)) key = k;
        ++n;
    }
    HALDEN_HD float value() const { return halden::key_float(key); }
};

struct mean_acc {
    std::uint32_t n = 0;
    double sum = 0.0;
    HALDEN_HD void add(const cloud_point& p, float) {
        sum += double(p.z);
        ++n;
    }
    HALDEN_HD float value() const { return float(sum / double(n)); }
};

struct deviation_acc {
    double mean;
    double sum = 0.0;
    HALDEN_HD void add(const cloud_point& p, float) {
        const double d = double(p.z) - mean;
        sum += d * d;
    }
};

// Points on the centre (or so near that their weight overflows) decide
// alone, by their mean.
struct idw_acc {
    float half_power;
    bool square;
    std::uint32_t n = 0, hits = 0;
    double weights = 0.0, weighted = 0.0, hit_sum = 0.0;
    HALDEN_HD void add(const cloud_point& p, float d2) {
        ++n;
        const float dp = square ? d2 : halden::pow_p(d2, half_power);
        if (!(dp > 0.0f)) {
            ++hits;
            hit_sum += double(p.z);
            return;
        }
        const double wgt = 1.0 / double(dp);
        weights += wgt;
        weighted += wgt * double(p.z);
    }
    HALDEN_HD float value() const { return hits > 0 ? float(hit_sum / double(hits)) : float(weighted / weights); }
};

// The nearest point; of equally near ones the first in the points' order,
// which does not depend on the input order.
struct nearest_acc {
    std::uint32_t n = 0;
    float best = 0.0f;
    cloud_point at{};
    HALDEN_HD void add(const cloud_point& p, float d2) {
        if (n == 0 || d2 < best || (d2 == best && before(p, at))) {
            best = d2;
            at = p;
        }
        ++n;
    }
    HALDEN_HD float value() const { return at.z; }
};

struct count_acc {
    std::uint32_t n = 0;
    HALDEN_HD void add(const cloud_point&, float) { ++n; }
};

template <int Mode>
void gather_cells(queue& q, const gather_input in, float* heights, float* counts, float empty) {
    q.parallel_for(
        halden::core::grid_extent(in.width, in.height), HALDEN_KERNEL(std::size_t r, std::size_t c) {
            const int row = int(r), col = int(c);
            const std::size_t i = r * std::size_t(in.width) + c;
            std::uint32_t n = 0;
            float v = empty;
            if constexpr (Mode == HALDEN_POINTS_MAX || Mode == HALDEN_POINTS_MIN) {
                extreme_acc<Mode == HALDEN_POINTS_MAX> acc;
                visit(in, row, col, acc);
                n = acc.n;
                if (n > 0) v = acc.value();
            } else if constexpr (Mode == HALDEN_POINTS_MEAN) {
                mean_acc acc;
                visit(in, row, col, acc);
                n = acc.n;
                if (n > 0) v = acc.value();
            } else if constexpr (Mode == HALDEN_POINTS_STDEV) {
                // Two passes: the mean first, then the squared deviations from it.
                mean_acc acc;
                visit(in, row, col, acc);
                n = acc.n;
                if (n > 0) {
                    deviation_acc dev{acc.sum / double(n)};
                    visit(in, row, col, dev);
                    v = float(sqrt(dev.sum / double(n)));
                }
            } else if constexpr (Mode == HALDEN_POINTS_IDW) {
                idw_acc acc{in.half_power, in.square};
                visit(in, row, col, acc);
                n = acc.n;
                if (n > 0) v = acc.value();
            } else if constexpr (Mode == HALDEN_POINTS_NEAREST) {
                nearest_acc acc;
                visit(in, row, col, acc);
                n = acc.n;
                if (n > 0) v = acc.value();
            } else {
                count_acc acc;
                visit(in, row, col, acc);
                n = acc.n;
                v = float(n);
            }
            heights[i] = v;
            counts[i] = float(n);
        });
}

}  // namespace detail

void PointCloud::gather() {
    const PointParameters& p = m_parameters;
    detail::gather_input in{m_points.get(), m_begin.get(), m_end.get(),    m_width,        m_height, 0,
                            0.0f,           false,         0.5f * p.power, p.power == 2.0f};
    if (p.radius > 0.0f) {
        // A point of cell x + k lies at least k - 0.5 cells from the centre
        // of cell x, so the window reaches floor(radius + 0.5) cells.
        in.reach = int(p.radius + 0.5f);
        in.limit2 = p.radius * p.radius;
        in.circle = true;
    }
    float* h = m_heights.get();
    float* n = m_counts.get();
    const float e = p.empty;
    switch (p.mode) {
        case HALDEN_POINTS_MAX:
            detail::gather_cells<HALDEN_POINTS_MAX>(m_queue, in, h, n, e);
            break;
        case HALDEN_POINTS_MIN:
            detail::gather_cells<HALDEN_POINTS_MIN>(m_queue, in, h, n, e);
            break;
        case HALDEN_POINTS_MEAN:
            detail::gather_cells<HALDEN_POINTS_MEAN>(m_queue, in, h, n, e);
            break;
        case HALDEN_POINTS_IDW:
            detail::gather_cells<HALDEN_POINTS_IDW>(m_queue, in, h, n, e);
            break;
        case HALDEN_POINTS_NEAREST:
            detail::gather_cells<HALDEN_POINTS_NEAREST>(m_queue, in, h, n, e);
            break;
        case HALDEN_POINTS_COUNT:
            detail::gather_cells<HALDEN_POINTS_COUNT>(m_queue, in, h, n, e);
            break;
        case HALDEN_POINTS_STDEV:
            detail::gather_cells<HALDEN_POINTS_STDEV>(m_queue, in, h, n, e);
            break;
        default:
            throw std::invalid_argument("unknown point mode");
    }
}

namespace {

// One level of the pull-push pyramid: values and their weights in [0, 1].
struct level {
    grid values, weights;
    int w, h;
};

}  // namespace

namespace detail {

// Coarse cell (Y, X) from the fine cells under the magic filter's 4 x 4
// footprint (taps 1 3 3 1 per axis, edges replicated, as
// resampling::downsample_magic), each weighted by its own weight. The sum
// of weights is scaled by 4 and capped at 1, so a coarse cell whose
// footprint is a quarter covered counts as fully known (Gortler et al.'s
// pull). The weighted mean is clamped to the range of the values that
// entered it: a convex combination may round past that range, and a
// constant field must stay exactly constant.
void pull(queue& q, const float* fv, const float* fw, int w, int h, float* cv, float* cw, int wo, int ho) {
    q.parallel_for(
        halden::core::grid_extent(wo, ho), HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const float taps[4] = {1.0f, 3.0f, 3.0f, 1.0f};
            double total = 0.0, sum = 0.0;
            float lo = 0.0f, hi = 0.0f;
            bool any = false;
            for (int i = 0; i < 4; ++i) {
                const int y = halden::core::clamp_index(2 * int(row) - 1 + i, 0, h - 1);
                for (int j = 0; j < 4; ++j) {
                    const int x = halden::core::clamp_index(2 * int(col) - 1 + j, 0, w - 1);
                    const float k = taps[i] * taps[j] * fw[y * w + x];
                    if (!(k > 0.0f)) continue;
                    const float v = fv[y * w + x];
                    total += double(k);
                    sum += double(k) * double(v);
                    lo = any ? halden::min_of(lo, v) : v;
                    hi = any ? halden::max_of(hi, v) : v;
                    any = true;
                }
            }
            const std::size_t o = row * std::size_t(wo) + col;
            if (!any) {
                cv[o] = 0.0f;
                cw[o] = 0.0f;
                return;
            }
            const float weight = float(total) * 0.0625f;
            cw[o] = weight < 1.0f ? weight : 1.0f;
            cv[o] = clamp_to(float(sum / total), lo, hi);
        });
}

// Fine cells take the magic upsampling of the filled coarse level where
// their own weight falls short of 1: all of it where they are empty, a blend
// where a coarser pull left them partly known. The upsampled value is
// clamped to its four parents' range for the same reason as in pull.
void push(queue& q, const float* cv, int wo, int ho, float* fv, const float* fw, int w, int h) {
    q.parallel_for(
        halden::core::grid_extent(w, h), HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const std::size_t i = row * std::size_t(w) + col;
            const float own = fw[i];
            if (own >= 1.0f) return;
            const int y = int(row), x = int(col);
            const int px = x / 2, py = y / 2;
            const int nx = halden::core::clamp_index(px - 1 + 2 * (x & 1), 0, wo - 1);
            const int ny = halden::core::clamp_index(py - 1 + 2 * (y & 1), 0, ho - 1);
            const float a = cv[py * wo + px], b = cv[py * wo + nx], c = cv[ny * wo + px], d = cv[ny * wo + nx];
            const float lo = halden::min_of(halden::min_of(a, b), halden::min_of(c, d));
            const float hi = halden::max_of(halden::max_of(a, b), halden::max_of(c, d));
            const float up = clamp_to(resampling::magic_sum(cv, wo, ho, y, x) * 0.0625f, lo, hi);
            if (!(own > 0.0f)) {
                fv[i] = up;
                return;
            }
            const float mine = fv[i];
            const float mixed = own * mine + (1.0f - own) * up;
            fv[i] = clamp_to(mixed, halden::min_of(mine, up), halden::max_of(mine, up));
        });
}

// Squared Euclidean distance in cells from every cell to the nearest cell
// with points (0xFFFFFFFF where none exists), exactly, by the two-pass
// lower-envelope transform of Felzenszwalb and Huttenlocher: rows to the
// nearest data cell in each column, then per row the lower envelope of the
// parabolas (x - q)^2 + g(q)^2. Intersections are recomputed rather than
// stored, which keeps the scratch to one index per cell; the integers stay
// below 2^31 and so are exact in double.
// The abscissa where the parabolas (x - p)^2 + g[p]^2 and (x - s)^2 + g[s]^2
// cross (p < s).
HALDEN_HD inline double parabola_cross(const std::uint32_t* g, int p, int s) {
    const double fp = double(g[p]) * double(g[p]) + double(p) * double(p);
    const double fs = double(g[s]) * double(g[s]) + double(s) * double(s);
    return (fs - fp) / double(2 * (s - p));
}

void distance_to_data(queue& q, const float* counts, int w, int h, std::uint32_t* column, std::uint32_t* d2,
                      std::int32_t* scratch) {
    constexpr std::uint32_t none = 0xFFFFFFFFu;
    q.parallel_for(
        range<1>{std::size_t(w)}, HALDEN_KERNEL(std::size_t xi) {
            const int x = int(xi);
            std::uint32_t run = none;
            for (int y = 0; y < h; ++y) {
                const std::size_t i = std::size_t(y) * w + x;
                run = counts[i] > 0.0f ? 0u : (run == none ? none : run + 1);
                column[i] = run;
            }
            run = none;
            for (int y = h - 1; y >= 0; --y) {
                const std::size_t i = std::size_t(y) * w + x;
                run = counts[i] > 0.0f ? 0u : (run == none ? none : run + 1);
                if (run < column[i]) column[i] = run;
            }
        });
    q.parallel_for(
        range<1>{std::size_t(h)}, HALDEN_KERNEL(std::size_t yi) {
            const std::size_t base = yi * std::size_t(w);
            const std::uint32_t* g = column + base;
            std::int32_t* v = scratch + base;
            std::uint32_t* out = d2 + base;
            int k = -1;
            for (int s = 0; s < w; ++s) {
                if (g[s] == none) continue;
                // The first parabola of the envelope reaches to -infinity: never dropped.
                while (k >= 1 && parabola_cross(g, v[k], s) <= parabola_cross(g, v[k - 1], v[k])) --k;
                v[++k] = s;
            }
            if (k < 0) {
                for (int x = 0; x < w; ++x) out[x] = none;
                return;
            }
            int j = 0;
            for (int x = 0; x < w; ++x) {
                while (j < k && parabola_cross(g, v[j], v[j + 1]) < double(x)) ++j;
                const double dx = double(x - v[j]);
                out[x] = std::uint32_t(dx * dx + double(g[v[j]]) * double(g[v[j]]));
            }
        });
}

// Marks the empty cells joined to the grid's border through empty cells
// (4-neighbours): sweeps along the rows and along the columns, both ways,
// until a round changes nothing. Each sweep only reads its own row or
// column, so no item reads what another writes; the marked set is the
// unique fixed point whatever the order.
void mark_border_connected(queue& q, const float* counts, int w, int h, std::uint32_t* outside,
                           std::uint32_t* changed) {
    q.parallel_for(
        halden::core::grid_extent(w, h), HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const std::size_t i = row * std::size_t(w) + col;
            const bool edge = row == 0 || col == 0 || int(row) == h - 1 || int(col) == w - 1;
            outside[i] = edge && !(counts[i] > 0.0f) ? 1u : 0u;
        });
    for (;;) {
        std::uint32_t none = 0;
        q.copy(&none, changed, sizeof none);
        q.parallel_for(
            range<1>{std::size_t(h)}, HALDEN_KERNEL(std::size_t row) {
                std::uint32_t* o = outside + row * std::size_t(w);
                const float* n = counts + row * std::size_t(w);
                std::uint32_t any = 0;
                for (int x = 1; x < w; ++x)
                    if (!o[x] && o[x - 1] && !(n[x] > 0.0f)) o[x] = any = 1;
                for (int x = w - 2; x >= 0; --x)
                    if (!o[x] && o[x + 1] && !(n[x] > 0.0f)) o[x] = any = 1;
                if (any) halden::compute::atomic_or(changed, 1u);
            });
        q.parallel_for(
            range<1>{std::size_t(w)}, HALDEN_KERNEL(std::size_t col) {
                std::uint32_t any = 0;
                for (int y = 1; y < h; ++y) {
                    const std::size_t i = std::size_t(y) * w + col;
                    if (!outside[i] && outside[i - w] && !(counts[i] > 0.0f)) outside[i] = any = 1;
                }
                for (int y = h - 2; y >= 0; --y) {
                    const std::size_t i = std::size_t(y) * w + col;
                    if (!outside[i] && outside[i + w] && !(counts[i] > 0.0f)) outside[i] = any = 1;
                }
                if (any) halden::compute::atomic_or(changed, 1u);
            });
        std::uint32_t again = 0;
        q.copy(changed, &again, sizeof again);
        q.synchronize();
        if (!again || q.has_pending_errors()) return;
    }
}

}  // namespace detail

void PointCloud::fill_holes() {
    const PointParameters& p = m_parameters;
    const int w0 = m_width, h0 = m_height;
    const float* d_counts = m_counts.get();
    // Level 0 is the gathered grid itself: weight 1 where points fell.
    grid weights0(m_queue, m_heights.extent(), "fill weights");
    float* d_w0 = weights0.get();
    m_queue.parallel_for(
        m_heights.extent(), HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const std::size_t i = row * std::size_t(w0) + col;
            d_w0[i] = d_counts[i] > 0.0f ? 1.0f : 0.0f;
        });
    // A copy of the gathered values: push writes the holes, and cells that
    // the rules keep empty get their empty value back from it.
    grid filled(m_queue, m_heights.extent(), "filled heights");
    m_queue.copy(m_heights.get(), filled.get(), m_heights.bytes());

    std::vector<level> levels;
    {
        const float* fv = filled.get();
        const float* fw = d_w0;
        int w = w0, h = h0;
        while (w > 1 || h > 1) {
            const int wo = (w + 1) / 2, ho = (h + 1) / 2;
            level l{grid(m_queue, halden::core::grid_extent(wo, ho), "pull values"),
                    grid(m_queue, halden::core::grid_extent(wo, ho), "pull weights"), wo, ho};
            detail::pull(m_queue, fv, fw, w, h, l.values.get(), l.weights.get(), wo, ho);
            fv = l.values.get();
            fw = l.weights.get();
            w = wo;
            h = ho;
            levels.push_back(std::move(l));
        }
    }
    if (!levels.empty()) {
        float top_weight = 0.0f;
        m_queue.copy(levels.back().weights.get(), &top_weight, sizeof top_weight);
        m_queue.synchronize();
        // No point fell into the grid: nothing to fill from.
        if (!(top_weight > 0.0f)) return;
        for (std::size_t k = levels.size() - 1; k > 0; --k)
            detail::push(m_queue, levels[k].values.get(), levels[k].w, levels[k].h, levels[k - 1].values.get(),
                         levels[k - 1].weights.get(), levels[k - 1].w, levels[k - 1].h);
        detail::push(m_queue, levels[0].values.get(), levels[0].w, levels[0].h, filled.get(), d_w0, w0, h0);
    } else {
        // A single cell is either known or there is nothing to fill from.
        return;
    }

    usm_ptr<std::uint32_t, 1> d2, outside;
    usm_ptr<std::uint32_t, 1> column;
    usm_ptr<std::int32_t, 1> scratch;
    const std::size_t cells = std::size_t(w0) * std::size_t(h0);
    if (p.max_fill > 0.0f) {
        column = usm_ptr<std::uint32_t, 1>(m_queue, {cells}, "column distances");
        d2 = usm_ptr<std::uint32_t, 1>(m_queue, {cells}, "fill distances");
        scratch = usm_ptr<std::int32_t, 1>(m_queue, {cells}, "distance envelope");
        detail::distance_to_data(m_queue, d_counts, w0, h0, column.get(), d2.get(), scratch.get());
    }
    usm_ptr<std::uint32_t, 1> changed;
    if (p.fill == HALDEN_POINTS_FILL_INNER) {
        outside = usm_ptr<std::uint32_t, 1>(m_queue, {cells}, "border-connected cells");
        changed = usm_ptr<std::uint32_t, 1>(m_queue, {1}, "sweep flag");
        detail::mark_border_connected(m_queue, d_counts, w0, h0, outside.get(), changed.get());
    }
    const std::uint32_t* d_d2 = d2.get();
    const std::uint32_t* d_outside = outside.get();
    const double reach2 = double(p.max_fill) * double(p.max_fill);
    const float* d_filled = filled.get();
    float* d_heights = m_heights.get();
    m_queue.parallel_for(
        m_heights.extent(), HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const std::size_t i = row * std::size_t(w0) + col;
            if (d_counts[i] > 0.0f) return;
            if (d_d2 && !(double(d_d2[i]) <= reach2)) return;
            if (d_outside && d_outside[i]) return;
            d_heights[i] = d_filled[i];
        });
    m_queue.synchronize();
}

void PointCloud::copy_out(float* h_heights, float* h_counts) {
    m_queue.synchronize();
    if (m_queue.has_pending_errors()) return;
    m_heights.copy_to_host(h_heights);
    if (h_counts) m_counts.copy_to_host(h_counts);
    m_queue.synchronize();
}

}  // namespace mesh_rasterizer
