"""Meshes: turning triangle meshes into height grids."""

import ctypes
import math
from collections.abc import Callable

import numpy as np
import numpy.typing as npt

from . import _calls, _checks, _native
from .queues import Queue


def rasterize(q: Queue, vertices: npt.ArrayLike, triangles: npt.ArrayLike, width: int, height: int,
              centre: tuple[float, float, float] = (0.0, 0.0, 0.0), scale: float = 1.0,
              offset: tuple[float, float, float] = (0.0, 0.0, 0.0), depth_divisor: float = 1.0, shift: float = 0.0,
              supersample: bool = False, ids: bool = False, cancel: Callable[[], object] | None = None,
              ) -> npt.NDArray[np.float32] | tuple[npt.NDArray[np.float32], npt.NDArray[np.float32]]:
    """Renders a triangle mesh into a height grid of `height` rows and `width` columns.

    Each vertex is mapped to grid coordinates as
        x' = scale (x - centre[0]) + offset[0] - shift   (column)
        y' = scale (y - centre[1]) + offset[1] - shift   (row)
        z' = (scale (z - centre[2]) + offset[2]) / depth_divisor - shift
    where cell (r, c) has its centre at x' = c + 0.5, y' = r + 0.5. Only
    triangles whose corners run anticlockwise with x to the right and y down,
    (x1 - x0)(y2 - y0) - (x2 - x0)(y1 - y0) < 0, are drawn.

    q:             the queue to run on
    vertices:      (N, 3) x, y, z, any real dtype, N < 2^32
    triangles:     (M, 3) vertex indices, integers 0 to N - 1, M < 2^32
    width, height: grid columns and rows, 1 to 16384 each (8192 with
                   supersample)
    centre:        3 finite numbers subtracted first (default (0, 0, 0))
    scale:         finite factor (default 1.0)
    offset:        3 finite numbers added after scaling (default (0, 0, 0))
    depth_divisor: finite and not 0 (default 1.0)
    shift:         finite, subtracted last (default 0.0)
    supersample:   render at twice the size and keep the highest of each
                   2 x 2 block (default False)
    ids:           also return a grid naming the triangle that won each cell
                   by a random value in [0, 1) fixed per triangle, -1 where
                   none covers (default False)
    cancel:        callable() polled between batches of the rendering and
                   once after it; a true return cancels (default None). The
                   library reports no progress for rasterising.
    Returns heights, a float32 (height, width) grid holding the highest
    triangle covering each cell centre, or numpy.finfo(numpy.float32).min
    where none does; with ids=True the tuple (heights, ids), ids float32 of
    the same shape. Raises Cancelled when cancelled; an exception raised by
    cancel is re-raised.
    """
    points = _checks.points(vertices, "vertices")
    corners = _checks.indices(triangles, "triangles", len(points))
    side = 8192 if supersample else 16384
    rows = _checks.integer(height, _native.i32, "height", 1, side)
    columns = _checks.integer(width, _native.i32, "width", 1, side)
    mesh = _native.Mesh(_native.floats(points), len(points), 0, _native.uints(corners), len(corners), 0)
    divisor = _checks.number(depth_divisor, "depth_divisor", lambda x: x != 0 and math.isfinite(x),
                             "finite and not 0")
    # The library writes the rendered (doubled) size back into this record.
    record = _native.RasterizerParameters(
        width=columns, height=rows, centre=_checks.vector(centre, "centre"), scale=_checks.number(scale, "scale"),
        offset=_checks.vector(offset, "offset"), depth_divisor=divisor, shift=_checks.number(shift, "shift"),
        supersample=bool(supersample))
    out = np.empty((rows, columns), np.float32)
    winners = np.empty_like(out) if ids else None
    _calls.run(_native.MeshRasterizer_RenderMesh, q, ctypes.byref(mesh), _native.floats(out),
               _native.floats(winners), ctypes.byref(record), _calls.TABLE, cancel=cancel)
    return (out, winners) if ids else out
