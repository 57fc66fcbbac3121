"""Stamping: copies of small height grids (rocks, craters, mesas, dunes)
scattered over a terrain and blended in."""

import ctypes
import math
from collections.abc import Sequence
from typing import NamedTuple

import numpy as np
import numpy.typing as npt

from . import _calls, _checks, _native
from .queues import Queue

BLENDS = {"replace": 0, "add": 1, "subtract": 2, "max": 3, "min": 4, "smooth_max": 5, "smooth_min": 6,
          "multiply": 7}
FILTERS = {"bilinear": 0, "bicubic": 1}
# The layout of halden_stamp_instance, as stamp() returns the copies.
INSTANCE = np.dtype([("x", np.float32), ("y", np.float32), ("scale", np.float32), ("rotation", np.float32),
                     ("cos_rotation", np.float32), ("sin_rotation", np.float32), ("height", np.float32),
                     ("stamp", np.uint32)])
MAX_INSTANCES = 2**24


class Stamping(NamedTuple):
    """Results of stamp() when the copies or ids are asked for.

    heights:   the stamped heights, float32 of the heights' shape
    instances: the copies drawn, a structured array of dtype INSTANCE (x, y
               in cells along the columns and down the rows; scale in cells
               per stamp texel; rotation in degrees clockwise, with its cosine
               and sine for placed copies; height; stamp index), or None
    ids:       per cell the index of the copy that won it, -1 where none,
               float32 of the heights' shape, or None
    """
    heights: npt.NDArray[np.float32]
    instances: np.ndarray | None
    ids: npt.NDArray[np.float32] | None


def _atlas(stamps: Sequence[npt.ArrayLike]):
    """The stamps as one float32 atlas and its table of entries."""
    if isinstance(stamps, np.ndarray) and stamps.ndim == 3:
        stamps = list(stamps)
    if not isinstance(stamps, Sequence) or len(stamps) == 0:
        raise ValueError("stamps must be a non-empty list of 2-D arrays (or a 3-D array of them)")
    if len(stamps) > 65536:
        raise ValueError(f"at most 65536 stamps, got {len(stamps)}")
    grids = [_checks.grid(s, f"stamps[{k}]") for k, s in enumerate(stamps)]
    entries = (_native.StampEntry * len(grids))()
    offset = 0
    for k, g in enumerate(grids):
        rows, columns = g.shape
        if rows > 8192 or columns > 8192:
            raise ValueError(f"stamps[{k}] may have at most 8192 rows and columns, got shape {g.shape}")
        if not np.isfinite(g).all():
            raise ValueError(f"stamps[{k}] holds a value that is not finite")
        entries[k] = _native.StampEntry(columns, rows, offset)
        offset += g.size
    atlas = np.concatenate([g.ravel() for g in grids])
    return atlas, entries


def _range(value: object, what: str, infinite: bool = False, positive: bool = False) -> tuple[float, float]:
    try:
        low, high = value
    except (TypeError, ValueError):
        raise TypeError(f"{what} must be a pair (min, max), got {value!r}") from None
    if infinite:
        def ok(x): return not math.isnan(x)
        rule = "a number, not NaN"
    elif positive:
        def ok(x): return 0 < x < math.inf
        rule = "finite and > 0"
    else:
        ok, rule = math.isfinite, "finite"
    low = _checks.number(low, f"{what}[0]", ok, rule)
    high = _checks.number(high, f"{what}[1]", ok, rule)
    if low > high:
        raise ValueError(f"{what} must be (min, max) with min <= max, got {value!r}")
    return low, high


def _given(instances: npt.ArrayLike, stamp_count: int) -> np.ndarray:
    """The caller's copies as an INSTANCE array: one as stamp() returns them,
    or rows of x, y, scale, rotation, height, stamp."""
    a = np.asarray(instances)
    if a.dtype.names:
        missing = {"x", "y", "scale", "rotation", "height", "stamp"} - set(a.dtype.names)
        if missing:
            raise ValueError(f"instances lack the fields {sorted(missing)}")
        if a.ndim != 1:
            raise ValueError(f"instances must be a 1-D structured array, got shape {a.shape}")
        out = np.zeros(a.shape[0], dtype=INSTANCE)
        for name in ("x", "y", "scale", "rotation", "height"):
            out[name] = a[name]
        out["stamp"] = a["stamp"]
    else:
        a = _checks.real(a, "instances")
        if a.ndim != 2 or a.shape[1] != 6:
            raise ValueError(f"instances must be (N, 6) rows of x, y, scale, rotation, height, stamp, got {a.shape}")
        out = np.zeros(a.shape[0], dtype=INSTANCE)
        for column, name in enumerate(("x", "y", "scale", "rotation", "height")):
            out[name] = a[:, column]
        if not (a[:, 5] == np.floor(a[:, 5])).all() or (a[:, 5] < 0).any():
            raise ValueError("instances' stamp column must hold whole numbers of at least 0")
        out["stamp"] = a[:, 5]
    if out.size == 0 or out.size > MAX_INSTANCES:
        raise ValueError(f"instances must hold 1 to 2^24 copies, got {out.size}")
    for name in ("x", "y", "rotation", "height"):
        if not np.isfinite(out[name]).all():
            raise ValueError(f"instances' {name} must be finite")
    if not (np.isfinite(out["scale"]) & (out["scale"] > 0)).all():
        raise ValueError("instances' scale must be finite and > 0")
    if (out["stamp"] >= stamp_count).any():
        raise ValueError(f"instances' stamp must be below the number of stamps, {stamp_count}")
    return np.ascontiguousarray(out)


