// SPDX-License-Identifier: Apache-2.0
#include <cstdint>

#include "compute/compute.hpp"
#include "device/description.hpp"

namespace halden::device {

bool test_device(const compute::device& dev) {
    bool failed = false;
    try {
        compute::queue q(dev, [&](compute::exception_list) { failed = true; });
        compute::usm_ptr<std::int32_t, 1> d_value(q, {1}, "device test");
        std::int32_t* d = d_value.get();
        q.parallel_for(compute::range<1>{1}, HALDEN_KERNEL(std::size_t i) { d[i] = 42; });
        std::int32_t h = 0;
        d_value.copy_to_host(&h);
        q.wait();
        return !failed && h == 42;
    } catch (...) {
        return false;
    }
}

}  // namespace halden::device
