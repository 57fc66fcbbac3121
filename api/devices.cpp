// SPDX-License-Identifier: Apache-2.0
// Device and queue exports.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "device/description.hpp"
#include "device/messages.hpp"
#include "device/queue.hpp"
#include "halden/halden.h"

using namespace halden;

namespace {

constexpr std::uint64_t min_global_memory = 0x40000000;  // 1 GiB

halden_device_record* make_array(const std::vector<device::description>& list) {
    const std::size_t bytes = 8 + sizeof(halden_device_record) * list.size();
    auto* block = static_cast<unsigned char*>(std::malloc(bytes));
    if (!block) throw std::bad_alloc();
    std::memset(block, 0, bytes);
    const std::uint64_t count = list.size();
    std::memcpy(block, &count, 8);
    auto* records = reinterpret_cast<halden_device_record*>(block + 8);
    try {
        for (std::size_t i = 0; i < list.size(); ++i) device::fill_record(records[i], list[i]);
    } catch (...) {
        FreeDevices(records);
        throw;
    }
    return records;
}

}  // namespace

extern "C" {

HALDEN_API void GetDevices(halden_device_record** devices, uint32_t* count) noexcept {
    if (!devices || !count) {
        send_error(process_callbacks(), "GetDevices: null output pointer");
        return;
    }
    *devices = nullptr;
    *count = 0;
    try {
        send_info(process_callbacks(), "Device scan started (AdaptiveCpp)");
        std::vector<device::description> list;
        list.reserve(20);
        for (const compute::device& dev : compute::get_devices()) {
            if (dev.get_backend() == compute::backend::hip) continue;
            if (dev.global_mem_size() < min_global_memory || !dev.supports_usm_device_allocations()) continue;
            device::description d = device::describe(dev);
            if (d.flag2 || device::passes_architecture_test(d, dev.get_backend())) list.push_back(std::move(d));
        }
        *devices = make_array(list);
        *count = static_cast<uint32_t>(list.size());
        send_info(process_callbacks(), "Device scan finished");
    } catch (const std::exception& e) {
        send_error(process_callbacks(), std::string("Exception caught while scanning devices: ") + e.what());
    } catch (...) {
        send_error(process_callbacks(), "Unknown exception caught while scanning devices");
    }
}

HALDEN_API void FreeDevices(halden_device_record* devices) noexcept {
    if (!devices) return;
    unsigned char* block = reinterpret_cast<unsigned char*>(devices) - 8;
    std::uint64_t count = 0;
    std::memcpy(&count, block, 8);
    for (std::uint64_t i = count; i-- > 0;) device::free_record_strings(devices[i]);
    std::free(block);
}

HALDEN_API halden_device_record* GetDeviceInfo(halden_queue* queue) noexcept {
    halden_device_record* info = nullptr;
    if (!queue) {
        // A bad argument, not a failure of the device: one text says it all.
        send_error(process_callbacks(), "GetDeviceInfo: null queue handle");
        return nullptr;
    }
    try {
        info = static_cast<halden_device_record*>(std::calloc(1, sizeof(halden_device_record)));
        if (!info) throw std::bad_alloc();
        device::fill_record(*info, device::describe(queue->queue.get_device()));
        return info;
    } catch (const std::exception& e) {
        FreeDeviceInfo(info);
        send_error(process_callbacks(), "Exception caught while getting device info: ");
        send_error(process_callbacks(), e.what());
    } catch (...) {
        FreeDeviceInfo(info);
        send_error(process_callbacks(), "Unknown exception caught while getting device info");
    }
    return nullptr;
}

HALDEN_API void FreeDeviceInfo(halden_device_record* info) noexcept {
    if (!info) return;
    device::free_record_strings(*info);
    std::free(info);
}

HALDEN_API halden_queue* CreateSyclQueue(const char* key, const halden_callbacks* callbacks) noexcept {
    try {
        install_process_callbacks(callbacks);
        device::silence_standard_error();
        if (!key) {
            send_error(process_callbacks(), "CreateSyclQueue: null device key");
            return nullptr;
        }
        return device::make_queue(key).release();
    } catch (const compute::exception& e) {
        // "No matching device" is answered by null alone; other runtime failures are reported.
        if (std::strcmp(e.what(), "No matching device") != 0)
            send_error(process_callbacks(), std::string("Runtime error while creating a queue: ") + e.what());
    } catch (const std::exception& e) {
        send_error(process_callbacks(), std::string("Error: ") + e.what());
    } catch (...) {
        send_error(process_callbacks(), "Error: unknown exception while creating a queue");
    }
    return nullptr;
}

HALDEN_API void DestroySyclQueue(halden_queue* queue) noexcept {
    if (!queue) return;
    try {
        queue->queue.wait_and_throw();
        delete queue;
    } catch (const std::exception& e) {
        send_error(process_callbacks(), "Exception caught while deactivating device: ");
        send_error(process_callbacks(), e.what());
    } catch (...) {
        send_error(process_callbacks(), "Unknown exception caught while deactivating device");
    }
}

}  // extern "C"
