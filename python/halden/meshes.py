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
              displacement: npt.ArrayLike | None = None, texture_size: float | None = None, amplitude: float = 1.0,
              midlevel: float = 0.5, sharpness: float = 4.0, edge_length: float = 1.0, max_subdivision: int = 64,
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

    With a `displacement` texture the surface is first displaced along its
    vertex normals by a texture projected along the three axes (triplanar),
    so that cliffs and steep faces get detail without texture coordinates.
    Each edge is cut into ceil(length / edge_length) pieces (a count shared by
    the triangles on both sides of it, so there are no cracks), each triangle
    into a grid of pieces that meets its edges' cuts, and every point moves by
    amplitude * (t - midlevel), t the blend of three bilinear, repeating
    texture reads at (y, z), (x, z) and (x, y) / texture_size weighted by
    |n.x|^k, |n.y|^k, |n.z|^k. Pieces name their parent triangle in ids.
    amplitude=0 renders exactly what the call without a texture renders.

    displacement:  2-D texture (rows, columns), any real dtype, finite, 1 to
                   65536 each side; repeats in both directions (default None:
                   no displacement, and the arguments below are unused)
    texture_size:  mesh units (before the transform) one repeat spans,
                   finite and > 0 (default None: the larger of the mesh's x
                   and y spans, 1.0 if both are 0)
    amplitude:     mesh units of displacement per texture unit, finite
                   (default 1.0)
    midlevel:      the texture value that displaces nothing, finite
                   (default 0.5)
    sharpness:     exponent k of the blend weights, 0 to 64 (default 4.0)
    edge_length:   wanted length of a piece's edge in output cells, measured
                   in 3-D after the transform, finite and > 0 (default 1.0)
    max_subdivision: most pieces one edge is cut into, 1 to 1024 (default
                   64); at most 2^30 pieces in all, else HaldenError
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
    if displacement is None:
        _calls.run(_native.MeshRasterizer_RenderMesh, q, ctypes.byref(mesh), _native.floats(out),
                   _native.floats(winners), ctypes.byref(record), _calls.TABLE, cancel=cancel)
        return (out, winners) if ids else out
    values = _checks.grid(displacement, "displacement")
    if max(values.shape) > 65536:
        raise ValueError(f"displacement may have at most 65536 rows and columns, got shape {values.shape}")
    if not np.isfinite(values).all():
        raise ValueError("displacement must hold finite values only")
    if texture_size is None:
        # One repeat over the mesh's footprint, so a texture reads like a map of it.
        plane = points[:, :2].astype(np.float64)
        span = float((plane.max(axis=0) - plane.min(axis=0)).max()) if len(points) else 0.0
        texture_size = span if 0 < np.float32(span) < math.inf else 1.0
    texture = _native.Texture(_native.floats(values), values.shape[1], values.shape[0])
    displaced = _native.TriplanarParameters(
        transform=record, texture_size=_checks.positive(texture_size, "texture_size"),
        amplitude=_checks.number(amplitude, "amplitude"), midlevel=_checks.number(midlevel, "midlevel"),
        sharpness=_checks.between(sharpness, "sharpness", 0.0, 64.0),
        edge_length=_checks.positive(edge_length, "edge_length"),
        max_subdivision=_checks.integer(max_subdivision, _native.u32, "max_subdivision", 1, 1024))
    _calls.run(_native.MeshRasterizer_RenderMeshWithTriplanarDisplacement, q, ctypes.byref(mesh),
               _native.floats(out), _native.floats(winners), ctypes.byref(texture), ctypes.byref(displaced),
               _calls.TABLE, cancel=cancel)
    return (out, winners) if ids else out
