// SPDX-License-Identifier: Apache-2.0
// Debris: rocks only ever raise the terrain, nothing breaks off without
// sources, rocks rest below the friction angle, the order of the rocks does
// not matter, hand-worked rocks, bad records, and device agreement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "modules/debris/debris.hpp"
#include "support.hpp"

namespace {

using namespace halden::test;

debris::Parameters record(int w, int h, int mode = HALDEN_DEBRIS_SYNCHRONOUS, int shape = HALDEN_DEBRIS_SHARP) {
    return {w,    h,     1.0f, 1.0f, 7,     1.0f, 0.4f, 2.5f, 2.5f, 40.0f, 32.0f,
            0.3f, 20000, mode, 4,    shape, 7,    0.5f, 0.4f, 8.0f, 0.05f};
}

// A plateau 40 high on the left, a cliff face six cells wide, and a floor
// that rises gently to the right and ripples along y, everywhere gentler
// than the friction angle.
std::vector<float> cliff(int w, int h) {
    std::vector<float> v(std::size_t(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const float floor = 0.05f * float(x) + 0.5f * std::sin(0.3f * float(y));
            const float wall = 40.0f * std::clamp((30.0f - float(x)) / 6.0f, 0.0f, 1.0f);
            v[std::size_t(y) * w + x] = std::max(floor, wall + 2.0f);
        }
    return v;
}

// The surface a rock feels, worked out here in double: the bilinear surface
// through the cell centres, sampled half a cell to either side.
double bilinear(const std::vector<float>& g, int w, int h, double x, double y) {
    const double px = x - 0.5, py = y - 0.5, fx0 = std::floor(px), fy0 = std::floor(py);
    const double fx = px - fx0, fy = py - fy0;
    const auto at = [&](int cx, int cy) {
        return double(g[std::size_t(std::clamp(cy, 0, h - 1)) * w + std::clamp(cx, 0, w - 1)]);
    };
    const int ix = int(fx0), iy = int(fy0);
    return (at(ix, iy) * (1 - fx) + at(ix + 1, iy) * fx) * (1 - fy) +
           (at(ix, iy + 1) * (1 - fx) + at(ix + 1, iy + 1) * fx) * fy;
}
double height_at(const std::vector<float>& g, int w, int h, double x, double y) {
    return 0.25 * (bilinear(g, w, h, x + 0.5, y) + bilinear(g, w, h, x - 0.5, y) + bilinear(g, w, h, x, y + 0.5) +
                   bilinear(g, w, h, x, y - 0.5));
}
double slope_at(const std::vector<float>& g, int w, int h, double x, double y) {
    const double gx = bilinear(g, w, h, x + 0.5, y) - bilinear(g, w, h, x - 0.5, y);
    const double gy = bilinear(g, w, h, x, y + 0.5) - bilinear(g, w, h, x, y - 0.5);
    return std::sqrt(gx * gx + gy * gy);
}

struct result {
    std::vector<float> heights, thickness, ids;
};

class DebrisExport : public DeviceTest {
protected:
    result run(const std::vector<float>& in, const debris::Parameters& p, const float* sources = nullptr,
               const float* warp = nullptr) {
        result r{in, std::vector<float>(in.size(), 99.0f), std::vector<float>(in.size(), 99.0f)};
        EXPECT_EQ(DebrisSimulation(queue, r.heights.data(), sources, r.thickness.data(), r.ids.data(), warp, &p), 0u);
        return r;
    }
};

TEST_P(DebrisExport, RocksOnlyRaiseTheTerrainAndTheOutputsAgree) {
    const int w = 96, h = 64;
    const std::vector<float> in = cliff(w, h);
    for (int mode : {HALDEN_DEBRIS_SYNCHRONOUS, HALDEN_DEBRIS_ASYNCHRONOUS})
        for (int shape : {HALDEN_DEBRIS_SHARP, HALDEN_DEBRIS_ROUNDED}) {
            SCOPED_TRACE(::testing::Message() << "mode " << mode << ", shape " << shape);
            debris::Parameters p = record(w, h, mode, shape);
            p.roundness = 0.3f;  // a superellipsoid other than the ellipsoid
            const result r = run(in, p);
            int covered = 0;
            for (std::size_t i = 0; i < in.size(); ++i) {
                ASSERT_GE(r.heights[i], in[i]) << i;
                EXPECT_EQ(bits(r.thickness[i]), bits(r.heights[i] - in[i])) << i;
                EXPECT_EQ(r.ids[i] < 0.0f, r.heights[i] == in[i]) << i;
                if (r.ids[i] >= 0.0f) {
                    EXPECT_EQ(r.ids[i], std::floor(r.ids[i])) << i;
                    ++covered;
                }
            }
            // Scree gathers at the foot of the cliff, none on the plateau.
            EXPECT_GT(covered, 100);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < 20; ++x) EXPECT_EQ(r.ids[std::size_t(y) * w + x], -1.0f) << x << ", " << y;
        }
    EXPECT_TRUE(messages().error.empty());
}

TEST_P(DebrisExport, NothingBreaksOffWithoutSources) {
    const int w = 40, h = 30;
    const debris::Parameters p = record(w, h);
    // Zero weights on a cliff; a flat field; a ramp gentler than the source
    // slope (tan 30 degrees against 40); zero density.
    const std::vector<float> zero(std::size_t(w) * h, 0.0f);
    std::vector<float> flat(zero.size(), 12.5f), ramp(zero.size());
    for (std::size_t i = 0; i < ramp.size(); ++i) ramp[i] = 0.577f * float(i % w) + 0.1f * float(i / w);
    debris::Parameters none = p;
    none.density = 0.0f;
    const struct {
        const std::vector<float>* in;
        const float* sources;
        const debris::Parameters* p;
    } cases[] = {{nullptr, zero.data(), &p}, {&flat, nullptr, &p}, {&ramp, nullptr, &p}, {nullptr, nullptr, &none}};
    const std::vector<float> rocky = cliff(w, h);
    for (const auto& c : cases) {
        const std::vector<float>& in = c.in ? *c.in : rocky;
        const result r = run(in, *c.p, c.sources);
        expect_same_bits(r.heights, in);
        expect_same_bits(r.thickness, zero);
        expect_same_bits(r.ids, std::vector<float>(in.size(), -1.0f));
    }
    // The cliff itself does shed rocks.
    EXPECT_NE(first_difference(run(rocky, p).heights, rocky), -1);
    EXPECT_TRUE(messages().error.empty());
}

// Missing cells (NaN) shed nothing, stay missing, and rocks that reach them
// are lost rather than laid down anywhere else.
TEST_P(DebrisExport, MissingCellsStayMissing) {
    const int w = 96, h = 64;
    std::vector<float> in = cliff(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 30; x < 40; ++x) in[std::size_t(y) * w + x] = std::nanf("");
    const result r = run(in, record(w, h, HALDEN_DEBRIS_ASYNCHRONOUS, HALDEN_DEBRIS_ROUNDED));
    for (std::size_t i = 0; i < in.size(); ++i) {
        if (std::isnan(in[i])) {
            EXPECT_TRUE(std::isnan(r.heights[i])) << i;
            EXPECT_EQ(r.ids[i], -1.0f) << i;
        } else {
            EXPECT_GE(r.heights[i], in[i]) << i;
        }
    }
    EXPECT_TRUE(messages().error.empty());
}

TEST_P(DebrisExport, BadRecordsAreRefusedNamingTheField) {
    const int w = 24, h = 16;
    const std::vector<float> in = cliff(w, h);
    const debris::Parameters good = record(w, h);
    const auto bad = [&](auto change) {
        debris::Parameters p = good;
        change(p);
        return p;
    };
    const struct {
        const char* field;
        debris::Parameters p;
    } cases[] = {
        {"width", bad([](auto& p) { p.width = 0; })},
        {"height", bad([](auto& p) { p.height = -3; })},
        {"cell_size", bad([](auto& p) { p.cell_size = std::nanf(""); })},
        {"height_scale", bad([](auto& p) { p.height_scale = 0.0f; })},
        {"density", bad([](auto& p) { p.density = 17.0f; })},
        {"size_min", bad([](auto& p) { p.size_min = -1.0f; })},
        {"size_max", bad([](auto& p) { p.size_max = 0.1f; })},
        {"size_max", bad([](auto& p) { p.size_max = 65.0f; })},
        {"size_exponent", bad([](auto& p) { p.size_exponent = std::nanf(""); })},
        {"source_slope", bad([](auto& p) { p.source_slope = 90.0f; })},
        {"friction_angle", bad([](auto& p) { p.friction_angle = 0.0f; })},
        {"restitution", bad([](auto& p) { p.restitution = 1.0f; })},
        {"max_steps", bad([](auto& p) { p.max_steps = 0; })},
        {"mode", bad([](auto& p) { p.mode = 2; })},
        {"batches", bad([](auto& p) { p.batches = 0; })},
        {"shape", bad([](auto& p) { p.shape = -1; })},
        {"facets", bad([](auto& p) { p.facets = 33; })},
        {"roundness", bad([](auto& p) { p.roundness = 1.5f; })},
        {"embedding", bad([](auto& p) { p.embedding = 1.0f; })},
        {"warp_amplitude", bad([](auto& p) { p.warp_amplitude = INFINITY; })},
        {"warp_frequency", bad([](auto& p) { p.warp_frequency = 0.0f; })},
    };
    std::vector<float> heights = in, thickness(in.size(), 5.0f);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.field);
        messages().clear();
        EXPECT_EQ(DebrisSimulation(queue, heights.data(), nullptr, thickness.data(), nullptr, nullptr, &c.p), 0u);
        ASSERT_EQ(messages().error.size(), 1u);
        EXPECT_NE(messages().error[0].find(c.field), std::string::npos) << messages().error[0];
        EXPECT_NE(messages().error[0].find("DebrisSimulation"), std::string::npos) << messages().error[0];
    }
    for (int which = 0; which < 3; ++which) {
        messages().clear();
        EXPECT_EQ(DebrisSimulation(which == 0 ? nullptr : queue, which == 1 ? nullptr : heights.data(), nullptr,
                                   nullptr, nullptr, nullptr, which == 2 ? nullptr : &good),
                  0u);
        ASSERT_EQ(messages().error.size(), 1u) << which;
        EXPECT_NE(messages().error[0].find("null"), std::string::npos) << messages().error[0];
    }
    expect_same_bits(heights, in);
    expect_same_bits(thickness, std::vector<float>(in.size(), 5.0f));
}

