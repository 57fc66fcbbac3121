// SPDX-License-Identifier: Apache-2.0
// Devices and queues, and running an operation on the device the command
// was given: with the progress bar, Ctrl-C, the library's errors and the
// times all handled in one place.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "cli/command.hpp"
#include "cli/library.hpp"
#include "cli/timing.hpp"
#include "halden/halden.h"

namespace cli {

// The device list, freed when it goes out of scope.
struct DeviceList {
    halden_device_record* records = nullptr;
    uint32_t count = 0;
    DeviceList() { GetDevices(&records, &count); }
    ~DeviceList() { FreeDevices(records); }
    DeviceList(const DeviceList&) = delete;
    DeviceList& operator=(const DeviceList&) = delete;
};

inline std::string text_of(const char* s) { return s ? s : ""; }

// The key that names a record's device in CreateSyclQueue.
std::string device_key(const halden_device_record& record);

// Opens a queue on `device` ("cpu", "gpu" or a key) and sets `key` to the
// key of the device it resolved to. Returns kOk, or kDevice after a message.
int open_queue(const std::string& device, halden_queue*& queue, std::string& key);

// Times `call()`, one export call that returns its status, into `timing`
// (`work` units make its rate). An error reported through the error slot
// counts as a device error even when the call said 0.
template <class Call>
uint32_t timed(double work, Timing& timing, Call call) {
    clear_library_error();
    const Stopwatch watch;
    const uint32_t status = call();
    timing.milliseconds = watch.milliseconds();
    timing.rate = timing.milliseconds > 0.0 ? work / (timing.milliseconds * 1e3) : 0.0;
    return status == HALDEN_STATUS_OK && library_error() ? HALDEN_STATUS_DEVICE_ERROR : status;
}

// Whether the progress bar shows from the start, for operations whose first
// report comes late; otherwise from the first report, so that operations
// that report none never show one.
enum class Bar { kOnReport, kAtOnce };

// Opens a queue on the command's --device (the context's key becomes its
// device's), runs `operation(queue)`, which returns an export status, under
// the progress bar, and closes the queue, whose wait may report late
// failures too; the run phase's time goes to the context. Returns kOk, or
// kDevice after a message saying that `what` failed (or was cancelled) and
// OUT was not written. A Ctrl-C at any time since the command started
// counts, even one that came too late to stop the operation.
int run_on_device(Context& context, const char* what, const std::function<uint32_t(halden_queue*)>& operation,
                  Bar bar = Bar::kOnReport);

// run_on_device for the common case: `call(queue, callbacks)` makes one
// export call, timed into the context's call time (`work` units make its
// rate).
template <class Call>
int run_operation(Context& context, const char* what, double work, Call call, Bar bar = Bar::kOnReport) {
    return run_on_device(
        context, what,
        [&](halden_queue* queue) { return timed(work, context.call, [&] { return call(queue, callbacks()); }); },
        bar);
}

// "cancelled; OUT not written" (exit 3).
int cancelled(const Context& context);

}  // namespace cli
