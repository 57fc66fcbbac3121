// SPDX-License-Identifier: Apache-2.0
// Host back-end launchers: OpenMP worker threads iterate the range.
//
// Every loop is compiled twice, for the baseline instruction set and, on
// x86-64, for x86-64-v3 (AVX2, FMA), and the processor picks one at run time.
// The kernel bodies inline into both. Both round alike: the build never
// contracts a * b + c, so an fma is only ever one the source writes, and the
// wider set merely runs it in hardware instead of a library call.
#pragma once

#include <cstdint>
#include <memory>

#include <omp.h>

#include "compute/types.hpp"

// nvcc wraps each kernel lambda in a type-erased caller, which crashed (a
// call through a null pointer) inside the wide clone: translation units that
// nvcc compiles keep the baseline launch loops alone, and widen only the
// plain callables a work item hands to run_v3.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__CUDA_ARCH__)
#  define HALDEN_WIDE_ISA __attribute__((target("avx2,fma,bmi,bmi2,lzcnt,movbe,f16c,popcnt"), flatten))
#else
#  define HALDEN_WIDE_ISA
#endif
#if defined(__CUDACC__)
#  define HALDEN_VECTOR_ISA
#else
#  define HALDEN_VECTOR_ISA HALDEN_WIDE_ISA
#endif