HALDEN_INSTANTIATE_ON_DEVICES(DebrisExport);

// The module's steps on the compute layer's queues.
class DebrisInternals : public BackendTest {};

TEST_P(DebrisInternals, RocksRestBelowTheFrictionAngleOrAtTheBorder) {
    const int w = 96, h = 64;
    const std::vector<float> in = cliff(w, h);
    for (float friction : {20.0f, 32.0f, 45.0f}) {
        SCOPED_TRACE(::testing::Message() << "friction angle " << friction);
        debris::Parameters p = record(w, h);
        p.friction_angle = friction;
        std::vector<float> heights = in;
        debris::Debris d(*q, heights.data(), nullptr, nullptr, nullptr, nullptr, p);
        ASSERT_GT(d.place_rocks(), 50u);
        const std::vector<debris::rock> start = d.rocks();
        d.simulate();
        const std::vector<debris::rock> end = d.rocks();
        const double mu = std::tan(friction * 3.14159265358979323846 / 180.0);
        int rested = 0;
        for (std::size_t i = 0; i < end.size(); ++i) {
            const debris::rock& r = end[i];
            SCOPED_TRACE(::testing::Message() << "rock " << r.id << " at " << r.x << ", " << r.y);
            EXPECT_EQ(r.id, start[i].id);
            if (r.state == debris::left) {
                EXPECT_TRUE(r.x <= 0.0f || r.x >= float(w) || r.y <= 0.0f || r.y >= float(h));
                continue;
            }
            ASSERT_EQ(r.state, debris::resting);
            ++rested;
            EXPECT_LE(slope_at(in, w, h, r.x, r.y), mu * (1.0 + 1e-4) + 1e-4);
            // Friction spends mu per unit of horizontal run: no rock rests
            // beyond the line at the friction angle below its source (give or
            // take the overshoot of a fixed time step).
            const double run = std::hypot(double(r.x) - start[i].x, double(r.y) - start[i].y);
            const double drop = height_at(in, w, h, start[i].x, start[i].y) - height_at(in, w, h, r.x, r.y);
            EXPECT_GE(drop + 0.5, (mu - 0.1) * run) << "ran " << run << " cells, dropped " << drop;
        }
        EXPECT_GT(rested, 0);
    }
}

