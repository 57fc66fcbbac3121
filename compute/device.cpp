// SPDX-License-Identifier: Apache-2.0
#include "compute/device.hpp"

#include <cstdio>

namespace halden::compute {

device host_device() { return device(backend::native, 0, native::host_properties()); }

std::vector<device> get_devices() {
    std::vector<device> list;
    list.push_back(host_device());
    const int n = cuda::device_count();
    for (int i = 0; i < n; ++i) list.emplace_back(backend::cuda, i, cuda::properties(i));
    return list;
}

std::string format_bytes(std::uint64_t bytes) {
    const char* units[] = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double v = double(bytes);
    int u = 0;
    while (v >= 1024.0 && u < 6) {
        v /= 1024.0;
        ++u;
    }
    char text[64];
    if (u == 0)
        std::snprintf(text, sizeof text, "%llu bytes", static_cast<unsigned long long>(bytes));
    else
        std::snprintf(text, sizeof text, "%.1f %s (%llu bytes)", v, units[u], static_cast<unsigned long long>(bytes));
    return text;
}

}  // namespace halden::compute
