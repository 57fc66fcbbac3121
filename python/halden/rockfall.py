"""Debris: rocks that break off steep slopes, fall, bounce and roll, and come
to rest as scree and boulders on a height grid."""

import ctypes
from typing import NamedTuple

import numpy as np
import numpy.typing as npt

from . import _calls, _checks, _native
from .queues import Queue

# The defaults of debris(), which the signature takes from these names.
DENSITY = 0.5  # expected rocks per source cell
SIZE_MIN_CELLS = 0.5  # size_min=None: SIZE_MIN_CELLS x cell_size
SIZE_MAX_CELLS = 3.0  # size_max=None: SIZE_MAX_CELLS x cell_size
SIZE_EXPONENT = 2.5
SOURCE_SLOPE = 40.0  # degrees
FRICTION_ANGLE = 32.0  # degrees
RESTITUTION = 0.3
MAX_STEPS = 4000
MODE = "asynchronous"
BATCHES = 8
SHAPE = "sharp"
FACETS = 7
ROUNDNESS = 0.5
EMBEDDING = 0.4
WARP_AMPLITUDE = 8.0  # cells
WARP_FREQUENCY = 0.02  # per cell
SEED = 1

MODES = ("synchronous", "asynchronous")
SHAPES = ("sharp", "rounded")


class Debris(NamedTuple):
    """Results of debris() when a map is asked for, float32 grids of the
    heights' shape; the maps not asked for are None.

    heights: the terrain with the rocks laid on it, nowhere lower than before
    debris:  thickness of rock on each cell, in height units, 0 or more
    ids:     the id of the rock topping each cell (whole numbers as floats),
             -1 where none does
    """
    heights: npt.NDArray[np.float32]
    debris: npt.NDArray[np.float32] | None
    ids: npt.NDArray[np.float32] | None


def debris(q: Queue, heights: npt.ArrayLike, *, sources: npt.ArrayLike | None = None,
           warp: npt.ArrayLike | None = None, debris: bool = False, ids: bool = False, cell_size: float = 1.0,
           height_scale: float = 1.0, density: float = DENSITY, size_min: float | None = None,
           size_max: float | None = None, size_exponent: float = SIZE_EXPONENT, source_slope: float = SOURCE_SLOPE,
           friction_angle: float = FRICTION_ANGLE, restitution: float = RESTITUTION, max_steps: int = MAX_STEPS,
           mode: str = MODE, batches: int = BATCHES, shape: str = SHAPE, facets: int = FACETS,
           roundness: float = ROUNDNESS, embedding: float = EMBEDDING, warp_amplitude: float = WARP_AMPLITUDE,
           warp_frequency: float = WARP_FREQUENCY, seed: int = SEED) -> npt.NDArray[np.float32] | Debris:
    """Rock debris: rocks break off cells steeper than source_slope, fall,
    bounce and roll down as point masses with friction, and come to rest on
    slopes gentler than friction_angle, where they are rendered into the
    heights as faceted or rounded rocks. The same arguments give the same
    bits on every device and thread count.

    q:              the queue to run on
    heights:        2-D grid, any real dtype
    sources:        grid of the heights' shape, 0 to 1: each cell's weight as
                    a source (default None: every steep cell fully)
    warp:           grid of the heights' shape, -1 to 1 (clamped), used
                    instead of the built-in warp noise: below 0 fewer rocks
                    break off (none at -0.5 and below), and it stretches
                    (above 0) or shrinks the rocks' outlines, by
                    1 / (1 - 0.3 warp); zeros modulate nothing (default None)
    debris:         also return the thickness of rock on each cell
    ids:            also return which rock tops each cell
    cell_size:      world width of one cell, > 0
    height_scale:   world height of one height unit, > 0
    density:        expected rocks per source cell, 0 to 16
    size_min:       smallest rock radius, world units, > 0 (default None:
                    SIZE_MIN_CELLS x cell_size)
    size_max:       largest rock radius, >= size_min, at most 64 cells
                    (default None: SIZE_MAX_CELLS x cell_size)
    size_exponent:  radii follow a power law r^-size_exponent, 0 to 8
    source_slope:   degrees, above 0 and below 90
    friction_angle: degrees, above 0 and below 90: rolling friction and the
                    steepest slope a rock rests on
    restitution:    0 to below 1: share of the normal speed kept in a bounce
    max_steps:      time steps a rock may take, 1 to 100000
    mode:           "synchronous" (every rock on the input terrain) or
                    "asynchronous" (in batches, later rocks piling on
                    earlier ones)
    batches:        1 to 1024 (asynchronous mode)
    shape:          "sharp" (faceted) or "rounded" (superellipsoid caps)
    facets:         planes of a sharp rock, 4 to 32
    roundness:      0 (boxy) to 1 (ellipsoidal), rounded rocks
    embedding:      0 to below 1: share of a rock's height below the ground
    warp_amplitude: cells the warp noise's domain is displaced by, 0 to 10000
    warp_frequency: warp noise features per cell, above 0 and at most 1
    seed:           seed of every random choice, 0 to 2^32 - 1
    Returns the new heights, float32, of the heights' shape; with debris or
    ids a Debris(heights, debris, ids). Raises HaldenError when the library
    refuses the arguments.
    """
    grid = _checks.grid(heights)
    weights = _checks.mask(sources, grid.shape, "sources")
    field = _checks.mask(warp, grid.shape, "warp")
    rows, columns = grid.shape
    cell_size = _checks.positive(cell_size, "cell_size")
    lo = _checks.positive(SIZE_MIN_CELLS * cell_size if size_min is None else size_min, "size_min")
    hi = _checks.positive(SIZE_MAX_CELLS * cell_size if size_max is None else size_max, "size_max")
    if hi < lo:
        raise ValueError(f"size_max must be at least size_min, got {hi!r} < {lo!r}")
    record = _native.DebrisParameters(
        width=columns, height=rows, cell_size=cell_size, height_scale=_checks.positive(height_scale, "height_scale"),
        seed=_checks.integer(seed, _native.u32, "seed"), density=_checks.between(density, "density", 0, 16),
        size_min=lo, size_max=hi, size_exponent=_checks.between(size_exponent, "size_exponent", 0, 8),
        source_slope=_checks.between(source_slope, "source_slope", 0, 90, above=True, below=True),
        friction_angle=_checks.between(friction_angle, "friction_angle", 0, 90, above=True, below=True),
        restitution=_checks.between(restitution, "restitution", 0, 1, below=True),
        max_steps=_checks.integer(max_steps, _native.i32, "max_steps", 1, 100000),
        mode=_checks.choice(mode, MODES, "mode"), batches=_checks.integer(batches, _native.i32, "batches", 1, 1024),
        shape=_checks.choice(shape, SHAPES, "shape"), facets=_checks.integer(facets, _native.i32, "facets", 4, 32),
        roundness=_checks.between(roundness, "roundness", 0, 1),
        embedding=_checks.between(embedding, "embedding", 0, 1, below=True),
        warp_amplitude=_checks.between(warp_amplitude, "warp_amplitude", 0, 10000),
        warp_frequency=_checks.between(warp_frequency, "warp_frequency", 0, 1, above=True))
    thickness = np.zeros_like(grid) if debris else None
    rock_ids = np.zeros_like(grid) if ids else None
    _calls.run(_native.DebrisSimulation, q, _native.floats(grid), _native.floats(weights), _native.floats(thickness),
               _native.floats(rock_ids), _native.floats(field), ctypes.byref(record))
    return Debris(grid, thickness, rock_ids) if debris or ids else grid
