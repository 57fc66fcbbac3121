// SPDX-License-Identifier: Apache-2.0
#include <cmath>
#include <string>

#include "api/frame.hpp"
#include "modules/lighting/sunlight.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t SunLightIntegral(halden_queue* queue, const float* heights, float* irradiation,
                                                float* sun_hours, float* sky_view,
                                                const halden_sunlight_parameters* parameters,
                                                const halden_callbacks* callbacks) noexcept {
    api::frame f{"SunLightIntegral", &lighting::callbacks, callbacks};
    if (!queue || !heights || !irradiation || !parameters) {
        api::reject(f, !queue ? "null queue"
                              : (!heights ? "null height grid"
                                          : (!irradiation ? "null irradiation grid" : "null parameter record")));
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    const lighting::SunLightParameters p = *parameters;
    const auto check = [&]() -> std::string {
        std::string problem = lighting::check(p);
        if (problem.empty() && sky_view && p.sky_directions == 0) problem = "sky_view needs sky_directions > 0";
        if (!problem.empty()) return problem;
        // Non-finite heights would turn every ray they touch into NaN.
        const std::size_t cells = std::size_t(p.width) * std::size_t(p.height);
        for (std::size_t i = 0; i < cells; ++i)
            if (!std::isfinite(heights[i]))
                return "heights must be finite (cell " + std::to_string(i % std::size_t(p.width)) + ", " +
                       std::to_string(i / std::size_t(p.width)) + ")";
        return problem;
    };
    if (!api::accept(f, check, "the outputs are left unchanged")) return HALDEN_STATUS_DEVICE_ERROR;
    f.need_bytes = lighting::memory_estimate(p);
    return api::run(*queue, f, [&] {
        lighting::SunLight sun(queue->queue, p, {heights, irradiation, sun_hours, sky_view}, &f.callbacks);
        if (sun.run()) return HALDEN_STATUS_OK;
        send_info(f.callbacks, "SunLightIntegral: cancelled; the outputs are left unchanged");
        return HALDEN_STATUS_DEVICE_ERROR;
    });
}
