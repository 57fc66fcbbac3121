// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "api/frame.hpp"
#include "modules/color_transport/color_transport.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t ColorTransportSimulation(halden_queue* queue, const float* heights, float* red,
                                                        float* green, float* blue, const float* mask,
                                                        const halden_color_transport_parameters* parameters,
                                                        const halden_callbacks* callbacks) noexcept {
    api::frame f{"ColorTransportSimulation", &color_transport::callbacks, callbacks};
    if (!queue || !heights || !red || !green || !blue || !parameters) {
        api::reject(f, !queue     ? "null queue"
                       : !heights ? "null height grid"
                       : !red     ? "null red grid"
                       : !green   ? "null green grid"
                       : !blue    ? "null blue grid"
                                  : "null parameter record");
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    const color_transport::Parameters p = *parameters;
    if (!api::accept(
            f, [&] { return color_transport::check(p); }, "the colours are left unchanged"))
        return HALDEN_STATUS_DEVICE_ERROR;
    if (!api::accept(
            f, [&] { return color_transport::check_grids(p, heights, red, green, blue, mask); },
            "the colours are left unchanged"))
        return HALDEN_STATUS_DEVICE_ERROR;
    f.need_bytes = color_transport::memory_estimate(p);
    return api::run(*queue, f, [&] {
        color_transport::ColorTransport transport(queue->queue, p, heights, red, green, blue, mask, &f.callbacks);
        if (transport.process()) return HALDEN_STATUS_OK;
        send_info(f.callbacks, "ColorTransportSimulation: cancelled; the colours are left unchanged");
        return HALDEN_STATUS_DEVICE_ERROR;
    });
}