TEST_P(DebrisInternals, SynchronousRunsDoNotDependOnRockOrder) {
    const int w = 96, h = 64;
    const std::vector<float> in = cliff(w, h);
    for (int shape : {HALDEN_DEBRIS_SHARP, HALDEN_DEBRIS_ROUNDED}) {
        const debris::Parameters p = record(w, h, HALDEN_DEBRIS_SYNCHRONOUS, shape);
        const auto once = [&](bool shuffled) {
            result r{in, std::vector<float>(in.size()), std::vector<float>(in.size())};
            debris::Debris d(*q, r.heights.data(), nullptr, r.thickness.data(), r.ids.data(), nullptr, p);
            d.place_rocks();
            if (shuffled) {
                std::vector<debris::rock> rocks = d.rocks();
                std::reverse(rocks.begin(), rocks.end());
                std::shuffle(rocks.begin(), rocks.end() - rocks.size() / 3, std::mt19937(3));
                d.set_rocks(rocks);
            }
            d.simulate();
            d.write_back();
            return r;
        };
        const result a = once(false), b = once(true);
        expect_same_bits(b.heights, a.heights);
        expect_same_bits(b.thickness, a.thickness);
        expect_same_bits(b.ids, a.ids);
        EXPECT_NE(first_difference(a.heights, in), -1);
    }
}

