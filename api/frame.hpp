// SPDX-License-Identifier: Apache-2.0
// The call frame shared by every operation export: parameter checks happen in
// the export, then the frame runs the memory pre-check, announces the memory,
// clears the asynchronous-error flag, runs the operation, waits for the queue,
// settles the status and releases what it announced. No exception leaves it.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

#include "compute/compute.hpp"
#include "device/messages.hpp"
#include "device/queue.hpp"
#include "halden/halden.h"

namespace halden::api {

inline constexpr std::uint64_t precheck_headroom = 0x10000000;  // 256 MiB
inline constexpr std::uint64_t announce_floor = 0x4000000;      // 64 MiB

struct frame {
    frame(const char* operation, halden_callbacks* module_callbacks = nullptr,
          const halden_callbacks* caller_callbacks = nullptr, std::uint64_t need_bytes = 0)
        : operation(operation),
          module_callbacks(module_callbacks),
          caller_callbacks(caller_callbacks),
          need_bytes(need_bytes),
          callbacks(call_callbacks(caller_callbacks)) {}

    const char* operation;
    // The module's own process-wide copy of the caller's record, or null for
    // exports that take no record: they skip the pre-check, the announcement
    // and the status, report through the process-wide table and return 0.
    // The copy only records the last caller; nothing is routed through it.
    halden_callbacks* module_callbacks;
    const halden_callbacks* caller_callbacks;
    std::uint64_t need_bytes;
    // This call's own record: progress, cancel, reserve, release and every
    // text of the call go through it, so concurrent calls on other queues
    // never reach each other's callbacks.
    halden_callbacks callbacks;
    // Sent for an exception of no known type.
    const char* unknown_error = "Error: unknown exception";
    // The trial allocation before the run; an export that skips it fails on
    // its first allocation instead, and still announces its memory.
    bool precheck = true;
};

// The byte count announced through slot 5 and released through slot 6.
std::uint64_t announced_bytes(const compute::device& dev, std::uint64_t need);

namespace detail {
// Steps before the operation runs; false when the pre-check failed.
bool begin(halden_queue& q, const frame& f, std::uint64_t& announced);
// Sends the text for the exception in flight; returns the status it means.
std::uint32_t report_current_exception(halden_queue& q, const frame& f) noexcept;
std::uint32_t finish(halden_queue& q, const frame& f, std::uint32_t own, std::uint64_t announced) noexcept;
}  // namespace detail

// `body` returns the operation's own status (0 unless the operation says otherwise).
template <class Body>
std::uint32_t run(halden_queue& q, const frame& f, Body&& body) noexcept {
    std::uint64_t announced = 0;
    std::uint32_t own = HALDEN_STATUS_OK;
    try {
        if (!detail::begin(q, f, announced)) return HALDEN_STATUS_OUT_OF_MEMORY;
        own = body();
    } catch (...) {
        own = detail::report_current_exception(q, f);
    }
    return detail::finish(q, f, own, announced);
}

// Sends "<operation>: <problem>" through the frame's error channel.
void reject(const frame& f, const char* problem) noexcept;

// Runs a record check (which returns why the record cannot run, or an empty
// text); a refusal is sent as "<operation>: <why>; <consequence>". True when
// the record may run.
template <class Check>
bool accept(const frame& f, Check&& check, const char* consequence) noexcept {
    std::string problem;
    try {
        problem = check();
    } catch (...) {
        problem = "the record could not be checked";
    }
    if (problem.empty()) return true;
    try {
        problem += "; ";
        problem += consequence;
    } catch (...) {
    }
    reject(f, problem.c_str());
    return false;
}

}  // namespace halden::api
