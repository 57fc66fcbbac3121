// SPDX-License-Identifier: Apache-2.0
#include "modules/flow/flow.hpp"

#include <algorithm>
#include <cmath>
#include <random>
#include <stdexcept>

#include "core/checks.hpp"
#include "core/bits.hpp"
#include "core/math.hpp"
#include "core/random.hpp"
#include "device/messages.hpp"
#include "modules/flow/laplacian_level.hpp"
#include "modules/flow/tracer.hpp"

namespace flow {

using halden::compute::queue;
using halden::compute::range;
using halden::compute::usm_ptr;

halden_callbacks callbacks{};

namespace {
// A long trace's step count is compared as a float, so it must stay exact.
constexpr float max_long_steps = 16777216.0f;

float long_limit(const Parameters& p) { return float(p.width) * p.length + 2.0f; }
}  // namespace

std::string check(const Parameters& p) {
    if (std::string problem = halden::core::check_grid_size(p.width, p.height); !problem.empty()) return problem;
    if (!(p.length >= 0.0f) || !std::isfinite(p.length)) return "length must be finite and at least 0";
    if (!(long_limit(p) <= max_long_steps)) return "length is too large: a trace may take at most 2^24 steps";
    if (!std::isfinite(p.accumulation)) return "accumulation must be finite";
    return {};
}

std::uint64_t memory_estimate(const Parameters& p) { return 28u * std::uint64_t(p.width) * std::uint64_t(p.height); }

namespace plan {

int levels(int width) {
    const int p = int(halden::log2_p(float(width) * 0.0078125f));  // truncates toward zero
    return p < 1 ? 1 : p;
}

std::vector<vec2> seed_particles(const Parameters& p, const float* mask) {
    std::vector<vec2> out;
    out.reserve(mask ? 0 : std::size_t(p.width) * std::size_t(p.height));
    std::uint32_t s = halden::seed_state(p.seed);
    for (int y = 0; y < p.height; ++y)
        for (int x = 0; x < p.width; ++x) {
            // The draws stay in double, so a mask value of 1 always emits.
            if (mask && !(halden::uniform(s = halden::xorshift(s)) < double(mask[std::size_t(y) * p.width + x])))
                continue;
            const float jy = float(0.1 + 0.8 * halden::uniform(s = halden::xorshift(s)));
            const float jx = float(0.1 + 0.8 * halden::uniform(s = halden::xorshift(s)));
            out.push_back({float(x) + jx, float(y) + jy});
        }
    return out;
}

std::vector<vec2> directions() {
    // cos(k * 11.25 degrees) for k = 0..8; the other quadrants are exact
    // rotations of the first, so the table is symmetric to the bit.
    static constexpr float c[9] = {1.0f,         0.980785251f, 0.923879504f, 0.831469595f, 0.707106769f,
                                   0.555570245f, 0.382683426f, 0.195090324f, 0.0f};
    std::vector<vec2> out(32);
    for (int k = 0; k < 32; ++k) {
        const int r = k % 8;
        vec2 d{c[r], c[8 - r]};
        for (int q = 0; q < k / 8; ++q) d = {-d.y, d.x};
        out[std::size_t(k)] = d;
    }
    return out;
}

void shuffle(std::vector<vec2>& v, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::shuffle(v.begin(), v.end(), rng);
}

float batch_gain(unsigned short_count, unsigned long_count, unsigned particles, std::uint64_t cells, float long_limit) {
    const float m = halden::min_of(long_limit, float(short_steps));
    const float s = float(short_count), q = float(long_count), n = float(particles), c = float(cells);
    const float r = 1.0f / (m * s + long_limit * q);
    const float t = (s + q) * (m + long_limit) * r;
    const float v = -0.25f - (0.7f * n) / c;
    return t + v * (t - n * r);
}

}  // namespace plan

Flow::Flow(queue& q, const Parameters& parameters, std::uint64_t no_mask, const float* h_heights, float* h_flow,
           const halden_callbacks* callbacks)
    : m_queue(q),
      m_parameters(parameters),
      m_callbacks(halden::complete(callbacks)),
      m_masked(no_mask != HALDEN_FLOW_NO_MASK),
      m_mask(h_flow),
      m_mask_or_map(h_flow),
      m_heights_in(h_heights),
      m_working(q, halden::core::grid_extent(parameters.width, parameters.height), "working heights") {
    const std::string problem = check(m_parameters);
    if (!problem.empty()) throw std::invalid_argument(problem);
}

// The grids die with the object; the queue waits for the kernels that still
// read them first.
Flow::~Flow() {
    try {
        m_queue.synchronize();
    } catch (...) {
    }
}

namespace {

using halden::core::border_cell;
using halden::core::border_cells;
using halden::core::interior_extent;

// Values at the largest finite float never register, so a second below it
// means one was found.
constexpr float no_height = 3.4028235e38f;

// The host fills a level's remaining passes in one work item once the rows
// that may still change hold at most this many cells.
constexpr std::size_t fill_tail_cells = std::size_t(1) << 17;

// Takes one neighbour into the lowest and second-lowest so far. Written as
// selects so that the interior loop vectorises; a NaN neighbour changes
// neither, and with equal values the first seen stays lowest.
HALDEN_HD inline void take_neighbour(float v, float& lowest, float& second) {
    const bool below = v < lowest;
    second = below ? lowest : (v < second ? v : second);
    lowest = below ? v : lowest;
}

// One cell of a pass: it rises to its second-lowest neighbour (or its only
// one). Border cells clamp the neighbourhood; interior cells visit the same
// eight neighbours, in the same order, without a test. Returns whether the
// cell's bits changed.
template <bool Border, bool Marks>
HALDEN_HD inline bool fill_cell(const float* in, float* out, float* mark, int w, int h, int r, int c,
                                std::ptrdiff_t i) {
    float lowest = no_height, second = no_height;
    if (Border) {
        for (int y = r > 0 ? r - 1 : 0; y <= (r + 1 < h ? r + 1 : h - 1); ++y)
            for (int x = c > 0 ? c - 1 : 0; x <= (c + 1 < w ? c + 1 : w - 1); ++x)
                if (y != r || x != c) take_neighbour(in[y * w + x], lowest, second);
    } else {
        HALDEN_UNROLL
        for (int k = 0; k < 9; ++k)
            if (k != 4) take_neighbour(in[i + std::ptrdiff_t(k / 3 - 1) * w + (k % 3 - 1)], lowest, second);
    }
    // A cell with a single neighbour rises to that neighbour.
    const float target = second < no_height ? second : lowest;
    const float height = in[i];
    const bool keeps = height > target;
    const float next = keeps ? height : target;
    out[i] = next;
    if (Marks && !keeps) mark[i] = 1.0f;
    return halden::float_bits(next) != halden::float_bits(height);
}

#if defined(__CUDA_ARCH__)
#  define HALDEN_FLOW_ROW_LOOP
#else
#  define HALDEN_FLOW_ROW_LOOP _Pragma("omp simd reduction(| : differs)")
#endif

// A pass on the device: the interior cells, then the border ring.
template <bool Marks>
void fill_cells(queue& q, const float* in, float* out, float* mark, int w, int h) {
    q.parallel_for(interior_extent(w, h), HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const std::ptrdiff_t i = std::ptrdiff_t(row + 1) * w + std::ptrdiff_t(col) + 1;
        fill_cell<false, Marks>(in, out, mark, w, h, 0, 0, i);
    });
    q.parallel_for(range<1>{border_cells(w, h)}, HALDEN_KERNEL(std::size_t k) {
        const halden::core::cell b = border_cell(k, w, h);
        fill_cell<true, Marks>(in, out, mark, w, h, b.y, b.x, std::ptrdiff_t(b.y) * w + b.x);
    });
}

// One row of a pass on the host, its interior in a vector loop. With
// `before`, the previous pass's record of the rows that changed, a row whose
// neighbourhood did not change is skipped: its cells would come out as they
// went in, and the output already holds them (written by the pass before,
// from the same values). Returns whether a cell of the row changed.
template <bool Marks>
HALDEN_HD inline int fill_row(const float* in, float* out, float* mark, int w, int h, int r,
                              const std::int32_t* before) {
    if (before && !(before[r] | (r > 0 ? before[r - 1] : 0) | (r + 1 < h ? before[r + 1] : 0))) return 0;
    const std::ptrdiff_t first = std::ptrdiff_t(r) * w;
    int changed = 0;
    if (r == 0 || r == h - 1) {
        for (int c = 0; c < w; ++c) changed |= fill_cell<true, Marks>(in, out, mark, w, h, r, c, first + c);
        return changed;
    }
    changed |= fill_cell<true, Marks>(in, out, mark, w, h, r, 0, first);
    if (w > 1) changed |= fill_cell<true, Marks>(in, out, mark, w, h, r, w - 1, first + w - 1);
    int differs = 0;
    HALDEN_FLOW_ROW_LOOP
    for (int c = 1; c < w - 1; ++c) differs |= fill_cell<false, Marks>(in, out, mark, w, h, 0, 0, first + c);
    return changed | differs;
}

// A pass on the host: one work item per row, all in one launch; with
// `changed`, each row records whether it changed.
template <bool Marks>
void fill_rows(queue& q, const float* in, float* out, float* mark, int w, int h, const std::int32_t* before,
               std::int32_t* changed) {
    q.parallel_for(range<1>{std::size_t(h)}, HALDEN_KERNEL(std::size_t row) {
        halden::compute::run_wide([&] {
            const int changed_here = fill_row<Marks>(in, out, mark, w, h, int(row), before);
            if (changed) changed[row] = changed_here;
        });
    });
}

// The last `passes` passes of a level on the host in one work item, when
// few rows still change: a launch each would cost more than the rows. The
// grids alternate as the passes' exchanges alternate them, and once a pass
// changes nothing the rest would not either and are left out.
void fill_tail(queue& q, float* heights, float* scratch, int w, int h, int passes, std::int32_t* before,
               std::int32_t* changed) {
    // A one-item grid: the host runs it on the calling thread.
    q.parallel_for(range<2>{1, 1}, HALDEN_KERNEL(std::size_t, std::size_t) {
        halden::compute::run_wide([&] {
            float* in = heights;
            float* out = scratch;
            std::int32_t* was = before;
            std::int32_t* is = changed;
            for (int pass = 0; pass < passes; ++pass) {
                int any = 0;
                for (int r = 0; r < h; ++r) any |= is[r] = fill_row<false>(in, out, nullptr, w, h, r, was);
                if (!any) return;
                float* t = in;
                in = out;
                out = t;
                std::int32_t* u = was;
                was = is;
                is = u;
            }
        });
    });
}

template <bool Marks>
void fill_pass(queue& q, const float* in, float* out, float* mark, int w, int h, const std::int32_t* before,
               std::int32_t* changed) {
    if (q.get_device().get_backend() == halden::compute::backend::native)
        fill_rows<Marks>(q, in, out, mark, w, h, before, changed);
    else
        fill_cells<Marks>(q, in, out, mark, w, h);
}

}  // namespace

