// SPDX-License-Identifier: Apache-2.0
#include "modules/blur/blur.hpp"

namespace blur {

using halden::compute::queue;
using halden::compute::range;

halden_callbacks callbacks{};

namespace detail {

// One running-sum box pass over every row. The full-weight part of the
// initial sum runs over s[start] .. s[start + r - 1]: start 1 is the dune
// blur's pass, which counts s[r] where s[0] belongs (a bias of
// (s[r] - s[0]) / (2 radius + 1) on each output of the row); start 0 gives
// the documented weights exactly.
template <bool SameLayout>
void running_pass(queue& q, const float* src, float* dst, int n, float radius, int start) {
    // Floats from 2^24 up are whole numbers (and too large for an int).
    const float whole = radius < 16777216.0f ? float(int(radius)) : radius;
    const float frac = radius - whole, keep = 1.0f - frac, scale = 1.0f / (2.0f * radius + 1.0f);
    // Every index past either end of a row reads the edge cell, so indices
    // and loops take the radius clamped to n, and the cost is the row's
    // whatever the radius. Copies of the last cell past that come in once,
    // multiplied: `beyond` of them.
    const int r = whole < float(n) ? int(whole) : n;
    const float beyond = whole - float(r);
    q.parallel_for(range<1>{std::size_t(n)}, HALDEN_KERNEL(std::size_t row) {
        const float* s = src + row * std::size_t(n);
        const auto at = [&](int k) { return s[k < 0 ? 0 : (k > n - 1 ? n - 1 : k)]; };
        const auto out = [&](int j, float v) {
            if (SameLayout)
                dst[row * std::size_t(n) + std::size_t(j)] = v;
            else
                dst[std::size_t(j) * std::size_t(n) + row] = v;
        };
        const float first = s[0], last = s[n - 1];
        float inner = 0.0f;
        for (int k = start; k < start + r; ++k) inner = k == start ? at(k) : inner + at(k);
        if (beyond > 0.0f) inner = inner + beyond * last;
        float sum = radius * first + first + inner + frac * at(r);

        float e = at(r);  // the right element of partial weight
        const int left_end = r < n - 1 ? r : n - 1;
        for (int j = 0; j <= left_end; ++j) {
            sum = sum - first + keep * e + frac * at(j + r + 1);
            out(j, sum * scale);
            e = at(j + r + 1);
        }
        float p = first;  // the left element of partial weight
        for (int j = r + 1; j <= n - r - 2; ++j) {
            sum = sum + keep * (e - at(j - r - 1)) + frac * (at(j + r + 1) - p);
            out(j, sum * scale);
            p = at(j - r - 1);
            e = at(j + r + 1);
        }
        for (int j = (n - r - 1 > r + 1 ? n - r - 1 : r + 1); j < n; ++j) {
            sum = sum + keep * (e - at(j - r - 1)) + frac * (last - p);
            out(j, sum * scale);
            p = at(j - r - 1);
            e = last;
        }
    });
}

template <bool Rows, bool SameLayout>
void fastblur_half_pass(queue& q, const float* src, float* dst, int n, float radius) {
    static_assert(Rows, "passes always read rows");
    running_pass<SameLayout>(q, src, dst, n, radius, 1);
}

template void fastblur_half_pass<true, true>(queue&, const float*, float*, int, float);
template void fastblur_half_pass<true, false>(queue&, const float*, float*, int, float);

template <int Axis>
void blur_half_pass(queue& q, const float* src, float* dst, int n, float radius) {
    static_assert(Axis == 1, "the reference pass blurs along rows");
    const int r = int(radius);
    const float frac = radius - float(r), scale = 1.0f / (2.0f * radius + 1.0f);
    q.parallel_for(range<2>{std::size_t(n), std::size_t(n)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const float* s = src + row * std::size_t(n);
        const auto at = [&](int k) { return s[k < 0 ? 0 : (k > n - 1 ? n - 1 : k)]; };
        const int j = int(col);
        float sum = frac * at(j - r - 1);
        for (int k = j - r; k <= j + r; ++k) sum += at(k);
        sum += frac * at(j + r + 1);
        dst[row * std::size_t(n) + col] = sum * scale;
    });
}

template void blur_half_pass<1>(queue&, const float*, float*, int, float);

}  // namespace detail

void blur(queue& q, const float* source, float* scratch_b, float* result, int n, float radius) {
    detail::fastblur_half_pass<true, true>(q, source, scratch_b, n, radius);
    detail::fastblur_half_pass<true, false>(q, scratch_b, result, n, radius);
    detail::fastblur_half_pass<true, true>(q, result, scratch_b, n, radius);
    detail::fastblur_half_pass<true, false>(q, scratch_b, result, n, radius);
}

void box_blur(queue& q, const float* source, float* scratch_b, float* result, int n, float radius) {
    detail::running_pass<true>(q, source, scratch_b, n, radius, 0);
    detail::running_pass<false>(q, scratch_b, result, n, radius, 0);
    detail::running_pass<true>(q, result, scratch_b, n, radius, 0);
    detail::running_pass<false>(q, scratch_b, result, n, radius, 0);
}

}  // namespace blur
