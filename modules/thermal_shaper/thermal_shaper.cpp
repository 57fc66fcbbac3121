// SPDX-License-Identifier: Apache-2.0
#include "modules/thermal_shaper/thermal_shaper.hpp"

#include <cmath>
#include <stdexcept>
#include <vector>

#include "core/checks.hpp"
#include "core/grid.hpp"
#include "core/math.hpp"
#include "modules/thermal_shaper/laplacian_level.hpp"

namespace thermal_shaper {

using halden::max_of;
using halden::min_of;
using halden::compute::queue;
using halden::compute::range;

halden_callbacks callbacks{};

namespace {

using halden::core::positive_finite;

}  // namespace

std::string check(const Parameters& p) {
    if (std::string problem = halden::core::check_grid_size(p.width, p.height); !problem.empty()) return problem;
    if (!positive_finite(p.height_scale)) return "height_scale must be positive and finite";
    if (!positive_finite(p.extent)) return "extent must be positive and finite";
    if (!positive_finite(p.level_factor)) return "level_factor must be positive and finite";
    if (!std::isfinite(p.strength)) return "strength must be finite";
    if (!std::isfinite(p.amount)) return "amount must be finite";
    const float n = plan::level_count(p);
    if (!(n <= float(max_levels)))
        return "the pyramid would need more than " + std::to_string(max_levels) +
               " levels; raise height_scale or lower level_factor";
    // Each level scales its slopes by level width * height_scale / extent and
    // its steps by the inverse: both must stay finite and non-zero on every
    // level (the finest and the coarsest bound them), or the result is NaN.
    int coarsest = p.width;
    for (int i = 1; i < plan::levels(n); ++i) coarsest -= coarsest / 2;
    for (int wl : {p.width, coarsest}) {
        const float g = float(wl) * p.height_scale / p.extent, e = p.extent / (float(wl) * p.height_scale);
        const float gk = g * halden::exp2_p(float(max_levels) * 0.5849625f);
        if (!positive_finite(g) || !positive_finite(e) || !std::isfinite(gk))
            return "height_scale / extent is too extreme: width * height_scale / extent must stay finite and "
                   "non-zero on every level (got " +
                   std::to_string(p.height_scale) + " / " + std::to_string(p.extent) + ")";
    }
    return {};
}

std::uint64_t memory_estimate(const Parameters& p, bool masked) {
    return (masked ? 64u : 48u) * std::uint64_t(p.width) * std::uint64_t(p.height) / 3u;
}

namespace plan {

float level_count(const Parameters& p) {
    float n = halden::log2_p(float(p.width) * p.level_factor / p.height_scale);
    if (n < 1.0f) n = halden::tanh_p(n - 1.0f) + 1.0f;
    return n;
}

int levels(float n) {
    const float c = std::ceil(n);
    return c < 1.0f ? 1 : int(c);
}

float level_weight(int levels, float amount, float initial_weight) {
    const float f = fmaf(0.25f, amount, 0.25f);
    float sum = 0.0f, term = 64.0f;
    for (int i = 0; i < levels; ++i) {
        sum += term;
        term *= f;
    }
    return initial_weight * 64.0f / sum;
}

passes for_level(const Parameters& p, int depth, int level_width, float fraction, float weight, float amount) {
    passes out;
    const float u = max_of(float(depth - 1) + fraction, 0.0f);
    const float scale = halden::exp2_p(-u);
    const float base = (depth < 1 ? fraction : 1.0f) * weight;
    const float count = base * scale;
    const float whole = std::ceil(count);
    if (!(whole > 0.0f)) return out;
    out.count = int(whole);
    const float wl = float(level_width);
    out.g = wl * p.height_scale / p.extent;
    out.e = p.extent / (wl * p.height_scale);
    out.gk = out.g * halden::exp2_p(u * 0.5849625f);  // 1.5^u
    out.rate = amount;
    out.last_rate = amount * (count - std::floor(count));
    return out;
}

}  // namespace plan

ThermalShaper::ThermalShaper(queue& q, float* h_heights, const float* h_mask, const Parameters& parameters)
    : m_queue(q), m_parameters(parameters), m_heights(h_heights), m_masked(h_mask != nullptr) {
    const std::string problem = check(m_parameters);
    if (!problem.empty()) throw std::invalid_argument(problem);
    const range<2> extent = halden::core::grid_extent(m_parameters.width, m_parameters.height);
    const float n = plan::level_count(m_parameters);
    m_fraction = n - std::floor(n);
    m_input = grid(q, extent, "input heights");
    m_input.copy_from_host(h_heights);
    grid heights(q, extent, "heights");
    q.copy(m_input.get(), heights.get(), m_input.bytes());
    grid mask;
    if (h_mask) {
        mask = grid(q, extent, "mask");
        mask.copy_from_host(h_mask);
    }
    m_finest = std::make_unique<LaplacianLevel>(q, std::move(heights), std::move(mask), plan::levels(n) - 1);
}

// The levels and the input die with the shaper; the queue waits for the
// kernels that still read them first.
ThermalShaper::~ThermalShaper() {
    try {
        m_queue.synchronize();
    } catch (...) {
    }
}

void ThermalShaper::process() {
    queue& q = m_queue;
    const Parameters& p = m_parameters;
    const int w = p.width, h = p.height;
    const range<2> extent = halden::core::grid_extent(w, h);

    // A non-negative amount shapes the negated field and turns it back in the blend.
    float amount = p.amount;
    m_invert = amount >= 0.0f;
    if (amount < 0.0f) {
        amount = -amount;
    } else {
        float* d = m_finest->heights().get();
        q.parallel_for(extent, HALDEN_KERNEL(std::size_t row, std::size_t col) {
            const std::size_t i = row * std::size_t(w) + col;
            d[i] = -d[i];
        });
    }
    m_amount = amount;

    // The finest level's depth is the level count less one.
    const std::vector<LaplacianLevel*> chain = m_finest->build_chain();
    m_level_weight = plan::level_weight(int(chain.size()), amount, m_level_weight);

    const auto shape = [&](LaplacianLevel& level) {
        if (m_masked)
            process_level<0, true>(level);
        else
            process_level<0, false>(level);
    };
    for (std::size_t i = chain.size() - 1; i > 0; --i) {
        shape(*chain[i]);
        chain[i - 1]->reconstruct_previous_level(p);
    }
    shape(*chain.front());

    float* d_out = m_finest->heights().get();
    const float* d_input = m_input.get();
    const float t = p.strength;
    const bool invert = m_invert;
    q.parallel_for(extent, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const std::size_t i = row * std::size_t(w) + col;
        const float h0 = d_input[i];
        const float v = invert ? -d_out[i] : d_out[i];
        d_out[i] = h0 + (v - h0) * t;
    });

