"""Lighting: sun, shadows and sky visibility on a height grid."""

import ctypes
import math
from collections.abc import Callable
from typing import NamedTuple

import numpy as np
import numpy.typing as npt

from . import _calls, _checks, _native
from .queues import Queue


class Shading(NamedTuple):
    """Results of shade(), float32 grids of the heights' shape unless said otherwise.

    rgb:     colour, (rows, columns, 3); about 0 to 1 with the default
             exposure; None with colour=False
    diffuse: cosine of the sun on each cell's slope, 0 to 1
    shadow:  share of the sun's disc not hidden by terrain, 0 to 1; None
             with shadows=False
    sky:     sky visibility, 4 x the mean cosine of the open sky directions
             (about 2 on open flat ground); None with sky_visibility=False
    """
    rgb: npt.NDArray[np.float32] | None
    diffuse: npt.NDArray[np.float32]
    shadow: npt.NDArray[np.float32] | None
    sky: npt.NDArray[np.float32] | None


_SUN_COLOUR, _SKY_COLOUR, _SKY_STRENGTH = (1.0, 0.95, 0.85), (0.6, 0.7, 1.0), 0.4


def shade(q: Queue, heights: npt.ArrayLike, sun_azimuth: float = 225.0, sun_elevation: float = 35.0,
          shadow_rings: int = 1, sun_size: float = 0.53, sky_directions: int = 32, hybrid_sky: bool = False,
          shadows: bool = True, sky_visibility: bool = True, terrain_size: float | None = None,
          height_scale: float = 1.0, exposure: float = 0.6, albedo: npt.ArrayLike | None = None,
          colour: bool = True, cancel: Callable[[], object] | None = None) -> Shading:
    """Lights a height grid with sun and sky.

    Colour = (sun colour (1, 0.95, 0.85) x diffuse x shadow + 0.4 x sky colour
    (0.6, 0.7, 1) x sky) x exposure, or x albedo instead of exposure when one
    is given.

    q:              the queue to run on
    heights:        2-D grid, any real dtype
    sun_azimuth:    degrees from the +x axis (along a row) towards +y (down
                    the rows), finite (default 225: light from the upper left)
    sun_elevation:  degrees above the horizon, 0 to 90 (default 35)
    shadow_rings:   rings of sun samples across the sun's disc, 0 to 64:
                    3n^2 + 3n + 1 samples (default 1: 7 samples)
    sun_size:       apparent sun diameter in degrees, 0 (hard shadows) to
                    below 180 (default 0.53)
    sky_directions: sky directions for sky visibility, 1 to 4096 (default 32)
    hybrid_sky:     estimate sky visibility on a half-size grid, about a
                    quarter of the work (default False: trace every cell)
    shadows:        trace sun shadows (default True)
    sky_visibility: compute sky visibility (default True); switched off it
                    counts as 1 everywhere, which is less than the about 2
                    that open flat ground gets with it on
    terrain_size:   world width of the grid, > 0 (default None: the width in
                    cells, so a cell is one height unit wide)
    height_scale:   world height of one height unit, > 0 (default 1.0)
    exposure:       factor of the colour without albedo, finite (default 0.6,
                    which keeps sunlit ground below 1)
    albedo:         (rows, columns, 3) surface colour, any real dtype
                    (default None)
    colour:         compose the colour (default True); without it only the
                    light terms are made, which saves most of the time when
                    only diffuse is wanted
    cancel:         callable() asked once, after the tracing and before the
                    colour is composed; a true return cancels (default None).
                    The library reports no progress for shading.
    Returns a Shading. Raises Cancelled when cancelled; an exception raised
    by cancel is re-raised.

    The library traces shadows and sky visibility on square grids only. Any
    other grid with either switched on is padded to a square by repeating
    its last row or column, shaded with the same cell size, and cropped
    back; the repeated edge then stands in for the terrain beyond it.
    """
    azimuth = math.radians(_checks.number(sun_azimuth, "sun_azimuth"))
    elevation = math.radians(_checks.number(sun_elevation, "sun_elevation", lambda x: 0 <= x <= 90,
                                            "0 to 90 degrees"))
    rings = _checks.integer(shadow_rings, _native.i32, "shadow_rings", 0, 64)
    sun_size = _checks.number(sun_size, "sun_size", lambda x: 0 <= x < 180, "0 to below 180 degrees")
    directions = _checks.integer(sky_directions, _native.i32, "sky_directions", 1, 4096)
    height_scale, exposure = _checks.positive(height_scale, "height_scale"), _checks.number(exposure, "exposure")
    grid = _checks.grid(heights)
    rows, columns = grid.shape
    size = columns if terrain_size is None else _checks.positive(terrain_size, "terrain_size")
    albedo_grid = None if albedo is None else _checks.planes(albedo, "albedo", grid.shape)
    if (shadows or sky_visibility) and rows != columns:
        side = max(rows, columns)
        grid = np.pad(grid, ((0, side - rows), (0, side - columns)), mode="edge")
        if albedo_grid is not None:
            albedo_grid = np.pad(albedo_grid, ((0, 0), (0, side - rows), (0, side - columns)), mode="edge")
        size = size * side / columns  # the same cell size
    f32x3 = _native.f32 * 3
    record = _native.LightingParameters(
        width=grid.shape[1], height=grid.shape[0], terrain_size=size, height_scale=height_scale,
        sun_direction=f32x3(math.cos(elevation) * math.cos(azimuth), math.cos(elevation) * math.sin(azimuth),
                            math.sin(elevation)),
        shadow_samples=rings, sun_size=sun_size, ao_mode=1 if hybrid_sky else 0,
        ao_directions=directions, hybrid_ao_directions=directions, light_scale=1.0, sun_strength=1.0,
        sky_strength=_SKY_STRENGTH, sun_color=f32x3(*_SUN_COLOUR), sky_color=f32x3(*_SKY_COLOUR),
        exposure=exposure, sun_enabled=1, sky_enabled=1, shadows_enabled=bool(shadows),
        ao_enabled=bool(sky_visibility), ao_from_caller=0)
    # r, g, b, diffuse, shadow, sky; the unasked ones are never allocated
    planes = [np.empty(grid.shape, np.float32) if wanted else None
              for wanted in (colour, colour, colour, True, shadows, sky_visibility)]
    albedo_planes = [None] * 3 if albedo_grid is None else list(albedo_grid)
    floats = _native.floats
    _calls.run(_native.Shade, q, floats(grid), *map(floats, planes[3:]), *map(floats, planes[:3]),
               *map(floats, albedo_planes), ctypes.byref(record), _calls.TABLE, cancel=cancel)
    planes = [None if p is None else p[:rows, :columns] for p in planes]
    rgb = np.stack(planes[:3], axis=-1) if colour else None
    return Shading(rgb, np.ascontiguousarray(planes[3]),
                   np.ascontiguousarray(planes[4]) if shadows else None,
                   np.ascontiguousarray(planes[5]) if sky_visibility else None)
