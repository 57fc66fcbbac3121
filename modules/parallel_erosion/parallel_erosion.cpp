// SPDX-License-Identifier: Apache-2.0
#include "modules/parallel_erosion/parallel_erosion.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "compute/lanes.hpp"
#include "core/checks.hpp"
#include "core/math.hpp"
#include "core/random.hpp"
#include "device/messages.hpp"
#include "modules/parallel_erosion/laplacian_level.hpp"

namespace parallel_erosion {

using halden::max_of;
using halden::min_of;
using halden::compute::queue;
using halden::compute::range;
using halden::compute::usm_ptr;

halden_callbacks callbacks{};

namespace {

using halden::core::got;
using halden::core::positive_finite;
using halden::core::within;

// Height and gradient (per cell) of the bilinear surface through the cell
// centres at (x, y); edge cells are repeated.
struct sample {
    float height, gx, gy;
};
HALDEN_HD HALDEN_FORCE_INLINE sample surface(const float* h, int w, int rows, float x, float y) {
    const float px = x - 0.5f, py = y - 0.5f;
    const float fx0 = floorf(px), fy0 = floorf(py);
    const float fx = px - fx0, fy = py - fy0;
    const int ix = int(fx0), iy = int(fy0);
    const int x0 = halden::core::clamp_index(ix, 0, w - 1), x1 = halden::core::clamp_index(ix + 1, 0, w - 1);
    const int y0 = halden::core::clamp_index(iy, 0, rows - 1), y1 = halden::core::clamp_index(iy + 1, 0, rows - 1);
    const float h00 = h[y0 * w + x0], h10 = h[y0 * w + x1], h01 = h[y1 * w + x0], h11 = h[y1 * w + x1];
    sample s;
    s.gx = (h10 - h00) * (1.0f - fy) + (h11 - h01) * fy;
    s.gy = (h01 - h00) * (1.0f - fx) + (h11 - h10) * fx;
    s.height = (h00 * (1.0f - fx) + h10 * fx) * (1.0f - fy) + (h01 * (1.0f - fx) + h11 * fx) * fy;
    return s;
}

// Lays `amount` fixed-point units down bilinearly at (x, y): the three first
// shares are rounded down and the last takes the rest, so the parts sum to
// the amount exactly.
HALDEN_HD inline void lay_down(std::int64_t* laid, int w, int rows, float x, float y, std::int64_t amount) {
    const float px = x - 0.5f, py = y - 0.5f;
    const float fx0 = floorf(px), fy0 = floorf(py);
    const float fx = px - fx0, fy = py - fy0;
    const int ix = int(fx0), iy = int(fy0);
    const int x0 = halden::core::clamp_index(ix, 0, w - 1), x1 = halden::core::clamp_index(ix + 1, 0, w - 1);
    const int y0 = halden::core::clamp_index(iy, 0, rows - 1), y1 = halden::core::clamp_index(iy + 1, 0, rows - 1);
    const double a = double(amount);
    std::int64_t rest = amount;
    const auto share = [&](float weight) {
        const std::int64_t part = std::int64_t(a * double(weight));
        const std::int64_t p = part < rest ? part : rest;
        rest -= p;
        return p;
    };
    const std::int64_t p00 = share((1.0f - fx) * (1.0f - fy));
    const std::int64_t p10 = share(fx * (1.0f - fy));
    const std::int64_t p01 = share((1.0f - fx) * fy);
    if (p00) halden::compute::atomic_add(&laid[y0 * w + x0], p00);
    if (p10) halden::compute::atomic_add(&laid[y0 * w + x1], p10);
    if (p01) halden::compute::atomic_add(&laid[y1 * w + x0], p01);
    if (rest) halden::compute::atomic_add(&laid[y1 * w + x1], rest);
}

// floor(r * weight / 2^16) for 0 <= r < 2^62 and weight <= 2^16, exactly:
// in the 32-bit halves of r, whose products the host multiplies in vector
// lanes.
HALDEN_HD inline std::int64_t part_of(std::int64_t r, std::uint32_t weight) {
    const std::uint64_t u = std::uint64_t(r);
    const std::uint64_t hi = std::uint64_t(std::uint32_t(u >> 32)) * weight;
    const std::uint64_t lo = std::uint64_t(std::uint32_t(u)) * weight;
    return std::int64_t((hi << 16) + (lo >> 16));
}

}  // namespace

std::string check(const Parameters& p) {
    if (std::string problem = halden::core::check_grid_and_scales(p.width, p.height, p.cell_size, p.height_scale);
        !problem.empty())
        return problem;
    if (!(p.droplets > 0.0f && p.droplets <= max_droplets))
        return "droplets must lie in (0, 16] per cell" + got(p.droplets);
    if (p.rounds < 0 || p.rounds > max_rounds)
        return "rounds must lie in [0, " + std::to_string(max_rounds) + "] (got " + std::to_string(p.rounds) + ")";
    if (!positive_finite(p.lifetime)) return "lifetime must be positive and finite" + got(p.lifetime);
    if (!(p.lifetime / p.cell_size <= 65536.0f))
        return "lifetime must be at most 65536 cells long" + got(p.lifetime / p.cell_size);
    if (!(p.inertia >= 0.0f && p.inertia < 1.0f)) return "inertia must lie in [0, 1)" + got(p.inertia);
    if (!(p.capacity >= 0.0f && std::isfinite(p.capacity))) return "capacity must be finite, >= 0" + got(p.capacity);
    if (!(p.min_slope >= 0.0f && std::isfinite(p.min_slope))) return "min_slope must be finite, >= 0" + got(p.min_slope);
    if (!within(p.erosion_rate, 0.0f, 1.0f)) return "erosion_rate must lie in [0, 1]" + got(p.erosion_rate);
    if (!within(p.deposition_rate, 0.0f, 1.0f)) return "deposition_rate must lie in [0, 1]" + got(p.deposition_rate);
    if (!(p.evaporation >= 0.0f && p.evaporation < 1.0f)) return "evaporation must lie in [0, 1)" + got(p.evaporation);
    if (!(p.gravity >= 0.0f && std::isfinite(p.gravity))) return "gravity must be finite, >= 0" + got(p.gravity);
    if (!within(p.brush_radius, 0.0f, max_brush_radius)) return "brush_radius must lie in [0, 8]" + got(p.brush_radius);
    if (p.flow_coupling != 0 && p.flow_coupling != 1)
        return "flow_coupling must be 0 or 1 (got " + std::to_string(p.flow_coupling) + ")";
    if (p.levels < 0 || p.levels > max_levels)
        return "levels must be 0 (automatic) or 1 to " + std::to_string(max_levels) + " (got " +
               std::to_string(p.levels) + ")";
    if (!positive_finite(p.detail_scale)) return "detail_scale must be positive and finite" + got(p.detail_scale);
    const double droplets = double(p.droplets) * double(p.width) * double(p.height);
    if (droplets > 4294967295.0) return "droplets x cells must stay below 2^32 per round" + got(float(droplets));
    return {};
}

std::uint64_t memory_estimate(const Parameters& p) {
    return 140u * std::uint64_t(p.width) * std::uint64_t(p.height);
}

namespace plan {

int levels(const Parameters& p) {
    if (p.levels > 0) return p.levels;
    int n = 1;
    for (int side = p.width < p.height ? p.width : p.height; side > 48 && n < max_levels; side -= side / 2) ++n;
    return n;
}

std::vector<std::int32_t> brush(float radius) {
    std::vector<std::int32_t> taps;
    const int reach = int(std::floor(radius));
    double total = radius;  // the centre's weight
    for (int dy = -reach; dy <= reach; ++dy)
        for (int dx = -reach; dx <= reach; ++dx)
            if (dx != 0 || dy != 0) total += std::max(radius - std::sqrt(double(dx * dx + dy * dy)), 0.0);
    for (int dy = -reach; dy <= reach; ++dy)
        for (int dx = -reach; dx <= reach; ++dx) {
            if (dx == 0 && dy == 0) continue;
            const double weight = std::max(radius - std::sqrt(double(dx * dx + dy * dy)), 0.0) / total;
            const auto units = std::int32_t(std::floor(weight * 65536.0));
            if (units > 0) taps.insert(taps.end(), {dx, dy, units});
        }
    return taps;
}

}  // namespace plan

namespace {

using halden::compute::pick;

// A droplet's state between steps. Its path depends on the frozen heights,
// the mean flow and its own draws alone, never on its load, so the tracing
// pass and the eroding pass walk it identically.
struct droplet {
    float x, y, dx, dy, speed, water;
    std::uint32_t s;
    sample here;  // the surface where it stands: the heights are frozen, so the last step's look ahead serves
};

// One step's view of the ground: the cell left, the height difference to
// the next position and the world slope downhill.
struct stride {
    int cell;
    float dh, drop;
    bool inside;  // the next position lies on the grid
    sample there;
};

// Spawns droplet `index` of the round; false when the rain keeps it back.
// Droplets are spread evenly: droplet i starts in cell i x cells / count, at
// a hashed place inside it. Neighbouring droplets then start near each
// other, which keeps a worker's memory traffic local.
HALDEN_HD HALDEN_FORCE_INLINE bool spawn(droplet& d, std::size_t index, const float* heights, const float* rain,
                                         const round_constants& k) {
    std::uint32_t s = halden::counter_state(k.seed, std::uint32_t(index), k.round);
    const std::uint64_t cells = std::uint64_t(k.w) * std::uint64_t(k.h);
    const std::uint64_t cell = std::uint64_t(index) * cells / k.count;
    // A float just below 1 keeps the position inside its cell.
    const float below_one = 0.99999994f;
    const float x = float(cell % std::uint64_t(k.w)) + min_of(halden::uniform_f(s), below_one);
    s = halden::xorshift(s);
    const float y = float(cell / std::uint64_t(k.w)) + min_of(halden::uniform_f(s), below_one);
    if (rain) {
        s = halden::xorshift(s);
        if (!(halden::uniform_f(s) < rain[int(y) * k.w + int(x)])) return false;
    }
    d = {x, y, 0.0f, 0.0f, 1.0f, 1.0f, s, surface(heights, k.w, k.h, x, y)};
    return true;
}

// What the droplet passes read besides the heights.
struct walk_inputs {
    const float *heights, *rain, *mean_x, *mean_y;
};

// Turns the droplet downhill (with inertia and, coupled, towards the mean
// flow) and measures the step; the droplet has not moved yet. Selects
// rather than branches, so that the host's lanes vectorise it.
template <bool coupled>
HALDEN_HD HALDEN_FORCE_INLINE stride look(droplet& d, const walk_inputs& in, const round_constants& k) {
    const int w = k.w, rows = k.h;
    const int cell = int(d.y) * w + int(d.x);
    const sample here = d.here;
    float dx = d.dx * k.inertia - here.gx * k.slope_scale * (1.0f - k.inertia);
    float dy = d.dy * k.inertia - here.gy * k.slope_scale * (1.0f - k.inertia);
    if constexpr (coupled) {
        dx = dx + lean * in.mean_x[cell];
        dy = dy + lean * in.mean_y[cell];
    }
    float len = sqrtf(dx * dx + dy * dy);
    // On flat ground the droplet takes a direction of its own: two draws,
    // and +x should both come out zero.
    const std::uint32_t s1 = halden::xorshift(d.s), s2 = halden::xorshift(s1);
    float rx = halden::uniform_f(s1) * 2.0f - 1.0f;
    const float ry = halden::uniform_f(s2) * 2.0f - 1.0f;
    float rlen = sqrtf(rx * rx + ry * ry);
    const bool none = !(rlen > 0.0f);
    rx = none ? 1.0f : rx;
    rlen = none ? 1.0f : rlen;
    const bool flat = !(len > 1e-20f);
    d.s = flat ? s2 : d.s;
    dx = flat ? rx : dx;
    dy = flat ? ry : dy;
    len = flat ? rlen : len;
    d.dx = dx / len;
    d.dy = dy / len;
    const float nx = d.x + d.dx, ny = d.y + d.dy;
    stride st;
    st.cell = cell;
    st.inside = nx >= 0.0f && ny >= 0.0f && nx < float(w) && ny < float(rows);
    // A droplet about to leave samples where it stands and keeps nothing of it.
    st.there = surface(in.heights, w, rows, st.inside ? nx : d.x, st.inside ? ny : d.y);
    st.dh = st.there.height - here.height;
    st.drop = -st.dh * k.slope_scale;  // world slope, downhill positive
    return st;
}

// Moves the droplet on: speed from the drop, water lost to evaporation.
HALDEN_HD HALDEN_FORCE_INLINE void move_on(droplet& d, const stride& st, const round_constants& k) {
    d.speed = sqrtf(max_of(d.speed * d.speed + st.drop * k.gravity, 0.0f));
    d.water = d.water * (1.0f - k.evaporation);
    d.x = d.x + d.dx;
    d.y = d.y + d.dy;
    d.here = st.there;
}

// The passes: what a step leaves behind. visit() is called once per step,
// before the droplet moves on, with the number of steps it made before; it
// says whether the droplet walks on. finish() adds the pass's own totals
// once per work item.

// Gathers the water stepping off each cell and, coupled, its momentum.
template <bool coupled>
struct tracing_pass {
    round_grids g;
    round_constants k;
    std::int64_t walked = 0;
    struct carried {};
    HALDEN_HD bool visit(carried&, const droplet& d, const stride& st, int step) {
        const halden::core::fixed_point fixed{fixed_shift};
        halden::core::accumulate(&g.flux[st.cell], d.water, fixed, g.overflow);
        if (coupled && st.inside) {
            const float water = d.water * (1.0f - k.evaporation);  // as move_on leaves it
            halden::core::accumulate(&g.momentum[2 * st.cell], water * d.dx, fixed, g.overflow);
            halden::core::accumulate(&g.momentum[2 * st.cell + 1], water * d.dy, fixed, g.overflow);
        }
        const bool on = st.inside && step + 1 < k.steps;
        if (!on) walked += step + 1;
        return on;
    }
    HALDEN_HD void finish() const {
        if (walked) halden::compute::atomic_add(g.steps, walked);
    }
};

// Takes up and lays down sediment.
struct eroding_pass {
    round_grids g;
    round_constants k;
    const float* hardness;
    std::int64_t left = 0;
    struct carried {
        std::int64_t load = 0;
    };
    HALDEN_HD bool visit(carried& c, const droplet& d, const stride& st, int step) {
        const halden::core::fixed_point fixed{fixed_shift};
        std::int64_t load = c.load;
        if (!st.inside) {
            left += load;
            return false;
        }
        // The droplets stepping off a cell share its drop in proportion to
        // their water: together they lower it, or fill it, by about one drop
        // per round, which keeps frozen-height rounds stable.
        const float share = d.water / max_of(g.passing[st.cell], d.water);
        const float capacity = max_of(st.drop, k.min_slope) * d.speed * d.water * k.capacity / k.slope_scale;
        const float carried = fixed.decode(load);
        if (st.dh > 0.0f || carried > capacity) {
            // Uphill, fill the pit behind; else drop a share of the excess.
            const float amount =
                st.dh > 0.0f ? min_of(st.dh * share, carried) : (carried - capacity) * k.deposition_rate;
            std::int64_t units = fixed.encode(amount, g.overflow);
            units = units < load ? units : load;
            if (units > 0) {
                lay_down(g.laid, k.w, k.h, d.x, d.y, units);
                load -= units;
            }
        } else {
            float amount = min_of((capacity - carried) * k.erosion_rate, -st.dh * share);
            if (hardness) amount = amount * (1.0f - min_of(max_of(hardness[st.cell], 0.0f), 1.0f));
            const std::int64_t units = fixed.encode(amount, g.overflow);
            if (units > 0) {
                halden::compute::atomic_add(&g.request[st.cell], units);
                load += units;
            }
        }
        c.load = load;
        if (step + 1 < k.steps) return true;
        // Its lifetime over, the droplet drops its load where it moves to.
        if (load) lay_down(g.laid, k.w, k.h, d.x + d.dx, d.y + d.dy, load);
        return false;
    }
    HALDEN_HD void finish() const {
        if (left) halden::compute::atomic_add(g.left, left);
    }
};

// A whole droplet, step by step: the device's work item.
template <bool coupled, class Pass>
HALDEN_HD inline void walk(Pass& pass, std::size_t index, const walk_inputs& in, const round_constants& k) {
    droplet d;
    if (!spawn(d, index, in.heights, in.rain, k)) return;
    typename Pass::carried c{};
    for (int step = 0;; ++step) {
        const stride st = look<coupled>(d, in, k);
        if (!pass.visit(c, d, st, step)) return;
        move_on(d, st, k);
    }
}

// Droplets per host lane group: sixteen keep two vectors' chains in flight.
constexpr int lanes = 16;

// The lanes' droplets and the strides they looked at, one array per field,
// so that a step of all lanes loads and stores whole vectors.
template <int L>
struct lane_state {
    float x[L], y[L], dx[L], dy[L], speed[L], water[L], h[L], gx[L], gy[L];
    std::uint32_t s[L];
    std::uint32_t moving[L];  // the droplet walks on over the stride it looked at
    int cell[L];
    std::uint32_t inside[L];
    float dh[L], drop[L], th[L], tgx[L], tgy[L];

