// SPDX-License-Identifier: Apache-2.0
// Order-independent accumulation and counter-based draws, on each back-end:
// fixed-point sums equal the exact sum of their rounded terms whatever the
// order, key maxima and minima are the float extremes, and a winner is the
// greatest value with the greatest id among equals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "compute/compute.hpp"
#include "core/accumulate.hpp"
#include "core/random.hpp"
#include "support.hpp"

namespace {

using halden::compute::range;
using halden::compute::usm_ptr;
using halden::core::fixed_point;

class Accumulate : public halden::test::BackendTest {};

template <class T>
usm_ptr<T, 1> device_copy(halden::compute::queue& q, const std::vector<T>& host) {
    usm_ptr<T, 1> d(q, {host.size()}, "test values");
    d.copy_from_host(host.data());
    return d;
}

template <class T>
T read_one(const usm_ptr<T, 1>& d) {
    T v{};
    d.copy_to_host(&v);
    return v;
}

TEST(FixedPoint, RoundsOnceToNearestAndFlagsOverflow) {
    std::uint32_t overflow = 0;
    const fixed_point half{1};
    EXPECT_EQ(half.encode(0.75f, &overflow), 2);  // 1.5 units: ties away from zero
    EXPECT_EQ(half.encode(-0.75f, &overflow), -2);
    EXPECT_EQ(half.encode(0.7f, &overflow), 1);
    const fixed_point fine{24};
    EXPECT_EQ(fine.encode(0x1p-26f, &overflow), 0);
    EXPECT_EQ(fine.encode(0x1p-25f, &overflow), 1);
    EXPECT_EQ(fine.encode(-3.0f, &overflow), -3 * (1 << 24));
    EXPECT_EQ(overflow, 0u);
    EXPECT_EQ(fine.decode(fine.encode(1234.5f, &overflow)), 1234.5f);
    // 2^62 units is the limit: 2^38 at 2^-24 overflows, and NaN does.
    fine.encode(0x1p38f, &overflow);
    EXPECT_EQ(overflow, 1u);
    overflow = 0;
    fine.encode(std::numeric_limits<float>::quiet_NaN(), &overflow);
    EXPECT_EQ(overflow, 1u);
    overflow = 0;
    EXPECT_GT(fine.encode(0x1p37f, &overflow), 0);
    EXPECT_EQ(overflow, 0u);
}

TEST_P(Accumulate, SumsAreExactWhateverTheOrder) {
    // Terms from 1e-6 to 1e4 of both signs: float addition would lose the
    // small ones in an order-dependent way.
    const std::size_t n = 200000;
    std::vector<float> terms(n);
    for (std::size_t i = 0; i < n; ++i) {
        const float u = halden::uniform_f(halden::counter_state(7, std::uint32_t(i), 0));
        const float mag = std::pow(10.0f, u * 10.0f - 6.0f);
        terms[i] = (i % 3 == 0) ? -mag : mag;
    }
    const fixed_point fp{24};
    std::int64_t want = 0;
    std::uint32_t host_overflow = 0;
    for (float t : terms) want += fp.encode(t, &host_overflow);
    ASSERT_EQ(host_overflow, 0u);

    auto d_terms = device_copy(*q, terms);
    for (bool reversed : {false, true}) {
        auto d_total = device_copy(*q, std::vector<std::int64_t>{0});
        auto d_overflow = device_copy(*q, std::vector<std::uint32_t>{0});
        const float* t = d_terms.get();
        std::int64_t* total = d_total.get();
        std::uint32_t* overflow = d_overflow.get();
        q->parallel_for(range<1>{n}, HALDEN_KERNEL(std::size_t i) {
            halden::core::accumulate(total, t[reversed ? n - 1 - i : i], fp, overflow);
        });
        q->wait_and_throw();
        EXPECT_EQ(read_one(d_total), want) << (reversed ? "reversed" : "forward");
        EXPECT_EQ(read_one(d_overflow), 0u);
    }
    EXPECT_EQ(fp.decode(want), float(want) * 0x1p-24f);
}

TEST_P(Accumulate, KeyExtremesAndWinners) {
    std::vector<float> values = halden::test::random_cells(300, 100, 5);
    values[17] = -0.0f;
    values[18] = 0.0f;
    values[123] = 250.0f;  // the maximum, twice: the greater id wins
    values[29876] = 250.0f;
    values[4000] = -250.0f;
    const std::size_t n = values.size();
    auto d_values = device_copy(*q, values);
    auto d_max = device_copy(*q, std::vector<std::uint32_t>{halden::ordered_key(-INFINITY)});
    auto d_min = device_copy(*q, std::vector<std::uint32_t>{halden::ordered_key(INFINITY)});
    auto d_winner = device_copy(*q, std::vector<std::uint64_t>{0});
    const float* v = d_values.get();
    std::uint32_t *mx = d_max.get(), *mn = d_min.get();
    std::uint64_t* win = d_winner.get();
    q->parallel_for(range<1>{n}, HALDEN_KERNEL(std::size_t i) {
        halden::core::accumulate_max(mx, v[i]);
        halden::core::accumulate_min(mn, v[i]);
        halden::core::accumulate_winner(win, v[i], std::uint32_t(i));
    });
    q->wait_and_throw();
    EXPECT_EQ(halden::key_float(read_one(d_max)), 250.0f);
    EXPECT_EQ(halden::key_float(read_one(d_min)), -250.0f);
    const std::uint64_t w = read_one(d_winner);
    EXPECT_EQ(halden::core::winner_value(w), 250.0f);
    EXPECT_EQ(halden::core::winner_id(w), 29876u);
    // -0 orders below +0.
    EXPECT_LT(halden::ordered_key(-0.0f), halden::ordered_key(0.0f));
}

HALDEN_INSTANTIATE_ON_BACKENDS(Accumulate);

TEST(CounterDraws, DependOnTheirCountersAloneAndLookUniform) {
    EXPECT_EQ(halden::counter_state(1, 2, 3), halden::counter_state(1, 2, 3));
    EXPECT_NE(halden::counter_state(1, 2, 3), halden::counter_state(2, 2, 3));
    EXPECT_NE(halden::counter_state(1, 2, 3), halden::counter_state(1, 3, 3));
    EXPECT_NE(halden::counter_state(1, 2, 3), halden::counter_state(1, 2, 4));
    // Neighbouring indices and rounds: 16 buckets of 2^16 draws each stay
    // within a loose chi-square bound, and successive draws do not correlate.
    for (std::uint32_t round : {0u, 1u, 2u}) {
        std::vector<double> buckets(16, 0.0);
        double sum = 0.0, product = 0.0;
        float previous = 0.5f;
        const std::uint32_t n = 1u << 20;
        for (std::uint32_t i = 0; i < n; ++i) {
            const float u = halden::uniform_f(halden::counter_state(42, i, round));
            ASSERT_GE(u, 0.0f);
            ASSERT_LT(u, 1.0f);
            buckets[std::size_t(u * 16.0f)] += 1.0;
            sum += u;
            product += (double(u) - 0.5) * (double(previous) - 0.5);
            previous = u;
        }
        double chi2 = 0.0;
        for (double b : buckets) chi2 += (b - n / 16.0) * (b - n / 16.0) / (n / 16.0);
        EXPECT_LT(chi2, 50.0) << "round " << round;
        EXPECT_NEAR(sum / n, 0.5, 0.002);
        EXPECT_NEAR(product / n, 0.0, 0.001);
    }
}

}  // namespace
