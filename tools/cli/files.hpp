// SPDX-License-Identifier: Apache-2.0
// A command's inputs and outputs: reading grids with the command's --size
// and --range, the cells a file has no height for, and writing every output
// beside its target before replacing them all together. Reads and writes add
// their time to the context's.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "formats/grid_io.hpp"

namespace cli {

class Context;

// Reads the height grid IN with the command's --size and --range and fills
// its missing cells (their indices go to `missing`; see fill_missing).
// Returns kOk, or kIo after a message.
int read_heights(Context& context, const std::string& path, Grid& grid, std::vector<size_t>& missing);

// Reads the mask M of `grid`, read from IN, into `mask`: a raw mask comes in
// rows of IN's width, other formats bring their own shape, which must be
// IN's. PNG samples span 0 to 1; missing cells count as 0. Other per-cell
// grids of 0 to 1 (hardness, rain) are read the same way, `what` naming them
// in the message. Returns kOk or kIo after a message.
int read_mask(Context& context, const std::string& path, const std::string& in, const Grid& grid, Grid& mask,
              const char* what = "mask");

// Missing cells (NaN: a file's no-data cells) would spread through the
// kernels' neighbourhoods. They take the lowest height for the run and are
// missing again in the output. Returns their indices; sets `all` when no cell
// has a height.
std::vector<size_t> fill_missing(Grid& grid, bool& all);
void mark_missing(Grid& grid, const std::vector<size_t>& missing);

// The grid's width in metres when its georeference says: projected
// coordinates are taken as metres, degrees are converted at the grid's middle
// latitude. 0 when unknown.
double world_width(const Grid& grid);

// The world width of one cell: world_width / the grid's width, 0 when
// unknown.
double cell_width(const Grid& grid);

// The factor that fits an x/y box of span_x by span_y into a width x height
// grid: the largest that keeps it inside, along the one axis it spans when
// it is flat along the other, and 1 for a point.
double fit_scale(double span_x, double span_y, double width, double height);

// Whether the exports that take int32 sides and at most 2^31 - 1 cells (all
// but the median filter and the blur) can take the grid.
bool int32_grid_ok(const Grid& grid);

// Writes linear colour planes as an 8-bit sRGB PNG, rows top to bottom in
// grid order, staged in `outputs`.
bool write_picture(PendingOutputs& outputs, const std::string& path, uint32_t width, uint32_t height,
                   const float* r, const float* g, const float* b, std::string& error);

// A command's output files. Each is written beside its target as it comes
// and commit() moves them all into place, so that a failure on any of them
// leaves every target as it was; the notes about the files wait for the
// commit too. The methods return kOk, or kIo (kDevice when Ctrl-C was
// pressed, which commits nothing) after a message.
class Outputs {
  public:
    explicit Outputs(Context& context) : context_(context) {}
    int grid(const std::string& path, const Grid& grid, const HeightRange& range);
    int picture(const std::string& path, uint32_t width, uint32_t height, const float* r, const float* g,
                const float* b);
    int commit();

  private:
    Context& context_;
    PendingOutputs pending_;
    std::vector<std::string> notes_;
};

// Writes OUT, the only output of a command.
int write_output(Context& context, const std::string& path, const Grid& grid, const HeightRange& range);

}  // namespace cli
