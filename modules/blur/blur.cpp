// SPDX-License-Identifier: Apache-2.0
#include "modules/blur/blur.hpp"

namespace blur {

using halden::compute::queue;
using halden::compute::range;

halden_callbacks callbacks{};

namespace detail {

template <bool Rows, bool SameLayout>
void fastblur_half_pass(queue& q, const float* src, float* dst, int n, float radius) {
    static_assert(Rows, "passes always read rows");
    const int r = int(radius);
    const float frac = radius - float(r), keep = 1.0f - frac, scale = 1.0f / (2.0f * radius + 1.0f);
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
        // The full-weight sum starts at s[1]: s[0] counts through the
        // radius-weighted first term only, and s[r] enters once more at frac.
        float inner = 0.0f;
        for (int k = 1; k <= r; ++k) inner = k == 1 ? at(1) : inner + at(k);
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

}  // namespace blur
