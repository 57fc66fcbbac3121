// SPDX-License-Identifier: Apache-2.0
// The library's random numbers: a 32-bit xorshift whose zero state is
// replaced, and a uniform draw in [0, 1) from a state.
#pragma once

#include <cstdint>

#include "compute/types.hpp"

namespace halden {

HALDEN_HD inline std::uint32_t seed_state(std::uint32_t seed) { return seed != 0 ? seed : 0xA2351342u; }

HALDEN_HD inline std::uint32_t xorshift(std::uint32_t s) {
    s ^= s << 13;
    s ^= s >> 17;
    s ^= s << 5;
    return s;
}

// The state of draw `round` of item `index` (a cell, a particle) under
// `seed`. Every draw derives from these three numbers alone, never from a
// state shared between items, so no scheduling order can change a result.
// Each word is folded in through an odd multiplier and stirred by xorshift
// steps, so that neighbouring indices and rounds give unrelated streams.
HALDEN_HD inline std::uint32_t counter_state(std::uint32_t seed, std::uint32_t index, std::uint32_t round) {
    std::uint32_t s = xorshift(seed_state(seed) ^ (index * 0x9E3779B1u));
    s = xorshift(xorshift(s) + round * 0x85EBCA77u);
    s = xorshift(xorshift(s * 0xC2B2AE3Du));
    return seed_state(s);
}

// A uniform float in [0, 1) from the top 24 bits of a state: exact, and the
// same on every device.
HALDEN_HD inline float uniform_f(std::uint32_t s) { return float(s >> 8) * 0x1p-24f; }

// ((s * 0x2545F381 - 1) mod 2^32) * 2^-32, exact in double.
inline double uniform(std::uint32_t s) { return double(std::uint32_t(s * 0x2545F381u - 1u)) * 0x1p-32; }

// pcg3d (Jarzynski and Olano 2020): three 32-bit words hashed together in
// two rounds of multiply-add mixing, for hashes over 2-D and 3-D lattices
// (a feature point per lattice cell, a gradient per lattice corner).
struct hash3 {
    std::uint32_t x, y, z;
};

HALDEN_HD inline hash3 pcg3d(hash3 v) {
    v.x = v.x * 1664525u + 1013904223u;
    v.y = v.y * 1664525u + 1013904223u;
    v.z = v.z * 1664525u + 1013904223u;
    v.x += v.y * v.z;
    v.y += v.z * v.x;
    v.z += v.x * v.y;
    v.x ^= v.x >> 16;
    v.y ^= v.y >> 16;
    v.z ^= v.z >> 16;
    v.x += v.y * v.z;
    v.y += v.z * v.x;
    v.z += v.x * v.y;
    return v;
}

}  // namespace halden
