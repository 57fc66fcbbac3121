// SPDX-License-Identifier: Apache-2.0
#include <cmath>
#include <string>

#include "api/frame.hpp"
#include "modules/blur/blur.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t Blur(halden_queue* queue, float* grid, int32_t size, float radius,
                                    const halden_callbacks* callbacks) noexcept {
    api::frame f{"Blur", &blur::callbacks, callbacks};
    if (!queue || !grid) {
        api::reject(f, !queue ? "null queue" : "null grid");
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    if (size < 1 || size > blur::max_size) {
        api::reject(f, ("size must lie in [1, " + std::to_string(blur::max_size) + "] (got " + std::to_string(size) +
                        "); the grid is left unchanged")
                           .c_str());
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    if (!(radius > 0.0f && radius <= blur::max_radius)) {
        api::reject(f, ("radius must lie in (0, 16777216] (got " + std::to_string(radius) +
                        "); the grid is left unchanged")
                           .c_str());
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    f.need_bytes = 12u * std::uint64_t(size) * std::uint64_t(size);
    return api::run(*queue, f, [&] {
        compute::queue& q = queue->queue;
        const compute::range<2> extent{std::size_t(size), std::size_t(size)};
        const compute::input_view<float, 2> source(q, grid, extent, "blur source");
        compute::usm_ptr<float, 2> b(q, extent, "blur scratch"), c(q, extent, "blur result");
        if (q.get_device().get_backend() == compute::backend::native) {
            // On the host the last pass, which nothing can fail after, writes the grid itself.
            blur::box_blur(q, source.get(), b.get(), c.get(), grid, size, radius);
            return HALDEN_STATUS_OK;
        }
        blur::box_blur(q, source.get(), b.get(), c.get(), c.get(), size, radius);
        q.synchronize();
        if (!q.has_pending_errors()) {
            c.copy_to_host(grid);
            q.synchronize();
        }
        return HALDEN_STATUS_OK;
    });
}
