# SPDX-License-Identifier: Apache-2.0
import numpy as np
import pytest

import halden


def lattice(heights):
    """One vertex per cell centre of `heights`, two triangles per quad in the drawn winding."""
    rows, columns = heights.shape
    y, x = np.mgrid[:rows, :columns]
    vertices = np.stack([x + 0.5, y + 0.5, heights], axis=-1).reshape(-1, 3)
    a = (y[:-1, :-1] * columns + x[:-1, :-1]).ravel()
    triangles = np.concatenate([np.stack([a, a + columns, a + 1], 1), np.stack([a + 1, a + columns, a + columns + 1], 1)])
    return vertices, triangles


def dome(rows=20, columns=28):
    y, x = np.mgrid[:rows, :columns] + 0.5
    return (6 - 0.02 * ((x - 13) ** 2 + (y - 9) ** 2)).astype(np.float32)


def test_a_mesh_of_the_heights_bakes_the_flat_normal(q):
    h = dome()
    vertices, triangles = lattice(h)
    out = halden.bake_normals(q, vertices, triangles, h, signed=True)
    assert out.shape == h.shape + (3,) and out.dtype == np.float32
    np.testing.assert_allclose(out[1:-1, 1:-1], np.broadcast_to([0, 0, 1], out[1:-1, 1:-1].shape), atol=1e-5)
    encoded = halden.bake_normals(q, vertices, triangles, h)
    np.testing.assert_allclose(encoded[1:-1, 1:-1], np.broadcast_to([0.5, 0.5, 1], encoded[1:-1, 1:-1].shape),
                               atol=1e-5)


def test_a_flat_mesh_shows_the_slopes_and_directx_flips_green(q):
    rows, columns = 16, 24
    y, x = np.mgrid[:rows, :columns]
    h = (0.3 * x + 0.1 * np.sin(y)).astype(np.float32)
    vertices = np.array([[0, 0, 0], [0, rows, 0], [columns, 0, 0], [columns, rows, 0]], np.float32)
    triangles = np.array([[0, 1, 2], [2, 1, 3]])
    gl = halden.bake_normals(q, vertices, triangles, h, signed=True, margin=0)
    dx = halden.bake_normals(q, vertices, triangles, h, signed=True, margin=0, directx=True)
    np.testing.assert_array_equal(dx[..., [0, 2]], gl[..., [0, 2]])
    np.testing.assert_array_equal(dx[..., 1], -gl[..., 1])
    # Heights rise to the right: the normal leans left (negative x).
    assert (gl[..., 0] < -0.1).all()
    np.testing.assert_allclose(np.linalg.norm(gl, axis=-1), 1, atol=1e-6)
    # A steeper height scale tilts it further.
    steep = halden.bake_normals(q, vertices, triangles, h, signed=True, height_scale=3.0)
    assert (steep[..., 0] < gl[..., 0]).all()


def test_the_margin_and_uncovered_cells(q):
    h = np.tile(np.arange(20, dtype=np.float32) * 0.5, (20, 1))
    vertices = np.array([[5, 5, 0], [5, 10, 0], [10, 5, 0], [10, 10, 0]], np.float32)
    triangles = np.array([[0, 1, 2], [2, 1, 3]])
    for margin in (0, 3):
        out = halden.bake_normals(q, vertices, triangles, h, margin=margin)
        filled = ~np.all(out == [0.5, 0.5, 1.0], axis=-1)
        expected = np.zeros(h.shape, bool)
        expected[5 - margin:10 + margin, 5 - margin:10 + margin] = True
        np.testing.assert_array_equal(filled, expected)


def test_bad_arguments_are_refused(q):
    h = dome()
    vertices, triangles = lattice(h)
    with pytest.raises(ValueError, match="margin"):
        halden.bake_normals(q, vertices, triangles, h, margin=65)
    with pytest.raises(ValueError, match="terrain_size"):
        halden.bake_normals(q, vertices, triangles, h, terrain_size=0)
    with pytest.raises(ValueError, match="finite"):
        halden.bake_normals(q, vertices, triangles, np.where(h > 5, np.nan, h))
    with pytest.raises(ValueError, match="triangles"):
        halden.bake_normals(q, vertices, triangles + len(vertices), h)
    with pytest.raises(halden.Cancelled):
        halden.bake_normals(q, vertices, triangles, h, cancel=lambda: True)
