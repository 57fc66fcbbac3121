// SPDX-License-Identifier: Apache-2.0
// Colour transport: what must keep its colour exactly, where colour goes
// downstream, the fixed-point scale, and the export's bad input, cancel and
// device agreement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <omp.h>

#include "device/queue.hpp"
#include "modules/color_transport/color_transport.hpp"
#include "support.hpp"

namespace {

using namespace halden::test;

color_transport::Parameters record(int w, int h) { return {w, h, 3, 0.5f, 0.05f, 1.0f, 0.8f, 4.0f}; }

// Valleys and ridges with a tilt, so that water runs off the map.
std::vector<float> hills(int w, int h, unsigned seed) {
    std::vector<float> v = random_cells(w, h, seed);
    for (std::size_t i = 0; i < v.size(); ++i) {
        const float x = float(i % w), y = float(i / w);
        v[i] = 20.0f * std::sin(0.21f * x) * std::cos(0.17f * y) + 0.3f * x + 0.01f * v[i];
    }
    return v;
}

struct colours {
    std::vector<float> r, g, b;
    std::vector<float> all() const {
        std::vector<float> v = r;
        v.insert(v.end(), g.begin(), g.end());
        v.insert(v.end(), b.begin(), b.end());
        return v;
    }
};

colours random_colours(int w, int h, unsigned seed) {
    colours c{random_cells(w, h, seed), random_cells(w, h, seed + 1), random_cells(w, h, seed + 2)};
    for (std::vector<float>* v : {&c.r, &c.g, &c.b})
        for (float& x : *v) x = (x + 100.0f) / 200.0f;
    return c;
}

class ColorTransportExport : public DeviceTest {
protected:
    std::uint32_t run(const std::vector<float>& heights, colours& c, const color_transport::Parameters& p,
                      const float* mask = nullptr, const halden_callbacks* cb = &capturing_callbacks()) {
        return ColorTransportSimulation(queue, heights.data(), c.r.data(), c.g.data(), c.b.data(), mask, &p, cb);
    }
};

TEST_P(ColorTransportExport, WhatHasNoColourToCarryKeepsItsBits) {
    for (const auto& [w, h] : {std::pair{37, 29}, std::pair{130, 64}, std::pair{1, 9}, std::pair{12, 1}}) {
        SCOPED_TRACE(std::to_string(w) + " x " + std::to_string(h));
        const std::vector<float> terrain = hills(w, h, 4);
        std::vector<float> mask(terrain.size());
        for (std::size_t i = 0; i < mask.size(); ++i) mask[i] = float(i % 7) / 6.0f;
        // A uniform colour: every carried colour equals every cell's.
        colours uniform{std::vector<float>(terrain.size(), 0.25f), std::vector<float>(terrain.size(), 0.5f),
                        std::vector<float>(terrain.size(), -3.0f)};
        const std::vector<float> before = uniform.all();
        for (const float* m : {static_cast<const float*>(nullptr), static_cast<const float*>(mask.data())}) {
            color_transport::Parameters p = record(w, h);
            p.pickup_rate = 0.0f, p.saturation = 0.0f, p.strength = 1.0f;
            EXPECT_EQ(run(terrain, uniform, p, m), 0u);
            expect_same_bits(uniform.all(), before);
        }
        // A flat terrain: no particle has a slope to follow.
        colours c = random_colours(w, h, 8);
        const std::vector<float> random_before = c.all();
        EXPECT_EQ(run(std::vector<float>(terrain.size(), 12.5f), c, record(w, h)), 0u);
        expect_same_bits(c.all(), random_before);
        // Full pickup: a particle always holds the colour of the cell it is in.
        color_transport::Parameters p = record(w, h);
        p.pickup_rate = 1.0f;
        EXPECT_EQ(run(terrain, c, p), 0u);
        expect_same_bits(c.all(), random_before);
        // No strength, or a mask of zeros.
        p = record(w, h);
        p.strength = 0.0f;
        EXPECT_EQ(run(terrain, c, p), 0u);
        expect_same_bits(c.all(), random_before);
        EXPECT_EQ(run(terrain, c, record(w, h), std::vector<float>(terrain.size(), 0.0f).data()), 0u);
        expect_same_bits(c.all(), random_before);
    }
}

// A ridge along one column, falling away to both sides: its cells have
// nothing upstream, the slopes below it take on colour from above.
TEST_P(ColorTransportExport, ARidgeKeepsItsColourAndTheSlopesBelowItChange) {
    const int w = 41, h = 23, ridge = 20;
    std::vector<float> terrain(std::size_t(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) terrain[std::size_t(y) * w + x] = 50.0f - 2.0f * float(std::abs(x - ridge));
    colours c = random_colours(w, h, 21);
    const colours before = c;
    color_transport::Parameters p = record(w, h);
    p.pickup_rate = 0.2f;
    ASSERT_EQ(run(terrain, c, p), 0u);
    int changed = 0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const std::size_t i = std::size_t(y) * w + x;
            const bool same = bits(c.r[i]) == bits(before.r[i]) && bits(c.g[i]) == bits(before.g[i]) &&
                              bits(c.b[i]) == bits(before.b[i]);
            if (x == ridge) {
                EXPECT_TRUE(same) << "ridge cell y " << y;
            }
            changed += !same;
        }
    EXPECT_GT(changed, w * h / 2);
}

// A plane falling toward x = 0, red on its upper half and black below:
// nothing red reaches the upper half from elsewhere, and the lower half
// turns red only as far as what ran into it was red.
TEST_P(ColorTransportExport, ColourRunsDownhillOnly) {
    const int w = 64, h = 40;
    std::vector<float> terrain(std::size_t(w) * h);
    colours c{std::vector<float>(terrain.size()), std::vector<float>(terrain.size(), 0.5f),
              std::vector<float>(terrain.size())};
    for (std::size_t i = 0; i < terrain.size(); ++i) {
        const int x = int(i % w);
        terrain[i] = 0.5f * float(x);
        c.r[i] = x >= w / 2 ? 1.0f : 0.0f;
        c.b[i] = float(i % 3);
    }
    const colours before = c;
    color_transport::Parameters p = record(w, h);
    p.pickup_rate = 0.0f, p.strength = 1.0f, p.saturation = 0.0f;
    ASSERT_EQ(run(terrain, c, p), 0u);
    int reddened = 0;
    for (std::size_t i = 0; i < terrain.size(); ++i) {
        const int x = int(i % w);
        if (x >= w / 2) {
            EXPECT_EQ(c.r[i], 1.0f) << "upper cell " << i;
        }
        EXPECT_GE(c.r[i], 0.0f);
        EXPECT_LE(c.r[i], 1.0f);
        EXPECT_GE(c.b[i], 0.0f);
        EXPECT_LE(c.b[i], 2.0f);
        reddened += x < w / 2 && c.r[i] > 0.0f;
    }
    expect_same_bits(c.g, before.g);
    // Every lower row's cells just below the colour boundary are reached.
    EXPECT_GE(reddened, (h - 1) * 2);
    // Half the strength moves half as far.
    colours half = before;
    p.strength = 0.5f;
    ASSERT_EQ(run(terrain, half, p), 0u);
    for (std::size_t i = 0; i < terrain.size(); ++i) {
        if (int(i % w) < w / 2) {
            EXPECT_EQ(half.r[i], 0.5f * c.r[i]) << i;
        }
    }
}

TEST(ColorTransportScale, TheLargestSumFitsAndSmallSpreadsGetFineSteps) {
    for (const auto& [w, spread] :
         {std::pair{16, 1.0f}, std::pair{4096, 255.0f}, std::pair{4096, 1.0e-6f}, std::pair{100, 3.0e7f}}) {
        color_transport::Parameters p = record(w, w);
        p.length = 4.0f;
        const std::uint64_t particles = std::uint64_t(w) * std::uint64_t(w);
        const halden::core::fixed_point fp = color_transport::tally_scale(p, spread, particles);
        const double visits =
            double(particles) * 16.0 + std::min<double>(double(particles), 262144.0) * (4.0 * w + 2.0);
        EXPECT_LT(2.0 * spread * visits * fp.scale(), halden::core::fixed_point::limit) << w << " " << spread;
        EXPECT_GE(4.0 * spread * visits * fp.scale(), halden::core::fixed_point::limit / 8.0) << w << " " << spread;
    }
    EXPECT_EQ(color_transport::tally_scale(record(8, 8), 0.0f, 64).shift, 62);
}

// The colour's single launch order keeps every particle once, with the
// trace length the flow map's batches give it: the flow map's own order puts
// a batch's short traces last, so a particle is long there exactly when it
// lies past the batch's short ones by id.
TEST(ColorTransportOrder, EveryParticleOnceWithTheFlowMapsTraceLength) {
    // More particles than trace long, so that a batch holds both kinds.
    const color_transport::Parameters p = record(640, 600);
    const flow::Parameters fp = color_transport::flow_parameters(p);
    std::vector<flow::vec2> starts = flow::plan::seed_particles(fp, nullptr);
    flow::plan::shuffle(starts, p.seed);
    const std::size_t n = starts.size();
    std::vector<flow::vec2> ordered(n), flow_ordered(n);
    std::vector<std::uint32_t> ids(n), flow_ids(n);
    const std::size_t longs = flow::plan::launch_order(starts, p.width, p.height, ordered.data(), ids.data(), true);
    const std::size_t shorts = n - longs;
    flow::plan::launch_order(starts, p.width, p.height, flow_ordered.data(), flow_ids.data());

    // Long in the flow map's order: ids at or past its batch's first long one.
    const std::size_t batch = (n + flow::batches - 1) / flow::batches;
    const std::size_t long_count = std::min<std::size_t>(n, flow::long_particles) / flow::batches;
    std::vector<int> is_long(n, -1);
    for (std::size_t o = 0; o < n; o += batch) {
        const std::size_t count = std::min(n - o, batch);
        const std::size_t first_long = o + (count > long_count ? count - long_count : 0);
        for (std::size_t k = o; k < o + count; ++k) is_long[flow_ids[k]] = flow_ids[k] >= first_long;
    }
    std::vector<int> seen(n, 0);
    for (std::size_t k = 0; k < n; ++k) {
        ASSERT_LT(ids[k], n);
        ++seen[ids[k]];
        EXPECT_EQ(ordered[k].x, starts[ids[k]].x);
        EXPECT_EQ(ordered[k].y, starts[ids[k]].y);
        EXPECT_EQ(is_long[ids[k]], k < longs ? 1 : 0) << "slot " << k;
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), std::ptrdiff_t(n));
    EXPECT_GT(shorts, n / 4);
    EXPECT_LT(shorts, n);
}

