// SPDX-License-Identifier: Apache-2.0
// In-order queue bound to one device. Kernels are launched by the device's
// back-end; device failures are collected and handed to the queue's
// asynchronous-error handler when the queue is waited on.
#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "compute/device.hpp"
#include "compute/native/launch.hpp"
#include "compute/types.hpp"
#if defined(__CUDACC__)
#  include "compute/cuda/launch.hpp"
#endif

namespace halden::compute {

using exception_list = std::vector<std::exception_ptr>;
using async_handler = std::function<void(exception_list)>;

class queue {
public:
    explicit queue(const device& dev, async_handler handler = {});
    // Waits for outstanding work; errors found then go to the handler.
    ~queue();
    queue(const queue&) = delete;
    queue& operator=(const queue&) = delete;

    const device& get_device() const { return m_device; }

    // body(i) for i in [0, r.size) of a range<1>; body(row, col) for every
    // cell of a range<2>.
    template <int D, class F>
    void parallel_for(range<D> r, F body);

    // Work-group launch: every phase runs as phase(const group_item&, T* local)
    // for all items of a group, with a barrier between consecutive phases.
    // `local_count` elements of T are shared by the items of one group. Items
    // whose global position lies past the data still run every phase, so
    // cooperative loads stay complete; phases test their own bounds.
    template <class T, class... Phases>
    void parallel_for_work_group(nd_range nd, std::size_t local_count, Phases... phases);

    // The most work items of one launch that run at once on the host (its
    // worker threads); 0 on a device, where they are too many to count.
    int host_workers() const;

    // Stream-ordered copy between any two of host and this device's memory.
    void copy(const void* src, void* dst, std::size_t bytes);

    // Blocks until the device has finished; failures become pending errors.
    void synchronize();
    // synchronize(), then hands every pending error to the handler.
    void wait();
    // synchronize(), then throws compute::exception carrying the pending
    // errors' texts (which are thereby consumed) if there are any.
    void wait_and_throw();

    bool has_pending_errors() const { return !m_pending.empty(); }
    // Records a device failure for the handler. Back-ends call it; tests use it
    // to inject a fault.
    void report_async_error(std::string text) { m_pending.push_back(std::move(text)); }

    void* native_stream() const { return m_stream; }

    // Host queues keep the memory their calls free for the next calls: fresh
    // memory costs a page fault and a page cleared per 4 KiB, more than a
    // memory-bound kernel spends on it, and a tool calls the same operation
    // on grids of one size again and again. reuse_host_block returns a kept
    // block of exactly `bytes`, or null; keep_host_block takes a block that is
    // being freed, or declines it (then the caller frees it).
    void* reuse_host_block(std::size_t bytes) noexcept;
    bool keep_host_block(void* ptr, std::size_t bytes) noexcept;

private:
    struct host_block {
        std::size_t bytes;
        void* ptr;
    };

    [[noreturn]] void no_cuda_kernel() const;
    void after_cuda_launch();

    device m_device;
    async_handler m_handler;
    void* m_stream = nullptr;  // cudaStream_t of a CUDA queue
    std::vector<std::string> m_pending;
    std::vector<host_block> m_kept;  // most recently kept last
};

template <int D, class F>
void queue::parallel_for(range<D> r, F body) {
    if (r.count() == 0) return;
    if (m_device.get_backend() == backend::native) {
        native::launch(r, body);
        return;
    }
#if defined(__CUDACC__)
    cuda::launch(m_stream, r, body);
    after_cuda_launch();
#else
    no_cuda_kernel();
#endif
}

template <class T, class... Phases>
void queue::parallel_for_work_group(nd_range nd, std::size_t local_count, Phases... phases) {
    if (nd.groups.count() == 0 || nd.local.count() == 0) return;
    if (m_device.get_backend() == backend::native) {
        native::launch_groups<T>(nd, local_count, phases...);
        return;
    }
#if defined(__CUDACC__)
    cuda::launch_groups<T>(m_stream, nd, local_count, phases...);
    after_cuda_launch();
#else
    no_cuda_kernel();
#endif
}

}  // namespace halden::compute
