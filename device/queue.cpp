// SPDX-License-Identifier: Apache-2.0
#include "device/queue.hpp"

#include <fstream>
#include <iostream>

#include "device/description.hpp"
#include "device/messages.hpp"

halden_queue::halden_queue(const halden::compute::device& dev)
    : queue(dev, [this](halden::compute::exception_list errors) { handle_async_errors(std::move(errors)); }) {}

void halden_queue::handle_async_errors(halden::compute::exception_list errors) {
    for (const std::exception_ptr& e : errors) {
        try {
            std::rethrow_exception(e);
        } catch (const halden::compute::exception& x) {
            halden::send_error(call ? *call : halden::process_callbacks(),
                               std::string("Caught asynchronous SYCL exception: ") + x.what());
            async_error = true;
        }
    }
}

namespace halden::device {

void silence_standard_error() {
#if defined(_WIN32)
    constexpr const char* null_device = "nul";
#else
    constexpr const char* null_device = "/dev/null";
#endif
    // Never destroyed: std::cerr may still be flushed during static destruction.
    static std::ofstream* const nul = new std::ofstream(null_device, std::ios::out);
    std::cerr.rdbuf(nul->rdbuf());
}

std::unique_ptr<halden_queue> make_queue(const std::string& key) {
    if (key == "cpu") return std::make_unique<halden_queue>(compute::host_device());
    const std::vector<std::string> tokens = split_key(key);
    // HIP devices are never listed, so a key naming that back-end is refused outright.
    if (tokens.size() > 1 && tokens[1] == "HIP") return nullptr;
    return std::make_unique<halden_queue>(find_device(tokens));
}

}  // namespace halden::device
