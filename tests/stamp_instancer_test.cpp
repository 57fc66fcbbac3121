// SPDX-License-Identifier: Apache-2.0
// Stamp instancing: exact copies, order-free blends, the placement's
// determinism and limits, the winning instance per cell, the mip levels, bad
// records, and the devices' agreement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "modules/stamp_instancer/stamp_instancer.hpp"
#include "support.hpp"

namespace {

using namespace halden::test;
using stamp_instancer::Instance;
using stamp_instancer::Parameters;

stamp_instancer::Parameters record(int w, int h) {
    Parameters p{};
    p.width = w, p.height = h, p.seed = 1, p.count = 100;
    p.scale_min = 0.5f, p.scale_max = 2.0f, p.rotation_max = 360.0f, p.height_min = p.height_max = 1.0f;
    p.height_mode = HALDEN_STAMP_ABSOLUTE, p.blend = HALDEN_STAMP_MAX, p.opacity = 1.0f, p.smoothness = 1.0f;
    p.filter = HALDEN_STAMP_BILINEAR;
    p.slope_min = p.elevation_min = -INFINITY;
    p.slope_max = p.elevation_max = INFINITY;
    return p;
}

// Stamps packed one after another in an atlas.
struct stamp_set {
    std::vector<float> atlas;
    std::vector<halden_stamp_entry> entries;
    void add(int w, int h, const std::vector<float>& texels) {
        entries.push_back({std::uint32_t(w), std::uint32_t(h), atlas.size()});
        atlas.insert(atlas.end(), texels.begin(), texels.end());
    }
    halden_stamps record() const {
        return {atlas.data(), atlas.size(), entries.data(), std::uint32_t(entries.size()), 0};
    }
};

Instance at(float x, float y, std::uint32_t stamp, float height = 1.0f, float scale = 1.0f, float rotation = 0.0f) {
    return {x, y, scale, rotation, 0.0f, 0.0f, height, stamp};
}

class StampExport : public DeviceTest {
protected:
    // Draws `given` (none: places p.count into `placed`).
    std::uint32_t run(std::vector<float>& heights, const stamp_set& s, const Parameters& p,
                      std::vector<Instance>& given, float* ids = nullptr, const float* density = nullptr) {
        const halden_stamps stamps = s.record();
        std::uint32_t n = std::uint32_t(given.size());
        if (given.empty()) given.resize(p.count);
        const std::uint32_t status = StampInstancer_Populate(queue, heights.data(), &stamps, density, given.data(), &n,
                                                             ids, &p, &capturing_callbacks());
        given.resize(n);
        return status;
    }
};

TEST_P(StampExport, AnIdentityOrQuarterTurnCopyWithReplaceIsExact) {
    const int w = 12, h = 10;
    const std::vector<float> texels = random_cells(5, 3, 4);
    stamp_set s;
    s.add(5, 3, texels);
    for (int filter : {HALDEN_STAMP_BILINEAR, HALDEN_STAMP_BICUBIC}) {
        SCOPED_TRACE(filter);
        Parameters p = record(w, h);
        p.blend = HALDEN_STAMP_REPLACE, p.filter = filter;
        // Texel centres on cell centres: columns 4..8, rows 3..5.
        std::vector<Instance> one{at(4.0f + 2.5f, 3.0f + 1.5f, 0)};
        std::vector<float> out(w * h, 7.0f), ids(w * h, 9.0f), want(w * h, 7.0f), want_ids(w * h, -1.0f);
        for (int j = 0; j < 3; ++j)
            for (int i = 0; i < 5; ++i)
                want[(3 + j) * w + 4 + i] = texels[j * 5 + i], want_ids[(3 + j) * w + 4 + i] = 0;
        ASSERT_EQ(run(out, s, p, one, ids.data()), 0u);
        expect_same_bits(out, want);
        expect_same_bits(ids, want_ids);
        // A quarter turn clockwise: the stamp's first row becomes the right
        // column (6) and its first column the top row (2).
        std::vector<Instance> turned{at(5.5f, 4.5f, 0, 1.0f, 1.0f, 90.0f)};
        out.assign(w * h, 7.0f), want.assign(w * h, 7.0f);
        for (int r = 2; r <= 6; ++r)
            for (int c = 4; c <= 6; ++c) want[r * w + c] = texels[(6 - c) * 5 + (r - 2)];
        ASSERT_EQ(run(out, s, p, turned), 0u);
        expect_same_bits(out, want);
    }
}

TEST_P(StampExport, MaxAndMinDoNotDependOnInstanceOrder) {
    const int w = 64, h = 48;
    stamp_set s;
    s.add(9, 7, random_cells(9, 7, 1));
    s.add(16, 16, random_cells(16, 16, 2));
    std::vector<Instance> forward;
    for (int i = 0; i < 40; ++i) {
        const float u = float((i * 37) % 64), v = float((i * 23) % 48);
        forward.push_back(at(u + 0.3f, v + 0.7f, std::uint32_t(i % 2), 0.5f + 0.05f * float(i),
                             0.4f + 0.1f * float(i % 17), float(i * 29)));
    }
    const std::vector<Instance> backward(forward.rbegin(), forward.rend());
    const std::vector<float> terrain = random_cells(w, h, 3);
    for (int blend : {HALDEN_STAMP_MAX, HALDEN_STAMP_MIN}) {
        SCOPED_TRACE(blend);
        Parameters p = record(w, h);
        p.blend = blend;
        std::vector<float> a = terrain, b = terrain;
        std::vector<Instance> fa = forward, fb = backward;
        ASSERT_EQ(run(a, s, p, fa), 0u);
        ASSERT_EQ(run(b, s, p, fb), 0u);
        expect_same_bits(a, b);
        EXPECT_NE(first_difference(a, terrain), -1);
        for (int i = 0; i < w * h; ++i)
            ASSERT_TRUE(blend == HALDEN_STAMP_MAX ? a[i] >= terrain[i] : a[i] <= terrain[i]) << i;
    }
}

TEST_P(StampExport, AZeroStampAddedOrSubtractedChangesNothing) {
    const int w = 50, h = 37;
    stamp_set s;
    s.add(8, 8, std::vector<float>(64, 0.0f));
    const std::vector<float> terrain = random_cells(w, h, 5);
    for (int blend : {HALDEN_STAMP_ADD, HALDEN_STAMP_SUBTRACT}) {
        Parameters p = record(w, h);
        p.blend = blend, p.opacity = 0.7f, p.falloff = 0.5f, p.filter = HALDEN_STAMP_BICUBIC;
        p.height_min = -3.0f, p.height_max = 3.0f;
        std::vector<float> out = terrain, ids(w * h);
        std::vector<Instance> placed;
        ASSERT_EQ(run(out, s, p, placed, ids.data()), 0u);
        EXPECT_EQ(placed.size(), 100u);
        expect_same_bits(out, terrain);
        EXPECT_NE(first_difference(ids, std::vector<float>(w * h, -1.0f)), -1);  // yet they covered cells
    }
    // Relative heights: a zero stamp put in place of the terrain gives the
    // height under its centre.
    Parameters p = record(w, h);
    p.blend = HALDEN_STAMP_REPLACE, p.height_mode = HALDEN_STAMP_RELATIVE;
    std::vector<float> flat(w * h, 12.5f);
    std::vector<Instance> placed;
    ASSERT_EQ(run(flat, s, p, placed), 0u);
    expect_same_bits(flat, std::vector<float>(w * h, 12.5f));
}

TEST_P(StampExport, ThePlacementDependsOnTheSeedAloneAndKeepsItsLimits) {
    const int w = 80, h = 60;
    stamp_set s;
    s.add(4, 4, random_cells(4, 4, 6));
    s.add(6, 3, random_cells(6, 3, 7));
    const std::vector<float> terrain = random_cells(w, h, 8);
    Parameters p = record(w, h);
    p.count = 60;
    const auto same = [](const std::vector<Instance>& a, const std::vector<Instance>& b) {
        return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(Instance)) == 0;
    };
    for (float spacing : {0.0f, 6.0f}) {
        SCOPED_TRACE(spacing);
        p.spacing = spacing;
        std::vector<Instance> first, second, other;
        std::vector<float> a = terrain, b = terrain, c = terrain;
        ASSERT_EQ(run(a, s, p, first), 0u);
        ASSERT_EQ(run(b, s, p, second), 0u);
        EXPECT_TRUE(same(first, second));
        expect_same_bits(a, b);
        Parameters q = p;
        q.seed = 2;
        ASSERT_EQ(run(c, s, q, other), 0u);
        EXPECT_FALSE(same(first, other));
        ASSERT_EQ(first.size(), 60u);
        for (const Instance& in : first) {
            EXPECT_TRUE(in.x >= 0.0f && in.x < float(w) && in.y >= 0.0f && in.y < float(h));
            EXPECT_TRUE(in.scale >= p.scale_min && in.scale <= p.scale_max);
            EXPECT_LT(in.stamp, 2u);
            EXPECT_NEAR(in.cos_rotation, std::cos(in.rotation * 3.14159265 / 180.0), 1e-6);
        }
        for (std::size_t i = 0; spacing > 0.0f && i < first.size(); ++i)
            for (std::size_t j = 0; j < i; ++j) {
                EXPECT_GE(std::hypot(first[i].x - first[j].x, first[i].y - first[j].y), spacing * 0.9999);
            }
    }
    // A few spaced copies spread over the whole grid, not around the disk's
    // first point.
    {
        Parameters few = record(200, 200);
        few.count = 12, few.spacing = 3.0f;
        std::vector<float> wide(200 * 200, 0.0f);
        std::vector<Instance> placed;
        ASSERT_EQ(run(wide, s, few, placed), 0u);
        ASSERT_EQ(placed.size(), 12u);
        float x0 = 200.0f, x1 = 0.0f, y0 = 200.0f, y1 = 0.0f;
        for (const Instance& in : placed)
            x0 = std::min(x0, in.x), x1 = std::max(x1, in.x), y0 = std::min(y0, in.y), y1 = std::max(y1, in.y);
        EXPECT_GT(x1 - x0, 100.0f);
        EXPECT_GT(y1 - y0, 100.0f);
    }
    // Density and elevation: no centre where the density is 0 or the terrain
    // is below the limit.
    std::vector<float> density(w * h, 1.0f);
    for (int i = 0; i < w * h; ++i)
        if (i % w < w / 2) density[i] = 0.0f;
    for (float spacing : {0.0f, 3.0f}) {
        p.spacing = spacing, p.elevation_min = 0.0f;
        std::vector<Instance> placed;
        std::vector<float> out = terrain;
        ASSERT_EQ(run(out, s, p, placed, nullptr, density.data()), 0u);
        EXPECT_FALSE(placed.empty());
        for (const Instance& in : placed) {
            const int cell = int(in.y) * w + int(in.x);
            EXPECT_EQ(density[cell], 1.0f);
            EXPECT_GE(terrain[cell], 0.0f);
        }
    }
}

