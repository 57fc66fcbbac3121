// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "api/frame.hpp"
#include "modules/flow/flow.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t FlowSimulation(halden_queue* queue, uint64_t no_mask, const float* heights, float* map,
                                              const halden_flow_parameters* parameters,
                                              const halden_callbacks* callbacks) noexcept {
    api::frame f{"FlowSimulation", &flow::callbacks, callbacks};
    if (!queue || !heights || !map || !parameters) {
        api::reject(f, !queue ? "null queue"
                              : (!heights ? "null height grid" : (!map ? "null flow grid" : "null parameter record")));
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    const flow::Parameters p = *parameters;
    if (!api::accept(f, [&] { return flow::check(p); }, "the flow grid is left unchanged")) return HALDEN_STATUS_DEVICE_ERROR;
    f.need_bytes = flow::memory_estimate(p);
    return api::run(*queue, f, [&] {
        flow::Flow simulation(queue->queue, p, no_mask, heights, map, &f.callbacks);
        if (simulation.process()) return HALDEN_STATUS_OK;
        send_info(f.callbacks, "FlowSimulation: cancelled; the map holds the particles that ran");
        return HALDEN_STATUS_DEVICE_ERROR;
    });
}
