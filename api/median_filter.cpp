// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "api/frame.hpp"
#include "modules/median_filter/median_filter.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t MedianFilter(halden_queue* queue, float* grid,
                                            const halden_median_filter_parameters* parameters) noexcept {
    const api::frame f{"MedianFilter"};
    if (!queue || !grid || !parameters) {
        api::reject(f, !queue ? "null queue" : (!grid ? "null grid" : "null parameter record"));
        return HALDEN_STATUS_OK;
    }
    const median_filter::Parameters p = *parameters;
    if (static_cast<int32_t>(p.radius) <= 0) {
        const std::string text = "radius must be at least 1 (got " + std::to_string(static_cast<int32_t>(p.radius)) +
                                 "); the grid is left unchanged";
        api::reject(f, text.c_str());
        return HALDEN_STATUS_OK;
    }
    if (p.size == 0) {
        api::reject(f, "size must be at least 1");
        return HALDEN_STATUS_OK;
    }
    if (p.iterations == 0) return HALDEN_STATUS_OK;
    return api::run(*queue, f, [&] {
        median_filter::filter<256>(queue->queue, grid, p);
        return HALDEN_STATUS_OK;
    });
}