TEST_P(StampExport, TheIdsNameTheInstanceThatWonEachCell) {
    const int w = 6, h = 4;
    stamp_set s;
    s.add(2, 2, std::vector<float>(4, 1.0f));
    // Two 2 x 2 copies on rows 1-2: the first on columns 1-2, the second on 2-3.
    struct expectation {
        int blend;
        float ground, first, second;
        std::vector<float> row, ids;
    };
    const expectation cases[] = {
        {HALDEN_STAMP_MAX, 0.0f, 1.0f, 2.0f, {0, 1, 2, 2, 0, 0}, {-1, 0, 1, 1, -1, -1}},
        {HALDEN_STAMP_MAX, 0.0f, 2.0f, 1.0f, {0, 2, 2, 1, 0, 0}, {-1, 0, 0, 1, -1, -1}},
        {HALDEN_STAMP_MIN, 5.0f, 1.0f, 2.0f, {5, 1, 1, 2, 5, 5}, {-1, 0, 0, 1, -1, -1}},
        {HALDEN_STAMP_REPLACE, 5.0f, 2.0f, 1.0f, {5, 2, 1, 1, 5, 5}, {-1, 0, 1, 1, -1, -1}},
        {HALDEN_STAMP_ADD, 5.0f, 2.0f, 1.0f, {5, 7, 8, 6, 5, 5}, {-1, 0, 1, 1, -1, -1}},
    };
    for (const expectation& e : cases) {
        SCOPED_TRACE(e.blend);
        Parameters p = record(w, h);
        p.blend = e.blend;
        std::vector<Instance> two{at(2.0f, 2.0f, 0, e.first), at(3.0f, 2.0f, 0, e.second)};
        std::vector<float> out(w * h, e.ground), ids(w * h);
        ASSERT_EQ(run(out, s, p, two, ids.data()), 0u);
        std::vector<float> want(w * h, e.ground), want_ids(w * h, -1.0f);
        for (int r = 1; r <= 2; ++r)
            for (int c = 0; c < w; ++c) want[r * w + c] = e.row[c], want_ids[r * w + c] = e.ids[c];
        expect_same_bits(out, want);
        expect_same_bits(ids, want_ids);
    }
}

