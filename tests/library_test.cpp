// SPDX-License-Identifier: Apache-2.0
// The shared library as an application loads it: only the C exports are
// visible, and it lists devices and filters a grid without any GPU present.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <vector>

#include "halden/halden.h"

namespace {

struct library {
    void* handle = dlopen(HALDEN_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ~library() {
        if (handle) dlclose(handle);
    }
    template <class F>
    F* get(const char* name) const {
        return reinterpret_cast<F*>(dlsym(handle, name));
    }
};

}  // namespace

TEST(SharedLibrary, ExportsOnlyTheCInterface) {
    library lib;
    ASSERT_NE(lib.handle, nullptr) << dlerror();
    for (const char* name : {"GetDevices", "FreeDevices", "GetDeviceInfo", "FreeDeviceInfo", "CreateSyclQueue",
                             "DestroySyclQueue", "MedianFilter"})
        EXPECT_NE(lib.get<void>(name), nullptr) << name;
    // Internals, and the CUDA runtime linked into it, stay hidden.
    for (const char* name : {"_ZN6halden17process_callbacksEv", "cudaMalloc", "cudaGetDeviceCount"})
        EXPECT_EQ(lib.get<void>(name), nullptr) << name;
}

TEST(SharedLibrary, RunsThroughItsOwnExports) {
    library lib;
    ASSERT_NE(lib.handle, nullptr) << dlerror();
    auto get_devices = lib.get<decltype(GetDevices)>("GetDevices");
    auto free_devices = lib.get<decltype(FreeDevices)>("FreeDevices");
    auto create = lib.get<decltype(CreateSyclQueue)>("CreateSyclQueue");
    auto destroy = lib.get<decltype(DestroySyclQueue)>("DestroySyclQueue");
    auto median = lib.get<decltype(MedianFilter)>("MedianFilter");
    halden_device_record* list = nullptr;
    std::uint32_t n = 0;
    get_devices(&list, &n);
    ASSERT_GE(n, 1u);
    EXPECT_STREQ(list[0].backend, "Native");
    free_devices(list);

    halden_queue* q = create("cpu", nullptr);
    ASSERT_NE(q, nullptr);
    std::vector<float> grid(40 * 40, 5.0f);
    grid[41] = 1000.0f;
    const halden_median_filter_parameters p{40, 1, 1, 0};
    EXPECT_EQ(median(q, grid.data(), &p), 0u);
    EXPECT_EQ(grid[41], (5.0f + 5.0f + 5.0f) * 0.333333f);
    destroy(q);
}
