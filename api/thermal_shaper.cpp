// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "api/frame.hpp"
#include "modules/thermal_shaper/thermal_shaper.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t ThermalShaper_Process(halden_queue* queue, float* heights, const float* mask,
                                                     const halden_thermal_shaper_parameters* parameters,
                                                     const halden_callbacks* callbacks) noexcept {
    api::frame f{"ThermalShaper_Process", &thermal_shaper::callbacks, callbacks};
    if (!queue || !heights || !parameters) {
        api::reject(f, !queue ? "null queue" : (!heights ? "null height grid" : "null parameter record"));
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    const thermal_shaper::Parameters p = *parameters;
    if (!api::accept(f, [&] { return thermal_shaper::check(p); }, "the heights are left unchanged")) return HALDEN_STATUS_DEVICE_ERROR;
    f.need_bytes = thermal_shaper::memory_estimate(p, mask != nullptr);
    return api::run(*queue, f, [&] {
        thermal_shaper::ThermalShaper shaper(queue->queue, heights, mask, p);
        shaper.process();
        return HALDEN_STATUS_OK;
    });
}
