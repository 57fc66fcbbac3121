"""Filters: smoothing a square height grid."""

import ctypes
import warnings

import numpy as np
import numpy.typing as npt

from . import _calls, _checks, _native
from .queues import Queue

_MEDIAN_PADDING = np.float32(1e8)  # what the library's sorting network pads its windows with


def median_filter(q: Queue, heights: npt.ArrayLike, radius: int = 3, iterations: int = 1) -> npt.NDArray[np.float32]:
    """Removes spikes and pits from a square grid while keeping edges.

    Each pass replaces every cell by the sum of the middle three values of a
    rounded disc around it times 0.333333 (their mean to about 1e-6; a
    constant grid comes back that little lower); edge cells are repeated.

    q:          the queue to run on
    heights:    square 2-D grid (rows == columns), any real dtype
    radius:     disc radius in cells, 1 to 8 (default 3; larger acts as 8)
    iterations: number of passes, 0 to 2^32 - 1 (default 1; 0 returns the
                grid unchanged)
    Returns the filtered grid, float32, of the heights' shape. Takes no
    progress or cancel: the library reports neither for it.

    Values above 1e8, +inf included, come back as about 1e8: the filter
    sorts them below the 1e8 it pads its windows with. A grid holding any
    draws a RuntimeWarning.
    """
    grid = _checks.grid(heights, square=True)
    # The library reads the radius as int32 and refuses 0 and below.
    record = _native.MedianParameters(grid.shape[0], _checks.integer(radius, _native.i32, "radius", low=1),
                                      _checks.integer(iterations, _native.u32, "iterations"), 0)
    above = np.count_nonzero(grid > _MEDIAN_PADDING) if record.iterations else 0
    if above:
        warnings.warn(f"{above} cells of the grid exceed 1e8; the median filter maps such values to about 1e8",
                      RuntimeWarning, stacklevel=2)
    _calls.run(_native.MedianFilter, q, _native.floats(grid), ctypes.byref(record))
    return grid


# The library's largest radius (a radius of 3e9 used to crash the process).
_BLUR_MAX_RADIUS = 16777216.0


def blur(q: Queue, heights: npt.ArrayLike, radius: float = 12.0) -> npt.NDArray[np.float32]:
    """Blurs a square grid with an almost-Gaussian filter (edge cells repeated).

    q:       the queue to run on
    heights: square 2-D grid (rows == columns), any real dtype, at most
             46340 cells wide
    radius:  in cells, finite, > 0 and at most 16777216 (default 12.0: four
             passes of a 25-cell box); fractions weight the next cell out
    Returns the blurred grid, float32, of the heights' shape. Takes no
    progress or cancel: the library reports neither for it.
    """
    radius = _checks.number(radius, "radius", lambda x: 0 < x <= _BLUR_MAX_RADIUS,
                            "finite, > 0 and at most 16777216")
    grid = _checks.grid(heights, square=True)
    _calls.run(_native.Blur, q, _native.floats(grid), grid.shape[0], radius, _calls.TABLE)
    return grid