def stamp(q: Queue, heights: npt.ArrayLike, stamps: Sequence[npt.ArrayLike], *,
          instances: npt.ArrayLike | None = None, density: npt.ArrayLike | None = None, count: int = 100,
          spacing: float = 0.0, seed: int = 1, scale: tuple[float, float] = (0.5, 2.0),
          rotation: tuple[float, float] = (0.0, 360.0), height: tuple[float, float] = (1.0, 1.0),
          relative: bool = True, blend: str = "max", opacity: float = 1.0, smoothness: float = 1.0,
          falloff: float = 0.25, filter: str = "bilinear",
          slope: tuple[float, float] = (-math.inf, math.inf), elevation: tuple[float, float] = (-math.inf, math.inf),
          return_instances: bool = False, return_ids: bool = False) -> npt.NDArray[np.float32] | Stamping:
    """Scatters copies of the stamps over the heights and blends them in, one
    after another; every cell takes the copies covering its centre in order.

    q:           the queue to run on
    heights:     2-D grid, any real dtype
    stamps:      list of 2-D arrays (1 to 8192 rows and columns, finite), or
                 a 3-D array of same-size stamps
    instances:   the copies to draw, as stamp() returns them or (N, 6) rows
                 of x, y, scale, rotation, height, stamp; None (default)
                 places `count` from the seed
    density:     grid of the heights' shape, 0 to 1: the chance that a
                 candidate centre there is kept (default None: all are)
    count:       copies to place, 1 to 2^24
    spacing:     least distance in cells between centres (Poisson disk),
                 0 (default) for uniform placement
    seed:        seed of the placement, 0 to 2^32 - 1
    scale:       (min, max) size in cells per stamp texel, > 0
    rotation:    (min, max) rotation in degrees, clockwise
    height:      (min, max) factor of the stamps' heights
    relative:    measure the stamps' heights from the terrain under each
                 copy's centre (default) rather than from 0
    blend:       "replace", "add", "subtract", "max" (default), "min",
                 "smooth_max", "smooth_min" or "multiply"
    opacity:     0 to 1, the weight of every copy
    smoothness:  > 0, width in height units of the smooth blends' seam
    falloff:     0 to 1, share of the way from a stamp's edge to its centre
                 over which it fades in (0: hard edges)
    filter:      "bilinear" (default) or "bicubic"
    slope:       (min, max) slope in height units per cell where copies may
                 be placed; infinities allowed
    elevation:   (min, max) terrain height where copies may be placed
    return_instances, return_ids: also return the copies drawn and the id
                 grid
    Returns the stamped heights, float32 of the heights' shape; with either
    return_ flag a Stamping(heights, instances, ids).
    """
    grid = _checks.grid(heights)
    rows, columns = grid.shape
    atlas, entries = _atlas(stamps)
    if blend not in BLENDS:
        raise ValueError(f"blend must be one of {sorted(BLENDS)}, got {blend!r}")
    if filter not in FILTERS:
        raise ValueError(f"filter must be one of {sorted(FILTERS)}, got {filter!r}")
    weights = _checks.mask(density, grid.shape, "density")
    scale_range = _range(scale, "scale", positive=True)
    rotation_range = _range(rotation, "rotation")
    height_range = _range(height, "height")
    slope_range = _range(slope, "slope", infinite=True)
    elevation_range = _range(elevation, "elevation", infinite=True)
    record = _native.StampParameters(
        width=columns, height=rows, seed=_checks.integer(seed, _native.u32, "seed"),
        count=_checks.integer(count, _native.u32, "count", 1, MAX_INSTANCES),
        spacing=_checks.non_negative(spacing, "spacing"), scale_min=scale_range[0], scale_max=scale_range[1],
        rotation_min=rotation_range[0], rotation_max=rotation_range[1], height_min=height_range[0],
        height_max=height_range[1], height_mode=1 if relative else 0, blend=BLENDS[blend],
        opacity=_checks.between(opacity, "opacity", 0, 1),
        smoothness=_checks.positive(smoothness, "smoothness"), falloff=_checks.between(falloff, "falloff", 0, 1),
        filter=FILTERS[filter], slope_min=slope_range[0], slope_max=slope_range[1],
        elevation_min=elevation_range[0], elevation_max=elevation_range[1])
    stamps_record = _native.Stamps(atlas=_native.floats(atlas), atlas_size=atlas.size, entries=entries,
                                   count=len(entries))
    if instances is not None:
        drawn = _given(instances, len(entries))
    else:
        drawn = np.zeros(record.count, dtype=INSTANCE)
    number = _native.u32(drawn.size if instances is not None else 0)
    ids = np.empty_like(grid) if return_ids else None
    _calls.run(_native.StampInstancer_Populate, q, _native.floats(grid), ctypes.byref(stamps_record),
               _native.floats(weights), drawn.ctypes.data_as(ctypes.POINTER(_native.StampInstance)),
               ctypes.byref(number), _native.floats(ids), ctypes.byref(record), _calls.TABLE)
    if instances is None:
        drawn = drawn[:number.value].copy()
    if not (return_instances or return_ids):
        return grid
    return Stamping(grid, drawn if return_instances else None, ids)
