// SPDX-License-Identifier: Apache-2.0
#include "modules/median_filter/median_filter.hpp"

#include <algorithm>
#include <array>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <queue>
#include <stdexcept>
#include <utility>

#include "core/math.hpp"

namespace median_filter {

using halden::compute::buffer;
using halden::compute::group_item;
using halden::compute::nd_range;
using halden::compute::queue;
using halden::compute::range;

namespace detail {
namespace {

// Outputs per tile of the host network, and the most slots its program may
// use (the host kernel keeps them on its stack).
constexpr int network_tile = 8;
constexpr int max_slots = 1024;

// Builds the network of one tile. Wires are node ids: the region's values and
// comparator results. `above` stands for a value above all others, which pads
// the lists of Batcher's merge to powers of two; comparisons with it cost
// nothing.
class network_builder {
public:
    network_builder(int radius, int width, int height)
        : r_(radius), width_(width), height_(height), span_(width + 2 * radius),
          cell_node_(std::size_t(span_) * (height + 2 * radius), -1) {
        for (int dy = -r_; dy <= r_; ++dy)
            for (int dx = -r_; dx <= r_; ++dx)
                if (in_disc(dx, dy, r_)) disc_.emplace_back(dx, dy);
        n_ = int(disc_.size());
        m_ = n_ / 2;
    }

    tile_network build() {
        std::vector<std::pair<int, int>> all;
        for (int i = 0; i < height_; ++i)
            for (int j = 0; j < width_; ++j) all.emplace_back(i, j);
        results_.assign(all.size(), {});
        // The values every window holds, sorted, less those that cannot be
        // a middle value whatever the other values are.
        const std::vector<int> common = shared_cells(all);
        std::vector<int> kept = sort(wires_of(common));
        int below = 0, beyond = 0;
        trim(kept, below, beyond);
        descend(all, std::move(kept), common, below, beyond);
        return emit();
    }

private:
    static constexpr int above = -1;

    struct comparator {
        int a, b;      // operand nodes
        int lo, hi;    // result nodes
    };

    int input(int cell) {
        int& node = cell_node_[std::size_t(cell)];
        if (node < 0) {
            node = nodes_++;
            input_cells_.push_back(cell);
            input_nodes_.push_back(node);
        }
        return node;
    }

    std::pair<int, int> compare(int a, int b) {
        if (a == above) return {b, a};
        if (b == above) return {a, b};
        comparators_.push_back({a, b, nodes_, nodes_ + 1});
        nodes_ += 2;
        return {nodes_ - 2, nodes_ - 1};
    }

    void compare_in_place(std::vector<int>& v, std::size_t i, std::size_t j) {
        const auto [lo, hi] = compare(v[i], v[j]);
        v[i] = lo;
        v[j] = hi;
    }

    // Batcher's odd-even merge of the two sorted halves of v[lo, lo + n) at stride r.
    void odd_even_merge(std::vector<int>& v, std::size_t lo, std::size_t n, std::size_t r) {
        const std::size_t step = r * 2;
        if (step < n) {
            odd_even_merge(v, lo, n, step);
            odd_even_merge(v, lo + r, n, step);
            for (std::size_t i = lo + r; i + r < lo + n; i += step) compare_in_place(v, i, i + r);
        } else {
            compare_in_place(v, lo, lo + r);
        }
    }

    std::vector<int> merge(const std::vector<int>& a, const std::vector<int>& b) {
        if (a.empty()) return b;
        if (b.empty()) return a;
        std::size_t p = 1;
        while (p < a.size() || p < b.size()) p *= 2;
        std::vector<int> v(2 * p, above);
        std::copy(a.begin(), a.end(), v.begin());
        std::copy(b.begin(), b.end(), v.begin() + std::ptrdiff_t(p));
        odd_even_merge(v, 0, 2 * p, 1);
        v.erase(std::remove(v.begin(), v.end(), above), v.end());
        return v;
    }

    std::vector<int> sort(const std::vector<int>& v) {
        if (v.size() <= 1) return v;
        const auto half = v.begin() + std::ptrdiff_t(v.size() / 2);
        return merge(sort(std::vector<int>(v.begin(), half)), sort(std::vector<int>(half, v.end())));
    }

