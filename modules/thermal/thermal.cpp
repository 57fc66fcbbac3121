// SPDX-License-Identifier: Apache-2.0
#include "modules/thermal/thermal.hpp"

#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <vector>

#include "compute/lanes.hpp"
#include "core/checks.hpp"
#include "core/math.hpp"
#include "core/random.hpp"
#include "device/messages.hpp"
#include "modules/thermal/laplacian_level.hpp"

namespace thermal {

using halden::max_of;
using halden::min_of;
using halden::compute::queue;
using halden::compute::range;

halden_callbacks callbacks{};

namespace {

using halden::core::got;
using halden::core::positive_finite;

// A diagonal neighbour lies sqrt(2) cells away.
constexpr float kDiagonal = 1.41421356f;

// The eight neighbours in the fixed order every sum follows.
struct offset {
    int dx, dy;
    bool diagonal;
};
HALDEN_HD inline offset neighbour(int k) {
    constexpr int dx[8] = {-1, 0, 1, -1, 1, -1, 0, 1};
    constexpr int dy[8] = {-1, -1, -1, 0, 0, 1, 1, 1};
    return {dx[k], dy[k], dx[k] != 0 && dy[k] != 0};
}

}  // namespace

std::string check(const Parameters& p) {
    if (std::string problem = halden::core::check_grid_and_scales(p.width, p.height, p.cell_size, p.height_scale);
        !problem.empty())
        return problem;
    if (!(p.talus_angle > 0.0f && p.talus_angle < 90.0f))
        return "talus_angle must lie above 0 and below 90 degrees" + got(p.talus_angle);
    if (!(p.talus_noise >= 0.0f && p.talus_noise <= 1.0f)) return "talus_noise must lie in [0, 1]" + got(p.talus_noise);
    if (!(p.rate > 0.0f && p.rate <= 1.0f)) return "rate must lie in (0, 1]" + got(p.rate);
    if (p.iterations < 0 || p.iterations > max_iterations)
        return "iterations must lie in [0, " + std::to_string(max_iterations) + "] (got " +
               std::to_string(p.iterations) + ")";
    if (p.levels < 0 || p.levels > max_levels)
        return "levels must be 0 (automatic) or 1 to " + std::to_string(max_levels) + " (got " +
               std::to_string(p.levels) + ")";
    if (!positive_finite(p.burial_scale)) return "burial_scale must be positive and finite" + got(p.burial_scale);
    if (!(p.mask_strength >= 0.0f && p.mask_strength <= 1.0f))
        return "mask_strength must lie in [0, 1]" + got(p.mask_strength);
    // The talus height of the coarsest level's diagonal must stay finite.
    const float widest = p.cell_size * float(p.width) / p.height_scale;
    if (!std::isfinite(widest * plan::talus_slopes(p).back() * kDiagonal))
        return "cell_size / height_scale is too large: talus heights overflow" + got(p.cell_size / p.height_scale);
    return {};
}

std::uint64_t memory_estimate(const Parameters& p) { return 68u * std::uint64_t(p.width) * std::uint64_t(p.height); }

namespace plan {

int levels(const Parameters& p) {
    if (p.levels > 0) return p.levels;
    int n = 1;
    for (int side = p.width < p.height ? p.width : p.height; side > 48 && n < max_levels; side -= side / 2) ++n;
    return n;
}

std::array<float, talus_steps> talus_slopes(const Parameters& p) {
    std::array<float, talus_steps> slopes{};
    const double angle = p.talus_angle, room = std::min(angle, 90.0 - angle);
    constexpr double kRadians = 3.14159265358979323846 / 180.0;
    for (int k = 0; k < talus_steps; ++k) {
        const double u = (k + 0.5) / talus_steps * 2.0 - 1.0;
        slopes[std::size_t(k)] = float(std::tan((angle + p.talus_noise * room * u) * kRadians));
    }
    return slopes;
}

}  // namespace plan

void prepare_level(queue& q, float* talus, float* rates, const float* slopes, const float* mask, const float* hardness,
                   int w, int h, std::uint32_t seed, int depth, const level_constants& k) {
    const float talus_height = k.talus_height, rate = k.rate;
    q.parallel_for(range<2>{std::size_t(h), std::size_t(w)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const std::size_t i = row * std::size_t(w) + col;
        const std::uint32_t s = halden::counter_state(seed, std::uint32_t(i), std::uint32_t(depth));
        talus[i] = slopes[s >> 24] * talus_height;
        if (!rates) return;
        float r = rate;
        if (mask) r = r * min_of(max_of(mask[i], 0.0f), 1.0f);
        if (hardness) r = r * (1.0f - min_of(max_of(hardness[i], 0.0f), 1.0f));
        rates[i] = r;
    });
}

namespace {

using halden::core::border_cell;
using halden::core::border_cells;
using halden::core::interior_extent;

// One cell's outflow factor. Border cells test each neighbour's bounds
// (closed borders: nothing leaves the grid); interior cells need not, and
// their body is free of branches so that the host compiler vectorises it.
// Adding +0 for a neighbour that does not slide leaves every sum's bits as
// they would be without it. Varied: each cell has its own rate. Capped:
// each cell sends at most cap[i].
template <bool Border, bool Varied, bool Capped = false>
HALDEN_HD inline float outflow_at(const float* heights, const float* talus, const float* rates, float rate, int w,
                                  int h, int x, int y, std::ptrdiff_t i, const float* cap = nullptr) {
    const float c = heights[i], t = talus[i], td = t * kDiagonal;
    float excess = 0.0f, drops = 0.0f, largest = 0.0f;
    HALDEN_UNROLL
    for (int k = 0; k < 8; ++k) {
        const offset o = neighbour(k);
        const int nx = x + o.dx, ny = y + o.dy;
        if (Border && (nx < 0 || ny < 0 || nx >= w || ny >= h)) continue;
        const float d = c - heights[i + std::ptrdiff_t(o.dy) * w + o.dx];
        const float limit = o.diagonal ? td : t;
        const bool slides = d > limit;
        const float over = d - limit;
        excess = max_of(excess, slides ? over : 0.0f);
        drops = drops + (slides ? d : 0.0f);
        largest = max_of(largest, slides ? d : 0.0f);
    }
    // Never more than half the largest drop, so no cell ends below the
    // neighbour it fed most.
    float send = min_of((Varied ? rates[i] : rate) * excess, 0.5f * largest);
    if (Capped) send = min_of(send, cap[i]);
    const float f = send / drops;
    return drops > 0.0f ? f : 0.0f;
}

// One cell's new height, and the material it moved and holds. A transfer
// is the product its sender forms, recomputed from the same operands, so
// sender and receiver round it alike. Track: also account the material.
template <bool Border, bool Track>
HALDEN_HD inline void settle_at(const float* heights, const float* talus, const float* factor, float* next,
                                float* moved, float* resting, int w, int h, int x, int y, std::ptrdiff_t i) {
    const float c = heights[i], t = talus[i], f = factor[i];
    float sent = 0.0f, received = 0.0f;
    HALDEN_UNROLL
    for (int k = 0; k < 8; ++k) {
        const offset o = neighbour(k);
        const int nx = x + o.dx, ny = y + o.dy;
        if (Border && (nx < 0 || ny < 0 || nx >= w || ny >= h)) continue;
        const std::ptrdiff_t j = i + std::ptrdiff_t(o.dy) * w + o.dx;
        const float hj = heights[j], down = c - hj, up = hj - c;
        // Talus heights are positive, so at most one of the two holds.
        const bool out = down > (o.diagonal ? t * kDiagonal : t);
        const bool in = up > (o.diagonal ? talus[j] * kDiagonal : talus[j]);
        const float give = f * down, take = factor[j] * up;
        sent = sent + (out ? give : 0.0f);
        received = received + (in ? take : 0.0f);
    }
    next[i] = (c - sent) + received;
    if (!Track) return;
    moved[i] = moved[i] + sent;
    resting[i] = max_of((resting[i] + received) - sent, 0.0f);
}

// settle_at in fixed point: the same transfers under the same conditions,
// each truncated to whole units of 2^-shift before it is summed, and held
// below 2^31 units (the largest float below it), which sender and receiver
// do alike.
constexpr float kMaxUnits = 2147483520.0f;

template <bool Border>
HALDEN_HD inline void settle_fixed_at(const float* heights, const float* talus, const float* factor,
                                      std::int64_t* amount, float scale, int w, int h, int x, int y,
                                      std::ptrdiff_t i) {
    const float c = heights[i], t = talus[i], f = factor[i];
    std::int64_t change = 0;
    HALDEN_UNROLL
    for (int k = 0; k < 8; ++k) {
        const offset o = neighbour(k);
        const int nx = x + o.dx, ny = y + o.dy;
        if (Border && (nx < 0 || ny < 0 || nx >= w || ny >= h)) continue;
        const std::ptrdiff_t j = i + std::ptrdiff_t(o.dy) * w + o.dx;
        const float hj = heights[j], down = c - hj, up = hj - c;
        const bool out = down > (o.diagonal ? t * kDiagonal : t);
        const bool in = up > (o.diagonal ? talus[j] * kDiagonal : talus[j]);
        // Transfers are never negative, so the conversion truncates down.
        // Selected rather than branched on, and converted as 32-bit
        // integers, so that the host's rows vectorise.
        const std::int32_t give = std::int32_t(min_of(max_of((f * down) * scale, 0.0f), kMaxUnits));
        const std::int32_t take = std::int32_t(min_of(max_of((factor[j] * up) * scale, 0.0f), kMaxUnits));
        change = change + (std::int64_t(in ? take : 0) - std::int64_t(out ? give : 0));
    }
    amount[i] = amount[i] + change;
}

// Interior row `row` (0 the grid's second) of a pass, in one vector loop:
// the host's work item. A row rather than a cell, so that in translation
// units that nvcc compiles, whose kernel lambdas the host calls through a
// type-erased wrapper, a call covers a row and its loop vectorises.
template <bool Varied, bool Capped>
HALDEN_HD inline void outflow_row(const float* heights, const float* talus, const float* rates, float rate,
                                  float* factor, int w, int h, int row, const float* cap) {
    const std::ptrdiff_t first = std::ptrdiff_t(row + 1) * w + 1;
    HALDEN_LANES
    for (int c = 0; c < w - 2; ++c)
        factor[first + c] = outflow_at<false, Varied, Capped>(heights, talus, rates, rate, w, h, 0, 0, first + c, cap);
}
template <bool Track>
HALDEN_HD inline void settle_row(const float* heights, const float* talus, const float* factor, float* next,
                                 float* moved, float* resting, int w, int h, int row) {
    const std::ptrdiff_t first = std::ptrdiff_t(row + 1) * w + 1;
    HALDEN_LANES
    for (int c = 0; c < w - 2; ++c)
        settle_at<false, Track>(heights, talus, factor, next, moved, resting, w, h, 0, 0, first + c);
}
HALDEN_HD inline void settle_fixed_row(const float* heights, const float* talus, const float* factor,
                                       std::int64_t* amount, float scale, int w, int h, int row) {
    const std::ptrdiff_t first = std::ptrdiff_t(row + 1) * w + 1;
    HALDEN_LANES
    for (int c = 0; c < w - 2; ++c)
        settle_fixed_at<false>(heights, talus, factor, amount, scale, w, h, 0, 0, first + c);
}

// A pass's interior: `rows(row)` per interior row on the host, `cells(row,
// col)` per interior cell on a device.
template <class Rows, class Cells>
void launch_interior(queue& q, int w, int h, const Rows& rows, const Cells& cells) {
    if (q.get_device().get_backend() == halden::compute::backend::native)
        q.parallel_for(range<1>{interior_extent(w, h).rows}, rows);
    else
        q.parallel_for(interior_extent(w, h), cells);
}

// The kernels are instantiated for each combination of the loop-invariant
// choices, so that no test on them is left inside the vectorised loop.
template <bool Varied, bool Capped = false>
void outflow_launch(queue& q, const float* heights, const float* talus, const float* rates, float rate, float* factor,
                    int w, int h, const float* cap = nullptr) {
    launch_interior(
        q, w, h,
        HALDEN_KERNEL(std::size_t row) {
            halden::compute::run_wide(
                [&] { outflow_row<Varied, Capped>(heights, talus, rates, rate, factor, w, h, int(row), cap); });
        },
        HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const std::ptrdiff_t i = std::ptrdiff_t(row + 1) * w + std::ptrdiff_t(col) + 1;
            factor[i] = outflow_at<false, Varied, Capped>(heights, talus, rates, rate, w, h, 0, 0, i, cap);
        });
    q.parallel_for(range<1>{border_cells(w, h)}, HALDEN_KERNEL(std::size_t k) {
        const halden::core::cell b = border_cell(k, w, h);
        const std::ptrdiff_t i = std::ptrdiff_t(b.y) * w + b.x;
        factor[i] = outflow_at<true, Varied, Capped>(heights, talus, rates, rate, w, h, b.x, b.y, i, cap);
    });
}

template <bool Track>
void settle_launch(queue& q, const float* heights, const float* talus, const float* factor, float* next, float* moved,
                   float* resting, int w, int h) {
    launch_interior(
        q, w, h,
        HALDEN_KERNEL(std::size_t row) {
            halden::compute::run_wide(
                [&] { settle_row<Track>(heights, talus, factor, next, moved, resting, w, h, int(row)); });
        },
        HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const std::ptrdiff_t i = std::ptrdiff_t(row + 1) * w + std::ptrdiff_t(col) + 1;
            settle_at<false, Track>(heights, talus, factor, next, moved, resting, w, h, 0, 0, i);
        });
    q.parallel_for(range<1>{border_cells(w, h)}, HALDEN_KERNEL(std::size_t k) {
        const halden::core::cell b = border_cell(k, w, h);
        settle_at<true, Track>(heights, talus, factor, next, moved, resting, w, h, b.x, b.y,
                               std::ptrdiff_t(b.y) * w + b.x);
    });
}

}  // namespace

