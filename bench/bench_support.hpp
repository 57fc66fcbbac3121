// SPDX-License-Identifier: Apache-2.0
// Shared pieces of the benchmarks: the listed devices and a test terrain.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace halden::bench {

struct device_entry {
    std::string key;    // for CreateSyclQueue
    std::string label;  // "<backend>:<name>", the benchmark name's device part
};
std::vector<device_entry> devices();

// A size x size ramp (0.25 per cell across) with xorshift noise of up to 10.
std::vector<float> terrain(std::uint32_t size);
// The terrain with broad hills added, so that water and what it carries run
// a long way.
std::vector<float> hills(int size);

}  // namespace halden::bench
