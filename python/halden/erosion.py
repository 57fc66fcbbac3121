"""Erosion: material that slides down steep slopes, and water that wears a
height grid down."""

import ctypes
from collections.abc import Callable
from typing import NamedTuple

import numpy as np
import numpy.typing as npt

from . import _calls, _checks, _native
from .queues import Queue

# The defaults of thermal_erode() and erode(), all of them here; the
# signatures take them from these names, which help() then shows as values.
# thermal_erode()
TALUS_ANGLE = 35.0  # degrees
TALUS_NOISE = 0.2
RATE = 0.5
ITERATIONS = 64
THERMAL_LEVELS = 0  # as many as halve the shorter side down to at most 48 cells
BURIAL_SCALE = 1.0  # world height
MASK_STRENGTH = 1.0
THERMAL_SEED = 1
# erode()
DROPLETS = 0.25  # per cell per round
ROUNDS = 8
LIFETIME_CELLS = 64.0  # lifetime=None: LIFETIME_CELLS x cell_size
INERTIA = 0.3
CAPACITY = 0.05
MIN_SLOPE = 0.01
EROSION_RATE = 0.3
DEPOSITION_RATE = 0.3
EVAPORATION = 0.02
GRAVITY = 4.0
BRUSH_RADIUS = 3.0  # cells
FLOW_COUPLING = True
EROSION_LEVELS = 0  # as many as halve the shorter side down to about 48 cells
DETAIL_HEIGHTS = 10.0  # detail_scale=None: DETAIL_HEIGHTS x height_scale
EROSION_SEED = 1


class Weathering(NamedTuple):
    """Results of thermal_erode(..., deposition=True), float32 grids of the heights' shape.

    heights:    the weathered heights
    deposition: thickness of loose material laid down on each cell, in
                height units, 0 or more
    """
    heights: npt.NDArray[np.float32]
    deposition: npt.NDArray[np.float32]


class Erosion(NamedTuple):
    """Results of erode() when a map is asked for, float32 grids of the
    heights' shape; the maps not asked for are None.

    heights:    the eroded heights
    erosion:    depth removed from each cell, in height units, 0 or more
    deposition: thickness of sediment laid down on each cell, in height
                units, 0 or more
    discharge:  where water ran: 0 where none did, towards 1 along rivers
    """
    heights: npt.NDArray[np.float32]
    erosion: npt.NDArray[np.float32] | None
    deposition: npt.NDArray[np.float32] | None
    discharge: npt.NDArray[np.float32] | None


