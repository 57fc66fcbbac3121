# SPDX-License-Identifier: Apache-2.0
import numpy as np
import pytest

import halden


def hills(rows=48, columns=40):
    y, x = np.mgrid[:rows, :columns]
    return (10 * np.sin(x / 7) * np.cos(y / 5) + 0.1 * x).astype(np.float32)


def test_thermal_erode_leaves_a_flat_field_as_it_was(q):
    flat = np.full((24, 40), 7.5, np.float32)
    out = halden.thermal_erode(q, flat)
    assert out.dtype == np.float32 and out.shape == flat.shape and not np.shares_memory(out, flat)
    np.testing.assert_array_equal(out, flat)
    heights, laid = halden.thermal_erode(q, flat, deposition=True, talus_angle=1)
    np.testing.assert_array_equal(heights, flat)
    assert laid.dtype == np.float32 and laid.shape == flat.shape and not laid.any()


def test_thermal_erode_moves_material_down_and_keeps_the_total(q):
    h = hills()
    before = h.copy()
    worn = halden.thermal_erode(q, h, deposition=True, levels=1)
    assert isinstance(worn, halden.Weathering)
    np.testing.assert_array_equal(h, before)  # the input is untouched
    assert not np.array_equal(worn.heights, h) and np.isfinite(worn.heights).all()
    assert worn.deposition.min() >= 0 < worn.deposition.max()
    assert worn.heights.sum(dtype=np.float64) == pytest.approx(h.sum(dtype=np.float64), rel=1e-5)
    assert np.ptp(worn.heights) < np.ptp(h)
    np.testing.assert_array_equal(halden.thermal_erode(q, h, hardness=np.ones_like(h)), h)  # hard ground sheds nothing
    np.testing.assert_array_equal(halden.thermal_erode(q, h, talus_noise=0.5, seed=3),
                                  halden.thermal_erode(q, h.astype(np.float64), talus_noise=0.5, seed=3))


def test_erode_returns_the_maps_asked_for(q):
    h = hills()
    before = h.copy()
    plain = halden.erode(q, h, rounds=2)
    assert plain.dtype == np.float32 and plain.shape == h.shape
    np.testing.assert_array_equal(h, before)
    assert not np.array_equal(plain, h)
    full = halden.erode(q, h, rounds=2, erosion=True, deposition=True, discharge=True)
    assert isinstance(full, halden.Erosion)
    np.testing.assert_array_equal(full.heights, plain)  # the same seed, the same result
    for grid in full[1:]:
        assert grid.dtype == np.float32 and grid.shape == h.shape and grid.min() >= 0
    assert full.discharge.max() <= 1 and full.erosion.max() > 0
    only = halden.erode(q, h, rounds=2, discharge=True)
    assert only.erosion is None and only.deposition is None
    np.testing.assert_array_equal(only.discharge, full.discharge)
    assert not np.array_equal(halden.erode(q, h, rounds=2, seed=2), plain)
    np.testing.assert_array_equal(halden.erode(q, h, rain=np.zeros_like(h)), h)  # no rain, no change


def test_erosion_reports_progress_and_cancels(q, capsys):
    h = hills()
    for op in (lambda **kw: halden.thermal_erode(q, h, iterations=8, **kw),
               lambda **kw: halden.erode(q, h, rounds=4, **kw)):
        seen = []
        expected = op(progress=seen.append)
        assert len(seen) > 2 and seen == sorted(seen) and seen[-1] == 100
        with pytest.raises(halden.Cancelled):
            op(progress=lambda percent: percent >= 50)
        with pytest.raises(halden.Cancelled):
            op(cancel=lambda: True)
        np.testing.assert_array_equal(op(), expected)
    halden.erode(q, h, rounds=2, progress=True)
    err = capsys.readouterr().err
    assert err.startswith("\rerode [") and err.endswith("] 100%\n")


@pytest.mark.parametrize("word, arguments", [
    ("talus_angle", dict(talus_angle=90)), ("talus_noise", dict(talus_noise=-0.1)), ("rate", dict(rate=0)),
    ("iterations", dict(iterations=100001)), ("levels", dict(levels=65)), ("burial_scale", dict(burial_scale=0)),
    ("mask_strength", dict(mask_strength=2)), ("seed", dict(seed=-1)), ("cell_size", dict(cell_size=float("nan"))),
    ("height_scale", dict(height_scale=1e39)), ("mask", dict(mask=np.ones((48, 41)))),
    ("hardness", dict(hardness=np.ones((47, 40)))),
])
def test_thermal_erode_refuses_arguments_by_name(q, word, arguments):
    with pytest.raises(ValueError, match=word):
        halden.thermal_erode(q, hills(), **arguments)


@pytest.mark.parametrize("word, arguments", [
    ("droplets", dict(droplets=0)), ("droplets", dict(droplets=16.5)), ("rounds", dict(rounds=-1)),
    ("lifetime", dict(lifetime=0)), ("inertia", dict(inertia=1)), ("capacity", dict(capacity=-1)),
    ("min_slope", dict(min_slope=float("inf"))), ("erosion_rate", dict(erosion_rate=1.5)),
    ("deposition_rate", dict(deposition_rate=-0.5)), ("evaporation", dict(evaporation=1)),
    ("gravity", dict(gravity=-1)), ("brush_radius", dict(brush_radius=9)), ("flow_coupling", dict(flow_coupling=2)),
    ("levels", dict(levels=-1)), ("detail_scale", dict(detail_scale=0)), ("seed", dict(seed=2**32)),
    ("rain", dict(rain=np.ones((48, 41)))), ("hardness", dict(hardness=np.ones((4, 4)))),
])
def test_erode_refuses_arguments_by_name(q, word, arguments):
    with pytest.raises(ValueError, match=word):
        halden.erode(q, hills(), **arguments)


def test_erosion_arguments_are_keywords_and_library_refusals_raise(q):
    h = hills()
    with pytest.raises(TypeError):
        halden.erode(q, h, None)  # rain is keyword-only
    with pytest.raises(TypeError, match="flow_coupling"):
        halden.erode(q, h, flow_coupling=0.5)
    with pytest.raises(halden.HaldenError) as caught:
        halden.erode(q, h, lifetime=1e9)  # past the 65536 cells a droplet may run
    assert caught.value.status == 3 and any("lifetime" in text for text in caught.value.errors)
