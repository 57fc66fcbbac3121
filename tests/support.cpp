// SPDX-License-Identifier: Apache-2.0
#include "support.hpp"

#include <random>
#include <sstream>

namespace halden::test {
namespace {

void on_debug(const char* t) { messages().debug.emplace_back(t); }
std::int32_t on_progress(float percent) {
    messages().progress.push_back(percent);
    return 0;
}
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

void BackendTest::SetUp() {
    for (const compute::device& d : compute::get_devices())
        if (d.get_backend() == GetParam()) {
            q = std::make_unique<compute::queue>(d, [this](compute::exception_list e) { handled += e.size(); });
            return;
        }
    GTEST_SKIP() << "no device of this back-end";
}

std::string backend_name(const ::testing::TestParamInfo<compute::backend>& info) {
    return info.param == compute::backend::native ? "Native" : "Cuda";
}

core::grid upload(compute::queue& q, const std::vector<float>& cells, int w, int h) {
    core::grid g(q, core::grid_extent(w, h), "test grid");
    g.copy_from_host(cells.data());
    return g;
}

std::vector<float> download(const core::grid& g) {
    std::vector<float> cells(g.size());
    g.copy_to_host(cells.data());
    g.get_queue().wait();
    return cells;
}

std::vector<float> random_cells(int w, int h, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-100.0f, 100.0f);
    std::vector<float> v(std::size_t(w) * h);
    for (float& x : v) x = u(rng);
    return v;
}

std::string hex(float x) {
    std::ostringstream s;
    s << x << " (0x" << std::hex << bits(x) << ")";
    return s.str();
}

void expect_same_bits(const std::vector<float>& got, const std::vector<float>& want) {
    ASSERT_EQ(got.size(), want.size());
    const long long i = first_difference(got, want);
    EXPECT_EQ(i, -1) << "cell " << i << ": got " << hex(got[std::size_t(i)]) << ", want "
                     << hex(want[std::size_t(i)]);
}

std::string device_name(const ::testing::TestParamInfo<std::string>& info) {
    return info.param == "cpu" ? "Cpu" : "Cuda";
}

}  // namespace halden::test
