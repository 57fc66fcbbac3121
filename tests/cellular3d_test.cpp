// SPDX-License-Identifier: Apache-2.0
// Cellular noise: the regular lattice worked out by hand, the invariants that
// catch a search cut short (F1 <= F2, distances 1-Lipschitz), tiling bit for
// bit, bad records, and agreement between devices.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "modules/cellular3d/cellular3d.hpp"
#include "support.hpp"

namespace {

using namespace halden::test;

cellular3d::Parameters record(int w, int h) {
    return {w, h,    16.0f, 0.0f, 1.0f, 1,    1.0f, HALDEN_CELLULAR3D_EUCLIDEAN, 3.0f, HALDEN_CELLULAR3D_F1, 0.05f,
            1, 2.0f, 0.5f,  0,    1.0f, 0.0f, 0};
}

const char* metric_name(int m) {
    static const char* names[] = {"Euclidean", "squared", "Manhattan", "Chebyshev", "Minkowski"};
    return names[m];
}

// The norm of a displacement under each metric but the squared one.
double norm(int metric, double dx, double dy, double dz, double e) {
    dx = std::abs(dx), dy = std::abs(dy), dz = std::abs(dz);
    switch (metric) {
        case HALDEN_CELLULAR3D_MANHATTAN:
            return dx + dy + dz;
        case HALDEN_CELLULAR3D_CHEBYSHEV:
            return std::max({dx, dy, dz});
        case HALDEN_CELLULAR3D_MINKOWSKI:
            return std::pow(std::pow(dx, e) + std::pow(dy, e) + std::pow(dz, e), 1.0 / e);
        default:
            return std::sqrt(dx * dx + dy * dy + dz * dz);
    }
}

class CellularExport : public DeviceTest {
protected:
    std::vector<float> render(const cellular3d::Parameters& p, const float* z = nullptr, std::uint32_t want = 0) {
        std::vector<float> out(std::size_t(p.width) * p.height, -7.0f);
        EXPECT_EQ(Cellular3D_Render(queue, out.data(), z, &p, &capturing_callbacks()), want);
        return out;
    }
};

// jitter 0 puts every feature at its cell's centre. Four samples per cell
// along x and y (at 1/8, 3/8, 5/8, 7/8) and z = 1/4 make every offset a
// multiple of 1/8, so the sums below are exact and a root correctly rounded:
// the expected bits follow from the centres alone.
TEST_P(CellularExport, ARegularLatticeGivesTheDistancesToTheCentres) {
    const int w = 8, h = 8;
    cellular3d::Parameters p = record(w, h);
    p.frequency = 2.0f;  // 4 cells per feature
    p.jitter = 0.0f;
    p.z = 1.0f;  // 1/4 of a feature
    const auto expected = [&](int metric, int result, int x, int y) {
        const double u[3] = {(x + 0.5) / 4.0, (y + 0.5) / 4.0, 0.25};
        std::vector<double> d;
        for (int i = -2; i <= 2; ++i)
            for (int j = -2; j <= 2; ++j)
                for (int k = -2; k <= 2; ++k) {
                    const double c[3] = {std::floor(u[0]) + i + 0.5, std::floor(u[1]) + j + 0.5,
                                         std::floor(u[2]) + k + 0.5};
                    const double dx = std::abs(c[0] - u[0]), dy = std::abs(c[1] - u[1]), dz = std::abs(c[2] - u[2]);
                    if (metric == HALDEN_CELLULAR3D_MANHATTAN)
                        d.push_back(dx + dy + dz);
                    else if (metric == HALDEN_CELLULAR3D_CHEBYSHEV)
                        d.push_back(std::max({dx, dy, dz}));
                    else
                        d.push_back(dx * dx + dy * dy + dz * dz);  // exact in double and in float
                }
        std::sort(d.begin(), d.end());
        const auto dist = [&](double key) {
            return metric == HALDEN_CELLULAR3D_EUCLIDEAN ? std::sqrt(float(key)) : float(key);
        };
        if (result == HALDEN_CELLULAR3D_F1) return dist(d[0]);
        if (result == HALDEN_CELLULAR3D_F2) return dist(d[1]);
        // The cells of a cubic lattice are its cubes: the nearest border is
        // the nearest face.
        double edge = 0.5;
        for (double v : u) edge = std::min(edge, 0.5 - std::abs(v - std::floor(v) - 0.5));
        return float(edge);
    };
    for (int metric : {HALDEN_CELLULAR3D_EUCLIDEAN, HALDEN_CELLULAR3D_SQUARED, HALDEN_CELLULAR3D_MANHATTAN,
                       HALDEN_CELLULAR3D_CHEBYSHEV})
        for (int result : {HALDEN_CELLULAR3D_F1, HALDEN_CELLULAR3D_F2, HALDEN_CELLULAR3D_EDGE}) {
            if (result == HALDEN_CELLULAR3D_EDGE && metric != HALDEN_CELLULAR3D_EUCLIDEAN) continue;
            SCOPED_TRACE(std::string(metric_name(metric)) + " result " + std::to_string(result));
            p.metric = metric;
            p.result = result;
            const std::vector<float> out = render(p);
            std::vector<float> want(out.size());
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) want[std::size_t(y) * w + x] = expected(metric, result, x, y);
            expect_same_bits(out, want);
        }
    // Every sample of a cell is nearest its own centre: one value per cell,
    // and neighbouring cells differ.
    p.metric = HALDEN_CELLULAR3D_EUCLIDEAN;
    p.result = HALDEN_CELLULAR3D_CELL_VALUE;
    const std::vector<float> cells = render(p);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            EXPECT_EQ(cells[std::size_t(y) * w + x], cells[std::size_t(y / 4 * 4) * w + x / 4 * 4]) << x << "," << y;
            EXPECT_GE(cells[std::size_t(y) * w + x], 0.0f);
            EXPECT_LT(cells[std::size_t(y) * w + x], 1.0f);
        }
    EXPECT_NE(cells[0], cells[4]);
    // Scale and offset apply last; octaves add gain-weighted layers.
    p.result = HALDEN_CELLULAR3D_F1;
    const std::vector<float> f1 = render(p);
    p.scale = -2.0f;
    p.offset = 0.5f;
    const std::vector<float> scaled = render(p);
    for (std::size_t i = 0; i < f1.size(); ++i) EXPECT_EQ(scaled[i], f1[i] * -2.0f + 0.5f) << i;
}

