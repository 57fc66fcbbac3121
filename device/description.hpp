// SPDX-License-Identifier: Apache-2.0
// Device descriptions and device keys. One routine describes a device for
// GetDevices, GetDeviceInfo and key matching, so the three agree byte for byte.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "compute/device.hpp"
#include "halden/halden.h"

namespace halden::device {

struct description {
    std::string name;
    std::int64_t type = 0;
    std::string strings[4];  // back-end name, vendor, driver version, architecture
    std::uint8_t flag1 = 0;
    std::uint8_t flag2 = 0;
};

// Class codes of the device records.
enum : std::int64_t { class_cpu = 1, class_other_cpu = 2, class_gpu_integrated = 3, class_gpu_discrete = 4,
                      class_accelerator = 5 };

// The word a key carries for class 2. It is recognised only by its hash.
inline const char* const other_cpu_word = halden_class_word(2);

const char* backend_name(compute::backend be);
description describe(const compute::device& dev);

// h = h * 33 + byte from 5385, bytes as signed char, modulo 2^32.
std::uint32_t class_word_hash(const char* word);
std::int64_t class_code(const char* word);

// Whether GetDevices lists a described device of the given back-end.
bool passes_architecture_test(const description& d, compute::backend be);

// The key's fields, split at every '/' (empty fields kept).
std::vector<std::string> split_key(const std::string& key);

// First runtime device whose description matches the key's fields; throws
// compute::exception("No matching device") when none does.
compute::device find_device(const std::vector<std::string>& tokens);

// Fills a zeroed record with heap copies of the description's strings.
void fill_record(halden_device_record& record, const description& d);
void free_record_strings(halden_device_record& record) noexcept;

// Runs a trivial kernel on the device; true when it ran without error.
bool test_device(const compute::device& dev);

}  // namespace halden::device
