"""Halden's terrain-processing kernels for NumPy arrays.

    import numpy as np
    import halden

    heights = np.load("terrain.npy")            # 2-D, one height per cell
    with halden.Queue("cpu") as q:             # or a key from halden.devices()
        smooth = halden.median_filter(q, heights[:512, :512], radius=2)
        rivers = halden.flow(q, heights, length=0.5)
        picture = halden.shade(q, heights).rgb  # rows x columns x 3

Grids are 2-D arrays of shape (rows, columns); row 0 is the grid's first row.
Every operation returns new float32 arrays and leaves its inputs alone.
Inputs of another real dtype (bool, integers, float16, float64) are converted
to float32 first; complex, object and string arrays are refused with
ValueError, as is an argument outside the range its function documents.
Results are bit-identical on every device.

A failure reported by the library raises HaldenError, whose `status` is the
library's status code (2: out of device memory, 3: device or runtime error)
and whose `errors` holds the texts the library sent during the call.

Threads may run operations at the same time on different queues. A queue
serves one call at a time: a call from another thread waits for its turn, and
close() from another thread waits for the running call to return. Callbacks
run on the thread that made the call; one that uses or closes the queue of the
call running it raises RuntimeError.

Progress and cancel follow what the library reports for each operation:
flow(), color_transport(), thermal_erode(), erode(), dunes(), cellular() and
sunlight() take `progress`, a callable(percent) called as the run advances,
or True for a text bar on stderr, and `cancel`, a callable polled as it runs;
shade() and rasterize() take `cancel` only; median_filter(), blur(),
thermal_shape(), stamp() and debris() take neither. A true return from either
callback stops the run with Cancelled, and the inputs stay as they were.

The operations live in one module per family and are all re-exported here:
queues (Device, devices, Queue), filters (median_filter, blur), shaping
(thermal_shape), erosion (thermal_erode, Weathering, erode, Erosion), wind
(dunes), flowmaps (flow), colour (color_transport), lighting (shade, Shading,
sunlight, Sunlight), meshes (rasterize), points
(rasterize_points), noise (cellular), stamping (stamp,
Stamping), rockfall (debris, Debris) and baking (bake_normals).

Every operation also takes xarray DataArrays for its grids and then
returns DataArrays with the grid's dims, coordinates, attributes and
georeference, taking an unset world width or cell size from it; halden.dask
runs the operations tile by tile over dask arrays.

The shared library is loaded from the path in the environment variable
HALDEN_LIBRARY when that is set, else from libHalden.AdaptiveCpp.so (or
libHalden.AdaptiveCpp.so.*) next to this file.
"""

from ._calls import Cancelled, HaldenError
from .baking import bake_normals
from .colour import color_transport
from .erosion import Erosion, Weathering, erode, thermal_erode
from .filters import blur, median_filter
from .flowmaps import flow
from .lighting import Shading, shade
from .meshes import rasterize
from .points import rasterize_points
from .noise import cellular
from .queues import Device, Queue, devices
from .rockfall import Debris, debris
from .shaping import thermal_shape
from .stamping import Stamping, stamp
from .sunlight import Sunlight, sunlight
from .wind import dunes

__all__ = ["Cancelled", "Debris", "Device", "Erosion", "HaldenError", "Queue", "Shading", "Stamping", "Sunlight",
           "Weathering", "bake_normals", "blur", "cellular", "color_transport", "debris", "devices", "dunes", "erode", "flow",
           "median_filter", "rasterize", "rasterize_points", "shade", "stamp", "sunlight", "thermal_erode",
           "thermal_shape"]

# DataArray grids in and out of every operation; NumPy calls pass straight through.
from . import _xarray  # noqa: E402

_xarray.wrap_all(globals())

# Tracebacks and reprs then name the classes where users find them.
for _public in (Cancelled, Debris, Device, Erosion, HaldenError, Queue, Shading, Stamping, Sunlight, Weathering):
    _public.__module__ = __name__
del _public
