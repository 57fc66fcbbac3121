// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "api/frame.hpp"
#include "modules/parallel_erosion/parallel_erosion.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t ParallelErosionSimulation(halden_queue* queue, float* heights, const float* rain,
                                                         const float* hardness, float* erosion, float* deposition,
                                                         float* discharge,
                                                         const halden_erosion_parameters* parameters,
                                                         const halden_callbacks* callbacks) noexcept {
    api::frame f{"ParallelErosionSimulation", &parallel_erosion::callbacks, callbacks};
    if (!queue || !heights || !parameters) {
        api::reject(f, !queue ? "null queue" : (!heights ? "null height grid" : "null parameter record"));
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    const parallel_erosion::Parameters p = *parameters;
    if (!api::accept(f, [&] { return parallel_erosion::check(p); }, "the heights are left unchanged"))
        return HALDEN_STATUS_DEVICE_ERROR;
    f.need_bytes = parallel_erosion::memory_estimate(p);
    return api::run(*queue, f, [&] {
        parallel_erosion::ParallelErosion simulation(queue->queue, heights, rain, hardness, erosion, deposition,
                                                     discharge, p, &f.callbacks);
        if (simulation.process()) return HALDEN_STATUS_OK;
        send_info(f.callbacks, "ParallelErosionSimulation: cancelled; the grids are left unchanged");
        return HALDEN_STATUS_DEVICE_ERROR;
    });
}
