// SPDX-License-Identifier: Apache-2.0
// Sums, maxima and minima whose bits do not depend on the order of their
// terms.
//
// Float additions round after every step, so a sum gathered with float
// atomics changes with the scheduling. Here each term is scaled by a power of
// two, rounded once to a 64-bit integer and added with an integer atomic,
// which is exact and commutative; the total is turned back into a float with
// one rounding. With scale 2^k a term's resolution is 2^-k and the total
// must stay below 2^(62-k) in magnitude; a term beyond that range is clamped
// to it and raises the overflow flag, which the caller checks.
#pragma once

#include <cstdint>

#include "compute/atomic.hpp"
#include "core/bits.hpp"

namespace halden::core {

struct fixed_point {
    int shift;  // k, 0 to 62: terms are multiples of 2^-k

    // Terms must stay below this magnitude (2^62 fixed-point units), and so
    // must a total of up to four of them: the sums in this library gather
    // far fewer large terms than that allows.
    static constexpr double limit = 4611686018427387904.0;  // 2^62

    // The fixed-point value of `v`, rounded to nearest (ties away from
    // zero); sets bit 0 of *overflow when v is out of range or NaN.
    HALDEN_HD std::int64_t encode(float v, std::uint32_t* overflow) const {
        // Exact: v times a power of two fits a double while it is in range.
        const double x = double(v) * scale();
        if (!(x < limit && x > -limit)) {
            compute::atomic_or(overflow, 1u);
            return x < 0.0 ? -std::int64_t(0x3FFFFFFFFFFFFFFF) : std::int64_t(0x3FFFFFFFFFFFFFFF);
        }
        // Half away from zero, without a branch on the sign, which a sum of
        // differences makes unpredictable. |x| + 0.5 is exact below 2^52;
        // beyond it x is whole.
        const double a = x < 0.0 ? -x : x;
        const std::int64_t m = std::int64_t(a < 4503599627370496.0 ? a + 0.5 : a);
        return x < 0.0 ? -m : m;
    }

    // The float nearest to a fixed-point total: one rounding (the integer to
    // float conversion; the power-of-two factor is exact).
    HALDEN_HD float decode(std::int64_t total) const { return float(total) * inverse_scale(); }

    // Shifts from 0 to 62.
    HALDEN_HD double scale() const { return double(std::int64_t(1) << shift); }
    HALDEN_HD float inverse_scale() const { return bits_float(std::uint32_t(127 - shift) << 23); }
};

// Adds v to a fixed-point total.
HALDEN_HD inline void accumulate(std::int64_t* total, float v, const fixed_point& fp, std::uint32_t* overflow) {
    const std::int64_t u = fp.encode(v, overflow);
    if (u != 0) compute::atomic_add(total, u);
}

// Float maxima and minima through ordered keys (core/bits.hpp): start the
// target at ordered_key(-inf) for a maximum, ordered_key(+inf) for a minimum,
// and read it back with key_float. NaN must be left out.
HALDEN_HD inline void accumulate_max(std::uint32_t* key, float v) { compute::atomic_max(key, ordered_key(v)); }
HALDEN_HD inline void accumulate_min(std::uint32_t* key, float v) { compute::atomic_min(key, ordered_key(v)); }

// A winner and who won, as one 64-bit maximum: the greatest value wins, and
// of equal values the greatest id. Start the target at 0 (no winner).
HALDEN_HD inline std::uint64_t winner(float v, std::uint32_t id) {
    return (std::uint64_t(ordered_key(v)) << 32) | std::uint64_t(id);
}
HALDEN_HD inline void accumulate_winner(std::uint64_t* target, float v, std::uint32_t id) {
    compute::atomic_max(target, winner(v, id));
}
HALDEN_HD inline float winner_value(std::uint64_t w) { return key_float(std::uint32_t(w >> 32)); }
HALDEN_HD inline std::uint32_t winner_id(std::uint64_t w) { return std::uint32_t(w); }

}  // namespace halden::core
