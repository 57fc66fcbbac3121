// SPDX-License-Identifier: Apache-2.0
// CUDA back-end launchers. Included only by translation units that nvcc
// compiles; the kernel body arrives by value.
#pragma once

#include <algorithm>
#include <cstdint>

#include <cuda_runtime.h>

#include "compute/types.hpp"

namespace halden::compute::cuda {

// Launch bounds match the block sizes below, so a heavy body spills to local
// memory instead of failing to launch for want of registers.
template <class F>
__global__ void __launch_bounds__(256) kernel_1d(std::size_t n, F body) {
    const std::size_t stride = std::size_t(gridDim.x) * blockDim.x;
    for (std::size_t i = std::size_t(blockIdx.x) * blockDim.x + threadIdx.x; i < n; i += stride) body(i);
}

template <class F>
__global__ void __launch_bounds__(256) kernel_2d(std::size_t rows, std::size_t cols, F body) {
    const std::size_t col = std::size_t(blockIdx.x) * blockDim.x + threadIdx.x;
    if (col >= cols) return;  // the grid is rounded up to whole blocks
    const std::size_t stride = std::size_t(gridDim.y) * blockDim.y;
    for (std::size_t row = std::size_t(blockIdx.y) * blockDim.y + threadIdx.y; row < rows; row += stride)
        body(row, col);
}

template <class T, class... Phases>
__global__ void __launch_bounds__(1024) kernel_groups(Phases... phases) {
    extern __shared__ __align__(16) unsigned char shared_bytes[];
    T* local = reinterpret_cast<T*>(shared_bytes);
    const group_item it{blockIdx.y, blockIdx.x, threadIdx.y, threadIdx.x, blockDim.y, blockDim.x};
    ((phases(it, local), __syncthreads()), ...);
}

inline unsigned blocks_for(std::size_t items, unsigned per_block, unsigned cap) {
    return static_cast<unsigned>(std::min<std::size_t>((items + per_block - 1) / per_block, cap));
}

template <class F>
void launch(void* stream, range<1> r, F& body) {
    constexpr unsigned threads = 256;
    kernel_1d<<<blocks_for(r.size, threads, 1u << 20), threads, 0, static_cast<cudaStream_t>(stream)>>>(r.size, body);
}

template <class F>
void launch(void* stream, range<2> r, F& body) {
    const dim3 block(32, 8);
    const dim3 grid(blocks_for(r.cols, block.x, 0x7fffffffu), blocks_for(r.rows, block.y, 65535u));
    kernel_2d<<<grid, block, 0, static_cast<cudaStream_t>(stream)>>>(r.rows, r.cols, body);
}

template <class T, class... Phases>
void launch_groups(void* stream, nd_range nd, std::size_t local_count, Phases&... phases) {
    if (nd.groups.rows > 65535 || nd.groups.cols > 0x7fffffffu || nd.local.count() > 1024)
        throw exception("work-group launch exceeds the CUDA grid limits");
    const dim3 block(static_cast<unsigned>(nd.local.cols), static_cast<unsigned>(nd.local.rows));
    const dim3 grid(static_cast<unsigned>(nd.groups.cols), static_cast<unsigned>(nd.groups.rows));
    kernel_groups<T><<<grid, block, local_count * sizeof(T), static_cast<cudaStream_t>(stream)>>>(phases...);
}

}  // namespace halden::compute::cuda
