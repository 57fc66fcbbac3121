// SPDX-License-Identifier: Apache-2.0
// Device-wide atomics callable from kernel bodies on either back-end.
// Float additions land in arbitrary order: where the bits of a sum matter,
// reduce in a fixed order instead.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>

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

// 64-bit integer sums are order-independent: the basis of the fixed-point
// accumulators in core/accumulate.hpp. Two's complement makes the signed
// sum the unsigned one.
HALDEN_HD inline std::int64_t atomic_add(std::int64_t* target, std::int64_t value) {
#if defined(__CUDA_ARCH__)
    return static_cast<std::int64_t>(atomicAdd(reinterpret_cast<unsigned long long*>(target),
                                               static_cast<unsigned long long>(value)));
#else
    return std::atomic_ref<std::int64_t>(*target).fetch_add(value, std::memory_order_relaxed);
#endif
}

HALDEN_HD inline std::uint32_t atomic_or(std::uint32_t* target, std::uint32_t value) {
#if defined(__CUDA_ARCH__)
    return atomicOr(reinterpret_cast<unsigned int*>(target), value);
#else
    return std::atomic_ref<std::uint32_t>(*target).fetch_or(value, std::memory_order_relaxed);
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

// Keeps the greater of *target and `value` (32- or 64-bit unsigned);
// returns the value found. Integer maxima are order-independent, which float
// updates are not: pack a float as an ordered key (core/bits.hpp) to take its
// maximum this way.
template <class U>
HALDEN_HD inline U atomic_max(U* target, U value) {
    static_assert(std::is_same_v<U, std::uint32_t> || std::is_same_v<U, std::uint64_t>, "unsigned 32 or 64 bits");
#if defined(__CUDA_ARCH__)
    if constexpr (sizeof(U) == 4)
        return atomicMax(reinterpret_cast<unsigned int*>(target), value);
    else
        return atomicMax(reinterpret_cast<unsigned long long*>(target), static_cast<unsigned long long>(value));
#else
    std::atomic_ref<U> a(*target);
    U seen = a.load(std::memory_order_relaxed);
    while (seen < value && !a.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
    }
    return seen;
#endif
}

// Keeps the lesser of *target and `value`; the twin of atomic_max.
template <class U>
HALDEN_HD inline U atomic_min(U* target, U value) {
    static_assert(std::is_same_v<U, std::uint32_t> || std::is_same_v<U, std::uint64_t>, "unsigned 32 or 64 bits");
#if defined(__CUDA_ARCH__)
    if constexpr (sizeof(U) == 4)
        return atomicMin(reinterpret_cast<unsigned int*>(target), value);
    else
        return atomicMin(reinterpret_cast<unsigned long long*>(target), static_cast<unsigned long long>(value));
#else
    std::atomic_ref<U> a(*target);
    U seen = a.load(std::memory_order_relaxed);
    while (value < seen && !a.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
    }
    return seen;
#endif
}

}  // namespace halden::compute
