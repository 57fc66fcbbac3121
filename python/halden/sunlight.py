"""Sunlight summed over a day or a season, with terrain shadows."""

import ctypes
from collections.abc import Callable
from typing import NamedTuple

import numpy as np
import numpy.typing as npt

from . import _calls, _checks, _native
from .queues import Queue


class Sunlight(NamedTuple):
    """Results of sunlight(), float32 grids of the heights' shape.

    irradiation: Wh/m^2 over the period (beam, diffuse and reflected), or
                 relative to flat open ground with relative=True
    sun_hours:   hours each cell sees the sun
    sky_view:    share of the sky each cell sees, 1 on flat open ground; None
                 with sky_directions=0
    """
    irradiation: npt.NDArray[np.float32]
    sun_hours: npt.NDArray[np.float32]
    sky_view: npt.NDArray[np.float32] | None


def sunlight(q: Queue, heights: npt.ArrayLike, *, cell_size: float = 1.0, height_scale: float = 1.0,
             latitude: float = 45.0, first_day: int = 172, last_day: int | None = None, day_step: int = 1,
             time_step: float = 10.0, linke_turbidity: float = 3.0, transmittance: float | None = None,
             site_elevation: float = 0.0, albedo: float = 0.2, sky_directions: int = 32, diffuse: bool = True,
             relative: bool = False, progress: Callable[[float], object] | bool | None = None,
             cancel: Callable[[], object] | None = None) -> Sunlight:
    """Sums the clear-sky sunlight of a period on every cell of a height grid.

    Row 0 is the north edge and the columns run east. Each sun position above
    the horizon (every time_step minutes of solar time, on every day_step-th
    day) lights each cell's slope where no terrain stands in the way; diffuse
    sky light and light reflected by the ground add to it.

    q:               the queue to run on
    heights:         2-D grid, any real dtype, in height units
    cell_size:       width of one cell in metres, > 0 (default 1.0)
    height_scale:    metres per height unit, > 0 (default 1.0)
    latitude:        degrees, -90 to 90 (default 45)
    first_day:       day of the year, 1 to 366 (default 172, midsummer)
    last_day:        last day, first_day to 366 (default None: first_day)
    day_step:        sample every day_step-th day, each standing for
                     day_step days, >= 1 (default 1)
    time_step:       minutes between sun positions, 1 to 240 (default 10)
    linke_turbidity: haze of the air, 0.5 to 10 (default 3)
    transmittance:   instead of the Linke turbidity, the share of the beam
                     that one air mass lets through, above 0 and at most 1
                     (default None)
    site_elevation:  metres above sea level, -500 to 9000 (default 0)
    albedo:          ground reflectance, 0 to 1 (default 0.2)
    sky_directions:  hemisphere directions traced for the sky view, 0 to
                     4096 (default 32); 0 lets slopes see their open
                     half-sky and returns no sky_view
    diffuse:         add diffuse and reflected light (default True)
    relative:        irradiation relative to flat open ground (default False)
    progress:        callable(percent), called once per sun position, a true
                     return cancels; or True for a text bar on stderr
    cancel:          callable() polled as the run advances; a true return
                     cancels (default None)
    Returns a Sunlight. Raises Cancelled when cancelled.

    Shadows are traced on square grids only: any other grid is padded to a
    square by repeating its last row or column and cropped back.
    """
    grid = _checks.grid(heights)
    rows, columns = grid.shape
    first = _checks.integer(first_day, _native.i32, "first_day", 1, 366)
    last = first if last_day is None else _checks.integer(last_day, _native.i32, "last_day", first, 366)
    record = _native.SunLightParameters(
        height_scale=_checks.positive(height_scale, "height_scale"),
        latitude=_checks.between(latitude, "latitude", -90, 90), first_day=first, last_day=last,
        day_step=_checks.integer(day_step, _native.i32, "day_step", 1, 366),
        time_step=_checks.between(time_step, "time_step", 1, 240),
        atmosphere=0 if transmittance is None else 1,
        linke_turbidity=_checks.between(linke_turbidity, "linke_turbidity", 0.5, 10),
        transmittance=1.0 if transmittance is None else _checks.between(transmittance, "transmittance", 0, 1,
                                                                        above=True),
        site_elevation=_checks.between(site_elevation, "site_elevation", -500, 9000),
        albedo=_checks.between(albedo, "albedo", 0, 1),
        sky_directions=_checks.integer(sky_directions, _native.i32, "sky_directions", 0, 4096),
        diffuse=bool(diffuse), relative=bool(relative))
    cell = _checks.positive(cell_size, "cell_size")
    if rows != columns:
        side = max(rows, columns)
        grid = np.pad(grid, ((0, side - rows), (0, side - columns)), mode="edge")
    record.width = record.height = grid.shape[0]
    record.terrain_size = cell * grid.shape[0]
    out = [np.empty(grid.shape, np.float32) for _ in range(2)]
    view = np.empty(grid.shape, np.float32) if record.sky_directions > 0 else None
    _calls.run(_native.SunLightIntegral, q, _native.floats(grid), _native.floats(out[0]), _native.floats(out[1]),
               _native.floats(view), ctypes.byref(record), _calls.TABLE, progress=progress, cancel=cancel,
               label="sunlight")
    crop = (slice(0, rows), slice(0, columns))
    return Sunlight(np.ascontiguousarray(out[0][crop]), np.ascontiguousarray(out[1][crop]),
                    None if view is None else np.ascontiguousarray(view[crop]))
