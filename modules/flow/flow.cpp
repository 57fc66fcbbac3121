// SPDX-License-Identifier: Apache-2.0
#include "modules/flow/flow.hpp"

#include <algorithm>
#include <cmath>
#include <random>
#include <stdexcept>

#include "core/math.hpp"
#include "core/random.hpp"
#include "device/messages.hpp"
#include "modules/flow/laplacian_level.hpp"

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
    if (!halden::core::grid_size_ok(p.width, p.height))
        return "width and height must be at least 1 and hold at most 2^31 - 1 cells (got " + std::to_string(p.width) +
               " x " + std::to_string(p.height) + ")";
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
      m_input(q, h_heights, halden::core::grid_extent(parameters.width, parameters.height)),
      m_working(q, m_input.extent(), "working heights"),
      m_visits(q, m_input.extent(), "visits"),
      m_intensity(q, m_input.extent(), "flow intensity"),
      m_result(q, m_input.extent(), "flow map") {
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

void Flow::fill_pits(grid& heights, grid& scratch, grid& marks) {
    const float* in = heights.get();
    float* out = scratch.get();
    float* mark = marks.get();
    const int w = halden::core::width_of(heights), h = halden::core::height_of(heights);
    m_queue.parallel_for(heights.extent(), HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const int r = int(row), c = int(col);
        // Values at the largest finite float never register, so a second
        // below it means one was found.
        float lowest = 3.4028235e38f, second = 3.4028235e38f;
        for (int y = r > 0 ? r - 1 : 0; y <= (r + 1 < h ? r + 1 : h - 1); ++y)
            for (int x = c > 0 ? c - 1 : 0; x <= (c + 1 < w ? c + 1 : w - 1); ++x) {
                if (y == r && x == c) continue;
                const float v = in[y * w + x];
                if (v < lowest) {
                    second = lowest;
                    lowest = v;
                } else if (v >= lowest && v < second) {
                    second = v;
                }
            }
        // A cell with a single neighbour rises to that neighbour.
        const float target = second < 3.4028235e38f ? second : lowest;
        const float height = in[r * w + c];
        if (height > target) {
            out[r * w + c] = height;
        } else {
            out[r * w + c] = target;
            if (mark) mark[r * w + c] = 1.0f;
        }
    });
    // The pass's second kernel, a copy back, becomes an exchange.
    heights.swap(scratch);
}

void Flow::fill_pits(grid& heights, grid& scratch) {
    grid no_marks;
    fill_pits(heights, scratch, no_marks);
}

namespace {

// The particles' view of the heights: bilinear height and gradient at p.
struct surface {
    const float* h;
    int cols, rows;

    HALDEN_HD void sample(vec2 p, float& height, float& gx, float& gy) const {
        const float u = p.x - 0.5f, v = p.y - 0.5f;
        // trunc for the corners, floor for the fractions: within half a cell
        // of the low border they differ, and the fraction lies in [0.5, 1).
        const int tu = int(u), tv = int(v);
        const int i0 = tu > 0 ? tu : 0, j0 = tv > 0 ? tv : 0;
        const int i1 = tu + 1 < cols - 1 ? tu + 1 : cols - 1, j1 = tv + 1 < rows - 1 ? tv + 1 : rows - 1;
        const float fx = u - floorf(u), fy = v - floorf(v);
        const float h00 = h[j0 * cols + i0], h01 = h[j0 * cols + i1];
        const float h10 = h[j1 * cols + i0], h11 = h[j1 * cols + i1];
        gx = (h01 - h00) * (1.0f - fy) + (h11 - h10) * fy;
        gy = (h10 - h00) * (1.0f - fx) + (h11 - h01) * fx;
        height = (h00 * (1.0f - fx) + h01 * fx) * (1.0f - fy) + (h10 * (1.0f - fx) + h11 * fx) * fy;
    }
    // Written so that a NaN position counts as outside.
    HALDEN_HD bool inside(vec2 p) const {
        return p.x >= 0.0f && p.x < float(cols) - 1.0f && p.y >= 0.0f && p.y < float(rows) - 1.0f;
    }
};

}  // namespace

