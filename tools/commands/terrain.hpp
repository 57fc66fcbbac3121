// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "formats/grid_io.hpp"

// A deterministic fractal terrain of size x size cells, heights in metres
// roughly 0 to 1000, sprinkled with single-cell spikes and pits.
Grid make_terrain(uint32_t size);
