// SPDX-License-Identifier: Apache-2.0
// Host back-end launchers: OpenMP worker threads iterate the range.
#pragma once

#include <cstdint>
#include <memory>

#include <omp.h>

#include "compute/types.hpp"

namespace halden::compute::native {

template <class F>
void launch(range<1> r, F& body) {
    const std::int64_t n = static_cast<std::int64_t>(r.size);
    // Work items of 1-D launches (particles) differ widely in cost: hand them
    // out in chunks rather than in equal shares.
#pragma omp parallel for schedule(dynamic, 256)
    for (std::int64_t i = 0; i < n; ++i) body(static_cast<std::size_t>(i));
}

template <class F>
void launch(range<2> r, F& body) {
    const std::int64_t rows = static_cast<std::int64_t>(r.rows);
    const std::int64_t cols = static_cast<std::int64_t>(r.cols);
    // Whole rows per thread keep the loop over columns plain, so that the
    // compiler can vectorise it; a launch of few rows shares out its cells.
    // Work items never depend on one another, which lets the compiler skip
    // its aliasing checks.
    if (rows >= 4 * static_cast<std::int64_t>(omp_get_max_threads())) {
#pragma omp parallel for schedule(static)
        for (std::int64_t row = 0; row < rows; ++row)
#pragma omp simd
            for (std::int64_t col = 0; col < cols; ++col)
                body(static_cast<std::size_t>(row), static_cast<std::size_t>(col));
        return;
    }
#pragma omp parallel for collapse(2) schedule(static)
    for (std::int64_t row = 0; row < rows; ++row)
        for (std::int64_t col = 0; col < cols; ++col)
            body(static_cast<std::size_t>(row), static_cast<std::size_t>(col));
}

template <class T, class Phase>
void run_phase(group_item it, T* local, Phase& phase) {
    for (std::uint32_t lr = 0; lr < it.local_rows; ++lr)
        for (std::uint32_t lc = 0; lc < it.local_cols; ++lc) {
            it.local_row = lr;
            it.local_col = lc;
            phase(it, local);
        }
}

// Barriers become phase boundaries: each phase runs for every item of the
// group before the next phase starts, so no item needs a thread of its own.
template <class T, class... Phases>
void launch_groups(nd_range nd, std::size_t local_count, Phases&... phases) {
    const std::int64_t groups = static_cast<std::int64_t>(nd.groups.count());
    const std::int64_t group_cols = static_cast<std::int64_t>(nd.groups.cols);
    const std::size_t stride = local_count > 0 ? local_count : 1;
    // Allocated before the parallel region: an exception must not leave an OpenMP region.
    const int threads = omp_get_max_threads();
    std::unique_ptr<T[]> locals(new T[stride * static_cast<std::size_t>(threads)]);
#pragma omp parallel num_threads(threads)
    {
        T* local = locals.get() + stride * static_cast<std::size_t>(omp_get_thread_num());
#pragma omp for schedule(dynamic, 1)
        for (std::int64_t g = 0; g < groups; ++g) {
            group_item it{static_cast<std::uint32_t>(g / group_cols), static_cast<std::uint32_t>(g % group_cols), 0, 0,
                          static_cast<std::uint32_t>(nd.local.rows), static_cast<std::uint32_t>(nd.local.cols)};
            (run_phase(it, local, phases), ...);
        }
    }
}

}  // namespace halden::compute::native