TEST_P(StampExport, SmoothBlendsStayWithinTheirSeamAndMultiplyScales) {
    const int w = 40, h = 30;
    stamp_set s;
    s.add(12, 12, random_cells(12, 12, 15));
    const std::vector<float> terrain = random_cells(w, h, 16);
    std::vector<Instance> copies;
    for (int i = 0; i < 12; ++i)
        copies.push_back(at(float(3 * i + 2), float((7 * i) % 30), 0, 0.5f, 1.0f + 0.1f * float(i), float(40 * i)));
    const float k = 4.0f;
    for (int blend : {HALDEN_STAMP_SMOOTH_MAX, HALDEN_STAMP_SMOOTH_MIN, HALDEN_STAMP_MAX, HALDEN_STAMP_MIN}) {
        Parameters p = record(w, h);
        p.blend = blend, p.smoothness = k;
        std::vector<float> out = terrain;
        std::vector<Instance> given = copies;
        ASSERT_EQ(run(out, s, p, given), 0u);
        // Each copy moves a cell by its hard extreme plus at most k / 4.
        const bool up = blend == HALDEN_STAMP_SMOOTH_MAX || blend == HALDEN_STAMP_MAX;
        for (int i = 0; i < w * h; ++i)
            ASSERT_TRUE(up ? out[i] >= terrain[i] : out[i] <= terrain[i]) << blend << " " << i;
        if (blend == HALDEN_STAMP_SMOOTH_MAX || blend == HALDEN_STAMP_SMOOTH_MIN) {
            p.blend = blend == HALDEN_STAMP_SMOOTH_MAX ? HALDEN_STAMP_MAX : HALDEN_STAMP_MIN;
            std::vector<float> hard = terrain;
            given = copies;
            ASSERT_EQ(run(hard, s, p, given), 0u);
            for (int i = 0; i < w * h; ++i) {
                ASSERT_TRUE(up ? out[i] >= hard[i] : out[i] <= hard[i]) << i;
                ASSERT_LE(std::abs(out[i] - hard[i]), 12 * k * 0.25f + 1e-3f) << i;
            }
        }
    }
    // A stamp of ones multiplies by 1 and leaves the terrain; twos double it.
    for (float factor : {1.0f, 2.0f}) {
        stamp_set flat;
        flat.add(6, 6, std::vector<float>(36, factor));
        Parameters p = record(w, h);
        p.blend = HALDEN_STAMP_MULTIPLY;
        std::vector<float> out = terrain, ids(w * h);
        std::vector<Instance> one{at(20.0f, 15.0f, 0)};
        ASSERT_EQ(run(out, flat, p, one, ids.data()), 0u);
        for (int i = 0; i < w * h; ++i) ASSERT_EQ(out[i], ids[i] == 0.0f ? terrain[i] * factor : terrain[i]) << i;
    }
}

