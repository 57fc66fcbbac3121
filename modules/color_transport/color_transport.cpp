// SPDX-License-Identifier: Apache-2.0
#include "modules/color_transport/color_transport.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <vector>

#include "core/checks.hpp"
#include "device/messages.hpp"

namespace color_transport {

using halden::compute::queue;
using halden::compute::range;
using halden::compute::usm_ptr;
using halden::core::fixed_point;

halden_callbacks callbacks{};

std::string check(const Parameters& p) {
    using halden::core::got;
    if (std::string problem = flow::check(flow_parameters(p)); !problem.empty()) return problem;
    if (!halden::core::within(p.pickup_rate, 0.0f, 1.0f)) return "pickup_rate must lie in [0, 1]" + got(p.pickup_rate);
    if (!halden::core::positive_finite(p.deposit_weight))
        return "deposit_weight must be positive and finite" + got(p.deposit_weight);
    if (!halden::core::within(p.strength, 0.0f, 1.0f)) return "strength must lie in [0, 1]" + got(p.strength);
    if (!(p.saturation >= 0.0f) || !std::isfinite(p.saturation))
        return "saturation must be finite and at least 0" + got(p.saturation);
    return {};
}

namespace {

// The first cell of `v` that fails `ok`, or -1.
template <class Ok>
std::int64_t first_bad(const float* v, std::size_t n, Ok ok) {
    for (std::size_t i = 0; i < n; ++i)
        if (!ok(v[i])) return std::int64_t(i);
    return -1;
}

std::string at_cell(std::int64_t i, const Parameters& p) {
    return " (cell x " + std::to_string(i % p.width) + ", y " + std::to_string(i / p.width) + ")";
}

}  // namespace

std::string check_grids(const Parameters& p, const float* heights, const float* red, const float* green,
                        const float* blue, const float* mask) {
    const std::size_t n = std::size_t(p.width) * std::size_t(p.height);
    const auto finite = [](float v) { return std::isfinite(v); };
    const struct {
        const char* name;
        const float* grid;
    } grids[] = {{"heights", heights}, {"red", red}, {"green", green}, {"blue", blue}};
    for (const auto& g : grids)
        if (const std::int64_t i = first_bad(g.grid, n, finite); i >= 0)
            return std::string(g.name) + " must be finite" + at_cell(i, p);
    if (mask)
        if (const std::int64_t i = first_bad(mask, n, [](float v) { return v >= 0.0f && v <= 1.0f; }); i >= 0)
            return "mask values must lie in [0, 1]" + at_cell(i, p);
    return {};
}

std::uint64_t memory_estimate(const Parameters& p) {
    // Surface, scratch and pyramid 16, colours 16 (and 12 planar), tallies
    // 32, mask 4, particles with ids 12. A host's further tally copies come
    // on top, up to an eighth of the memory.
    return 92u * std::uint64_t(p.width) * std::uint64_t(p.height);
}

flow::Parameters flow_parameters(const Parameters& p) { return {p.width, p.height, p.length, 0.0f, p.seed}; }

fixed_point tally_scale(const Parameters& p, float spread, std::uint64_t particles) {
    // A trace visits a cell at most once per move, so no cell sees more
    // visits than all traces make together.
    const std::uint64_t longs = std::min<std::uint64_t>(particles, flow::long_particles);
    const double long_moves = double(float(p.width) * p.length + 2.0f);
    const double visits = double(particles) * double(flow::short_steps) + double(longs) * long_moves;
    // Carried colours are blends of the grid's, so a difference stays within
    // the spread; the factor 2 leaves room for rounding.
    const double bound = 2.0 * double(spread) * visits;
    // Colours near the float limit: the tallies may overflow, which the run
    // reports.
    if (!std::isfinite(bound)) return {0};
    int e = 0;
    std::frexp(bound, &e);  // bound < 2^e
    const int shift = bound > 0.0 ? std::clamp(61 - e, 0, 62) : 62;
    return {shift};
}

ColorTransport::ColorTransport(queue& q, const Parameters& parameters, const float* h_heights, float* h_red,
                               float* h_green, float* h_blue, const float* h_mask, const halden_callbacks* callbacks)
    : m_queue(q),
      m_parameters(parameters),
      m_callbacks(halden::complete(callbacks)),
      m_heights(h_heights),
      m_red(h_red),
      m_green(h_green),
      m_blue(h_blue),
      m_mask(h_mask) {
    const std::string problem = check(m_parameters);
    if (!problem.empty()) throw std::invalid_argument(problem);
}

ColorTransport::~ColorTransport() {
    try {
        m_queue.synchronize();
    } catch (...) {
    }
}

namespace {

// The tracers' sink: a trace carries a colour, which moves toward each
// visited cell's colour by the pickup rate; the visit tallies the carried
// colour minus the cell's own. The carried colour is kept as the cell's plus
// the part of the difference that remains (`keep` = 1 - pickup rate), so that
// an equal colour or a full pickup leaves a difference of exactly zero.
struct carry_colour {
    const cell_colour* colours;
    cell_tally* tallies;
    float keep;
    fixed_point scale;
    std::uint32_t* overflow;
    bool own;  // the tallies are this lane group's alone: plain adds

