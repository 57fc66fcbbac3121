"""DataArrays in and out of the public functions.

One wrapper serves every operation: it finds the DataArrays among the grid
arguments, hands their values to the NumPy function, fills the world-width
arguments the caller left out from the georeference, and dresses the grids
that come back in the first grid's dims, coordinates and attributes. NumPy
arguments go straight through, untouched.
"""

import functools
import inspect
import math
import sys
from typing import NamedTuple

import numpy as np

# Metres per degree of latitude, as the command-line tool converts a
# geographic grid's width.
METRES_PER_DEGREE = 111320.0


class Entry(NamedTuple):
    """How one function takes grids.

    grids:  the arguments that may be DataArrays; the first one present
            lends its dims and coordinates to the results
    world:  the argument taking the whole grid's world width, or None
    cell:   the argument taking one cell's world width, or None
    sized:  the function takes width and height instead of a grid, so a
            `like=` DataArray gives them and the results' coordinates
    """
    grids: tuple[str, ...]
    world: str | None = None
    cell: str | None = None
    sized: bool = False


TABLE = {
    "median_filter": Entry(("heights",)),
    "blur": Entry(("heights",)),
    "thermal_shape": Entry(("heights", "mask"), world="extent"),
    "thermal_erode": Entry(("heights", "mask", "hardness"), cell="cell_size"),
    "erode": Entry(("heights", "rain", "hardness"), cell="cell_size"),
    "flow": Entry(("heights", "mask")),
    "color_transport": Entry(("heights", "rgb", "mask")),
    "shade": Entry(("heights", "albedo"), world="terrain_size"),
    "sunlight": Entry(("heights",), cell="cell_size"),
    "rasterize": Entry((), sized=True),
    "cellular": Entry(("z",), sized=True),
    "stamp": Entry(("heights", "density")),
    "debris": Entry(("heights", "sources", "warp"), cell="cell_size"),
    "dunes": Entry(("bedrock", "sand", "vegetation"), cell="cell_size"),
    # Operations that other modules may add; wrapped when present.
    "rasterize_points": Entry((), sized=True),
    "bake_normals": Entry(("heights",), world="terrain_size"),
}

BAND = "band"  # the trailing dim of (rows, columns, 3) colours


def _is_data_array(value) -> bool:
    xr = sys.modules.get("xarray")  # nothing can be a DataArray before xarray is imported
    return xr is not None and isinstance(value, xr.DataArray)


def _plain(value, name: str):
    """A DataArray's values, colour planes with their band dim last."""
    if value.ndim == 3:
        band = [d for d in value.dims if d in (BAND, "rgb", "channel")]
        if band:
            value = value.transpose(*[d for d in value.dims if d != band[0]], band[0])
    # Dask-backed arrays stay lazy for halden.dask; NumPy functions convert them.
    return value.data if type(value.data).__module__.startswith("dask") else value.values


def world_width(grid) -> float | None:
    """The world width of a georeferenced 2-D DataArray, or None without a
    transform: |pixel width| x columns, a geographic grid's degrees turned
    into metres at its centre latitude."""
    if "rioxarray" not in sys.modules:
        try:
            import rioxarray  # noqa: F401  (registers .rio)
        except ImportError:
            return None
    try:
        transform = grid.rio.transform()
        crs = grid.rio.crs
        rows, columns = grid.rio.height, grid.rio.width
    except Exception:  # no x/y dims the accessor recognises
        return None
    if transform.is_identity and crs is None and "spatial_ref" not in grid.coords:
        return None
    width = abs(transform.a) * columns
    if crs is not None and crs.is_geographic:
        latitude = transform.f + transform.e * rows / 2.0
        width *= METRES_PER_DEGREE * math.cos(math.radians(latitude))
    return width


def _dress(value, like, rows_columns):
    """A result grid as a DataArray shaped like `like`; anything else as it is."""
    import xarray as xr
    lazy = type(value).__module__.startswith("dask")
    if not (isinstance(value, np.ndarray) or lazy) or value.dtype.names or value.shape[:2] != rows_columns:
        return value
    if value.ndim == 2:
        out = xr.DataArray(value, dims=like.dims, coords=like.coords, attrs=dict(like.attrs), name=like.name)
    elif value.ndim == 3:
        out = xr.DataArray(value, dims=(*like.dims, BAND), coords={**like.coords, BAND: [1, 2, 3][:value.shape[2]]},
                           attrs=dict(like.attrs), name=like.name)
    else:
        return value
    if "rioxarray" in sys.modules:
        try:
            if like.rio.crs is not None and out.rio.crs is None:
                out = out.rio.write_crs(like.rio.crs)
        except Exception:
            pass
    return out


def _like_grid(like):
    """A template for sized functions: a DataArray, or rows and columns of
    an array-like."""
    if like.ndim != 2:
        raise ValueError(f"like must be a 2-D DataArray, got {like.ndim} dims")
    return like


def wrap(function, entry: Entry):
    signature = inspect.signature(function)
    present = [g for g in entry.grids if g in signature.parameters]
    for name in (entry.world, entry.cell):
        if name is not None and name not in signature.parameters:
            raise TypeError(f"{function.__name__} has no argument {name}")

    @functools.wraps(function)
    def wrapper(*args, like=None, **kwargs):
        if like is None:
            # The fast path: a plain call when no DataArray is among the grids.
            if not any(_is_data_array(a) for a in args) and not any(_is_data_array(v) for v in kwargs.values()):
                return function(*args, **kwargs)
        elif not entry.sized:
            raise TypeError(f"{function.__name__}() takes no like=; pass its grid as a DataArray")
        bound = signature.bind_partial(*args, **kwargs)
        given = set(bound.arguments)
        template = None
        for name in present:
            value = bound.arguments.get(name)
            if _is_data_array(value):
                if template is None and value.ndim == 2:
                    template = value
                bound.arguments[name] = _plain(value, name)
        if entry.sized and like is not None:
            if not _is_data_array(like):
                raise TypeError("like must be an xarray.DataArray")
            template = _like_grid(like) if template is None else template
            bound.arguments["height"], bound.arguments["width"] = like.shape
        if template is None:
            return function(*bound.args, **bound.kwargs)
        world = None
        for name, per_cell in ((entry.world, False), (entry.cell, True)):
            if name is None or name in given:
                continue
            if world is None:
                world = world_width(template)
            if world is not None:
                bound.arguments[name] = world / template.shape[1] if per_cell else world
        result = function(*bound.args, **bound.kwargs)
        shape = template.shape
        if isinstance(result, tuple):
            dressed = [_dress(v, template, shape) for v in result]
            return type(result)(*dressed) if hasattr(result, "_fields") else tuple(dressed)
        return _dress(result, template, shape)

    note = ("\n\n    Takes xarray.DataArray grids too and then returns DataArrays with the"
            " first grid's dims,\n    coordinates and attributes (a trailing 'band' dim on colours)")
    if entry.world or entry.cell:
        note += (f"; {entry.world or entry.cell} left out\n    defaults from the grid's georeference"
                 " (geographic degrees as metres at the centre latitude)")
    if entry.sized:
        note += ";\n    like=<DataArray> gives width, height and the results' coordinates"
    wrapper.__doc__ = (function.__doc__ or "").rstrip() + note + ".\n"
    wrapper.__wrapped_numpy__ = function
    return wrapper


def wrap_all(namespace: dict) -> None:
    """Replaces every function of the table found in `namespace` by its wrapper."""
    for name, entry in TABLE.items():
        function = namespace.get(name)
        if callable(function) and not hasattr(function, "__wrapped_numpy__"):
            namespace[name] = wrap(function, entry)