void outflow(queue& q, const float* heights, const float* talus, const float* rates, float rate, float* factor, int w,
             int h) {
    if (rates) outflow_launch<true>(q, heights, talus, rates, rate, factor, w, h);
    else outflow_launch<false>(q, heights, talus, rates, rate, factor, w, h);
}

void settle(queue& q, const float* heights, const float* talus, const float* factor, float* next, float* moved,
            float* resting, int w, int h) {
    if (moved) settle_launch<true>(q, heights, talus, factor, next, moved, resting, w, h);
    else settle_launch<false>(q, heights, talus, factor, next, moved, resting, w, h);
}

void outflow(queue& q, const float* heights, const float* talus, const float* rates, float rate, const float* cap,
             float* factor, int w, int h) {
    if (rates) outflow_launch<true, true>(q, heights, talus, rates, rate, factor, w, h, cap);
    else outflow_launch<false, true>(q, heights, talus, rates, rate, factor, w, h, cap);
}

void settle_fixed(queue& q, const float* heights, const float* talus, const float* factor, std::int64_t* amount,
                  int shift, int w, int h) {
    const float scale = float(std::int64_t(1) << shift);
    launch_interior(
        q, w, h,
        HALDEN_KERNEL(std::size_t row) {
            halden::compute::run_wide([&] { settle_fixed_row(heights, talus, factor, amount, scale, w, h, int(row)); });
        },
        HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const std::ptrdiff_t i = std::ptrdiff_t(row + 1) * w + std::ptrdiff_t(col) + 1;
            settle_fixed_at<false>(heights, talus, factor, amount, scale, w, h, 0, 0, i);
        });
    q.parallel_for(range<1>{border_cells(w, h)}, HALDEN_KERNEL(std::size_t k) {
        const halden::core::cell b = border_cell(k, w, h);
        settle_fixed_at<true>(heights, talus, factor, amount, scale, w, h, b.x, b.y, std::ptrdiff_t(b.y) * w + b.x);
    });
}