    // Region cells of output (i, j)'s window, ascending.
    std::vector<int> window(std::pair<int, int> o) const {
        std::vector<int> cells;
        for (const auto& [dx, dy] : disc_) cells.push_back((o.first + r_ + dy) * span_ + o.second + r_ + dx);
        return cells;
    }

    std::vector<int> shared_cells(const std::vector<std::pair<int, int>>& outputs) const {
        std::vector<int> common = window(outputs[0]);
        for (std::size_t k = 1; k < outputs.size(); ++k) {
            const std::vector<int> w = window(outputs[k]);
            std::vector<int> both;
            std::set_intersection(common.begin(), common.end(), w.begin(), w.end(), std::back_inserter(both));
            common = std::move(both);
        }
        return common;
    }

    std::vector<int> wires_of(const std::vector<int>& cells) {
        std::vector<int> w;
        for (int c : cells) w.push_back(input(c));
        return w;
    }

    // `kept` is sorted and holds values of the window(s) that all outputs of
    // the group share; `below` values known to lie under the middle ranks and
    // `beyond` known to lie over them were dropped before. A value at position
    // i of kept has at least i window values before it and at most
    // i + (values not in kept) ones: those that cannot reach ranks m - 1 ..
    // m + 1 go.
    void trim(std::vector<int>& kept, int& below, int& beyond) const {
        const int k0 = m_ - 1 - below, k2 = m_ + 1 - below;
        int length = int(kept.size());
        if (length > k2 + 1) {
            beyond += length - (k2 + 1);
            kept.resize(std::size_t(k2 + 1));
            length = k2 + 1;
        }
        const int rest = n_ - below - beyond - length;  // window values not in kept
        const int drop = k0 - rest;
        if (drop > 0) {
            kept.erase(kept.begin(), kept.begin() + drop);
            below += drop;
        }
    }

    // Ranks k0 .. k2 of the n values held in the sorted lists: merges the
    // shortest lists first, dropping what cannot reach those ranks as it goes
    // (as trim does; a list never empties, as k0 < n).
    std::vector<int> select(std::vector<std::vector<int>> lists, int n, int k0, int k2) {
        const auto prune = [&] {
            for (bool changed = true; changed;) {
                changed = false;
                for (std::vector<int>& l : lists) {
                    int length = int(l.size());
                    if (length > k2 + 1) {
                        n -= length - (k2 + 1);
                        l.resize(std::size_t(k2 + 1));
                        length = k2 + 1;
                        changed = true;
                    }
                    const int cut = k0 - (n - length);
                    if (cut > 0) {
                        l.erase(l.begin(), l.begin() + cut);
                        n -= cut;
                        k0 -= cut;
                        k2 -= cut;
                        changed = true;
                    }
                }
            }
        };
        lists.erase(std::remove_if(lists.begin(), lists.end(), [](const auto& l) { return l.empty(); }), lists.end());
        prune();
        while (lists.size() > 1) {
            std::stable_sort(lists.begin(), lists.end(),
                             [](const auto& a, const auto& b) { return a.size() < b.size(); });
            std::vector<int> merged = merge(lists[0], lists[1]);
            lists.erase(lists.begin(), lists.begin() + 2);
            lists.push_back(std::move(merged));
            prune();
        }
        if (lists.size() != 1 || k0 < 0 || k2 >= int(lists[0].size()))
            throw std::logic_error("median network: ranks lost");
        return std::vector<int>(lists[0].begin() + k0, lists[0].begin() + k2 + 1);
    }

    // Halves the group of outputs along its longer side; each half adds the
    // values its own outputs share to the kept list, down to single outputs.
    void descend(const std::vector<std::pair<int, int>>& outputs, std::vector<int> kept, const std::vector<int>& cells,
                 int below, int beyond) {
        if (outputs.size() == 1) {
            const std::vector<int> w = window(outputs[0]);
            std::vector<int> extra;
            std::set_difference(w.begin(), w.end(), cells.begin(), cells.end(), std::back_inserter(extra));
            results_[std::size_t(outputs[0].first * width_ + outputs[0].second)] =
                select({std::move(kept), sort(wires_of(extra))}, n_ - below - beyond, m_ - 1 - below, m_ + 1 - below);
            return;
        }
        std::vector<int> rows, cols;
        for (const auto& o : outputs) {
            rows.push_back(o.first);
            cols.push_back(o.second);
        }
        std::sort(rows.begin(), rows.end());
        rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
        std::sort(cols.begin(), cols.end());
        cols.erase(std::unique(cols.begin(), cols.end()), cols.end());
        const bool by_rows = rows.size() >= cols.size();
        const int middle = by_rows ? rows[rows.size() / 2] : cols[cols.size() / 2];
        std::vector<std::pair<int, int>> halves[2];
        for (const auto& o : outputs) halves[(by_rows ? o.first : o.second) >= middle].push_back(o);
        for (const auto& half : halves) {
            const std::vector<int> shared = shared_cells(half);
            std::vector<int> extra;
            std::set_difference(shared.begin(), shared.end(), cells.begin(), cells.end(), std::back_inserter(extra));
            std::vector<int> more = merge(kept, sort(wires_of(extra)));
            int b = below, e = beyond;
            trim(more, b, e);
            descend(half, std::move(more), shared, b, e);
        }
    }

