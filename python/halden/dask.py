"""Halden's operations over dask arrays, run tile by tile.

    import dask.array as da
    import halden.dask

    heights = da.from_zarr("terrain.zarr")              # chunks of, say, 2048^2
    smooth = halden.dask.median_filter("cpu", heights, radius=2)
    light = halden.dask.shade("cpu", smooth, shadows=False, sky_visibility=False).diffuse
    light.to_zarr("light.zarr")                          # any scheduler, distributed too

The functions take the NumPy functions' names and arguments, with a device
key ("cpu", or a key from halden.devices()) or a Queue, whose key is taken,
first: queues do not travel between processes, so each worker process opens
one queue per key and keeps it. Progress and cancel callbacks are not taken.
Results are dask arrays (and the NumPy functions' result tuples of them);
dask-backed xarray DataArrays come back as DataArrays.

Local operations read a halo of neighbouring cells around each chunk, as
much as a cell's result can depend on; at the grid's own edges a tile stops
where the grid does, so the library repeats the edge cells exactly as in a
whole-grid run (padding the tile with repeated cells instead would be exact
for single-pass operations only: a second pass clamps to the padded edge).
Operations that must see a square grid get a square window around each
chunk, taken from a wider overlap.

Operations whose reach is the whole grid (flow, colour transport, sunlight,
thermal_shape, shade with shadows or sky visibility, and the pyramids of
thermal_erode, erode, dunes and debris) refuse an array of more than one
chunk with ValueError unless a halo is given; with one they differ from the
whole-grid run near the seams. erode takes a default halo (EROSION_HALO).
"""

import inspect
import math
import threading

import numpy as np

from . import _xarray
from .colour import color_transport as _color_transport
from .erosion import ITERATIONS, TALUS_NOISE, Erosion, Weathering
from .erosion import erode as _erode
from .erosion import thermal_erode as _thermal_erode
from .filters import blur as _blur
from .filters import median_filter as _median_filter
from .flowmaps import flow as _flow
from .lighting import Shading
from .lighting import shade as _shade
from .noise import cellular as _cellular
from .queues import Queue
from .rockfall import Debris
from .rockfall import debris as _debris
from .shaping import thermal_shape as _thermal_shape
from .stamping import Stamping, _atlas, _given
from .stamping import stamp as _stamp
from .sunlight import Sunlight
from .sunlight import sunlight as _sunlight
from .wind import dunes as _dunes

__all__ = ["EROSION_HALO", "blur", "cellular", "color_transport", "debris", "dunes", "erode", "flow",
           "median_filter", "shade", "stamp", "sunlight", "thermal_erode", "thermal_shape"]

# erode()'s default halo in cells, and how far a tiled run strays from the
# whole-grid one in height units. Each tile runs its own droplets and
# pyramid, so the difference is spread over the tiles rather than held at
# the seams, and a wider halo barely narrows it. Measured with default
# arguments on Brownian fractals (height range about 25): 256^2 in 128^2
# chunks, at most 1.19 (mean 0.10, while erosion cut up to 2.7); 512^2 in
# 256^2 chunks, at most 1.79 with halo 32 and 1.81 with halo 96 (mean 0.18,
# cuts up to 4.8).
EROSION_HALO = 32
EROSION_SEAM = 2.0

_QUEUES: dict[str, Queue] = {}
_QUEUES_LOCK = threading.Lock()


def _queue(key: str) -> Queue:
    """This process's queue on the device `key`, opened on first use."""
    with _QUEUES_LOCK:
        q = _QUEUES.get(key)
        if q is None:
            q = _QUEUES[key] = Queue(key)
        return q


def _key(q) -> str:
    if isinstance(q, Queue):
        return q.key
    if isinstance(q, str):
        return q
    raise TypeError(f"the first argument must be a device key or a Queue, got {type(q).__name__}")


def _dask_array(value, name: str):
    import dask.array as da
    if value is None or isinstance(value, da.Array):
        return value
    return da.from_array(np.asarray(value), chunks=-1)


