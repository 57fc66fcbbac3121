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
//
// A work item runs Lanes rows side by side, each with its own arithmetic in
// the same order: on the host the rows' running sums, a chain of dependent
// additions each, then overlap and vectorise, and a transposed write stores
// Lanes neighbouring cells at once. A GPU runs one row per thread.
template <bool SameLayout, int Lanes>
void running_rows(queue& q, const float* src, float* dst, int n, float radius, int start) {
    // Floats from 2^24 up are whole numbers (and too large for an int).
    const float whole = radius < 16777216.0f ? float(int(radius)) : radius;
    const float frac = radius - whole, keep = 1.0f - frac, scale = 1.0f / (2.0f * radius + 1.0f);
    // Every index past either end of a row reads the edge cell, so indices
    // and loops take the radius clamped to n, and the cost is the row's
    // whatever the radius. Copies of the last cell past that come in once,
    // multiplied: `beyond` of them.
    const int r = whole < float(n) ? int(whole) : n;
    const float beyond = whole - float(r);
    const std::size_t blocks = (std::size_t(n) + Lanes - 1) / Lanes;
    q.parallel_for(range<1>{blocks}, HALDEN_KERNEL(std::size_t block) {
        const std::size_t row0 = block * Lanes;
        // The last block's missing rows repeat the last row and are not stored.
        const int rows = std::size_t(n) - row0 < std::size_t(Lanes) ? int(std::size_t(n) - row0) : Lanes;
        const float* s[Lanes];
        float first[Lanes], last[Lanes], sum[Lanes], e[Lanes], p[Lanes], v[Lanes];
        for (int l = 0; l < Lanes; ++l) {
            s[l] = src + (row0 + std::size_t(l < rows ? l : rows - 1)) * std::size_t(n);
            first[l] = s[l][0];
            last[l] = s[l][n - 1];
        }
        const auto at = [&](int l, int k) { return s[l][k < 0 ? 0 : (k > n - 1 ? n - 1 : k)]; };
        // Rows written in the same layout collect a strip of columns first
        // and store it row by row, rather than one cell in each of Lanes rows.
        constexpr int strip = Lanes > 1 ? 64 : 1;
        float held[Lanes][strip];
        const auto out = [&](int j) {
            if (!SameLayout) {
                float* d = dst + std::size_t(j) * std::size_t(n) + row0;
                for (int l = 0; l < Lanes; ++l) v[l] = sum[l] * scale;
                // A whole block stores Lanes floats at once.
                if (rows == Lanes)
                    for (int l = 0; l < Lanes; ++l) d[l] = v[l];
                else
                    for (int l = 0; l < rows; ++l) d[l] = v[l];
            } else if (Lanes == 1) {
                dst[row0 * std::size_t(n) + std::size_t(j)] = sum[0] * scale;
            } else {
                const int c = j % strip;
                for (int l = 0; l < Lanes; ++l) held[l][c] = sum[l] * scale;
                if (c == strip - 1 || j == n - 1)
                    for (int l = 0; l < rows; ++l) {
                        float* d = dst + (row0 + std::size_t(l)) * std::size_t(n) + std::size_t(j - c);
                        for (int k = 0; k <= c; ++k) d[k] = held[l][k];
                    }
            }
        };
        for (int l = 0; l < Lanes; ++l) {
            float inner = 0.0f;
            for (int k = start; k < start + r; ++k) inner = k == start ? at(l, k) : inner + at(l, k);
            if (beyond > 0.0f) inner = inner + beyond * last[l];
            sum[l] = radius * first[l] + first[l] + inner + frac * at(l, r);
            e[l] = at(l, r);  // the right element of partial weight
            p[l] = first[l];  // the left element of partial weight
        }
        const int left_end = r < n - 1 ? r : n - 1;
        for (int j = 0; j <= left_end; ++j) {
            for (int l = 0; l < Lanes; ++l) {
                const float a = at(l, j + r + 1);
                sum[l] = sum[l] - first[l] + keep * e[l] + frac * a;
                e[l] = a;
            }
            out(j);
        }
        // Inside the row no index needs clamping.
        for (int j = r + 1; j <= n - r - 2; ++j) {
            for (int l = 0; l < Lanes; ++l) {
                const float a = s[l][j - r - 1], b = s[l][j + r + 1];
                sum[l] = sum[l] + keep * (e[l] - a) + frac * (b - p[l]);
                p[l] = a;
                e[l] = b;
            }
            out(j);
        }
        for (int j = (n - r - 1 > r + 1 ? n - r - 1 : r + 1); j < n; ++j) {
            for (int l = 0; l < Lanes; ++l) {
                const float a = s[l][j - r - 1];
                sum[l] = sum[l] + keep * (e[l] - a) + frac * (last[l] - p[l]);
                p[l] = a;
                e[l] = last[l];
            }
            out(j);
        }
    });
}

template void running_rows<true, 1>(queue&, const float*, float*, int, float, int);
template void running_rows<false, 1>(queue&, const float*, float*, int, float, int);
template void running_rows<true, 8>(queue&, const float*, float*, int, float, int);
template void running_rows<false, 8>(queue&, const float*, float*, int, float, int);

template <bool SameLayout>
void running_pass(queue& q, const float* src, float* dst, int n, float radius, int start) {
    if (q.get_device().is_cpu())
        running_rows<SameLayout, 8>(q, src, dst, n, radius, start);
    else
        running_rows<SameLayout, 1>(q, src, dst, n, radius, start);
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

void box_blur(queue& q, const float* source, float* scratch_b, float* scratch_c, float* result, int n, float radius) {
    detail::running_pass<true>(q, source, scratch_b, n, radius, 0);
    detail::running_pass<false>(q, scratch_b, scratch_c, n, radius, 0);
    detail::running_pass<true>(q, scratch_c, scratch_b, n, radius, 0);
    detail::running_pass<false>(q, scratch_b, result, n, radius, 0);
}

}  // namespace blur
