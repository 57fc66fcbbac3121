// SPDX-License-Identifier: Apache-2.0
// The flow tracer: particles that run downhill over a pit-filled surface with
// inertia and a little randomness. Shared by the modules that trace flow; what
// a visit leaves behind is the sink's business. A sink provides
//   carried start(int cell) const:       the trace's own state at its start
//   void ahead(carried&, int cell) const: prepares the visit of `cell`;
//                                         called before each visit, on the
//                                         host a round of lane moves early
//   pending visit(carried&, int cell) const: a visit, computed at once; its
//                                         writes wait in the returned value
//   void apply(const pending&) const:    the visit's writes (atomics)
//   static constexpr int lanes:          traces per host lane group
// The host runs a visit's writes one round late as well. A sink starts the
// loads its visit needs in ahead() and fetches what apply() will write, so
// that the lanes' moves overlap the waits.
#pragma once

#include <cmath>
#include <cstdint>

#include "compute/compute.hpp"
#include "compute/lanes.hpp"
#include "core/bits.hpp"
#include "core/math.hpp"
#include "core/random.hpp"
#include "modules/flow/flow.hpp"

namespace flow::tracing {

// A bilinear sample: height and gradient.
struct sampled {
    float h, gx, gy;
};

// The particles' view of the heights: bilinear height and gradient at p.
struct surface {
    const float* h;
    int cols, rows;

