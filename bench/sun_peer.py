#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""SunLightIntegral side by side with GRASS GIS r.sun on a real elevation model.

Both sum one day of clear-sky sunlight (global: beam, diffuse, reflected) with
terrain shadows over the same grid, in the same model family (Linke
turbidity 3, albedo 0.2, 10-minute steps), and the script prints the time
each takes and how far their results lie apart on open ground (cells that
see at least 95 % of the sky, away from the edges). GRASS is only needed
here:

    apt-get install -y grass-core python3-numpy
    PYTHONPATH=build/python python3 bench/sun_peer.py [--day 172] [--runs 3]

The grid is Debian's sample of the Jacksboro fault (344 x 403 cells), taken
as square cells of --cell-size metres; it can be enlarged by repeating it
(--tile 3 gives 1032 x 1209) to time larger grids.
"""

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import time

import numpy as np

import halden

DEM = "/usr/share/matplotlib/mpl-data/sample_data/jacksboro_fault_dem.npz"
# r.sun wants a projected location: the grid's south-west corner in UTM zone
# 16 N, near where the model lies; the latitude and longitude maps given to
# r.sun fix the sun's path to the model's centre, as for Halden.
UTM_ORIGIN = (730000.0, 4036000.0)


def grass_script(rows, columns, cell, latitude, longitude, day, step_minutes, nprocs):
    west, south = UTM_ORIGIN
    north, east = south + rows * cell, west + columns * cell
    return f"""set -e
g.region n={north} s={south} e={east} w={west} rows={rows} cols={columns} --quiet
r.in.ascii input=dem.asc output=dem --quiet --overwrite
r.mapcalc "lat = {latitude}" --quiet --overwrite
r.mapcalc "lon = {longitude}" --quiet --overwrite
r.slope.aspect elevation=dem slope=slope aspect=aspect --quiet --overwrite
start=$(date +%s.%N)
r.sun elevation=dem slope=slope aspect=aspect lat=lat long=lon linke_value=3 albedo_value=0.2 day={day} \\
      step={step_minutes / 60.0} glob_rad=glob beam_rad=beam insol_time=hours nprocs={nprocs} --quiet --overwrite
end=$(date +%s.%N)
echo "rsun_seconds $(echo "$end - $start" | bc)"
r.out.ascii input=glob output=glob.asc -h --quiet
r.out.ascii input=beam output=beam.asc -h --quiet
r.out.ascii input=hours output=hours.asc -h --quiet
"""


def run_grass(dem, cell, latitude, longitude, day, step, nprocs):
    rows, columns = dem.shape
    with tempfile.TemporaryDirectory() as work:
        with open(os.path.join(work, "dem.asc"), "w") as f:
            west, south = UTM_ORIGIN
            f.write(f"north: {south + rows * cell}\nsouth: {south}\neast: {west + columns * cell}\nwest: {west}\n"
                    f"rows: {rows}\ncols: {columns}\n")
            np.savetxt(f, dem, fmt="%.3f")
        with open(os.path.join(work, "run.sh"), "w") as f:
            f.write(grass_script(rows, columns, cell, latitude, longitude, day, step, nprocs))
        done = subprocess.run(["grass", "--tmp-location", "EPSG:32616", "--exec", "sh", "run.sh"], cwd=work,
                              capture_output=True, text=True)
        if done.returncode != 0:
            sys.exit(f"GRASS failed:\n{done.stdout}\n{done.stderr}")
        seconds = float(next(line.split()[1] for line in done.stdout.splitlines()
                             if line.startswith("rsun_seconds")))
        # r.sun leaves the border cells, which have no slope, empty ('*').
        def load(name):
            with open(os.path.join(work, name)) as f:
                return np.array([[float("nan") if v == "*" else float(v) for v in line.split()] for line in f])
        return seconds, load("glob.asc"), load("beam.asc"), load("hours.asc")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--day", type=int, default=172)
    parser.add_argument("--cell-size", type=float, default=80.0)
    parser.add_argument("--tile", type=int, default=1, help="repeat the model N x N times (mirrored)")
    parser.add_argument("--runs", type=int, default=3, help="Halden runs; the median time is shown")
    parser.add_argument("--nprocs", type=int, default=2, help="r.sun threads")
    args = parser.parse_args()
    if not shutil.which("grass"):
        sys.exit("sun_peer.py needs GRASS GIS (apt-get install -y grass-core)")

    with np.load(DEM) as sample:
        dem = sample["elevation"].astype(np.float32)
        latitude = float(sample["ymin"] + sample["ymax"]) / 2
        longitude = float(sample["xmin"] + sample["xmax"]) / 2
    if args.tile > 1:
        row = np.concatenate([dem, dem[:, ::-1]] * args.tile, axis=1)[:, :dem.shape[1] * args.tile]
        dem = np.ascontiguousarray(np.concatenate([row, row[::-1]] * args.tile, axis=0)[:dem.shape[0] * args.tile])
    rows, columns = dem.shape
    step = 10.0

    with halden.Queue("cpu") as q:
        times = []
        for _ in range(args.runs):
            start = time.perf_counter()
            ours = halden.sunlight(q, dem, cell_size=args.cell_size, latitude=latitude, first_day=args.day,
                                   time_step=step, linke_turbidity=3.0, albedo=0.2,
                                   site_elevation=float(dem.mean()), sky_directions=32)
            times.append(time.perf_counter() - start)
        beam_only = halden.sunlight(q, dem, cell_size=args.cell_size, latitude=latitude, first_day=args.day,
                                    time_step=step, linke_turbidity=3.0, site_elevation=float(dem.mean()),
                                    sky_directions=0, diffuse=False)
    ours_seconds = sorted(times)[len(times) // 2]
    grass_seconds, glob, beam, hours = run_grass(dem, args.cell_size, latitude, longitude, args.day, step,
                                                 args.nprocs)

    edge = 8
    open_ground = np.zeros(dem.shape, bool)
    open_ground[edge:-edge, edge:-edge] = ours.sky_view[edge:-edge, edge:-edge] >= 0.95
    def spread(a, b):
        r = a[open_ground] / b[open_ground]
        return f"median {np.median(r):.4f}, 5-95% {np.percentile(r, 5):.4f} to {np.percentile(r, 95):.4f}"
    print(f"grid {rows} x {columns}, cells {args.cell_size:g} m, latitude {latitude:.3f}, day {args.day}, "
          f"10-minute steps; {open_ground.sum()} open cells compared")
    print(f"Halden SunLightIntegral (cpu): {ours_seconds:8.3f} s")
    print(f"GRASS r.sun (nprocs {args.nprocs}):    {grass_seconds:8.3f} s")
    print(f"speed-up: {grass_seconds / ours_seconds:.1f}x")
    print(f"global Wh/m^2, Halden / r.sun: {spread(ours.irradiation.astype(np.float64), glob)}")
    print(f"beam   Wh/m^2, Halden / r.sun: {spread(beam_only.irradiation.astype(np.float64), beam)}")
    print(f"sun hours, Halden - r.sun: median {np.median(ours.sun_hours[open_ground] - hours[open_ground]):+.3f} h")


if __name__ == "__main__":
    main()