    // Drops what no output depends on, orders the rest, then gives every live
    // node a slot, reusing a slot once its value has been read for the last
    // time.
    tile_network emit() const {
        const std::size_t count = comparators_.size();
        std::vector<char> live(std::size_t(nodes_), 0);
        for (const auto& out : results_)
            for (int node : out) live[std::size_t(node)] = 1;
        std::vector<char> needed(count, 0);
        for (std::size_t k = count; k-- > 0;) {
            const comparator& c = comparators_[k];
            if (!live[std::size_t(c.lo)] && !live[std::size_t(c.hi)]) continue;
            needed[k] = 1;
            live[std::size_t(c.a)] = live[std::size_t(c.b)] = 1;
        }
        const std::vector<std::size_t> order = schedule(needed);

        constexpr std::size_t never = ~std::size_t(0);
        std::vector<std::size_t> last_read(std::size_t(nodes_), 0);
        for (std::size_t t = 0; t < order.size(); ++t)
            last_read[std::size_t(comparators_[order[t]].a)] = last_read[std::size_t(comparators_[order[t]].b)] = t;
        for (const auto& out : results_)
            for (int node : out) last_read[std::size_t(node)] = never;

        tile_network net;
        net.radius = r_;
        net.width = width_;
        net.height = height_;
        std::vector<int> slot(std::size_t(nodes_), -1);
        for (std::size_t i = 0; i < input_nodes_.size(); ++i) slot[std::size_t(input_nodes_[i])] = input_cells_[i];
        int next = int(cell_node_.size());
        // Results nobody reads go to a slot of their own.
        const int discard = next++;
        // Region cells that no window holds are free from the start.
        std::vector<int> free;
        for (std::size_t c = cell_node_.size(); c-- > 0;)
            if (cell_node_[c] < 0 || !live[std::size_t(cell_node_[c])]) free.push_back(int(c));
        const auto take = [&] {
            if (free.empty()) return next++;
            const int s = free.back();
            free.pop_back();
            return s;
        };
        for (std::size_t t = 0; t < order.size(); ++t) {
            const comparator& c = comparators_[order[t]];
            const int sa = slot[std::size_t(c.a)], sb = slot[std::size_t(c.b)];
            if (last_read[std::size_t(c.a)] == t) free.push_back(sa);
            if (last_read[std::size_t(c.b)] == t) free.push_back(sb);
            const int lo = live[std::size_t(c.lo)] ? (slot[std::size_t(c.lo)] = take()) : discard;
            const int hi = live[std::size_t(c.hi)] ? (slot[std::size_t(c.hi)] = take()) : discard;
            for (int s : {lo, hi, sa, sb}) net.ops.push_back(std::uint16_t(s));
        }
        for (const auto& out : results_)
            for (int node : out) net.outputs.push_back(std::uint16_t(slot[std::size_t(node)]));
        net.slots = next;
        if (net.slots > max_slots) throw std::logic_error("median network: too many slots");
        return net;
    }