// The cells a turned, scaled copy covers, against the footprint worked out
// in double: texel coordinates u = (cos dx + sin dy) / scale + w / 2 and
// v = (-sin dx + cos dy) / scale + h / 2 inside the stamp.
TEST_P(StampExport, ACopyCoversTheCellsOfItsTurnedFootprint) {
    const int w = 64, h = 56, sw = 20, sh = 9;
    stamp_set s;
    s.add(sw, sh, std::vector<float>(sw * sh, 1.0f));
    Parameters p = record(w, h);
    p.blend = HALDEN_STAMP_REPLACE;
    // The last: a huge copy centred far off the grid whose slanted edge
    // crosses it.
    const struct {
        float x, y, scale;
    } where[] = {{31.3f, 27.8f, 0.6f}, {31.3f, 27.8f, 1.7f}, {-99968.0f, 27.8f, 1e4f}};
    for (float rotation : {0.0f, 33.0f, 90.0f, 151.0f, 260.0f, -47.5f}) {
        for (const auto& [x, y, scale] : where) {
            SCOPED_TRACE(testing::Message() << "rotation " << rotation << ", scale " << scale);
            std::vector<Instance> one{at(x, y, 0, 1.0f, scale, rotation)};
            std::vector<float> out(w * h, 0.0f), ids(w * h);
            ASSERT_EQ(run(out, s, p, one, ids.data()), 0u);
            const double radians = double(rotation) * 3.14159265358979323846 / 180.0;
            const double c = std::cos(radians), sn = std::sin(radians);
            int inside = 0;
            for (int r = 0; r < h; ++r)
                for (int col = 0; col < w; ++col) {
                    const double dx = col + 0.5 - double(x), dy = r + 0.5 - double(y);
                    const double u = (c * dx + sn * dy) / scale + sw / 2.0, v = (-sn * dx + c * dy) / scale + sh / 2.0;
                    const double margin = std::min({u, sw - u, v, sh - v});
                    if (std::abs(margin) < 1e-3) continue;  // on the edge: either answer
                    inside += margin > 0;
                    ASSERT_EQ(ids[r * w + col], margin > 0 ? 0.0f : -1.0f) << r << ", " << col;
                }
            if (scale < 2.0f) {
                EXPECT_NEAR(inside, sw * sh * scale * scale, 0.2 * sw * sh * scale * scale);
            }
        }
    }
}