def _starts(sizes) -> list[int]:
    out = [0]
    for s in sizes:
        out.append(out[-1] + s)
    return out


def _at_least(sizes, depth: int) -> tuple[int, ...]:
    """Chunk sizes with any chunk thinner than `depth` merged into its neighbour."""
    out = []
    for s in sizes:
        if out and (s < depth or out[-1] < depth):
            out[-1] += s
        else:
            out.append(s)
    return tuple(out)


def _window(lo: int, hi: int, reach: int, size: int, have_lo: int, have_hi: int, length: int | None):
    """Rows (or columns) [start, stop) of the window around the chunk [lo, hi):
    `reach` cells either side where the grid goes on, grown to `length`
    inside [have_lo, have_hi) when a square is needed."""
    start, stop = max(0, lo - reach), min(size, hi + reach)
    if length is not None:
        grow = length - (stop - start)
        up = min(grow, have_hi - stop)
        stop += up
        start -= grow - up
        if start < have_lo:
            raise ValueError("no square window fits the overlap; use chunks of equal sizes")
    return start, stop


def _tiled(run, arrays, halo: int, square: bool, planes: int):
    """Runs `run(*windows, origin=(row, column), shape=(rows, columns),
    total=(rows, columns))` on a window around every chunk of the 2-D dask
    arrays (None where an optional grid is absent) and returns the
    `planes` float32 planes it gives per cell as a (planes, rows, columns)
    dask array."""
    import dask.array as da
    present = [a for a in arrays if a is not None]
    base = present[0]
    if base.ndim != 2:
        raise ValueError(f"grids must be 2-D, got shape {base.shape}")
    rows, columns = base.shape
    if square and rows != columns:
        raise ValueError(f"the grid must be square (rows == columns), got shape {base.shape}")
    single = base.numblocks == (1, 1)
    reach = 0 if single else int(halo)
    depth = [min(reach, n - 1) if n > 1 else 0 for n in base.shape]
    if square and not single:
        sizes = base.chunks[0] + base.chunks[1]
        depth = [min(2 * reach + max(sizes) - min(sizes), n - 1) if n > 1 else 0 for n in base.shape]
    # Every chunk at least as deep as the overlap, so that a block reaches
    # `depth` cells past its chunk wherever the grid goes on.
    base = base.rechunk(tuple(_at_least(c, d) for c, d in zip(base.chunks, depth)))
    chunks = base.chunks
    present = [base] + [a.rechunk(chunks) for a in present[1:]]
    row_starts, column_starts = _starts(chunks[0]), _starts(chunks[1])
    slots = [a is not None for a in arrays]

    def block(*blocks, block_info=None):
        i, j = block_info[0]["chunk-location"]
        r0, r1, c0, c1 = row_starts[i], row_starts[i + 1], column_starts[j], column_starts[j + 1]
        # Where the overlapped block starts in the grid.
        br, bc = max(0, r0 - depth[0]), max(0, c0 - depth[1])
        bh, bw = blocks[0].shape
        need = None
        if square:
            need = max(min(rows, r1 + reach) - max(0, r0 - reach), min(columns, c1 + reach) - max(0, c0 - reach))
        ws, we = _window(r0, r1, reach, rows, br, br + bh, need)
        vs, ve = _window(c0, c1, reach, columns, bc, bc + bw, need)
        it = iter(blocks)
        windows = [np.ascontiguousarray(next(it)[ws - br:we - br, vs - bc:ve - bc]) if s else None for s in slots]
        out = run(*windows, origin=(ws, vs), shape=(we - ws, ve - vs), total=(rows, columns))
        return np.stack([p[r0 - ws:r1 - ws, c0 - vs:c1 - vs] for p in out]).astype(np.float32, copy=False)

    return da.map_overlap(block, *present, depth={0: depth[0], 1: depth[1]}, boundary="none", trim=False,
                          new_axis=0, chunks=((planes,),) + chunks, dtype=np.float32,
                          meta=np.empty((0, 0, 0), np.float32), align_arrays=False)


