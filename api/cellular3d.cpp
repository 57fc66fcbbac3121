// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "api/frame.hpp"
#include "modules/cellular3d/cellular3d.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t Cellular3D_Render(halden_queue* queue, float* out, const float* z,
                                                 const halden_cellular3d_parameters* parameters,
                                                 const halden_callbacks* callbacks) noexcept {
    api::frame f{"Cellular3D_Render", &cellular3d::callbacks, callbacks};
    if (!queue || !out || !parameters) {
        api::reject(f, !queue ? "null queue" : (!out ? "null output grid" : "null parameter record"));
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    const cellular3d::Parameters p = *parameters;
    if (!api::accept(
            f, [&] { return cellular3d::check(p); }, "the output grid is left unchanged"))
        return HALDEN_STATUS_DEVICE_ERROR;
    if (z && !api::accept(
                 f, [&] { return cellular3d::check_z(p, z); }, "the output grid is left unchanged"))
        return HALDEN_STATUS_DEVICE_ERROR;
    f.need_bytes = cellular3d::memory_estimate(p, z != nullptr);
    return api::run(*queue, f, [&] {
        cellular3d::Cellular3D noise(queue->queue, out, z, p, &f.callbacks);
        if (noise.render()) return HALDEN_STATUS_OK;
        send_info(f.callbacks, "Cellular3D_Render: cancelled; the output grid is left unchanged");
        return HALDEN_STATUS_DEVICE_ERROR;
    });
}
