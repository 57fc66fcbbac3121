// SPDX-License-Identifier: Apache-2.0
#include "support.hpp"

namespace halden::test {
namespace {

void on_debug(const char* t) { messages().debug.emplace_back(t); }
std::int32_t on_progress(float) { return 0; }
void on_info(const char* t) { messages().info.emplace_back(t); }
void on_warning(const char* t) { messages().warning.emplace_back(t); }
void on_error(const char* t) { messages().error.emplace_back(t); }
void on_reserve(std::uint64_t n) { messages().reserved.push_back(n); }
void on_release(std::uint64_t n) { messages().released.push_back(n); }
std::int32_t on_cancel() { return 0; }

}  // namespace

captured& messages() {
    static captured c;
    return c;
}

const halden_callbacks& capturing_callbacks() {
    static const halden_callbacks table{on_debug, on_progress, on_info, on_warning,
                                        on_error, on_reserve,  on_release, on_cancel};
    return table;
}

std::string key_of(const halden_device_record& r) {
    std::string key(std::size_t(halden_device_key(&r, nullptr, 0)), '\0');
    halden_device_key(&r, key.data(), key.size() + 1);
    return key;
}

std::string first_cuda_key() {
    halden_device_record* list = nullptr;
    std::uint32_t n = 0;
    GetDevices(&list, &n);
    std::string key;
    for (std::uint32_t i = 0; i < n && key.empty(); ++i)
        if (list[i].backend && std::strcmp(list[i].backend, "CUDA") == 0) key = key_of(list[i]);
    FreeDevices(list);
    return key;
}

long long first_difference(const std::vector<float>& a, const std::vector<float>& b) {
    if (a.size() != b.size()) return 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (bits(a[i]) != bits(b[i])) return static_cast<long long>(i);
    return -1;
}

void DeviceTest::SetUp() {
    key = GetParam();
    if (key == "cuda") {
        key = first_cuda_key();
        if (key.empty()) GTEST_SKIP() << "no CUDA device listed";
    }
    messages().clear();
    queue = CreateSyclQueue(key.c_str(), &capturing_callbacks());
    ASSERT_NE(queue, nullptr) << key;
}

void DeviceTest::TearDown() {
    DestroySyclQueue(queue);
    queue = nullptr;
}

std::string device_name(const ::testing::TestParamInfo<std::string>& info) {
    return info.param == "cpu" ? "Cpu" : "Cuda";
}

}  // namespace halden::test
