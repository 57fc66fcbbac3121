// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "api/frame.hpp"
#include "modules/mesh_rasterizer/mesh_rasterizer.hpp"
#include "modules/mesh_rasterizer/point_cloud.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t MeshRasterizer_RenderPointCloud(halden_queue* queue, const halden_points* points,
                                                               float* heights, float* counts,
                                                               const halden_point_parameters* parameters,
                                                               const halden_callbacks* callbacks) noexcept {
    api::frame f{"MeshRasterizer_RenderPointCloud", &mesh_rasterizer::callbacks, callbacks};
    if (!queue || !heights || !parameters) {
        api::reject(f, !queue ? "null queue" : (!heights ? "null height grid" : "null parameter record"));
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    const mesh_rasterizer::PointParameters p = *parameters;
    if (!api::accept(
            f, [&] { return mesh_rasterizer::check(points, p); }, "the grids are left unchanged"))
        return HALDEN_STATUS_DEVICE_ERROR;
    f.need_bytes = mesh_rasterizer::memory_estimate(*points, p);
    return api::run(*queue, f, [&] {
        mesh_rasterizer::PointCloud cloud(queue->queue, *points, p, &f.callbacks);
        if (!cloud.render()) {
            send_info(f.callbacks, "MeshRasterizer_RenderPointCloud: cancelled; the grids are left unchanged");
            return HALDEN_STATUS_DEVICE_ERROR;
        }
        cloud.copy_out(heights, counts);
        return HALDEN_STATUS_OK;
    });
}