    // A failed device leaves the caller's heights as they were.
    q.synchronize();
    if (q.has_pending_errors()) return;
    m_finest->heights().copy_to_host(m_heights);
    q.synchronize();
}

template <bool Masked>
void shape_pass(queue& q, const float* in, float* out, int w, int h, const float* mask, const pass_constants& k) {
    const float g = k.g, gk = k.gk, e = k.e, r = k.r;
    q.parallel_for(range<2>{std::size_t(h), std::size_t(w)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const int y = int(row), x = int(col);
        const int xl = x > 0 ? x - 1 : 0, xr = x + 1 < w ? x + 1 : w - 1;
        const float* above = in + (y > 0 ? y - 1 : 0) * w;
        const float* mid = in + y * w;
        const float* below = in + (y + 1 < h ? y + 1 : h - 1) * w;
        const float nw = above[xl], n = above[x], ne = above[xr];
        const float we = mid[xl], c = mid[x], ea = mid[xr];
        const float sw = below[xl], s = below[x], se = below[xr];

        // Scharr gradient, scaled to slope units.
        float gx = 3.0f * ((ne - (nw + sw)) + se) + 10.0f * (ea - we);
        float gy = 3.0f * ((ne + nw) - (se + sw)) + 10.0f * (n - s);
        gx = gx * g / 32.0f;
        gy = gy * (-g / 32.0f);
        const float slope = sqrtf(gx * gx + gy * gy);
        // 0.7071 as written, not 1/sqrt(2).
        const float weight = slope <= 0.0f ? 0.0f : 1.0f - 1.0f / (1.0f + halden::pow_p(0.1f * slope, 0.7071f));
        // Height above the weighted mean of the eight neighbours.
        const float curvature = fmaf(((nw + ne) + sw) + se, -0.10355339f, fmaf(((n + we) + ea) + s, -0.14644662f, c));
        float lowering = weight * min_of(-(slope + gk * curvature), 0.0f) * r;
        if (Masked) lowering = lowering * mask[y * w + x];
        // Never below the lowest neighbour (diagonals count at 0.7071 of
        // their drop); a pit rises toward its lowest neighbour instead.
        const float diagonal = max_of(max_of(max_of(c - nw, c - ne), c - sw), c - se);
        const float side = max_of(max_of(max_of(c - n, c - we), c - ea), c - s);
        const float drop = max_of(0.7071f * diagonal, side);
        const float step = max_of(lowering, -(g * drop));
        out[y * w + x] = c + step * e;
    });
}

template void shape_pass<false>(queue&, const float*, float*, int, int, const float*, const pass_constants&);
template void shape_pass<true>(queue&, const float*, float*, int, int, const float*, const pass_constants&);

template <int Variant, bool Masked>
void ThermalShaper::process_level(LaplacianLevel& level) {
    static_assert(Variant == 0, "only the slope-and-curvature variant exists");
    const plan::passes plan =
        plan::for_level(m_parameters, level.depth(), level.width(), m_fraction, m_level_weight, m_amount);
    if (plan.count <= 0) return;

    const float* d_mask = Masked ? level.mask().get() : nullptr;
    grid work(m_queue, level.heights().extent(), "shaping pass");
    grid* src = &level.heights();
    grid* dst = &work;
    for (int pass = 0; pass < plan.count; ++pass) {
        const pass_constants k{plan.g, plan.gk, plan.e, pass + 1 == plan.count ? plan.last_rate : plan.rate};
        shape_pass<Masked>(m_queue, src->get(), dst->get(), level.width(), level.height(), d_mask, k);
        std::swap(src, dst);
    }
    // The last pass wrote *src; make it the level's grid.
    if (src != &level.heights()) level.heights().swap(work);
}

template void ThermalShaper::process_level<0, false>(LaplacianLevel&);
template void ThermalShaper::process_level<0, true>(LaplacianLevel&);

}  // namespace thermal_shaper
