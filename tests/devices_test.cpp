// SPDX-License-Identifier: Apache-2.0
// Device records, keys, queue creation and destruction, and the messages they send.
#include <gtest/gtest.h>

#include <cstring>
#include <iostream>
#include <sstream>
#include <tuple>

#include "device/description.hpp"
#include "device/messages.hpp"
#include "device/queue.hpp"
#include "support.hpp"

using namespace halden;
using halden::test::messages;

namespace {

struct device_list {
    halden_device_record* records = nullptr;
    std::uint32_t count = 0;
    device_list() { GetDevices(&records, &count); }
    ~device_list() { FreeDevices(records); }
};

void install_capturing_table() {
    DestroySyclQueue(CreateSyclQueue("cpu", &test::capturing_callbacks()));
    messages().clear();
}

}  // namespace

TEST(Devices, HostDeviceComesFirstWithItsRecord) {
    install_capturing_table();
    device_list list;
    ASSERT_GE(list.count, 1u);
    const halden_device_record& host = list.records[0];
    EXPECT_STREQ(host.name, "AdaptiveCpp OpenMP host device");
    EXPECT_EQ(host.type, 1);
    EXPECT_STREQ(host.backend, "Native");
    EXPECT_EQ(host.flag1, 0);
    EXPECT_EQ(host.flag2, 1);
    // The count word sits in the 8 bytes before the first record.
    std::uint64_t word = 0;
    std::memcpy(&word, reinterpret_cast<const unsigned char*>(list.records) - 8, 8);
    EXPECT_EQ(word, list.count);
    for (std::uint32_t i = 0; i < list.count; ++i) {
        const halden_device_record& r = list.records[i];
        SCOPED_TRACE(r.name);
        EXPECT_NE(r.type, 0);
        EXPECT_TRUE(std::strcmp(r.backend, "Native") == 0 || std::strcmp(r.backend, "CUDA") == 0);
        for (const char* s : {r.backend, r.vendor, r.driver, r.arch}) EXPECT_EQ(std::strchr(s, '/'), nullptr);
        for (unsigned char pad : r.padding) EXPECT_EQ(pad, 0);
        if (std::strcmp(r.backend, "CUDA") == 0) {
            EXPECT_STREQ(r.vendor, "NVIDIA");
            EXPECT_EQ(std::strncmp(r.arch, "sm_", 3), 0) << r.arch;
        }
    }
    EXPECT_EQ(messages().info, (std::vector<std::string>{"Device scan started (AdaptiveCpp)", "Device scan finished"}));
    EXPECT_TRUE(messages().error.empty());
}

// The key of every listed record selects that device; "cpu" always the host.
TEST(Devices, KeysSelectTheirDevice) {
    device_list list;
    ASSERT_GE(list.count, 1u);
    auto selected = [](const std::string& key) {
        halden_queue* q = CreateSyclQueue(key.c_str(), &test::capturing_callbacks());
        halden_device_record* info = q ? GetDeviceInfo(q) : nullptr;
        const std::string got = info ? test::key_of(*info) + "|" + info->name : "no device";
        FreeDeviceInfo(info);
        DestroySyclQueue(q);
        return got;
    };
    for (std::uint32_t i = 0; i < list.count; ++i) {
        const std::string key = test::key_of(list.records[i]);
        EXPECT_EQ(selected(key), key + "|" + list.records[i].name);
    }
    EXPECT_EQ(selected("cpu"), test::key_of(list.records[0]) + "|AdaptiveCpp OpenMP host device");
}

TEST(Devices, UnmatchedKeysGiveNullWithoutAMessage) {
    install_capturing_table();
    device_list list;
    const std::string host_key = test::key_of(list.records[0]);
    const std::string tail = host_key.substr(host_key.find('/'));
    for (const std::string& key : {std::string("GpuDiscrete/HIP/AMD/6.0/gfx1100"), "Nonsense" + tail,
                                   std::string("Cpu"), std::string(""), std::string("CPU"), host_key + "/extra",
                                   "GpuDiscrete" + tail})
        EXPECT_EQ(CreateSyclQueue(key.c_str(), &test::capturing_callbacks()), nullptr) << key;
    EXPECT_TRUE(messages().error.empty());
    EXPECT_EQ(CreateSyclQueue(nullptr, &test::capturing_callbacks()), nullptr);
    EXPECT_EQ(messages().error.size(), 1u);
}

