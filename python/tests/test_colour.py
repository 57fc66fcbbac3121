# SPDX-License-Identifier: Apache-2.0
import numpy as np
import pytest

import halden


def hills(rows=40, columns=48):
    y, x = np.mgrid[0:rows, 0:columns].astype(np.float32)
    return 20 * np.sin(0.21 * x) * np.cos(0.17 * y) + 0.3 * x


def bands(h):
    """A colour per elevation band, so that the traces carry real differences."""
    band = (np.floor(h / 8) % 3).astype(int)
    palette = np.array([[0.8, 0.3, 0.1], [0.2, 0.6, 0.2], [0.3, 0.3, 0.9]], np.float32)
    return palette[band]


def test_color_transport_keeps_what_has_nothing_to_carry(q):
    h = hills()
    uniform = np.broadcast_to(np.float32([0.2, 0.4, 0.6]), (*h.shape, 3))
    out = halden.color_transport(q, h, uniform, pickup_rate=0.0, strength=1.0)
    assert out.dtype == np.float32 and out.shape == (*h.shape, 3)
    np.testing.assert_array_equal(out, uniform)
    rgb = bands(h)
    np.testing.assert_array_equal(halden.color_transport(q, np.zeros_like(h), rgb), rgb)  # flat: no flow
    np.testing.assert_array_equal(halden.color_transport(q, h, rgb, pickup_rate=1.0), rgb)
    np.testing.assert_array_equal(halden.color_transport(q, h, rgb, mask=np.zeros_like(h)), rgb)


def test_color_transport_carries_colour_downstream_and_leaves_the_input(q):
    h = hills()
    rgb = bands(h)
    before = rgb.copy()
    out = halden.color_transport(q, h, rgb, seed=3)
    np.testing.assert_array_equal(rgb, before)
    changed = np.any(out != rgb, axis=2)
    assert 0.1 < changed.mean() < 1.0
    # New colours are blends of the palette's.
    assert out.min() >= 0.1 - 1e-6 and out.max() <= 0.9 + 1e-6
    np.testing.assert_array_equal(halden.color_transport(q, h, rgb, seed=3), out)
    half = halden.color_transport(q, h, rgb, seed=3, mask=np.full_like(h, 0.5))
    assert np.abs(half - rgb).sum() < np.abs(out - rgb).sum()


def test_color_transport_reports_progress_and_cancels(q):
    h = hills()
    rgb = bands(h)
    seen = []
    expected = halden.color_transport(q, h, rgb, progress=seen.append)
    assert len(seen) > 2 and seen == sorted(seen) and seen[-1] == 100
    with pytest.raises(halden.Cancelled):
        halden.color_transport(q, h, rgb, progress=lambda percent: percent >= 60)
    with pytest.raises(halden.Cancelled):
        halden.color_transport(q, h, rgb, cancel=lambda: True)
    np.testing.assert_array_equal(halden.color_transport(q, h, rgb), expected)


@pytest.mark.parametrize("word, arguments", [
    ("length", dict(length=-1)), ("pickup_rate", dict(pickup_rate=1.5)), ("deposit_weight", dict(deposit_weight=0)),
    ("strength", dict(strength=float("nan"))), ("saturation", dict(saturation=-1)), ("seed", dict(seed=2**32)),
    ("mask", dict(mask=np.ones((4, 4)))), ("rgb", dict(rgb=np.ones((40, 48)))),
])
def test_color_transport_refuses_arguments_by_name(q, word, arguments):
    h = hills()
    rgb = arguments.pop("rgb", bands(h))
    with pytest.raises(ValueError, match=word):
        halden.color_transport(q, h, rgb, **arguments)


def test_color_transport_library_refusals_raise(q):
    h = hills()
    rgb = bands(h)
    rgb[3, 4, 1] = np.nan
    with pytest.raises(halden.HaldenError) as caught:
        halden.color_transport(q, h, rgb)
    assert caught.value.status == 3 and any("green" in text for text in caught.value.errors)
    with pytest.raises(TypeError):
        halden.color_transport(q, h, bands(h), None)  # mask is keyword-only
