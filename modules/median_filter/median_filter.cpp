// SPDX-License-Identifier: Apache-2.0
#include "modules/median_filter/median_filter.hpp"

namespace median_filter {

using halden::compute::buffer;
using halden::compute::group_item;
using halden::compute::nd_range;
using halden::compute::queue;
using halden::compute::range;

// One tiled kernel per pass, ping-ponging between the data and scratch
// buffers; the data buffer writes the last pass back to the host grid.
//
// Each work-group loads its 32 x 32 tile plus an r-wide apron into local
// memory, clamping rows and columns to the grid, so every cell sees the
// replicated edge beyond the border. A cell's window in the tile is then the
// clamped window around it in the grid, whatever the grid's size: cells past
// the last whole tile load their apron like the others and only skip the store.
template <int Capacity>
void filter(queue& q, float* h_grid, Parameters parameters) {
    const int r = effective_radius(parameters.radius);
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
