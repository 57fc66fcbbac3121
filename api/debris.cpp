// SPDX-License-Identifier: Apache-2.0
#include "modules/debris/debris.hpp"
#include "api/frame.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t DebrisSimulation(halden_queue* queue, float* heights, const float* sources,
                                                float* h_debris, float* rock_ids, const float* warp,
                                                const halden_debris_parameters* parameters) noexcept {
    const api::frame f{"DebrisSimulation"};
    if (!queue || !heights || !parameters) {
        api::reject(f, !queue ? "null queue" : (!heights ? "null height grid" : "null parameter record"));
        return HALDEN_STATUS_OK;
    }
    const debris::Parameters p = *parameters;
    if (!api::accept(
            f, [&] { return debris::check(p); }, "the heights are left unchanged"))
        return HALDEN_STATUS_OK;
    api::run(*queue, f, [&] {
        debris::Debris simulation(queue->queue, heights, sources, h_debris, rock_ids, warp, p);
        simulation.process();
        return HALDEN_STATUS_OK;
    });
    return HALDEN_STATUS_OK;
}
