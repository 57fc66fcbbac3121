// SPDX-License-Identifier: Apache-2.0
#include <cuda_runtime.h>

#include <string>

#include "compute/device.hpp"

namespace halden::compute::cuda {

int device_count() noexcept {
    int n = 0;
    // Without a driver or a GPU this fails; that simply means no CUDA devices.
    if (cudaGetDeviceCount(&n) != cudaSuccess) {
        cudaGetLastError();
        return 0;
    }
    return n;
}

device_properties properties(int ordinal) {
    cudaDeviceProp prop{};
    const cudaError_t e = cudaGetDeviceProperties(&prop, ordinal);
    if (e != cudaSuccess) {
        cudaGetLastError();
        throw exception(std::string("Could not access device: ") + cudaGetErrorString(e));
    }
    int driver = 0;
    cudaDriverGetVersion(&driver);
    device_properties p;
    p.name = prop.name;
    p.vendor = "NVIDIA";
    p.driver_version = std::to_string(driver / 1000) + "." + std::to_string(driver % 1000 / 10);
    p.architecture = "sm_" + std::to_string(prop.major * 10 + prop.minor);
    p.gpu = true;
    p.host_unified_memory = prop.integrated != 0;
    p.usm_device_allocations = true;
    p.global_mem_size = prop.totalGlobalMem;
    return p;
}

}  // namespace halden::compute::cuda
