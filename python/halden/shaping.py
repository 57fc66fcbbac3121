"""Shaping: operations that move material on a height grid."""

import ctypes

import numpy as np
import numpy.typing as npt

from . import _calls, _checks, _native
from .queues import Queue


def thermal_shape(q: Queue, heights: npt.ArrayLike, mask: npt.ArrayLike | None = None, amount: float = -0.5,
                  strength: float = 1.0, height_scale: float = 1.0, extent: float | None = None,
                  level_factor: float = 0.125) -> npt.NDArray[np.float32]:
    """Wears down ridges (or fills valleys) by slope- and curvature-driven lowering.

    q:            the queue to run on
    heights:      2-D grid, any real dtype
    mask:         grid of the heights' shape; 0 keeps a cell, 1 shapes it
                  fully (default None: every cell fully)
    amount:       lowering rate per pass (default -0.5); negative wears ridges
                  and peaks, zero or positive shapes valleys
    strength:     blend with the input (default 1.0): 0 gives the input back,
                  1 the shaped grid, above 1 exaggerates
    height_scale: world height of one height unit, > 0 (default 1.0)
    extent:       world width of the whole grid, > 0 (default None: the width
                  in cells, so a cell is one height unit wide); larger is
                  gentler
    level_factor: scales the number of pyramid levels, > 0 (default 0.125:
                  the coarsest level is about 16 cells wide)
    Every number must be finite. Returns the shaped grid, float32, of the
    heights' shape. Takes no progress or cancel: the library reports neither
    for it.
    """
    grid = _checks.grid(heights)
    weights = _checks.mask(mask, grid.shape)
    rows, columns = grid.shape
    record = _native.ThermalParameters(
        columns, rows, _checks.positive(height_scale, "height_scale"),
        _checks.positive(columns if extent is None else extent, "extent"),
        _checks.positive(level_factor, "level_factor"), _checks.number(strength, "strength"),
        _checks.number(amount, "amount"), 0)
    _calls.run(_native.ThermalShaper_Process, q, _native.floats(grid), _native.floats(weights),
               ctypes.byref(record), _calls.TABLE)
    return grid
