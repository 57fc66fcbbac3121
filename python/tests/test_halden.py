# SPDX-License-Identifier: Apache-2.0
import ctypes
import os
import re
import subprocess
import sys
import threading
import time
from pathlib import Path

import numpy as np
import pytest

import halden
from halden import _calls, _native

HEADER = Path(__file__).resolve().parents[2] / "include" / "halden" / "halden.h"
DEM = Path("/usr/share/matplotlib/mpl-data/sample_data/jacksboro_fault_dem.npz")
LOWEST = np.finfo(np.float32).min

# Small enough to keep every operation quick, large enough for a few pyramid levels.
OPS = {
    "median": lambda q, h: halden.median_filter(q, h, radius=2),
    "thermal": lambda q, h: halden.thermal_shape(q, h),
    "thermal_erode": lambda q, h: halden.thermal_erode(q, h, iterations=16),
    "erode": lambda q, h: halden.erode(q, h, rounds=1),
    "flow": lambda q, h: halden.flow(q, h, length=0.25),
    "shade": lambda q, h: halden.shade(q, h, sky_directions=8).rgb,
    "blur": lambda q, h: halden.blur(q, h, radius=2.5),
}


def hills(rows=48, columns=48):
    y, x = np.mgrid[:rows, :columns]
    return (10 * np.sin(x / 7) * np.cos(y / 5) + 0.1 * x).astype(np.float32)


def test_records_match_the_header():
    if not HEADER.exists():
        pytest.skip("halden.h is not beside this source tree")
    records = _native.RECORDS
    text = HEADER.read_text()
    sizes = re.findall(r"sizeof\((\w+)\) == (\d+)", text)
    offsets = re.findall(r"offsetof\((\w+), (\w+)\) == (\d+)", text)
    assert len(sizes) == len(records) and len(offsets) > 20
    for name, size in sizes:
        assert ctypes.sizeof(records[name]) == int(size), name
    for name, field, offset in offsets:
        assert getattr(records[name], field).offset == int(offset), (name, field)


def test_every_listed_device_opens_by_its_key_and_matches_cpu(q):
    listed = halden.devices()
    assert listed[0].type == 1 and q.device == listed[0]
    h = hills()
    expected = {name: op(q, h) for name, op in OPS.items()}
    for device in listed:
        with halden.Queue(device.key) as other:
            assert other.device == device
            for name, op in OPS.items():
                np.testing.assert_array_equal(op(other, h), expected[name], err_msg=f"{name} on {device.key}")


def test_queue_lifetime_and_unknown_keys():
    with pytest.raises(halden.HaldenError, match="no device matches"):
        halden.Queue("GpuDiscrete/CUDA/Nobody/0/sm_0")
    queue = halden.Queue()
    queue.close()
    queue.close()
    with pytest.raises(ValueError, match="closed"):
        halden.blur(queue, np.zeros((4, 4)))
    with pytest.raises(ValueError, match="NUL"):
        halden.Queue("cpu\0x")  # the library would read it as "cpu"
    queue = halden.Queue()

    class ClosesTheQueue:  # closes it while the call converts its arguments, before the call holds it
        def __array__(self, dtype=None):
            queue.close()
            return np.zeros((4, 4))

    with pytest.raises(ValueError, match="closed"):
        halden.blur(queue, ClosesTheQueue())


def test_a_callback_cannot_close_or_use_the_queue_of_its_call(q):
    h = hills()
    with halden.Queue() as queue:
        for use in (queue.close, lambda: halden.blur(queue, h)):
            with pytest.raises(RuntimeError, match="in use"):
                halden.flow(queue, h, progress=lambda percent: use())
        np.testing.assert_array_equal(halden.flow(queue, h), halden.flow(q, h))  # still open


def test_close_from_another_thread_waits_for_the_running_call():
    queue, running, closed, late = halden.Queue(), threading.Event(), threading.Event(), []

    def slow(percent):
        running.set()
        if closed.is_set():
            late.append(percent)
        time.sleep(0.005)

    worker = threading.Thread(target=halden.flow, args=(queue, hills()), kwargs={"progress": slow})
    worker.start()
    assert running.wait(10)
    queue.close()
    closed.set()
    worker.join()
    assert not late  # the call had returned before close() did


