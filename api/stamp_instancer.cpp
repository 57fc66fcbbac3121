// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string>

#include "api/frame.hpp"
#include "modules/stamp_instancer/stamp_instancer.hpp"

using namespace halden;

extern "C" HALDEN_API uint32_t StampInstancer_Populate(halden_queue* queue, float* heights, const halden_stamps* stamps,
                                                       const float* density, halden_stamp_instance* instances,
                                                       uint32_t* instance_count, float* instance_ids,
                                                       const halden_stamp_parameters* parameters,
                                                       const halden_callbacks* callbacks) noexcept {
    api::frame f{"StampInstancer_Populate", &stamp_instancer::callbacks, callbacks};
    if (!queue || !heights || !stamps || !parameters) {
        api::reject(f, !queue     ? "null queue"
                       : !heights ? "null height grid"
                       : !stamps  ? "null stamp record"
                                  : "null parameter record");
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    const stamp_instancer::Parameters p = *parameters;
    const stamp_instancer::Stamps s = *stamps;
    // A nonzero count on entry means the caller's instances are drawn as given.
    const uint32_t given = instance_count ? *instance_count : 0;
    const char* keep = "the grids are left unchanged";
    if (given && !instances) {
        api::reject(f, "null instances with a nonzero *instance_count; the grids are left unchanged");
        return HALDEN_STATUS_DEVICE_ERROR;
    }
    if (!api::accept(
            f,
            [&]() -> std::string {
                if (given > stamp_instancer::max_instances)
                    return "*instance_count must be at most 2^24 (got " + std::to_string(given) + ")";
                std::string problem = stamp_instancer::check(p, given == 0);
                if (problem.empty()) problem = stamp_instancer::check(&s);
                for (uint32_t i = 0; problem.empty() && i < given; ++i)
                    problem = stamp_instancer::check(instances[i], i, s.count);
                return problem;
            },
            keep))
        return HALDEN_STATUS_DEVICE_ERROR;
    f.need_bytes = stamp_instancer::memory_estimate(p, s, given ? given : p.count);
    return api::run(*queue, f, [&] {
        stamp_instancer::StampInstancer stamper(queue->queue, heights, s, density, given ? instances : nullptr, given,
                                                p);
        if (!stamper.populate(instance_ids)) return HALDEN_STATUS_DEVICE_ERROR;
        if (!given && instance_count) {
            const std::vector<stamp_instancer::Instance>& placed = stamper.instances();
            if (instances) std::copy(placed.begin(), placed.end(), instances);
            *instance_count = uint32_t(placed.size());
        }
        return HALDEN_STATUS_OK;
    });
}
