// SPDX-License-Identifier: Apache-2.0
// Device-wide atomics callable from kernel bodies on either back-end.
// Float additions land in arbitrary order: where the bits of a sum matter,
// reduce in a fixed order instead.
#pragma once

#include <atomic>
#include <cstdint>

#include "compute/types.hpp"

namespace halden::compute {

HALDEN_HD inline float atomic_add(float* target, float value) {
#if defined(__CUDA_ARCH__)
    return atomicAdd(target, value);
#else
    return std::atomic_ref<float>(*target).fetch_add(value, std::memory_order_relaxed);
#endif
}

HALDEN_HD inline std::int32_t atomic_add(std::int32_t* target, std::int32_t value) {
#if defined(__CUDA_ARCH__)
    return atomicAdd(reinterpret_cast<int*>(target), static_cast<int>(value));
#else
    return std::atomic_ref<std::int32_t>(*target).fetch_add(value, std::memory_order_relaxed);
#endif
}

// Stores `desired` if *target equals `expected`; returns the value found.
HALDEN_HD inline std::uint32_t atomic_compare_exchange(std::uint32_t* target, std::uint32_t expected,
                                                       std::uint32_t desired) {
#if defined(__CUDA_ARCH__)
    return atomicCAS(reinterpret_cast<unsigned int*>(target), expected, desired);
#else
    std::atomic_ref<std::uint32_t>(*target).compare_exchange_strong(expected, desired, std::memory_order_relaxed);
    return expected;
#endif
}

}  // namespace halden::compute
