// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "api/frame.hpp"
#include "modules/lighting/lighting.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t Shade(halden_queue* queue, const float* heights, float* diffuse, float* shadow, float* ao,
                                     float* out_r, float* out_g, float* out_b, const float* albedo_r,
                                     const float* albedo_g, const float* albedo_b,
                                     const halden_lighting_parameters* parameters,
                                     const halden_callbacks* callbacks) noexcept {
    api::frame f{"Shade", &lighting::callbacks, callbacks};
    f.unknown_error = "Unknown exception occurred.";
    if (!queue || !heights || !parameters) {
        api::reject(f, !queue ? "null queue" : (!heights ? "null height grid" : "null parameter record"));
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    const lighting::Parameters p = *parameters;
    const auto check = [&]() -> std::string {
        std::string problem = lighting::check(p);
        if (problem.empty() && lighting::switches(p).caller_ao && !ao) problem = "ao_from_caller needs an ao grid";
        return problem;
    };
    if (!api::accept(f, check, "nothing is written")) return HALDEN_STATUS_DEVICE_ERROR;
    f.need_bytes = lighting::memory_estimate(p);
    return api::run(*queue, f, [&] {
        lighting::LightingSYCL shading(queue->queue, p,
                                       {heights, diffuse, shadow, ao, out_r, out_g, out_b, albedo_r, albedo_g, albedo_b},
                                       &f.callbacks);
        if (shading.run()) return HALDEN_STATUS_OK;
        send_info(f.callbacks, "Shade: cancelled; nothing is written");
        return HALDEN_STATUS_DEVICE_ERROR;
    });
}