void Flow::flow(const usm_ptr<vec2, 1>& particles, unsigned offset, unsigned count, unsigned max_steps, unsigned,
                const grid& heights, grid& visits, const usm_ptr<vec2, 1>& directions) {
    const vec2* d_particles = particles.get();
    const vec2* d_directions = directions.get();
    float* d_visits = visits.get();
    std::uint32_t* d_steps = m_count_steps ? m_particle_steps.get() : nullptr;
    const surface ground{heights.get(), halden::core::width_of(heights), halden::core::height_of(heights)};
    const int cols = ground.cols;
    const std::uint32_t seed = m_parameters.seed;
    const float last_move = float(max_steps) - 1.0f;
    const float stall_limit = halden::max_of(float(max_steps) * 0.08f, 4.0f);
    m_queue.parallel_for(range<1>{count}, HALDEN_KERNEL(std::size_t i) {
        const unsigned idx = offset + unsigned(i);
        vec2 p = d_particles[idx];
        if (!ground.inside(p)) return;
        float h, gx, gy;
        ground.sample(p, h, gx, gy);
        const float len = sqrtf(gx * gx + gy * gy);
        if (len <= 0.0f) return;
        float dx = -gx / len, dy = -gy / len;
        std::uint32_t s = halden::xorshift(halden::seed_state(seed + idx));

        unsigned moves = 0, visits_made = 0;
        float stalls = 0.0f, h_before_previous = 0.0f;
        for (;;) {
            halden::compute::atomic_add(&d_visits[int(p.y) * cols + int(p.x)], 1.0f);
            ++visits_made;
            p.x += dx;
            p.y += dy;
            if (!ground.inside(p)) break;
            s = halden::xorshift(s);
            float h2, g2x, g2y;
            ground.sample(p, h2, g2x, g2y);
            // Not descending since the previous move: one more stall.
            if (moves >= 1 && !(h < h_before_previous)) stalls += 1.0f;
            h_before_previous = h;
            h = h2;
            const float len2 = sqrtf(g2x * g2x + g2y * g2y);
            if (len2 > 0.0f) {
                const vec2 r = d_directions[((s * 625341313u - 1u) & 31u) & 0x7FFFFFFFu];
                const float nx = (1.2f * dx - g2x / len2) + 0.7f * r.x;
                const float ny = (1.2f * dy - g2y / len2) + 0.7f * r.y;
                const float nl = sqrtf(nx * nx + ny * ny);
                dx = nx / nl;
                dy = ny / nl;
            }
            ++moves;
            if (float(moves) == last_move || stalls > stall_limit) break;
        }
        if (d_steps) d_steps[idx] = visits_made;
    });
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
    for (std::size_t i = chain.size(); i-- > 0;) {
        LaplacianLevel& level = *chain[i];
        grid scratch(m_queue, level.heights().extent(), "pit filling scratch");
        const double share = fill_share * double(level.heights().size()) / (cells * fill_passes);
        for (int pass = 0; pass < fill_passes; ++pass) {
            fill_pits(level.heights(), scratch, level.marks());
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

bool Flow::report_progress() {
    m_queue.synchronize();
    const bool stop = m_callbacks.progress(float(100.0 * m_done / m_total)) != 0;
    return !stop && m_callbacks.cancel() == 0;
}

bool Flow::process() {
    const Parameters& p = m_parameters;
    const std::size_t cols = std::size_t(p.width);
    const range<2> extent = m_input.extent();

    const float* d_input = m_input.get();
    float* d_working = m_working.get();
    m_queue.parallel_for(extent, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        d_working[row * cols + col] = d_input[row * cols + col];
    });
    // Filling and seeding count as the first half of the progress, the
    // batches as the second.
    m_total = 64.0;
    m_done = 0.0;
    bool go_on = fill_pyramid();
    m_done = 32.0;
    m_next = m_done + m_total * m_step;
    std::vector<vec2> starts;
    if (go_on) starts = plan::seed_particles(p, m_masked ? m_mask : nullptr);
    float* d_visits = m_visits.get();
    float* d_a = m_intensity.get();
    float* d_b = m_result.get();
    m_queue.parallel_for(extent, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const std::size_t i = row * cols + col;
        d_visits[i] = 0.0f;
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
        usm_ptr<vec2, 1> directions(m_queue, {table.size()}, "directions");
        particles.copy_from_host(starts.data());
        directions.copy_from_host(table.data());
        if (m_count_steps) {
            m_particle_steps = usm_ptr<std::uint32_t, 1>(m_queue, {starts.size()}, "particle steps");
            std::uint32_t* d_steps = m_particle_steps.get();
            m_queue.parallel_for(range<1>{starts.size()}, HALDEN_KERNEL(std::size_t i) { d_steps[i] = 0; });
        }

        const unsigned batch = (n_particles + batches - 1) / batches;
        const unsigned long_count = std::min(n_particles, long_particles) / batches;
        const float long_limit_f = long_limit(p);
        const unsigned long_steps = unsigned(long_limit_f);
        const std::uint64_t cells = std::uint64_t(p.width) * std::uint64_t(p.height);
        const float weight = p.accumulation * 1.0e-5f;
        for (unsigned o = 0; o < n_particles; o += batch) {
            const unsigned n = std::min(n_particles - o, batch);
            const unsigned shorts = n > long_count ? n - long_count : 0;
            if (shorts > 0) flow(particles, o, shorts, short_steps, 0, m_working, m_visits, directions);
            flow(particles, o + shorts, std::min(n, long_count), long_steps, 0, m_working, m_visits, directions);
            const float k = plan::batch_gain(shorts, long_count, n_particles, cells, long_limit_f);
            m_queue.parallel_for(extent, HALDEN_KERNEL(std::size_t row, std::size_t col) {
                const std::size_t i = row * cols + col;
                const float c = d_visits[i];
                d_a[i] = d_a[i] + (k * c * 0.03125f) / (k * c + 8.0f);
                d_b[i] = d_b[i] + weight * c;
                d_visits[i] = 0.0f;
            });
            m_done += 1.0;
            if (m_done >= m_next) {
                m_next += m_total * m_step;
                if (!(go_on = report_progress())) break;
            }
        }
        if (m_count_steps) {
            std::vector<std::uint32_t> steps(starts.size());
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
