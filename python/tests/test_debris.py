# SPDX-License-Identifier: Apache-2.0
import numpy as np
import pytest

import halden


def cliff(rows=48, columns=80):
    """A plateau 30 high, a cliff face five cells wide, and a gentle floor."""
    x = np.arange(columns, dtype=np.float32)
    wall = 30 * np.clip((25 - x) / 5, 0, 1) + 2
    floor = 0.05 * x + 0.4 * np.sin(0.3 * np.arange(rows, dtype=np.float32))[:, None]
    return np.maximum(floor, wall).astype(np.float32)


def test_debris_lays_rocks_below_the_cliff_and_only_raises_the_terrain(q):
    heights = cliff()
    before = heights.copy()
    out = halden.debris(q, heights, mode="synchronous", seed=3)
    np.testing.assert_array_equal(heights, before)  # the caller's grid is left alone
    assert out.dtype == np.float32 and out.shape == heights.shape
    assert (out >= heights).all() and (out > heights).sum() > 50
    assert (out[:, :18] == heights[:, :18]).all()  # nothing lands on the plateau
    full = halden.debris(q, heights, debris=True, ids=True, mode="synchronous", seed=3)
    np.testing.assert_array_equal(full.heights, out)
    np.testing.assert_array_equal(full.debris, out - heights)
    np.testing.assert_array_equal(full.ids < 0, out == heights)
    assert (full.ids[full.ids >= 0] % 1 == 0).all()
    only_ids = halden.debris(q, heights, ids=True, mode="synchronous", seed=3)
    assert only_ids.debris is None
    np.testing.assert_array_equal(only_ids.ids, full.ids)


def test_debris_needs_sources(q):
    heights = cliff()
    np.testing.assert_array_equal(halden.debris(q, heights, sources=np.zeros_like(heights)), heights)
    flat = np.full((20, 30), 5.0, np.float32)
    np.testing.assert_array_equal(halden.debris(q, flat, shape="rounded"), flat)
    # A warp of -1 everywhere switches every source off.
    np.testing.assert_array_equal(halden.debris(q, heights, warp=np.full(heights.shape, -1.0)), heights)


def test_debris_modes_and_shapes_differ_and_repeat(q):
    heights = cliff()
    runs = {(mode, shape): halden.debris(q, heights, mode=mode, shape=shape, seed=9)
            for mode in ("synchronous", "asynchronous") for shape in ("sharp", "rounded")}
    assert len({r.tobytes() for r in runs.values()}) == 4
    np.testing.assert_array_equal(halden.debris(q, heights, mode="asynchronous", shape="rounded", seed=9),
                                  runs[("asynchronous", "rounded")])


def test_debris_refuses_bad_arguments(q):
    heights = cliff(8, 8)
    for kwargs, what in [(dict(mode="sideways"), "mode"), (dict(shape="cubic"), "shape"),
                         (dict(density=17), "density"), (dict(facets=3), "facets"),
                         (dict(friction_angle=90), "friction_angle"), (dict(restitution=1), "restitution"),
                         (dict(size_min=2, size_max=1), "size_max"), (dict(sources=np.zeros((8, 7))), "sources"),
                         (dict(warp=np.zeros((7, 8))), "warp")]:
        with pytest.raises(ValueError, match=what):
            halden.debris(q, heights, **kwargs)
    # The library's own check: rocks wider than 64 cells.
    with pytest.raises(halden.HaldenError, match="size_max"):
        halden.debris(q, heights, size_max=65)
