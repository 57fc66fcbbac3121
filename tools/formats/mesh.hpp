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

// Reads the 'v' and 'f' statements of an OBJ file; every other statement
// (vt, vn, o, g, s, usemtl, mtllib, ...) and '#' comments are skipped. A
// vertex is "v x y z [w]" (w ignored); a face lists exactly three vertex
// references i, i/t, i//n or i/t/n, 1-based or, when negative, counted back
// from the last vertex read so far. On failure sets `error` to a message
// that starts with "path:line: " where a line is to blame.
bool read_mesh(const std::string& path, MeshData& mesh, std::string& error);