// Rocks placed by hand on flat ground (a zero warp leaves their outlines
// alone) rest where they are, so what they lay down is worked out here.
TEST_P(DebrisInternals, HandPlacedRocks) {
    const int w = 7, h = 6;
    const std::vector<float> flat(std::size_t(w) * h, 10.0f), zero(flat.size(), 0.0f);
    debris::Parameters p = record(w, h, HALDEN_DEBRIS_SYNCHRONOUS, HALDEN_DEBRIS_ROUNDED);
    p.roundness = 1.0f;  // ellipsoids
    p.embedding = 0.5f;  // centred on the ground
    const auto rock_at = [](float x, float y, float radius, std::uint32_t id) {
        debris::rock r{};
        r.x = x;
        r.y = y;
        r.radius = radius;
        r.flatness = 1.0f;
        r.id = id;
        return r;
    };
    const auto lay = [&](const std::vector<debris::rock>& rocks) {
        result r{flat, std::vector<float>(flat.size()), std::vector<float>(flat.size())};
        debris::Debris d(*q, r.heights.data(), nullptr, r.thickness.data(), r.ids.data(), zero.data(), p);
        d.set_rocks(rocks);
        d.simulate();
        d.write_back();
        for (const debris::rock& k : d.rocks()) EXPECT_EQ(k.state, debris::resting);
        return r;
    };
    // A rock of one cell's radius centred on cell (2, 3) tops that cell
    // alone, by its radius; the next centres lie on its outline.
    result r = lay({rock_at(2.5f, 3.5f, 1.0f, 4)});
    std::vector<float> want = flat, ids(flat.size(), -1.0f);
    want[3 * w + 2] = 11.0f;
    ids[3 * w + 2] = 4.0f;
    expect_same_bits(r.heights, want);
    expect_same_bits(r.ids, ids);
    // Two equal rocks on the same spot: the greater id tops the cell; a
    // taller one beside them takes the cells it covers higher.
    r = lay({rock_at(2.5f, 3.5f, 1.0f, 9), rock_at(2.5f, 3.5f, 1.0f, 2), rock_at(5.5f, 1.5f, 1.0f, 1)});
    want[1 * w + 5] = 11.0f;
    ids[3 * w + 2] = 9.0f;
    ids[1 * w + 5] = 1.0f;
    expect_same_bits(r.heights, want);
    expect_same_bits(r.ids, ids);
    // Asynchronous batches pile the second rock onto the first.
    p.mode = HALDEN_DEBRIS_ASYNCHRONOUS;
    p.batches = 2;
    r = lay({rock_at(2.5f, 3.5f, 1.0f, 0), rock_at(2.5f, 3.5f, 1.0f, 1)});
    EXPECT_EQ(r.heights[3 * w + 2], 12.0f);
    EXPECT_EQ(r.ids[3 * w + 2], 1.0f);
}

HALDEN_INSTANTIATE_ON_BACKENDS(DebrisInternals);

TEST(DebrisDevices, CpuAndCudaAgree) {
    const std::string cuda = first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int w = 181, h = 97;
    const std::vector<float> in = cliff(w, h);
    std::vector<float> sources(in.size());
    for (std::size_t i = 0; i < sources.size(); ++i) sources[i] = float(i % 7) / 6.0f;
    auto on = [&](const std::string& key) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        std::vector<float> all;
        for (int mode : {HALDEN_DEBRIS_SYNCHRONOUS, HALDEN_DEBRIS_ASYNCHRONOUS})
            for (int shape : {HALDEN_DEBRIS_SHARP, HALDEN_DEBRIS_ROUNDED}) {
                debris::Parameters p = record(w, h, mode, shape);
                p.roundness = 0.2f;
                std::vector<float> out = in, thickness(in.size()), ids(in.size());
                EXPECT_EQ(DebrisSimulation(q, out.data(), sources.data(), thickness.data(), ids.data(), nullptr, &p),
                          0u);
                for (const std::vector<float>* v : {&out, &thickness, &ids})
                    all.insert(all.end(), v->begin(), v->end());
            }
        DestroySyclQueue(q);
        return all;
    };
    expect_same_bits(on(cuda), on("cpu"));
}

}  // namespace