def thermal_erode(q: Queue, heights: npt.ArrayLike, *, mask: npt.ArrayLike | None = None,
                  hardness: npt.ArrayLike | None = None, deposition: bool = False, cell_size: float = 1.0,
                  height_scale: float = 1.0, talus_angle: float = TALUS_ANGLE, talus_noise: float = TALUS_NOISE,
                  rate: float = RATE, iterations: int = ITERATIONS, levels: int = THERMAL_LEVELS,
                  burial_scale: float = BURIAL_SCALE, mask_strength: float = MASK_STRENGTH,
                  seed: int = THERMAL_SEED, progress: Callable[[float], object] | bool | None = None,
                  cancel: Callable[[], object] | None = None) -> npt.NDArray[np.float32] | Weathering:
    """Thermal weathering: material on slopes steeper than the angle of repose
    slides to lower neighbours until the slopes settle, over a pyramid of
    levels from coarse to fine. The borders are closed, so the total height
    is kept up to float rounding; a flat grid comes back unchanged.

    q:             the queue to run on
    heights:       2-D grid, any real dtype
    mask:          grid of the heights' shape, 0 to 1, scaling the effect per
                   cell (default None: every cell fully)
    hardness:      grid of the heights' shape, 0 to 1, slowing it per cell: a
                   cell of hardness 1 sheds nothing (default None: all soft)
    deposition:    also return the thickness of loose material laid down
                   (default False)
    cell_size:     world width of one cell, > 0 (default 1.0: one height unit)
    height_scale:  world height of one height unit, > 0 (default 1.0)
    talus_angle:   angle of repose in degrees, above 0 and below 90: steeper
                   slopes shed material
    talus_noise:   0 to 1: each cell's angle varies by up to this share of the
                   way to 0 or 90 degrees, so that settled slopes are not
                   uniform
    rate:          share of the excess moved per iteration, above 0 and at
                   most 1
    iterations:    iterations per pyramid level, 0 to 100000
    levels:        pyramid levels, 1 to 64, or 0 for as many as halve the
                   shorter side down to at most 48 cells
    burial_scale:  world height of moved material at which a finer level's
                   relief is half restored where it sticks out of what was
                   laid on it, > 0: larger keeps more fine detail
    mask_strength: 0 to 1: where the mask rises from a coarse level to the
                   finer one, that share of the loose material is released
                   (only with a mask)
    seed:          seed of the angle noise, 0 to 2^32 - 1
    progress:      callable(percent), percent a float rising from 0 to 100,
                   called after every iteration, a true return cancels; or
                   True for a text bar on stderr (default None: no report)
    cancel:        callable() polled as the run advances; a true return
                   cancels (default None)
    The defaults of the tuning arguments are in the signature (the constants
    at the top of halden.erosion). Every number must be finite.
    Returns the weathered heights, float32, of the heights' shape; with
    deposition=True a Weathering(heights, deposition). Raises Cancelled when
    cancelled; an exception raised by a callback cancels the run and is
    re-raised.
    """
    grid = _checks.grid(heights)
    weights = _checks.mask(mask, grid.shape)
    hard = _checks.mask(hardness, grid.shape, "hardness")
    rows, columns = grid.shape
    record = _native.WeatheringParameters(
        width=columns, height=rows, cell_size=_checks.positive(cell_size, "cell_size"),
        height_scale=_checks.positive(height_scale, "height_scale"),
        talus_angle=_checks.between(talus_angle, "talus_angle", 0, 90, above=True, below=True),
        talus_noise=_checks.between(talus_noise, "talus_noise", 0, 1),
        rate=_checks.between(rate, "rate", 0, 1, above=True),
        iterations=_checks.integer(iterations, _native.i32, "iterations", 0, 100000),
        levels=_checks.integer(levels, _native.i32, "levels", 0, 64),
        burial_scale=_checks.positive(burial_scale, "burial_scale"),
        mask_strength=_checks.between(mask_strength, "mask_strength", 0, 1),
        seed=_checks.integer(seed, _native.u32, "seed"))
    laid = np.zeros_like(grid) if deposition else None
    _calls.run(_native.ThermalSimulation, q, _native.floats(grid), _native.floats(weights), _native.floats(laid),
               _native.floats(hard), ctypes.byref(record), _calls.TABLE, progress=progress, cancel=cancel,
               label="thermal_erode")
    return Weathering(grid, laid) if deposition else grid


