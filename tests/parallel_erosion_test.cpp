// SPDX-License-Identifier: Apache-2.0
// Droplet erosion: exact sediment balance, what must not change, hard
// ground, order independence, and the export's bad input and device agreement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <omp.h>

#include "device/queue.hpp"
#include "modules/parallel_erosion/parallel_erosion.hpp"
#include "support.hpp"

namespace {

using namespace halden::test;

parallel_erosion::Parameters record(int w, int h) {
    return {w, h, 1.0f, 1.0f, 0.25f, 4, 64.0f, 0.3f, 4.0f, 0.01f, 0.3f, 0.3f, 0.02f, 4.0f, 2.0f, 1, 0, 1.0f, 1};
}

// Valleys and ridges around 100, steep enough for droplets to cut.
std::vector<float> hills(int w, int h, unsigned seed) {
    std::vector<float> v = random_cells(w, h, seed);
    for (std::size_t i = 0; i < v.size(); ++i) {
        const float x = float(i % w), y = float(i / w);
        v[i] = 100.0f + 12.0f * std::sin(0.15f * x) * std::cos(0.1f * y) + 0.3f * y + 0.02f * v[i];
    }
    return v;
}

class ErosionExport : public DeviceTest {
protected:
    std::uint32_t run(std::vector<float>& h, const parallel_erosion::Parameters& p, const float* rain = nullptr,
                      const float* hardness = nullptr, float* erosion = nullptr, float* deposition = nullptr,
                      float* discharge = nullptr, const halden_callbacks* cb = &capturing_callbacks()) {
        return ParallelErosionSimulation(queue, h.data(), rain, hardness, erosion, deposition, discharge, &p, cb);
    }
};

TEST_P(ErosionExport, SedimentIsCountedExactly) {
    const int w = 80, h = 64;
    std::vector<float> heights = hills(w, h, 4);
    parallel_erosion::Parameters p = record(w, h);
    p.levels = 1;
    parallel_erosion::ParallelErosion e(queue->queue, heights.data(), nullptr, nullptr, nullptr, nullptr, nullptr, p,
                                        nullptr);
    e.count_mass();
    ASSERT_TRUE(e.process());
    const parallel_erosion::mass& m = e.totals();
    EXPECT_GT(m.taken, 0);
    EXPECT_GT(m.left, 0);  // the ramp drains over the lower border
    EXPECT_EQ(m.spread, m.taken);
    EXPECT_EQ(m.taken, m.laid + m.left);
}

TEST_P(ErosionExport, NoRainFlatGroundAndHardGround) {
    const int w = 60, h = 50;
    const std::vector<float> in = hills(w, h, 9);
    // No droplet runs without rain, over the whole pyramid, and the maps
    // show no work either.
    std::vector<float> out = in, rain(w * h, 0.0f), removed(w * h, -1.0f), laid(w * h, -1.0f);
    ASSERT_EQ(run(out, record(w, h), rain.data(), nullptr, removed.data(), laid.data()), 0u);
    expect_same_bits(out, in);
    expect_same_bits(removed, std::vector<float>(w * h, 0.0f));
    expect_same_bits(laid, std::vector<float>(w * h, 0.0f));
    // No round at all.
    parallel_erosion::Parameters p = record(w, h);
    p.rounds = 0;
    p.levels = 1;
    out = in;
    ASSERT_EQ(run(out, p), 0u);
    expect_same_bits(out, in);
    // Flat ground: droplets wander and pick up nothing (the minimum slope
    // only bounds what they may carry, and they have nothing to drop).
    std::vector<float> flat(w * h, 42.0f), erosion(w * h, -1.0f), deposition(w * h, -1.0f);
    p = record(w, h);
    p.levels = 1;
    ASSERT_EQ(run(flat, p, nullptr, nullptr, erosion.data(), deposition.data()), 0u);
    expect_same_bits(flat, std::vector<float>(w * h, 42.0f));
    expect_same_bits(erosion, std::vector<float>(w * h, 0.0f));
    // Hard ground is never cut, over the whole pyramid too.
    std::vector<float> hardness(w * h, 0.0f);
    for (int i = 0; i < w * h; ++i)
        if ((i / w) < h / 2) hardness[i] = 1.0f;
    for (int levels : {1, 0}) {
        p = record(w, h);
        p.levels = levels;
        out = in;
        ASSERT_EQ(run(out, p, nullptr, hardness.data()), 0u);
        bool cut = false;
        for (int i = 0; i < w * h; ++i) {
            if (hardness[i] == 1.0f && levels == 1) {
                EXPECT_GE(out[i], in[i]) << i;
            }
            cut = cut || out[i] < in[i];
        }
        EXPECT_TRUE(cut) << levels;
    }
}

TEST_P(ErosionExport, ValleysDeepenAndMapsMakeSense) {
    const int w = 96, h = 96;
    const std::vector<float> in = hills(w, h, 2);
    std::vector<float> out = in, erosion(w * h), deposition(w * h), discharge(w * h);
    ASSERT_EQ(run(out, record(w, h), nullptr, nullptr, erosion.data(), deposition.data(), discharge.data()), 0u);
    EXPECT_NE(first_difference(out, in), -1);
    for (int i = 0; i < w * h; ++i) {
        ASSERT_TRUE(std::isfinite(out[i])) << i;
        EXPECT_GE(erosion[i], 0.0f) << i;
        EXPECT_GE(deposition[i], 0.0f) << i;
        EXPECT_GE(discharge[i], 0.0f) << i;
        EXPECT_LT(discharge[i], 1.0f) << i;
    }
    EXPECT_GT(*std::max_element(erosion.begin(), erosion.end()), 0.0f);
    EXPECT_GT(*std::max_element(deposition.begin(), deposition.end()), 0.0f);
    EXPECT_GT(*std::max_element(discharge.begin(), discharge.end()), 0.1f);
    // The same record gives the same bits every time.
    std::vector<float> again = in;
    ASSERT_EQ(run(again, record(w, h)), 0u);
    expect_same_bits(again, out);
}

TEST_P(ErosionExport, BadInputAndCancel) {
    const int w = 33, h = 21;
    const std::vector<float> in = hills(w, h, 5);
    std::vector<float> out = in;
    const auto refuse = [&](parallel_erosion::Parameters p, const char* field) {
        messages().clear();
        EXPECT_EQ(run(out, p), 3u) << field;
        ASSERT_FALSE(messages().error.empty()) << field;
        EXPECT_NE(messages().error.back().find(field), std::string::npos) << messages().error.back();
        expect_same_bits(out, in);
    };
    parallel_erosion::Parameters p = record(w, h);
    refuse((p.droplets = 0.0f, p), "droplets");
    p = record(w, h);
    refuse((p.rounds = -2, p), "rounds");
    p = record(w, h);
    refuse((p.lifetime = NAN, p), "lifetime");
    p = record(w, h);
    refuse((p.inertia = 1.0f, p), "inertia");
    p = record(w, h);
    refuse((p.evaporation = -0.1f, p), "evaporation");
    p = record(w, h);
    refuse((p.brush_radius = 9.0f, p), "brush_radius");
    p = record(w, h);
    refuse((p.flow_coupling = 2, p), "flow_coupling");
    p = record(w, h);
    refuse((p.detail_scale = 0.0f, p), "detail_scale");
    p = record(w, h);
    refuse((p.erosion_rate = 1.5f, p), "erosion_rate");
    halden_callbacks cb = capturing_callbacks();
    cb.cancel = []() -> int32_t { return 1; };
    std::vector<float> erosion(w * h, 5.0f);
    EXPECT_EQ(run(out, record(w, h), nullptr, nullptr, erosion.data(), nullptr, nullptr, &cb), 3u);
    expect_same_bits(out, in);
    expect_same_bits(erosion, std::vector<float>(w * h, 5.0f));
}

HALDEN_INSTANTIATE_ON_DEVICES(ErosionExport);

TEST(ErosionOrder, DropletsInAnotherOrderGiveTheSameBits) {
    // Droplets run in index order on one worker thread and interleaved on
    // two; the integer sums must not notice.
    const int w = 70, h = 70;
    const std::vector<float> in = hills(w, h, 8);
    const auto run_with = [&](int threads) {
        const int before = omp_get_max_threads();
        omp_set_num_threads(threads);
        halden_queue* q = CreateSyclQueue("cpu", nullptr);
        std::vector<float> out = in, erosion(in.size()), discharge(in.size());
        const parallel_erosion::Parameters p = record(w, h);
        EXPECT_EQ(ParallelErosionSimulation(q, out.data(), nullptr, nullptr, erosion.data(), nullptr, discharge.data(),
                                            &p, nullptr),
                  0u);
        DestroySyclQueue(q);
        omp_set_num_threads(before);
        out.insert(out.end(), erosion.begin(), erosion.end());
        out.insert(out.end(), discharge.begin(), discharge.end());
        return out;
    };
    expect_same_bits(run_with(2), run_with(1));
}

TEST(ErosionOrder, HostLaneGroupsWalkAsWorkItemsDo) {
    // The host runs droplets side by side in vector lanes; a device runs one
    // per work item. Both must leave the same bits, coupled or not, with rain,
    // hard ground and a flat patch where droplets pick their own direction.
    const int w = 83, h = 61;
    std::vector<float> in = hills(w, h, 21), rain(in.size()), hardness(in.size());
    for (int y = 10; y < 30; ++y)
        for (int x = 20; x < 45; ++x) in[y * w + x] = 90.0f;
    for (std::size_t i = 0; i < in.size(); ++i) {
        rain[i] = float(i % 5) / 4.0f;
        hardness[i] = float(i % 3) / 4.0f;
    }
    halden_queue* q = CreateSyclQueue("cpu", nullptr);
    for (int coupled : {0, 1}) {
        const auto run = [&](bool lanes) {
            parallel_erosion::Parameters p = record(w, h);
            p.flow_coupling = coupled;
            std::vector<float> out = in, erosion(in.size()), deposition(in.size()), discharge(in.size());
            parallel_erosion::ParallelErosion e(q->queue, out.data(), rain.data(), hardness.data(), erosion.data(),
                                                deposition.data(), discharge.data(), p, nullptr);
            if (!lanes) e.without_host_lanes();
            EXPECT_TRUE(e.process());
            EXPECT_GT(e.steps_run(), 0u);
            for (const auto* v : {&erosion, &deposition, &discharge}) out.insert(out.end(), v->begin(), v->end());
            out.push_back(float(e.steps_run()));
            return out;
        };
        SCOPED_TRACE(coupled ? "coupled" : "uncoupled");
        expect_same_bits(run(true), run(false));
    }
    DestroySyclQueue(q);
}

TEST(ErosionDevices, CpuAndCudaAgree) {
    const std::string cuda = first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int w = 257, h = 190;
    const std::vector<float> in = hills(w, h, 12);
    std::vector<float> rain(in.size()), hardness(in.size());
    for (std::size_t i = 0; i < in.size(); ++i) {
        rain[i] = float(i % 7) / 6.0f;
        hardness[i] = float(i % 5) / 8.0f;
    }
    auto on = [&](const std::string& key) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        std::vector<float> out = in, erosion(in.size()), deposition(in.size()), discharge(in.size());
        const parallel_erosion::Parameters p = record(w, h);
        EXPECT_EQ(ParallelErosionSimulation(q, out.data(), rain.data(), hardness.data(), erosion.data(),
                                            deposition.data(), discharge.data(), &p, nullptr),
                  0u);
        DestroySyclQueue(q);
        for (const auto* v : {&erosion, &deposition, &discharge}) out.insert(out.end(), v->begin(), v->end());
        return out;
    };
    expect_same_bits(on(cuda), on("cpu"));
}

}  // namespace
