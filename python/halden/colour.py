"""Colour transport: colour carried downstream by the flow of water."""

import ctypes
from collections.abc import Callable

import numpy as np
import numpy.typing as npt

from . import _calls, _checks, _native
from .queues import Queue


def color_transport(q: Queue, heights: npt.ArrayLike, rgb: npt.ArrayLike, *, mask: npt.ArrayLike | None = None,
                    length: float = 0.5, pickup_rate: float = 0.05, deposit_weight: float = 1.0,
                    strength: float = 0.8, saturation: float = 4.0, seed: int = 1,
                    progress: Callable[[float], object] | bool | None = None,
                    cancel: Callable[[], object] | None = None) -> npt.NDArray[np.float32]:
    """Colours carried along the flow of water: rivers and gullies take on the
    colour of the material upstream.

    q:              the queue to run on
    heights:        2-D grid, any real dtype
    rgb:            colours of shape (rows, columns, 3), any real dtype and
                    finite range
    mask:           grid of the heights' shape scaling the change per cell, 0
                    to 1 (default None: 1 everywhere)
    length:         how far a long trace may run, as a fraction of the width,
                    finite and >= 0 (default 0.5), as in flow()
    pickup_rate:    how far the carried colour moves toward each crossed
                    cell's colour, 0 to 1 (default 0.05; 1 changes nothing)
    deposit_weight: weight of one visit, finite and > 0 (default 1.0)
    strength:       how far a colour moves toward the carried colour, 0 to 1
                    (default 0.8)
    saturation:     visit weight at which a cell moves half of the strength,
                    finite and >= 0 (default 4.0)
    seed:           seed of every random choice, 0 to 2^32 - 1 (default 1);
                    the same seed follows flow()'s paths
    progress:       callable(percent), percent a float rising from 0 to 100,
                    called as the run advances, a true return cancels; or
                    True for a text bar on stderr (default None: no report)
    cancel:         callable() polled as the run advances; a true return
                    cancels (default None)
    Returns the new colours, float32, of shape (rows, columns, 3).
    Raises Cancelled when cancelled; an exception raised by a callback
    cancels the run and is re-raised.
    """
    grid = _checks.grid(heights)
    # A fresh copy: the library overwrites the planes.
    planes = np.array(_checks.planes(rgb, "rgb", grid.shape), dtype=np.float32, order="C", copy=True)
    scale = _checks.mask(mask, grid.shape)
    rows, columns = grid.shape
    record = _native.ColorTransportParameters(
        columns, rows, _checks.integer(seed, _native.u32, "seed"), _checks.non_negative(length, "length"),
        _checks.between(pickup_rate, "pickup_rate", 0.0, 1.0), _checks.positive(deposit_weight, "deposit_weight"),
        _checks.between(strength, "strength", 0.0, 1.0), _checks.non_negative(saturation, "saturation"))
    _calls.run(_native.ColorTransportSimulation, q, _native.floats(grid), _native.floats(planes[0]),
               _native.floats(planes[1]), _native.floats(planes[2]),
               None if scale is None else _native.floats(scale), ctypes.byref(record), _calls.TABLE,
               progress=progress, cancel=cancel, label="color transport")
    return np.ascontiguousarray(np.moveaxis(planes, 0, -1))