def _planes(result, layout):
    """The float32 planes of a NumPy function's result, per `layout`: one
    entry per field, "grid", "rgb" or None."""
    fields = [result] if not isinstance(result, tuple) else list(result)
    out = []
    for field, kind in zip(fields, layout):
        if kind == "grid":
            out.append(field)
        elif kind == "rgb":
            out.extend(np.moveaxis(field, -1, 0))
    return out


def _fields(stack, layout, kind):
    import dask.array as da
    fields, k = [], 0
    for what in layout:
        if what == "grid":
            fields.append(stack[k])
            k += 1
        elif what == "rgb":
            fields.append(da.stack([stack[k], stack[k + 1], stack[k + 2]], axis=-1))
            k += 3
        else:
            fields.append(None)
    if len(fields) == 1:
        return fields[0]
    return tuple(fields) if kind is None else kind(*fields)


def _count(layout) -> int:
    return sum({"grid": 1, "rgb": 3}.get(kind, 0) for kind in layout)


def _whole(name: str, arrays, halo) -> int:
    """The halo of a whole-grid operation: the caller's, or a refusal on
    more than one chunk."""
    base = next(a for a in arrays if a is not None)
    if halo is None:
        if base.numblocks != (1, 1):
            raise ValueError(f"{name} reaches across the whole grid, so tiles would leave seams: give it one "
                             f"chunk (rechunk(-1)) or an explicit halo=<cells> and accept differences near "
                             f"the seams")
        return 0
    return _checks_halo(halo)


def _checks_halo(halo) -> int:
    if isinstance(halo, bool) or not isinstance(halo, (int, np.integer)) or halo < 0:
        raise ValueError(f"halo must be a whole number of cells >= 0, got {halo!r}")
    return int(halo)


def _tile_world(total_width: float, columns: int, tile_columns: int) -> float:
    """A tile's world width whose float32 cell size, as the library works it
    out (32 x width / columns in float32), is the whole grid's to the bit."""
    f32 = np.float32
    want = f32(32) * f32(total_width) / f32(columns)
    first = guess = f32(total_width * tile_columns / columns)
    for _ in range(64):
        got = f32(32) * guess / f32(tile_columns)
        if got == want:
            return float(guess)
        guess = np.nextafter(guess, f32(np.inf) if got < want else f32(0))
    return float(first)


def median_filter(q, heights, radius: int = 3, iterations: int = 1):
    """median_filter() tile by tile. Halo: radius x iterations cells (the
    radius taken as at most 8). Equal to the whole-grid run to the bit. The
    grid must be square; so is every tile's window."""
    key = _key(q)
    heights = _dask_array(heights, "heights")
    halo = min(max(int(radius), 1), 8) * max(int(iterations), 0)

    def run(grid, **_):
        return [_median_filter(_queue(key), grid, radius, iterations)]

    return _tiled(run, [heights], halo, True, 1)[0]


def blur(q, heights, radius: float = 12.0):
    """blur() tile by tile. Halo: 2 x ceil(radius) cells (two box passes
    per axis, each reaching trunc(radius) cells plus one for the fractional
    weight). The library's running sums round differently from a tile's
    first cell than from the grid's, so tiles match the whole-grid run to
    float rounding, not bit for bit (measured: within 1.1e-5 of the
    value range on a 4096^2 grid in 1024^2 chunks, 2.2e-6 on 512^2 in
    128^2 chunks; the running sums' error grows with the row). The grid must be square; so is every tile's window."""
    key = _key(q)
    heights = _dask_array(heights, "heights")
    halo = 2 * math.ceil(float(radius)) if math.isfinite(float(radius)) else 0

    def run(grid, **_):
        return [_blur(_queue(key), grid, radius)]

    return _tiled(run, [heights], halo, True, 1)[0]


