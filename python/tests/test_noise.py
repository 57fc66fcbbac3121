# SPDX-License-Identifier: Apache-2.0
import numpy as np
import pytest

import halden


def test_cellular_renders_a_grid_with_f1_below_f2(q):
    f1 = halden.cellular(q, 64, 40, frequency=6, seed=5)
    assert f1.dtype == np.float32 and f1.shape == (40, 64)
    f2 = halden.cellular(q, 64, 40, "F2", frequency=6, seed=5)
    assert (f1 <= f2).all() and f1.min() >= 0
    cracks = halden.cellular(q, 64, 40, "f2-f1", frequency=6, seed=5)
    np.testing.assert_array_equal(cracks, f2 - f1)
    cells = halden.cellular(q, 64, 40, "cell", frequency=6, seed=5)
    assert 0 <= cells.min() and cells.max() < 1
    assert not np.array_equal(halden.cellular(q, 64, 40, frequency=6, seed=6), f1)
    scaled = halden.cellular(q, 64, 40, frequency=6, seed=5, scale=2, offset=-1)
    np.testing.assert_array_equal(scaled, f1 * np.float32(2) - np.float32(1))


def test_cellular_follows_a_z_grid_and_a_constant_z_matches(q):
    z = np.full((30, 50), 12.0)
    flat = halden.cellular(q, 50, 30, z=12.0, octaves=3)
    np.testing.assert_array_equal(halden.cellular(q, 50, 30, z=z, octaves=3), flat)
    heights = np.add.outer(np.arange(30.0), np.arange(50.0))
    assert not np.array_equal(halden.cellular(q, 50, 30, z=heights, octaves=3), flat)
    with pytest.raises(ValueError, match="z"):
        halden.cellular(q, 50, 30, z=np.zeros((30, 49)))
    with pytest.raises(ValueError, match="z"):
        halden.cellular(q, 50, 30, z=np.full((30, 50), np.nan))


def test_cellular_tiles_with_a_period(q):
    out = halden.cellular(q, 100, 90, "F2-F1", frequency=5, period=2, octaves=2)  # tiles of 40 cells
    np.testing.assert_array_equal(out[:, :60], out[:, 40:])
    np.testing.assert_array_equal(out[:50], out[40:])
    with pytest.raises(halden.HaldenError, match="period"):
        halden.cellular(q, 100, 90, frequency=3, period=2)


def test_cellular_refuses_bad_arguments(q):
    for kwargs, what in [(dict(result="F3"), "result"), (dict(metric="cosine"), "metric"),
                         (dict(jitter=2), "jitter"), (dict(frequency=0), "frequency"),
                         (dict(octaves=17), "octaves"), (dict(result="edge", metric="manhattan"), "edge"),
                         (dict(smoothness=1), "smoothness"), (dict(exponent=0.5), "exponent")]:
        with pytest.raises(ValueError, match=what):
            halden.cellular(q, 8, 8, **kwargs)
    with pytest.raises(ValueError, match="width"):
        halden.cellular(q, 0, 8)


def test_cellular_reports_progress_and_cancels(q):
    seen = []
    halden.cellular(q, 32, 32, progress=seen.append)
    assert seen and seen[-1] == 100
    with pytest.raises(halden.Cancelled):
        halden.cellular(q, 32, 32, cancel=lambda: True)