def test_calls_on_two_queues_run_at_the_same_time(q):
    h = hills()
    started, other_done, waited = threading.Event(), threading.Event(), []

    def wait_for_other(percent):
        if not waited:
            started.set()
            waited.append(other_done.wait(10))

    with halden.Queue() as queue:
        worker = threading.Thread(target=halden.flow, args=(queue, h), kwargs={"progress": wait_for_other})
        worker.start()
        assert started.wait(10)
        halden.blur(q, h)  # serialised, this would wait for the worker's call, which waits for it
        other_done.set()
        worker.join()
    assert waited == [True]


def test_concurrent_calls_keep_their_own_progress_and_cancels(q):
    h = hills(16, 16)
    expected = halden.flow(q, h)
    cancelling, running = [], []

    def rounds(stop, outcomes):
        with halden.Queue() as queue:
            for _ in range(20):
                try:
                    outcomes.append(np.array_equal(halden.flow(queue, h, progress=lambda percent: stop), expected))
                except halden.Cancelled:
                    outcomes.append("cancelled")

    threads = [threading.Thread(target=rounds, args=job) for job in ((True, cancelling), (False, running))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert cancelling == ["cancelled"] * 20 and running == [True] * 20


@pytest.mark.parametrize("op", OPS.values(), ids=OPS.keys())
def test_inputs_are_converted_and_never_modified(q, op):
    h = hills()
    expected = op(q, h)
    assert expected.dtype == np.float32
    np.testing.assert_array_equal(h, hills())
    wide = np.zeros((48, 96))
    wide[:, ::2] = h
    before = wide.copy()
    np.testing.assert_array_equal(op(q, wide[:, ::2]), expected)  # float64, not contiguous
    np.testing.assert_array_equal(wide, before)
    integers = np.round(h).astype(np.int16)
    np.testing.assert_array_equal(op(q, integers), op(q, integers.astype(np.float32)))
    np.testing.assert_array_equal(op(q, h.tolist()), expected)


@pytest.mark.parametrize("bad", [np.zeros((4, 4, 4)), np.zeros((0, 4)), np.zeros(16), np.full((4, 4), "a"),
                                 np.zeros((4, 4), complex), np.array([[1.0, None]])],
                         ids=["3-D", "empty", "1-D", "strings", "complex", "objects"])
def test_bad_grids_raise_value_error(q, bad):
    for op in OPS.values():
        with pytest.raises(ValueError):
            op(q, bad)


def test_bad_arguments_raise_value_error(q):
    h = hills()
    huge = np.broadcast_to(np.float32(0), (46341, 46341))  # over 2^31 - 1 cells, no memory behind it
    calls = [lambda: halden.median_filter(q, h[:, :40]), lambda: halden.blur(q, h[:40]),
             lambda: halden.thermal_shape(q, h, mask=np.ones((48, 47))),
             lambda: halden.flow(q, h, mask=np.ones((47, 48))),
             lambda: halden.shade(q, h, albedo=np.ones((48, 48))),
             lambda: halden.median_filter(q, h, iterations=-1), lambda: halden.flow(q, h, seed=2**32),
             lambda: halden.flow(q, huge)]
    for call in calls:
        with pytest.raises(ValueError):
            call()


def test_arguments_outside_their_documented_ranges_are_refused_by_name(q):
    h = hills()
    nan, inf = float("nan"), float("inf")
    calls = [("sun_elevation", lambda: halden.shade(q, h, sun_elevation=120)),
             ("shadow_rings", lambda: halden.shade(q, h, shadow_rings=-5)),
             ("sun_size", lambda: halden.shade(q, h, sun_size=180)),
             ("sky_directions", lambda: halden.shade(q, h, sky_directions=4097)),
             ("terrain_size", lambda: halden.shade(q, h, terrain_size=0)),
             ("height_scale", lambda: halden.shade(q, h, height_scale=1e39)),  # infinite as a float32
             ("exposure", lambda: halden.shade(q, h, exposure=inf)),
             ("sun_azimuth", lambda: halden.shade(q, h, sun_azimuth=nan)),
             ("extent", lambda: halden.thermal_shape(q, h, extent=-1.0)),
             ("length", lambda: halden.flow(q, h, length=nan)),
             ("radius", lambda: halden.median_filter(q, h, radius=0)),
             ("depth_divisor", lambda: halden.rasterize(q, np.zeros((3, 3)), [[0, 1, 2]], 4, 4, depth_divisor=0)),
             ("radius", lambda: halden.blur(q, h, radius=3e9))]  # last: it crashed the interpreter
    for word, call in calls:
        with pytest.raises(ValueError, match=word):
            call()


def test_median_filter_warns_of_values_above_1e8(q):
    h = hills()
    h[3, 4], h[20, 20] = np.inf, 2e8
    with pytest.warns(RuntimeWarning, match="2 cells"):
        halden.median_filter(q, h)


def test_library_failures_raise_with_its_texts(q):
    h = hills()
    # MedianFilter reports with status 0; the binding refuses a bad radius
    # itself, so a null grid is what still reaches the library.
    null_grid = (None, ctypes.byref(_native.MedianParameters(4, 2, 1, 0)))
    calls = [(lambda: _calls.run(_native.MedianFilter, q, *null_grid), "grid"),
             (lambda: halden.thermal_shape(q, h, level_factor=1e30), "levels"),
             (lambda: halden.flow(q, h, length=1e6), "length")]  # past the 2^24 steps a trace may take
    for call, word in calls:
        with pytest.raises(halden.HaldenError) as caught:
            call()
        error = caught.value
        assert type(error) is halden.HaldenError and error.status == 3, word
        assert any(word in text for text in error.errors) and word in str(error)
    halden.median_filter(q, h)  # what one call reported does not leak into the next


def test_flow_reports_progress_and_cancels(q):
    h = hills()
    seen = []
    watched = halden.flow(q, h, progress=seen.append)
    assert len(seen) > 2 and seen == sorted(seen) and seen[-1] == 100
    np.testing.assert_array_equal(watched, halden.flow(q, h))
    assert watched.min() >= 0 and watched.max() > 0
    assert not halden.flow(q, h, mask=np.zeros_like(h)).any()  # no cell emits
    with pytest.raises(halden.Cancelled):
        halden.flow(q, h, progress=lambda percent: percent >= 60)
    polls = []
    with pytest.raises(halden.Cancelled):
        halden.flow(q, h, cancel=lambda: polls.append(0) or len(polls) > 2)
    with pytest.raises(ZeroDivisionError):
        halden.flow(q, h, progress=lambda percent: 1 / 0)
    np.testing.assert_array_equal(halden.flow(q, h), watched)


def test_shade_planes_and_switches(q):
    h = hills()
    lit = halden.shade(q, h)
    sun, sky = np.array([1.0, 0.95, 0.85]), np.array([0.6, 0.7, 1.0])
    direct = (lit.diffuse * lit.shadow)[..., None]
    np.testing.assert_allclose(lit.rgb, 0.6 * (sun * direct + 0.4 * sky * lit.sky[..., None]), rtol=1e-5, atol=1e-6)
    albedo = np.broadcast_to(np.array([1.0, 0.5, 0.25]), h.shape + (3,))
    np.testing.assert_allclose(halden.shade(q, h, albedo=albedo).rgb, lit.rgb / 0.6 * albedo, rtol=1e-5, atol=1e-6)
    plain = halden.shade(q, h, shadows=False, sky_visibility=False)
    assert plain.shadow is None and plain.sky is None
    np.testing.assert_array_equal(plain.diffuse, lit.diffuse)
    bare = halden.shade(q, h, colour=False)
    assert bare.rgb is None
    for name in ("diffuse", "shadow", "sky"):
        np.testing.assert_array_equal(getattr(bare, name), getattr(lit, name))
    # A non-square grid is padded for tracing; the cell size, so the slopes, must not change.
    strip = h[:, :30]
    padded = halden.shade(q, strip, terrain_size=60.0, height_scale=2.0)
    assert padded.rgb.shape == (48, 30, 3) and padded.shadow.shape == padded.sky.shape == (48, 30)
    flat = halden.shade(q, strip, terrain_size=60.0, height_scale=2.0, shadows=False, sky_visibility=False)
    np.testing.assert_array_equal(padded.diffuse, flat.diffuse)


def test_wide_grids_keep_their_orientation(q):
    # 30 equal rows across a valley: no result may depend on the row.
    x = np.arange(48)
    row = (10 * np.sin(x / 7) - 0.3 * x).astype(np.float32)
    h = np.tile(row, (30, 1))
    shaped = halden.thermal_shape(q, h)
    np.testing.assert_array_equal(shaped, halden.thermal_shape(q, h, extent=48))
    lit = halden.shade(q, h, sun_azimuth=0, shadow_rings=0, sky_visibility=False)  # padded to 48 x 48
    for out in (shaped, lit.rgb, lit.shadow):
        assert (out == out[:1]).all()
    assert abs(halden.flow(q, h).mean(axis=0).argmax() - row.argmin()) <= 2  # water gathers in the valley


def test_sun_azimuth_runs_from_x_towards_y(q):
    ramp = np.tile(np.arange(16, dtype=np.float32), (16, 1))  # climbs along each row (+x), so faces -x

    def diffuse(heights, azimuth):
        return halden.shade(q, heights, sun_azimuth=azimuth, shadows=False, sky_visibility=False).diffuse[8, 8]

    assert diffuse(ramp, 180) > 0.9 and diffuse(ramp, 0) == 0
    assert diffuse(ramp.T, 270) > 0.9 and diffuse(ramp.T, 90) == 0


def test_rasterize(q):
    # A quad over columns 2..8 and rows 2..6 of a 10 x 8 grid, wound so that both triangles are drawn.
    vertices = np.array([[2, 2, 22], [8, 2, 28], [8, 6, 68], [2, 6, 62]])
    triangles = np.array([[0, 3, 2], [0, 2, 1]])
    inside = np.zeros((8, 10), bool)
    inside[2:6, 2:8] = True
    heights, ids = halden.rasterize(q, vertices, triangles, 10, 8, ids=True)
    assert np.all((heights > LOWEST) == inside) and np.all((ids >= 0) == inside)
    assert len(np.unique(ids[inside])) == 2 and np.all(ids[inside] < 1)
    for bad in ([[0, 1, 4]], [[-1, 0, 1]], [[0.0, 1.0, 2.0]], [[0, 1]]):
        with pytest.raises(ValueError):
            halden.rasterize(q, vertices, np.array(bad), 10, 8)


def test_real_elevation_model(q):
    if not DEM.exists():
        pytest.skip(f"{DEM} is absent (Debian package python-matplotlib-data)")
    with np.load(DEM) as archive:
        dem = archive["elevation"]  # int16 metres, 344 x 403 cells about 75 m wide
    extent = 75.0 * dem.shape[1]
    np.testing.assert_array_equal(halden.thermal_shape(q, dem, strength=0.0, extent=extent), dem)
    worn = halden.thermal_shape(q, dem, extent=extent)
    assert worn.shape == dem.shape and np.isfinite(worn).all() and worn.mean() < dem.mean()
    rivers = halden.flow(q, dem)
    assert np.isfinite(rivers).all() and rivers.min() >= 0 and rivers.max() > 0
    lit = halden.shade(q, dem, terrain_size=extent)
    assert lit.rgb.shape == dem.shape + (3,) and lit.shadow.shape == lit.sky.shape == dem.shape
    assert np.isfinite(lit.rgb).all() and lit.rgb.min() >= 0 and lit.rgb.max() <= 1.5
    assert 0 <= lit.shadow.min() < lit.shadow.max() <= 1


def test_an_unloadable_library_is_reported(tmp_path):
    env = dict(os.environ, HALDEN_LIBRARY=str(tmp_path / "missing.so"),
               PYTHONPATH=str(Path(halden.__file__).resolve().parents[1]))
    run = subprocess.run([sys.executable, "-c", "import halden"], env=env, capture_output=True, text=True)
    assert run.returncode != 0 and "HALDEN_LIBRARY" in run.stderr and "missing.so" in run.stderr
