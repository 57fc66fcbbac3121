# SPDX-License-Identifier: Apache-2.0
import math

import numpy as np
import pytest

import halden


def plane_points(width, height):
    """Four points per cell at the centre +- 0.25 on z = 0.5 x + 0.25 y + 3."""
    y, x = np.mgrid[:height * 2, :width * 2]
    x = x.ravel() * 0.5 + 0.25
    y = y.ravel() * 0.5 + 0.25
    return np.stack([x, y, 0.5 * x + 0.25 * y + 3.0], axis=1)


def test_the_mean_of_points_on_a_plane_is_the_plane_at_each_centre(q):
    out, counts = halden.rasterize_points(q, plane_points(7, 5), 7, 5, counts=True)
    y, x = np.mgrid[:5, :7] + 0.5
    np.testing.assert_array_equal(out, (0.5 * x + 0.25 * y + 3.0).astype(np.float32))
    np.testing.assert_array_equal(counts, np.full((5, 7), 4.0, np.float32))


def test_modes_of_one_cell(q):
    two = [[0.1, 0.1, 1.0], [0.6, 0.4, 3.0]]
    want = {"max": 3.0, "min": 1.0, "mean": 2.0, "nearest": 3.0, "count": 2.0, "stdev": 1.0}
    for mode, value in want.items():
        assert halden.rasterize_points(q, two, 1, 1, mode=mode)[0, 0] == value, mode
    assert halden.rasterize_points(q, two, 1, 1, mode="idw")[0, 0] == pytest.approx(0.98 / 0.34, rel=1e-6)


def test_holes_are_filled_and_the_order_of_the_points_does_not_matter(q):
    rng = np.random.default_rng(4)
    pts = rng.random((500, 3)) * [30, 20, 5]
    pts = pts[(pts[:, 0] < 10) | (pts[:, 0] > 14)]  # a band without points
    plain = halden.rasterize_points(q, pts, 30, 20)
    assert np.isnan(plain).any()
    filled = halden.rasterize_points(q, pts, 30, 20, fill="pull-push", radius=1.5, mode="idw", power=3)
    assert not np.isnan(filled).any()
    again = halden.rasterize_points(q, pts[rng.permutation(len(pts))], 30, 20, fill="pull-push", radius=1.5,
                                    mode="idw", power=3)
    np.testing.assert_array_equal(again.view(np.uint32), filled.view(np.uint32))
    inner = halden.rasterize_points(q, pts, 30, 20, fill="inner", empty=-1.0)
    assert (inner[:, 11:13] == -1.0).all()  # the band reaches the border


def test_bad_arguments_are_refused(q):
    good = [[0.5, 0.5, 1.0]]
    with pytest.raises(ValueError, match="mode"):
        halden.rasterize_points(q, good, 2, 2, mode="median")
    with pytest.raises(ValueError, match="fill"):
        halden.rasterize_points(q, good, 2, 2, fill="all")
    with pytest.raises(ValueError, match="non-finite"):
        halden.rasterize_points(q, [[0.5, math.nan, 1.0]], 2, 2)
    with pytest.raises(ValueError, match="at least one point"):
        halden.rasterize_points(q, np.zeros((0, 3)), 2, 2)
    with pytest.raises(ValueError, match="power"):
        halden.rasterize_points(q, good, 2, 2, mode="idw", power=0)
    with pytest.raises(ValueError, match="radius"):
        halden.rasterize_points(q, good, 2, 2, radius=-1)
    with pytest.raises(ValueError, match="shape"):
        halden.rasterize_points(q, [1.0, 2.0, 3.0], 2, 2)