    // Values in and out, no references: the host's lane loop then keeps its
    // temporaries in registers.
    HALDEN_HD sampled sample(vec2 p) const {
        const float u = p.x - 0.5f, v = p.y - 0.5f;
        // trunc for the corners, floor for the fractions: within half a cell
        // of the low border they differ, and the fraction lies in [0.5, 1).
        const int tu = int(u), tv = int(v);
        const int i0 = tu > 0 ? tu : 0, j0 = tv > 0 ? tv : 0;
        const int i1 = tu + 1 < cols - 1 ? tu + 1 : cols - 1, j1 = tv + 1 < rows - 1 ? tv + 1 : rows - 1;
        const float fx = u - floorf(u), fy = v - floorf(v);
        const float h00 = h[j0 * cols + i0], h01 = h[j0 * cols + i1];
        const float h10 = h[j1 * cols + i0], h11 = h[j1 * cols + i1];
        sampled out;
        out.gx = (h01 - h00) * (1.0f - fy) + (h11 - h10) * fy;
        out.gy = (h10 - h00) * (1.0f - fx) + (h11 - h01) * fx;
        out.h = (h00 * (1.0f - fx) + h01 * fx) * (1.0f - fy) + (h10 * (1.0f - fx) + h11 * fx) * fy;
        return out;
    }
    // Written so that a NaN position counts as outside.
    HALDEN_HD bool inside(vec2 p) const {
        return p.x >= 0.0f && p.x < float(cols) - 1.0f && p.y >= 0.0f && p.y < float(rows) - 1.0f;
    }
    HALDEN_HD int cell(float x, float y) const { return int(y) * cols + int(x); }
};

// A particle between two moves, at a position it has yet to visit.
struct tracer {
    float x, y, dx, dy;
    float h, h_before;  // the heights at this position and the one before
    float stalls;
    std::uint32_t s;
    int moves;
};

// When a trace of `max_steps` stops: at its last move, or once it has stalled
// more often than the limit.
struct trace_limits {
    float last_move, stall_limit;
};

inline trace_limits limits_for(unsigned max_steps) {
    return {float(max_steps) - 1.0f, halden::max_of(float(max_steps) * 0.08f, 4.0f)};
}

// A particle at its start, or false when it has no slope to follow and
// never visits a cell.
HALDEN_HD inline bool begin_trace(const surface& ground, vec2 p, std::uint32_t seed, std::uint32_t idx, tracer& t) {
    if (!ground.inside(p)) return false;
    const sampled g = ground.sample(p);
    const float len = sqrtf(g.gx * g.gx + g.gy * g.gy);
    if (len <= 0.0f) return false;
    t = {p.x, p.y, -g.gx / len, -g.gy / len, g.h, 0.0f, 0.0f, halden::xorshift(halden::seed_state(seed + idx)), 0};
    return true;
}

// Moves the tracer to `to` (inside the grid) and turns it there: downhill,
// with inertia and a random nudge. Selects rather than branches, so that
// the host's lanes vectorise it.
HALDEN_HD inline tracer turn(const surface& ground, const vec2* directions, vec2 to, tracer t) {
    t.s = halden::xorshift(t.s);
    const sampled g = ground.sample(to);
    // Not descending since the previous move: one more stall.
    const bool stalled = t.moves >= 1 && !(t.h < t.h_before);
    t.stalls = stalled ? t.stalls + 1.0f : t.stalls;
    t.h_before = t.h;
    t.h = g.h;
    const float len = sqrtf(g.gx * g.gx + g.gy * g.gy);
    const vec2 r = directions[(t.s * 625341313u - 1u) & 31u];
    const float nx = (1.2f * t.dx - g.gx / len) + 0.7f * r.x;
    const float ny = (1.2f * t.dy - g.gy / len) + 0.7f * r.y;
    const float nl = sqrtf(nx * nx + ny * ny);
    // A flat spot keeps the heading.
    t.dx = len > 0.0f ? nx / nl : t.dx;
    t.dy = len > 0.0f ? ny / nl : t.dy;
    t.x = to.x;
    t.y = to.y;
    ++t.moves;
    return t;
}

// The trace ends at the tracer's position, unvisited: at its last move, or
// once it has stalled more often than the limit.
HALDEN_HD inline bool ends(const tracer& t, trace_limits lim) {
    return float(t.moves) == lim.last_move || t.stalls > lim.stall_limit;
}

// One launch of traces. Trace k starts at starts[k] and draws as particle
// ids[k] (first_id + k without ids); particles from long_from on run the long
// limits. Visits go to a sink (below), and with `steps` each trace's visit
// count is stored at its particle.
struct trace_launch {
    const vec2* starts;
    const std::uint32_t* ids;
    std::uint32_t first_id, long_from;
    unsigned count;
    trace_limits short_limits, long_limits;
    surface ground;
    const vec2* directions;
    std::uint32_t seed;
    std::uint32_t* steps;
};

HALDEN_HD inline std::uint32_t particle_of(const trace_launch& a, unsigned k) {
    return a.ids ? a.ids[k] : a.first_id + k;
}

// A whole trace, move by move: the device's work item.
template <class Sink>
HALDEN_HD inline void run_trace(const trace_launch& a, unsigned k, const Sink& sink) {
    const std::uint32_t idx = particle_of(a, k);
    tracer t;
    if (!begin_trace(a.ground, a.starts[k], a.seed, idx, t)) return;
    const trace_limits lim = idx >= a.long_from ? a.long_limits : a.short_limits;
    std::uint32_t visits_made = 0;
    typename Sink::carried c = sink.start(a.ground.cell(t.x, t.y));
    for (;;) {
        const int cell = a.ground.cell(t.x, t.y);
        sink.ahead(c, cell);
        sink.apply(sink.visit(c, cell));
        ++visits_made;
        const vec2 to{t.x + t.dx, t.y + t.dy};
        if (!a.ground.inside(to)) break;
        t = turn(a.ground, a.directions, to, t);
        if (ends(t, lim)) break;
    }
    if (a.steps) a.steps[idx] = visits_made;
}

// Traces run side by side in the lanes of one host work item: one trace's
// moves form a chain of dependent divisions, square roots and loads, and the
// lanes' chains overlap, in vector registers where the set has them. Eight
// suit a sink whose writes stay in the caches; one whose visits miss them
// wants more loads in flight.
constexpr int lanes = 8;

using halden::compute::pick;
using halden::compute::prefetch;

// The lanes' tracers, one array per field so that a move of all lanes
// loads and stores whole vectors. A move reads one of two and writes the
// other: every field is stored whole, never masked.
template <int lanes>
struct lane_state {
    float x[lanes], y[lanes], dx[lanes], dy[lanes], h[lanes], h_before[lanes], stalls[lanes];
    std::uint32_t s[lanes];
    int moves[lanes], cell[lanes], on[lanes];
};
// What the lanes' traces keep while they run.
template <int lanes>
struct lane_traces {
    float last_move[lanes], stall_limit[lanes];
    std::uint32_t idx[lanes], made[lanes];
    int held[lanes];
};

// Moves lane l's tracer once. The lane loop's body is this call alone, so
// that the simd lowering finds no aggregate in the loop to privatise; once
// inlined, the tracer lives in registers.
template <int lanes>
HALDEN_HD inline void move_lane(const lane_state<lanes>& g, lane_state<lanes>& next, const lane_traces<lanes>& traces,
                                int l, const surface& ground, const vec2* directions) {
    const vec2 to{g.x[l] + g.dx[l], g.y[l] + g.dy[l]};
    const bool in = ground.inside(to);
    // Lanes that leave or idle sample where they are, inside the grid (a
    // lane that never ran stands at 0, 0, inside when any trace runs), and
    // keep nothing of it.
    const vec2 at{in ? to.x : g.x[l], in ? to.y : g.y[l]};
    const tracer t = turn(ground, directions, at,
                          {g.x[l], g.y[l], g.dx[l], g.dy[l], g.h[l], g.h_before[l], g.stalls[l], g.s[l], g.moves[l]});
    const bool stop = ends(t, {traces.last_move[l], traces.stall_limit[l]});
    // Selected by masks rather than by conditionals: the compiler then
    // finds no branch to turn the stores into masked ones.
    const std::uint32_t keep = g.on[l] && in;
    next.x[l] = pick(keep, t.x, g.x[l]);
    next.y[l] = pick(keep, t.y, g.y[l]);
    next.dx[l] = pick(keep, t.dx, g.dx[l]);
    next.dy[l] = pick(keep, t.dy, g.dy[l]);
    next.h[l] = pick(keep, t.h, g.h[l]);
    next.h_before[l] = pick(keep, t.h_before, g.h_before[l]);
    next.stalls[l] = pick(keep, t.stalls, g.stalls[l]);
    next.s[l] = pick(keep, t.s, g.s[l]);
    next.moves[l] = int(pick(keep, std::uint32_t(t.moves), std::uint32_t(g.moves[l])));
    next.cell[l] = int(pick(keep, std::uint32_t(ground.cell(t.x, t.y)), std::uint32_t(g.cell[l])));
    next.on[l] = int(keep & std::uint32_t(!stop));
}

// A lane group on the host: each lane runs a trace and takes the next
// unclaimed one when it ends, until the launch's counter runs out. Trace
// lengths differ by hundreds of moves; refilled lanes stay busy. Every trace
// moves exactly as run_trace moves it, and visit counts are integers, so the
// order in which lanes and threads count them changes nothing.
template <class Sink>
HALDEN_HD inline void run_lanes(const trace_launch& a, const Sink& sink, std::int32_t* claimed) {
    constexpr int lanes = Sink::lanes;
    lane_state<lanes> states[2];
    lane_traces<lanes> traces;
    typename Sink::carried carried[lanes];
    for (int l = 0; l < lanes; ++l) {
        states[0].x[l] = states[0].y[l] = states[0].dx[l] = states[0].dy[l] = 0.0f;
        states[0].h[l] = states[0].h_before[l] = states[0].stalls[l] = 0.0f;
        states[0].s[l] = 0;
        states[0].moves[l] = states[0].cell[l] = states[0].on[l] = 0;
        traces.last_move[l] = traces.stall_limit[l] = 0.0f;
        traces.idx[l] = traces.made[l] = 0;
        traces.held[l] = 0;
    }
    int current = 0;
    typename Sink::pending late[lanes];
    int late_count = 0;
    halden::compute::lane_feed feed{claimed, a.count};
    for (;;) {
        lane_state<lanes>& g = states[current];
        int running = 0;
        for (int l = 0; l < lanes; ++l) {
            if (g.on[l]) {
                ++running;
                continue;
            }
            if (traces.held[l] && a.steps) a.steps[traces.idx[l]] = traces.made[l];
            traces.held[l] = 0;
            unsigned k;
            while (feed.take(k)) {
                const std::uint32_t id = particle_of(a, k);
                tracer t;
                if (!begin_trace(a.ground, a.starts[k], a.seed, id, t)) continue;
                const trace_limits lim = id >= a.long_from ? a.long_limits : a.short_limits;
                g.x[l] = t.x, g.y[l] = t.y, g.dx[l] = t.dx, g.dy[l] = t.dy, g.h[l] = t.h, g.h_before[l] = t.h_before;
                g.stalls[l] = t.stalls, g.s[l] = t.s, g.moves[l] = t.moves, g.cell[l] = a.ground.cell(t.x, t.y);
                g.on[l] = 1;
                carried[l] = sink.start(g.cell[l]);
                sink.ahead(carried[l], g.cell[l]);
                traces.last_move[l] = lim.last_move, traces.stall_limit[l] = lim.stall_limit;
                traces.idx[l] = id, traces.made[l] = 0, traces.held[l] = 1;
                ++running;
                break;
            }
        }
        // A visit is counted one round late: the count's cache line is
        // fetched meanwhile, and the locked add, which waits for it and
        // holds up everything after it, finds it at hand.
        for (int k = 0; k < late_count; ++k) sink.apply(late[k]);
        late_count = 0;
        if (running == 0) return;
        for (int l = 0; l < lanes; ++l)
            if (g.on[l]) {
                late[late_count++] = sink.visit(carried[l], g.cell[l]);
                ++traces.made[l];
            }
        lane_state<lanes>& moved = states[current ^ 1];
        HALDEN_LANES
        for (int l = 0; l < lanes; ++l) move_lane(g, moved, traces, l, a.ground, a.directions);
        for (int l = 0; l < lanes; ++l)
            if (moved.on[l]) sink.ahead(carried[l], moved.cell[l]);
        current ^= 1;
    }
}

template <class Sink>
void run_traces(halden::compute::queue& q, const trace_launch& a, const Sink& sink, std::int32_t* claimed) {
    if (a.count == 0) return;
    const halden::compute::range<1> traces{a.count};
    if (q.get_device().get_backend() != halden::compute::backend::native) {
        q.parallel_for(
            traces, HALDEN_KERNEL(std::size_t i) { run_trace(a, unsigned(i), sink); });
        return;
    }
    const std::int32_t zero = 0;
    q.copy(&zero, claimed, sizeof zero);
    q.parallel_for(
        traces, HALDEN_KERNEL(std::size_t i) {
            if (i % halden::compute::items_per_lane_group == 0)
                halden::compute::run_wide([&] { run_lanes(a, sink, claimed); });
        });
}

// The flow map's sink: visit counts.
template <class Count>
struct count_visits {
    Count* visits;
    static constexpr int lanes = tracing::lanes;
    struct carried {};
    using pending = int;
    HALDEN_HD void ahead(carried&, int) const {}
    HALDEN_HD carried start(int) const { return {}; }
    HALDEN_HD pending visit(carried&, int cell) const {
        prefetch(&visits[cell]);
        return cell;
    }
    HALDEN_HD void apply(pending cell) const { halden::compute::atomic_add(&visits[cell], Count(1)); }
};

}  // namespace flow::tracing
