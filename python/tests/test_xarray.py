# SPDX-License-Identifier: Apache-2.0
"""DataArrays through every operation: values, dims, coordinates, attributes
and georeference survive, and unset world widths come from the transform."""
import math

import numpy as np
import pytest

xr = pytest.importorskip("xarray")
rioxarray = pytest.importorskip("rioxarray")

import halden  # noqa: E402

N = 32


def terrain(n=N, seed=3):
    rng = np.random.default_rng(seed)
    return (np.cumsum(np.cumsum(rng.standard_normal((n, n)), 0), 1) / 10).astype(np.float32)


def grid(values, crs="EPSG:32633", pixel=30.0, top=6_000_000.0):
    rows, columns = values.shape[:2]
    coords = {"y": top - pixel * (np.arange(rows) + 0.5), "x": 500_000 + pixel * (np.arange(columns) + 0.5)}
    a = xr.DataArray(values, dims=("y", "x"), coords=coords, attrs={"units": "m", "source": "test"}, name="elevation")
    return a.rio.write_crs(crs) if crs else a


def same_frame(result, like):
    assert isinstance(result, xr.DataArray)
    assert result.dims[:2] == like.dims
    for d in like.dims:
        np.testing.assert_array_equal(result[d].values, like[d].values)
    assert result.attrs == like.attrs
    assert result.rio.crs == like.rio.crs
    assert result.rio.transform() == like.rio.transform()


CASES = {
    "median_filter": lambda q, h: halden.median_filter(q, h, radius=2),
    "blur": lambda q, h: halden.blur(q, h, 2.5),
    "thermal_shape": lambda q, h: halden.thermal_shape(q, h, extent=N),
    "thermal_erode": lambda q, h: halden.thermal_erode(q, h, iterations=4, deposition=True, cell_size=1.0),
    "erode": lambda q, h: halden.erode(q, h, rounds=1, erosion=True, cell_size=1.0),
    "flow": lambda q, h: halden.flow(q, h, length=0.2),
    "shade": lambda q, h: halden.shade(q, h, sky_directions=4, terrain_size=N),
    "sunlight": lambda q, h: halden.sunlight(q, h, time_step=120, sky_directions=4, cell_size=1.0),
    "stamp": lambda q, h: halden.stamp(q, h, [np.ones((4, 4))], count=5, return_ids=True),
    "debris": lambda q, h: halden.debris(q, h, debris=True, cell_size=1.0, max_steps=50),
}


@pytest.mark.parametrize("name", sorted(CASES))
def test_round_trip(q, name):
    values = terrain()
    a = grid(values)
    plain, dressed = CASES[name](q, values), CASES[name](q, a)
    if isinstance(plain, tuple):
        assert type(dressed) is type(plain)
        pairs = [(p, d) for p, d in zip(plain, dressed) if isinstance(p, np.ndarray) and p.shape[:2] == values.shape]
        assert pairs
        for p, d in zip(plain, dressed):
            if p is None or (isinstance(p, np.ndarray) and p.dtype.names):
                assert d is None or isinstance(d, np.ndarray)
    else:
        pairs = [(plain, dressed)]
    for p, d in pairs:
        same_frame(d, a)
        np.testing.assert_array_equal(d.values, p)
        if p.ndim == 3:
            assert d.dims[-1] == "band"


def test_colours_and_sand(q):
    values = terrain()
    a = grid(values)
    rgb = xr.DataArray(np.random.default_rng(1).random((3, N, N), np.float32), dims=("band", "y", "x"))
    out = halden.color_transport(q, a, rgb, length=0.1)
    same_frame(out, a)
    np.testing.assert_array_equal(out.values, halden.color_transport(q, values, np.moveaxis(rgb.values, 0, -1),
                                                                     length=0.1))
    sand = halden.dunes(q, a, np.ones_like(values), iterations=2)
    same_frame(sand, a)


def test_sized_functions_take_like(q):
    a = grid(terrain())
    noise = halden.cellular(q, like=a)
    same_frame(noise, a)
    np.testing.assert_array_equal(noise.values, halden.cellular(q, N, N))
    on_z = halden.cellular(q, N, N, z=a)
    same_frame(on_z, a)
    mesh = halden.rasterize(q, [[0, 0, 1], [0, N, 1], [N, 0, 1]], [[0, 1, 2]], 0, 0, like=a)
    same_frame(mesh, a)
    assert mesh.shape == (N, N)
    if hasattr(halden, "bake_normals"):
        square = [[0, 0, 0], [N, 0, 0], [N, N, 0], [0, N, 0]]
        normals = halden.bake_normals(q, square, [[0, 2, 1], [0, 3, 2]], a)
        same_frame(normals, a)
        assert normals.dims[-1] == "band"
        np.testing.assert_array_equal(normals.values, halden.bake_normals(
            q, square, [[0, 2, 1], [0, 3, 2]], a.values, terrain_size=30.0 * N))


def test_world_width_from_projected_transform(q):
    values = terrain()
    shading = halden.shade(q, grid(values, pixel=30.0), shadows=False, sky_visibility=False)
    np.testing.assert_array_equal(shading.diffuse.values, halden.shade(
        q, values, shadows=False, sky_visibility=False, terrain_size=30.0 * N).diffuse)
    weathered = halden.thermal_erode(q, grid(values, pixel=0.5), iterations=8)
    np.testing.assert_array_equal(weathered.values, halden.thermal_erode(q, values, iterations=8, cell_size=0.5))
    # An argument the caller gives wins over the georeference.
    np.testing.assert_array_equal(halden.thermal_erode(q, grid(values, pixel=0.5), iterations=8, cell_size=1.0).values,
                                  halden.thermal_erode(q, values, iterations=8, cell_size=1.0))


def test_world_width_from_geographic_transform(q):
    values = terrain()
    degrees = 0.0005
    a = grid(values, crs="EPSG:4326", pixel=degrees, top=61.0)
    centre = 61.0 - degrees * N / 2
    width = degrees * N * 111320.0 * math.cos(math.radians(centre))
    assert halden._xarray.world_width(a) == pytest.approx(width, rel=1e-6)
    np.testing.assert_allclose(halden.shade(q, a, shadows=False, sky_visibility=False).diffuse.values,
                               halden.shade(q, values, shadows=False, sky_visibility=False,
                                            terrain_size=width).diffuse, atol=1e-6)


def test_numpy_stays_numpy(q):
    values = terrain()
    out = halden.median_filter(q, values)
    assert type(out) is np.ndarray
    assert type(halden.shade(q, values).rgb) is np.ndarray
    bare = xr.DataArray(values, dims=("row", "column"))  # no georeference: defaults as for NumPy
    np.testing.assert_array_equal(halden.shade(q, bare).diffuse.values, halden.shade(q, values).diffuse)