    // A visit's cells miss the caches, where the flow's counts stay in
    // them: three lanes for the flow's one keep more of those misses in
    // flight (on 1024^2, 24 lanes ran 1.4 times as fast as 8; 16 and 32
    // lanes lay in between).
    static constexpr int lanes = 3 * flow::tracing::lanes;

    struct carried {
        float r, g, b;
    };
    struct pending {
        int cell;
        float r, g, b;
    };
    HALDEN_HD carried start(int cell) const {
        const cell_colour& c = colours[cell];
        return {c.r, c.g, c.b};
    }
    // The cell's lines are fetched ahead of the visit. A load here would
    // hold up the locked adds that run before the visit; a prefetch does not.
    HALDEN_HD void ahead(carried&, int cell) const {
        halden::compute::prefetch(&colours[cell]);
        halden::compute::prefetch(&tallies[cell]);
    }
    HALDEN_HD pending visit(carried& k, int cell) const {
        const cell_colour& c = colours[cell];
        const pending v{cell, keep * (k.r - c.r), keep * (k.g - c.g), keep * (k.b - c.b)};
        k.r = c.r + v.r, k.g = c.g + v.g, k.b = c.b + v.b;
        return v;
    }
    HALDEN_HD void apply(const pending& v) const {
        cell_tally& t = tallies[v.cell];
        const std::int64_t r = scale.encode(v.r, overflow), g = scale.encode(v.g, overflow),
                           b = scale.encode(v.b, overflow);
        if (own) {
            t.tr += r, t.tg += g, t.tb += b, t.visits += 1;
            return;
        }
        if (r) halden::compute::atomic_add(&t.tr, r);
        if (g) halden::compute::atomic_add(&t.tg, g);
        if (b) halden::compute::atomic_add(&t.tb, b);
        halden::compute::atomic_add(&t.visits, std::int64_t(1));
    }
};

}  // namespace

void ColorTransport::gather(const usm_ptr<float, 1>& planar, usm_ptr<cell_colour, 1>& colours) {
    const std::size_t n = colours.size();
    const float* d_planar = planar.get();
    cell_colour* d_colours = colours.get();
    m_queue.parallel_for(
        range<1>{n}, HALDEN_KERNEL(std::size_t i) {
            d_colours[i] = {d_planar[i], d_planar[n + i], d_planar[2 * n + i], 0.0f};
        });
}

void ColorTransport::carry(const flow::tracing::trace_launch& launch, const usm_ptr<cell_colour, 1>& colours,
                           usm_ptr<cell_tally, 1>& tallies, fixed_point scale) {
    if (!m_counters.get()) m_counters = usm_ptr<std::int32_t, 1>(m_queue, {2}, "trace and copy counters");
    const carry_colour sink{
        colours.get(), tallies.get(), 1.0f - m_parameters.pickup_rate, scale, m_overflow.get(), false};
    std::int32_t* counters = m_counters.get();
    if (m_copies == 0) {
        flow::tracing::run_traces(m_queue, launch, sink, counters);
        return;
    }
    if (launch.count == 0) return;
    const std::int32_t zeros[2] = {0, 0};
    m_queue.copy(zeros, counters, sizeof zeros);
    const int copies = m_copies;
    const std::size_t n = colours.size();
    m_queue.parallel_for(
        range<1>{launch.count}, HALDEN_KERNEL(std::size_t i) {
            if (i % halden::compute::items_per_lane_group != 0) return;
            // A lane group runs until the launch's traces run out, so no
            // more groups run at once than the host has workers: each takes
            // a copy of its own. One that finds every copy taken leaves the
            // traces to the groups that have one.
            const std::int32_t copy = halden::compute::atomic_add(&counters[1], std::int32_t(1));
            if (copy >= copies) return;
            carry_colour mine = sink;
            mine.tallies += std::size_t(copy) * n;
            mine.own = true;
            halden::compute::run_wide([&] { flow::tracing::run_lanes(launch, mine, counters); });
        });
}

void ColorTransport::merge(usm_ptr<cell_tally, 1>& tallies) {
    if (m_copies < 2) return;
    const std::size_t n = tallies.size() / std::size_t(m_copies);
    const int copies = m_copies;
    cell_tally* d = tallies.get();
    m_queue.parallel_for(
        range<1>{n}, HALDEN_KERNEL(std::size_t i) {
            cell_tally t = d[i];
            for (int c = 1; c < copies; ++c) {
                const cell_tally& o = d[std::size_t(c) * n + i];
                t.tr += o.tr, t.tg += o.tg, t.tb += o.tb, t.visits += o.visits;
            }
            d[i] = t;
        });
}

void ColorTransport::blend(const usm_ptr<cell_colour, 1>& colours, const usm_ptr<cell_tally, 1>& tallies,
                           const grid& mask, fixed_point scale, usm_ptr<float, 1>& planar) {
    const std::size_t n = colours.size();
    const cell_colour* d_colours = colours.get();
    const cell_tally* d_tallies = tallies.get();
    const float* d_mask = mask.get();
    float* d_planar = planar.get();
    // w / (w + saturation) with w = visits * weight, written so that no
    // weight overflows: saturation / weight is finite or infinite, never NaN.
    const float half_visits = m_parameters.saturation / m_parameters.deposit_weight;
    const float strength = m_parameters.strength;
    m_queue.parallel_for(
        range<1>{n}, HALDEN_KERNEL(std::size_t i) {
            const cell_colour c = d_colours[i];
            const cell_tally t = d_tallies[i];
            float f = 0.0f, dr = 0.0f, dg = 0.0f, db = 0.0f;
            if (t.visits > 0) {
                const float visits = float(t.visits);
                f = strength * (visits / (visits + half_visits)) * (d_mask ? d_mask[i] : 1.0f);
                dr = scale.decode(t.tr) / visits;
                dg = scale.decode(t.tg) / visits;
                db = scale.decode(t.tb) / visits;
            }
            // A zero difference leaves the colour's bits as they were.
            d_planar[i] = c.r + dr * f;
            d_planar[n + i] = c.g + dg * f;
            d_planar[2 * n + i] = c.b + db * f;
        });
}

bool ColorTransport::report_progress(double done) {
    m_queue.synchronize();
    const bool stop = m_callbacks.progress(float(100.0 * done / 64.0)) != 0;
    return !stop && m_callbacks.cancel() == 0;
}

bool ColorTransport::process() {
    const Parameters& p = m_parameters;
    const flow::Parameters fp = flow_parameters(p);
    const std::size_t n = std::size_t(p.width) * std::size_t(p.height);

    // The flow module fills the pits and reports the first half of the
    // progress; the traces take the second, a batch at a time.
    flow::Flow surface(m_queue, fp, HALDEN_FLOW_NO_MASK, m_heights, nullptr, &m_callbacks);
    if (!surface.fill_surface()) return false;
    std::vector<flow::vec2> starts = flow::plan::seed_particles(fp, nullptr);

    usm_ptr<float, 1> planar(m_queue, {3 * n}, "colours");
    m_queue.copy(m_red, planar.get(), n * sizeof(float));
    m_queue.copy(m_green, planar.get() + n, n * sizeof(float));
    m_queue.copy(m_blue, planar.get() + 2 * n, n * sizeof(float));
    usm_ptr<cell_colour, 1> colours(m_queue, {n}, "colours");
    gather(planar, colours);
    // On the host every worker thread tallies into a copy of its own with
    // plain adds: a locked add stalls its core until the store is done, and
    // the cells where rivers meet would pass between the cores' caches. The
    // copies cost 32 bytes per cell and worker, and are taken while they fit
    // in an eighth of the memory.
    const int workers = m_host_copies ? m_queue.host_workers() : 0;
    const std::uint64_t copy_bytes = std::uint64_t(workers) * sizeof(cell_tally) * n;
    m_copies = workers > 0 && copy_bytes <= m_queue.get_device().global_mem_size() / 8 ? workers : 0;
    usm_ptr<cell_tally, 1> tallies(m_queue, {n * std::size_t(std::max(m_copies, 1))}, "tallies");
    const std::size_t tally_count = tallies.size();
    cell_tally* d_tallies = tallies.get();
    m_queue.parallel_for(
        range<1>{tally_count}, HALDEN_KERNEL(std::size_t i) {
            d_tallies[i] = {0, 0, 0, 0};
        });
    grid mask;
    if (m_mask) {
        mask = grid(m_queue, surface.working_heights().extent(), "mask");
        mask.copy_from_host(m_mask);
    }
    m_overflow = usm_ptr<std::uint32_t, 1>(m_queue, {1}, "overflow flag");
    const std::uint32_t clear = 0;
    m_queue.copy(&clear, m_overflow.get(), sizeof clear);

    // The spread of each channel bounds what a visit can tally.
    float spread = 0.0f;
    for (const float* c : {m_red, m_green, m_blue}) {
        const auto [lo, hi] = std::minmax_element(c, c + n);
        spread = std::max(spread, *hi - *lo);
    }
    const unsigned n_particles = unsigned(starts.size());
    const fixed_point scale = tally_scale(p, spread, n_particles);

    // The flow map's particles, draws and trace lengths, so that colour runs
    // down the same paths as the map's flow; but one launch order over all of
    // them, as the colours' tallies want.
    flow::plan::shuffle(starts, p.seed);
    std::vector<flow::vec2> table = flow::plan::directions();
    flow::plan::shuffle(table, p.seed + 14u);
    std::vector<flow::vec2> ordered(starts.size());
    std::vector<std::uint32_t> ordered_ids(starts.size());
    const unsigned long_count =
        unsigned(flow::plan::launch_order(starts, p.width, p.height, ordered.data(), ordered_ids.data(), true));
    starts = std::vector<flow::vec2>();
    usm_ptr<flow::vec2, 1> particles(m_queue, {ordered.size()}, "particles");
    usm_ptr<std::uint32_t, 1> ids(m_queue, {ordered.size()}, "particle ids");
    usm_ptr<flow::vec2, 1> directions(m_queue, {table.size()}, "directions");
    particles.copy_from_host(ordered.data());
    ids.copy_from_host(ordered_ids.data());
    directions.copy_from_host(table.data());
    m_queue.synchronize();
    ordered = std::vector<flow::vec2>();
    ordered_ids = std::vector<std::uint32_t>();

    const unsigned long_steps = unsigned(float(p.width) * p.length + 2.0f);
    const flow::tracing::surface ground{surface.working_heights().get(), p.width, p.height};
    double done = 32.0;
    bool go_on = report_progress(done);
    // A launch at a time, for progress and cancel; the long traces come
    // first, and no launch mixes the two kinds.
    for (int b = 0; go_on && b < flow::batches; ++b) {
        const unsigned from = unsigned(std::uint64_t(n_particles) * unsigned(b) / flow::batches);
        const unsigned to = unsigned(std::uint64_t(n_particles) * unsigned(b + 1) / flow::batches);
        for (unsigned o = from; o < to;) {
            const bool longs = o < long_count;
            const unsigned end = longs ? std::min(to, long_count) : to;
            const flow::tracing::trace_launch launch{particles.get() + o,
                                                     ids.get() + o,
                                                     0,
                                                     longs ? 0u : 0xFFFFFFFFu,
                                                     end - o,
                                                     flow::tracing::limits_for(flow::short_steps),
                                                     flow::tracing::limits_for(long_steps),
                                                     ground,
                                                     directions.get(),
                                                     p.seed,
                                                     nullptr};
            carry(launch, colours, tallies, scale);
            o = end;
        }
        done += 32.0 / flow::batches;
        go_on = report_progress(done);
    }
    if (!go_on) return false;

    std::uint32_t overflowed = 0;
    m_queue.copy(m_overflow.get(), &overflowed, sizeof overflowed);
    m_queue.synchronize();
    if (overflowed) throw std::runtime_error("colour tallies overflowed their fixed-point range");
    merge(tallies);
    blend(colours, tallies, mask, scale, planar);
    // A failed device leaves the caller's colours as they were.
    m_queue.synchronize();
    if (!m_queue.has_pending_errors()) {
        m_queue.copy(planar.get(), m_red, n * sizeof(float));
        m_queue.copy(planar.get() + n, m_green, n * sizeof(float));
        m_queue.copy(planar.get() + 2 * n, m_blue, n * sizeof(float));
        m_queue.synchronize();
    }
    return true;
}

}  // namespace color_transport
