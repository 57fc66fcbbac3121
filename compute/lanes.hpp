// SPDX-License-Identifier: Apache-2.0
// Helpers for loops that one host work item holds. Lane groups: particles
// that run side by side in the lanes of one work item, so that their chains
// of dependent loads, divisions and square roots overlap, in vector
// registers where the set has them (a device runs one particle per work
// item instead). Rows: a stencil's row in one vector loop. run_wide compiles
// either for the wider instruction set.
#pragma once

#include <cstdint>

#include "compute/atomic.hpp"
#include "compute/native/launch.hpp"
#include "compute/types.hpp"
#include "core/bits.hpp"

// Vectorises the lane loop that follows on the host.
#if defined(__CUDA_ARCH__)
#  define HALDEN_LANES
#else
#  define HALDEN_LANES _Pragma("omp simd")
#endif

namespace halden::compute {

// Runs `run()`, a loop that one work item holds (a host lane group, a row),
// compiled for x86-64-v3 where the processor has it; a device just calls it.
template <class F>
HALDEN_HD inline void run_wide(const F& run) {
#if defined(__CUDA_ARCH__)
    run();
#else
    if (native::active_isa() == native::isa::x86_64_v3)
        native::loops::run_v3(run);
    else
        run();
#endif
}

// A hint that *p will be written soon.
template <class T>
HALDEN_HD inline void prefetch(T* p) {
#if defined(__CUDA_ARCH__)
    (void)p;
#else
    __builtin_prefetch(p, 1, 3);
#endif
}

// a where `keep` is 1, b where it is 0, without a branch: the compiler then
// finds no conditional store to turn into a masked one.
HALDEN_HD inline std::uint32_t pick(std::uint32_t keep, std::uint32_t a, std::uint32_t b) {
    const std::uint32_t m = 0u - keep;
    return (a & m) | (b & ~m);
}
HALDEN_HD inline float pick(std::uint32_t keep, float a, float b) {
    return halden::bits_float(pick(keep, halden::float_bits(a), halden::float_bits(b)));
}

// Items a lane group takes from its launch's shared counter at a time.
inline constexpr unsigned lane_grab = 64;
// Host work items per lane group: the first of each runs one, the others
// return at once, so the launch still hands out its chunks to every thread.
inline constexpr unsigned items_per_lane_group = 256;

// Hands the items of a launch to the lane groups that share it, lane_grab at
// a time from the counter *claimed (0 at the launch's start), so that lanes
// refill until every group has run out.
struct lane_feed {
    std::int32_t* claimed;
    unsigned count;
    unsigned next = 0, end = 0;

    // The next item, or false once they have all been handed out.
    HALDEN_HD bool take(unsigned& item) {
        if (next == end) {
            if (!claimed) return false;
            const std::int32_t first = atomic_add(claimed, std::int32_t(lane_grab));
            if (unsigned(first) >= count) {
                claimed = nullptr;
                return false;
            }
            next = unsigned(first);
            end = count - next < lane_grab ? count : next + lane_grab;
        }
        item = next++;
        return true;
    }
};

}  // namespace halden::compute
