// SPDX-License-Identifier: Apache-2.0
// Flow simulation: host seeding and kernels on hand-worked values, the export's
// invariants, cancel and bad input, and device agreement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

#include "modules/flow/flow.hpp"
#include "support.hpp"

namespace {

using halden::core::grid;
using namespace halden::test;

flow::Parameters record(int w, int h, float length = 0.5f, std::uint32_t seed = 1) { return {w, h, length, 1.0f, seed}; }

// Height x: downhill is always toward x = 0.
std::vector<float> plane(int w, int h) {
    std::vector<float> v(std::size_t(w) * h);
    for (std::size_t i = 0; i < v.size(); ++i) v[i] = float(i % w);
    return v;
}

// Points as flat x, y lists, to compare bit for bit.
std::vector<float> coords(const std::vector<flow::vec2>& v) {
    std::vector<float> out;
    for (const flow::vec2& e : v) out.insert(out.end(), {e.x, e.y});
    return out;
}

TEST(FlowPlan, SeedingMatchesIndependentDraws) {
    // Worked out with a separate implementation of the xorshift draws.
    const float mask[] = {0.5f, 1.0f, 0.0f, 0.9f, 0.2f, 1.0f};
    expect_same_bits(coords(flow::plan::seed_particles(record(3, 2, 0.5f, 7), mask)),
                     {0.871191204f, 0.566628754f, 1.19434917f, 0.196624592f, 0.55681324f, 1.50539637f, 2.44534302f,
                      1.66398168f});
    // Seed 0 starts the host state at 0xA2351342; no mask emits every cell.
    expect_same_bits(coords(flow::plan::seed_particles(record(2, 2, 0.5f, 0), nullptr)),
                     {0.611715674f, 0.731014669f, 1.20133471f, 0.258612216f, 0.6846264f, 1.62526333f, 1.83588552f,
                      1.40023232f});
}

TEST(FlowPlan, DirectionsGainAndRecordChecks) {
    const std::vector<flow::vec2> d = flow::plan::directions();
    ASSERT_EQ(d.size(), 32u);
    expect_same_bits(coords({d[0], d[1], d[2]}), {1.0f, 0.0f, 0.98078525f, 0.19509032f, 0.9238795f, 0.38268343f});
    for (int k = 0; k < 32; ++k) {
        EXPECT_NEAR(d[k].x, std::cos(k * 3.14159265358979323846 / 16.0), 1e-7) << k;
        // Exact negations, so no direction is favoured.
        EXPECT_TRUE(d[(k + 16) % 32].x == -d[k].x && d[(k + 16) % 32].y == -d[k].y) << k;
    }
    EXPECT_EQ(flow::plan::levels(4096), 5);
    EXPECT_EQ(flow::plan::levels(100), 1);
    // All long traces at step limit 2: t = 2, N / (2 Q) = 16, v = -0.25 - 0.7 N / C, k = 2 + v (2 - 16).
    EXPECT_EQ(flow::plan::batch_gain(0, 128, 4096, 4096, 2.0f), 2.0f + (-0.25f - 0.7f) * -14.0f);
    EXPECT_TRUE(flow::check(record(10, 10, 0.0f)).empty());
    EXPECT_FALSE(flow::check(record(1000, 10, 1e5f)).empty());  // more than 2^24 steps
    EXPECT_EQ(flow::memory_estimate(record(100, 30)), 28u * 3000u);
}

class FlowKernels : public BackendTest {};

TEST_P(FlowKernels, PitsFillAndParticlesRunDownhillToTheStepLimit) {
    const int w = 8, h = 6;
    std::vector<float> unused(w * h), unused_map(w * h);
    flow::Flow f(*q, record(w, h), HALDEN_FLOW_NO_MASK, unused.data(), unused_map.data());
    // A pit rises to its second-lowest neighbour; cells at or below that target are marked.
    grid pit = upload(*q, {5, 4, 6, 3, 0, 7, 8, 9, 2}, 3, 3), scratch(*q, {3, 3});
    grid marks = upload(*q, std::vector<float>(9, 0.0f), 3, 3);
    f.fill_pits(pit, scratch, marks);
    EXPECT_EQ(download(pit), (std::vector<float>{5, 4, 6, 4, 3, 7, 8, 9, 7}));
    EXPECT_EQ(download(marks), (std::vector<float>{0, 0, 0, 1, 1, 0, 0, 0, 1}));

    grid heights = upload(*q, plane(w, h), w, h), visits = upload(*q, std::vector<float>(w * h, 0.0f), w, h);
    // Inside, inside, on the right limit (dropped), past the bottom limit (dropped).
    const std::vector<flow::vec2> starts = {{3.5f, 2.5f}, {6.9f, 4.2f}, {7.0f, 1.5f}, {2.5f, 5.0f}};
    halden::compute::usm_ptr<flow::vec2, 1> particles(*q, {starts.size()});
    particles.copy_from_host(starts.data());
    const std::vector<flow::vec2> table = flow::plan::directions();
    halden::compute::usm_ptr<flow::vec2, 1> directions(*q, {table.size()});
    directions.copy_from_host(table.data());
    // A step limit of 2 allows one visit: the start cell.
    f.flow(particles, 0, 4, 2, 0, heights, visits, directions);
    std::vector<float> want(w * h, 0.0f);
    want[2 * w + 3] = want[4 * w + 6] = 1.0f;
    EXPECT_EQ(download(visits), want);
    // Down the plane from x = 3.5, one more visit each to columns 3, 2, 1 and 0 of its row.
    f.flow(particles, 0, 1, 16, 0, heights, visits, directions);
    std::fill_n(want.begin() + 2 * w, 3, 1.0f);
    want[2 * w + 3] = 2.0f;
    EXPECT_EQ(download(visits), want);
}

// Hills with pits, ridges and flats: traces stall, turn and leave.
std::vector<float> hills(int w, int h) {
    std::vector<float> v(std::size_t(w) * h);
    for (std::size_t i = 0; i < v.size(); ++i) {
        const float x = float(i % w), y = float(i / w);
        v[i] = 30.0f * std::sin(0.11f * x) * std::cos(0.07f * y) + 0.3f * x + 2.0f * std::sin(0.9f * x + 0.7f * y);
    }
    return v;
}

TEST_P(FlowKernels, LaneGroupsCountEveryVisitOnce) {
    const int w = 97, h = 83;
    std::vector<float> unused(w * h), unused_map(w * h);
    flow::Flow f(*q, record(w, h, 0.5f, 5), HALDEN_FLOW_NO_MASK, unused.data(), unused_map.data());
    f.count_steps();
    // Starts anywhere, some outside, in no particular order.
    std::vector<flow::vec2> starts;
    std::uint32_t s = 12345;
    for (int k = 0; k < 6000; ++k) {
        s = s * 1664525u + 1013904223u;
        const float x = float(s >> 8) * 0x1p-24f * (w + 4) - 2.0f;
        s = s * 1664525u + 1013904223u;
        starts.push_back({x, float(s >> 8) * 0x1p-24f * (h + 4) - 2.0f});
    }
    halden::compute::usm_ptr<flow::vec2, 1> particles(*q, {starts.size()});
    particles.copy_from_host(starts.data());
    const std::vector<flow::vec2> table = flow::plan::directions();
    halden::compute::usm_ptr<flow::vec2, 1> directions(*q, {table.size()});
    directions.copy_from_host(table.data());
    const grid heights = upload(*q, hills(w, h), w, h);
    grid all = upload(*q, std::vector<float>(w * h, 0.0f), w, h);
    f.flow(particles, 0, unsigned(starts.size()), 60, 0, heights, all, directions);
    // Every visit a trace makes lands in the grid exactly once.
    const std::vector<float> counted = download(all);
    const double total = std::accumulate(counted.begin(), counted.end(), 0.0);
    EXPECT_EQ(total, double(f.steps()));
    EXPECT_GT(total, 10.0 * double(starts.size()));
    // The same traces launched in small pieces count the same.
    grid pieces = upload(*q, std::vector<float>(w * h, 0.0f), w, h);
    for (unsigned o = 0; o < starts.size(); o += 37)
        f.flow(particles, o, std::min(37u, unsigned(starts.size()) - o), 60, 0, heights, pieces, directions);
    expect_same_bits(download(pieces), counted);
}

TEST_P(FlowKernels, PitFillingSkipsOnlyWhatCannotChange) {
    // Narrower than 256 cells: one pyramid level, so the working heights are
    // the plain passes over the input. Noise keeps pits filling for many
    // passes, first over many rows, then over few.
    for (const auto& [w, h] : {std::pair{250, 700}, std::pair{40, 30}, std::pair{255, 2}}) {
        const std::vector<float> noise = random_cells(w, h, unsigned(w + h));
        std::vector<float> map(noise.size());
        flow::Flow f(*q, record(w, h), HALDEN_FLOW_NO_MASK, noise.data(), map.data());
        ASSERT_TRUE(f.process());
        grid plain = upload(*q, noise, w, h), scratch(*q, {std::size_t(h), std::size_t(w)});
        for (int pass = 0; pass < flow::fill_passes; ++pass) f.fill_pits(plain, scratch);
        expect_same_bits(download(f.working_heights()), download(plain));
    }
}

TEST_P(FlowKernels, BatchesFoldEveryVisitOnce) {
    // Enough particles for short and long traces in every batch.
    const int w = 600, h = 500;
    const std::vector<float> terrain = hills(w, h);
    std::vector<float> intensity(terrain.size()), both(terrain.size());
    flow::Parameters p = record(w, h, 0.5f, 9);
    p.accumulation = 0.0f;
    flow::Flow first(*q, p, HALDEN_FLOW_NO_MASK, terrain.data(), intensity.data());
    ASSERT_TRUE(first.process());
    // A linear weight of exactly 1: the map is the intensity plus the visits.
    p.accumulation = 100000.0f;
    ASSERT_EQ(p.accumulation * 1.0e-5f, 1.0f);
    flow::Flow second(*q, p, HALDEN_FLOW_NO_MASK, terrain.data(), both.data());
    second.count_steps();
    ASSERT_TRUE(second.process());
    double total = 0.0;
    for (std::size_t i = 0; i < both.size(); ++i) {
        const double visits = double(both[i]) - double(intensity[i]);
        ASSERT_GE(visits, -0.25) << i;
        total += std::nearbyint(visits);
    }
    EXPECT_EQ(total, double(second.steps()));
    EXPECT_GT(total, 16.0 * double(w * h));
}

HALDEN_INSTANTIATE_ON_BACKENDS(FlowKernels);

class FlowExport : public DeviceTest {
protected:
    std::uint32_t run(const std::vector<float>& heights, std::vector<float>& map, const flow::Parameters& p,
                      std::uint64_t no_mask = HALDEN_FLOW_NO_MASK, const halden_callbacks* cb = nullptr) {
        return FlowSimulation(queue, no_mask, heights.data(), map.data(), &p,
                              cb ? cb : &capturing_callbacks());
    }
};

TEST_P(FlowExport, FlowRunsDownhillTheSameForTheSameSeed) {
    const int w = 64, h = 48;
    const std::vector<float> terrain = plane(w, h);
    std::vector<float> a(w * h, 0.0f), b = a, c = a;
    // A heavy linear part, so the map counts visits rather than saturating.
    flow::Parameters p = record(w, h, 1.0f, 3);
    p.accumulation = 1000.0f;
    ASSERT_EQ(run(terrain, a, p), 0u);
    ASSERT_EQ(run(terrain, b, p), 0u);
    p.seed = 4;
    ASSERT_EQ(run(terrain, c, p), 0u);
    expect_same_bits(a, b);
    EXPECT_NE(first_difference(a, c), -1);
    expect_same_bits(terrain, plane(w, h));
    // Column x collects the particles that started to its right.
    std::vector<double> column(w, 0.0);
    for (int i = 0; i < w * h; ++i) column[i % w] += a[i];
    for (int x = 8; x < w; x += 8) EXPECT_LT(column[x], column[x - 8]) << x;
    EXPECT_GT(column[w - 4], 0.0);
    EXPECT_EQ(messages().progress.back(), 100.0f);
    ASSERT_EQ(messages().reserved.size(), 3u);
    EXPECT_EQ(messages().released, messages().reserved);
    // Flat terrain, or a zero mask, gives an empty map.
    a.assign(w * h, 0.5f);
    EXPECT_EQ(run(std::vector<float>(w * h, 7.0f), a, p), 0u);
    EXPECT_EQ(a, std::vector<float>(w * h, 0.0f));
    EXPECT_EQ(run(terrain, a, p, 0), 0u);
    EXPECT_EQ(a, std::vector<float>(w * h, 0.0f));
}

TEST_P(FlowExport, SingleVisitTracesGiveTheExactMap) {
    // Length 0: a long trace stops after its first visit, and with a
    // multiple of 32 particles every trace is long. Each start that moves is
    // then one visit of its cell in one batch, and the map is known to the
    // bit. Heights max(x, 2) fill to themselves (the low columns are flat,
    // not pits), and a particle has a slope to follow from x = 2.5 on.
    const int w = 64, h = 48;
    std::vector<float> terrain = plane(w, h);
    for (float& v : terrain) v = std::max(v, 2.0f);
    std::vector<float> mask(w * h);
    for (int i = 0; i < w * h; ++i) mask[i] = (i * 7919) % (w * h) < 1600 ? 1.0f : 0.0f;
    flow::Parameters p = record(w, h, 0.0f, 21);
    p.accumulation = 3.0f;
    std::vector<float> map = mask;
    ASSERT_EQ(run(terrain, map, p, 0), 0u);
    const std::vector<flow::vec2> starts = flow::plan::seed_particles(p, mask.data());
    ASSERT_EQ(starts.size(), 1600u);
    const float k = flow::plan::batch_gain(0, 50, 1600, std::uint64_t(w) * h, 2.0f);
    const float weight = p.accumulation * 1.0e-5f;
    std::vector<float> want(w * h, 0.0f);
    for (const flow::vec2& s : starts)
        if (s.x >= 2.5f && s.x < float(w - 1) && s.y < float(h - 1))
            want[std::size_t(s.y) * w + std::size_t(s.x)] = (k * 1.0f * 0.03125f) / (k * 1.0f + 8.0f) + weight * 1.0f;
    expect_same_bits(map, want);
}

int g_calls = 0;

TEST_P(FlowExport, BadInputAndCancelReturnThree) {
    std::vector<float> terrain = plane(20, 20), map(400, 0.25f);
    const flow::Parameters p = record(20, 20);
    EXPECT_EQ(FlowSimulation(nullptr, 1, terrain.data(), map.data(), &p, nullptr), 3u);
    EXPECT_EQ(FlowSimulation(queue, 1, nullptr, map.data(), &p, nullptr), 3u);
    EXPECT_EQ(FlowSimulation(queue, 1, terrain.data(), nullptr, &p, nullptr), 3u);
    EXPECT_EQ(FlowSimulation(queue, 1, terrain.data(), map.data(), nullptr, nullptr), 3u);
    EXPECT_EQ(run(terrain, map, record(0, 20)), 3u);
    EXPECT_EQ(run(terrain, map, record(20, 20, std::numeric_limits<float>::quiet_NaN())), 3u);
    // Calls without a record report through the process-wide table.
    EXPECT_EQ(messages().error.size(), 6u);
    EXPECT_EQ(map, std::vector<float>(400, 0.25f));
    // A cancel keeps the batches already run. The pits are filled pass by
    // pass under 50 %, and a cancel there stops at once with no particle run.
    halden_callbacks cb = capturing_callbacks();
    cb.cancel = []() -> std::int32_t { return 1; };
    map.assign(400, 0.5f);
    EXPECT_EQ(run(terrain, map, p, HALDEN_FLOW_NO_MASK, &cb), 3u);
    EXPECT_EQ(map, std::vector<float>(400, 0.0f));
    EXPECT_EQ(messages().progress.size(), 1u);
    EXPECT_LT(messages().progress[0], 50.0f);
    cb.cancel = nullptr;
    cb.progress = [](float percent) -> std::int32_t { return percent > 50.0f && ++g_calls > 2; };
    g_calls = 0;
    EXPECT_EQ(run(terrain, map, p, HALDEN_FLOW_NO_MASK, &cb), 3u);
    EXPECT_EQ(g_calls, 3);
    EXPECT_GT(std::accumulate(map.begin(), map.end(), 0.0), 0.0);
    // NaN heights neither hang nor crash, and leave no NaN in the map.
    for (std::size_t i = 0; i < terrain.size(); i += 7) terrain[i] = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(run(terrain, map, record(20, 20, 2.0f)), 0u);
    for (float v : map) ASSERT_TRUE(std::isfinite(v));
}

HALDEN_INSTANTIATE_ON_DEVICES(FlowExport);

TEST(FlowDevices, CpuAndCudaAgree) {
    const std::string cuda = first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int w = 300, h = 200;
    std::vector<float> hills(w * h);
    for (std::size_t i = 0; i < hills.size(); ++i) {
        const float x = float(i % w), y = float(i / w);
        hills[i] = 40.0f * std::sin(0.05f * x) * std::cos(0.04f * y) + 0.2f * x + 3.0f * std::sin(0.4f * x + 0.3f * y);
    }
    auto on = [&](const std::string& key, std::uint64_t no_mask) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        std::vector<float> map(w * h);
        for (std::size_t i = 0; i < map.size(); ++i) map[i] = float(i % 13) / 12.0f;  // the mask, when read
        const flow::Parameters p = record(w, h, 0.8f, 11);
        EXPECT_EQ(FlowSimulation(q, no_mask, hills.data(), map.data(), &p, nullptr), 0u) << key;
        DestroySyclQueue(q);
        return map;
    };
    expect_same_bits(on(cuda, HALDEN_FLOW_NO_MASK), on("cpu", HALDEN_FLOW_NO_MASK));
    expect_same_bits(on(cuda, 0), on("cpu", 0));
}

}  // namespace
