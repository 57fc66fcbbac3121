#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Point gridding: Halden's mean beside gdal_grid's moving average.

The same points (uniform over the grid, heights on a ramp with noise) go to
halden.rasterize_points(mode="mean") on the host device and to
`gdal_grid -a average` (as a CSV behind a VRT), with the search radius of
half a cell, each cell then averaging about the points inside it, as Halden's
radius 0 does. Prints the median seconds of several runs and the ratio.

    apt-get install -y gdal-bin python3-numpy
    PYTHONPATH=build/python python3 bench/points_peer.py [--points 1000000] [--size 1024] [--runs 3]

gdal_grid visits its points per output cell, so the defaults stay below the
library benchmark's 10 million points into 4096^2, which it would take many
minutes over.
"""

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

import halden


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--points", type=int, default=1_000_000)
    parser.add_argument("--size", type=int, default=1024)
    parser.add_argument("--runs", type=int, default=3)
    args = parser.parse_args()
    rng = np.random.default_rng(1)
    n, size = args.points, args.size
    xy = rng.random((n, 2)) * size
    xyz = np.column_stack([xy, 0.01 * xy[:, 0] + 0.02 * xy[:, 1] + 5 * rng.random(n)]).astype(np.float32)

    with halden.Queue("cpu") as q:
        halden.rasterize_points(q, xyz, size, size)
        ours = []
        for _ in range(args.runs):
            start = time.perf_counter()
            grid = halden.rasterize_points(q, xyz, size, size)
            ours.append(time.perf_counter() - start)

    with tempfile.TemporaryDirectory() as tmp:
        csv, vrt, out = (os.path.join(tmp, name) for name in ("points.csv", "points.vrt", "out.tif"))
        np.savetxt(csv, xyz, fmt="%.6f", delimiter=",", header="x,y,z", comments="")
        with open(vrt, "w") as f:
            f.write(f'<OGRVRTDataSource><OGRVRTLayer name="points"><SrcDataSource>{csv}</SrcDataSource>'
                    '<GeometryType>wkbPoint</GeometryType>'
                    '<GeometryField encoding="PointFromColumns" x="x" y="y" z="z"/>'
                    '</OGRVRTLayer></OGRVRTDataSource>')
        # Rows from y = 0 down, as Halden's identity transform lays them out.
        command = ["gdal_grid", "-q", "-a", "average:radius1=0.5:radius2=0.5:min_points=1:nodata=nan",
                   "-txe", "0", str(size), "-tye", "0", str(size), "-outsize", str(size), str(size),
                   "-ot", "Float32", "-l", "points", vrt, out]
        theirs = []
        for _ in range(args.runs):
            start = time.perf_counter()
            subprocess.run(command, check=True)
            theirs.append(time.perf_counter() - start)

    a, b = statistics.median(ours), statistics.median(theirs)
    print(f"{n} points into {size}^2, median of {args.runs}: halden {a:.3f} s "
          f"({n / a / 1e6:.1f} Mpoints/s), gdal_grid average {b:.3f} s, ratio {b / a:.0f}x "
          f"({np.isfinite(grid).mean():.0%} of cells with points)")


if __name__ == "__main__":
    sys.exit(main())
