// SPDX-License-Identifier: Apache-2.0
// The call frame every operation export runs in: pre-check, announcement,
// asynchronous-error flag, status codes, and matched reserve/release.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <tuple>

#include "api/frame.hpp"
#include "support.hpp"

using namespace halden;
using halden::test::messages;

namespace {

constexpr std::uint64_t MiB = 1024 * 1024;

// The module's own copy of the caller's record, as each module keeps one.
halden_callbacks module_copy;

class Frame : public ::testing::Test {
protected:
    void SetUp() override {
        queue = CreateSyclQueue("cpu", &test::capturing_callbacks());
        ASSERT_NE(queue, nullptr);
        messages().clear();
    }
    void TearDown() override { DestroySyclQueue(queue); }

    template <class Body>
    std::uint32_t run(std::uint64_t need, Body body) {
        return api::run(*queue, api::frame{"TestOperation", &module_copy, &test::capturing_callbacks(), need}, body);
    }
    // Runs a body that only notes that it ran.
    std::uint32_t run(std::uint64_t need) {
        ran = false;
        return run(need, [this] { return ran = true, 0u; });
    }

    halden_queue* queue = nullptr;
    bool ran = false;
};

}  // namespace

TEST_F(Frame, SuccessAnnouncesTheFloorOnTheHostAndReleasesIt) {
    EXPECT_EQ(run(3 * 1024 * MiB), 0u);
    EXPECT_TRUE(ran);
    // Host memory belongs to the application: only the 64 MiB floor is announced.
    EXPECT_EQ(messages().reserved, (std::vector<std::uint64_t>{64 * MiB}));
    EXPECT_EQ(messages().released, messages().reserved);
    EXPECT_TRUE(messages().error.empty());
}

TEST_F(Frame, AnnouncedBytesOnADeviceWithItsOwnMemory) {
    compute::device_properties p;
    p.gpu = true;
    const compute::device gpu(compute::backend::cuda, 0, p);
    EXPECT_EQ(api::announced_bytes(gpu, 0), 64 * MiB);
    EXPECT_EQ(api::announced_bytes(gpu, 64 * MiB), 64 * MiB);
    EXPECT_EQ(api::announced_bytes(gpu, 64 * MiB + 1), 64 * MiB + 1);
    EXPECT_EQ(api::announced_bytes(gpu, 5000 * MiB), 5000 * MiB);
    EXPECT_EQ(api::announced_bytes(compute::host_device(), 5000 * MiB), 64 * MiB);
}

TEST_F(Frame, ImpossibleSizeGivesStatusTwoWithoutRunning) {
    for (std::uint64_t need : {std::uint64_t(1) << 50, ~std::uint64_t(0)}) {
        SCOPED_TRACE(need);
        messages().clear();
        EXPECT_EQ(run(need), 2u);
        EXPECT_FALSE(ran);
        EXPECT_TRUE(messages().reserved.empty());
        EXPECT_TRUE(messages().released.empty());
        ASSERT_EQ(messages().error.size(), 1u);
        EXPECT_NE(messages().error[0].find("TestOperation: not enough device memory"), std::string::npos);
    }
}

TEST_F(Frame, InjectedAsynchronousErrorGivesStatusThree) {
    EXPECT_EQ(run(MiB, [&] { return queue->queue.report_async_error("injected fault"), 0u; }), 3u);
    EXPECT_EQ(messages().error, (std::vector<std::string>{"Caught asynchronous SYCL exception: injected fault"}));
    EXPECT_EQ(messages().released, messages().reserved);
    EXPECT_TRUE(queue->async_error);
    // The next call starts with a clear flag.
    EXPECT_EQ(run(MiB), 0u);
}

TEST_F(Frame, ExceptionsBecomeMessagesAndStatusCodes) {
    const std::vector<std::tuple<std::function<void()>, std::uint32_t, std::string>> cases{
        {[] { throw compute::out_of_memory("grid: cannot allocate"); }, 2u,
         "Memory allocation error on device AdaptiveCpp OpenMP host device (Native): grid: cannot allocate"},
        {[] { throw compute::exception("launch failed"); }, 3u,
         "Runtime error on device AdaptiveCpp OpenMP host device (Native): launch failed"},
        {[] { throw std::invalid_argument("bad"); }, 3u, "Error: bad"},
        {[] { throw 42; }, 3u, "Error: unknown exception"},
    };
    for (const auto& [fail, status, text] : cases) {
        messages().clear();
        EXPECT_EQ(run(MiB, [&] { return fail(), 0u; }), status) << text;
        EXPECT_EQ(messages().error, (std::vector<std::string>{text}));
        EXPECT_EQ(messages().reserved.size(), 1u);
        EXPECT_EQ(messages().released, messages().reserved);
    }
}

TEST_F(Frame, OperationsOwnStatusPassesThrough) { EXPECT_EQ(run(MiB, [] { return 7u; }), 7u); }

TEST_F(Frame, ExportsWithoutARecordAlwaysReturnZero) {
    const api::frame plain{"PlainOperation"};
    EXPECT_EQ(api::run(*queue, plain, [&] { return queue->queue.report_async_error("fault"), 0u; }), 0u);
    EXPECT_EQ(api::run(*queue, plain, []() -> std::uint32_t { throw compute::exception("boom"); }), 0u);
    // Reported through the process-wide table; nothing announced.
    EXPECT_EQ(messages().error.size(), 2u);
    EXPECT_TRUE(messages().reserved.empty());
}

TEST_F(Frame, NullCallerRecordMeansDefaults) {
    EXPECT_EQ(api::run(*queue, api::frame{"TestOperation", &module_copy, nullptr, MiB}, [] { return 0u; }), 0u);
    EXPECT_TRUE(messages().reserved.empty());
}

TEST_F(Frame, RefusalsWithoutARecordReachTheProcessWideTable) {
    // Each export with a record it refuses and no callback record of its own:
    // the one error text goes to the table the queue was created with.
    std::vector<float> grid(16, 1.0f);
    const halden_thermal_shaper_parameters thermal{4, 4, 0.0f, 4.0f, 0.125f, 1.0f, -0.5f, 0};
    const halden_flow_parameters flow{0, 4, 0.5f, 1.0f, 1};
    halden_lighting_parameters light{};
    const halden_mesh mesh{nullptr, 3, 0, nullptr, 0, 0};
    halden_mesh_rasterizer_parameters raster{};
    raster.width = raster.height = 4, raster.scale = raster.depth_divisor = 1.0f;
    const std::vector<std::function<std::uint32_t()>> calls{
        [&] { return ThermalShaper_Process(queue, grid.data(), nullptr, &thermal, nullptr); },
        [&] { return FlowSimulation(queue, HALDEN_FLOW_NO_MASK, grid.data(), grid.data(), &flow, nullptr); },
        [&] {
            return Shade(queue, grid.data(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr, &light, nullptr);
        },
        [&] { return MeshRasterizer_RenderMesh(queue, &mesh, grid.data(), nullptr, &raster, nullptr); },
        [&] { return Blur(queue, grid.data(), 4, -1.0f, nullptr); },
    };
    for (std::size_t i = 0; i < calls.size(); ++i) {
        messages().clear();
        EXPECT_EQ(calls[i](), 3u) << i;
        EXPECT_EQ(messages().error.size(), 1u) << i;
    }
    EXPECT_EQ(grid, std::vector<float>(16, 1.0f));
}
