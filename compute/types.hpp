// SPDX-License-Identifier: Apache-2.0
// Ranges, launch geometry and error types shared by both back-ends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#if defined(__CUDACC__)
#  define HALDEN_HD __host__ __device__
// A kernel body: one host-and-device callable, launched by either back-end.
#  define HALDEN_KERNEL [=] __host__ __device__
#else
#  define HALDEN_HD
#  define HALDEN_KERNEL [=]
#endif

// Inlines a hot routine whatever the compiler's size limits, so that it
// folds into the vectorised loop around it.
#if defined(__CUDACC__)
#  define HALDEN_FORCE_INLINE __forceinline__
#else
#  define HALDEN_FORCE_INLINE [[gnu::always_inline]] inline
#endif

// Fully unrolls the loop that follows (a stencil's neighbours), so that its
// constant offsets fold and the host compiler can vectorise the cell loop.
#if defined(__CUDA_ARCH__) || defined(__clang__)
#  define HALDEN_UNROLL _Pragma("unroll")
#else
#  define HALDEN_UNROLL _Pragma("GCC unroll 16")
#endif
// nvcc's front end does not know the GCC pragma but hands it on to the host
// compiler, which does: its warning says nothing.
#if defined(__CUDACC__) && !defined(__CUDA_ARCH__) && !defined(__clang__)
#  pragma nv_diag_suppress 1675
#endif

namespace halden::compute {

// Numbering follows the runtime's back-end ids, which the device records expose.
enum class backend : int { cuda = 0, hip = 1, level_zero = 2, opencl = 3, native = 4 };

template <int D>
struct range;

template <>
struct range<1> {
    std::size_t size = 0;
    std::size_t count() const { return size; }
};

// Rows first: element (row, col) of a grid lies at row * cols + col.
template <>
struct range<2> {
    std::size_t rows = 0;
    std::size_t cols = 0;
    std::size_t count() const { return rows * cols; }
};

// A launch of groups x local work items; every group holds local.rows x local.cols items.
struct nd_range {
    range<2> groups;
    range<2> local;
};

// What a work-group kernel phase knows about its work item.
struct group_item {
    std::uint32_t group_row, group_col;
    std::uint32_t local_row, local_col;
    std::uint32_t local_rows, local_cols;

    HALDEN_HD std::size_t global_row() const { return std::size_t(group_row) * local_rows + local_row; }
    HALDEN_HD std::size_t global_col() const { return std::size_t(group_col) * local_cols + local_col; }
    HALDEN_HD std::uint32_t local_linear() const { return local_row * local_cols + local_col; }
    HALDEN_HD std::uint32_t local_size() const { return local_rows * local_cols; }
};

// Errors raised by the runtime (launches, copies, device faults).
class exception : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A device allocation that could not be satisfied.
class out_of_memory : public exception {
public:
    using exception::exception;
};

std::string format_bytes(std::uint64_t bytes);

}  // namespace halden::compute