void Flow::fill_pits(grid& heights, grid& scratch, grid& marks) {
    const int w = halden::core::width_of(heights), h = halden::core::height_of(heights);
    if (marks.get()) fill_pass<true>(m_queue, heights.get(), scratch.get(), marks.get(), w, h, nullptr, nullptr);
    else fill_pass<false>(m_queue, heights.get(), scratch.get(), nullptr, w, h, nullptr, nullptr);
    // The pass's second kernel, a copy back, becomes an exchange.
    heights.swap(scratch);
}

void Flow::fill_pits(grid& heights, grid& scratch) {
    grid no_marks;
    fill_pits(heights, scratch, no_marks);
}

namespace {

using namespace tracing;

// A batch's counts folded into the saturating intensity and the linear
// accumulation, and cleared for a later batch.
struct batch_fold {
    std::int32_t* counts;
    float* intensity;
    float* linear;
    float gain, weight;
};

HALDEN_HD inline void fold_cell(const batch_fold& f, std::size_t i) {
    // A float count stops at 2^24, where adding one no longer changes it.
    const std::int32_t v = f.counts[i];
    const float c = float(v < 16777216 ? v : 16777216);
    f.intensity[i] = f.intensity[i] + (f.gain * c * 0.03125f) / (f.gain * c + 8.0f);
    f.linear[i] = f.linear[i] + f.weight * c;
    f.counts[i] = 0;
}

void fold(queue& q, range<2> extent, const batch_fold& f) {
    const std::size_t cols = extent.cols;
    q.parallel_for(extent, HALDEN_KERNEL(std::size_t row, std::size_t col) { fold_cell(f, row * cols + col); });
}

// One row of a fold in a vector loop, values in: a loop in the launching
// lambda would read them through its captures and not vectorise.
HALDEN_HD HALDEN_FORCE_INLINE void fold_row(batch_fold f, std::size_t row, std::size_t cols) {
    HALDEN_LANES
    for (std::size_t c = 0; c < cols; ++c) fold_cell(f, row * cols + c);
}

// The host runs a batch's traces and folds the previous batch, counted into
// the other count grid, in one launch: one wait for the team fewer per
// batch, and the fold's rows fill the threads that the traces' last lanes
// leave idle. The rows come first, the lane groups after them.
void run_traces_folding(queue& q, const trace_launch& a, std::int32_t* visits, std::int32_t* claimed,
                        const batch_fold& previous, range<2> extent) {
    const std::int32_t zero = 0;
    q.copy(&zero, claimed, sizeof zero);
    const std::size_t rows = extent.rows, cols = extent.cols;
    q.parallel_for(range<1>{rows + a.count}, HALDEN_KERNEL(std::size_t i) {
        if (i < rows)
            halden::compute::run_wide([&] { fold_row(previous, i, cols); });
        else if ((i - rows) % halden::compute::items_per_lane_group == 0)
            halden::compute::run_wide([&] { run_lanes(a, count_visits<std::int32_t>{visits}, claimed); });
    });
}

}  // namespace

