// SPDX-License-Identifier: Apache-2.0
// The host back-end runs every kernel to completion inside its launch, so a
// host queue has no stream, nothing to wait for and no device faults of its own.
#include <cstring>

#include "compute/backend.hpp"
#include "compute/queue.hpp"

namespace halden::compute::native {

void copy(const void* src, void* dst, std::size_t bytes) {
    if (bytes) std::memcpy(dst, src, bytes);
}

}  // namespace halden::compute::native