def shade(q, heights, sun_azimuth: float = 225.0, sun_elevation: float = 35.0, shadow_rings: int = 1,
          sun_size: float = 0.53, sky_directions: int = 32, hybrid_sky: bool = False, shadows: bool = True,
          sky_visibility: bool = True, terrain_size: float | None = None, height_scale: float = 1.0,
          exposure: float = 0.6, albedo=None, colour: bool = True, *, halo: int | None = None) -> Shading:
    """shade() tile by tile. With shadows and sky_visibility off the result
    is the diffuse light and sky term of each cell's normal: halo 1 cell,
    equal to the whole-grid run to the bit (each tile's world width is
    chosen so that its cell size is the grid's to the bit). Shadows and sky
    visibility trace rays across the whole grid: refused on more than one
    chunk unless halo is given. The tiles then differ from the whole-grid
    run, and a wider halo barely helps, as the sun and sky samples follow
    each cell's place in its tile: measured on a 512^2 Brownian fractal in
    256^2 chunks with halos of 16 to 128 cells, shadow differs on 1.4 % of
    the cells by up to 0.57 (of 0 to 1), sky on 31 % by up to 0.43 (of
    about 2)."""
    key = _key(q)
    heights = _dask_array(heights, "heights")
    tracing = bool(shadows) or bool(sky_visibility)
    reach = _whole("shade with shadows or sky visibility", [heights], halo) if tracing else 1
    if halo is not None and not tracing:
        reach = max(1, _checks_halo(halo))
    bands = [None] * 3
    if albedo is not None:
        albedo = _dask_array(albedo, "albedo")
        bands = [albedo[..., k] for k in range(3)]
    layout = ("rgb" if colour else None, "grid", "grid" if shadows else None, "grid" if sky_visibility else None)

    def run(grid, r, g, b, *, shape, total, **_):
        width = total[1] if terrain_size is None else terrain_size
        size = width if shape[1] == total[1] else _tile_world(width, total[1], shape[1])
        tint = None if r is None else np.stack([r, g, b], axis=-1)
        return _planes(_shade(_queue(key), grid, sun_azimuth, sun_elevation, shadow_rings, sun_size, sky_directions,
                              hybrid_sky, shadows, sky_visibility, size, height_scale, exposure, tint, colour), layout)

    return _fields(_tiled(run, [heights, *bands], reach, False, _count(layout)), layout, Shading)


def cellular(q, width: int, height: int, result: str = "F1", *, chunks=1024, z=None, **options):
    """cellular() as a dask array of the given chunks (those of z when z is
    a dask array). Halo: none; but the library takes no origin for x and y,
    so a tile cannot be told where it lies: each band of rows is rendered
    from row 0 of the full width and cropped, which equals the whole-grid
    run to the bit and costs (bands + 1) / 2 times its work, the last band
    holding the whole grid. Options are cellular()'s keywords."""
    import dask
    import dask.array as da
    key = _key(q)
    columns, rows = int(width), int(height)
    if z is not None and np.ndim(z) == 2:
        z = _dask_array(z, "z")
        chunks = z.chunks
    grid_chunks = da.core.normalize_chunks(chunks, (rows, columns), dtype=np.float32)
    band_starts = _starts(grid_chunks[0])

    def band(i, z_band):
        r0, r1 = band_starts[i], band_starts[i + 1]
        z_full = z_band
        if z_band is not None and np.ndim(z_band) == 2:
            z_full = np.zeros((r1, columns), np.float32)
            z_full[r0:r1] = z_band
        return _cellular(_queue(key), columns, r1, result, z=z_full, **options)[r0:r1]

    z_bands = [z] * len(grid_chunks[0])
    if z is not None and np.ndim(z) == 2:
        z_bands = [d[0] for d in z.rechunk((grid_chunks[0], columns)).to_delayed()]
    parts = [da.from_delayed(dask.delayed(band)(i, zb), (grid_chunks[0][i], columns), dtype=np.float32)
             for i, zb in enumerate(z_bands)]
    return da.concatenate(parts, axis=0).rechunk(grid_chunks)


