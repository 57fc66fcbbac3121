// SPDX-License-Identifier: Apache-2.0
// Point clouds from files: packed (x, y, z) in double, so that georeferenced
// coordinates (UTM eastings of 500 km and more) keep their centimetres until
// the caller moves them near the origin.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct PointData {
    std::vector<double> xyz;  // packed (x, y, z), in file order

    size_t count() const { return xyz.size() / 3; }
};

// Reads the points of a file, recognised by its first bytes, else by its
// extension:
//   .npy   an N x 3 (or wider: the first three columns) float32 or float64 array
//   .ply   ascii or binary_little_endian; the vertex element's x, y and z
//          (any numeric type; other properties and elements skipped)
//   .las   LAS 1.2 to 1.4, point formats 0 to 10, uncompressed: the scaled
//          integer X, Y, Z with the header's scale and offset
//   other  text: x y z per line, separated by blanks or commas, further
//          columns ignored, '#' starting a comment, one header line allowed
// On failure sets `error` to a message that starts with "path: ".
bool read_points(const std::string& path, PointData& points, std::string& error);
