// SPDX-License-Identifier: Apache-2.0
#include <string>
#include <vector>

#include "api/frame.hpp"
#include "modules/mesh_rasterizer/mesh_rasterizer.hpp"
#include "modules/mesh_rasterizer/triplanar.hpp"

using namespace halden;

namespace {

constexpr const char* operation = "MeshRasterizer_RenderMeshWithTriplanarDisplacement";

}  // namespace

extern "C" HALDEN_API uint32_t MeshRasterizer_RenderMeshWithTriplanarDisplacement(
    halden_queue* queue, const halden_mesh* mesh, float* heights, float* triangle_ids, const halden_texture* texture,
    const halden_triplanar_parameters* parameters, const halden_callbacks* callbacks) noexcept {
    api::frame f{operation, &mesh_rasterizer::callbacks, callbacks};
    if (!queue || !heights || !parameters) {
        api::reject(f, !queue ? "null queue" : (!heights ? "null height grid" : "null parameter record"));
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    const mesh_rasterizer::TriplanarParameters p = *parameters;
    std::vector<mesh_rasterizer::batch> batches;
    const bool displaced = p.amplitude != 0.0f;
    const auto check = [&] {
        std::string problem = mesh_rasterizer::check(mesh, texture, p);
        if (problem.empty() && displaced) problem = mesh_rasterizer::plan(*mesh, p, batches);
        return problem;
    };
    if (!api::accept(f, check, "the grids are left unchanged")) return HALDEN_STATUS_DEVICE_ERROR;
    f.need_bytes = mesh_rasterizer::memory_estimate(*mesh, *texture, p, batches);
    // No trial allocation: a render that does not fit fails on its first one.
    f.precheck = false;
    return api::run(*queue, f, [&] {
        mesh_rasterizer::Parameters rendered = p.transform;
        if (p.transform.supersample) {
            rendered.width = 2 * p.transform.width;
            rendered.height = 2 * p.transform.height;
        }
        mesh_rasterizer::MeshRasterizer r(queue->queue, *mesh, rendered, triangle_ids != nullptr, &f.callbacks);
        bool cancelled = false;
        if (!displaced) {
            // Nothing moves: the mesh itself, rendered as RenderMesh renders
            // it. Cutting it up would only add rounding.
            r.process_vertices();
            if (triangle_ids)
                r.render<true, true, true, false>(mesh_rasterizer::size_limit);
            else
                r.render<true, false, true, false>(mesh_rasterizer::size_limit);
            cancelled = r.cancelled();
        } else {
            mesh_rasterizer::TriplanarDisplacement d(queue->queue, *mesh, *texture, p, std::move(batches));
            cancelled = !d.render(r, triangle_ids != nullptr, f.callbacks);
        }
        queue->queue.synchronize();
        if (cancelled || f.callbacks.cancel() != 0) {
            send_info(f.callbacks, std::string(operation) + ": cancelled; the grids are left unchanged");
            return HALDEN_STATUS_DEVICE_ERROR;
        }
        if (p.transform.supersample)
            r.reduce_supersampled(heights, triangle_ids, p.transform.width, p.transform.height);
        else
            r.copy_out(heights, triangle_ids);
        return HALDEN_STATUS_OK;
    });
}
