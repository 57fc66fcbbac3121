"""Point clouds: gridding lidar and photogrammetry points into height grids."""

import ctypes
import math
from collections.abc import Callable

import numpy as np
import numpy.typing as npt

from . import _calls, _checks, _native
from .queues import Queue

MODES = ("max", "min", "mean", "idw", "nearest", "count", "stdev")
FILLS = ("none", "pull-push", "inner")


def rasterize_points(q: Queue, points: npt.ArrayLike, width: int, height: int, *, mode: str = "mean",
                     radius: float = 0.0, power: float = 2.0, fill: str = "none", max_fill: float = 0.0,
                     empty: float = math.nan, centre: tuple[float, float, float] = (0.0, 0.0, 0.0),
                     scale: float = 1.0, offset: tuple[float, float, float] = (0.0, 0.0, 0.0),
                     depth_divisor: float = 1.0, shift: float = 0.0, counts: bool = False,
                     cancel: Callable[[], object] | None = None,
                     ) -> npt.NDArray[np.float32] | tuple[npt.NDArray[np.float32], npt.NDArray[np.float32]]:
    """Grids a point cloud into a height grid of `height` rows and `width` columns.

    Points are mapped to grid coordinates exactly as rasterize() maps a mesh's
    vertices (centre, scale, offset, depth_divisor, shift), so a mesh and a
    point cloud given the same transform line up. A point belongs to the cell
    whose square [c, c + 1) x [r, r + 1) holds its (x', y'); points outside
    the grid are left out. The result is the same, bit for bit, whatever the
    order of the points.

    q:             the queue to run on
    points:        (N, 3) x, y, z, any real dtype, finite, 1 <= N < 2^32
    width, height: grid columns and rows, 1 to 16384 each
    mode:          what a cell takes from its points: "max", "min", "mean",
                   "idw" (sum(z / d^power) / sum(1 / d^power), d from the
                   cell's centre), "nearest" (to the centre), "count" (every
                   cell gets one, 0 included) or "stdev" (population)
                   (default "mean")
    radius:        0: a cell gathers the points inside it; above 0 (up to
                   256): the points within radius cells of its centre
                   (default 0.0)
    power:         the idw exponent, above 0 and at most 16 (default 2.0)
    fill:          "none", "pull-push" (interpolate every empty cell from
                   the cells around) or "inner" (pull-push, only holes not
                   connected to the grid's border through empty cells)
                   (default "none"; not used with mode "count")
    max_fill:      fill only cells within this many cells of a cell with
                   points, >= 0; 0 for no limit (default 0.0)
    empty:         the value of cells left without data (default NaN)
    centre, scale, offset, depth_divisor, shift: the transform, as in
                   rasterize() (defaults: the identity)
    counts:        also return the number of points each cell's value used,
                   0 for filled and empty cells (default False)
    cancel:        callable() polled between the steps; a true return
                   cancels (default None)
    Returns heights, float32 (height, width); with counts=True the tuple
    (heights, counts), counts float32 of the same shape. Raises Cancelled
    when cancelled.
    """
    xyz = _checks.points(points, "points")
    if len(xyz) == 0:
        raise ValueError("points: at least one point is needed")
    if not np.isfinite(xyz).all():
        first = int(np.argmin(np.isfinite(xyz).all(axis=1)))
        raise ValueError(f"points: point {first} has a non-finite coordinate")
    rows = _checks.integer(height, _native.i32, "height", 1, 16384)
    columns = _checks.integer(width, _native.i32, "width", 1, 16384)
    divisor = _checks.number(depth_divisor, "depth_divisor", lambda x: x != 0 and math.isfinite(x),
                             "finite and not 0")
    transform = _native.RasterizerParameters(
        width=columns, height=rows, centre=_checks.vector(centre, "centre"), scale=_checks.number(scale, "scale"),
        offset=_checks.vector(offset, "offset"), depth_divisor=divisor, shift=_checks.number(shift, "shift"),
        supersample=False)
    record = _native.PointParameters(
        transform=transform, mode=_checks.choice(mode, MODES, "mode"), fill=_checks.choice(fill, FILLS, "fill"),
        radius=_checks.between(radius, "radius", 0.0, 256.0), power=_checks.between(power, "power", 0.0, 16.0,
                                                                                   above=True),
        max_fill=_checks.non_negative(max_fill, "max_fill"),
        empty=_checks.number(empty, "empty", lambda x: True, "a number"))
    cloud = _native.Points(_native.floats(xyz), len(xyz), 0)
    out = np.empty((rows, columns), np.float32)
    used = np.empty_like(out) if counts else None
    _calls.run(_native.MeshRasterizer_RenderPointCloud, q, ctypes.byref(cloud), _native.floats(out),
               _native.floats(used), ctypes.byref(record), _calls.TABLE, cancel=cancel)
    return (out, used) if counts else out
