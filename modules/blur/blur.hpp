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
// Past 2^24 a float radius has no fraction left, and the edge cells' weight
// overwhelms everything else in float long before: larger radii are refused.
inline constexpr float max_radius = 16777216.0f;

namespace detail {

// Row i of the n x n grid `src`, blurred along the row, goes to row i of
// `dst` (SameLayout) or to column i (transposed). Only <true, ...> exists.
// One box pass along every row, Lanes rows per work item (8 on the host, 1
// on a GPU; the same bits either way); the result transposed unless SameLayout.
template <bool SameLayout, int Lanes>
void running_rows(halden::compute::queue& q, const float* src, float* dst, int n, float radius, int start);

template <bool Rows, bool SameLayout>
void fastblur_half_pass(halden::compute::queue& q, const float* src, float* dst, int n, float radius);

// The same weights summed directly per cell (no running sum), over a
// two-dimensional range; a reference for the running passes.
template <int Axis>
void blur_half_pass(halden::compute::queue& q, const float* src, float* dst, int n, float radius);

}  // namespace detail

// The four passes: rows twice and columns twice, through `scratch_b` and
// `result` (both n x n); `result` ends in the source's orientation. Each
// pass starts its running sum as the dune simulation expects (see
// fastblur_half_pass), which biases rows whose first cells differ.
void blur(halden::compute::queue& q, const float* source, float* scratch_b, float* result, int n, float radius);

// The same four passes with the documented weights exactly: each output of
// a pass is the mean of the 2 trunc(radius) + 1 cells around it plus
// radius - trunc(radius) of the next cell either side, over 2 radius + 1,
// edge cells replicated. What the Blur export runs. Any radius costs the
// same: the running sums never look past the row.
// Two box passes per axis: source -> b -> c -> b -> result. Only the last
// pass writes `result`, which may be `source` or `c`.
void box_blur(halden::compute::queue& q, const float* source, float* scratch_b, float* scratch_c, float* result, int n,
              float radius);

}  // namespace blur
