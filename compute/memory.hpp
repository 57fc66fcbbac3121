// SPDX-License-Identifier: Apache-2.0
// Owners of device memory: usm_ptr (one allocation of known extent) and
// buffer (a device copy of a host array, written back on destruction).
#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "compute/backend.hpp"
#include "compute/queue.hpp"
#include "compute/types.hpp"

namespace halden::compute {

namespace detail {
// Size in bytes of `count` elements of `size` bytes; throws out_of_memory on overflow.
std::size_t checked_bytes(std::size_t count, std::size_t size, const char* label);
void* allocate(queue& q, std::size_t bytes, const char* label);
void deallocate(queue& q, void* ptr, std::size_t bytes) noexcept;

template <int D>
std::size_t checked_count(range<D> r, const char* label) {
    if constexpr (D == 1) {
        return r.size;
    } else {
        if (r.cols != 0 && r.rows > std::size_t(-1) / r.cols) throw out_of_memory(std::string(label) + ": size overflows");
        return r.rows * r.cols;
    }
}
}  // namespace detail

// Move-only owner of one device allocation. The queue must outlive it.
template <class T, int D>
class usm_ptr {
public:
    usm_ptr() = default;
    usm_ptr(queue& q, range<D> extent, const char* label = "grid")
        : m_queue(&q), m_extent(extent), m_count(detail::checked_count(extent, label)) {
        m_ptr = static_cast<T*>(detail::allocate(q, detail::checked_bytes(m_count, sizeof(T), label), label));
    }
    ~usm_ptr() { reset(); }

    usm_ptr(usm_ptr&& o) noexcept { swap(o); }
    usm_ptr& operator=(usm_ptr&& o) noexcept {
        usm_ptr(std::move(o)).swap(*this);
        return *this;
    }
    usm_ptr(const usm_ptr&) = delete;
    usm_ptr& operator=(const usm_ptr&) = delete;

    void swap(usm_ptr& o) noexcept {
        std::swap(m_queue, o.m_queue);
        std::swap(m_ptr, o.m_ptr);
        std::swap(m_extent, o.m_extent);
        std::swap(m_count, o.m_count);
    }

    void reset() noexcept {
        if (m_ptr) detail::deallocate(*m_queue, m_ptr, bytes());
        m_ptr = nullptr;
        m_count = 0;
        m_extent = {};
    }

    T* get() const { return m_ptr; }
    queue& get_queue() const { return *m_queue; }
    range<D> extent() const { return m_extent; }
    std::size_t size() const { return m_count; }
    std::size_t bytes() const { return m_count * sizeof(T); }

    void copy_from_host(const T* h_src) { m_queue->copy(h_src, m_ptr, bytes()); }
    void copy_to_host(T* h_dst) const { m_queue->copy(m_ptr, h_dst, bytes()); }

private:
    queue* m_queue = nullptr;
    T* m_ptr = nullptr;
    range<D> m_extent{};
    std::size_t m_count = 0;
};

// A read-only host array as kernels see it: on the host device the array
// itself, elsewhere a device copy.
template <class T, int D>
class input_view {
public:
    input_view(queue& q, const T* h_data, range<D> extent, const char* label = "input") : m_view(h_data) {
        if (q.get_device().get_backend() == backend::native) return;
        m_copy = usm_ptr<T, D>(q, extent, label);
        m_copy.copy_from_host(h_data);
        m_view = m_copy.get();
    }
    const T* get() const { return m_view; }

private:
    usm_ptr<T, D> m_copy;
    const T* m_view;
};

// A device copy of a host array. Destruction writes the device contents back
// into the host array, unless the queue has recorded a device failure: then
// the caller's array keeps what it held rather than untrustworthy results.
template <class T, int D>
class buffer {
public:
    buffer(queue& q, T* h_data, range<D> extent) : m_mem(q, extent, "buffer"), m_queue(&q), m_host(h_data) {
        m_mem.copy_from_host(h_data);
    }
    // A device copy of a read-only host array: nothing is written back.
    buffer(queue& q, const T* h_data, range<D> extent) : m_mem(q, extent, "buffer"), m_queue(&q) {
        m_mem.copy_from_host(h_data);
    }
    // A scratch buffer bound to no host array.
    buffer(queue& q, range<D> extent) : m_mem(q, extent, "scratch buffer"), m_queue(&q) {}

    ~buffer() { write_back(); }
    buffer(const buffer&) = delete;
    buffer& operator=(const buffer&) = delete;
    buffer(buffer&& o) noexcept : m_mem(std::move(o.m_mem)), m_queue(o.m_queue), m_host(o.m_host) { o.m_host = nullptr; }
    // The replaced buffer writes back to its own host array first.
    buffer& operator=(buffer&& o) noexcept {
        if (this == &o) return *this;
        write_back();
        m_mem = std::move(o.m_mem);
        m_queue = o.m_queue;
        m_host = o.m_host;
        o.m_host = nullptr;
        return *this;
    }

    T* get() const { return m_mem.get(); }
    queue& get_queue() const { return *m_queue; }
    range<D> extent() const { return m_mem.extent(); }
    // Exchanges device contents with another buffer of the same extent; each
    // keeps its host binding.
    void swap_contents(buffer& o) noexcept { m_mem.swap(o.m_mem); }

private:
    void write_back() noexcept {
        if (!m_host) return;
        try {
            m_queue->synchronize();
            if (m_queue->has_pending_errors()) return;
            m_mem.copy_to_host(m_host);
            m_queue->synchronize();
        } catch (const std::exception& e) {
            m_queue->report_async_error(std::string("write-back failed: ") + e.what());
        } catch (...) {
            m_queue->report_async_error("write-back failed");
        }
    }

    usm_ptr<T, D> m_mem;
    queue* m_queue;
    T* m_host = nullptr;
};

}  // namespace halden::compute