Thermal::Thermal(queue& q, float* h_heights, const float* h_mask, float* h_deposition, const float* h_hardness,
                 const Parameters& parameters, const halden_callbacks* callbacks)
    : m_queue(q),
      m_parameters(parameters),
      m_heights(h_heights),
      m_deposition(h_deposition),
      m_callbacks(halden::complete(callbacks)) {
    const std::string problem = check(m_parameters);
    if (!problem.empty()) throw std::invalid_argument(problem);
    const auto upload = [&](const float* host, const char* label) {
        return halden::core::upload_optional(q, host, m_parameters.width, m_parameters.height, label);
    };
    grid heights = upload(h_heights, "heights");
    const std::array<float, talus_steps> slopes = plan::talus_slopes(m_parameters);
    m_slopes = halden::compute::usm_ptr<float, 1>(q, {slopes.size()}, "talus slopes");
    m_slopes.copy_from_host(slopes.data());
    m_finest = std::make_unique<LaplacianLevel>(q, std::move(heights), upload(h_mask, "mask"),
                                                plan::levels(m_parameters) - 1, upload(h_hardness, "hardness"));
}

Thermal::~Thermal() {
    try {
        m_queue.synchronize();
    } catch (...) {
    }
}

bool Thermal::report_progress() {
    m_queue.synchronize();
    const bool stop = m_callbacks.progress(float(100.0 * m_done / m_total)) != 0;
    return !stop && m_callbacks.cancel() == 0;
}

