// SPDX-License-Identifier: Apache-2.0
// Device records, keys, queue creation and destruction, and the messages they send.
#include <gtest/gtest.h>

#include <cstring>
#include <iostream>
#include <sstream>

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
            EXPECT_EQ(std::strncmp(r.arch, "sm_", 3), 0);
        }
    }
    EXPECT_EQ(messages().info, (std::vector<std::string>{"Device scan started (AdaptiveCpp)", "Device scan finished"}));
    EXPECT_TRUE(messages().error.empty());
}

TEST(Devices, KeyOfEveryListedRecordSelectsThatDevice) {
    device_list list;
    for (std::uint32_t i = 0; i < list.count; ++i) {
        const std::string key = test::key_of(list.records[i]);
        SCOPED_TRACE(key);
        halden_queue* q = CreateSyclQueue(key.c_str(), &test::capturing_callbacks());
        ASSERT_NE(q, nullptr);
        halden_device_record* info = GetDeviceInfo(q);
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(test::key_of(*info), key);
        EXPECT_STREQ(info->name, list.records[i].name);
        FreeDeviceInfo(info);
        DestroySyclQueue(q);
    }
}

TEST(Devices, CpuKeyAlwaysGivesTheHostDevice) {
    halden_queue* q = CreateSyclQueue("cpu", nullptr);
    ASSERT_NE(q, nullptr);
    halden_device_record* info = GetDeviceInfo(q);
    ASSERT_NE(info, nullptr);
    EXPECT_STREQ(info->name, "AdaptiveCpp OpenMP host device");
    EXPECT_EQ(info->type, 1);
    FreeDeviceInfo(info);
    DestroySyclQueue(q);
}

TEST(Devices, UnmatchedKeysGiveNullWithoutAMessage) {
    install_capturing_table();
    device_list list;
    const std::string host_key = test::key_of(list.records[0]);
    const std::string tail = host_key.substr(host_key.find('/'));
    for (const std::string& key : {std::string("GpuDiscrete/HIP/AMD/6.0/gfx1100"), "Nonsense" + tail, std::string("Cpu"),
                                  std::string(""), std::string("CPU"), host_key + "/extra", "GpuDiscrete" + tail}) {
        SCOPED_TRACE(key);
        EXPECT_EQ(CreateSyclQueue(key.c_str(), &test::capturing_callbacks()), nullptr);
    }
    EXPECT_TRUE(messages().error.empty());
    EXPECT_EQ(CreateSyclQueue(nullptr, &test::capturing_callbacks()), nullptr);
    EXPECT_EQ(messages().error.size(), 1u);
}

TEST(Devices, NullArgumentsAreHarmless) {
    FreeDevices(nullptr);
    FreeDeviceInfo(nullptr);
    DestroySyclQueue(nullptr);
    install_capturing_table();
    EXPECT_EQ(GetDeviceInfo(nullptr), nullptr);
    EXPECT_EQ(messages().error,
              (std::vector<std::string>{"Exception caught while getting device info: ", "null queue handle"}));
    GetDevices(nullptr, nullptr);
}

TEST(Devices, NullSlotsFallBackToDefaults) {
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
    EXPECT_EQ(device::class_code("Cpu"), 1);
    EXPECT_EQ(device::class_code(device::other_cpu_word), 2);
    EXPECT_EQ(device::class_word_hash(device::other_cpu_word), 0x504A2F1Eu);
    EXPECT_EQ(device::class_code("GpuIntegrated"), 3);
    EXPECT_EQ(device::class_code("GpuDiscrete"), 4);
    EXPECT_EQ(device::class_code("Accelerator"), 5);
    EXPECT_EQ(device::class_code("cpu"), 0);
    EXPECT_EQ(device::class_code(""), 0);
    // 5385 * 33 + 'A' (65), then bytes above 127 count as negative.
    EXPECT_EQ(device::class_word_hash("A"), 5385u * 33u + 65u);
    EXPECT_EQ(device::class_word_hash("\xff"), 5385u * 33u - 1u);
    EXPECT_EQ(device::split_key("a//b/"), (std::vector<std::string>{"a", "", "b", ""}));
}

TEST(DeviceKeys, ClassRulesFollowTheRuntimesAnswers) {
    using compute::backend;
    auto classify = [](backend be, bool cpu, bool gpu, bool unified, const char* name) {
        compute::device_properties p;
        p.name = name;
        p.cpu = cpu;
        p.gpu = gpu;
        p.host_unified_memory = unified;
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
}

TEST(DeviceKeys, ArchitectureTest) {
    using compute::backend;
    auto passes = [](backend be, const char* arch) {
        device::description d;
        d.strings[3] = arch;
        return device::passes_architecture_test(d, be);
    };
    EXPECT_TRUE(passes(backend::cuda, "sm_60"));
    EXPECT_TRUE(passes(backend::cuda, "sm_90"));
    EXPECT_FALSE(passes(backend::cuda, "sm_52"));
    EXPECT_FALSE(passes(backend::cuda, "sm_"));
    EXPECT_FALSE(passes(backend::cuda, "sm"));
    EXPECT_FALSE(passes(backend::cuda, "compute_90"));
    EXPECT_TRUE(passes(backend::hip, "gfx1030"));
    EXPECT_FALSE(passes(backend::hip, "gfx1030:xnack-"));
    EXPECT_FALSE(passes(backend::hip, "gfx90a"));
    EXPECT_TRUE(passes(backend::opencl, "anything"));
}

TEST(DeviceKeys, HostDevicePassesTheProbe) { EXPECT_TRUE(device::test_device(compute::host_device())); }
