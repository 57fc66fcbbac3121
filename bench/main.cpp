// SPDX-License-Identifier: Apache-2.0
// The benchmarks of every operation, per listed device.
#include <benchmark/benchmark.h>

void register_median_filter_benchmarks();
void register_thermal_shaper_benchmarks();
void register_thermal_benchmarks();
void register_erosion_benchmarks();
void register_resampling_benchmarks();
void register_flow_benchmarks();
void register_color_transport_benchmarks();
void register_shade_benchmarks();
void register_mesh_rasterizer_benchmarks();
void register_cellular3d_benchmarks();
void register_stamp_instancer_benchmarks();
void register_debris_benchmarks();
void register_dune_benchmarks();
void register_sunlight_benchmarks();
void register_point_cloud_benchmarks();
void register_tangent_normals_benchmarks();
void register_triplanar_benchmarks();

int main(int argc, char** argv) {
    register_median_filter_benchmarks();
    register_thermal_shaper_benchmarks();
    register_thermal_benchmarks();
    register_erosion_benchmarks();
    register_resampling_benchmarks();
    register_flow_benchmarks();
    register_color_transport_benchmarks();
    register_shade_benchmarks();
    register_mesh_rasterizer_benchmarks();
    register_cellular3d_benchmarks();
    register_stamp_instancer_benchmarks();
    register_debris_benchmarks();
    register_dune_benchmarks();
    register_sunlight_benchmarks();
    register_point_cloud_benchmarks();
    register_tangent_normals_benchmarks();
    register_triplanar_benchmarks();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
