// SPDX-License-Identifier: Apache-2.0
// Triangle meshes from files: the vertices and triangles the rasteriser takes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct MeshData {
    std::vector<float> vertices;      // packed (x, y, z)
    std::vector<uint32_t> triangles;  // packed triples of 0-based vertex indices, in file order

    size_t vertex_count() const { return vertices.size() / 3; }
    size_t triangle_count() const { return triangles.size() / 3; }
};

// Reads a mesh file in any format the mesh-import library knows (OBJ, PLY,
// glTF, FBX, STL and more): all of its meshes' triangles, with the scene's
// node transforms applied, faces of more corners split into triangles,
// points and lines left out, in the file's own coordinates and winding.
// Vertices repeated exactly are merged. On failure sets `error` to a
// message that starts with "path: ".
bool read_mesh(const std::string& path, MeshData& mesh, std::string& error);

// The mesh's x/y bounding box as read.
struct MeshBox {
    float x0, x1, y0, y1;
};

// Measures the box and negates every y. The grid's rows run down the
// picture while a mesh's y runs up it: turned over, the mesh's top lands on
// the first row, and the same flip turns counter-clockwise faces into the
// winding the library draws.
MeshBox turn_over(MeshData& mesh);
