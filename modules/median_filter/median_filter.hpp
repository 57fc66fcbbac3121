// SPDX-License-Identifier: Apache-2.0
// Circular median-type filter: each cell becomes the mean of the median and
// its two neighbours in sorted order of a rounded disc around it.
#pragma once

#include <cstdint>
#include <vector>

#include "compute/compute.hpp"
#include "core/bits.hpp"
#include "halden/halden.h"

namespace median_filter {

// Fills the unused slots of the value list, so that they sort to the end.
inline constexpr float padding = 100000000.0f;
// 0x3EAAAA9F, the float nearest to the decimal 0.333333, not to one third.
inline constexpr float one_third = 0.333333f;
inline constexpr int tile = 32;
inline constexpr int max_radius = 8;

// The kernel's radius: the record's radius as a signed value, at most 8.
inline int effective_radius(std::uint32_t radius) {
    const auto r = static_cast<std::int32_t>(radius);
    return r < max_radius ? r : max_radius;
}

// Whether offset (dx, dy) lies in the disc of radius r. r * r + 2 rounds the
// disc out so that the cells diagonally next to each axis end are kept.
HALDEN_HD inline bool in_disc(int dx, int dy, int r) { return dx * dx + dy * dy <= r * r + 2; }

// Ascending bitonic network over N slots (N a power of two). Ties, and NaNs,
// stay where the network leaves them.
template <int N>
HALDEN_HD void bitonic_sort(float* v) {
    for (int k = 2; k <= N; k <<= 1)
        for (int j = k >> 1; j > 0; j >>= 1)
            // Slots i and i + j for i in [base, base + j), one direction per
            // block as k >= 2j; selects rather than branches, which the data
            // would mispredict.
            for (int base = 0; base < N; base += 2 * j) {
                const bool ascending = (base & k) == 0;
                for (int i = base; i < base + j; ++i) {
                    const float a = v[i], b = v[i + j];
                    const bool swap = ascending ? a > b : a < b;
                    v[i] = swap ? b : a;
                    v[i + j] = swap ? a : b;
                }
            }
}

// Moves the k-th smallest of a[0, n) to a[k], smaller or equal values before
// it and greater or equal ones after it. Inputs must hold no NaN.
HALDEN_HD inline void select_kth(float* a, int n, int k) {
    int lo = 0, hi = n - 1;
    while (lo < hi) {
        const float pivot = a[k];
        int i = lo, j = hi;
        do {
            while (a[i] < pivot) ++i;
            while (pivot < a[j]) --j;
            if (i <= j) {
                const float t = a[i];
                a[i] = a[j];
                a[j] = t;
                ++i;
                --j;
            }
        } while (i <= j);
        if (j < k) lo = i;
        if (k < i) hi = j;
    }
}

// Lists up to this long are ranked by counting, which never branches on the
// data; longer ones by selection, whose linear cost wins despite its branches.
inline constexpr int counted_list = 64;

// out[i] = the value of rank k + i (0-based, ascending) of a[0, n), for the
// ranks below n. Inputs must hold no NaN; a may be reordered.
HALDEN_HD inline void ranked_values(float* a, int n, int k, float* out) {
    if (n <= counted_list) {
        for (int i = 0; i < n; ++i) {
            // Equal values rank by position, so the ranks form a permutation.
            const float x = a[i];
            int r = 0;
            for (int j = 0; j < i; ++j) r += a[j] <= x;
            for (int j = i + 1; j < n; ++j) r += a[j] < x;
            const int d = r - k;
            if (d >= 0 && d < 3) out[d] = a[i];
        }
        return;
    }
    select_kth(a, n, k);
    out[0] = a[k];
    // The next ranks are the smallest values after it.
    for (int t = k + 1; t < n && t <= k + 2; ++t) {
        int best = t;
        for (int u = t + 1; u < n; ++u)
            if (a[u] < a[best]) best = u;
        const float tmp = a[t];
        a[t] = a[best];
        a[best] = tmp;
        out[t - k] = a[t];
    }
}

// GPUs turn every NaN result into one pattern, CPUs keep the operand's
// payload: results that are NaN are stored as one quiet NaN on every device.
HALDEN_HD inline float canonical(float x) { return x != x ? halden::bits_float(0x7FC00000u) : x; }

// The filter's value for the n gathered values in v[0, n) (1 <= n <= Capacity):
// sort the list padded to Capacity slots, take m = n / 2 and return
// ((v[m + 1] + v[m]) + v[m - 1]) * 0.333333f. v is scratch of Capacity floats.
//
// Any sort gives the same multiset order, so a selection suffices, except
// where values compare equal but differ in bits (+0 and -0) or do not compare
// at all (NaN): there only the network's own order gives its bits.
template <int Capacity>
HALDEN_HD float mean_of_median3(float* v, int n) {
    const int m = n / 2;
    int below = 0, above = 0;
    bool exact_order_needed = false;
    bool seen_zero = false, zero_negative = false;
    for (int i = 0; i < n; ++i) {
        const float x = v[i];
        below += x < padding;
        above += x > padding;
        if (x != x) exact_order_needed = true;
        if (x == 0.0f) {
            const bool negative = halden::float_bits(x) != 0u;
            if (seen_zero && negative != zero_negative) exact_order_needed = true;
            seen_zero = true;
            zero_negative = negative;
        }
    }
    if (exact_order_needed) {
        for (int i = n; i < Capacity; ++i) v[i] = padding;
        bitonic_sort<Capacity>(v);
        return canonical(((v[m + 1] + v[m]) + v[m - 1]) * one_third);
    }
    // In sorted order, slots [below, Capacity - above) all hold the padding
    // value (padding or gathered values equal to it); gathered values above it
    // come after. That run is wider than three slots, so the gathered ranks
    // that the window m - 1 .. m + 1 needs are consecutive.
    const int run_end = Capacity - above;
    int rank[3];
    int first_rank = -1;
    for (int s = 0; s < 3; ++s) {
        const int slot = m - 1 + s;
        rank[s] = slot < below ? slot : (slot >= run_end ? slot - (Capacity - n) : -1);
        if (rank[s] >= 0 && first_rank < 0) first_rank = rank[s];
    }
    float from_first[3] = {padding, padding, padding};
    if (first_rank >= 0) ranked_values(v, n, first_rank, from_first);
    float picked[3];
    for (int s = 0; s < 3; ++s) picked[s] = rank[s] >= 0 ? from_first[rank[s] - first_rank] : padding;
    return canonical(((picked[2] + picked[1]) + picked[0]) * one_third);
}

// Filters the size x size grid at h_grid in place, iterations times.
template <int Capacity>
void filter(halden::compute::queue& q, float* h_grid, Parameters parameters);

namespace detail {

// A comparator network that takes the disc windows of a tile of outputs to
// the three middle values of each, sharing the work between the outputs:
// what a group of outputs has in common is sorted once, and only the part of
// it that can still hold a middle value is carried on (Adams 2021, adapted to
// the disc and to three ranks). Values live in numbered slots; the host
// kernel runs the program with a lane per tile. The network is only right on
// windows whose values all compare (no NaN), and where equal values have
// equal bits (not both +0 and -0): it selects, it does not reproduce the
// padded sort's order.
struct tile_network {
    int radius = 0;
    int width = 0, height = 0;  // the tile of outputs
    // Slots the program uses. The first hold the region, the tile with an
    // apron of radius cells, row by row: cell (row, column) starts in slot
    // row * (width + 2 radius) + column.
    int slots = 0;
    // Per output (rows of the tile in turn): the slots holding ranks m - 1,
    // m and m + 1 of its window when the program ends.
    std::vector<std::uint16_t> outputs;
    // Per comparator: the slot that gets the lesser value, the slot that gets
    // the greater, and the two operand slots. Every operand is read before
    // either result is written, so results may reuse the operands' slots.
    std::vector<std::uint16_t> ops;
};

// The network for a radius of 1 to max_radius, built on first use.
const tile_network& network_for(int radius);

}  // namespace detail

}  // namespace median_filter
