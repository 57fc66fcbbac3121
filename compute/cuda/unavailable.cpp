// SPDX-License-Identifier: Apache-2.0
// Built in place of the CUDA back-end when the library is configured without
// CUDA: there are no CUDA devices, so none of the rest is ever reached.
#include "compute/backend.hpp"
#include "compute/device.hpp"

namespace halden::compute::cuda {

int device_count() noexcept { return 0; }
device_properties properties(int) { throw exception("built without CUDA"); }
void* allocate(int, std::size_t) { throw exception("built without CUDA"); }
std::string deallocate(int, void*) noexcept { return "built without CUDA"; }
void* create_stream(int) { throw exception("built without CUDA"); }
void destroy_stream(int, void*) noexcept {}
std::string synchronize(int, void*) noexcept { return {}; }
void copy(int, void*, const void*, void*, std::size_t) { throw exception("built without CUDA"); }
std::string last_launch_error() noexcept { return {}; }

}  // namespace halden::compute::cuda