TEST(Devices, NullArgumentsAndSlotsAreHarmless) {
    FreeDevices(nullptr);
    FreeDeviceInfo(nullptr);
    DestroySyclQueue(nullptr);
    install_capturing_table();
    EXPECT_EQ(GetDeviceInfo(nullptr), nullptr);
    EXPECT_EQ(messages().error, (std::vector<std::string>{"GetDeviceInfo: null queue handle"}));
    GetDevices(nullptr, nullptr);
    // A table with only the error slot: the others fall back to defaults.
    halden_callbacks sparse{};
    sparse.error = test::capturing_callbacks().error;
    halden_queue* q = CreateSyclQueue("cpu", &sparse);
    ASSERT_NE(q, nullptr);
    device_list list;  // sends information through the null slot
    EXPECT_GE(list.count, 1u);
    DestroySyclQueue(q);
}

TEST(Devices, CreatingAQueueSilencesStandardError) {
    std::ostringstream seen;
    std::streambuf* before = std::cerr.rdbuf(seen.rdbuf());
    halden_queue* q = CreateSyclQueue("cpu", nullptr);
    std::cerr << "this line must go nowhere\n";
    EXPECT_TRUE(seen.str().empty());
    DestroySyclQueue(q);
    std::cerr.rdbuf(before);
}

TEST(Devices, DestroyingAQueueWithAFailureReportsAndKeepsIt) {
    install_capturing_table();
    halden_queue* q = CreateSyclQueue("cpu", &test::capturing_callbacks());
    ASSERT_NE(q, nullptr);
    q->queue.report_async_error("kernel fault");
    DestroySyclQueue(q);
    EXPECT_EQ(messages().error,
              (std::vector<std::string>{"Exception caught while deactivating device: ", "kernel fault"}));
    // The failure has been reported; the object survived and can now be destroyed.
    messages().clear();
    DestroySyclQueue(q);
    EXPECT_TRUE(messages().error.empty());
}

TEST(DeviceKeys, ClassWordsHashToTheirCodes) {
    int code = 0;
    for (const char* word : {"Cpu", device::other_cpu_word, "GpuIntegrated", "GpuDiscrete", "Accelerator"})
        EXPECT_EQ(device::class_code(word), ++code) << word;
    EXPECT_EQ(device::class_word_hash(device::other_cpu_word), 0x504A2F1Eu);
    EXPECT_EQ(device::class_code("cpu"), 0);
    EXPECT_EQ(device::class_code(""), 0);
    // 5385 * 33 + 'A' (65), then bytes above 127 count as negative.
    EXPECT_EQ(device::class_word_hash("A"), 5385u * 33u + 65u);
    EXPECT_EQ(device::class_word_hash("\xff"), 5385u * 33u - 1u);
    EXPECT_EQ(device::split_key("a//b/"), (std::vector<std::string>{"a", "", "b", ""}));
}

TEST(DeviceKeys, ClassAndArchitectureRulesFollowTheRuntimesAnswers) {
    using compute::backend;
    auto classify = [](backend be, bool cpu, bool gpu, bool unified, const char* name) {
        compute::device_properties p;
        p.name = name;
        std::tie(p.cpu, p.gpu, p.host_unified_memory) = std::tie(cpu, gpu, unified);
        return device::describe(compute::device(be, 0, p)).type;
    };
    EXPECT_EQ(classify(backend::native, true, false, true, "host"), 1);
    EXPECT_EQ(classify(backend::opencl, true, false, true, "cpu"), 2);
    EXPECT_EQ(classify(backend::cuda, false, true, false, "Some GPU"), 4);
    EXPECT_EQ(classify(backend::cuda, false, true, true, "Some GPU"), 3);
    // Names that carry "Graphics" are integrated even without unified memory; the search is case-sensitive.
    EXPECT_EQ(classify(backend::level_zero, false, true, false, "Vendor Graphics"), 3);
    EXPECT_EQ(classify(backend::level_zero, false, true, false, "Vendor graphics"), 4);
    EXPECT_EQ(classify(backend::opencl, false, false, false, "fpga"), 5);
    // The architecture test and the probe.
    auto passes = [](backend be, const char* arch) {
        device::description d;
        d.strings[3] = arch;
        return device::passes_architecture_test(d, be);
    };
    for (const char* arch : {"sm_60", "sm_90"}) EXPECT_TRUE(passes(backend::cuda, arch)) << arch;
    for (const char* arch : {"sm_52", "sm_", "sm", "compute_90"}) EXPECT_FALSE(passes(backend::cuda, arch)) << arch;
    EXPECT_TRUE(passes(backend::hip, "gfx1030"));
    for (const char* arch : {"gfx1030:xnack-", "gfx90a"}) EXPECT_FALSE(passes(backend::hip, arch)) << arch;
    EXPECT_TRUE(passes(backend::opencl, "anything"));
    EXPECT_TRUE(device::test_device(compute::host_device()));
}
