// SPDX-License-Identifier: Apache-2.0
// halden rasterize: renders a triangle mesh, seen from above, into a height
// grid.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>

#include "cli/device.hpp"
#include "cli/files.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"
#include "formats/mesh.hpp"

namespace {

class RasterizeCommand final : public cli::Command {
  public:
    void define(cli::Definition& d) override {
        d.description(
            "Renders the triangles of the mesh file MESH, seen from above, into\n"
            "a W x H float32 height grid on one device and writes it to OUT: a cell gets the\n"
            "greatest height (z) of the triangles covering its centre, or -FLT_MAX\n"
            "(-3.4028235e38) where none does. The mesh is fitted into the grid: the x/y\n"
            "bounding box of its vertices is scaled by one factor, the largest that keeps it\n"
            "inside, with its smallest x on the first column and its largest y on the first\n"
            "row (y points up the picture), so the box fills the whole width or the whole\n"
            "height and the rest of the grid stays uncovered. Heights are z times the same\n"
            "factor, so they keep their proportion to the cells: a mesh 10 units wide in a\n"
            "grid 1000 cells wide comes back with its heights multiplied by 100.\n"
            "\n"
            "MESH: any mesh format the import library reads: OBJ, PLY, STL, glTF/GLB, FBX,\n"
            "Collada and more. All of the file's meshes are drawn, with the scene's node\n"
            "transforms applied; faces of 4 or more vertices are split into triangles, points\n"
            "and lines are left out. Faces must be counter-clockwise seen from above (+z),\n"
            "the usual convention for a surface facing up; triangles wound the other way are\n"
            "culled (not drawn). A file the library cannot read, such as a bad number or an\n"
            "index past the vertices, exits 2 naming the file and the reason.\n");
        d.input("MESH", in_);
        d.output("OUT", out_);
        const cli::Option& size = d.pair("--size", "W H",
                                         "width and height of the grid in cells, 1 to 16384 each (1 to 8192 with "
                                         "--supersample)",
                                         true);
        d.text("--ids", ids_path_, "IDS",
               "also write the triangle-id grid: for each cell a value in [0, 1) fixed per triangle that names the "
               "triangle it took its height from, -1 where none covers it");
        d.flag("--supersample", supersample_,
               "render at twice the width and height and keep the greatest height of each 2 x 2 block: thin "
               "triangles that miss the cells' centres still show");
        d.check([this, &size]() -> int {
            // The library's side limit, which covers the doubled grid of a
            // supersampled render.
            const uint32_t limit = supersample_ ? 8192 : 16384;
            uint64_t width = 0, height = 0;
            if (!cli::parse_whole(size.text(), 1, limit, width) || !cli::parse_whole(size.second(), 1, limit, height))
                return cli::fail(cli::kUsage, "--size expects two whole numbers from 1 to %u, got '%s %s'", limit,
                                 size.text().c_str(), size.second().c_str());
            width_ = static_cast<uint32_t>(width);
            height_ = static_cast<uint32_t>(height);
            return cli::kOk;
        });
        d.operation(R"({"operation", "device", "width", "height", "vertices", "triangles", "covered", )"
                    R"("milliseconds", "timings"})",
                    cli::Definition::Grids::kWrite);
        d.footer(
            "The summary line counts the covered cells. A PNG OUT needs --range, as the\n"
            "uncovered cells' -FLT_MAX would take all of its samples' span. File formats and\n"
            "exit codes: see 'halden --help'.\n");
    }