def stamp(q, heights, stamps, *, instances=None, return_instances: bool = False, return_ids: bool = False,
          **options):
    """stamp() tile by tile, with the copies given as `instances` (placing
    them from a seed takes the whole grid: on more than one chunk, place
    them first, e.g. with halden.stamp(..., return_instances=True) on a
    coarse copy, or give one chunk). Halo: the largest copy's footprint,
    half its diagonal (scale x the stamp's texels) plus 2 cells for the
    filter. Each tile draws the copies that reach it, in their order,
    shifted into the tile: equal to the whole-grid run to the bit. The ids
    grid names the copies by their index in `instances`. Options are
    stamp()'s other keywords (density is only read when placing)."""
    key = _key(q)
    heights = _dask_array(heights, "heights")
    _, entries = _atlas(stamps)
    if instances is None:
        if heights.numblocks != (1, 1) or return_instances:
            raise ValueError("placing copies from a seed reaches across the whole grid: give stamp() the "
                             "copies as instances= (halden.stamp(..., return_instances=True) places them), "
                             "or one chunk without return_instances")
        layout = ("grid", None, "grid") if return_ids else ("grid",)

        def run_placed(grid, **_):
            return _planes(_stamp(_queue(key), grid, stamps, return_ids=return_ids, **options), layout)

        out = _fields(_tiled(run_placed, [heights], 0, False, _count(layout)), layout, Stamping)
        return out
    drawn = _given(instances, len(entries))
    sizes = np.array([[e.width, e.height] for e in entries], np.float64)
    reach_each = drawn["scale"] * np.hypot(*sizes[drawn["stamp"]].T) / 2 + 2
    halo = int(math.ceil(reach_each.max()))
    layout = ("grid", "grid") if return_ids else ("grid",)

    def run(grid, *, origin, shape, **_):
        top, left = origin
        near = ((drawn["x"] + reach_each >= left) & (drawn["x"] - reach_each <= left + shape[1]) &
                (drawn["y"] + reach_each >= top) & (drawn["y"] - reach_each <= top + shape[0]))
        index = np.flatnonzero(near)
        if index.size == 0:
            return [grid] + ([np.full(shape, -1, np.float32)] if return_ids else [])
        mine = drawn[index].copy()
        mine["x"] -= np.float32(left)
        mine["y"] -= np.float32(top)
        result = _stamp(_queue(key), grid, stamps, instances=mine, return_ids=return_ids, **options)
        if not return_ids:
            return [result]
        ids = result.ids
        named = ids >= 0
        ids[named] = index[ids[named].astype(np.int64)]
        return [result.heights, ids]

    out = _fields(_tiled(run, [heights], halo, False, _count(layout)), layout, None)
    if not (return_ids or return_instances):
        return out
    heights_out, ids = (out[0], out[1]) if return_ids else (out, None)
    return Stamping(heights_out, drawn if return_instances else None, ids)


def _simulation(name, numpy_function, grids, layout_of, kind, square=False, default_halo=None, adapt=None,
                local=None):
    """A whole-grid operation over dask arrays: one chunk, or tiles with a
    halo the caller gives (or `default_halo`)."""
    grid_names = grids

    def function(q, *args, halo: int | None = default_halo, **kwargs):
        key = _key(q)
        positional = dict(zip(grid_names, args))
        arrays = [_dask_array(kwargs.pop(g, positional.get(g)), g) for g in grid_names]
        rest = args[len(grid_names):]
        exact = None if local is None else local(kwargs)
        reach = exact if halo is None and exact is not None else _whole(name, arrays, halo)
        layout = layout_of(kwargs)

        def run(*windows, shape, total, origin):
            call = dict(kwargs)
            if adapt is not None and shape != total:
                adapt(call, shape, total)
            result = numpy_function(_queue(key), *windows[:1], *rest,
                                    **{g: w for g, w in zip(grid_names[1:], windows[1:])}, **call)
            return _planes(result, layout)

        return _fields(_tiled(run, arrays, reach, square, _count(layout)), layout, kind)

    function.__name__ = function.__qualname__ = name
    parameters = list(inspect.signature(numpy_function).parameters.values())
    parameters = [p for p in parameters if p.name not in ("progress", "cancel")]
    parameters.append(inspect.Parameter("halo", inspect.Parameter.KEYWORD_ONLY, default=default_halo))
    function.__signature__ = inspect.Signature(parameters)
    seam = "" if default_halo is None else f" (default halo {default_halo} cells)"
    function.__doc__ = (f"{name}() over dask arrays. Halo: the whole grid{seam}. Refused on more than one chunk "
                        f"unless a halo=<cells> is given; tiles then differ from the whole-grid run near the seams "
                        f"(their pyramids, traces and random choices are the tile's own). Grids: {', '.join(grids)}.")
    return function


