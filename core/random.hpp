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

// ((s * 0x2545F381 - 1) mod 2^32) * 2^-32, exact in double.
inline double uniform(std::uint32_t s) { return double(std::uint32_t(s * 0x2545F381u - 1u)) * 0x1p-32; }

}  // namespace halden