void Flow::flow(const usm_ptr<vec2, 1>& particles, unsigned offset, unsigned count, unsigned max_steps, unsigned,
                const grid& heights, grid& visits, const usm_ptr<vec2, 1>& directions) {
    if (m_count_steps && m_particle_steps.size() < std::size_t(offset) + count) {
        m_particle_steps = usm_ptr<std::uint32_t, 1>(m_queue, {std::size_t(offset) + count}, "particle steps");
        std::uint32_t* d_steps = m_particle_steps.get();
        m_queue.parallel_for(m_particle_steps.extent(), HALDEN_KERNEL(std::size_t i) { d_steps[i] = 0; });
    }
    const trace_limits lim = limits_for(max_steps);
    const trace_launch a{particles.get() + offset,
                         nullptr,
                         offset,
                         0,
                         count,
                         lim,
                         lim,
                         {heights.get(), halden::core::width_of(heights), halden::core::height_of(heights)},
                         directions.get(),
                         m_parameters.seed,
                         m_count_steps ? m_particle_steps.get() : nullptr};
    run_traces(m_queue, a, count_visits<float>{visits.get()}, claimed_counter());
    if (!m_count_steps || count == 0) return;
    std::vector<std::uint32_t> steps(count);
    m_queue.copy(m_particle_steps.get() + offset, steps.data(), count * sizeof(std::uint32_t));
    m_queue.synchronize();
    for (std::uint32_t s : steps) m_steps += s;
}

