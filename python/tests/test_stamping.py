# SPDX-License-Identifier: Apache-2.0
import math

import numpy as np
import pytest

import halden


def rock(side=16):
    y, x = np.mgrid[:side, :side]
    r2 = ((x + 0.5) / side - 0.5) ** 2 + ((y + 0.5) / side - 0.5) ** 2
    return np.maximum(0.0, 1.0 - 4.0 * r2).astype(np.float32)


def test_an_identity_copy_replaces_the_cells_under_it(q):
    ground = np.full((10, 12), 7.0, np.float32)
    stamp = np.arange(15, dtype=np.float32).reshape(3, 5) - 4.0
    out = halden.stamp(q, ground, [stamp], instances=[(4 + 2.5, 3 + 1.5, 1.0, 0.0, 1.0, 0)], blend="replace",
                       relative=False, falloff=0.0, return_ids=True)
    want = ground.copy()
    want[3:6, 4:9] = stamp
    np.testing.assert_array_equal(out.heights, want)
    ids = np.full(ground.shape, -1.0, np.float32)
    ids[3:6, 4:9] = 0.0
    np.testing.assert_array_equal(out.ids, ids)
    assert out.instances is None
    np.testing.assert_array_equal(ground, np.full((10, 12), 7.0))  # the input is untouched


def test_the_placement_is_returned_and_can_be_drawn_again(q):
    ground = np.random.default_rng(1).random((60, 80), dtype=np.float32)
    placed = halden.stamp(q, ground, [rock(), rock(9) * 2], count=40, spacing=5.0, seed=7, return_instances=True)
    assert placed.instances.dtype == halden.stamping.INSTANCE and 0 < placed.instances.size <= 40
    again = halden.stamp(q, ground, np.stack([rock(), rock()]), count=40, spacing=5.0, seed=7, return_instances=True)
    np.testing.assert_array_equal(again.instances[["x", "y", "scale", "rotation"]],
                                  placed.instances[["x", "y", "scale", "rotation"]])
    x, y = placed.instances["x"].astype(float), placed.instances["y"].astype(float)
    gaps = np.hypot(x[:, None] - x, y[:, None] - y) + np.eye(x.size) * 1e9
    assert gaps.min() >= 5.0 * 0.9999
    redrawn = halden.stamp(q, ground, [rock(), rock(9) * 2], instances=placed.instances)
    np.testing.assert_array_equal(redrawn, placed.heights)
    assert np.all(placed.heights >= ground)  # max blend
    c = np.cos(np.radians(placed.instances["rotation"].astype(float)))
    np.testing.assert_allclose(placed.instances["cos_rotation"], c, atol=1e-6)


def test_max_is_order_free_and_zero_stamps_add_nothing(q):
    ground = np.random.default_rng(2).random((40, 40), dtype=np.float32) * 5
    rows = [(3.0 + 7 * i % 37, 5.0 + 11 * i % 31, 0.5 + 0.1 * i, 17.0 * i, 1.0 + i, 0) for i in range(20)]
    forward = halden.stamp(q, ground, [rock()], instances=rows, falloff=0.0)
    backward = halden.stamp(q, ground, [rock()], instances=rows[::-1], falloff=0.0)
    np.testing.assert_array_equal(forward, backward)
    for blend in ("add", "subtract"):
        np.testing.assert_array_equal(halden.stamp(q, ground, [np.zeros((8, 8))], blend=blend, opacity=0.5), ground)


def test_density_and_limits_steer_the_placement(q):
    ground = np.tile(np.linspace(0, 10, 50, dtype=np.float32), (30, 1))
    density = np.zeros_like(ground)
    density[:, :25] = 1.0
    placed = halden.stamp(q, ground, [rock()], density=density, count=30, elevation=(1.0, math.inf),
                          return_instances=True).instances
    assert placed.size == 30
    assert (placed["x"] < 25).all() and (ground[placed["y"].astype(int), placed["x"].astype(int)] >= 1.0).all()


def test_bad_arguments_are_refused_before_the_call(q):
    ground = np.zeros((8, 8))
    with pytest.raises(ValueError, match="blend"):
        halden.stamp(q, ground, [rock()], blend="screen")
    with pytest.raises(ValueError, match="stamps"):
        halden.stamp(q, ground, [])
    with pytest.raises(ValueError, match=r"stamps\[0\]"):
        halden.stamp(q, ground, [np.full((4, 4), np.nan)])
    with pytest.raises(ValueError, match="scale"):
        halden.stamp(q, ground, [rock()], scale=(0.0, 1.0))
    with pytest.raises(ValueError, match="min <= max"):
        halden.stamp(q, ground, [rock()], rotation=(10.0, 0.0))
    with pytest.raises(ValueError, match="stamp must be below"):
        halden.stamp(q, ground, [rock()], instances=[(1.0, 1.0, 1.0, 0.0, 1.0, 1)])
    with pytest.raises(ValueError, match="count"):
        halden.stamp(q, ground, [rock()], count=0)
    with pytest.raises(ValueError, match="density"):
        halden.stamp(q, ground, [rock()], density=np.ones((4, 4)))
    # What only the library checks comes back as a HaldenError naming the field.
    with pytest.raises(halden.HaldenError, match="spacing"):
        halden.stamp(q, np.zeros((4096, 4096), np.float32), [rock()], spacing=0.01)