    HALDEN_HD droplet get(int l) const {
        return {x[l], y[l], dx[l], dy[l], speed[l], water[l], s[l], {h[l], gx[l], gy[l]}};
    }
    HALDEN_HD stride looked(int l) const { return {cell[l], dh[l], drop[l], inside[l] != 0, {th[l], tgx[l], tgy[l]}}; }
    HALDEN_HD void put(int l, const droplet& d) {
        x[l] = d.x, y[l] = d.y, dx[l] = d.dx, dy[l] = d.dy, speed[l] = d.speed, water[l] = d.water, s[l] = d.s;
        h[l] = d.here.height, gx[l] = d.here.gx, gy[l] = d.here.gy;
    }
};

// Steps lane l: moves the droplet over the stride it looked at last, if it
// walks on, and looks at the next. Every field is stored whole, never
// masked; a lane without a droplet steps in place, harmlessly.
template <bool coupled, int L>
HALDEN_HD HALDEN_FORCE_INLINE void step_lane(lane_state<L>& a, int l, const walk_inputs& in, const round_constants& k) {
    const droplet was = a.get(l);
    droplet d = was;
    move_on(d, a.looked(l), k);
    const std::uint32_t go = a.moving[l];
    d.x = pick(go, d.x, was.x);
    d.y = pick(go, d.y, was.y);
    d.speed = pick(go, d.speed, was.speed);
    d.water = pick(go, d.water, was.water);
    d.here.height = pick(go, d.here.height, was.here.height);
    d.here.gx = pick(go, d.here.gx, was.here.gx);
    d.here.gy = pick(go, d.here.gy, was.here.gy);
    const stride st = look<coupled>(d, in, k);
    a.put(l, d);
    a.moving[l] = 0;
    a.cell[l] = st.cell;
    a.inside[l] = st.inside;
    a.dh[l] = st.dh;
    a.drop[l] = st.drop;
    a.th[l] = st.there.height;
    a.tgx[l] = st.there.gx;
    a.tgy[l] = st.there.gy;
}

// A lane group on the host: each lane walks a droplet and takes the next
// unclaimed one when it ends, until the launch's counter runs out. Every
// droplet walks exactly as walk() walks it, and what passes leave behind
// are integer sums, so the order in which lanes and threads add them
// changes nothing.
template <bool coupled, class Pass>
HALDEN_HD inline void run_lanes(Pass& pass, const walk_inputs& in, const round_constants& k, std::int32_t* claimed) {
    lane_state<lanes> a{};
    typename Pass::carried carried[lanes];
    int steps[lanes] = {};
    bool on[lanes] = {};
    halden::compute::lane_feed feed{claimed, k.count};
    // Puts the next droplet into lane l; false once none is left.
    const auto refill = [&](int l) {
        unsigned index;
        while (feed.take(index)) {
            droplet d;
            if (!spawn(d, index, in.heights, in.rain, k)) continue;
            a.put(l, d);
            a.moving[l] = 0;
            carried[l] = {};
            steps[l] = 0;
            return true;
        }
        return false;
    };
    for (int l = 0; l < lanes; ++l) on[l] = refill(l);
    for (;;) {
        HALDEN_LANES
        for (int l = 0; l < lanes; ++l) step_lane<coupled>(a, l, in, k);
        int running = 0;
        for (int l = 0; l < lanes; ++l) {
            if (!on[l]) continue;
            if (pass.visit(carried[l], a.get(l), a.looked(l), steps[l])) {
                ++steps[l];
                a.moving[l] = 1;
            } else {
                on[l] = refill(l);
            }
            running += on[l];
        }
        if (running == 0) return;
    }
}

// Launches a pass over the round's droplets: one work item per droplet on
// a device, lane groups on the host.
template <bool coupled, class Pass>
void launch(queue& q, const Pass& pass, const walk_inputs& in, const round_constants& k, std::int32_t* claimed,
            bool host_lanes) {
    if (!host_lanes || q.get_device().get_backend() != halden::compute::backend::native) {
        q.parallel_for(range<1>{k.count}, HALDEN_KERNEL(std::size_t i) {
            Pass p = pass;
            walk<coupled>(p, i, in, k);
            p.finish();
        });
        return;
    }
    const std::int32_t zero = 0;
    q.copy(&zero, claimed, sizeof zero);
    q.parallel_for(range<1>{k.count}, HALDEN_KERNEL(std::size_t i) {
        if (i % halden::compute::items_per_lane_group != 0) return;
        Pass p = pass;
        halden::compute::run_wide([&] { run_lanes<coupled>(p, in, k, claimed); });
        p.finish();
    });
}

}  // namespace

void trace_droplets(queue& q, const float* heights, const float* rain, const float* mean_x, const float* mean_y,
                    const round_grids& g, const round_constants& k, std::int32_t* claimed, bool host_lanes) {
    const walk_inputs in{heights, rain, mean_x, mean_y};
    if (k.coupled)
        launch<true>(q, tracing_pass<true>{g, k}, in, k, claimed, host_lanes);
    else
        launch<false>(q, tracing_pass<false>{g, k}, in, k, claimed, host_lanes);
}

void run_droplets(queue& q, const float* heights, const float* rain, const float* hardness, const float* mean_x,
                  const float* mean_y, const round_grids& g, const round_constants& k, std::int32_t* claimed,
                  bool host_lanes) {
    const walk_inputs in{heights, rain, mean_x, mean_y};
    const eroding_pass pass{g, k, hardness};
    if (k.coupled)
        launch<true>(q, pass, in, k, claimed, host_lanes);
    else
        launch<false>(q, pass, in, k, claimed, host_lanes);
}

void soften(queue& q, const float* hardness, std::int32_t* soft, int w, int h, int reach) {
    const int cols = w + 2 * reach;
    q.parallel_for(
        range<2>{std::size_t(h + 2 * reach), std::size_t(cols)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const int x = int(col) - reach, y = int(row) - reach;
            const bool in = x >= 0 && y >= 0 && x < w && y < h;
            std::int32_t s = in ? 65536 : 0;
            if (hardness && in) {
                const float hard = min_of(max_of(hardness[y * w + x], 0.0f), 1.0f);
                s = 65536 - std::int32_t(hard * 65536.0f + 0.5f);
            }
            soft[row * cols + col] = s;
        });
}

void pad(queue& q, const std::int64_t* request, std::int64_t* padded, int w, int h, int reach) {
    const int cols = w + 2 * reach;
    q.parallel_for(
        range<2>{std::size_t(h + 2 * reach), std::size_t(cols)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const int x = int(col) - reach, y = int(row) - reach;
            const bool in = x >= 0 && y >= 0 && x < w && y < h;
            padded[row * cols + col] = in ? request[in ? y * w + x : 0] : 0;
        });
}

void spread(queue& q, const std::int64_t* padded, const std::int32_t* soft, const std::int32_t* taps, int n, int reach,
            std::int64_t* eroded, int w, int h) {
    const int cols = w + 2 * reach;
    q.parallel_for(range<2>{std::size_t(h), std::size_t(w)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        // The margins read as zero requests and zero softness: no
        // request comes from outside the grid and none is given to it,
        // and the loads run unchecked along the row.
        const int p = (int(row) + reach) * cols + int(col) + reach;
        const std::uint32_t soft_here = std::uint32_t(soft[p]);
        const std::int64_t r = padded[p];
        std::int64_t total = r;
        for (int t = 0; t < n; ++t) {
            const int offset = taps[3 * t + 1] * cols + taps[3 * t];
            const std::uint64_t weight = std::uint32_t(taps[3 * t + 2]);
            // What the request a tap away puts here, less what this
            // cell's request gives the cell the tap reaches.
            total += part_of(padded[p - offset], std::uint32_t((weight * soft_here) >> 16));
            total -= part_of(r, std::uint32_t((weight * std::uint32_t(soft[p + offset])) >> 16));
        }
        eroded[std::size_t(row) * std::size_t(w) + col] = total;
    });
}

ParallelErosion::ParallelErosion(queue& q, float* h_heights, const float* h_rain, const float* h_hardness,
                                 float* h_erosion, float* h_deposition, float* h_discharge,
                                 const Parameters& parameters, const halden_callbacks* callbacks)
    : m_queue(q),
      m_parameters(parameters),
      m_heights(h_heights),
      m_erosion(h_erosion),
      m_deposition(h_deposition),
      m_discharge(h_discharge),
      m_callbacks(halden::complete(callbacks)) {
    const std::string problem = check(m_parameters);
    if (!problem.empty()) throw std::invalid_argument(problem);
    const auto upload = [&](const float* host, const char* label) {
        return halden::core::upload_optional(q, host, m_parameters.width, m_parameters.height, label);
    };
    m_rain = upload(h_rain, "rain");
    m_hardness = upload(h_hardness, "hardness");
    m_finest = std::make_unique<LaplacianLevel>(q, upload(h_heights, "heights"), plan::levels(m_parameters) - 1);
    const std::vector<std::int32_t> taps = plan::brush(m_parameters.brush_radius);
    m_tap_count = int(taps.size() / 3);
    for (std::size_t t = 0; t < taps.size(); t += 3)
        m_reach = std::max({m_reach, std::abs(taps[t]), std::abs(taps[t + 1])});
    m_taps = usm_ptr<std::int32_t, 1>(q, {taps.empty() ? 1 : taps.size()}, "brush");
    if (!taps.empty()) m_taps.copy_from_host(taps.data());
}

ParallelErosion::~ParallelErosion() {
    try {
        m_queue.synchronize();
    } catch (...) {
    }
}

bool ParallelErosion::report_progress() {
    m_queue.synchronize();
    const bool stop = m_callbacks.progress(float(100.0 * m_done / m_total)) != 0;
    return !stop && m_callbacks.cancel() == 0;
}

namespace {

void zero(queue& q, std::int64_t* d, std::size_t n) {
    q.parallel_for(range<1>{n}, HALDEN_KERNEL(std::size_t i) { d[i] = 0; });
}

// Kernels of the level loop, outside the class: the device compiler wants
// the functions around its lambdas public.
void clear_flag(queue& q, std::uint32_t* flag) {
    q.parallel_for(range<1>{1}, HALDEN_KERNEL(std::size_t) { *flag = 0; });
}

// The round's traced water, as floats, for the shares; the sums restart.
void take_passing(queue& q, float* passing, std::int64_t* flux, std::size_t cells) {
    q.parallel_for(range<1>{cells}, HALDEN_KERNEL(std::size_t i) {
        passing[i] = halden::core::fixed_point{fixed_shift}.decode(flux[i]);
        flux[i] = 0;
    });
}

// The level's grids a round updates.
struct level_view {
    float *heights, *deposited, *eroded, *water, *mean_x, *mean_y;
    const float* passing;
};

// Applies the round: heights, the running maps and the mean flow; the
// fixed-point sums restart.
void apply_round(queue& q, const level_view& v, const round_grids& g, std::size_t cells, bool coupled) {
    q.parallel_for(range<1>{cells}, HALDEN_KERNEL(std::size_t i) {
        const halden::core::fixed_point fixed{fixed_shift};
        const std::int64_t down = g.laid[i], up = g.eroded[i];
        v.heights[i] = v.heights[i] + fixed.decode(down - up);
        v.deposited[i] = v.deposited[i] + fixed.decode(down);
        v.eroded[i] = v.eroded[i] + fixed.decode(up);
        const float water = v.passing[i];
        v.water[i] = v.water[i] + water;
        if (coupled) {
            // The mean direction of this round's water, blended with the last.
            const float mx = water > 0.0f ? fixed.decode(g.momentum[2 * i]) / water : 0.0f;
            const float my = water > 0.0f ? fixed.decode(g.momentum[2 * i + 1]) / water : 0.0f;
            v.mean_x[i] = 0.5f * v.mean_x[i] + 0.5f * mx;
            v.mean_y[i] = 0.5f * v.mean_y[i] + 0.5f * my;
            g.momentum[2 * i] = 0;
            g.momentum[2 * i + 1] = 0;
        }
        g.request[i] = 0;
        g.laid[i] = 0;
    });
}

std::int64_t host_sum(queue& q, const usm_ptr<std::int64_t, 1>& g, std::size_t n) {
    std::vector<std::int64_t> v(n);
    q.copy(g.get(), v.data(), n * sizeof(std::int64_t));
    q.synchronize();
    std::int64_t s = 0;
    for (std::int64_t x : v) s += x;
    return s;
}

}  // namespace

bool ParallelErosion::erode(LaplacianLevel& level, int level_index) {
    queue& q = m_queue;
    const Parameters& p = m_parameters;
    const int w = level.width(), h = level.height();
    const std::size_t cells = std::size_t(w) * std::size_t(h);
    const bool coupled = p.flow_coupling != 0;
    usm_ptr<std::int64_t, 1> request(q, {cells}, "erosion requests"), eroded(q, {cells}, "erosion"),
        laid(q, {cells}, "deposits"), flux(q, {cells}, "water flux"),
        momentum(q, {coupled ? 2 * cells : 1}, "momentum"), left(q, {1}, "sediment leaving"),
        steps(q, {1}, "steps");
    usm_ptr<std::uint32_t, 1> overflow(q, {1}, "overflow flag");
    usm_ptr<std::int32_t, 1> claimed(q, {1}, "droplets claimed");
    for (auto* g : {&request, &eroded, &laid, &flux, &momentum, &left, &steps}) zero(q, g->get(), g->size());
    std::uint32_t* d_overflow = overflow.get();
    clear_flag(q, d_overflow);

    // The rain and hardness of this level: reduced from the finest level's.
    grid rain, hardness;
    const auto reduced = [&](const grid& finest, const char* label) {
        grid g;
        if (!finest.get()) return g;
        g = grid(q, finest.extent(), label);
        q.copy(finest.get(), g.get(), finest.bytes());
        while (halden::core::width_of(g) != w || halden::core::height_of(g) != h) g = halden::core::reduce(g, label);
        return g;
    };
    rain = reduced(m_rain, "rain");
    hardness = reduced(m_hardness, "hardness");
    const std::size_t padded_cells = std::size_t(w + 2 * m_reach) * std::size_t(h + 2 * m_reach);
    usm_ptr<std::int64_t, 1> padded(q, {padded_cells}, "padded requests");
    usm_ptr<std::int32_t, 1> soft(q, {padded_cells}, "softness");
    soften(q, hardness.get(), soft.get(), w, h, m_reach);

    const float cell = p.cell_size * float(p.width) / float(w);
    round_constants k{};
    k.w = w;
    k.h = h;
    k.seed = p.seed;
    k.count = std::uint32_t(std::ceil(double(p.droplets) * double(cells)));
    k.steps = std::max(1, int(p.lifetime / cell));
    k.slope_scale = p.height_scale / cell;
    k.inertia = p.inertia;
    k.capacity = p.capacity;
    k.min_slope = p.min_slope;
    k.erosion_rate = p.erosion_rate;
    k.deposition_rate = p.deposition_rate;
    k.evaporation = p.evaporation;
    k.gravity = p.gravity;
    k.coupled = coupled;
    float* d_passing = level.layer(LaplacianLevel::passing_grid).get();
    const round_grids g{request.get(), eroded.get(), laid.get(), flux.get(), momentum.get(), left.get(), steps.get(),
                        d_passing, d_overflow};

    float* d_heights = level.heights().get();
    float* d_deposited = level.layer(LaplacianLevel::carried_grid).get();
    float* d_water = level.layer(LaplacianLevel::water_grid).get();
    float* d_eroded = level.layer(LaplacianLevel::capacity_grid).get();
    float* d_mean_x = level.layer(LaplacianLevel::mean_x_grid).get();
    float* d_mean_y = level.layer(LaplacianLevel::mean_y_grid).get();
    std::int64_t* d_request = request.get();
    std::int64_t* d_eroded_units = eroded.get();
    std::int64_t* d_flux = flux.get();
    const auto round_number = [&](int r) {
        return std::uint32_t(level_index) * std::uint32_t(max_rounds) + std::uint32_t(r);
    };
    const level_view view{d_heights, d_deposited, d_eroded, d_water, d_mean_x, d_mean_y, d_passing};
    const std::uint64_t steps_before = m_steps;
    for (int r = 0; r < p.rounds; ++r) {
        k.round = round_number(r);
        // The shares come from tracing the round's own droplets first: the
        // water of the round before would not do, as droplets turning into
        // a cell that was dry would each take its whole drop.
        trace_droplets(q, d_heights, rain.get(), d_mean_x, d_mean_y, g, k, claimed.get(), m_host_lanes);
        take_passing(q, d_passing, d_flux, cells);
        run_droplets(q, d_heights, rain.get(), hardness.get(), d_mean_x, d_mean_y, g, k, claimed.get(), m_host_lanes);
        pad(q, d_request, padded.get(), w, h, m_reach);
        spread(q, padded.get(), soft.get(), m_taps.get(), m_tap_count, m_reach, d_eroded_units, w, h);
        if (m_count_mass) {
            m_mass.taken += host_sum(q, request, cells);
            m_mass.spread += host_sum(q, eroded, cells);
            m_mass.laid += host_sum(q, laid, cells);
            m_mass.left += host_sum(q, left, 1);
            zero(q, left.get(), 1);
        }
        apply_round(q, view, g, cells, coupled);
        std::uint32_t flagged = 0;
        q.copy(d_overflow, &flagged, sizeof flagged);
        std::int64_t walked = 0;
        q.copy(steps.get(), &walked, sizeof walked);
        m_done += double(cells);
        ++m_rounds_run;
        if (!report_progress()) return false;
        m_steps = steps_before + std::uint64_t(walked);
        if (flagged)
            throw std::overflow_error("sediment or water overflowed its 64-bit fixed-point range; lower the "
                                      "heights' magnitude or the droplet density");
    }
    return true;
}

bool ParallelErosion::process() {
    const Parameters& p = m_parameters;
    const std::vector<LaplacianLevel*> chain = m_finest->build_chain();
    m_total = halden::core::cells_of(chain) * double(p.rounds > 0 ? p.rounds : 1);
    m_done = 0.0;
    const float detail = p.detail_scale / p.height_scale;
    const bool coupled = p.flow_coupling != 0;
    for (std::size_t i = chain.size(); i-- > 0;) {
        LaplacianLevel& level = *chain[i];
        if (coupled)
            level.init<true>();
        else
            level.init<false>();
        if (i + 1 < chain.size()) {
            level.reconstruct_previous_level(detail);
            level.release_coarser();
            // No finer level reads the finest level's carried material and
            // capacity, so they restart there and become the caller's
            // deposition and erosion maps: this level's own work alone.
            if (i == 0) {
                halden::core::fill(level.layer(LaplacianLevel::carried_grid), 0.0f);
                halden::core::fill(level.layer(LaplacianLevel::capacity_grid), 0.0f);
            }
        }
        if (!erode(level, int(chain.size() - 1 - i))) return false;
    }
    m_queue.synchronize();
    if (m_queue.has_pending_errors()) return true;
    LaplacianLevel& f = *m_finest;
    f.heights().copy_to_host(m_heights);
    if (m_erosion) f.layer(LaplacianLevel::capacity_grid).copy_to_host(m_erosion);
    if (m_deposition) f.layer(LaplacianLevel::carried_grid).copy_to_host(m_deposition);
    if (m_discharge) {
        // Water per droplet density and round, folded into [0, 1).
        float* d_water = f.layer(LaplacianLevel::water_grid).get();
        const float norm = 1.0f / (16.0f * p.droplets * float(p.rounds > 0 ? p.rounds : 1));
        m_queue.parallel_for(range<1>{f.heights().size()}, HALDEN_KERNEL(std::size_t i) {
            const float x = d_water[i] * norm;
            d_water[i] = x / (x + 1.0f);
        });
        f.layer(LaplacianLevel::water_grid).copy_to_host(m_discharge);
    }
    m_queue.synchronize();
    return true;
}

}  // namespace parallel_erosion
