# SPDX-License-Identifier: Apache-2.0
"""halden.dask on a cluster of worker processes: local operations tiled equal
the whole-grid runs, erosion stays within its documented tolerance, and
whole-grid operations refuse tiles."""
import numpy as np
import pytest

da = pytest.importorskip("dask.array")
distributed = pytest.importorskip("distributed")

import halden  # noqa: E402
import halden.dask as hd  # noqa: E402

SIDE, CHUNK = 4096, 1024


@pytest.fixture(scope="module")
def client():
    with distributed.LocalCluster(n_workers=2, processes=True, threads_per_worker=1, dashboard_address=None,
                                  memory_limit="6GiB") as cluster, distributed.Client(cluster) as c:
        yield c


@pytest.fixture(scope="module")
def terrain(client):
    """Cellular noise tiled on the cluster, and the whole-grid render."""
    tiled = hd.cellular("cpu", SIDE, SIDE, chunks=CHUNK, frequency=8.0, octaves=3).persist()
    with halden.Queue("cpu") as q:
        whole = halden.cellular(q, SIDE, SIDE, frequency=8.0, octaves=3)
    return tiled, whole


def test_cellular_tiles_equal_whole_grid(terrain):
    tiled, whole = terrain
    assert tiled.chunks == ((CHUNK,) * 4,) * 2
    np.testing.assert_array_equal(tiled.compute(), whole)


def test_median_blur_and_diffuse_equal_whole_grid(q, terrain):
    tiled, whole = terrain
    heights = tiled * np.float32(40)
    plain = whole * np.float32(40)
    np.testing.assert_array_equal(hd.median_filter("cpu", heights, radius=2, iterations=2).compute(),
                                  halden.median_filter(q, plain, radius=2, iterations=2))
    # Running sums round from the tile's first cell: equal up to float rounding.
    np.testing.assert_allclose(hd.blur(q, heights, 3.5).compute(), halden.blur(q, plain, 3.5),
                               rtol=0, atol=2e-5 * float(np.ptp(plain)))
    light = hd.shade(q, heights, shadows=False, sky_visibility=False, terrain_size=3000.0)
    expected = halden.shade(q, plain, shadows=False, sky_visibility=False, terrain_size=3000.0)
    np.testing.assert_array_equal(light.diffuse.compute(), expected.diffuse)
    np.testing.assert_array_equal(light.rgb[:1100, 900:2100].compute(), expected.rgb[:1100, 900:2100])
    assert light.shadow is None and light.sky is None


def test_erosion_seams_within_tolerance(q, client):
    rng = np.random.default_rng(1)
    plain = (np.cumsum(np.cumsum(rng.standard_normal((256, 256)), 0), 1) / 50).astype(np.float32)
    tiled = hd.erode("cpu", da.from_array(plain, chunks=128)).compute()
    assert np.abs(tiled - halden.erode(q, plain)).max() <= hd.EROSION_SEAM


def test_stamps_and_settling_equal_whole_grid(q, client):
    plain = (np.cumsum(np.cumsum(np.random.default_rng(4).standard_normal((384, 384)), 0), 1) / 40).astype(np.float32)
    heights = da.from_array(plain, chunks=(128, 200))
    stamps = [np.outer(np.hanning(9), np.hanning(9)), np.ones((5, 12))]
    placed = halden.stamp(q, plain, stamps, count=200, seed=4, return_instances=True, return_ids=True)
    tiled = hd.stamp("cpu", heights, stamps, instances=placed.instances, return_ids=True)
    np.testing.assert_array_equal(tiled.heights.compute(), placed.heights)
    np.testing.assert_array_equal(tiled.ids.compute(), placed.ids)
    settled = hd.thermal_erode("cpu", heights, levels=1, talus_noise=0, iterations=12).compute()
    np.testing.assert_array_equal(settled, halden.thermal_erode(q, plain, levels=1, talus_noise=0, iterations=12))


def test_whole_grid_operations_refuse_tiles(client):
    heights = da.zeros((256, 256), np.float32, chunks=128)
    with pytest.raises(ValueError, match="whole grid"):
        hd.flow("cpu", heights)
    with pytest.raises(ValueError, match="whole grid"):
        hd.shade("cpu", heights)
    with pytest.raises(ValueError, match="whole grid"):
        hd.thermal_erode("cpu", heights)
    assert hd.flow("cpu", heights.rechunk(-1)).compute().shape == (256, 256)


def test_dask_backed_data_array(client):
    xr = pytest.importorskip("xarray")
    values = np.random.default_rng(2).random((256, 256), np.float32)
    a = xr.DataArray(da.from_array(values, chunks=128), dims=("y", "x"),
                     coords={"y": np.arange(256.0), "x": np.arange(256.0)}, attrs={"units": "m"})
    out = hd.median_filter("cpu", a, radius=3)
    assert isinstance(out, xr.DataArray) and out.attrs == a.attrs and out.chunks == a.chunks
    with halden.Queue("cpu") as q:
        np.testing.assert_array_equal(out.values, halden.median_filter(q, values, radius=3))