std::int32_t* Flow::claimed_counter() {
    if (!m_claimed.get()) m_claimed = usm_ptr<std::int32_t, 1>(m_queue, {1}, "trace counter");
    return m_claimed.get();
}

bool Flow::fill_pyramid() {
    const int levels = plan::levels(m_parameters.width);
    LaplacianLevel finest(m_queue, std::move(m_working), levels - 1);
    std::vector<LaplacianLevel*> chain{&finest};
    for (int i = 1; i < levels; ++i) chain.push_back(&chain.back()->create_subsequent_level(m_parameters));
    // Filling takes the progress to fill_share, pass by pass in proportion to
    // the cells filled, so that a cancel lands within one pass.
    double cells = 0;
    for (const LaplacianLevel* level : chain) cells += double(level->heights().size());
    // On the host, rows record their changes and a pass skips the rows
    // around which nothing changed; once a whole pass changes nothing, the
    // remaining ones would not either and are not run.
    const bool host = m_queue.get_device().get_backend() == halden::compute::backend::native;
    for (std::size_t i = chain.size(); i-- > 0;) {
        LaplacianLevel& level = *chain[i];
        const int w = halden::core::width_of(level.heights()), h = halden::core::height_of(level.heights());
        grid scratch(m_queue, level.heights().extent(), "pit filling scratch");
        usm_ptr<std::int32_t, 1> before, changed;
        std::vector<std::int32_t> record;
        if (host) {
            before = usm_ptr<std::int32_t, 1>(m_queue, {std::size_t(h)}, "pit filling rows");
            changed = usm_ptr<std::int32_t, 1>(m_queue, {std::size_t(h)}, "pit filling rows");
            record.assign(std::size_t(h), 1);
            before.copy_from_host(record.data());
        }
        std::size_t active_rows = std::size_t(h);
        bool settled = false;
        const double share = fill_share * double(level.heights().size()) / (cells * fill_passes);
        for (int pass = 0; pass < fill_passes; ++pass) {
            if (!host) {
                fill_pits(level.heights(), scratch);
            } else if (!settled && active_rows * std::size_t(w) <= fill_tail_cells) {
                fill_tail(m_queue, level.heights().get(), scratch.get(), w, h, fill_passes - pass, before.get(),
                          changed.get());
                if ((fill_passes - pass) % 2 != 0) level.heights().swap(scratch);
                settled = true;
            } else if (!settled) {
                fill_rows<false>(m_queue, level.heights().get(), scratch.get(), nullptr, w, h, before.get(),
                                 changed.get());
                level.heights().swap(scratch);
                changed.copy_to_host(record.data());
                m_queue.synchronize();
                // The rows that may change in the next pass: the changed
                // ones and their neighbours.
                active_rows = 0;
                for (int r = 0; r < h; ++r)
                    active_rows += record[std::size_t(r)] || (r > 0 && record[std::size_t(r) - 1]) ||
                                   (r + 1 < h && record[std::size_t(r) + 1]);
                settled = active_rows == 0;
                before.swap(changed);
            }
            m_done += share;
            if (!report_progress()) return false;
        }
        if (i > 0) {
            chain[i - 1]->reconstruct(m_parameters);
            chain[i - 1]->release_coarser();
        }
    }
    m_working = std::move(finest.heights());
    return true;
}

