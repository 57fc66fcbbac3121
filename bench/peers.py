#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Halden side by side with the CPU tools a user could pick instead.

Each row runs one operation through the Python package on the host device
and the closest peer (SciPy, OpenCV, scikit-image) on the same float32
array, in one process, and prints the median Mcells/s of several runs and
the ratio Halden / peer. The peers are only needed here:

    apt-get install -y python3-numpy python3-scipy python3-opencv python3-skimage
    PYTHONPATH=build/python python3 bench/peers.py [--runs 5] [--only median]

The terrain is a fractal of the given size (spectral synthesis, seed 1).
"""

import argparse
import math
import statistics
import sys
import time

import numpy as np

try:
    import cv2
    import scipy.ndimage
    import skimage.morphology
except ImportError as missing:
    sys.exit(f"peers.py needs SciPy, OpenCV and scikit-image ({missing}); see the docstring")

import halden


def terrain(size: int, seed: int = 1) -> np.ndarray:
    """A fractal terrain, heights 0 to 200, float32."""
    rng = np.random.default_rng(seed)
    fy = np.fft.fftfreq(size)[:, None]
    fx = np.fft.rfftfreq(size)[None, :]
    f = np.sqrt(fx * fx + fy * fy)
    f[0, 0] = 1.0
    spectrum = (rng.normal(size=f.shape) + 1j * rng.normal(size=f.shape)) / f ** 1.1
    spectrum[0, 0] = 0.0
    h = np.fft.irfft2(spectrum, s=(size, size))
    h = (h - h.min()) / (h.max() - h.min()) * 200.0
    return h.astype(np.float32)


def disc(radius: int) -> np.ndarray:
    """Halden's median window: offsets with dx^2 + dy^2 <= r^2 + 2."""
    d = np.arange(-radius, radius + 1)
    return (d[:, None] ** 2 + d[None, :] ** 2) <= radius * radius + 2


def seconds(run, runs: int) -> float:
    run()  # warm up: libraries load, memory pools fill
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        run()
        times.append(time.perf_counter() - start)
    return statistics.median(times)


def scharr(h: np.ndarray):
    gx = cv2.Scharr(h, cv2.CV_32F, 1, 0, borderType=cv2.BORDER_REPLICATE)
    gy = cv2.Scharr(h, cv2.CV_32F, 0, 1, borderType=cv2.BORDER_REPLICATE)
    return gx, gy


def peer_diffuse(h: np.ndarray, sun: np.ndarray) -> np.ndarray:
    gx, gy = scharr(h)
    nz = np.float32(32.0)
    length = np.sqrt(gx * gx + gy * gy + nz * nz)
    return np.maximum(0.0, (-gx * sun[0] + gy * sun[1] + nz * sun[2]) / length)


def peer_shaper_pass(h: np.ndarray) -> np.ndarray:
    """One pass of the shaper's rule composed from OpenCV operations."""
    gx, gy = scharr(h)
    g, gk, rate = np.float32(1.0 / 32.0), np.float32(0.5), np.float32(0.5)
    slope = cv2.magnitude(gx * g, gy * g)
    weight = 1.0 - 1.0 / (1.0 + cv2.pow(0.1 * slope, 0.7071))
    ring = np.array([[0.10355339, 0.14644662, 0.10355339], [0.14644662, 0.0, 0.14644662],
                     [0.10355339, 0.14644662, 0.10355339]], np.float32)
    curvature = h - cv2.filter2D(h, cv2.CV_32F, ring, borderType=cv2.BORDER_REPLICATE)
    lowering = weight * np.minimum(-(slope + gk * curvature), 0.0) * rate
    drop = h - cv2.erode(h, np.ones((3, 3), np.uint8), borderType=cv2.BORDER_REPLICATE)
    return h + np.maximum(lowering, -drop)


def peer_fill(h: np.ndarray) -> np.ndarray:
    """Pit filling by morphological reconstruction from the border."""
    seed = h.copy()
    seed[1:-1, 1:-1] = h.max()
    return skimage.morphology.reconstruction(seed, h, method="erosion")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--runs", type=int, default=5, help="timed runs per figure (default 5)")
    parser.add_argument("--only", default="", help="run the rows whose name contains this text")
    args = parser.parse_args()

    small, large = terrain(1024), terrain(4096)
    azimuth, elevation = math.radians(225.0), math.radians(35.0)
    sun = np.array([math.cos(elevation) * math.cos(azimuth), math.cos(elevation) * math.sin(azimuth),
                    math.sin(elevation)], np.float32)
    q = halden.Queue("cpu")
    rows = [
        ("median, disc r=3, 1024^2", small, lambda h: halden.median_filter(q, h, radius=3),
         lambda h: scipy.ndimage.median_filter(h, footprint=disc(3), mode="nearest"), "SciPy median_filter, same disc"),
        ("median, disc r=8, 1024^2", small, lambda h: halden.median_filter(q, h, radius=8),
         lambda h: scipy.ndimage.median_filter(h, footprint=disc(8), mode="nearest"), "SciPy median_filter, same disc"),
        ("blur r=12 (2 box passes per axis), 4096^2", large, lambda h: halden.blur(q, h, 12.0),
         lambda h: cv2.blur(cv2.blur(h, (25, 25), borderType=cv2.BORDER_REPLICATE), (25, 25),
                            borderType=cv2.BORDER_REPLICATE), "OpenCV blur 25x25 twice"),
        ("diffuse light only (normals + Lambert), 4096^2", large,
         lambda h: halden.shade(q, h, shadows=False, sky_visibility=False, colour=False),
         lambda h: peer_diffuse(h, sun), "OpenCV Scharr + NumPy Lambert"),
        ("thermal shaper, 4096^2", large, lambda h: halden.thermal_shape(q, h),
         peer_shaper_pass, "one OpenCV-composed pass of the rule"),
        ("flow (fill + particles), 1024^2", small, lambda h: halden.flow(q, h),
         peer_fill, "scikit-image pit filling alone"),
    ]
    print(f"{'operation':48} {'Halden':>9} {'peer':>9} {'ratio':>7}  peer (Mcells/s, median of {args.runs})")
    for name, grid, ours, theirs, peer in rows:
        if args.only not in name:
            continue
        cells = grid.size / 1e6
        mine = cells / seconds(lambda: ours(grid), args.runs)
        other = cells / seconds(lambda: theirs(grid), args.runs)
        print(f"{name:48} {mine:9.2f} {other:9.2f} {mine / other:6.2f}x  {peer}", flush=True)
    q.close()


if __name__ == "__main__":
    main()
