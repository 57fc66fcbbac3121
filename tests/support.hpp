// SPDX-License-Identifier: Apache-2.0
// Shared test helpers: captured callback messages and a fixture that runs
// each test body on every kind of device.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "halden/halden.h"

namespace halden::test {

// Messages the library sent through a captured table, in order.
struct captured {
    std::vector<std::string> debug, info, warning, error;
    std::vector<std::uint64_t> reserved, released;
    void clear() { *this = captured{}; }
};
captured& messages();
// A table whose slots record into messages().
const halden_callbacks& capturing_callbacks();

// "Class/backend/vendor/driver/arch" of a listed record.
std::string key_of(const halden_device_record& r);
// Key of the first listed CUDA device, empty when there is none.
std::string first_cuda_key();

inline std::uint32_t bits(float x) {
    std::uint32_t u;
    std::memcpy(&u, &x, sizeof u);
    return u;
}

// Index of the first cell whose bits differ, or -1.
long long first_difference(const std::vector<float>& a, const std::vector<float>& b);

// Parameter of device fixtures: "cpu", or "cuda" (the first CUDA device).
class DeviceTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override;
    void TearDown() override;
    // The key of the device under test.
    std::string key;
    halden_queue* queue = nullptr;
};

// Test names read "Cpu" and "Cuda".
std::string device_name(const ::testing::TestParamInfo<std::string>& info);

#define HALDEN_INSTANTIATE_ON_DEVICES(fixture) \
    INSTANTIATE_TEST_SUITE_P(Devices, fixture, ::testing::Values("cpu", "cuda"), ::halden::test::device_name)

}  // namespace halden::test
