// SPDX-License-Identifier: Apache-2.0
// A separable, almost-Gaussian blur of square grids from running-sum box
// passes with a fractional radius. A pass blurs every row, one work item per
// row, and writes either in place order or transposed, so the same row code
// blurs columns too.
#pragma once

#include "compute/compute.hpp"
#include "halden/halden.h"

namespace blur {

// The module's copy of the caller's callback record, replaced on every call.
extern halden_callbacks callbacks;

// 46340^2 is the largest square below 2^31 cells.
inline constexpr int max_size = 46340;

namespace detail {

// Row i of the n x n grid `src`, blurred along the row, goes to row i of
// `dst` (SameLayout) or to column i (transposed). Only <true, ...> exists.
template <bool Rows, bool SameLayout>
void fastblur_half_pass(halden::compute::queue& q, const float* src, float* dst, int n, float radius);

// The same weights summed directly per cell (no running sum), over a
// two-dimensional range; a reference for the running passes.
template <int Axis>
void blur_half_pass(halden::compute::queue& q, const float* src, float* dst, int n, float radius);

}  // namespace detail

// The four passes: rows twice and columns twice, through `scratch_b` and
// `result` (both n x n); `result` ends in the source's orientation.
void blur(halden::compute::queue& q, const float* source, float* scratch_b, float* result, int n, float radius);

}  // namespace blur
