// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "api/frame.hpp"
#include "modules/arrakis/arrakis.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t DuneSimulation(halden_queue* queue, const float* bedrock, float* sand,
                                              const float* vegetation, const halden_dune_parameters* parameters,
                                              const halden_callbacks* callbacks) noexcept {
    api::frame f{"DuneSimulation", &arrakis::callbacks, callbacks};
    if (!queue || !bedrock || !sand || !parameters) {
        api::reject(f, !queue
                           ? "null queue"
                           : (!bedrock ? "null bedrock grid" : (!sand ? "null sand grid" : "null parameter record")));
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    const arrakis::Parameters p = *parameters;
    const char* unchanged = "the sand is left unchanged";
    if (!api::accept(
            f, [&] { return arrakis::check(p); }, unchanged))
        return HALDEN_STATUS_DEVICE_ERROR;
    if (!api::accept(
            f, [&] { return arrakis::check_grids(p, bedrock, sand, vegetation); }, unchanged))
        return HALDEN_STATUS_DEVICE_ERROR;
    f.need_bytes = arrakis::memory_estimate(p);
    return api::run(*queue, f, [&] {
        arrakis::Arrakis simulation(queue->queue, bedrock, sand, vegetation, p, &f.callbacks);
        if (simulation.process()) return HALDEN_STATUS_OK;
        send_info(f.callbacks, "DuneSimulation: cancelled; the sand is left unchanged");
        return HALDEN_STATUS_DEVICE_ERROR;
    });
}
