// SPDX-License-Identifier: Apache-2.0
// Flow simulation: host seeding against values worked out independently, pit
// filling and the particle kernel on hand-made grids, and the export's
// invariants, cancel, bad input and device agreement.
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
using halden::test::download;
using halden::test::expect_same_bits;
using halden::test::messages;
using halden::test::upload;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

flow::Parameters record(int w, int h, float length = 0.5f, std::uint32_t seed = 1) { return {w, h, length, 1.0f, seed}; }

std::vector<float> plane(int w, int h) {
    std::vector<float> v(std::size_t(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) v[std::size_t(y) * w + x] = float(x);
    return v;
}

std::vector<float> hills(int w, int h) {
    std::vector<float> v(std::size_t(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            v[std::size_t(y) * w + x] =
                40.0f * std::sin(0.05f * x) * std::cos(0.04f * y) + 0.2f * x + 3.0f * std::sin(0.4f * x + 0.3f * y);
    return v;
}

// ---------------------------------------------------------------------------
// Host side.

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
    const float zeros[6] = {};
    EXPECT_TRUE(flow::plan::seed_particles(record(3, 2), zeros).empty());
}

TEST(FlowPlan, DirectionsAndShuffles) {
    const std::vector<flow::vec2> d = flow::plan::directions();
    ASSERT_EQ(d.size(), 32u);
    expect_same_bits(coords({d[0], d[1], d[2]}), {1.0f, 0.0f, 0.98078525f, 0.19509032f, 0.9238795f, 0.38268343f});
    for (int k = 0; k < 32; ++k) {
        const double a = k * 11.25 * 3.14159265358979323846 / 180.0;
        EXPECT_NEAR(d[k].x, std::cos(a), 1e-7) << k;
        EXPECT_NEAR(d[k].y, std::sin(a), 1e-7) << k;
        // Opposite entries are exact negations.
        EXPECT_EQ(d[(k + 16) % 32].x, -d[k].x) << k;
        EXPECT_EQ(d[(k + 16) % 32].y, -d[k].y) << k;
    }
    // A shuffle is a permutation, fixed by its seed.
    std::vector<flow::vec2> a = d, b = d, c = d;
    flow::plan::shuffle(a, 15);
    flow::plan::shuffle(b, 15);
    flow::plan::shuffle(c, 16);
    EXPECT_EQ(coords(a), coords(b));
    EXPECT_NE(coords(a), coords(c));
    EXPECT_NE(coords(a), coords(d));
    EXPECT_TRUE(std::is_permutation(a.begin(), a.end(), d.begin(),
                                    [](flow::vec2 l, flow::vec2 r) { return l.x == r.x && l.y == r.y; }));
}

TEST(FlowPlan, LevelsBatchGainAndRecordChecks) {
    EXPECT_EQ(flow::plan::levels(1024), 3);
    EXPECT_EQ(flow::plan::levels(4096), 5);
    EXPECT_EQ(flow::plan::levels(100), 1);
    // All long traces at the step limit 2 (length 0): t = 2 and N / (2 Q) = 16,
    // with v = -0.25 - 0.7 N / C, so k = 2 + v (2 - 16).
    EXPECT_EQ(flow::plan::batch_gain(0, 128, 4096, 4096, 2.0f), 2.0f + (-0.25f - 0.7f) * -14.0f);

    EXPECT_TRUE(flow::check(record(10, 10)).empty());
    EXPECT_TRUE(flow::check(record(10, 10, 0.0f)).empty());
    EXPECT_FALSE(flow::check(record(0, 10)).empty());
    EXPECT_FALSE(flow::check(record(65536, 65536)).empty());
    EXPECT_FALSE(flow::check(record(10, 10, -0.5f)).empty());
    EXPECT_FALSE(flow::check(record(10, 10, kNaN)).empty());
    EXPECT_FALSE(flow::check(record(1000, 10, 1e5f)).empty());  // more than 2^24 steps
    EXPECT_FALSE(flow::check({10, 10, 0.5f, std::numeric_limits<float>::infinity(), 1}).empty());
    EXPECT_EQ(flow::memory_estimate(record(100, 30)), 28u * 3000u);
}

// ---------------------------------------------------------------------------
// Kernels on each back-end.

class FlowKernels : public halden::test::BackendTest {
protected:
    // A Flow object over dummy grids of the record's size, whose kernels the tests call.
    std::vector<float> dummy, dummy_map;
    std::unique_ptr<flow::Flow> make(const flow::Parameters& p) {
        dummy.assign(std::size_t(p.width) * p.height, 0.0f);
        dummy_map = dummy;
        return std::make_unique<flow::Flow>(*q, p, HALDEN_FLOW_NO_MASK, dummy.data(), dummy_map.data());
    }
};

TEST_P(FlowKernels, PitsRiseToTheSecondLowestNeighbourAndAreMarked) {
    auto f = make(record(2, 2));
    grid h = upload(*q, {5, 4, 6, 3, 0, 7, 8, 9, 2}, 3, 3), scratch(*q, {3, 3});
    grid marks = upload(*q, std::vector<float>(9, 0.0f), 3, 3);
    f->fill_pits(h, scratch, marks);
    EXPECT_EQ(download(h), (std::vector<float>{5, 4, 6, 4, 3, 7, 8, 9, 7}));
    EXPECT_EQ(download(marks), (std::vector<float>{0, 0, 0, 1, 1, 0, 0, 0, 1}));

    // One neighbour: it is the target. Cells at their target are marked too.
    grid pair = upload(*q, {1, 5}, 2, 1), ps(*q, {1, 2}), pm = upload(*q, {0, 0}, 2, 1);
    f->fill_pits(pair, ps, pm);
    EXPECT_EQ(download(pair), (std::vector<float>{5, 5}));
    EXPECT_EQ(download(pm), (std::vector<float>{1, 0}));
    grid level = upload(*q, {2, 2, 2}, 3, 1), ls(*q, {1, 3}), lm = upload(*q, {0, 0, 0}, 3, 1);
    f->fill_pits(level, ls, lm);
    EXPECT_EQ(download(lm), (std::vector<float>{1, 1, 1}));

    // The unmarked pass: a slope is left alone but for its low corner, a pit.
    std::vector<float> slope(25);
    for (int i = 0; i < 25; ++i) slope[i] = float(i % 5 + i / 5);
    grid s = upload(*q, slope, 5, 5), ss(*q, {5, 5});
    f->fill_pits(s, ss);
    std::vector<float> out = download(s);
    out[0] = slope[0];
    EXPECT_EQ(out, slope);
}

TEST_P(FlowKernels, ParticlesVisitTheirCellsAndStopAtTheStepLimit) {
    const int w = 8, h = 6;
    auto f = make(record(w, h));
    grid heights = upload(*q, plane(w, h), w, h), visits = upload(*q, std::vector<float>(w * h, 0.0f), w, h);
    // Inside, inside, on the right limit (dropped), past the bottom limit (dropped).
    const std::vector<flow::vec2> starts = {{3.5f, 2.5f}, {6.9f, 4.2f}, {7.0f, 1.5f}, {2.5f, 5.0f}};
    halden::compute::usm_ptr<flow::vec2, 1> particles(*q, {starts.size()});
    particles.copy_from_host(starts.data());
    const std::vector<flow::vec2> table = flow::plan::directions();
    halden::compute::usm_ptr<flow::vec2, 1> directions(*q, {table.size()});
    directions.copy_from_host(table.data());
    // A step limit of 2 allows one visit: the start cell.
    f->flow(particles, 0, 4, 2, 0, heights, visits, directions);
    std::vector<float> v = download(visits);
    std::vector<float> want(w * h, 0.0f);
    want[2 * w + 3] = 1.0f;
    want[4 * w + 6] = 1.0f;
    EXPECT_EQ(v, want);

    // On the plane every particle runs left, one visit per move, until it
    // leaves the grid: from x = 3.5 it visits columns 3, 2, 1 and 0.
    grid fresh = upload(*q, std::vector<float>(w * h, 0.0f), w, h);
    f->flow(particles, 0, 1, 16, 0, heights, fresh, directions);
    v = download(fresh);
    float total = 0.0f;
    for (int i = 0; i < w * h; ++i) {
        total += v[i];
        EXPECT_TRUE(i % w <= 3 || v[i] == 0.0f) << i;
    }
    EXPECT_EQ(total, 4.0f);
}

TEST_P(FlowKernels, ZeroLengthGivesOneVisitPerLongTrace) {
    // 64 x 64 cells emit 4096 particles; with fewer than 262144 of them, 128 per
    // batch run long, which is every particle of a 128-particle batch.
    const int w = 64, h = 64;
    const std::vector<float> heights = plane(w, h);
    std::vector<float> map(w * h, 0.0f);
    flow::Flow f(*q, record(w, h, 0.0f), HALDEN_FLOW_NO_MASK, heights.data(), map.data());
    f.count_steps();
    ASSERT_TRUE(f.process());
    // Pit filling flattens the low corners, and particles that start on a
    // flat spot (or in the last row or column) are dropped; every other one
    // makes exactly one visit.
    const std::vector<float> filled = download(f.working_heights());
    std::uint64_t moving = 0;
    for (const flow::vec2& p : flow::plan::seed_particles(record(w, h, 0.0f), nullptr)) {
        if (!(p.x < float(w - 1) && p.y < float(h - 1))) continue;
        const float u = p.x - 0.5f, v = p.y - 0.5f;
        const int i0 = std::max(int(u), 0), j0 = std::max(int(v), 0);
        const int i1 = std::min(int(u) + 1, w - 1), j1 = std::min(int(v) + 1, h - 1);
        const float fx = u - std::floor(u), fy = v - std::floor(v);
        auto at = [&](int j, int i) { return filled[std::size_t(j) * w + i]; };
        const float gx = (at(j0, i1) - at(j0, i0)) * (1.0f - fy) + (at(j1, i1) - at(j1, i0)) * fy;
        const float gy = (at(j1, i0) - at(j0, i0)) * (1.0f - fx) + (at(j1, i1) - at(j0, i1)) * fx;
        moving += std::sqrt(gx * gx + gy * gy) > 0.0f;
    }
    EXPECT_GT(moving, 3800u);
    EXPECT_EQ(f.steps(), moving);
}

HALDEN_INSTANTIATE_ON_BACKENDS(FlowKernels);

// ---------------------------------------------------------------------------
// The export.

class FlowExport : public halden::test::DeviceTest {
protected:
    std::uint32_t run(const std::vector<float>& heights, std::vector<float>& map, const flow::Parameters& p,
                      std::uint64_t no_mask = HALDEN_FLOW_NO_MASK, const halden_callbacks* cb = nullptr) {
        return FlowSimulation(queue, no_mask, heights.data(), map.data(), &p,
                              cb ? cb : &halden::test::capturing_callbacks());
    }
};

TEST_P(FlowExport, ATiltedPlaneSendsTheFlowDownhill) {
    const int w = 64, h = 48;
    std::vector<float> map(w * h, 0.0f);
    // A heavy linear part, so the map counts visits rather than saturating.
    flow::Parameters p = record(w, h, 1.0f);
    p.accumulation = 1000.0f;
    ASSERT_EQ(run(plane(w, h), map, p), 0u);
    // Column x collects the particles that started to its right, so the
    // column totals fall toward the high edge.
    std::vector<double> column(w, 0.0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) column[x] += map[y * w + x];
    for (int x = 8; x < w; x += 8) EXPECT_LT(column[x], column[x - 8]) << x;
    EXPECT_GT(column[0], 10.0 * column[w - 4]);
    EXPECT_GT(column[w - 4], 0.0);
    // Progress climbs to 100 and the memory is announced and released.
    const std::vector<float>& progress = messages().progress;
    ASSERT_GE(progress.size(), 2u);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_EQ(progress.back(), 100.0f);
    ASSERT_EQ(messages().reserved.size(), 1u);
    EXPECT_EQ(messages().released, messages().reserved);
}

TEST_P(FlowExport, SeedsMasksAndHeightsOnlyRead) {
    const int w = 70, h = 50;
    std::vector<float> terrain = hills(w, h);
    std::vector<float> mask(w * h);
    for (std::size_t i = 0; i < mask.size(); ++i) mask[i] = float(i % 10) / 9.0f;
    std::vector<float> a = mask, b = mask, c = mask;
    ASSERT_EQ(run(terrain, a, record(w, h, 0.5f, 3), 0), 0u);
    ASSERT_EQ(run(terrain, b, record(w, h, 0.5f, 3), 0), 0u);
    ASSERT_EQ(run(terrain, c, record(w, h, 0.5f, 4), 0), 0u);
    expect_same_bits(a, b);
    EXPECT_NE(halden::test::first_difference(a, c), -1);
    for (float v : a) ASSERT_TRUE(std::isfinite(v) && v >= 0.0f);
    expect_same_bits(terrain, hills(w, h));

    // Flat terrain, or a zero mask, gives an empty map.
    a.assign(w * h, 0.5f);
    EXPECT_EQ(run(std::vector<float>(w * h, 7.0f), a, record(w, h)), 0u);
    EXPECT_EQ(a, std::vector<float>(w * h, 0.0f));
    EXPECT_EQ(run(terrain, a, record(w, h), 0), 0u);
    EXPECT_EQ(a, std::vector<float>(w * h, 0.0f));
    EXPECT_TRUE(messages().error.empty());
}

int g_calls = 0;
std::int32_t stop_after_two(float) { return ++g_calls > 2 ? 1 : 0; }
std::int32_t never(float) { return 0; }
std::int32_t cancel_now() { return 1; }

TEST_P(FlowExport, CancelStopsEarlyAndKeepsThePartialMap) {
    const int w = 90, h = 60;
    const std::vector<float> terrain = hills(w, h);
    std::vector<float> full(w * h, 0.0f), part(w * h, 0.0f), none(w * h, 0.0f);
    halden_callbacks cb = halden::test::capturing_callbacks();
    cb.progress = never;
    ASSERT_EQ(run(terrain, full, record(w, h), HALDEN_FLOW_NO_MASK, &cb), 0u);
    g_calls = 0;
    cb.progress = stop_after_two;
    EXPECT_EQ(run(terrain, part, record(w, h), HALDEN_FLOW_NO_MASK, &cb), 3u);
    EXPECT_EQ(g_calls, 3);
    const double sum_full = std::accumulate(full.begin(), full.end(), 0.0);
    const double sum_part = std::accumulate(part.begin(), part.end(), 0.0);
    EXPECT_GT(sum_part, 0.0);
    EXPECT_LT(sum_part, sum_full);
    // Slot 7 cancels before the first batch.
    cb.progress = never;
    cb.cancel = cancel_now;
    EXPECT_EQ(run(terrain, none, record(w, h), HALDEN_FLOW_NO_MASK, &cb), 3u);
    EXPECT_EQ(none, std::vector<float>(w * h, 0.0f));
}

TEST_P(FlowExport, BadInputIsRejectedWithoutTouchingTheMap) {
    const std::vector<float> terrain = hills(20, 20);
    std::vector<float> map(400, 0.25f);
    const flow::Parameters p = record(20, 20);
    const halden_callbacks* cb = &halden::test::capturing_callbacks();
    EXPECT_EQ(FlowSimulation(nullptr, 1, terrain.data(), map.data(), &p, nullptr), 3u);
    EXPECT_EQ(FlowSimulation(queue, 1, nullptr, map.data(), &p, cb), 3u);
    EXPECT_EQ(FlowSimulation(queue, 1, terrain.data(), nullptr, &p, cb), 3u);
    EXPECT_EQ(FlowSimulation(queue, 1, terrain.data(), map.data(), nullptr, nullptr), 3u);
    EXPECT_EQ(run(terrain, map, record(0, 20)), 3u);
    EXPECT_EQ(run(terrain, map, record(20, 20, -1.0f)), 3u);
    EXPECT_GE(messages().error.size(), 4u);
    EXPECT_EQ(map, std::vector<float>(400, 0.25f));

    // NaN heights neither hang nor crash, and leave no NaN in the map.
    std::vector<float> holes = terrain;
    for (std::size_t i = 0; i < holes.size(); i += 7) holes[i] = kNaN;
    EXPECT_EQ(run(holes, map, record(20, 20, 2.0f)), 0u);
    for (float v : map) ASSERT_TRUE(std::isfinite(v));
    EXPECT_EQ(run(std::vector<float>(400, kNaN), map, record(20, 20)), 0u);
    // One cell, one row: nothing to trace.
    std::vector<float> one(1, 0.0f);
    EXPECT_EQ(run(std::vector<float>(1, 3.0f), one, record(1, 1)), 0u);
    EXPECT_EQ(one[0], 0.0f);
}

HALDEN_INSTANTIATE_ON_DEVICES(FlowExport);

TEST(FlowDevices, CpuAndCudaAgree) {
    const std::string cuda = halden::test::first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int w = 300, h = 200;
    const std::vector<float> terrain = hills(w, h);
    std::vector<float> mask(w * h);
    for (std::size_t i = 0; i < mask.size(); ++i) mask[i] = float(i % 13) / 12.0f;
    auto on = [&](const std::string& key, std::uint64_t no_mask) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        std::vector<float> map = mask;
        const flow::Parameters p = record(w, h, 0.8f, 11);
        EXPECT_EQ(FlowSimulation(q, no_mask, terrain.data(), map.data(), &p, nullptr), 0u) << key;
        DestroySyclQueue(q);
        return map;
    };
    expect_same_bits(on(cuda, HALDEN_FLOW_NO_MASK), on("cpu", HALDEN_FLOW_NO_MASK));
    expect_same_bits(on(cuda, 0), on("cpu", 0));
}

}  // namespace
