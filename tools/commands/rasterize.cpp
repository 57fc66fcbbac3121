// SPDX-License-Identifier: Apache-2.0
// halden rasterize: renders a triangle mesh, seen from above, into a height
// grid, optionally displaced by a texture projected along the three axes.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <string>
#include <utility>

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
            "index past the vertices, exits 2 naming the file and the reason.\n"
            "\n"
            "--displace TEXTURE first moves the surface along its vertex normals by a\n"
            "repeating texture projected along x, y and z (triplanar), blended by the weights\n"
            "|n|^SHARPNESS of the normal's components, so that steep faces and cliffs get\n"
            "detail too: each point moves by AMPLITUDE x (texture - MIDLEVEL) mesh units,\n"
            "which the fit scales like the heights. Edges are cut into pieces of about\n"
            "--edge-length cells, each edge once for both of its triangles, so the surface\n"
            "stays closed; --ids then names the triangle each piece was cut from. TEXTURE is\n"
            "any grid the tool reads (a PNG's samples span 0 to 1, no-data texels displace\n"
            "nothing); seen from above it lies like the output, its first row at the mesh's\n"
            "largest y and its first column at its smallest x. --amplitude 0 renders what the\n"
            "command renders without --displace, bit for bit.\n");
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
        d.text("--displace", texture_path_, "TEXTURE",
               "displace the surface by this texture, projected along the three axes (see above)");
        const cli::Option& texture_size =
            d.number("--texture-size", texture_size_, cli::Sign::kPositive, "S",
                     "mesh units one repeat of TEXTURE spans, above 0 (default: the larger of the mesh's x and y "
                     "spans, so that one repeat covers it)");
        const cli::Option& amplitude = d.number("--amplitude", amplitude_, cli::Sign::kAny, "A",
                                                "mesh units of displacement per texture unit (default 1)");
        const cli::Option& midlevel = d.number("--midlevel", midlevel_, cli::Sign::kAny, "M",
                                               "the texture value that displaces nothing (default 0.5)");
        const cli::Option& sharpness =
            d.number("--sharpness", sharpness_, cli::Interval{0.0f, true, 64.0f, true}, "K",
                     "exponent of the blend weights, 0 to 64: higher keeps each projection to the faces that look "
                     "its way (default 4)");
        const cli::Option& edge_length = d.number("--edge-length", edge_length_, cli::Sign::kPositive, "L",
                                                  "wanted length of a piece's edge in cells, above 0 (default 1)");
        const cli::Option& subdivision =
            d.whole("--max-subdivision", max_subdivision_, 1, 1024, "N",
                    "most pieces one edge is cut into, 1 to 1024 (default 64); at most 2^30 pieces in all");
        d.check([this, &size, &texture_size, &amplitude, &midlevel, &sharpness, &edge_length, &subdivision]() -> int {
            if (texture_path_.empty())
                for (const cli::Option* o :
                     {&texture_size, &amplitude, &midlevel, &sharpness, &edge_length, &subdivision})
                    if (o->given()) return cli::fail(cli::kUsage, "%s needs --displace", o->name().c_str());
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

        const auto [x0, x1, y0, y1] = turn_over(mesh);
        // In double: the spans of float coordinates may overflow float.
        const double span_x = static_cast<double>(x1) - x0, span_y = static_cast<double>(y1) - y0;
        const double scale = cli::fit_scale(span_x, span_y, width_, height_);
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
        halden_triplanar_parameters displaced{};
        halden_texture texture{};
        Grid texels;
        if (!texture_path_.empty()) {
            if (const int code = read_texture(c, texels); code != cli::kOk) return code;
            texture = {texels.cells.data(), static_cast<int32_t>(texels.width), static_cast<int32_t>(texels.height)};
            // The texture is read at the mesh's own coordinates: moving the
            // box's top-left corner (after the flip) to the origin lays its
            // first texel there. centre - x == -x + centre exactly, so the
            // grid coordinates keep their bits.
            for (size_t i = 0; i < mesh.vertices.size(); i += 3) {
                mesh.vertices[i] -= x0;
                mesh.vertices[i + 1] += y1;
            }
            parameters.centre[0] = 0.0f;
            parameters.centre[1] = 0.0f;
            float repeat = texture_size_;
            if (repeat == 0.0f) {
                repeat = static_cast<float>(std::max(span_x, span_y));
                if (!(repeat > 0.0f) || !std::isfinite(repeat)) repeat = 1.0f;
            }
            displaced = {parameters, repeat, amplitude_, midlevel_, sharpness_, edge_length_, max_subdivision_};
        }
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
                    if (!texture_path_.empty())
                        return MeshRasterizer_RenderMeshWithTriplanarDisplacement(
                            q, &record, heights.cells.data(), ids_path_.empty() ? nullptr : ids.cells.data(), &texture,
                            &displaced, callbacks);
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
        const std::string displaced_by =
            texture_path_.empty()
                ? ""
                : cli::format(", displaced by %s (%ux%u)", texture_path_.c_str(), texels.width, texels.height);
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
                 cli::format("rasterize %s: %zu vert%s, %zu triangle%s into %ux%u%s%s on %s: %.3f ms, %.1f "
                             "Mtriangles/s, %zu of %zu cells covered",
                             in_.c_str(), mesh.vertex_count(), mesh.vertex_count() == 1 ? "ex" : "ices",
                             mesh.triangle_count(), mesh.triangle_count() == 1 ? "" : "s", width_, height_,
                             supersample_ ? " (supersampled)" : "", displaced_by.c_str(), c.key.c_str(),
                             c.call.milliseconds, c.call.rate, covered, heights.cells.size()));
        return cli::kOk;
    }

  private:
    // TEXTURE as the library takes it: PNG samples span 0 to 1 and no-data
    // texels take the midlevel, which displaces nothing.
    int read_texture(cli::Context& c, Grid& texels) const {
        std::string error, note;
        ReadOptions options;
        options.range = std::make_pair(0.0f, 1.0f);
        if (!cli::add_time(c.timings.read, [&] { return read_grid(texture_path_, options, texels, error, note); }))
            return cli::fail(cli::kIo, "%s", error.c_str());
        if (texels.width > 65536 || texels.height > 65536)
            return cli::fail(cli::kIo, "%s: a texture may have at most 65536 rows and columns, this is %ux%u",
                             texture_path_.c_str(), texels.width, texels.height);
        for (float& v : texels.cells)
            if (!std::isfinite(v)) v = midlevel_;
        return cli::kOk;
    }

    std::string in_, out_, ids_path_, texture_path_;
    uint32_t width_ = 0, height_ = 0;
    bool supersample_ = false;
    float texture_size_ = 0.0f;  // 0: the mesh's larger span
    float amplitude_ = 1.0f, midlevel_ = 0.5f, sharpness_ = 4.0f, edge_length_ = 1.0f;
    uint32_t max_subdivision_ = 64;
};

}  // namespace

std::unique_ptr<cli::Command> commands::rasterize() { return std::make_unique<RasterizeCommand>(); }