    // The comparators in build order, except that one whose operand was
    // computed fewer than `gap` comparators earlier waits while others are
    // ready: the program goes through memory, and a value read straight
    // after its store waits for it, so dependent comparators are spread out.
    std::vector<std::size_t> schedule(const std::vector<char>& needed) const {
        constexpr std::size_t gap = 16;
        const std::size_t count = comparators_.size();
        std::vector<std::vector<std::size_t>> readers{std::size_t(nodes_)};
        std::vector<int> waiting(count, 0);
        std::vector<char> produced(std::size_t(nodes_), 1);
        for (std::size_t k = 0; k < count; ++k)
            produced[std::size_t(comparators_[k].lo)] = produced[std::size_t(comparators_[k].hi)] = 0;
        using entry = std::pair<std::size_t, std::size_t>;  // (time it may run, comparator)
        std::priority_queue<std::size_t, std::vector<std::size_t>, std::greater<>> ready;
        std::priority_queue<entry, std::vector<entry>, std::greater<>> cooling;
        std::vector<std::size_t> earliest(count, 0);
        for (std::size_t k = 0; k < count; ++k) {
            if (!needed[k]) continue;
            for (int node : {comparators_[k].a, comparators_[k].b})
                if (!produced[std::size_t(node)]) {
                    readers[std::size_t(node)].push_back(k);
                    ++waiting[k];
                }
            if (waiting[k] == 0) ready.push(k);
        }
        std::vector<std::size_t> order;
        for (std::size_t t = 0; !ready.empty() || !cooling.empty(); ++t) {
            while (!cooling.empty() && cooling.top().first <= t) {
                ready.push(cooling.top().second);
                cooling.pop();
            }
            std::size_t k;
            if (!ready.empty()) {
                k = ready.top();
                ready.pop();
            } else {
                k = cooling.top().second;
                cooling.pop();
            }
            order.push_back(k);
            for (int node : {comparators_[k].lo, comparators_[k].hi})
                for (std::size_t j : readers[std::size_t(node)]) {
                    earliest[j] = std::max(earliest[j], t + gap);
                    if (--waiting[j] == 0) cooling.push({earliest[j], j});
                }
        }
        return order;
    }

