// SPDX-License-Identifier: Apache-2.0
// Height grids in files: .npy, .npz, raw float32 and, when built with GDAL,
// every raster format GDAL reads (GeoTIFF, PNG, ESRI ASCII grid, SRTM .hgt,
// ...) or writes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Where a grid lies on the earth and which value marks its missing cells, as
// far as the file said; carried from an input to the outputs made from it.
struct Georeference {
    bool has_transform = false;
    double transform[6] = {};  // GDAL's affine geotransform
    std::string projection;    // WKT, empty when unknown
    bool has_nodata = false;
    double nodata = 0.0;
};

struct Grid {
    uint32_t width = 0;        // cells per row (a .npy file's columns)
    uint32_t height = 0;       // rows
    std::vector<float> cells;  // width * height values, row-major; NaN where the file had no data
    Georeference georeference;

    bool square() const { return width == height; }
};

// Integer PNG samples 0 .. 2^bits - 1 stand for heights LO .. HI.
using HeightRange = std::optional<std::pair<float, float>>;

struct ReadOptions {
    uint32_t width = 0;  // of a raw file; 0: the file must hold a square number of floats
    HeightRange range;   // of an integer PNG; otherwise its own scale and offset, or the samples as they are
};

// What a .npy header says: it is a Python dict literal such as
// "{'descr': '<f4', 'fortran_order': False, 'shape': (3, 4), }".
struct NpyHeader {
    std::string descr;
    bool fortran = false;
    std::vector<uint64_t> shape;
};

// Reads a .npy header's dict (the text after the length field) strictly, as
// a malformed one means a damaged or foreign file whose data would be
// misread; throws std::runtime_error with the reason.
NpyHeader parse_npy_header(std::string_view text);

// True when GDAL was built in.
bool have_gdal();

// Reads a grid, picking the format by the name's extension: .npy (any real
// dtype, converted to float32), .npz (its first 2-D array, or NAME with
// "FILE.npz:NAME"; needs GDAL), .raw/.f32/.r32/.bin (float32 rows of
// `options.width`), anything else through GDAL (band 1). Cells equal to the
// file's no-data value come back as NaN. `note` gets a line worth telling the
// user (how PNG samples were mapped), or stays empty. On failure sets `error`
// to "PATH: reason".
bool read_grid(const std::string& path, const ReadOptions& options, Grid& grid, std::string& error,
               std::string& note);

// Output files made beside their targets and moved over them together:
// a command with several outputs replaces none of them unless every one was
// written. Whatever was staged but not committed is removed when the object
// goes, so a failure leaves neither a target changed nor a temporary behind.
class PendingOutputs {
  public:
    PendingOutputs() = default;
    ~PendingOutputs();
    PendingOutputs(const PendingOutputs&) = delete;
    PendingOutputs& operator=(const PendingOutputs&) = delete;

    // Makes `path` in a private folder beside it: `make(made)` writes the
    // file, and any side files named after it, at `made`, a path of the same
    // name in that folder, and throws on failure. Writing under the final
    // name suits the GDAL drivers that insist on it (SRTM tiles) or add side
    // files (.aux.xml, .prj). On failure sets `error` to "PATH: reason".
    bool stage(const std::string& path, const std::function<void(const std::string&)>& make, std::string& error);

    // Moves every staged file over its target, the main file of each after
    // its side files. Targets that are folders are refused before anything
    // moves; renames within one folder do not otherwise fail in practice.
    bool commit(std::string& error);

  private:
    struct Staged {
        std::string path;    // the target
        std::string folder;  // the private folder beside it
    };
    std::vector<Staged> staged_;
};

// Stages `path` in `outputs` as a plain file that `write` fills.
bool stage_file(PendingOutputs& outputs, const std::string& path, const std::function<bool(std::FILE*)>& write,
                std::string& error);

// Stages a grid in the format of the name's extension, as read_grid picks
// it; .npz is read only. NaN cells take the grid's no-data value where it has
// one. GDAL formats get the georeference; a PNG gets 16-bit samples spanning
// `range`, or the grid's least and greatest heights, which `note` then
// states. Commit `outputs` to replace the file (and the side files GDAL
// writes beside it).
bool write_grid(PendingOutputs& outputs, const std::string& path, const Grid& grid, const HeightRange& range,
                std::string& error, std::string& note);