namespace halden::compute::native {

enum class isa : int { baseline = 0, x86_64_v3 = 1 };

// The set the loops run with: x86-64-v3 where the processor has it, unless
// HALDEN_HOST_ISA=baseline says otherwise.
isa active_isa();
// Chooses the set (tests compare the two); a set the processor lacks falls
// back to the baseline. Returns the set now active.
isa select_isa(isa wanted);

// The worker threads of one launch: the calling thread's OpenMP threads,
// shared among the launches running at once, so that two queues on two
// application threads do not put two full teams on the same cores (the
// results never depend on the count).
class team {
public:
    team();
    ~team();
    team(const team&) = delete;
    team& operator=(const team&) = delete;
    int size() const { return m_size; }

private:
    int m_size;
};

namespace loops {

template <class F>
[[gnu::always_inline]] inline void row(F& body, std::int64_t row, std::int64_t cols) {
#pragma omp simd
    for (std::int64_t col = 0; col < cols; ++col) body(static_cast<std::size_t>(row), static_cast<std::size_t>(col));
}
template <class F>
[[gnu::always_inline]] inline void items(F& body, std::int64_t begin, std::int64_t end) {
    for (std::int64_t i = begin; i < end; ++i) body(static_cast<std::size_t>(i));
}
template <class F>
[[gnu::always_inline]] inline void cells(F& body, std::int64_t begin, std::int64_t end, std::int64_t cols) {
    for (std::int64_t i = begin; i < end; ++i)
        body(static_cast<std::size_t>(i / cols), static_cast<std::size_t>(i % cols));
}
template <class T, class... Phases>
[[gnu::always_inline]] inline void group(group_item it, T* local, Phases&... phases) {
    const auto phase = [&](auto& p) {
        for (std::uint32_t lr = 0; lr < it.local_rows; ++lr)
            for (std::uint32_t lc = 0; lc < it.local_cols; ++lc) {
                it.local_row = lr;
                it.local_col = lc;
                p(it, local);
            }
    };
    (phase(phases), ...);
}

// The same loops, compiled for the wider set.
template <class F>
HALDEN_VECTOR_ISA void row_v3(F& body, std::int64_t r, std::int64_t cols) {
    row(body, r, cols);
}
template <class F>
HALDEN_VECTOR_ISA void items_v3(F& body, std::int64_t begin, std::int64_t end) {
    items(body, begin, end);
}
template <class F>
HALDEN_VECTOR_ISA void cells_v3(F& body, std::int64_t begin, std::int64_t end, std::int64_t cols) {
    cells(body, begin, end, cols);
}
template <class T, class... Phases>
HALDEN_VECTOR_ISA void group_v3(group_item it, T* local, Phases&... phases) {
    group(it, local, phases...);
}

// A loop held by one work item (a lane group, a row), compiled for the
// wider set. In translation units that nvcc compiles the work item's own
// callable is a type-erased wrapper that the wide loops cannot call; the
// loop inside it is a plain callable, which they can.
template <class F>
HALDEN_WIDE_ISA void run_v3(const F& run) {
    run();
}

}  // namespace loops

template <class F>
void launch(range<1> r, F& body) {
    const std::int64_t n = static_cast<std::int64_t>(r.size);
    const bool wide = active_isa() == isa::x86_64_v3;
    const team t;
    // Work items of 1-D launches (particles) differ widely in cost: hand them
    // out in chunks rather than in equal shares, chunks small enough that a
    // launch of few costly items (blocks of rows) still feeds every thread.
    const std::int64_t share = n / (8 * static_cast<std::int64_t>(t.size()));
    const std::int64_t chunk = share < 1 ? 1 : (share > 256 ? 256 : share);
#pragma omp parallel for schedule(dynamic, 1) num_threads(t.size())
    for (std::int64_t begin = 0; begin < n; begin += chunk) {
        const std::int64_t end = n - begin < chunk ? n : begin + chunk;
        if (wide)
            loops::items_v3(body, begin, end);
        else
            loops::items(body, begin, end);
    }
}

template <class F>
void launch(range<2> r, F& body) {
    const std::int64_t rows = static_cast<std::int64_t>(r.rows);
    const std::int64_t cols = static_cast<std::int64_t>(r.cols);
    const bool wide = active_isa() == isa::x86_64_v3;
    const team t;
    // A small grid (a pyramid's coarse levels) costs less than waking the
    // workers: the calling thread runs it alone.
    [[maybe_unused]] const bool parallel = rows * cols >= 16384;  // read by the pragmas alone
    // Whole rows per thread keep the loop over columns plain, so that the
    // compiler can vectorise it; a launch of few rows shares out its cells.
    // Work items never depend on one another, which lets the compiler skip
    // its aliasing checks.
    if (rows >= 4 * static_cast<std::int64_t>(t.size())) {
#pragma omp parallel for schedule(static) num_threads(t.size()) if (parallel)
        for (std::int64_t row = 0; row < rows; ++row) {
            if (wide)
                loops::row_v3(body, row, cols);
            else
                loops::row(body, row, cols);
        }
        return;
    }
    const std::int64_t n = rows * cols;
    constexpr std::int64_t chunk = 1024;
#pragma omp parallel for schedule(static) num_threads(t.size()) if (parallel)
    for (std::int64_t begin = 0; begin < n; begin += chunk) {
        const std::int64_t end = n - begin < chunk ? n : begin + chunk;
        if (wide)
            loops::cells_v3(body, begin, end, cols);
        else
            loops::cells(body, begin, end, cols);
    }
}

// Barriers become phase boundaries: each phase runs for every item of the
// group before the next phase starts, so no item needs a thread of its own.
template <class T, class... Phases>
void launch_groups(nd_range nd, std::size_t local_count, Phases&... phases) {
    const std::int64_t groups = static_cast<std::int64_t>(nd.groups.count());
    const std::int64_t group_cols = static_cast<std::int64_t>(nd.groups.cols);
    const std::size_t stride = local_count > 0 ? local_count : 1;
    const bool wide = active_isa() == isa::x86_64_v3;
    // Allocated before the parallel region: an exception must not leave an OpenMP
    // region.
    const int threads = omp_get_max_threads();
    std::unique_ptr<T[]> locals(new T[stride * static_cast<std::size_t>(threads)]);
#pragma omp parallel num_threads(threads)
    {
        T* local = locals.get() + stride * static_cast<std::size_t>(omp_get_thread_num());
#pragma omp for schedule(dynamic, 1)
        for (std::int64_t g = 0; g < groups; ++g) {
            const group_item it{
                static_cast<std::uint32_t>(g / group_cols), static_cast<std::uint32_t>(g % group_cols), 0, 0,
                static_cast<std::uint32_t>(nd.local.rows),  static_cast<std::uint32_t>(nd.local.cols)};
            if (wide)
                loops::group_v3(it, local, phases...);
            else
                loops::group(it, local, phases...);
        }
    }
}

}  // namespace halden::compute::native