TEST_P(StampExport, SmallCopiesSampleTheMipLevelOfTheirSize) {
    const int w = 100, h = 100;
    stamp_set s;
    s.add(64, 48, std::vector<float>(64 * 48, 3.0f));
    std::vector<float> checker(64 * 64);
    for (int i = 0; i < 64 * 64; ++i) checker[i] = ((i % 64) + (i / 64)) % 2 ? 1.0f : -1.0f;
    s.add(64, 64, checker);
    Parameters p = record(w, h);
    p.blend = HALDEN_STAMP_REPLACE;
    // A constant stamp stays constant on every level, at every size.
    for (float scale : {0.01f, 0.07f, 0.26f, 0.5f, 1.0f}) {
        SCOPED_TRACE(scale);
        std::vector<Instance> one{at(50.3f, 49.6f, 0, 1.0f, scale, 33.0f)};
        std::vector<float> out(w * h, -5.0f), ids(w * h);
        ASSERT_EQ(run(out, s, p, one, ids.data()), 0u);
        int covered = 0;
        for (int i = 0; i < w * h; ++i) {
            ASSERT_EQ(out[i], ids[i] == 0.0f ? 3.0f : -5.0f) << i;
            covered += ids[i] == 0.0f;
        }
        EXPECT_NEAR(covered, 64.0 * 48.0 * scale * scale, 4.0 + 64.0 * scale * 3.0);
    }
    // An eighth-size checkerboard averages out instead of aliasing.
    std::vector<Instance> small{at(50.0f, 50.0f, 1, 1.0f, 0.125f)};
    std::vector<float> out(w * h, 0.0f);
    ASSERT_EQ(run(out, s, p, small), 0u);
    for (float v : out) EXPECT_LT(std::abs(v), 0.25f);
}