bool Flow::fill_surface() {
    m_working.copy_from_host(m_heights_in);
    // Filling and seeding count as the first half of the progress, the
    // batches as the second.
    m_total = 64.0;
    m_done = 0.0;
    return fill_pyramid();
}

bool Flow::report_progress() {
    m_queue.synchronize();
    const bool stop = m_callbacks.progress(float(100.0 * m_done / m_total)) != 0;
    return !stop && m_callbacks.cancel() == 0;
}

namespace plan {

std::size_t launch_order(const std::vector<vec2>& particles, int width, int height, vec2* starts, std::uint32_t* ids,
                         bool whole) {
    const std::size_t n = particles.size();
    const std::size_t batch = (n + batches - 1) / batches;
    const std::size_t long_count = std::min<std::size_t>(n, long_particles) / batches;
    const std::size_t scope = whole ? std::max<std::size_t>(n, 1) : batch;
    const std::size_t tiles_x = (std::size_t(width) + order_tile - 1) / order_tile;
    const std::size_t tiles = tiles_x * ((std::size_t(height) + order_tile - 1) / order_tile);
    // Runs of neighbouring tiles share a bucket where a scope has fewer
    // particles than the grid has tiles (thin grids), so that the counting
    // stays in proportion to the scope.
    int shift = 0;
    while ((tiles >> shift) > scope) ++shift;
    const std::size_t buckets = (tiles >> shift) + 1;
    std::vector<std::uint32_t> bucket(2 * buckets + 1), key(scope);
    std::size_t longs = 0;
    for (std::size_t o = 0; o < n; o += scope) {
        const std::size_t count = std::min(n - o, scope);
        std::fill(bucket.begin(), bucket.end(), 0u);
        for (std::size_t k = 0; k < count; ++k) {
            // The batch decides whether a particle traces long: its last
            // long_count do.
            const std::size_t i = o + k, first = i / batch * batch, in_batch = std::min(n - first, batch);
            const bool is_short = i - first + long_count < in_batch;
            // Starts lie inside their cells.
            const vec2 p = particles[i];
            const std::size_t tile = std::size_t(p.y) / order_tile * tiles_x + std::size_t(p.x) / order_tile;
            key[k] = std::uint32_t((is_short ? buckets : 0) + (tile >> shift));
            ++bucket[key[k] + 1];
        }
        for (std::size_t b = 1; b < bucket.size(); ++b) bucket[b] += bucket[b - 1];
        longs = bucket[buckets];
        for (std::size_t k = 0; k < count; ++k) {
            const std::size_t slot = o + bucket[key[k]]++;
            starts[slot] = particles[o + k];
            ids[slot] = std::uint32_t(o + k);
        }
    }
    return longs;
}

}  // namespace plan

