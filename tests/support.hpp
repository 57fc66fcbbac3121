// SPDX-License-Identifier: Apache-2.0
// Shared test helpers: captured callback messages and a fixture that runs
// each test body on every kind of device.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "compute/compute.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"

namespace halden::test {

// Messages the library sent through a captured table, in order.
struct captured {
    std::vector<std::string> debug, info, warning, error;
    std::vector<std::uint64_t> reserved, released;
    std::vector<float> progress;
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

// A compute-layer queue on the first device of each back-end, for tests of
// internals; `handled` counts the errors its handler received.
class BackendTest : public ::testing::TestWithParam<compute::backend> {
protected:
    void SetUp() override;
    std::unique_ptr<compute::queue> q;
    std::size_t handled = 0;
};

std::string backend_name(const ::testing::TestParamInfo<compute::backend>& info);

#define HALDEN_INSTANTIATE_ON_BACKENDS(fixture)                                                              \
    INSTANTIATE_TEST_SUITE_P(Backends, fixture,                                                             \
                             ::testing::Values(::halden::compute::backend::native, ::halden::compute::backend::cuda), \
                             ::halden::test::backend_name)

// A w x h device grid holding `cells`, and the cells of a device grid (waits).
core::grid upload(compute::queue& q, const std::vector<float>& cells, int w, int h);
std::vector<float> download(const core::grid& g);
// w x h values uniform in [-100, 100), the same for the same seed.
std::vector<float> random_cells(int w, int h, unsigned seed);

// Values of a float grid for failure messages: "1.5 (0x3fc00000)".
std::string hex(float x);

// Expects the same bits in every cell; names the first cell that differs.
void expect_same_bits(const std::vector<float>& got, const std::vector<float>& want);

// A host mesh and its boundary record (valid while the mesh lives).
struct mesh_data {
    std::vector<float> vertices;
    std::vector<std::uint32_t> triangles;
    halden_mesh record() const {
        return {vertices.data(),  std::uint32_t(vertices.size() / 3),  0,
                triangles.data(), std::uint32_t(triangles.size() / 3), 0};
    }
};

}  // namespace halden::test