def erode(q: Queue, heights: npt.ArrayLike, *, rain: npt.ArrayLike | None = None,
          hardness: npt.ArrayLike | None = None, erosion: bool = False, deposition: bool = False,
          discharge: bool = False, cell_size: float = 1.0, height_scale: float = 1.0, droplets: float = DROPLETS,
          rounds: int = ROUNDS, lifetime: float | None = None, inertia: float = INERTIA,
          capacity: float = CAPACITY, min_slope: float = MIN_SLOPE, erosion_rate: float = EROSION_RATE,
          deposition_rate: float = DEPOSITION_RATE, evaporation: float = EVAPORATION, gravity: float = GRAVITY,
          brush_radius: float = BRUSH_RADIUS, flow_coupling: bool = FLOW_COUPLING, levels: int = EROSION_LEVELS,
          detail_scale: float | None = None, seed: int = EROSION_SEED,
          progress: Callable[[float], object] | bool | None = None,
          cancel: Callable[[], object] | None = None) -> npt.NDArray[np.float32] | Erosion:
    """Hydraulic erosion: water droplets run downhill with inertia, take up
    sediment where they can carry more, lay it down where they carry too
    much, and evaporate, in rounds on every level of a pyramid, coarse to
    fine. The same seed gives the same result on every device.

    q:               the queue to run on
    heights:         2-D grid, any real dtype
    rain:            grid of the heights' shape, 0 to 1: the chance that a
                     droplet spawned on a cell runs (default None: everywhere)
    hardness:        grid of the heights' shape, 0 to 1, scaling erosion per
                     cell: ground of hardness 1 is never cut (default None)
    erosion:         also return the depth removed from each cell (default
                     False)
    deposition:      also return the thickness of sediment laid down (default
                     False)
    discharge:       also return the water-flow map (default False)
    cell_size:       world width of one cell, > 0 (default 1.0: one height
                     unit)
    height_scale:    world height of one height unit, > 0 (default 1.0)
    droplets:        droplets per cell per round, above 0 and at most 16
    rounds:          rounds per pyramid level, 0 to 100000; each round's
                     droplets run against the heights as the round found them
    lifetime:        world length a droplet may run, > 0 (default None:
                     LIFETIME_CELLS x cell_size); the library refuses more
                     than 65536 cells with HaldenError
    inertia:         how much of its direction a droplet keeps, at least 0 and
                     below 1
    capacity:        sediment a droplet can carry per unit of slope, speed
                     and water, finite and >= 0
    min_slope:       the slope capacity never drops below, finite and >= 0
    erosion_rate:    share of the free capacity taken up per step, 0 to 1
    deposition_rate: share of the excess load laid down per step, 0 to 1
    evaporation:     share of the water lost per step, at least 0 and below 1
    gravity:         speed gained per unit of drop, finite and >= 0
    brush_radius:    radius in cells over which a step's erosion is spread,
                     0 to 8 (0: the droplet's cell alone)
    flow_coupling:   droplets lean towards the mean direction of the water of
                     the round before, so rivers form and persist (True or
                     False, or 1 or 0)
    levels:          pyramid levels, 1 to 64, or 0 for as many as halve the
                     shorter side down to about 48 cells
    detail_scale:    world depth of erosion at which a finer level keeps all
                     of its own relief where it sticks out of the sediment;
                     deeper erosion keeps less of it, > 0 (default None:
                     DETAIL_HEIGHTS x height_scale)
    seed:            seed of every random choice, 0 to 2^32 - 1
    progress:        callable(percent), percent a float rising from 0 to 100,
                     called after every round, a true return cancels; or True
                     for a text bar on stderr (default None: no report)
    cancel:          callable() polled as the run advances; a true return
                     cancels (default None)
    The defaults of the tuning arguments are in the signature (the constants
    at the top of halden.erosion). Every number must be finite.
    Returns the eroded heights, float32, of the heights' shape; with any of
    erosion, deposition or discharge True an Erosion(heights, erosion,
    deposition, discharge) whose maps not asked for are None. Raises
    Cancelled when cancelled; an exception raised by a callback cancels the
    run and is re-raised.
    """
    grid = _checks.grid(heights)
    wet = _checks.mask(rain, grid.shape, "rain")
    hard = _checks.mask(hardness, grid.shape, "hardness")
    rows, columns = grid.shape
    cell = _checks.positive(cell_size, "cell_size")
    scale = _checks.positive(height_scale, "height_scale")
    record = _native.ErosionParameters(
        width=columns, height=rows, cell_size=cell, height_scale=scale,
        droplets=_checks.between(droplets, "droplets", 0, 16, above=True),
        rounds=_checks.integer(rounds, _native.i32, "rounds", 0, 100000),
        lifetime=_checks.positive(LIFETIME_CELLS * cell if lifetime is None else lifetime, "lifetime"),
        inertia=_checks.between(inertia, "inertia", 0, 1, below=True),
        capacity=_checks.non_negative(capacity, "capacity"),
        min_slope=_checks.non_negative(min_slope, "min_slope"),
        erosion_rate=_checks.between(erosion_rate, "erosion_rate", 0, 1),
        deposition_rate=_checks.between(deposition_rate, "deposition_rate", 0, 1),
        evaporation=_checks.between(evaporation, "evaporation", 0, 1, below=True),
        gravity=_checks.non_negative(gravity, "gravity"),
        brush_radius=_checks.between(brush_radius, "brush_radius", 0, 8),
        flow_coupling=_checks.integer(flow_coupling, _native.i32, "flow_coupling", 0, 1),
        levels=_checks.integer(levels, _native.i32, "levels", 0, 64),
        detail_scale=_checks.positive(DETAIL_HEIGHTS * scale if detail_scale is None else detail_scale,
                                      "detail_scale"),
        seed=_checks.integer(seed, _native.u32, "seed"))
    maps = [np.zeros_like(grid) if wanted else None for wanted in (erosion, deposition, discharge)]
    _calls.run(_native.ParallelErosionSimulation, q, _native.floats(grid), _native.floats(wet),
               _native.floats(hard), *map(_native.floats, maps), ctypes.byref(record), _calls.TABLE,
               progress=progress, cancel=cancel, label="erode")
    return Erosion(grid, *maps) if any(m is not None for m in maps) else grid
