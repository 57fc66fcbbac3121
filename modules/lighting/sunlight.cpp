// SPDX-License-Identifier: Apache-2.0
#include "modules/lighting/sunlight.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "core/accumulate.hpp"
#include "core/checks.hpp"
#include "device/messages.hpp"

namespace lighting {

using halden::compute::queue;
using halden::compute::range;
using halden::compute::usm_ptr;
using halden::core::got;

namespace {

constexpr double pi = 3.14159265358979323846;
constexpr double solar_constant = 1367.0;  // W/m^2
// Beam sums are kept in multiples of 2^-30 Wh/m^2: a year of sunlight stays
// below 2^24 Wh/m^2, far inside the 2^62 limit.
constexpr halden::core::fixed_point beam_fixed{30};
// The sweep adds trunc(2^18 cos) per reached cell.
constexpr double sweep_unit = 262144.0;

// Rayleigh optical thickness at air mass m (Kasten 1996, as used by Šúri and Hofierka).
double rayleigh_thickness(double m) {
    if (m <= 20.0) return 1.0 / (6.6296 + m * (1.7513 + m * (-0.1202 + m * (0.0065 - m * 0.00013))));
    return 1.0 / (10.4 + 0.718 * m);
}

// Relative optical air mass (Kasten and Young 1989) at the true altitude h
// (radians), corrected for refraction and thinned by the site's elevation.
double air_mass(double h, double elevation) {
    const double refraction =
        0.061359 * (0.1594 + 1.123 * h + 0.065656 * h * h) / (1.0 + 28.9344 * h + 277.3971 * h * h);
    const double apparent = h + refraction;
    const double degrees = apparent * 180.0 / pi;
    const double pressure = std::exp(-double(elevation) / 8434.5);
    return pressure / (std::sin(apparent) + 0.50572 * std::pow(degrees + 6.07995, -1.6364));
}

}  // namespace

std::string check(const SunLightParameters& p) {
    using halden::core::positive_finite;
    using halden::core::within;
    if (std::string problem = halden::core::check_grid_size(p.width, p.height); !problem.empty()) return problem;
    if (p.width != p.height)
        return "width and height must be equal: the shadows sweep a square grid (got " + std::to_string(p.width) +
               " x " + std::to_string(p.height) + ")";
    if (p.width > max_traced_width) return "width must be at most " + std::to_string(max_traced_width) + got(p.width);
    if (!positive_finite(p.terrain_size)) return "terrain_size must be positive and finite" + got(p.terrain_size);
    if (!positive_finite(p.height_scale)) return "height_scale must be positive and finite" + got(p.height_scale);
    if (!within(p.latitude, -90.0f, 90.0f)) return "latitude must lie in [-90, 90] degrees" + got(p.latitude);
    if (p.first_day < 1 || p.first_day > 366) return "first_day must lie in [1, 366]" + got(p.first_day);
    if (p.last_day < p.first_day || p.last_day > 366) return "last_day must lie in [first_day, 366]" + got(p.last_day);
    if (p.day_step < 1) return "day_step must be at least 1" + got(p.day_step);
    if (!within(p.time_step, 1.0f, 240.0f)) return "time_step must lie in [1, 240] minutes" + got(p.time_step);
    if (p.atmosphere == linke_turbidity) {
        if (!within(p.linke_turbidity, 0.5f, 10.0f))
            return "linke_turbidity must lie in [0.5, 10]" + got(p.linke_turbidity);
    } else if (p.atmosphere == plain_transmittance) {
        if (!(p.transmittance > 0.0f && p.transmittance <= 1.0f))
            return "transmittance must lie in (0, 1]" + got(p.transmittance);
    } else {
        return "atmosphere must be 0 (Linke turbidity) or 1 (transmittance)" + got(p.atmosphere);
    }
    if (!within(p.site_elevation, -500.0f, 9000.0f))
        return "site_elevation must lie in [-500, 9000] metres" + got(p.site_elevation);
    if (!within(p.albedo, 0.0f, 1.0f)) return "albedo must lie in [0, 1]" + got(p.albedo);
    if (p.sky_directions < 0 || p.sky_directions > max_sky_directions)
        return "sky_directions must lie in [0, " + std::to_string(max_sky_directions) + "]" + got(p.sky_directions);
    return {};
}

std::uint64_t memory_estimate(const SunLightParameters& p) {
    return 72u * std::uint64_t(p.width) * std::uint64_t(p.height);
}

double solar_declination(int day) {
    const double j = 2.0 * pi * day / 365.25;
    return std::asin(0.3978 * std::sin(j - 1.4 + 0.0355 * std::sin(j - 0.0489)));
}

double extraterrestrial_irradiance(int day) {
    const double j = 2.0 * pi * day / 365.25;
    return solar_constant * (1.0 + 0.03344 * std::cos(j - 0.048869));
}

std::vector<sun_position> sun_path(const SunLightParameters& p) {
    std::vector<sun_position> path;
    const double phi = double(p.latitude) * pi / 180.0;
    const double sin_phi = std::sin(phi), cos_phi = std::cos(phi);
    const double step_hours = double(p.time_step) / 60.0;
    const int steps = int(std::ceil(24.0 / step_hours - 1e-9));
    for (int day = p.first_day; day <= p.last_day; day += p.day_step) {
        const double days = double(std::min(p.day_step, p.last_day - day + 1));
        const double delta = solar_declination(day);
        const double sin_d = std::sin(delta), cos_d = std::cos(delta);
        const double g0 = extraterrestrial_irradiance(day);
        for (int k = 0; k < steps; ++k) {
            // The middle of each step from midnight; the last one may be short.
            const double start = k * step_hours, end = std::min(24.0, (k + 1) * step_hours);
            const double t = 0.5 * (start + end);
            const double omega = (t - 12.0) * pi / 12.0;
            const double sin_w = std::sin(omega), cos_w = std::cos(omega);
            const double sin_h = sin_phi * sin_d + cos_phi * cos_d * cos_w;
            if (!(sin_h > 0.0)) continue;
            const double h = std::asin(std::min(1.0, sin_h));
            const double east = -cos_d * sin_w;
            const double north = cos_phi * sin_d - sin_phi * cos_d * cos_w;
            const double length = std::sqrt(east * east + north * north + sin_h * sin_h);
            sun_position s;
            s.direction = {float(east / length), float(-north / length), float(sin_h / length)};
            s.altitude = h;
            s.hours = (end - start) * days;
            const double m = air_mass(h, p.site_elevation);
            if (p.atmosphere == plain_transmittance) {
                const double beam = std::pow(double(p.transmittance), m);
                s.beam_normal = g0 * beam;
                // Scattered light reaching the ground (Liu and Jordan's ratio).
                s.diffuse_horizontal = g0 * sin_h * 0.3 * (1.0 - beam);
            } else {
                const double tl = p.linke_turbidity;
                s.beam_normal = g0 * std::exp(-0.8662 * tl * m * rayleigh_thickness(m));
                // Šúri and Hofierka: the diffuse transmission at zenith and
                // its altitude function.
                const double tn = -0.015843 + tl * (0.030543 + tl * 0.0003797);
                double a1 = 0.26463 + tl * (-0.061581 + tl * 0.0031408);
                if (a1 * tn < 0.0022) a1 = 0.0022 / tn;
                const double a2 = 2.04020 + tl * (0.018945 - tl * 0.011161);
                const double a3 = -1.3025 + tl * (0.039231 + tl * 0.0085079);
                s.diffuse_horizontal = std::max(0.0, g0 * tn * (a1 + sin_h * (a2 + sin_h * a3)));
            }
            path.push_back(s);
        }
    }
    return path;
}

SunLight::SunLight(queue& q, const SunLightParameters& parameters, const host_grids& grids,
                   const halden_callbacks* callbacks)
    : m_queue(q),
      m_parameters(parameters),
      m_callbacks(halden::complete(callbacks)),
      m_host(grids),
      m_width(parameters.width),
      m_heights(q, grids.heights, halden::core::grid_extent(parameters.width, parameters.height)) {
    const std::string problem = check(m_parameters);
    if (!problem.empty()) throw std::invalid_argument(problem);
    if (!grids.irradiation) throw std::invalid_argument("null irradiation grid");
    if (grids.sky_view && m_parameters.sky_directions == 0)
        throw std::invalid_argument("sky_view needs sky_directions > 0");
    m_path = sun_path(m_parameters);
    const auto extent = m_heights.extent();
    m_normals = usm_ptr<vec4, 2>(q, extent, "normals");
    m_photons = usm_ptr<std::int32_t, 2>(q, extent, "photon map");
    m_sums = usm_ptr<std::int64_t, 1>(q, {2 * extent.rows * extent.cols}, "beam and hour sums");
    m_overflow = usm_ptr<std::uint32_t, 1>(q, {1}, "overflow flag");
    m_irradiation = halden::core::grid(q, extent, "irradiation");
    if (grids.sun_hours) m_sun_hours = halden::core::grid(q, extent, "sun hours");
    if (m_parameters.sky_directions > 0) m_sky_view = halden::core::grid(q, extent, "sky view");
    if (!m_path.empty()) {
        std::vector<vec3> directions;
        for (const sun_position& s : m_path) directions.push_back(s.direction);
        m_directions = usm_ptr<vec3, 1>(q, {directions.size()}, "sun directions");
        m_directions.copy_from_host(directions.data());
        const std::vector<vec2> centres(directions.size(), vec2{0.5f, 0.5f});
        m_jitters = usm_ptr<vec2, 1>(q, {centres.size()}, "sun jitters");
        m_jitters.copy_from_host(centres.data());
    }
}

SunLight::~SunLight() {
    try {
        m_queue.synchronize();
    } catch (...) {
    }
}

// Cosine-weighted sky view over the normal: the traced sky visibility
// divided by what the same directions give on flat open ground, so that flat
// open ground is exactly 1. Leaves the photon map cleared for the sun.
void SunLight::compute_sky_view() {
    const std::vector<vec3> sky = samples::sky(m_parameters.sky_directions);
    const std::vector<vec2> centres(sky.size(), vec2{0.5f, 0.5f});
    usm_ptr<vec3, 1> directions(m_queue, {sky.size()}, "sky directions");
    usm_ptr<vec2, 1> jitters(m_queue, {sky.size()}, "sky jitters");
    directions.copy_from_host(sky.data());
    jitters.copy_from_host(centres.data());
    raytrace_ao(m_queue, m_heights.get(), m_normals.get(), m_photons.get(), m_sky_view.get(), directions, jitters,
                m_width, m_parameters.terrain_size, m_parameters.height_scale);
    // The sweep's own arithmetic for the flat normal (0, 0, 1).
    std::int32_t open = 0;
    for (const vec3& d : sky) open += std::int32_t(262144.0f * (0.0f * d.x + 0.0f * d.y + 1.0f * d.z));
    const float open_ao = std::max(float(open) * 0x1p-16f / float(sky.size()), 0.0f);
    const float inverse = 1.0f / open_ao;
    float* view = m_sky_view.get();
    std::int32_t* photons = m_photons.get();
    m_queue.parallel_for(
        range<1>{m_sky_view.size()}, HALDEN_KERNEL(std::size_t i) {
            const float v = view[i] * inverse;
            view[i] = v < 1.0f ? v : 1.0f;
            photons[i] = 0;
        });
}

void SunLight::add_sun_position(int k) {
    const sun_position& s = m_path[std::size_t(k)];
    weighted_sums sums;
    sums.totals = m_sums.get();
    sums.overflow = m_overflow.get();
    sums.fixed = beam_fixed;
    // Wh/m^2 per sweep unit of cosine, and the hours in fixed point.
    sums.weight = float(s.beam_normal * s.hours / sweep_unit);
    sums.count = std::int64_t(std::llround(s.hours * beam_fixed.scale()));
    sweep_sky_sums(m_queue, m_heights.get(), m_normals.get(), m_directions.get() + k, m_jitters.get() + k, sums,
                   m_width, m_parameters.terrain_size, m_parameters.height_scale);
}

void SunLight::resolve() {
    const SunLightParameters& p = m_parameters;
    double diffuse = 0.0, global = 0.0, flat = 0.0;
    for (const sun_position& s : m_path) {
        const double sin_h = std::sin(s.altitude);
        diffuse += s.diffuse_horizontal * s.hours;
        global += (s.beam_normal * sin_h + s.diffuse_horizontal) * s.hours;
        flat += s.beam_normal * sin_h * s.hours;
    }
    if (p.diffuse == 0) diffuse = global = 0.0;
    flat += diffuse;
    const float sky_light = float(diffuse), reflected = float(global * p.albedo);
    const float scale = p.relative != 0 ? (flat > 0.0 ? float(1.0 / flat) : 0.0f) : 1.0f;
    const vec4* normals = m_normals.get();
    const std::int64_t* totals = m_sums.get();
    const float* view = m_sky_view.get();
    float* out = m_irradiation.get();
    float* hours = m_sun_hours.get();
    const halden::core::fixed_point fp = beam_fixed;
    m_queue.parallel_for(
        range<1>{m_irradiation.size()}, HALDEN_KERNEL(std::size_t i) {
            const float nz = normals[i].z;
            // Without traced sky view the slope sees the half-space its normal opens.
            const float sky = view ? view[i] : (1.0f + nz) * 0.5f;
            const float total = fp.decode(totals[2 * i]) + sky_light * sky + reflected * ((1.0f - nz) * 0.5f);
            out[i] = total * scale;
            if (hours) hours[i] = fp.decode(totals[2 * i + 1]);
        });
}

bool SunLight::run() {
    queue& q = m_queue;
    compute_normals_and_init_photonmap(q, m_heights.get(), m_normals.get(), m_photons.get(), m_width, m_width,
                                       m_parameters.terrain_size, m_parameters.height_scale);
    std::int64_t* totals = m_sums.get();
    q.parallel_for(
        range<1>{m_sums.size()}, HALDEN_KERNEL(std::size_t i) { totals[i] = 0; });
    std::uint32_t* overflow = m_overflow.get();
    q.parallel_for(
        range<1>{1}, HALDEN_KERNEL(std::size_t i) { overflow[i] = 0u; });
    if (m_parameters.sky_directions > 0) compute_sky_view();
    const int count = int(m_path.size());
    for (int k = 0; k < count; ++k) {
        add_sun_position(k);
        q.synchronize();
        const float percent = float(100.0 * double(k + 1) / double(count));
        if (m_callbacks.progress(percent) != 0 || m_callbacks.cancel() != 0) return false;
    }
    resolve();
    q.synchronize();
    if (m_callbacks.cancel() != 0) return false;
    // A failed device leaves the caller's arrays as they were.
    if (q.has_pending_errors()) return true;
    std::uint32_t flag = 0;
    m_overflow.copy_to_host(&flag);
    q.synchronize();
    if (flag != 0) throw std::runtime_error("the sunlight sums overflowed");
    m_irradiation.copy_to_host(m_host.irradiation);
    if (m_host.sun_hours) m_sun_hours.copy_to_host(m_host.sun_hours);
    if (m_host.sky_view) m_sky_view.copy_to_host(m_host.sky_view);
    q.synchronize();
    return true;
}

}  // namespace lighting
