// SPDX-License-Identifier: Apache-2.0

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "compute/backend.hpp"
#include "compute/device.hpp"
#include "compute/native/launch.hpp"

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

bool has_x86_64_v3() {
#if defined(__x86_64__) && defined(__GNUC__)
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") && __builtin_cpu_supports("bmi") &&
           __builtin_cpu_supports("bmi2") && __builtin_cpu_supports("f16c") && __builtin_cpu_supports("popcnt") &&
           __builtin_cpu_supports("movbe");
#else
    return false;
#endif
}

isa initial_isa() {
    const char* wanted = std::getenv("HALDEN_HOST_ISA");
    if (wanted && std::strcmp(wanted, "baseline") == 0) return isa::baseline;
    return has_x86_64_v3() ? isa::x86_64_v3 : isa::baseline;
}

std::atomic<int> g_isa{-1};
std::atomic<int> g_launches{0};

}  // namespace

int max_team_size() { return omp_get_max_threads(); }

team::team() {
    const int running = g_launches.fetch_add(1, std::memory_order_relaxed) + 1;
    const int threads = max_team_size();
    m_size = threads / running > 0 ? threads / running : 1;
}

team::~team() { g_launches.fetch_sub(1, std::memory_order_relaxed); }

isa active_isa() {
    int v = g_isa.load(std::memory_order_relaxed);
    if (v < 0) {
        v = int(initial_isa());
        g_isa.store(v, std::memory_order_relaxed);
    }
    return isa(v);
}

isa select_isa(isa wanted) {
    const isa chosen = wanted == isa::x86_64_v3 && !has_x86_64_v3() ? isa::baseline : wanted;
    g_isa.store(int(chosen), std::memory_order_relaxed);
    return chosen;
}

device_properties host_properties() {
    device_properties p;
    p.name = "AdaptiveCpp OpenMP host device";
    p.vendor = cpu_vendor();
    p.driver_version = "OpenMP-" + std::to_string(_OPENMP);  // no spaces: keys travel on command lines
    p.architecture = cpu_architecture();
    p.cpu = true;
    p.host_unified_memory = true;
    p.usm_device_allocations = true;
    p.global_mem_size = physical_bytes();
    return p;
}

}  // namespace halden::compute::native
