// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "compute/device.hpp"

#if defined(__x86_64__) || defined(__i386__)
#  include <cpuid.h>
#endif

namespace halden::compute::native {
namespace {

std::string cpu_vendor() {
#if defined(__x86_64__) || defined(__i386__)
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (__get_cpuid(0, &a, &b, &c, &d)) {
        char text[13];
        std::memcpy(text, &b, 4);
        std::memcpy(text + 4, &d, 4);
        std::memcpy(text + 8, &c, 4);
        text[12] = '\0';
        return text;
    }
#endif
    return "unknown";
}

const char* cpu_architecture() {
#if defined(__x86_64__)
    return "x86_64";
#elif defined(__aarch64__)
    return "aarch64";
#elif defined(__i386__)
    return "i386";
#else
    return "unknown";
#endif
}

}  // namespace

device_properties host_properties() {
    device_properties p;
    p.name = "AdaptiveCpp OpenMP host device";
    p.vendor = cpu_vendor();
    p.driver_version = "OpenMP-" + std::to_string(_OPENMP);  // no spaces: keys travel on command lines
    p.architecture = cpu_architecture();
    p.cpu = true;
    p.host_unified_memory = true;
    p.usm_device_allocations = true;
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long page = sysconf(_SC_PAGESIZE);
    p.global_mem_size = pages > 0 && page > 0 ? std::uint64_t(pages) * std::uint64_t(page) : 0;
    return p;
}

}  // namespace halden::compute::native
