"""Noise: 3-D cellular noise sampled on a grid, flat or along a height grid."""

import ctypes
from collections.abc import Callable

import numpy as np
import numpy.typing as npt

from . import _calls, _checks, _native
from .queues import Queue

# The names of the library's metrics and results, in its enums' order.
METRICS = ("euclidean", "squared", "manhattan", "chebyshev", "minkowski")
RESULTS = ("F1", "F2", "F2-F1", "F1*F2", "cell", "edge", "smooth")

# The defaults of cellular(), which the signature takes from these names.
FREQUENCY = 16.0  # features across the width
JITTER = 1.0
EXPONENT = 3.0
SMOOTHNESS = 0.05
OCTAVES = 1
LACUNARITY = 2.0
GAIN = 0.5
SEED = 1


def cellular(q: Queue, width: int, height: int, result: str = "F1", *, z: npt.ArrayLike | float | None = None,
             z_scale: float = 1.0, frequency: float = FREQUENCY, seed: int = SEED, jitter: float = JITTER,
             metric: str = "euclidean", exponent: float = EXPONENT, smoothness: float = SMOOTHNESS,
             octaves: int = OCTAVES, lacunarity: float = LACUNARITY, gain: float = GAIN, period: int = 0,
             scale: float = 1.0, offset: float = 0.0, progress: Callable[[float], object] | bool | None = None,
             cancel: Callable[[], object] | None = None) -> npt.NDArray[np.float32]:
    """3-D cellular (Worley) noise: one feature point scattered in each cell of
    a 3-D lattice, and per grid cell a function of the distances to the
    nearest features, in lattice units. x runs along the columns, y along
    the rows, and z is one value or a grid (the heights, so that the cells
    follow the terrain). The same arguments give the same bits on every
    device.

    q:          the queue to run on
    width:      columns, height: rows (at least 1, at most 2^31 - 1 cells)
    result:     "F1" (distance to the nearest feature), "F2" (to the second
                nearest), "F2-F1" (cracks), "F1*F2", "cell" (a value in
                [0, 1) per feature: flat stones), "edge" (distance to the
                nearest cell border, euclidean only) or "smooth" (F1 with
                rounded creases)
    z:          a number, the third coordinate of every cell in grid cells
                (default None: 0), or a grid of shape (height, width), any
                real dtype, finite
    z_scale:    grid cells per unit of z, finite (0: a flat slice)
    frequency:  features across the width in the first octave, > 0
    seed:       seed of the feature points, 0 to 2^32 - 1
    jitter:     0 to 1: how far features stray from their lattice cells'
                centres (0: a regular lattice)
    metric:     "euclidean", "squared", "manhattan", "chebyshev" or
                "minkowski" (with exponent, 1 to 64)
    smoothness: rounding width of "smooth" in lattice units, 1e-6 to 0.125
    octaves:    1 to 16, each lacunarity times the frequency and gain times
                the amplitude of the one before, summed
    lacunarity: above 0 and at most 16 (a whole number with a period)
    gain:       -16 to 16
    period:     0, or tile every `period` features along x and y: the result
                repeats every period x width / frequency cells, which must
                be a whole number
    scale, offset: the result is the octave sum x scale + offset
    progress:   callable(percent) called as rows are done, a true return
                cancels; or True for a text bar on stderr (default None)
    cancel:     callable() polled as the run advances (default None)
    Returns a float32 grid of shape (height, width). Raises HaldenError for
    what the library refuses (a period that makes no whole tiles, a slice
    reaching too far), Cancelled when cancelled.
    """
    columns = _checks.integer(width, _native.i32, "width", low=1)
    rows = _checks.integer(height, _native.i32, "height", low=1)
    if rows * columns > _checks.MAX_CELLS:
        raise ValueError(f"width x height = {rows * columns} cells, more than the 2^31 - 1 the library takes")
    grid_z = None
    flat = 0.0
    if z is not None and np.ndim(z) == 0:
        flat = _checks.number(z, "z")
    elif z is not None:
        grid_z = _checks.mask(z, (rows, columns), "z")
        if not np.isfinite(grid_z).all():
            raise ValueError("z must be finite in every cell")
    metric_index = _checks.choice(metric, METRICS, "metric")
    result_index = _checks.choice(result, RESULTS, "result")
    if result_index == RESULTS.index("edge") and metric_index != 0:
        raise ValueError("result 'edge' takes the euclidean metric only")
    record = _native.CellularParameters(
        width=columns, height=rows, frequency=_checks.positive(frequency, "frequency"), z=flat,
        z_scale=_checks.number(z_scale, "z_scale"), seed=_checks.integer(seed, _native.u32, "seed"),
        jitter=_checks.between(jitter, "jitter", 0, 1), metric=metric_index,
        exponent=_checks.between(exponent, "exponent", 1, 64), result=result_index,
        smoothness=_checks.between(smoothness, "smoothness", 1e-6, 0.125),
        octaves=_checks.integer(octaves, _native.i32, "octaves", 1, 16),
        lacunarity=_checks.between(lacunarity, "lacunarity", 0, 16, above=True),
        gain=_checks.between(gain, "gain", -16, 16),
        period=_checks.integer(period, _native.i32, "period", 0, 1 << 24),
        scale=_checks.number(scale, "scale"), offset=_checks.number(offset, "offset"), reserved=0)
    out = np.zeros((rows, columns), dtype=np.float32)
    _calls.run(_native.Cellular3D_Render, q, _native.floats(out), _native.floats(grid_z), ctypes.byref(record),
               _calls.TABLE, progress=progress, cancel=cancel, label="cellular")
    return out
