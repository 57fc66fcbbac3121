// SPDX-License-Identifier: Apache-2.0
// The compute layer on every device: launch geometry, work-groups with local
// memory and barriers, atomics, device memory owners.
#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <vector>

#include "compute/compute.hpp"
#include "support.hpp"

using namespace halden::compute;

namespace {

class Compute : public halden::test::BackendTest {};

struct counters { float f; std::int32_t i; std::uint32_t u; };

std::vector<std::int32_t> to_host(queue& q, const usm_ptr<std::int32_t, 1>& d) {
    std::vector<std::int32_t> h(d.size());
    d.copy_to_host(h.data());
    q.wait();
    return h;
}

}  // namespace

TEST_P(Compute, RangesVisitEveryIndexExactlyOnce) {
    const range<2> shapes[] = {{1, 1}, {1, 1000}, {1000, 1}, {33, 65}, {256, 257}, {3, 70000}};
    for (range<2> r : shapes) {
        SCOPED_TRACE(std::to_string(r.rows) + "x" + std::to_string(r.cols));
        usm_ptr<std::int32_t, 1> visits(*q, {r.count()});
        const std::vector<std::int32_t> zero(r.count(), 0);
        visits.copy_from_host(zero.data());
        std::int32_t* d = visits.get();
        const std::size_t cols = r.cols;
        q->parallel_for(r, HALDEN_KERNEL(std::size_t row, std::size_t col) { atomic_add(d + row * cols + col, 1); });
        q->parallel_for(range<1>{r.count()}, HALDEN_KERNEL(std::size_t i) { atomic_add(d + i, 10); });
        const std::vector<std::int32_t> h = to_host(*q, visits);
        for (std::size_t i = 0; i < h.size(); ++i) ASSERT_EQ(h[i], 11) << "index " << i;
    }
}

TEST_P(Compute, WorkGroupsShareLocalMemoryAcrossABarrier) {
    // Each item stores its id, then reads the id that the mirrored item stored
    // before the barrier; partial groups at the edge still take part.
    const std::size_t rows = 37, cols = 45;
    const nd_range nd{{(rows + 7) / 8, (cols + 15) / 16}, {8, 16}};
    usm_ptr<std::int32_t, 1> out(*q, {rows * cols});
    std::int32_t* d_out = out.get();
    q->parallel_for_work_group<std::int32_t>(
        nd, 8 * 16,
        HALDEN_KERNEL(const group_item& it, std::int32_t* local) {
            local[it.local_linear()] = static_cast<std::int32_t>(it.global_row() * 1000 + it.global_col());
        },
        HALDEN_KERNEL(const group_item& it, std::int32_t* local) {
            const std::size_t row = it.global_row(), col = it.global_col();
            if (row >= rows || col >= cols) return;
            d_out[row * cols + col] = local[it.local_size() - 1 - it.local_linear()];
        });
    const std::vector<std::int32_t> h = to_host(*q, out);
    for (std::size_t row = 0; row < rows; ++row)
        for (std::size_t col = 0; col < cols; ++col) {
            const std::size_t mirror_row = row / 8 * 8 + (7 - row % 8), mirror_col = col / 16 * 16 + (15 - col % 16);
            ASSERT_EQ(h[row * cols + col], std::int32_t(mirror_row * 1000 + mirror_col)) << row << "," << col;
        }
}

TEST_P(Compute, AtomicsCountEveryUpdate) {
    counters h{0.0f, 0, 0u};
    const std::size_t n = 100000;
    usm_ptr<counters, 1> c(*q, {1});
    c.copy_from_host(&h);
    counters* d = c.get();
    q->parallel_for(range<1>{n}, HALDEN_KERNEL(std::size_t) {
        atomic_add(&d->f, 1.0f);
        atomic_add(&d->i, -2);
        // Increment through compare-and-swap, retrying on contention.
        std::uint32_t seen = *static_cast<volatile std::uint32_t*>(&d->u), prev;
        while ((prev = atomic_compare_exchange(&d->u, seen, seen + 1)) != seen) seen = prev;
    });
    c.copy_to_host(&h);
    q->wait();
    EXPECT_EQ(h.f, float(n));  // integers below 2^24 add exactly in any order
    EXPECT_EQ(h.i, -2 * std::int32_t(n));
    EXPECT_EQ(h.u, n);
}

TEST_P(Compute, BufferWritesBackUnlessTheQueueFailed) {
    std::vector<float> host(100);
    std::iota(host.begin(), host.end(), 0.0f);
    {
        buffer<float, 1> b(*q, host.data(), {host.size()});
        float* d = b.get();
        q->parallel_for(range<1>{100}, HALDEN_KERNEL(std::size_t k) { d[k] *= 2.0f; });
    }
    EXPECT_EQ(host[99], 198.0f);
    {
        buffer<float, 1> b(*q, host.data(), {host.size()});
        float* d = b.get();
        q->parallel_for(range<1>{100}, HALDEN_KERNEL(std::size_t k) { d[k] = -1.0f; });
        q->report_async_error("injected");
    }
    // The failed results never reached the caller's array.
    EXPECT_EQ(host[99], 198.0f);
    q->wait();
    EXPECT_EQ(handled, 1u);
}

TEST_P(Compute, OversizedAllocationsThrowOutOfMemory) {
    EXPECT_THROW((usm_ptr<float, 2>(*q, {std::size_t(1) << 40, std::size_t(1) << 40})), out_of_memory);
    EXPECT_THROW((usm_ptr<float, 1>(*q, {std::size_t(1) << 62})), out_of_memory);
    EXPECT_THROW((usm_ptr<char, 1>(*q, {std::size_t(1) << 52})), out_of_memory);
    usm_ptr<float, 2> a(*q, {4, 8});
    EXPECT_EQ(a.size(), 32u);
    usm_ptr<float, 2> b(std::move(a));
    EXPECT_EQ(a.get(), nullptr);
    EXPECT_EQ(b.extent().cols, 8u);
}

HALDEN_INSTANTIATE_ON_BACKENDS(Compute);

TEST(ComputeDevices, HostDeviceIsListedFirst) {
    const std::vector<device> list = get_devices();
    ASSERT_FALSE(list.empty());
    EXPECT_EQ(list[0].get_backend(), backend::native);
    EXPECT_TRUE(list[0].is_cpu());
    EXPECT_TRUE(list[0].has_host_unified_memory());
    EXPECT_GT(list[0].global_mem_size(), 0u);
}
