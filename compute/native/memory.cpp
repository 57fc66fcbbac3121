// SPDX-License-Identifier: Apache-2.0
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <new>

#include "compute/backend.hpp"
#include "compute/types.hpp"

namespace halden::compute::native {
namespace {

// Memory the system can hand out without swapping. An allocation beyond it
// would succeed lazily under overcommit and fail later, when first touched,
// by killing the process; refusing it up front turns that into an error.
std::uint64_t available_bytes() {
    if (std::FILE* f = std::fopen("/proc/meminfo", "r")) {
        char line[256];
        unsigned long long kib = 0;
        bool found = false;
        while (std::fgets(line, sizeof line, f))
            if (std::sscanf(line, "MemAvailable: %llu kB", &kib) == 1) {
                found = true;
                break;
            }
        std::fclose(f);
        if (found) return std::uint64_t(kib) * 1024;
    }
    const long pages = sysconf(_SC_AVPHYS_PAGES);
    const long page = sysconf(_SC_PAGESIZE);
    return pages > 0 && page > 0 ? std::uint64_t(pages) * std::uint64_t(page) : ~std::uint64_t(0);
}

}  // namespace

// Grids from this size up go on 2 MiB pages: a 64 MiB grid then costs 32
// page faults instead of 16384.
constexpr std::size_t kHugePage = std::size_t(2) << 20;

void* allocate(std::size_t bytes) {
    if (bytes == 0) bytes = 1;
    if (bytes > available_bytes())
        throw out_of_memory("cannot allocate " + format_bytes(bytes) + ": more than the host has available");
    const std::size_t align = bytes >= 2 * kHugePage ? kHugePage : 64;
    void* p = std::aligned_alloc(align, (bytes + align - 1) / align * align);
    if (!p) throw out_of_memory("cannot allocate " + format_bytes(bytes) + " of host memory");
#if defined(MADV_HUGEPAGE)
    if (align == kHugePage) madvise(p, (bytes + align - 1) / align * align, MADV_HUGEPAGE);  // a hint only
#endif
    return p;
}

std::uint64_t physical_bytes() {
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long page = sysconf(_SC_PAGESIZE);
    return pages > 0 && page > 0 ? std::uint64_t(pages) * std::uint64_t(page) : 0;
}

void deallocate(void* ptr) noexcept { std::free(ptr); }

}  // namespace halden::compute::native
