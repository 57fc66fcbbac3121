"""Baking: a height grid's detail as a tangent-space normal map for a mesh."""

import ctypes
import math
from collections.abc import Callable

import numpy as np
import numpy.typing as npt

from . import _calls, _checks, _native
from .queues import Queue


def bake_normals(q: Queue, vertices: npt.ArrayLike, triangles: npt.ArrayLike, heights: npt.ArrayLike, *,
                 terrain_size: float | None = None, height_scale: float = 1.0, directx: bool = False,
                 margin: int = 2, signed: bool = False, centre: tuple[float, float, float] = (0.0, 0.0, 0.0),
                 scale: float = 1.0, offset: tuple[float, float, float] = (0.0, 0.0, 0.0),
                 depth_divisor: float = 1.0, shift: float = 0.0, cancel: Callable[[], object] | None = None,
                 ) -> npt.NDArray[np.float32]:
    """Bakes the detail of `heights` into a tangent-space normal map for a low-polygon mesh of the same terrain.

    The mesh is brought into grid coordinates as rasterize() does it
    (x' = scale (x - centre[0]) + offset[0] - shift is the column, y' the row,
    z' the height in the grid's units), and drawn with the same coverage and
    winding. Texture coordinates are the mesh seen from above: u = x' / width
    along the rows, v = 1 - y' / height up the picture. The frame is the one
    engines rebuild from per-vertex normals, tangents and bitangent signs,
    interpolated per cell; the grid's normal (shade()'s stencil) is expressed
    in it. A mesh that follows the heights gives (0, 0, 1).

    q:             the queue to run on
    vertices:      (N, 3) x, y, z, any real dtype, N < 2^32
    triangles:     (M, 3) vertex indices, integers 0 to N - 1, M <= 2^30
    heights:       2-D grid of finite heights, 1 to 16384 cells a side
    terrain_size:  world width of the grid, > 0 (default None: the width in
                   cells)
    height_scale:  world height of one height unit, > 0 (default 1.0)
    directx:       DirectX's green (down the picture) instead of OpenGL's (up
                   it) (default False)
    margin:        rings of uncovered cells, 0 to 64, that take the mean of
                   their filled neighbours (default 2); cells beyond get
                   (0, 0, 1)
    signed:        components in -1 to 1 instead of 0.5 c + 0.5 in 0 to 1
                   (default False)
    centre, scale, offset, depth_divisor, shift: the transform, as
                   rasterize() takes it
    cancel:        callable() polled between the steps; a true return
                   cancels (default None)
    Returns a float32 (rows, columns, 3) array: x, y, z per cell. Raises
    Cancelled when cancelled; an exception raised by cancel is re-raised.
    """
    points = _checks.points(vertices, "vertices")
    corners = _checks.indices(triangles, "triangles", len(points))
    if len(corners) > 1 << 30:
        raise ValueError(f"triangles: at most 2^30 rows, got {len(corners)}")
    grid = _checks.grid(heights)
    rows, columns = grid.shape
    if rows > 16384 or columns > 16384:
        raise ValueError(f"heights: at most 16384 cells a side, got {rows} x {columns}")
    if not np.isfinite(grid).all():
        raise ValueError("heights: every height must be finite")
    size = columns if terrain_size is None else _checks.positive(terrain_size, "terrain_size")
    divisor = _checks.number(depth_divisor, "depth_divisor", lambda x: x != 0 and math.isfinite(x),
                             "finite and not 0")
    mesh = _native.Mesh(_native.floats(points), len(points), 0, _native.uints(corners), len(corners), 0)
    transform = _native.RasterizerParameters(
        width=columns, height=rows, centre=_checks.vector(centre, "centre"), scale=_checks.number(scale, "scale"),
        offset=_checks.vector(offset, "offset"), depth_divisor=divisor, shift=_checks.number(shift, "shift"),
        supersample=False)
    record = _native.TangentParameters(
        transform=transform, terrain_size=size, height_scale=_checks.positive(height_scale, "height_scale"),
        margin=_checks.integer(margin, _native.i32, "margin", 0, 64),
        encoding=0 if signed else 1, flip_green=1 if directx else 0)
    planes = [np.empty(grid.shape, np.float32) for _ in range(3)]
    _calls.run(_native.MeshRasterizer_ComputeTangentSpaceNormals, q, ctypes.byref(mesh), _native.floats(grid),
               *map(_native.floats, planes), ctypes.byref(record), _calls.TABLE, cancel=cancel)
    return np.stack(planes, axis=-1)
