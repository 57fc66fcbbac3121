// SPDX-License-Identifier: Apache-2.0
#include "compute/queue.hpp"

#include "compute/backend.hpp"

namespace halden::compute {

queue::queue(const device& dev, async_handler handler) : m_device(dev), m_handler(std::move(handler)) {
    if (m_device.get_backend() == backend::cuda) m_stream = cuda::create_stream(m_device.ordinal());
}

queue::~queue() {
    try {
        wait();
    } catch (...) {
        // A handler that rethrows has nowhere to go from a destructor.
    }
    if (m_stream) cuda::destroy_stream(m_device.ordinal(), m_stream);
    for (const host_block& b : m_kept) native::deallocate(b.ptr);
}

int queue::host_workers() const { return m_device.get_backend() == backend::native ? native::max_team_size() : 0; }

namespace {

// What a host queue keeps: a few blocks, at most an eighth of the machine's memory.
constexpr std::size_t kKeptBlocks = 12;

std::size_t kept_bytes_limit() {
    static const std::size_t limit = std::size_t(native::physical_bytes() / 8);
    return limit;
}

}  // namespace

void* queue::reuse_host_block(std::size_t bytes) noexcept {
    for (std::size_t i = m_kept.size(); i-- > 0;)
        if (m_kept[i].bytes == bytes) {
            void* p = m_kept[i].ptr;
            m_kept.erase(m_kept.begin() + std::ptrdiff_t(i));
            return p;
        }
    return nullptr;
}

bool queue::keep_host_block(void* ptr, std::size_t bytes) noexcept {
#if defined(__SANITIZE_ADDRESS__)
    // Reused memory would hide use-after-free from the address sanitizer.
    (void)ptr, (void)bytes;
    return false;
#else
    if (m_device.get_backend() != backend::native || bytes > kept_bytes_limit()) return false;
    try {
        std::size_t total = bytes;
        for (const host_block& b : m_kept) total += b.bytes;
        // The oldest blocks make room.
        while (!m_kept.empty() && (m_kept.size() >= kKeptBlocks || total > kept_bytes_limit())) {
            total -= m_kept.front().bytes;
            native::deallocate(m_kept.front().ptr);
            m_kept.erase(m_kept.begin());
        }
        m_kept.push_back({bytes, ptr});
        return true;
    } catch (...) {
        return false;
    }
#endif
}

void queue::copy(const void* src, void* dst, std::size_t bytes) {
    if (m_device.get_backend() == backend::native)
        native::copy(src, dst, bytes);
    else
        cuda::copy(m_device.ordinal(), m_stream, src, dst, bytes);
}

void queue::synchronize() {
    if (!m_stream) return;
    std::string failure = cuda::synchronize(m_device.ordinal(), m_stream);
    if (!failure.empty()) report_async_error(std::move(failure));
}

void queue::wait() {
    synchronize();
    if (m_pending.empty()) return;
    exception_list errors;
    for (const std::string& text : m_pending) errors.push_back(std::make_exception_ptr(exception(text)));
    m_pending.clear();
    if (m_handler) m_handler(std::move(errors));
}

void queue::wait_and_throw() {
    synchronize();
    if (m_pending.empty()) return;
    std::string text;
    for (const std::string& t : m_pending) text += (text.empty() ? "" : "; ") + t;
    m_pending.clear();
    throw exception(text);
}

void queue::no_cuda_kernel() const {
    throw exception("this kernel was built without CUDA support; device " + m_device.name() + " cannot run it");
}

void queue::after_cuda_launch() {
    std::string failure = cuda::last_launch_error();
    if (!failure.empty()) report_async_error(std::move(failure));
#if defined(HALDEN_SYNC_EACH_KERNEL)
    // Debug builds: a fault is reported right after the kernel that caused it.
    synchronize();
#endif
}

}  // namespace halden::compute
