"""Flow maps: where water running downhill gathers."""

import ctypes
import math
from collections.abc import Callable

import numpy as np
import numpy.typing as npt

from . import _calls, _checks, _native
from .queues import Queue


def flow(q: Queue, heights: npt.ArrayLike, mask: npt.ArrayLike | None = None, length: float = 1.0,
         accumulation: float = 0.0, seed: int = 1, progress: Callable[[float], object] | bool | None = None,
         cancel: Callable[[], object] | None = None) -> npt.NDArray[np.float32]:
    """A flow map: where water running downhill from every cell gathers.

    q:            the queue to run on
    heights:      2-D grid, any real dtype
    mask:         grid of the heights' shape giving each cell's chance, 0 to
                  1, of releasing a particle (default None: every cell does)
    length:       how far a long trace may run, as a fraction of the width,
                  finite and >= 0 (default 1.0: across the map; 0: one visit
                  per trace); a trace may take at most 2^24 steps
    accumulation: weight of the linear part, finite (default 0.0: only the
                  saturating intensity, below about 0.03 per batch); larger
                  values make big rivers stand out
    seed:         seed of every random choice, 0 to 2^32 - 1 (default 1)
    progress:     callable(percent), percent a float rising from 0 to 100,
                  called as the run advances, a true return cancels; or True
                  for a text bar on stderr (default None: no report)
    cancel:       callable() polled as the run advances; a true return
                  cancels (default None)
    Returns the flow map, float32, of the heights' shape, 0 or more per cell.
    Raises Cancelled when cancelled; an exception raised by a callback
    cancels the run and is re-raised.
    """
    grid = _checks.grid(heights)
    seeding = _checks.mask(mask, grid.shape)
    # The library reads the seeding mask from the output grid.
    out = np.zeros_like(grid) if seeding is None else seeding
    rows, columns = grid.shape
    record = _native.FlowParameters(
        columns, rows, _checks.number(length, "length", lambda x: 0 <= x < math.inf, "finite and >= 0"),
        _checks.number(accumulation, "accumulation"), _checks.integer(seed, _native.u32, "seed"))
    _calls.run(_native.FlowSimulation, q, 1 if seeding is None else 0, _native.floats(grid), _native.floats(out),
               ctypes.byref(record), _calls.TABLE, progress=progress, cancel=cancel, label="flow")
    return out
