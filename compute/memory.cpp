// SPDX-License-Identifier: Apache-2.0
#include "compute/memory.hpp"

namespace halden::compute::detail {

std::size_t checked_bytes(std::size_t count, std::size_t size, const char* label) {
    if (size != 0 && count > std::size_t(-1) / size)
        throw out_of_memory(std::string(label) + ": " + std::to_string(count) + " elements overflow the address space");
    return count * size;
}

void* allocate(queue& q, std::size_t bytes, const char* label) {
    const device& dev = q.get_device();
    try {
        if (dev.get_backend() == backend::native) {
            if (void* p = q.reuse_host_block(bytes)) return p;
            return native::allocate(bytes);
        }
        return cuda::allocate(dev.ordinal(), bytes);
    } catch (const out_of_memory& e) {
        throw out_of_memory(std::string(label) + ": " + e.what());
    }
}

void deallocate(queue& q, void* ptr, std::size_t bytes) noexcept {
    const device& dev = q.get_device();
    if (dev.get_backend() == backend::native) {
        if (!q.keep_host_block(ptr, bytes)) native::deallocate(ptr);
        return;
    }
    std::string failure = cuda::deallocate(dev.ordinal(), ptr);
    if (!failure.empty()) q.report_async_error(std::move(failure));
}

}  // namespace halden::compute::detail
