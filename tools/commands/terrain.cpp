// SPDX-License-Identifier: Apache-2.0
#include "terrain.hpp"

#include <algorithm>

namespace {

// A 32-bit xorshift generator: tiny and fully specified, so the terrain is
// the same on every machine and every run.
class Xorshift32 {
public:
    explicit Xorshift32(uint32_t seed) : state_(seed != 0 ? seed : 0xA2351342u) {}

    // Uniform in [0, 1).
    double uniform() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        return static_cast<uint32_t>(state_ * 0x2545F381u - 1u) * 0x1p-32;
    }

private:
    uint32_t state_;
};

constexpr uint32_t kSeed = 0x48A1D3E5u;

double smooth(double t) { return t * t * (3.0 - 2.0 * t); }

// Adds one octave of value noise: random values on a lattice of the given
// period, blended with a smoothed bilinear weight.
void add_octave(std::vector<double>& heights, uint32_t size, uint32_t period, double amplitude, Xorshift32& rng) {
    const size_t lattice = size / period + 2;
    std::vector<double> knots(lattice * lattice);
    for (double& k : knots) k = rng.uniform();
    for (uint32_t y = 0; y < size; ++y) {
        const size_t ky = y / period;
        const double ty = smooth(static_cast<double>(y % period) / period);
        for (uint32_t x = 0; x < size; ++x) {
            const size_t kx = x / period;
            const double tx = smooth(static_cast<double>(x % period) / period);
            const double* row = &knots[ky * lattice + kx];
            const double top = row[0] + (row[1] - row[0]) * tx;
            const double bottom = row[lattice] + (row[lattice + 1] - row[lattice]) * tx;
            heights[size_t{y} * size + x] += amplitude * (top + (bottom - top) * ty);
        }
    }
}

}  // namespace

Grid make_terrain(uint32_t size) {
    Xorshift32 rng(kSeed);
    std::vector<double> heights(size_t{size} * size, 0.0);
    double amplitude = 1.0;
    for (uint32_t period = std::max(size / 4, 1u), octave = 0; period >= 1 && octave < 8; period /= 2, ++octave) {
        add_octave(heights, size, period, amplitude, rng);
        amplitude *= 0.5;
    }

    // Stretched to 0..1000 m: summed octaves crowd around the middle.
    const auto [low, high] = std::minmax_element(heights.begin(), heights.end());
    const double scale = *high > *low ? 1000.0 / (*high - *low) : 0.0;
    Grid grid;
    grid.width = grid.height = size;
    grid.cells.resize(heights.size());
    for (size_t i = 0; i < heights.size(); ++i) grid.cells[i] = static_cast<float>((heights[i] - *low) * scale);

    // About one cell in a thousand becomes a spike or pit of 150 to 500 m:
    // the outliers the median filter is there to remove.
    const size_t outliers = std::max<size_t>(1, grid.cells.size() / 1000);
    for (size_t i = 0; i < outliers; ++i) {
        const auto cell = static_cast<size_t>(rng.uniform() * static_cast<double>(grid.cells.size()));
        const double sign = rng.uniform() < 0.5 ? -1.0 : 1.0;
        grid.cells[cell] += static_cast<float>(sign * (150.0 + 350.0 * rng.uniform()));
    }
    return grid;
}
