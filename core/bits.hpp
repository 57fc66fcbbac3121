// SPDX-License-Identifier: Apache-2.0
// Bit-level views of floats, the same on host and device.
#pragma once

#include <cstdint>
#include <cstring>

#include "compute/types.hpp"

namespace halden {

HALDEN_HD inline std::uint32_t float_bits(float x) {
#if defined(__CUDA_ARCH__)
    return __float_as_uint(x);
#else
    std::uint32_t u;
    std::memcpy(&u, &x, sizeof u);
    return u;
#endif
}

HALDEN_HD inline float bits_float(std::uint32_t u) {
#if defined(__CUDA_ARCH__)
    return __uint_as_float(u);
#else
    float x;
    std::memcpy(&x, &u, sizeof x);
    return x;
#endif
}

// An unsigned key whose order is the floats' order (-0 just below +0; NaN
// keys lie outside the range of the other values, so leave NaN out): integer
// maxima of keys are float maxima that no scheduling order can change.
HALDEN_HD inline std::uint32_t ordered_key(float x) {
    const std::uint32_t u = float_bits(x);
    return (u & 0x80000000u) ? ~u : (u | 0x80000000u);
}

HALDEN_HD inline float key_float(std::uint32_t key) {
    return bits_float((key & 0x80000000u) ? (key & 0x7FFFFFFFu) : ~key);
}

}  // namespace halden
