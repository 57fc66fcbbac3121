# SPDX-License-Identifier: Apache-2.0
import numpy as np
import pytest

import halden


def valley(rows=40, columns=56):
    y, x = np.mgrid[:rows, :columns]
    return (8 * np.abs(x - columns / 2) / columns * 10 + 2 * np.sin(y / 4)).astype(np.float32)


def test_sunlight_on_flat_ground_is_uniform_and_one_when_relative(q):
    flat = np.zeros((24, 24), np.float32)
    out = halden.sunlight(q, flat, relative=True)
    assert isinstance(out, halden.Sunlight)
    for grid in out:
        assert grid.dtype == np.float32 and grid.shape == flat.shape
    np.testing.assert_allclose(out.irradiation, 1.0, rtol=1e-5)
    np.testing.assert_array_equal(out.sky_view, 1.0)
    assert 15 < out.sun_hours[0, 0] < 16  # midsummer at 45 degrees north


def test_sunlight_pads_a_wide_grid_and_leaves_the_input_alone(q):
    h = valley()
    before = h.copy()
    out = halden.sunlight(q, h, cell_size=5.0, first_day=100, last_day=130, day_step=10, time_step=20,
                          sky_directions=0)
    np.testing.assert_array_equal(h, before)
    assert out.sky_view is None and out.irradiation.shape == h.shape
    assert np.isfinite(out.irradiation).all() and (out.irradiation > 0).all()
    # The valley floor sees less sky and fewer sunlit hours than the rims.
    assert out.sun_hours[:, 28].mean() < out.sun_hours[:, 0].mean()
    square = halden.sunlight(q, np.pad(h, ((0, 16), (0, 0)), mode="edge"), cell_size=5.0, first_day=100,
                             last_day=130, day_step=10, time_step=20, sky_directions=0)
    np.testing.assert_array_equal(out.irradiation, square.irradiation[:40])


def test_sunlight_reports_progress_refuses_bad_arguments_and_cancels(q):
    seen = []
    halden.sunlight(q, valley(32, 32), time_step=60, progress=seen.append)
    assert seen and seen[-1] == pytest.approx(100.0) and seen == sorted(seen)
    with pytest.raises(halden.Cancelled):
        halden.sunlight(q, valley(32, 32), progress=lambda p: True)
    for bad in (dict(latitude=95), dict(first_day=0), dict(time_step=0.5), dict(transmittance=0.0),
                dict(albedo=-1), dict(sky_directions=5000), dict(first_day=200, last_day=100)):
        with pytest.raises(ValueError):
            halden.sunlight(q, valley(16, 16), **bad)
    with pytest.raises(halden.HaldenError):
        halden.sunlight(q, np.full((8, 8), np.nan, np.float32))
