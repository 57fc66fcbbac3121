# SPDX-License-Identifier: Apache-2.0
import math

import numpy as np
import pytest

import halden


def bumpy_grid(n, seed=3):
    """An n x n vertex grid over [0, n - 1]^2 with random heights, wound to be drawn."""
    rng = np.random.default_rng(seed)
    y, x = np.mgrid[:n, :n]
    vertices = np.stack([x.ravel(), y.ravel(), rng.random(n * n) * 3.0], axis=1)
    triangles = []
    for r in range(n - 1):
        for c in range(n - 1):
            a, b, d, e = r * n + c, r * n + c + 1, (r + 1) * n + c, (r + 1) * n + c + 1
            triangles += [[a, d, e], [a, e, b]]
    return vertices, np.array(triangles)


SQUARE = np.array([[0, 0, 2], [1, 0, 2], [1, 1, 2], [0, 1, 2]], np.float32)
SQUARE_FACES = np.array([[0, 3, 2], [0, 2, 1]])


def test_amplitude_zero_renders_the_plain_mesh_bit_for_bit(q):
    vertices, triangles = bumpy_grid(6)
    texture = np.random.default_rng(1).random((16, 16))
    for supersample in (False, True):
        args = dict(centre=(-0.3, -0.2, 0.0), scale=3.7, offset=(0.5, 0.25, 1.0), supersample=supersample, ids=True)
        plain = halden.rasterize(q, vertices, triangles, 21, 19, **args)
        still = halden.rasterize(q, vertices, triangles, 21, 19, displacement=texture, amplitude=0.0, **args)
        for a, b in zip(plain, still):
            np.testing.assert_array_equal(a.view(np.uint32), b.view(np.uint32))


def test_a_constant_texture_lifts_a_flat_square_by_amplitude_times_its_offset(q):
    for value, amplitude, midlevel in ((0.75, 2.0, 0.5), (0.0, 1.5, 0.5), (3.0, -0.5, 1.0)):
        texture = np.full((3, 5), value)
        heights, ids = halden.rasterize(q, SQUARE, SQUARE_FACES, 4, 4, scale=4.0, ids=True, displacement=texture,
                                        amplitude=amplitude, midlevel=midlevel, edge_length=0.5)
        want = (2.0 + amplitude * (value - midlevel)) * 4.0
        np.testing.assert_allclose(heights, want, rtol=2e-6)
        # Every piece names one of the square's two triangles.
        plain_ids = halden.rasterize(q, SQUARE, SQUARE_FACES, 4, 4, scale=4.0, ids=True)[1]
        assert set(np.unique(ids)) == set(np.unique(plain_ids))


def test_the_texture_lies_at_the_mesh_coordinates_over_one_default_repeat(q):
    # Rows of 1 then 0: the (x, y) projection of a flat square lifts the
    # cells over the texture's first row, whose texels reach y = 0.5 when
    # one repeat spans the square (the default: its larger span).
    texture = np.array([[1.0, 1.0], [0.0, 0.0]])
    heights = halden.rasterize(q, SQUARE, SQUARE_FACES, 4, 4, scale=4.0, displacement=texture)
    assert heights[:2].mean() > heights[2:].mean() + 1.0
    spanned = halden.rasterize(q, SQUARE, SQUARE_FACES, 4, 4, scale=4.0, displacement=texture, texture_size=1.0)
    np.testing.assert_array_equal(heights, spanned)
    halved = halden.rasterize(q, SQUARE, SQUARE_FACES, 4, 4, scale=4.0, displacement=texture, texture_size=0.5)
    assert not np.array_equal(heights, halved)


def test_bad_displacement_arguments_raise_value_error(q):
    texture = np.full((4, 4), 0.5)
    nan = texture.copy()
    nan[1, 2] = math.nan
    bad = [dict(displacement=nan), dict(displacement=np.zeros((2, 2, 2))), dict(displacement=np.zeros((0, 3))),
           dict(displacement=np.zeros((1, 65537))), dict(displacement=[["a"]]),
           dict(texture_size=0.0), dict(texture_size=-1.0), dict(texture_size=math.nan), dict(amplitude=math.inf),
           dict(midlevel=math.nan), dict(sharpness=-0.5), dict(sharpness=65.0), dict(edge_length=0.0),
           dict(edge_length=1e39), dict(max_subdivision=0), dict(max_subdivision=1025)]
    for arguments in bad:
        arguments = {"displacement": texture, **arguments}
        with pytest.raises(ValueError):
            halden.rasterize(q, SQUARE, SQUARE_FACES, 4, 4, **arguments)
    with pytest.raises(TypeError):
        halden.rasterize(q, SQUARE, SQUARE_FACES, 4, 4, displacement=texture, max_subdivision=2.5)


def test_a_data_array_texture_keeps_the_like_grid_coordinates(q):
    xr = pytest.importorskip("xarray")
    texture = xr.DataArray(np.full((3, 5), 0.75), dims=("y", "x"))
    like = xr.DataArray(np.zeros((4, 4)), dims=("y", "x"), coords={"y": np.arange(4.0) * 10, "x": np.arange(4.0) * 10})
    heights = halden.rasterize(q, SQUARE, SQUARE_FACES, 0, 0, scale=4.0, displacement=texture, like=like)
    np.testing.assert_array_equal(heights.coords["x"].values, like.coords["x"].values)
    np.testing.assert_allclose(heights.values, 9.0, rtol=2e-6)
