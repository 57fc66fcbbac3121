// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "api/frame.hpp"
#include "modules/mesh_rasterizer/mesh_rasterizer.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t MeshRasterizer_RenderMesh(halden_queue* queue, const halden_mesh* mesh, float* heights,
                                                         float* triangle_ids,
                                                         halden_mesh_rasterizer_parameters* parameters,
                                                         const halden_callbacks* callbacks) noexcept {
    api::frame f{"MeshRasterizer_RenderMesh", &mesh_rasterizer::callbacks, callbacks};
    if (!queue || !heights || !parameters) {
        api::reject(f, !queue ? "null queue" : (!heights ? "null height grid" : "null parameter record"));
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    const mesh_rasterizer::Parameters p = *parameters;
    if (!api::accept(f, [&] { return mesh_rasterizer::check(mesh, p); }, "the grids are left unchanged")) return HALDEN_STATUS_DEVICE_ERROR;
    f.need_bytes = mesh_rasterizer::memory_estimate(*mesh, p);
    return api::run(*queue, f, [&] {
        mesh_rasterizer::Parameters rendered = p;
        if (p.supersample) {
            // The caller's record comes back with the rendered size.
            parameters->width = rendered.width = 2 * p.width;
            parameters->height = rendered.height = 2 * p.height;
        }
        mesh_rasterizer::MeshRasterizer r(queue->queue, *mesh, rendered, triangle_ids != nullptr, &f.callbacks);
        r.process_vertices();
        if (triangle_ids)
            r.render<true, true, true, false>(mesh_rasterizer::size_limit);
        else
            r.render<true, false, true, false>(mesh_rasterizer::size_limit);
        queue->queue.synchronize();
        if (r.cancelled() || f.callbacks.cancel() != 0) {
            send_info(f.callbacks, "MeshRasterizer_RenderMesh: cancelled; the grids are left unchanged");
            return HALDEN_STATUS_DEVICE_ERROR;
        }
        if (p.supersample)
            r.reduce_supersampled(heights, triangle_ids, p.width, p.height);
        else
            r.copy_out(heights, triangle_ids);
        return HALDEN_STATUS_OK;
    });
}
