// SPDX-License-Identifier: Apache-2.0
// The object behind a queue handle.
#pragma once

#include <memory>
#include <string>

#include "compute/compute.hpp"
#include "halden/halden.h"

struct halden_queue {
    explicit halden_queue(const halden::compute::device& dev);
    halden::compute::queue queue;
};

namespace halden::device {

// Reports each asynchronous error as "Caught asynchronous SYCL exception: ..."
// through the process-wide error channel and sets the asynchronous-error flag.
void async_error_handler(compute::exception_list errors);

// Points std::cerr at the null device (opened once per process), so that
// nothing reaches the console behind the application's back.
void silence_standard_error();

// "cpu" or a device key. Null for a key naming the HIP back-end; throws
// compute::exception("No matching device") when no device matches.
std::unique_ptr<halden_queue> make_queue(const std::string& key);

}  // namespace halden::device