TEST(ColorTransportOrder, TallyCopiesPerWorkerAndOneSharedGridGiveTheSameBits) {
    // The host tallies into a copy per worker thread with plain adds; a
    // device, or a host short of memory, into one grid with atomics. Any
    // number of workers and either way must give the same bits.
    const int w = 150, h = 120;
    const std::vector<float> heights = hills(w, h, 31);
    const colours start = random_colours(w, h, 32);
    halden_queue* q = CreateSyclQueue("cpu", nullptr);
    const int before = omp_get_max_threads();
    const auto run = [&](int threads, bool copies) {
        omp_set_num_threads(threads);
        colours c = start;
        color_transport::ColorTransport t(q->queue, record(w, h), heights.data(), c.r.data(), c.g.data(), c.b.data(),
                                          nullptr);
        if (!copies) t.without_host_copies();
        EXPECT_TRUE(t.process());
        return c.all();
    };
    const std::vector<float> shared = run(2, false);
    EXPECT_NE(shared, start.all());
    expect_same_bits(run(1, true), shared);
    expect_same_bits(run(2, true), shared);
    expect_same_bits(run(3, true), shared);
    omp_set_num_threads(before);
    DestroySyclQueue(q);
}

TEST_P(ColorTransportExport, BadInputCancelAndStatus) {
    const int w = 33, h = 21;
    const std::vector<float> terrain = hills(w, h, 5);
    const colours in = random_colours(w, h, 2);
    colours out = in;
    const auto refuse = [&](const color_transport::Parameters& p, const char* field, const float* mask = nullptr,
                            const std::vector<float>* heights = nullptr) {
        messages().clear();
        EXPECT_EQ(run(heights ? *heights : terrain, out, p, mask), 3u) << field;
        ASSERT_FALSE(messages().error.empty()) << field;
        EXPECT_NE(messages().error.back().find(field), std::string::npos) << messages().error.back();
        expect_same_bits(out.all(), in.all());
    };
    color_transport::Parameters p = record(w, h);
    for (int v : {0, -3}) refuse((p.width = v, p), "width");
    p = record(w, h);
    refuse((p.height = 0, p), "height");
    p = record(w, h);
    for (float v : {-0.5f, NAN, 1.0e9f}) refuse((p.length = v, p), "length");
    p = record(w, h);
    for (float v : {-0.1f, 1.5f, NAN}) refuse((p.pickup_rate = v, p), "pickup_rate");
    p = record(w, h);
    for (float v : {0.0f, INFINITY, NAN}) refuse((p.deposit_weight = v, p), "deposit_weight");
    p = record(w, h);
    for (float v : {-1.0f, 2.0f, NAN}) refuse((p.strength = v, p), "strength");
    p = record(w, h);
    for (float v : {-1.0f, INFINITY}) refuse((p.saturation = v, p), "saturation");
    // Grid values.
    std::vector<float> mask(terrain.size(), 0.5f);
    mask[40] = 1.5f;
    refuse(record(w, h), "mask", mask.data());
    std::vector<float> holed = terrain;
    holed[7] = NAN;
    refuse(record(w, h), "heights", nullptr, &holed);
    out.g[3] = INFINITY;
    messages().clear();
    EXPECT_EQ(run(terrain, out, record(w, h)), 3u);
    ASSERT_FALSE(messages().error.empty());
    EXPECT_NE(messages().error.back().find("green"), std::string::npos) << messages().error.back();
    out = in;
    // Null arrays and record.
    p = record(w, h);
    EXPECT_EQ(ColorTransportSimulation(queue, nullptr, out.r.data(), out.g.data(), out.b.data(), nullptr, &p, nullptr),
              3u);
    EXPECT_EQ(
        ColorTransportSimulation(queue, terrain.data(), out.r.data(), nullptr, out.b.data(), nullptr, &p, nullptr), 3u);
    EXPECT_EQ(ColorTransportSimulation(queue, terrain.data(), out.r.data(), out.g.data(), out.b.data(), nullptr,
                                       nullptr, nullptr),
              3u);
    EXPECT_EQ(ColorTransportSimulation(nullptr, terrain.data(), out.r.data(), out.g.data(), out.b.data(), nullptr, &p,
                                       nullptr),
              3u);
    expect_same_bits(out.all(), in.all());

    // A cancel, early or late, leaves the colours unchanged.
    for (float at : {10.0f, 80.0f}) {
        static float cancel_at;
        cancel_at = at;
        halden_callbacks cb = capturing_callbacks();
        cb.progress = [](float percent) -> int32_t { return percent > cancel_at; };
        EXPECT_EQ(run(terrain, out, record(w, h), nullptr, &cb), 3u);
        expect_same_bits(out.all(), in.all());
    }
    // Progress rises to 100 on a full run.
    messages().clear();
    EXPECT_EQ(run(terrain, out, record(w, h)), 0u);
    ASSERT_FALSE(messages().progress.empty());
    EXPECT_TRUE(std::is_sorted(messages().progress.begin(), messages().progress.end()));
    EXPECT_FLOAT_EQ(messages().progress.back(), 100.0f);
}

HALDEN_INSTANTIATE_ON_DEVICES(ColorTransportExport);

TEST(ColorTransportDevices, CpuAndCudaAgree) {
    const std::string cuda = first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int w = 301, h = 207;
    const std::vector<float> terrain = hills(w, h, 12);
    std::vector<float> mask(terrain.size());
    for (std::size_t i = 0; i < mask.size(); ++i) mask[i] = float(i % 11) / 10.0f;
    auto on = [&](const std::string& key) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        colours c = random_colours(w, h, 30);
        color_transport::Parameters p = record(w, h);
        p.length = 1.5f;
        EXPECT_EQ(
            ColorTransportSimulation(q, terrain.data(), c.r.data(), c.g.data(), c.b.data(), mask.data(), &p, nullptr),
            0u);
        DestroySyclQueue(q);
        return c.all();
    };
    expect_same_bits(on(cuda), on("cpu"));
}

}  // namespace
