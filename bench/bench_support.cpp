// SPDX-License-Identifier: Apache-2.0
#include "bench_support.hpp"

#include <cmath>

#include "halden/halden.h"

namespace halden::bench {

std::vector<device_entry> devices() {
    halden_device_record* list = nullptr;
    std::uint32_t count = 0;
    GetDevices(&list, &count);
    std::vector<device_entry> out;
    for (std::uint32_t d = 0; d < count; ++d) {
        char key[512];
        halden_device_key(&list[d], key, sizeof key);
        out.push_back({key, std::string(list[d].backend) + ":" + list[d].name});
    }
    FreeDevices(list);
    return out;
}

std::vector<float> hills(int size) {
    std::vector<float> h = terrain(std::uint32_t(size));
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x)
            h[std::size_t(y) * size + x] += 200.0f * std::sin(0.01f * x) * std::cos(0.013f * y);
    return h;
}

std::vector<float> terrain(std::uint32_t size) {
    std::vector<float> h(std::size_t(size) * size);
    std::uint32_t s = 12345;
    for (std::size_t i = 0; i < h.size(); ++i) {
        s ^= s << 13;
        s ^= s >> 17;
        s ^= s << 5;
        h[i] = float(i % size) * 0.25f + float(s >> 8) * 0x1p-24f * 10.0f;
    }
    return h;
}

}  // namespace halden::bench
