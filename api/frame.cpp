// SPDX-License-Identifier: Apache-2.0
#include "api/frame.hpp"

#include <mutex>
#include <string>

#include "device/description.hpp"

namespace halden::api {

std::uint64_t announced_bytes(const compute::device& dev, std::uint64_t need) {
    // Memory of a host device is the application's own: announce only the floor.
    if (dev.is_cpu() && dev.has_host_unified_memory()) return announce_floor;
    return need <= announce_floor ? announce_floor : need;
}

namespace detail {

namespace {
// Module copies are written by every call, from any thread.
std::mutex module_copy_mutex;
}  // namespace

bool begin(halden_queue& q, const frame& f, std::uint64_t& announced) {
    if (!f.module_callbacks) {
        q.call = &f.callbacks;
        return true;
    }
    const std::uint64_t need = f.need_bytes;
    try {
        if (f.precheck) {
            const std::uint64_t probe =
                need > ~std::uint64_t(0) - precheck_headroom ? ~std::uint64_t(0) : need + precheck_headroom;
            if (probe > std::uint64_t(std::size_t(-1))) throw compute::out_of_memory("size overflows the address space");
            compute::usm_ptr<unsigned char, 1> trial(q.queue, {static_cast<std::size_t>(probe)}, "memory pre-check");
        }
    } catch (const compute::out_of_memory& e) {
        send_error(f.callbacks,
                   std::string(f.operation) + ": not enough device memory for " + compute::format_bytes(need) +
                       " plus headroom on " + q.queue.get_device().name() + " (" + e.what() + ")");
        return false;
    }
    {
        const std::lock_guard<std::mutex> lock(module_copy_mutex);
        *f.module_callbacks = complete(f.caller_callbacks);
    }
    announced = announced_bytes(q.queue.get_device(), need);
    f.callbacks.reserve(announced);
    q.call = &f.callbacks;
    q.async_error = false;
    return true;
}

std::uint32_t report_current_exception(halden_queue& q, const frame& f) noexcept {
    const halden_callbacks& out = f.callbacks;
    const compute::device& dev = q.queue.get_device();
    const std::string name = dev.name();
    const std::string backend = device::backend_name(dev.get_backend());
    try {
        throw;
    } catch (const compute::out_of_memory& e) {
        send_error(out, format("Memory allocation error on device {} ({}): {}", {name, backend, e.what()}));
        return HALDEN_STATUS_OUT_OF_MEMORY;
    } catch (const compute::exception& e) {
        send_error(out, format("Runtime error on device {} ({}): {}", {name, backend, e.what()}));
    } catch (const std::bad_alloc& e) {
        send_error(out, format("Memory allocation error on device {} ({}): {}", {name, backend, e.what()}));
        return HALDEN_STATUS_OUT_OF_MEMORY;
    } catch (const std::exception& e) {
        send_error(out, format("Error: {}", {e.what()}));
    } catch (...) {
        send_error(out, f.unknown_error);
    }
    return HALDEN_STATUS_DEVICE_ERROR;
}

std::uint32_t finish(halden_queue& q, const frame& f, std::uint32_t own, std::uint64_t announced) noexcept {
    try {
        q.queue.wait();
    } catch (...) {
        own = report_current_exception(q, f);
    }
    q.call = nullptr;
    if (!f.module_callbacks) return HALDEN_STATUS_OK;
    const std::uint32_t status = q.async_error ? HALDEN_STATUS_DEVICE_ERROR : own;
    if (announced) f.callbacks.release(announced);
    return status;
}

}  // namespace detail

void reject(const frame& f, const char* problem) noexcept {
    try {
        send_error(f.callbacks, std::string(f.operation) + ": " + problem);
    } catch (...) {
    }
}

}  // namespace halden::api