bool Flow::process() {
    const Parameters& p = m_parameters;
    const std::size_t cols = std::size_t(p.width);
    const range<2> extent = m_working.extent();

    m_visits = usm_ptr<std::int32_t, 2>(m_queue, extent, "visits");
    m_intensity = grid(m_queue, extent, "flow intensity");
    m_result = grid(m_queue, extent, "flow map");
    bool go_on = fill_surface();
    m_done = 32.0;
    m_next = m_done + m_total * m_step;
    std::vector<vec2> starts;
    if (go_on) starts = plan::seed_particles(p, m_masked ? m_mask : nullptr);
    // The host's second count grid (see the batches).
    const bool host = m_queue.get_device().get_backend() == halden::compute::backend::native;
    usm_ptr<std::int32_t, 2> spare;
    if (go_on && host && !starts.empty()) spare = usm_ptr<std::int32_t, 2>(m_queue, extent, "visits");
    std::int32_t* d_visits = m_visits.get();
    std::int32_t* d_spare = spare.get();
    float* d_a = m_intensity.get();
    float* d_b = m_result.get();
    m_queue.parallel_for(extent, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const std::size_t i = row * cols + col;
        d_visits[i] = 0;
        if (d_spare) d_spare[i] = 0;
        d_a[i] = 0.0f;
        d_b[i] = 0.0f;
    });
    if (go_on) go_on = report_progress();

    if (go_on && !starts.empty()) {
        const unsigned n_particles = unsigned(starts.size());
        plan::shuffle(starts, p.seed);
        std::vector<vec2> table = plan::directions();
        plan::shuffle(table, p.seed + 14u);
        usm_ptr<vec2, 1> particles(m_queue, {starts.size()}, "particles");
        usm_ptr<std::uint32_t, 1> ids(m_queue, {starts.size()}, "particle ids");
        usm_ptr<vec2, 1> directions(m_queue, {table.size()}, "directions");
        // The host's device memory is its own: the order is written there.
        if (host) {
            plan::launch_order(starts, p.width, p.height, particles.get(), ids.get());
        } else {
            std::vector<vec2> ordered(starts.size());
            std::vector<std::uint32_t> ordered_ids(starts.size());
            plan::launch_order(starts, p.width, p.height, ordered.data(), ordered_ids.data());
            particles.copy_from_host(ordered.data());
            ids.copy_from_host(ordered_ids.data());
            m_queue.synchronize();
        }
        starts = std::vector<vec2>();
        directions.copy_from_host(table.data());
        if (m_count_steps) {
            m_particle_steps = usm_ptr<std::uint32_t, 1>(m_queue, {n_particles}, "particle steps");
            std::uint32_t* d_steps = m_particle_steps.get();
            m_queue.parallel_for(range<1>{n_particles}, HALDEN_KERNEL(std::size_t i) { d_steps[i] = 0; });
        }

        const unsigned batch = (n_particles + batches - 1) / batches;
        const unsigned long_count = std::min(n_particles, long_particles) / batches;
        const float long_limit_f = long_limit(p);
        const unsigned long_steps = unsigned(long_limit_f);
        const std::uint64_t cells = std::uint64_t(p.width) * std::uint64_t(p.height);
        const float weight = p.accumulation * 1.0e-5f;
        trace_launch a{nullptr,
                       nullptr,
                       0,
                       0,
                       0,
                       limits_for(short_steps),
                       limits_for(long_steps),
                       {m_working.get(), p.width, p.height},
                       directions.get(),
                       p.seed,
                       m_count_steps ? m_particle_steps.get() : nullptr};
        // The host counts each batch in the grid the batch before did not,
        // and folds that one while the next batch runs.
        std::int32_t* counting = d_visits;
        std::int32_t* other = spare.get();
        batch_fold pending{nullptr, d_a, d_b, 0.0f, weight};
        for (unsigned o = 0; o < n_particles; o += batch) {
            const unsigned n = std::min(n_particles - o, batch);
            const unsigned shorts = n > long_count ? n - long_count : 0;
            // One launch runs the batch's short and long traces together:
            // the counts are sums of whole visits, so neither order nor
            // interleaving shows in them.
            a.starts = particles.get() + o;
            a.ids = ids.get() + o;
            a.count = n;
            a.long_from = o + shorts;
            const float k = plan::batch_gain(shorts, long_count, n_particles, cells, long_limit_f);
            if (host && pending.counts) {
                run_traces_folding(m_queue, a, counting, claimed_counter(), pending, extent);
            } else {
                run_traces(m_queue, a, count_visits<std::int32_t>{counting}, claimed_counter());
                if (!host) fold(m_queue, extent, {counting, d_a, d_b, k, weight});
            }
            if (host) {
                pending = {counting, d_a, d_b, k, weight};
                std::swap(counting, other);
            }
            m_done += 1.0;
            if (m_done >= m_next) {
                m_next += m_total * m_step;
                if (!(go_on = report_progress())) break;
            }
        }
        // A cancelled run keeps the batches it ran.
        if (pending.counts) fold(m_queue, extent, pending);
        if (m_count_steps) {
            std::vector<std::uint32_t> steps(n_particles);
            m_particle_steps.copy_to_host(steps.data());
            m_queue.synchronize();
            for (std::uint32_t s : steps) m_steps += s;
        }
    }

    // The map is the intensity plus the linear accumulation.
    m_queue.parallel_for(extent, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const std::size_t i = row * cols + col;
        d_b[i] = d_a[i] + d_b[i];
    });
    // A failed device leaves the caller's array as it was.
    m_queue.synchronize();
    if (!m_queue.has_pending_errors()) {
        m_result.copy_to_host(m_mask_or_map);
        m_queue.synchronize();
    }
    return go_on;
}

}  // namespace flow
