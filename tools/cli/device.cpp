// SPDX-License-Identifier: Apache-2.0
#include "cli/device.hpp"

#include "cli/command.hpp"
#include "cli/messages.hpp"
#include "cli/progress.hpp"

namespace cli {

std::string device_key(const halden_device_record& record) {
    std::string key(std::size_t(halden_device_key(&record, nullptr, 0)), '\0');
    halden_device_key(&record, key.data(), key.size() + 1);
    return key;
}

int open_queue(const std::string& device, halden_queue*& queue, std::string& key) {
    key = device;
    if (device == "gpu") {
        const DeviceList list;
        key.clear();
        for (uint32_t i = 0; i < list.count && key.empty(); ++i)
            if (text_of(list.records[i].backend) == "CUDA") key = device_key(list.records[i]);
        if (key.empty()) return fail(kDevice, "no CUDA device listed (see 'halden devices')");
    }
    clear_library_error();
    queue = CreateSyclQueue(key.c_str(), callbacks());
    if (!queue) {
        const std::string reason = library_reason();
        if (!reason.empty()) return fail(kDevice, "cannot open a queue on '%s'%s", key.c_str(), reason.c_str());
        return fail(kDevice, "no device matches '%s' (see 'halden devices')", key.c_str());
    }
    if (halden_device_record* info = GetDeviceInfo(queue)) {  // names the device "cpu" or "gpu" resolved to
        key = device_key(*info);
        FreeDeviceInfo(info);
    }
    return kOk;
}

int cancelled(const Context& context) {
    if (context.out().empty()) return fail(kDevice, "cancelled");
    return fail(kDevice, "cancelled; %s not written", context.out().c_str());
}

int run_on_device(Context& context, const char* what, const std::function<uint32_t(halden_queue*)>& operation,
                  Bar bar) {
    if (interrupted()) return cancelled(context);  // while the inputs were read
    const Stopwatch watch;
    halden_queue* queue = nullptr;
    if (const int code = open_queue(context.common.device, queue, context.key); code != kOk) return code;
    uint32_t status = HALDEN_STATUS_OK;
    std::string reason;  // the library's, when it reported an error
    {
        const Common& common = context.common;
        ProgressBar progress(context.name(), progress_wanted(common.quiet, common.json, common.no_progress),
                             bar == Bar::kAtOnce);
        status = operation(queue);
        DestroySyclQueue(queue);
        if (library_error()) status = HALDEN_STATUS_DEVICE_ERROR;
        reason = library_reason();
        if (status == HALDEN_STATUS_OK) progress.complete();
    }
    context.timings.run += watch.milliseconds();
    const char* key = context.key.c_str();
    const char* out = context.out().c_str();
    // A Ctrl-C that came too late to stop the run still means: keep OUT as it is.
    if (interrupted()) return cancelled(context);
    if (status == HALDEN_STATUS_OUT_OF_MEMORY)
        return fail(kDevice, "not enough device memory on %s for %s%s; %s not written", key, what, reason.c_str(),
                    out);
    if (status != HALDEN_STATUS_OK)
        return fail(kDevice, "%s failed on %s%s; %s not written", what, key, reason.c_str(), out);
    return kOk;
}

}  // namespace cli
