"""Dunes: sand lying on a bedrock, blown by the wind into dunes."""

import ctypes
from collections.abc import Callable

import numpy as np
import numpy.typing as npt

from . import _calls, _checks, _native
from .queues import Queue

# The defaults of dunes().
WIND_DIRECTION = 0.0  # degrees from +x (along a row) towards +y (down the rows)
WIND_SPEED = 1.0
ITERATIONS = 200
SLAB = 0.1  # height units
HOP_LENGTH = 3.0  # cells
SPEED_UP = 0.2
WARP_STRENGTH = 0.5
SHADOW_ANGLES = (5.0, 15.0)  # degrees
SAND_REPOSE = 33.0  # degrees
BEDROCK_REPOSE = 68.0  # degrees
SEED = 1


def dunes(q: Queue, bedrock: npt.ArrayLike, sand: npt.ArrayLike, *, vegetation: npt.ArrayLike | None = None,
          cell_size: float = 1.0, height_scale: float = 1.0, wind_direction: float = WIND_DIRECTION,
          wind_speed: float = WIND_SPEED, second_wind_direction: float = 90.0, second_wind_speed: float = 1.0,
          second_wind_share: float = 0.0, iterations: int = ITERATIONS, slab: float = SLAB,
          hop_length: float = HOP_LENGTH, speed_up: float = SPEED_UP, warp_strength: float = WARP_STRENGTH,
          shadow_angles: tuple[float, float] = SHADOW_ANGLES, sand_repose: float = SAND_REPOSE,
          bedrock_repose: float = BEDROCK_REPOSE, periodic: bool = True, abrasion: bool = True, seed: int = SEED,
          progress: Callable[[float], object] | bool | None = None,
          cancel: Callable[[], object] | None = None) -> npt.NDArray[np.float32]:
    """Wind-blown sand: lifted where the wind is exposed, carried downwind in
    hops, laid down in the lee of crests, slid down to its angle of repose.
    The bedrock is not changed. The same arguments give the same bits on
    every device and thread count.

    q:                 the queue to run on
    bedrock:           square 2-D grid, any real dtype
    sand:              sand thickness, the bedrock's shape, 0 to 2^20
    vegetation:        plant cover of the bedrock's shape, 0 to 1, that holds
                       sand (default None: bare)
    cell_size:         world width of one cell, > 0
    height_scale:      world height of one height unit, > 0
    wind_direction:    degrees, where the wind blows to
    wind_speed:        relative speed, 0 to 8
    second_wind_direction, second_wind_speed, second_wind_share: a second
                       wind, blowing for a share 0 to 1 of the iterations
                       (0: off)
    iterations:        0 to 100000
    slab:              sand lifted per iteration from an exposed cell at
                       speed 1, height units
    hop_length:        cells per hop at speed 1, above 0 and at most 64
    speed_up:          the wind's gain per cell width of height above the
                       blurred terrain, 0 to 16
    warp_strength:     0 to 1: how much the wind turns around large dunes
    shadow_angles:     (min, max) degrees of the upwind horizon between
                       which the lee shelter grows from none to full
    sand_repose:       degrees, above 0 and below 90
    bedrock_repose:    degrees: rock faces steeper than this hold no sand
    periodic:          sand leaving an edge comes back at the opposite one
                       (the volume is then kept exactly)
    abrasion:          grains bounce off bare rock more readily than off sand
    seed:              seed of the hop-length variation, 0 to 2^32 - 1
    progress:          callable(percent), percent rising from 0 to 100 after
                       each iteration; a true return cancels (True: a bar)
    cancel:            callable() asked after each iteration; true cancels
    Returns the new sand thickness, float32, of the bedrock's shape. Raises
    HaldenError when the library refuses the arguments, Cancelled on a cancel.
    """
    rock = _checks.grid(bedrock, "bedrock", square=True)
    grains = _checks.grid(sand, "sand")
    if grains.shape != rock.shape:
        raise ValueError(f"sand must have the bedrock's shape {rock.shape}, got {grains.shape}")
    cover = _checks.mask(vegetation, rock.shape, "vegetation")
    low, high = (float(a) for a in shadow_angles)
    record = _native.DuneParameters(
        size=rock.shape[0], cell_size=_checks.positive(cell_size, "cell_size"),
        height_scale=_checks.positive(height_scale, "height_scale"),
        wind_direction=_checks.number(wind_direction, "wind_direction"),
        wind_speed=_checks.between(wind_speed, "wind_speed", 0, 8),
        second_wind_direction=_checks.number(second_wind_direction, "second_wind_direction"),
        second_wind_speed=_checks.between(second_wind_speed, "second_wind_speed", 0, 8),
        second_wind_share=_checks.between(second_wind_share, "second_wind_share", 0, 1),
        iterations=_checks.integer(iterations, _native.i32, "iterations", 0, 100000),
        slab=_checks.non_negative(slab, "slab"),
        hop_length=_checks.between(hop_length, "hop_length", 0, 64, above=True),
        speed_up=_checks.between(speed_up, "speed_up", 0, 16),
        warp_strength=_checks.between(warp_strength, "warp_strength", 0, 1),
        shadow_angle_min=_checks.between(low, "shadow_angles[0]", 0, 90, above=True, below=True),
        shadow_angle_max=_checks.between(high, "shadow_angles[1]", low, 90, below=True),
        sand_repose=_checks.between(sand_repose, "sand_repose", 0, 90, above=True, below=True),
        bedrock_repose=_checks.between(bedrock_repose, "bedrock_repose", 0, 90, above=True, below=True),
        periodic=1 if periodic else 0, abrasion=1 if abrasion else 0, seed=_checks.integer(seed, _native.u32, "seed"))
    _calls.run(_native.DuneSimulation, q, _native.floats(rock), _native.floats(grains), _native.floats(cover),
               ctypes.byref(record), _calls.TABLE, progress=progress, cancel=cancel, label="dunes")
    return grains