    int r_, width_, height_, span_;
    int n_ = 0, m_ = 0;
    std::vector<std::pair<int, int>> disc_;  // (dx, dy), rows first
    std::vector<int> cell_node_;
    std::vector<int> input_cells_, input_nodes_;
    int nodes_ = 0;
    std::vector<comparator> comparators_;
    std::vector<std::vector<int>> results_;
};

}  // namespace

const tile_network& network_for(int radius) {
    static std::mutex guard;
    static std::array<std::unique_ptr<tile_network>, max_radius + 1> built;
    if (radius < 1 || radius > max_radius) throw std::invalid_argument("median network: radius out of range");
    const std::lock_guard<std::mutex> lock(guard);
    auto& net = built[std::size_t(radius)];
    if (!net) net = std::make_unique<tile_network>(network_builder(radius, network_tile, network_tile).build());
    return *net;
}

}  // namespace detail

namespace {

// Vector lanes of the host kernel: tiles side by side.
constexpr int host_lanes = 16;

// The host kernel. A work item takes a block of Lanes tiles side by side, one
// per vector lane, and runs the tile network on all of them at once: the
// network is a program of comparators over slots of Lanes floats, which the
// compiler turns into vector loads, min, max and stores. Windows holding a
// value the network cannot take (NaN, a value above the padding, +0 beside
// -0) go through mean_of_median3 instead, gathered in the same order as the
// tiled kernel gathers them.
template <int Capacity, int Lanes>
void filter_on_host(queue& q, float* h_grid, Parameters parameters, int r) {
    static_assert(Lanes <= 32, "a mask's bits stand for the lanes");
    constexpr int tw = detail::network_tile, th = detail::network_tile;
    const detail::tile_network& net = detail::network_for(r);
    // Slots as offsets in floats: the outputs' slots, then the comparators.
    std::vector<std::uint16_t> program;
    for (std::uint16_t s : net.outputs) program.push_back(std::uint16_t(s * Lanes));
    for (std::uint16_t s : net.ops) program.push_back(std::uint16_t(s * Lanes));
    const std::size_t comparators = net.ops.size() / 4;
    buffer<std::uint16_t, 1> d_program(q, static_cast<const std::uint16_t*>(program.data()), range<1>{program.size()});

    const std::size_t size = parameters.size;
    const range<2> extent{size, size};
    buffer<float, 2> data(q, h_grid, extent);
    buffer<float, 2> scratch(q, extent);
    // Blocks row by row, so that neighbours in the order share most of their
    // rows; a 1-D launch, as blocks with windows on the exact path cost more.
    const std::size_t block_cols = (size + std::size_t(Lanes * tw) - 1) / std::size_t(Lanes * tw);
    const range<1> blocks{(size + th - 1) / th * block_cols};
    const long long last = static_cast<long long>(size) - 1;
    const int span = tw + 2 * r, region_rows = th + 2 * r;
    // The block's region, a row at a time, in groups of tw columns: region
    // column c + tw * g of lane l is column c of group l + g.
    constexpr int max_groups = Lanes + 2 * max_radius / tw;
    const int groups = Lanes + (2 * r + tw - 1) / tw;

    for (std::uint32_t pass = 0; pass < parameters.iterations; ++pass) {
        const float* d_in = data.get();
        float* d_out = scratch.get();
        const std::uint16_t* prog = d_program.get();
        q.parallel_for(blocks, HALDEN_KERNEL(std::size_t block) {
            const long long y0 = static_cast<long long>(block / block_cols) * th;
            const long long x0 = static_cast<long long>(block % block_cols) * Lanes * tw;
            alignas(64) float w[detail::max_slots * Lanes];

            // Every lane's region, edges replicated, into the first slots.
            const long long left = x0 - r;
            const bool inside = left >= 0 && left + groups * tw - 1 <= last;
            for (int yy = 0; yy < region_rows; ++yy) {
                long long y = y0 - r + yy;
                y = y < 0 ? 0 : (y > last ? last : y);
                const float* row = d_in + y * static_cast<long long>(size);
                alignas(64) float line[max_groups * tw];
                if (inside) {
                    for (int c = 0; c < groups * tw; ++c) line[c] = row[left + c];
                } else {
                    for (int c = 0; c < groups * tw; ++c) {
                        const long long x = left + c;
                        line[c] = row[x < 0 ? 0 : (x > last ? last : x)];
                    }
                }
                alignas(64) float strip[tw][max_groups];
                for (int g = 0; g < groups; ++g)
                    for (int c = 0; c < tw; ++c) strip[c][g] = line[g * tw + c];
                float* slots = w + yy * span * Lanes;
                for (int xx = 0; xx < span; ++xx) {
                    const float* from = &strip[xx % tw][xx / tw];
                    for (int l = 0; l < Lanes; ++l) slots[xx * Lanes + l] = from[l];
                }
            }
            std::uint32_t bad[Lanes] = {}, positive_zero[Lanes] = {}, negative_zero[Lanes] = {};
            for (int c = 0; c < region_rows * span; ++c) {
                const float* v = w + c * Lanes;
                for (int l = 0; l < Lanes; ++l) {
                    const std::uint32_t u = halden::float_bits(v[l]);
                    const std::uint32_t zero = (u << 1) == 0u;
                    bad[l] |= v[l] <= padding ? 0u : 1u;  // NaN too
                    positive_zero[l] |= zero & ~(u >> 31);
                    negative_zero[l] |= zero & (u >> 31);
                }
            }
            // Lanes whose region holds a value the network cannot take check
            // their windows one by one.
            std::uint32_t suspect = 0;
            for (int l = 0; l < Lanes; ++l) suspect |= (bad[l] | (positive_zero[l] & negative_zero[l])) << l;

            const std::uint16_t* op = prog + 3 * tw * th;
            for (std::size_t k = 0; k < comparators; ++k, op += 4) {
                const float* a = w + op[2];
                const float* b = w + op[3];
                // Both operands are read before either result is written.
                float lo[Lanes], hi[Lanes];
                for (int l = 0; l < Lanes; ++l) {
                    lo[l] = halden::min_of(a[l], b[l]);
                    hi[l] = halden::max_of(a[l], b[l]);
                }
                float* to_lo = w + op[0];
                for (int l = 0; l < Lanes; ++l) to_lo[l] = lo[l];
                float* to_hi = w + op[1];
                for (int l = 0; l < Lanes; ++l) to_hi[l] = hi[l];
            }

            for (int i = 0; i < th && y0 + i <= last; ++i) {
                alignas(64) float result[tw][Lanes];
                for (int j = 0; j < tw; ++j) {
                    const std::uint16_t* s = prog + 3 * (i * tw + j);
                    const float *v0 = w + s[0], *v1 = w + s[1], *v2 = w + s[2];
                    for (int l = 0; l < Lanes; ++l) result[j][l] = canonical(((v2[l] + v1[l]) + v0[l]) * one_third);
                }
                const long long y = y0 + i;
                float* row = d_out + y * static_cast<long long>(size);
                if (suspect == 0 && x0 + Lanes * tw - 1 <= last) {
                    for (int c = 0; c < Lanes * tw; ++c) row[x0 + c] = result[c % tw][c / tw];
                    continue;
                }
                for (int c = 0; c < Lanes * tw && x0 + c <= last; ++c) {
                    const float mine = result[c % tw][c / tw];
                    if (!(suspect >> (c / tw) & 1u)) {
                        row[x0 + c] = mine;
                        continue;
                    }
                    // An output's comparators only see its own window, so
                    // the network's result stands wherever that window is
                    // one the network can take, whatever else the tile holds.
                    const long long x = x0 + c;
                    float values[Capacity];
                    int n = 0;
                    bool clean = true;
                    std::uint32_t zeros = 0;  // bit 0: +0 seen, bit 1: -0 seen
                    for (int dy = -r; dy <= r; ++dy) {
                        long long yy = y + dy;
                        yy = yy < 0 ? 0 : (yy > last ? last : yy);
                        for (int dx = -r; dx <= r; ++dx) {
                            if (!in_disc(dx, dy, r)) continue;
                            long long xx = x + dx;
                            xx = xx < 0 ? 0 : (xx > last ? last : xx);
                            const float v = d_in[yy * static_cast<long long>(size) + xx];
                            values[n++] = v;
                            clean = clean && v <= padding;
                            if (v == 0.0f) zeros |= 1u << (halden::float_bits(v) >> 31);
                        }
                    }
                    row[x] = clean && zeros != 3u ? mine : mean_of_median3<Capacity>(values, n);
                }
            }
        });
        data.swap_contents(scratch);
    }
}

}  // namespace

// Host devices run the tile network (filter_on_host); other devices one tiled
// kernel per pass, ping-ponging between the data and scratch buffers; the
// data buffer writes the last pass back to the host grid.
//
// Each work-group loads its 32 x 32 tile plus an r-wide apron into local
// memory, clamping rows and columns to the grid, so every cell sees the
// replicated edge beyond the border. A cell's window in the tile is then the
// clamped window around it in the grid, whatever the grid's size: cells past
// the last whole tile load their apron like the others and only skip the store.
template <int Capacity>
void filter(queue& q, float* h_grid, Parameters parameters) {
    const int r = effective_radius(parameters.radius);
    if (q.get_device().is_cpu() && r >= 1) {
        filter_on_host<Capacity, host_lanes>(q, h_grid, parameters, r);
        return;
    }
    const std::size_t size = parameters.size;
    const range<2> extent{size, size};
    buffer<float, 2> data(q, h_grid, extent);
    buffer<float, 2> scratch(q, extent);

    const std::size_t groups = (size + tile - 1) / tile;
    const int span = 2 * r + tile;
    const long long last = static_cast<long long>(size) - 1;

    for (std::uint32_t pass = 0; pass < parameters.iterations; ++pass) {
        const float* d_in = data.get();
        float* d_out = scratch.get();
        q.parallel_for_work_group<float>(
            nd_range{{groups, groups}, {tile, tile}}, std::size_t(span) * span,
            HALDEN_KERNEL(const group_item& it, float* local) {
                const long long top = static_cast<long long>(it.group_row) * tile - r;
                const long long left = static_cast<long long>(it.group_col) * tile - r;
                for (std::uint32_t i = it.local_linear(); i < std::uint32_t(span * span); i += it.local_size()) {
                    long long y = top + i / span, x = left + i % span;
                    y = y < 0 ? 0 : (y > last ? last : y);
                    x = x < 0 ? 0 : (x > last ? last : x);
                    local[i] = d_in[y * static_cast<long long>(size) + x];
                }
            },
            HALDEN_KERNEL(const group_item& it, float* local) {
                const std::size_t y = it.global_row(), x = it.global_col();
                if (y >= size || x >= size) return;
                float values[Capacity];
                int n = 0;
                for (int dy = -r; dy <= r; ++dy)
                    for (int dx = -r; dx <= r; ++dx)
                        if (in_disc(dx, dy, r))
                            values[n++] = local[(int(it.local_row) + r + dy) * span + int(it.local_col) + r + dx];
                d_out[y * size + x] = mean_of_median3<Capacity>(values, n);
            });
        data.swap_contents(scratch);
    }
}

template void filter<256>(queue&, float*, Parameters);

}  // namespace median_filter