TEST_P(StampExport, BadRecordsAreRefusedNamingTheField) {
    const int w = 16, h = 12;
    stamp_set good;
    good.add(4, 4, random_cells(4, 4, 9));
    const std::vector<float> terrain = random_cells(w, h, 10);
    std::vector<float> out = terrain;
    std::vector<Instance> buffer(100, at(1.0f, 1.0f, 0));
    const auto refuse = [&](const Parameters& p, const halden_stamps* stamps, std::vector<Instance> given,
                            const char* field) {
        messages().clear();
        std::uint32_t n = std::uint32_t(given.size());
        const std::vector<Instance> before = given.empty() ? buffer : given;
        if (given.empty()) given = buffer;
        EXPECT_EQ(StampInstancer_Populate(queue, out.data(), stamps, nullptr, given.data(), &n, nullptr, &p,
                                          &capturing_callbacks()),
                  3u)
            << field;
        ASSERT_FALSE(messages().error.empty()) << field;
        EXPECT_NE(messages().error.back().find(field), std::string::npos) << messages().error.back();
        expect_same_bits(out, terrain);
        EXPECT_EQ(std::memcmp(given.data(), before.data(), given.size() * sizeof(Instance)), 0) << field;
    };
    const halden_stamps stamps = good.record();
    const Parameters ok = record(w, h);
    Parameters p = ok;
    refuse((p.width = 0, p), &stamps, {}, "width");
    p = ok;
    refuse((p.blend = 8, p), &stamps, {}, "blend");
    p = ok;
    refuse((p.filter = 2, p), &stamps, {}, "filter");
    p = ok;
    refuse((p.height_mode = -1, p), &stamps, {}, "height_mode");
    p = ok;
    refuse((p.opacity = 1.5f, p), &stamps, {}, "opacity");
    p = ok;
    refuse((p.falloff = NAN, p), &stamps, {}, "falloff");
    p = ok;
    refuse((p.blend = HALDEN_STAMP_SMOOTH_MAX, p.smoothness = 0.0f, p), &stamps, {}, "smoothness");
    p = ok;
    refuse((p.count = 0, p), &stamps, {}, "count");
    p = ok;
    refuse((p.spacing = -1.0f, p), &stamps, {}, "spacing");
    p = ok;
    refuse((p.spacing = 1e-3f, p), &stamps, {}, "spacing");
    p = ok;
    refuse((p.scale_min = 0.0f, p), &stamps, {}, "scale_min");
    p = ok;
    refuse((p.scale_max = 0.25f, p), &stamps, {}, "scale_min must not exceed scale_max");
    p = ok;
    refuse((p.rotation_max = INFINITY, p), &stamps, {}, "rotation_max");
    p = ok;
    refuse((p.slope_min = NAN, p), &stamps, {}, "slope_min");
    p = ok;
    refuse((p.elevation_min = 2.0f, p.elevation_max = 1.0f, p), &stamps, {}, "elevation_min");

    refuse(ok, nullptr, {}, "null stamp record");
    halden_stamps bad = stamps;
    refuse(ok, &(bad.count = 0, bad), {}, "stamps.count");
    bad = stamps;
    refuse(ok, &(bad.atlas = nullptr, bad), {}, "stamps.atlas");
    bad = stamps;
    refuse(ok, &(bad.atlas_size = 15, bad), {}, "stamps.entries[0].offset");
    stamp_set wrong = good;
    wrong.entries[0].width = 0;
    bad = wrong.record();
    refuse(ok, &bad, {}, "stamps.entries[0].width");
    wrong = good;
    wrong.atlas[5] = NAN;
    bad = wrong.record();
    refuse(ok, &bad, {}, "non-finite texel in stamp 0");

    Instance in = at(3.0f, 3.0f, 0);
    refuse(ok, &stamps, {at(3.0f, 3.0f, 0), (in.scale = 0.0f, in)}, "instances[1].scale");
    in = at(3.0f, 3.0f, 0);
    refuse(ok, &stamps, {(in.stamp = 1, in)}, "instances[0].stamp");
    in = at(3.0f, 3.0f, 0);
    refuse(ok, &stamps, {(in.x = NAN, in)}, "instances[0].x");
    in = at(3.0f, 3.0f, 0);
    refuse(ok, &stamps, {(in.rotation = INFINITY, in)}, "instances[0].rotation");

    // Null arguments.
    std::uint32_t n = 2;
    EXPECT_EQ(StampInstancer_Populate(queue, out.data(), &stamps, nullptr, nullptr, &n, nullptr, &ok, nullptr), 3u);
    EXPECT_EQ(StampInstancer_Populate(queue, nullptr, &stamps, nullptr, nullptr, nullptr, nullptr, &ok, nullptr), 3u);
    EXPECT_EQ(StampInstancer_Populate(queue, out.data(), &stamps, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
              3u);
    EXPECT_EQ(n, 2u);
    expect_same_bits(out, terrain);
    // Without an instance array the placement still runs.
    EXPECT_EQ(StampInstancer_Populate(queue, out.data(), &stamps, nullptr, nullptr, nullptr, nullptr, &ok, nullptr),
              0u);
    EXPECT_NE(first_difference(out, terrain), -1);
}

HALDEN_INSTANTIATE_ON_DEVICES(StampExport);

TEST(StampDevices, CpuAndCudaAgree) {
    const std::string cuda = first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int w = 301, h = 207;
    stamp_set s;
    s.add(33, 17, random_cells(33, 17, 11));
    s.add(64, 64, random_cells(64, 64, 12));
    s.add(5, 9, random_cells(5, 9, 13));
    const std::vector<float> terrain = random_cells(w, h, 14);
    std::vector<float> density(terrain.size());
    for (std::size_t i = 0; i < density.size(); ++i) density[i] = float(i % 13) / 12.0f;
    const auto on = [&](const std::string& key, int blend, int filter) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        Parameters p = record(w, h);
        p.count = 400, p.spacing = blend % 2 ? 4.0f : 0.0f, p.blend = blend, p.filter = filter, p.falloff = 0.3f;
        p.opacity = 0.8f, p.height_min = -2.0f, p.height_max = 3.0f, p.scale_min = 0.05f, p.scale_max = 4.0f;
        p.height_mode = blend % 2 ? HALDEN_STAMP_RELATIVE : HALDEN_STAMP_ABSOLUTE;
        std::vector<float> out = terrain, ids(terrain.size());
        std::vector<Instance> placed(p.count);
        std::uint32_t n = 0;
        const halden_stamps stamps = s.record();
        EXPECT_EQ(
            StampInstancer_Populate(q, out.data(), &stamps, density.data(), placed.data(), &n, ids.data(), &p, nullptr),
            0u);
        DestroySyclQueue(q);
        out.insert(out.end(), ids.begin(), ids.end());
        return out;
    };
    for (int blend = HALDEN_STAMP_REPLACE; blend <= HALDEN_STAMP_MULTIPLY; ++blend)
        for (int filter : {HALDEN_STAMP_BILINEAR, HALDEN_STAMP_BICUBIC}) {
            SCOPED_TRACE(testing::Message() << "blend " << blend << ", filter " << filter);
            expect_same_bits(on(cuda, blend, filter), on("cpu", blend, filter));
        }
}

}  // namespace
