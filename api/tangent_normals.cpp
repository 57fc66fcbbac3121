// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "api/frame.hpp"
#include "modules/mesh_rasterizer/tangent_normals.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t MeshRasterizer_ComputeTangentSpaceNormals(halden_queue* queue, const halden_mesh* mesh,
                                                                         const float* heights, float* red, float* green,
                                                                         float* blue,
                                                                         const halden_tangent_parameters* parameters,
                                                                         const halden_callbacks* callbacks) noexcept {
    api::frame f{"MeshRasterizer_ComputeTangentSpaceNormals", &mesh_rasterizer::callbacks, callbacks};
    const char* missing = !queue        ? "null queue"
                          : !heights    ? "null height grid"
                          : !red        ? "null red plane"
                          : !green      ? "null green plane"
                          : !blue       ? "null blue plane"
                          : !parameters ? "null parameter record"
                                        : nullptr;
    if (missing) {
        api::reject(f, missing);
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    const mesh_rasterizer::TangentParameters p = *parameters;
    const char* unchanged = "the planes are left unchanged";
    if (!api::accept(
            f, [&] { return mesh_rasterizer::check_tangent(mesh, p); }, unchanged) ||
        !api::accept(
            f, [&] { return mesh_rasterizer::check_tangent_heights(heights, p); }, unchanged))
        return HALDEN_STATUS_DEVICE_ERROR;
    f.need_bytes = mesh_rasterizer::tangent_memory_estimate(*mesh, p);
    return api::run(*queue, f, [&] {
        mesh_rasterizer::TangentNormals baker(queue->queue, *mesh, heights, p, &f.callbacks);
        if (baker.run(red, green, blue)) return HALDEN_STATUS_OK;
        send_info(f.callbacks, "MeshRasterizer_ComputeTangentSpaceNormals: cancelled; the planes are left unchanged");
        return HALDEN_STATUS_DEVICE_ERROR;
    });
}
