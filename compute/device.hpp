// SPDX-License-Identifier: Apache-2.0
// Devices as the runtime reports them: the OpenMP host device first, then CUDA devices.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "compute/types.hpp"

namespace halden::compute {

struct device_properties {
    std::string name;
    std::string vendor;
    std::string driver_version;
    std::string architecture;
    bool cpu = false;
    bool gpu = false;
    bool host_unified_memory = false;
    bool usm_device_allocations = false;
    std::uint64_t global_mem_size = 0;
};

class device {
public:
    device(backend be, int ordinal, device_properties props)
        : m_backend(be), m_ordinal(ordinal), m_props(std::move(props)) {}

    backend get_backend() const { return m_backend; }
    // Index among the devices of its back-end (the CUDA device number).
    int ordinal() const { return m_ordinal; }

    const std::string& name() const { return m_props.name; }
    const std::string& vendor() const { return m_props.vendor; }
    const std::string& driver_version() const { return m_props.driver_version; }
    const std::string& architecture() const { return m_props.architecture; }
    bool is_cpu() const { return m_props.cpu; }
    bool is_gpu() const { return m_props.gpu; }
    bool has_host_unified_memory() const { return m_props.host_unified_memory; }
    bool supports_usm_device_allocations() const { return m_props.usm_device_allocations; }
    std::uint64_t global_mem_size() const { return m_props.global_mem_size; }

private:
    backend m_backend;
    int m_ordinal;
    device_properties m_props;
};

// Every device of every built back-end, host device first. A back-end that
// cannot reach its driver contributes no devices.
std::vector<device> get_devices();
device host_device();

namespace native {
device_properties host_properties();
}

namespace cuda {
// Zero when the library was built without CUDA or no driver or GPU is present.
int device_count() noexcept;
device_properties properties(int ordinal);
}  // namespace cuda

}  // namespace halden::compute
