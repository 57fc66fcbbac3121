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

}  // namespace halden