def _widths(*names):
    def adapt(call, shape, total):
        for n in names:
            if call.get(n) is not None:
                call[n] = call[n] * total[1] / shape[1]
    return adapt


def _extent(call, shape, total):
    call["extent"] = (total[1] if call.get("extent") is None else call["extent"]) * shape[1] / total[1]


def _one(_):
    return ("grid",)


flow = _simulation("flow", _flow, ("heights", "mask"), _one, None, adapt=_widths("length"))
color_transport = _simulation("color_transport", _color_transport, ("heights", "rgb", "mask"), lambda k: ("rgb",),
                              None, adapt=_widths("length"))
thermal_shape = _simulation("thermal_shape", _thermal_shape, ("heights", "mask"), _one, None, adapt=_extent)
thermal_erode = _simulation(
    "thermal_erode", _thermal_erode, ("heights", "mask", "hardness"),
    lambda k: ("grid", "grid") if k.get("deposition") else ("grid",), Weathering,
    local=lambda k: (int(k.get("iterations", ITERATIONS))
                     if k.get("levels") == 1 and k.get("talus_noise", TALUS_NOISE) == 0 else None))
thermal_erode.__doc__ += (" With levels=1 and talus_noise=0 it is local: material moves one cell per iteration, "
                          "so the halo is `iterations` cells and tiles equal the whole-grid run to the bit. "
                          "Otherwise the pyramid's levels depend on the grid's size and the angle noise on "
                          "each cell's place in the tile, so tiles differ everywhere (29 % of the cells of a "
                          "512^2 fractal in 256^2 chunks, by up to 0.49 height units, with levels=1).")
erode = _simulation(
    "erode", _erode, ("heights", "rain", "hardness"),
    lambda k: (("grid",) + tuple("grid" if k.get(m) else None for m in ("erosion", "deposition", "discharge"))
               if any(k.get(m) for m in ("erosion", "deposition", "discharge")) else ("grid",)),
    Erosion, default_halo=EROSION_HALO)
erode.__doc__ += (f" erode() tiles by default with a halo of EROSION_HALO = {EROSION_HALO} cells; a tiled run stays "
                  f"within EROSION_SEAM = {EROSION_SEAM} height units of the whole-grid run (measured at most 1.8 "
                  f"on a 512^2 fractal of height range 25 in 256^2 chunks), as droplets and pyramids are the "
                  f"tiles' own.")
dunes = _simulation("dunes", _dunes, ("bedrock", "sand", "vegetation"), _one, None, square=True)
debris = _simulation(
    "debris", _debris, ("heights", "sources", "warp"),
    lambda k: ("grid", "grid" if k.get("debris") else None, "grid" if k.get("ids") else None)
    if k.get("debris") or k.get("ids") else ("grid",), Debris)
sunlight = _simulation("sunlight", _sunlight, ("heights",),
                       lambda k: ("grid", "grid", None if k.get("sky_directions", 32) == 0 else "grid"), Sunlight)

# The multi-field results of a single layout entry come back as the bare grid.
for _name in __all__[1:]:
    globals()[_name] = _xarray.wrap(globals()[_name], _xarray.TABLE[_name])
del _name
