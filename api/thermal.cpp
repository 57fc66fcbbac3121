// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "api/frame.hpp"
#include "modules/thermal/thermal.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t ThermalSimulation(halden_queue* queue, float* heights, const float* mask,
                                                 float* deposition, const float* hardness,
                                                 const halden_thermal_parameters* parameters,
                                                 const halden_callbacks* callbacks) noexcept {
    api::frame f{"ThermalSimulation", &thermal::callbacks, callbacks};
    if (!queue || !heights || !parameters) {
        api::reject(f, !queue ? "null queue" : (!heights ? "null height grid" : "null parameter record"));
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    const thermal::Parameters p = *parameters;
    if (!api::accept(f, [&] { return thermal::check(p); }, "the heights are left unchanged"))
        return HALDEN_STATUS_DEVICE_ERROR;
    f.need_bytes = thermal::memory_estimate(p);
    return api::run(*queue, f, [&] {
        thermal::Thermal simulation(queue->queue, heights, mask, deposition, hardness, p, &f.callbacks);
        if (simulation.process()) return HALDEN_STATUS_OK;
        send_info(f.callbacks, "ThermalSimulation: cancelled; the grids are left unchanged");
        return HALDEN_STATUS_DEVICE_ERROR;
    });
}
