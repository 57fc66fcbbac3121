// SPDX-License-Identifier: Apache-2.0
#include <cuda_runtime.h>

#include <string>

#include "compute/backend.hpp"
#include "compute/types.hpp"

namespace halden::compute::cuda {

void* create_stream(int ordinal) {
    cudaSetDevice(ordinal);
    cudaStream_t s = nullptr;
    const cudaError_t e = cudaStreamCreateWithFlags(&s, cudaStreamNonBlocking);
    if (e != cudaSuccess) {
        cudaGetLastError();
        throw exception(std::string("cannot create a CUDA stream: ") + cudaGetErrorString(e));
    }
    return s;
}

void destroy_stream(int ordinal, void* stream) noexcept {
    cudaSetDevice(ordinal);
    cudaStreamDestroy(static_cast<cudaStream_t>(stream));
    cudaGetLastError();
}

std::string synchronize(int ordinal, void* stream) noexcept {
    cudaSetDevice(ordinal);
    const cudaError_t e = cudaStreamSynchronize(static_cast<cudaStream_t>(stream));
    if (e == cudaSuccess) return {};
    cudaGetLastError();
    return std::string("CUDA error: ") + cudaGetErrorString(e);
}

void copy(int ordinal, void* stream, const void* src, void* dst, std::size_t bytes) {
    if (!bytes) return;
    cudaSetDevice(ordinal);
    const cudaError_t e = cudaMemcpyAsync(dst, src, bytes, cudaMemcpyDefault, static_cast<cudaStream_t>(stream));
    if (e != cudaSuccess) {
        cudaGetLastError();
        throw exception(std::string("copy of ") + format_bytes(bytes) + " failed: " + cudaGetErrorString(e));
    }
}

std::string last_launch_error() noexcept {
    const cudaError_t e = cudaGetLastError();
    if (e == cudaSuccess) return {};
    return std::string("kernel launch failed: ") + cudaGetErrorString(e);
}

}  // namespace halden::compute::cuda