    int run(cli::Context& c) override {
        MeshData mesh;
        std::string error;
        const bool read = cli::add_time(c.timings.read, [&] { return read_mesh(in_, mesh, error); });
        if (!read) return cli::fail(cli::kIo, "%s", error.c_str());
        if (mesh.triangle_count() == 0) return cli::fail(cli::kIo, "%s: no faces to render", in_.c_str());
        if (mesh.triangle_count() > UINT32_MAX)
            return cli::fail(cli::kIo, "%s: %zu triangles, more than the 2^32 - 1 a mesh may have", in_.c_str(),
                             mesh.triangle_count());

        // The grid's rows run down the picture while the mesh's y runs up it.
        // Negating y turns the mesh over so that its top lands on the first
        // row, and that same flip turns counter-clockwise faces into the
        // winding the library draws.
        float x0 = INFINITY, x1 = -INFINITY, y0 = INFINITY, y1 = -INFINITY;
        for (size_t i = 0; i < mesh.vertices.size(); i += 3) {
            x0 = std::min(x0, mesh.vertices[i]);
            x1 = std::max(x1, mesh.vertices[i]);
            y0 = std::min(y0, mesh.vertices[i + 1]);
            y1 = std::max(y1, mesh.vertices[i + 1]);
            mesh.vertices[i + 1] = -mesh.vertices[i + 1];
        }
        // In double: the spans of float coordinates may overflow float.
        const double span_x = static_cast<double>(x1) - x0, span_y = static_cast<double>(y1) - y0;
        double scale = 1.0;
        if (span_x > 0.0 && span_y > 0.0)
            scale = std::min(width_ / span_x, height_ / span_y);
        else if (span_x > 0.0)
            scale = width_ / span_x;
        else if (span_y > 0.0)
            scale = height_ / span_y;
        if (!std::isfinite(static_cast<float>(scale)))
            return cli::fail(cli::kIo, "%s: the mesh spans %g x %g, too little to scale to %ux%u cells in float32",
                             in_.c_str(), span_x, span_y, width_, height_);

        halden_mesh_rasterizer_parameters parameters{};
        parameters.width = static_cast<int32_t>(width_);
        parameters.height = static_cast<int32_t>(height_);
        parameters.centre[0] = x0;
        parameters.centre[1] = -y1;
        parameters.centre[2] = 0.0f;
        parameters.scale = static_cast<float>(scale);
        parameters.depth_divisor = 1.0f;
        parameters.shift = 0.0f;
        parameters.supersample = supersample_ ? 1 : 0;
        const halden_mesh record = {mesh.vertices.data(), static_cast<uint32_t>(mesh.vertex_count()), 0,
                                    mesh.triangles.data(), static_cast<uint32_t>(mesh.triangle_count()), 0};

        Grid heights{width_, height_, std::vector<float>(size_t{width_} * height_), {}};
        Grid ids{width_, height_, {}, {}};
        if (!ids_path_.empty()) ids.cells.resize(heights.cells.size());

        // The record comes back with the rendered (doubled) size when
        // supersampling; the grids stay width x height.
        if (const int code = cli::run_operation(
                c, "rasterizing", static_cast<double>(mesh.triangle_count()),
                [&](halden_queue* q, const halden_callbacks* callbacks) {
                    return MeshRasterizer_RenderMesh(q, &record, heights.cells.data(),
                                                     ids_path_.empty() ? nullptr : ids.cells.data(), &parameters,
                                                     callbacks);
                });
            code != cli::kOk)
            return code;
        cli::Outputs outputs(c);
        if (const int code = outputs.grid(out_, heights, c.read.range); code != cli::kOk) return code;
        if (!ids_path_.empty())
            if (const int code = outputs.grid(ids_path_, ids, {}); code != cli::kOk) return code;
        if (const int code = outputs.commit(); code != cli::kOk) return code;

        const size_t covered = static_cast<size_t>(
            std::count_if(heights.cells.begin(), heights.cells.end(), [](float h) { return h > -FLT_MAX; }));
        if (covered == 0 && !c.common.quiet)
            cli::warn("no triangle covers a cell's centre; faces wound clockwise seen from above (+z) are culled");
        c.report(cli::JsonObject()
                     .add("operation", "rasterize")
                     .add("device", c.key)
                     .add("width", width_)
                     .add("height", height_)
                     .add("vertices", mesh.vertex_count())
                     .add("triangles", mesh.triangle_count())
                     .add("covered", covered)
                     .add("milliseconds", c.call.milliseconds),
                 cli::format("rasterize %s: %zu vert%s, %zu triangle%s into %ux%u%s on %s: %.3f ms, %.1f "
                             "Mtriangles/s, %zu of %zu cells covered",
                             in_.c_str(), mesh.vertex_count(), mesh.vertex_count() == 1 ? "ex" : "ices",
                             mesh.triangle_count(), mesh.triangle_count() == 1 ? "" : "s", width_, height_,
                             supersample_ ? " (supersampled)" : "", c.key.c_str(), c.call.milliseconds, c.call.rate,
                             covered, heights.cells.size()));
        return cli::kOk;
    }

  private:
    std::string in_, out_, ids_path_;
    uint32_t width_ = 0, height_ = 0;
    bool supersample_ = false;
};

}  // namespace

std::unique_ptr<cli::Command> commands::rasterize() { return std::make_unique<RasterizeCommand>(); }
