// SPDX-License-Identifier: Apache-2.0
// Filling, halving, doubling and sharpening of float grids on the device.
//
// Every operation comes in two forms, on usm_ptr grids and on buffers with a
// queue; both enqueue exactly one kernel and return without waiting. The
// functions are inline: every module that includes this header compiles the
// same source into itself.
//
// The magic filters are cell-centred: coarse cell x lies under fine cells 2x
// and 2x + 1, and its sample sits between them.
#pragma once

#include <cmath>
#include <utility>

#include "core/grid.hpp"

// Inline kernels are emitted in every translation unit that uses them and the
// linker keeps one copy. A copy compiled without nvcc has no CUDA launch path,
// so with the CUDA back-end every includer must be a kernel source.
#if defined(HALDEN_WITH_CUDA) && !defined(__CUDACC__)
#  error "this header defines kernels: compile the including file with halden_kernel_sources()"
#endif

namespace halden::core {

// Sets every cell to `value`.
inline void fill(grid& g, float value) {
    float* d = g.get();
    const std::size_t cols = g.extent().cols;
    g.get_queue().parallel_for(g.extent(), HALDEN_KERNEL(std::size_t row, std::size_t col) { d[row * cols + col] = value; });
}

}  // namespace halden::core

namespace resampling {

using halden::compute::queue;
using halden::compute::range;
using halden::core::clamp_index;
using halden::core::grid;
using halden::core::grid_buffer;

// 9a + 3(b + c) + d over the coarse parent a of fine cell (y, x), its side
// neighbours b (along x) and c (along y) and its diagonal neighbour d, on a
// w x h coarse grid. The magic upsampling is this sum / 16; the pyramid
// kernels inline it. The parent is not clamped: the fine grid may be at most
// twice the coarse one.
HALDEN_HD inline float magic_sum(const float* in, int w, int h, int y, int x) {
    const int px = x / 2, py = y / 2;
    const int nx = clamp_index(px - 1 + 2 * (x & 1), 0, w - 1);
    const int ny = clamp_index(py - 1 + 2 * (y & 1), 0, h - 1);
    const float a = in[py * w + px], b = in[py * w + nx];
    const float c = in[ny * w + px], d = in[ny * w + nx];
    return fmaf(c + b, 3.0f, fmaf(a, 9.0f, d));
}

namespace kernels {

// Sources are w x h, destinations wo x ho.

inline void downsample_box(queue& q, const float* in, int w, float* out, int wo, int ho) {
    q.parallel_for(range<2>{std::size_t(ho), std::size_t(wo)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const int y = int(row), x = int(col);
        const float* top = in + 2 * y * w + 2 * x;
        const float* bottom = top + w;
        out[y * wo + x] = (((top[1] + top[0]) + bottom[0]) + bottom[1]) * 0.25f;
    });
}

// `quarter` keeps the grid form's store at (y >> 1, x >> 1): only the
// top-left quarter of the result is written.
inline void upsample_box(queue& q, const float* in, int w, int h, float* out, bool quarter) {
    const int wo = 2 * w;
    q.parallel_for(range<2>{std::size_t(2 * h), std::size_t(wo)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const int y = int(row), x = int(col);
        const float v = in[(y >> 1) * w + (x >> 1)];
        if (quarter)
            out[(y >> 1) * wo + (x >> 1)] = v;
        else
            out[y * wo + x] = v;
    });
}

inline void downsample_magic(queue& q, const float* in, int w, int h, float* out, int wo, int ho) {
    q.parallel_for(range<2>{std::size_t(ho), std::size_t(wo)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const int r = 2 * int(row), c = 2 * int(col);
        const int c0 = c - 1 < 0 ? 0 : c - 1, c1 = c, c2 = c + 1 < w ? c + 1 : w - 1, c3 = c + 2 < w ? c + 2 : w - 1;
        const float* r0 = in + (r - 1 < 0 ? 0 : r - 1) * w;
        const float* r1 = in + r * w;
        const float* r2 = in + (r + 1 < h ? r + 1 : h - 1) * w;
        const float* r3 = in + (r + 2 < h ? r + 2 : h - 1) * w;
        const float edges = r0[c2] + r0[c1] + r1[c0] + r1[c3] + r2[c0] + r2[c3] + r3[c1] + r3[c2];
        const float centre = r1[c2] + r1[c1] + r2[c1] + r2[c2];
        const float corners = (r0[c3] + r0[c0]) + r3[c0];
        out[int(row) * wo + int(col)] = fmaf(edges, 3.0f, fmaf(centre, 9.0f, corners) + r3[c3]) * 0.015625f;
    });
}

inline void upsample_magic(queue& q, const float* in, int w, int h, float* out) {
    const int wo = 2 * w;
    q.parallel_for(range<2>{std::size_t(2 * h), std::size_t(wo)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const int y = int(row), x = int(col);
        out[y * wo + x] = magic_sum(in, w, h, y, x) * 0.0625f;
    });
}

inline void sharpen_magic(queue& q, const float* in, int w, int h, float* out) {
    q.parallel_for(range<2>{std::size_t(h), std::size_t(w)}, HALDEN_KERNEL(std::size_t row, std::size_t col) {
        const int y = int(row), x = int(col);
        const int xl = x - 1 < 0 ? 0 : x - 1, xr = x + 1 < w ? x + 1 : w - 1;
        const float* up = in + (y - 1 < 0 ? 0 : y - 1) * w;
        const float* mid = in + y * w;
        const float* down = in + (y + 1 < h ? y + 1 : h - 1) * w;
        const float corners = ((up[xl] + up[xr]) + down[xl]) + down[xr];
        const float edges = ((mid[xl] + up[x]) + mid[xr]) + down[x];
        out[y * w + x] = fmaf(corners, 0.0625f, fmaf(edges, -0.375f, mid[x] * 2.25f));
    });
}

// The doubled extent of an allocating form; refuses grids past the cell limit.
inline range<2> doubled(range<2> e) {
    if (!halden::core::grid_size_ok(2 * std::int64_t(e.cols), 2 * std::int64_t(e.rows)))
        throw halden::compute::exception("resampling: doubled grid exceeds 2^31 - 1 cells");
    return {2 * e.rows, 2 * e.cols};
}

}  // namespace kernels

using halden::core::height_of;
using halden::core::width_of;

// Grid forms: the queue is the one that owns the grid. The allocating forms
// replace their argument with the grid they write; the replaced grid is freed
// when they return, after the kernel that reads it (frees are stream-ordered).

// 2x2 mean. dst must satisfy 2 * width(dst) <= width(src) and likewise for the
// height; odd trailing rows and columns of src are ignored.
inline void downsample_box(grid& dst, const grid& src) {
    kernels::downsample_box(src.get_queue(), src.get(), width_of(src), dst.get(), width_of(dst), height_of(dst));
}

// Of the doubled grid only the top-left quarter is written (a copy of the
// source, row stride doubled); the rest keeps what the allocation held. Use the
// buffer form for a true pixel replication.
inline void upsample_box(grid& g) {
    grid out(g.get_queue(), kernels::doubled(g.extent()), "upsample_box");
    kernels::upsample_box(g.get_queue(), g.get(), width_of(g), height_of(g), out.get(), true);
    g = std::move(out);
}

// 4x4 magic filter [1 3 3 1] / 8 per axis. dst may be up to ceil(w/2) x ceil(h/2).
inline void downsample_magic(grid& dst, const grid& src) {
    kernels::downsample_magic(src.get_queue(), src.get(), width_of(src), height_of(src), dst.get(), width_of(dst),
                              height_of(dst));
}

inline void upsample_magic(grid& g) {
    grid out(g.get_queue(), kernels::doubled(g.extent()), "upsample_magic");
    kernels::upsample_magic(g.get_queue(), g.get(), width_of(g), height_of(g), out.get());
    g = std::move(out);
}

// 3x3 filter [-1 6 -1] / 4 per axis; the result may overshoot the input's range.
inline void sharpen_magic(grid& g) {
    grid out(g.get_queue(), g.extent(), "sharpen_magic");
    kernels::sharpen_magic(g.get_queue(), g.get(), width_of(g), height_of(g), out.get());
    g = std::move(out);
}

// Buffer forms. A replaced buffer writes back to its host array first; the
// new one is bound to none.

inline void downsample_box(const grid_buffer& src, grid_buffer& dst, queue& q) {
    kernels::downsample_box(q, src.get(), width_of(src), dst.get(), width_of(dst), height_of(dst));
}

inline void upsample_box(grid_buffer& b, queue& q) {
    grid_buffer out(q, kernels::doubled(b.extent()));
    kernels::upsample_box(q, b.get(), width_of(b), height_of(b), out.get(), false);
    b = std::move(out);
}

inline void downsample_magic(const grid_buffer& src, grid_buffer& dst, queue& q) {
    kernels::downsample_magic(q, src.get(), width_of(src), height_of(src), dst.get(), width_of(dst), height_of(dst));
}

inline void upsample_magic(grid_buffer& b, queue& q) {
    grid_buffer out(q, kernels::doubled(b.extent()));
    kernels::upsample_magic(q, b.get(), width_of(b), height_of(b), out.get());
    b = std::move(out);
}

inline void sharpen_magic(grid_buffer& b, queue& q) {
    grid_buffer out(q, b.extent());
    kernels::sharpen_magic(q, b.get(), width_of(b), height_of(b), out.get());
    b = std::move(out);
}

}  // namespace resampling
