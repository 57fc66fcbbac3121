// SPDX-License-Identifier: Apache-2.0
// Clear-sky sunlight summed over a period, with terrain shadows.
//
// The host walks the sun's path (declination, hour angle, air mass after
// Kasten and Young, beam and diffuse light after the Linke turbidity model of
// Šúri and Hofierka) and turns it into one direction and one beam weight per
// sun position above the horizon. The device sweeps the shading module's sky
// rays once per position (horizons by sweeps, after Dozier and Frew): every
// cell a ray reaches gains the cosine between its normal and the sun, and the
// weighted cosines are summed in 64-bit fixed point, exact and
// order-independent over thousands of positions. Diffuse and reflected light
// depend on the sun's altitude alone, so their sums are two numbers that each
// cell scales by its sky view and its flatness.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "compute/compute.hpp"
#include "core/grid.hpp"
#include "halden/halden.h"
#include "modules/lighting/lighting.hpp"

namespace lighting {

enum atmosphere_model : std::int32_t { linke_turbidity = 0, plain_transmittance = 1 };

// Why a record cannot be run (naming the field), or empty when it can.
std::string check(const SunLightParameters& p);
// 72 bytes per cell.
std::uint64_t memory_estimate(const SunLightParameters& p);

// Solar declination (radians) and the extraterrestrial irradiance normal to
// the beam (W/m^2) on a day of the year.
double solar_declination(int day);
double extraterrestrial_irradiance(int day);

// One sun position above the horizon and the light it stands for.
struct sun_position {
    vec3 direction;             // towards the sun: x east, y south, z up
    double altitude;            // radians
    double hours;               // the time it stands for, days included
    double beam_normal;         // W/m^2, normal to the beam
    double diffuse_horizontal;  // W/m^2 on open flat ground
};
// Every position of the period, day by day, morning first.
std::vector<sun_position> sun_path(const SunLightParameters& p);

class SunLight {
public:
    struct host_grids {
        const float* heights;
        float *irradiation, *sun_hours, *sky_view;
    };
    // Checks the record and uploads the heights. Cancel and progress go
    // through `callbacks` (null: none).
    SunLight(halden::compute::queue& q, const SunLightParameters& parameters, const host_grids& grids,
             const halden_callbacks* callbacks = nullptr);
    ~SunLight();
    SunLight(const SunLight&) = delete;
    SunLight& operator=(const SunLight&) = delete;

    // Runs every step and writes the outputs; false (nothing written) when
    // the caller cancelled.
    bool run();

    void compute_sky_view();
    // Sweeps sun position k and adds its weighted cosines.
    void add_sun_position(int k);
    void resolve();

private:
    halden::compute::queue& m_queue;
    SunLightParameters m_parameters;
    halden_callbacks m_callbacks;
    host_grids m_host;
    int m_width;
    std::vector<sun_position> m_path;
    halden::core::grid_buffer m_heights;
    halden::compute::usm_ptr<vec4, 2> m_normals;
    halden::compute::usm_ptr<std::int32_t, 2> m_photons;
    // Per cell the beam light (Wh/m^2) and the sunlit hours, fixed point, side by side.
    halden::compute::usm_ptr<std::int64_t, 1> m_sums;
    halden::compute::usm_ptr<std::uint32_t, 1> m_overflow;
    halden::compute::usm_ptr<vec3, 1> m_directions;
    halden::compute::usm_ptr<vec2, 1> m_jitters;
    halden::core::grid m_sky_view, m_irradiation, m_sun_hours;
};

}  // namespace lighting
