// SPDX-License-Identifier: Apache-2.0
// halden bake-normals: bakes a height grid's detail into a tangent-space
// normal map for a low-polygon mesh of the same terrain.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"
#include "formats/mesh.hpp"
#include "formats/png.hpp"

namespace {

class BakeNormalsCommand final : public cli::Command {
public:
    void define(cli::Definition& d) override {
        d.description(
            "Bakes the detail of the height grid HEIGHTS into a tangent-space normal map\n"
            "for MESH, a low-polygon mesh of the same terrain, on one device, and writes it\n"
            "to OUT.png: an 8-bit RGB PNG of the grid's size holding 0.5 x + 0.5 per\n"
            "component (linear, not sRGB), top row first. The texture coordinates are the\n"
            "mesh seen from above: u along the grid's rows, v up the picture. The frame is\n"
            "the one engines rebuild from the mesh's vertices (normals, tangents along u\n"
            "and the bitangent's sign), so the map shows only what the mesh lacks: a mesh\n"
            "that follows the heights gives (0, 0, 1), the flat blue (128, 128, 255).\n"
            "\n"
            "MESH is in world units, as the heights are: x runs from 0 on the grid's left\n"
            "edge to the terrain size on its right, y from 0 on its bottom edge up to the\n"
            "first row, and z is the height times the height scale. With --fit the mesh's\n"
            "x/y bounding box is fitted into the grid instead, as 'halden rasterize' does.\n"
            "Faces must be counter-clockwise seen from above (+z); the others are culled.\n"
            "Cells no triangle covers take the mean of their filled neighbours for --margin\n"
            "rings of cells, and (0, 0, 1) beyond.\n");
        d.input("MESH", mesh_path_);
        d.input("HEIGHTS", in_);
        d.output("OUT.png", out_);
        terrain_size_option_ = &d.number(
            "--terrain-size", terrain_size_, cli::Sign::kPositive, "S",
            "world width of the whole grid, > 0 (default: from HEIGHTS' georeference in metres, else the width in "
            "cells, so one cell is one height unit wide)");
        d.number("--height-scale", height_scale_, cli::Sign::kPositive, "H",
                 "world height of one height unit, > 0 (default 1)");
        d.flag("--directx", directx_,
               "DirectX's green (pointing down the picture) instead of OpenGL's (pointing up it)");
        d.whole("--margin", margin_, 0, 64, "N",
                "rings of uncovered cells around the mesh's footprint that take their neighbours' normals, 0 to 64 "
                "(default 2)");
        d.flag("--fit", fit_, "fit the mesh's x/y bounding box into the grid instead of reading it in world units");
        d.text("--red", plane_paths_[0], "R", "also write the signed x component (-1 to 1) as a float grid");
        d.text("--green", plane_paths_[1], "G", "also write the signed y component (-1 to 1) as a float grid");
        d.text("--blue", plane_paths_[2], "B", "also write the signed z component (-1 to 1) as a float grid");
        d.check([this]() -> int {
            if (!has_png_extension(out_)) return cli::fail(cli::kUsage, "%s: OUT must be a .png file", out_.c_str());
            return cli::kOk;
        });
        d.operation(R"({"operation", "device", "width", "height", "vertices", "triangles", "milliseconds", )"
                    R"("timings"})");
        d.footer(
            "OUT must end in .png. Numbers must be finite and in plain decimal or exponent\n"
            "form. File formats and exit codes: see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        MeshData mesh;
        std::string error;
        const bool read = cli::add_time(c.timings.read, [&] { return read_mesh(mesh_path_, mesh, error); });
        if (!read) return cli::fail(cli::kIo, "%s", error.c_str());
        if (mesh.triangle_count() == 0) return cli::fail(cli::kIo, "%s: no faces to bake", mesh_path_.c_str());
        if (mesh.triangle_count() > (1u << 30))
            return cli::fail(cli::kIo, "%s: %zu triangles, more than the 2^30 a bake may have", mesh_path_.c_str(),
                             mesh.triangle_count());
        Grid heights;
        std::vector<size_t> missing;
        if (const int code = cli::read_heights(c, in_, heights, missing); code != cli::kOk) return code;
        if (!cli::int32_grid_ok(heights) || heights.width > 16384 || heights.height > 16384)
            return cli::fail(cli::kIo,
                             "%s: baking takes at most 16384 cells a side and 2^31 - 1 cells, this grid is "
                             "%ux%u",
                             in_.c_str(), heights.width, heights.height);
        if (!terrain_size_option_->given()) {
            const double metres = cli::world_width(heights);
            terrain_size_ = static_cast<float>(metres > 0.0 ? metres : heights.width);
        }

        const auto [x0, x1, y0, y1] = turn_over(mesh);
        const double w = heights.width, h = heights.height;
        // World units to cells; --fit takes the largest factor that keeps the box inside.
        double scale = w / terrain_size_, left = 0.0, top = h / scale;
        if (fit_) {
            const double span_x = static_cast<double>(x1) - x0, span_y = static_cast<double>(y1) - y0;
            scale = cli::fit_scale(span_x, span_y, w, h);
            left = x0, top = y1;
        }
        // Mesh heights in world units become height units: z * scale / (scale * H).
        const double divisor = scale * height_scale_;
        if (!std::isfinite(static_cast<float>(scale)) || !std::isfinite(static_cast<float>(divisor)) ||
            static_cast<float>(divisor) == 0.0f)
            return cli::fail(cli::kIo, "%s: the mesh cannot be scaled to %ux%u cells in float32", mesh_path_.c_str(),
                             heights.width, heights.height);

        halden_tangent_parameters parameters{};
        parameters.transform.width = static_cast<int32_t>(heights.width);
        parameters.transform.height = static_cast<int32_t>(heights.height);
        parameters.transform.centre[0] = static_cast<float>(left);
        parameters.transform.centre[1] = static_cast<float>(-top);
        parameters.transform.scale = static_cast<float>(scale);
        parameters.transform.depth_divisor = static_cast<float>(divisor);
        parameters.terrain_size = terrain_size_;
        parameters.height_scale = height_scale_;
        parameters.margin = static_cast<int32_t>(margin_);
        parameters.encoding = HALDEN_TANGENT_SIGNED;
        parameters.flip_green = directx_ ? 1u : 0u;
        const halden_mesh record = {mesh.vertices.data(),  static_cast<uint32_t>(mesh.vertex_count()),   0,
                                    mesh.triangles.data(), static_cast<uint32_t>(mesh.triangle_count()), 0};

        const size_t cells = heights.cells.size();
        std::vector<float> planes(3 * cells);
        if (const int code = cli::run_operation(c, "baking", static_cast<double>(cells),
                                                [&](halden_queue* q, const halden_callbacks* callbacks) {
                                                    return MeshRasterizer_ComputeTangentSpaceNormals(
                                                        q, &record, heights.cells.data(), planes.data(),
                                                        planes.data() + cells, planes.data() + 2 * cells, &parameters,
                                                        callbacks);
                                                });
            code != cli::kOk)
            return code;

        PendingOutputs pending;
        const int written = cli::add_time(c.timings.write, [&] {
            std::vector<uint8_t> rgb(3 * cells);
            for (size_t i = 0; i < 3 * cells; ++i) {
                const float v = planes[(i % 3) * cells + i / 3];
                rgb[i] = static_cast<uint8_t>(std::lround(std::clamp(0.5f * v + 0.5f, 0.0f, 1.0f) * 255.0f));
            }
            if (!write_png_rgb(pending, out_, heights.width, heights.height, rgb, error))
                return cli::fail(cli::kIo, "%s", error.c_str());
            for (int k = 0; k < 3; ++k) {
                if (plane_paths_[k].empty()) continue;
                const float* plane = planes.data() + k * cells;
                const Grid grid{heights.width, heights.height, std::vector<float>(plane, plane + cells),
                                heights.georeference};
                std::string said;
                if (!write_grid(pending, plane_paths_[k], grid, {}, error, said))
                    return cli::fail(cli::kIo, "%s", error.c_str());
            }
            return static_cast<int>(cli::kOk);
        });
        if (written != cli::kOk) return written;
        if (!pending.commit(error)) return cli::fail(cli::kIo, "%s", error.c_str());

        c.report(
            cli::JsonObject()
                .add("operation", "bake-normals")
                .add("device", c.key)
                .add("width", heights.width)
                .add("height", heights.height)
                .add("vertices", mesh.vertex_count())
                .add("triangles", mesh.triangle_count())
                .add("milliseconds", c.call.milliseconds),
            cli::format("bake-normals %s: %zu vert%s, %zu triangle%s against %ux%u (%s) on %s: %.3f ms, "
                        "%.1f Mcells/s",
                        mesh_path_.c_str(), mesh.vertex_count(), mesh.vertex_count() == 1 ? "ex" : "ices",
                        mesh.triangle_count(), mesh.triangle_count() == 1 ? "" : "s", heights.width, heights.height,
                        directx_ ? "DirectX" : "OpenGL", c.key.c_str(), c.call.milliseconds, c.call.rate));
        return cli::kOk;
    }

private:
    std::string mesh_path_, in_, out_, plane_paths_[3];
    float terrain_size_ = 0.0f, height_scale_ = 1.0f;
    uint32_t margin_ = 2;
    bool directx_ = false, fit_ = false;
    const cli::Option* terrain_size_option_ = nullptr;
};

}  // namespace

std::unique_ptr<cli::Command> commands::bake_normals() { return std::make_unique<BakeNormalsCommand>(); }