bool Thermal::weather(LaplacianLevel& level) {
    queue& q = m_queue;
    const Parameters& p = m_parameters;
    const int w = level.width(), h = level.height();
    // The world width is the same on every level, so a coarse cell is wider
    // and its talus height difference larger: the angle stays the same.
    const float cell = p.cell_size * float(p.width) / float(w);
    const level_constants k{cell / p.height_scale, p.rate};
    grid talus(q, level.heights().extent(), "talus heights");
    grid next(q, level.heights().extent(), "next heights");
    // Without a mask or hardness every cell weathers at the record's rate.
    const bool varied = level.has_mask() || level.has_hardness();
    grid rates = varied ? grid(q, level.heights().extent(), "rates") : grid();
    prepare_level(q, talus.get(), rates.get(), m_slopes.get(), level.has_mask() ? level.mask().get() : nullptr,
                  level.has_hardness() ? level.hardness().get() : nullptr, w, h, p.seed, level.depth(), k);
    // The finest level's moved and resting material serve only the caller's
    // deposition grid: without one, skipping them saves half the traffic.
    const bool track = &level != m_finest.get() || m_deposition;
    float* moved = track ? level.moved().get() : nullptr;
    float* resting = track ? level.resting().get() : nullptr;
    const double cells = double(w) * double(h);
    for (int it = 0; it < p.iterations; ++it) {
        outflow(q, level.heights().get(), talus.get(), rates.get(), p.rate, level.scratch().get(), w, h);
        settle(q, level.heights().get(), talus.get(), level.scratch().get(), next.get(), moved, resting, w, h);
        level.heights().swap(next);
        m_done += cells;
        if (!report_progress()) return false;
    }
    return true;
}

bool Thermal::process() {
    const Parameters& p = m_parameters;
    const std::vector<LaplacianLevel*> chain = m_finest->build_chain();
    m_total = halden::core::cells_of(chain) * double(p.iterations > 0 ? p.iterations : 1);
    m_done = 0.0;
    // p of the reconstruction is the burial scale in height units.
    const float burial = p.burial_scale / p.height_scale;
    for (std::size_t i = chain.size(); i-- > 0;) {
        if (!weather(*chain[i])) return false;
        if (i > 0) {
            chain[i - 1]->reconstruct_previous_level(burial, p.mask_strength);
            chain[i - 1]->release_coarser();
        }
    }
    // A failed device leaves the caller's grids as they were.
    m_queue.synchronize();
    if (m_queue.has_pending_errors()) return true;
    m_finest->heights().copy_to_host(m_heights);
    if (m_deposition) m_finest->resting().copy_to_host(m_deposition);
    m_queue.synchronize();
    return true;
}

}  // namespace thermal