// A sample moved by delta moves every distance by at most |delta| under the
// same norm; a nearest or second-nearest feature missed by a search cut short
// shows up as a jump at a lattice cell's border. Jitter 1 makes far features
// matter as often as they can.
TEST_P(CellularExport, DistancesAreOrderedAndLipschitzUnderEveryMetric) {
    const int w = 192, h = 160;
    cellular3d::Parameters p = record(w, h);
    p.frequency = 6.0f;  // 32 cells per feature
    p.seed = 77;
    p.z_scale = 0.5f;
    std::vector<float> z(std::size_t(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) z[std::size_t(y) * w + x] = 40.0f * std::sin(0.03f * x) + 0.2f * float(y);
    const double step = 6.0 / w;
    for (int metric : {HALDEN_CELLULAR3D_EUCLIDEAN, HALDEN_CELLULAR3D_MANHATTAN, HALDEN_CELLULAR3D_CHEBYSHEV,
                       HALDEN_CELLULAR3D_MINKOWSKI})
        for (bool with_z : {false, true}) {
            SCOPED_TRACE(std::string(metric_name(metric)) + (with_z ? " on a z grid" : " flat"));
            p.metric = metric;
            p.result = HALDEN_CELLULAR3D_F1;
            const std::vector<float> f1 = render(p, with_z ? z.data() : nullptr);
            p.result = HALDEN_CELLULAR3D_F2;
            const std::vector<float> f2 = render(p, with_z ? z.data() : nullptr);
            // The distance to the nearest cell border is 1-Lipschitz too.
            p.result = HALDEN_CELLULAR3D_EDGE;
            const std::vector<float> edge =
                metric == HALDEN_CELLULAR3D_EUCLIDEAN ? render(p, with_z ? z.data() : nullptr) : f1;
            const auto zs = [&](std::size_t i) { return with_z ? double(z[i]) * p.z_scale * step : 0.0; };
            int failures = 0;
            for (int y = 0; y < h && failures < 5; ++y)
                for (int x = 0; x < w && failures < 5; ++x) {
                    const std::size_t i = std::size_t(y) * w + x;
                    if (!(f1[i] <= f2[i])) ++failures, ADD_FAILURE() << "F1 > F2 at " << x << "," << y;
                    for (const auto& [nx, ny] : {std::pair{x + 1, y}, std::pair{x, y + 1}}) {
                        if (nx >= w || ny >= h) continue;
                        const std::size_t j = std::size_t(ny) * w + nx;
                        const double limit =
                            norm(metric, (nx - x) * step, (ny - y) * step, zs(j) - zs(i), p.exponent) * (1.0 + 1e-4) +
                            1e-5;
                        for (const std::vector<float>* f : {&f1, &f2, &edge})
                            if (std::abs(double((*f)[j]) - (*f)[i]) > limit)
                                ++failures, ADD_FAILURE()
                                                << (f == &f1   ? "F1"
                                                    : f == &f2 ? "F2"
                                                               : "edge")
                                                << " jumps by " << (*f)[j] - (*f)[i] << " between " << x << "," << y
                                                << " and " << nx << "," << ny << " (limit " << limit << ")";
                    }
                }
        }
}

// The crack result is F2 - F1 itself; the edge distance and smooth F1 stay
// within their bounds in F1 and F2.
TEST_P(CellularExport, EdgeSmoothAndCombinedResultsAgreeWithF1AndF2) {
    const int w = 96, h = 64;
    cellular3d::Parameters p = record(w, h);
    p.frequency = 5.0f;
    p.octaves = 2;
    const std::vector<float> f1 = render(p);
    p.result = HALDEN_CELLULAR3D_F2;
    const std::vector<float> f2 = render(p);
    p.result = HALDEN_CELLULAR3D_EDGE;
    const std::vector<float> edge = render(p);
    p.result = HALDEN_CELLULAR3D_SMOOTH_F1;
    const std::vector<float> smooth = render(p);
    p.octaves = 1;
    p.result = HALDEN_CELLULAR3D_F1;
    const std::vector<float> a = render(p);
    p.result = HALDEN_CELLULAR3D_F2;
    const std::vector<float> b = render(p);
    p.result = HALDEN_CELLULAR3D_F2_MINUS_F1;
    const std::vector<float> crack = render(p);
    p.result = HALDEN_CELLULAR3D_EDGE;
    const std::vector<float> e1 = render(p);
    for (std::size_t i = 0; i < f1.size(); ++i) {
        EXPECT_EQ(crack[i], b[i] - a[i]) << i;
        // A feature d away has its bisector with the nearest at least
        // (d - F1) / 2 away, and the second nearest's at most (F1 + F2) / 2.
        EXPECT_GE(e1[i], 0.5f * (b[i] - a[i]) - 1e-5f) << i;
        EXPECT_LE(e1[i], 0.5f * (a[i] + b[i]) + 1e-5f) << i;
        // Smooth F1 lies below F1 by at most smoothness x log2(features
        // within reach), here far less than one lattice unit.
        EXPECT_LE(smooth[i], f1[i] + 1e-6f) << i;
        EXPECT_GT(smooth[i], f1[i] - 0.05f * 1.5f * 12.0f) << i;
        EXPECT_GE(edge[i], 0.0f) << i;
    }
}

// With a period every octave's lattice wraps, and the sample positions are
// worked out from cell indices wrapped first: the result repeats bit for bit.
TEST_P(CellularExport, APeriodTilesBitForBit) {
    const int w = 100, h = 90, tile = 40;  // 2 features x 100 cells / 5 features
    cellular3d::Parameters p = record(w, h);
    p.frequency = 5.0f;
    p.period = 2;
    p.octaves = 3;
    p.z = 3.0f;
    for (int metric : {HALDEN_CELLULAR3D_EUCLIDEAN, HALDEN_CELLULAR3D_CHEBYSHEV, HALDEN_CELLULAR3D_MINKOWSKI})
        for (int result : {HALDEN_CELLULAR3D_F1, HALDEN_CELLULAR3D_F2_MINUS_F1, HALDEN_CELLULAR3D_CELL_VALUE,
                           HALDEN_CELLULAR3D_EDGE, HALDEN_CELLULAR3D_SMOOTH_F1}) {
            if (result == HALDEN_CELLULAR3D_EDGE && metric != HALDEN_CELLULAR3D_EUCLIDEAN) continue;
            SCOPED_TRACE(std::string(metric_name(metric)) + " result " + std::to_string(result));
            p.metric = metric;
            p.result = result;
            const std::vector<float> out = render(p);
            int failures = 0;
            for (int y = 0; y < h && failures < 5; ++y)
                for (int x = 0; x < w && failures < 5; ++x) {
                    const float v = out[std::size_t(y) * w + x];
                    if (x + tile < w && bits(out[std::size_t(y) * w + x + tile]) != bits(v))
                        ++failures, ADD_FAILURE() << "x period broken at " << x << "," << y;
                    if (y + tile < h && bits(out[std::size_t(y + tile) * w + x]) != bits(v))
                        ++failures, ADD_FAILURE() << "y period broken at " << x << "," << y;
                }
            // Not trivially periodic: the tile has structure.
            EXPECT_NE(out[0], out[tile / 2]);
        }
}

// A z grid holding one value everywhere is the record's z, bit for bit; a
// different z gives a different slice.
TEST_P(CellularExport, AConstantZGridIsTheRecordsZ) {
    const int w = 70, h = 33;
    cellular3d::Parameters p = record(w, h);
    p.z = 11.5f;
    p.octaves = 3;
    const std::vector<float> z(std::size_t(w) * h, 11.5f);
    expect_same_bits(render(p, z.data()), render(p));
    p.z = 30.0f;
    EXPECT_NE(first_difference(render(p, z.data()), render(p)), -1);
}

TEST_P(CellularExport, BadInputIsRefusedNamingTheFieldAndLeavesTheGridUnchanged) {
    const int w = 21, h = 13;
    std::vector<float> out(std::size_t(w) * h, 5.0f);
    const std::vector<float> untouched = out;
    const auto refuse = [&](const cellular3d::Parameters& p, const char* field, const float* z = nullptr) {
        messages().clear();
        EXPECT_EQ(Cellular3D_Render(queue, out.data(), z, &p, &capturing_callbacks()), 3u) << field;
        ASSERT_FALSE(messages().error.empty()) << field;
        EXPECT_NE(messages().error.back().find(field), std::string::npos) << messages().error.back();
        expect_same_bits(out, untouched);
    };
    cellular3d::Parameters p = record(w, h);
    refuse((p.width = 0, p), "width");
    p = record(w, h);
    for (float v : {0.0f, -1.0f, NAN, INFINITY, 1e30f}) refuse((p.frequency = v, p), "frequency");
    p = record(w, h);
    refuse((p.z = NAN, p), "z");
    p = record(w, h);
    refuse((p.z_scale = INFINITY, p), "z_scale");
    p = record(w, h);
    refuse((p.z = 1e30f, p), "z");
    p = record(w, h);
    for (float v : {-0.1f, 1.5f, NAN}) refuse((p.jitter = v, p), "jitter");
    p = record(w, h);
    for (int v : {-1, 5}) refuse((p.metric = v, p), "metric");
    p = record(w, h);
    p.metric = HALDEN_CELLULAR3D_MINKOWSKI;
    for (float v : {0.5f, 65.0f, NAN}) refuse((p.exponent = v, p), "exponent");
    p = record(w, h);
    for (int v : {-1, 7}) refuse((p.result = v, p), "result");
    p = record(w, h);
    p.result = HALDEN_CELLULAR3D_EDGE;
    refuse((p.metric = HALDEN_CELLULAR3D_MANHATTAN, p), "metric");
    p = record(w, h);
    p.result = HALDEN_CELLULAR3D_SMOOTH_F1;
    for (float v : {0.0f, 0.5f}) refuse((p.smoothness = v, p), "smoothness");
    p = record(w, h);
    for (int v : {0, 17}) refuse((p.octaves = v, p), "octaves");
    p = record(w, h);
    for (float v : {0.0f, 17.0f}) refuse((p.lacunarity = v, p), "lacunarity");
    p = record(w, h);
    refuse((p.gain = NAN, p), "gain");
    p = record(w, h);
    refuse((p.period = -1, p), "period");
    refuse((p.period = 3, p), "period");  // 3 x 21 / 16 cells
    p = record(w, h);
    p.frequency = 3.0f;
    p.period = 1;
    p.lacunarity = 2.5f;
    refuse((p.octaves = 2, p), "lacunarity");
    p = record(w, h);
    refuse((p.scale = INFINITY, p), "scale");
    p = record(w, h);
    refuse((p.offset = NAN, p), "offset");
    p = record(w, h);
    std::vector<float> z(out.size(), 1.0f);
    z[17] = NAN;
    refuse(p, "z grid", z.data());
    z[17] = 3e38f;
    refuse(p, "z grid", z.data());
    EXPECT_EQ(Cellular3D_Render(queue, nullptr, nullptr, &p, nullptr), 3u);
    EXPECT_EQ(Cellular3D_Render(queue, out.data(), nullptr, nullptr, nullptr), 3u);
    EXPECT_EQ(Cellular3D_Render(nullptr, out.data(), nullptr, &p, nullptr), 3u);

    // A cancel leaves the grid unchanged; a full run reports 100 percent.
    halden_callbacks cb = capturing_callbacks();
    cb.cancel = []() -> int32_t { return 1; };
    EXPECT_EQ(Cellular3D_Render(queue, out.data(), nullptr, &p, &cb), 3u);
    expect_same_bits(out, untouched);
    messages().clear();
    EXPECT_EQ(Cellular3D_Render(queue, out.data(), nullptr, &p, &capturing_callbacks()), 0u);
    ASSERT_FALSE(messages().progress.empty());
    EXPECT_FLOAT_EQ(messages().progress.back(), 100.0f);
}

HALDEN_INSTANTIATE_ON_DEVICES(CellularExport);

TEST(CellularDevices, CpuAndCudaAgree) {
    const std::string cuda = first_cuda_key();
    if (cuda.empty()) GTEST_SKIP() << "no CUDA device listed";
    const int w = 263, h = 141;
    std::vector<float> z(std::size_t(w) * h);
    for (std::size_t i = 0; i < z.size(); ++i) z[i] = 30.0f * std::sin(0.05f * float(i % w)) + 0.1f * float(i / w);
    auto on = [&](const std::string& key) {
        halden_queue* q = CreateSyclQueue(key.c_str(), nullptr);
        std::vector<float> all;
        for (int metric = 0; metric <= HALDEN_CELLULAR3D_MINKOWSKI; ++metric)
            for (int result = 0; result <= HALDEN_CELLULAR3D_SMOOTH_F1; ++result) {
                if (result == HALDEN_CELLULAR3D_EDGE && metric != HALDEN_CELLULAR3D_EUCLIDEAN) continue;
                cellular3d::Parameters p = record(w, h);
                p.metric = metric;
                p.result = result;
                p.octaves = 3;
                p.z_scale = 0.25f;
                p.seed = std::uint32_t(metric * 10 + result);
                std::vector<float> out(z.size());
                EXPECT_EQ(Cellular3D_Render(q, out.data(), result % 2 ? z.data() : nullptr, &p, nullptr), 0u);
                all.insert(all.end(), out.begin(), out.end());
            }
        DestroySyclQueue(q);
        return all;
    };
    expect_same_bits(on(cuda), on("cpu"));
}

}  // namespace
