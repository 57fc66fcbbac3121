// SPDX-License-Identifier: Apache-2.0
#include <cuda_runtime.h>

#include <string>

#include "compute/backend.hpp"
#include "compute/types.hpp"

namespace halden::compute::cuda {

void* allocate(int ordinal, std::size_t bytes) {
    cudaSetDevice(ordinal);
    void* p = nullptr;
    const cudaError_t e = cudaMalloc(&p, bytes ? bytes : 1);
    if (e != cudaSuccess) {
        cudaGetLastError();  // an allocation failure must not look like a later kernel's fault
        throw out_of_memory("cannot allocate " + format_bytes(bytes) + " of device memory: " + cudaGetErrorString(e));
    }
    return p;
}

std::string deallocate(int ordinal, void* ptr) noexcept {
    if (!ptr) return {};
    cudaSetDevice(ordinal);
    const cudaError_t e = cudaFree(ptr);
    if (e == cudaSuccess) return {};
    cudaGetLastError();
    return std::string("cudaFree failed: ") + cudaGetErrorString(e);
}

}  // namespace halden::compute::cuda
