// SPDX-License-Identifier: Apache-2.0
// The object behind a queue handle.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "compute/compute.hpp"
#include "halden/halden.h"

struct halden_queue {
    explicit halden_queue(const halden::compute::device& dev);
    halden_queue(const halden_queue&) = delete;
    halden_queue& operator=(const halden_queue&) = delete;

    // Reports each asynchronous error as "Caught asynchronous SYCL exception:
    // ..." through the error slot of the call running on this queue (the
    // process-wide table between calls) and sets `async_error`.
    void handle_async_errors(halden::compute::exception_list errors);

    // The error state and the running call's record belong to the queue, so
    // that calls on other queues, on other threads, never see them. A queue
    // is used by one caller at a time.
    std::atomic<bool> async_error{false};
    const halden_callbacks* call = nullptr;

    halden::compute::queue queue;
};

namespace halden::device {

// Points std::cerr at the null device (opened once per process), so that
// nothing reaches the console behind the application's back.
void silence_standard_error();

// "cpu" or a device key. Null for a key naming the HIP back-end; throws
// compute::exception("No matching device") when no device matches.
std::unique_ptr<halden_queue> make_queue(const std::string& key);

}  // namespace halden::device
