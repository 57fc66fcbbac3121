// SPDX-License-Identifier: Apache-2.0
// The registry: every command of the tool, one line each, in the order
// 'halden --help' lists them.
//
//   X(FACTORY, "NAME", "SUMMARY")
//
// NAME is the command word, SUMMARY its line in 'halden --help', and FACTORY
// the function its file (commands/NAME.cpp) defines:
//
//   std::unique_ptr<cli::Command> commands::FACTORY() { return std::make_unique<MyCommand>(); }
#pragma once

#include <memory>

#include "cli/command.hpp"

#define HALDEN_COMMANDS(X)                                                                                    \
    X(devices, "devices", "list the devices and their keys")                                                  \
    X(median, "median", "median-filter a square height grid")                                                 \
    X(thermal_shape, "thermal-shape", "wear down the ridges (or fill the valleys) of a height grid")          \
    X(thermal_erode, "thermal-erode", "let the steep slopes of a height grid slide until they settle")        \
    X(erode, "erode", "erode a height grid with water droplets that carry sediment downhill")                 \
    X(flow, "flow", "map where water runs on a height grid")                                                  \
    X(shade, "shade", "light a height grid with sun and sky and write a PNG picture")                         \
    X(blur, "blur", "blur a square grid with an almost-Gaussian filter")                                      \
    X(rasterize, "rasterize", "render a triangle mesh (Wavefront OBJ) into a height grid")                    \
    X(cellular, "cellular", "render 3-D cellular noise, flat or following a height grid")                     \
    X(stamp, "stamp", "scatter copies of stamp grids (rocks, craters) over a height grid and blend them in")  \
    X(debris, "debris", "let rocks break off steep slopes and settle as scree and boulders")                  \
    X(color_transport, "color-transport", "carry colour downstream along the flow of water")                  \
    X(sunlight, "sunlight", "sum a day's or a season's sunlight over a height grid, with terrain shadows")    \
    X(dunes, "dunes", "blow the sand lying on a bedrock grid into dunes")                                     \
    X(rasterize_points, "rasterize-points", "grid a point cloud (lidar, photogrammetry) into a height grid")  \
    X(bake_normals, "bake-normals", "bake a height grid's detail into a tangent-space normal map for a mesh")  \
    X(demo, "demo", "shape, erode, flow-map and shade a generated terrain and a real one into pictures")

namespace commands {

#define HALDEN_DECLARE_COMMAND(factory, name, summary) std::unique_ptr<cli::Command> factory();
HALDEN_COMMANDS(HALDEN_DECLARE_COMMAND)
#undef HALDEN_DECLARE_COMMAND

struct Entry {
    const char* name;
    const char* summary;
    std::unique_ptr<cli::Command> (*make)();
};

#define HALDEN_COMMAND_ENTRY(factory, name, summary) {name, summary, factory},
inline constexpr Entry kCommands[] = {HALDEN_COMMANDS(HALDEN_COMMAND_ENTRY)};
#undef HALDEN_COMMAND_ENTRY

}  // namespace commands
