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

The shared library is loaded from the path in the environment variable
HALDEN_LIBRARY when that is set, else from libHalden.AdaptiveCpp.so (or
libHalden.AdaptiveCpp.so.*) next to this file.
"""

import contextlib
import ctypes
import glob
import math
import operator
import os
import threading
import warnings
from typing import NamedTuple, Optional

import numpy as np

__all__ = ["Cancelled", "Device", "HaldenError", "Queue", "Shading", "blur", "devices", "flow",
           "median_filter", "rasterize", "shade", "thermal_shape"]


def _library_path():
    path = os.environ.get("HALDEN_LIBRARY")
    if path:
        return path
    here = os.path.dirname(os.path.abspath(__file__))
    # Sorted, the unversioned name comes first.
    found = sorted(glob.glob(os.path.join(here, "libHalden.AdaptiveCpp.so*")))
    if not found:
        raise ImportError(f"the Halden library (libHalden.AdaptiveCpp.so) is not in {here}; "
                          "set HALDEN_LIBRARY to its full path")
    return found[0]


def _load():
    path = _library_path()
    try:
        return ctypes.CDLL(path)
    except OSError as e:
        raise ImportError(f"cannot load the Halden library {path!r} ({e}); "
                          "set HALDEN_LIBRARY to the full path of libHalden.AdaptiveCpp.so") from e


_lib = _load()

# --- Records, laid out as in halden.h ------------------------------------------

_f32, _i32, _u32, _u8 = ctypes.c_float, ctypes.c_int32, ctypes.c_uint32, ctypes.c_uint8
_FLOATS = ctypes.POINTER(_f32)


class _DeviceRecord(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char_p), ("type", ctypes.c_int64), ("backend", ctypes.c_char_p),
                ("vendor", ctypes.c_char_p), ("driver", ctypes.c_char_p), ("arch", ctypes.c_char_p),
                ("flag1", _u8), ("flag2", _u8), ("padding", _u8 * 6)]


_TEXT_FN = ctypes.CFUNCTYPE(None, ctypes.c_char_p)
_PROGRESS_FN = ctypes.CFUNCTYPE(_i32, _f32)
_BYTES_FN = ctypes.CFUNCTYPE(None, ctypes.c_uint64)
_CANCEL_FN = ctypes.CFUNCTYPE(_i32)


class _Callbacks(ctypes.Structure):
    _fields_ = [("debug", _TEXT_FN), ("progress", _PROGRESS_FN), ("info", _TEXT_FN), ("warning", _TEXT_FN),
                ("error", _TEXT_FN), ("reserve", _BYTES_FN), ("release", _BYTES_FN), ("cancel", _CANCEL_FN)]


class _MedianParameters(ctypes.Structure):
    _fields_ = [("size", _u32), ("radius", _u32), ("iterations", _u32), ("reserved", _u32)]


class _ThermalParameters(ctypes.Structure):
    _fields_ = [("width", _i32), ("height", _i32), ("height_scale", _f32), ("extent", _f32),
                ("level_factor", _f32), ("strength", _f32), ("amount", _f32), ("reserved", _u32)]


class _FlowParameters(ctypes.Structure):
    _fields_ = [("width", _i32), ("height", _i32), ("length", _f32), ("accumulation", _f32), ("seed", _u32)]


class _LightingParameters(ctypes.Structure):
    _fields_ = [("width", _i32), ("height", _i32), ("terrain_size", _f32), ("height_scale", _f32),
                ("sun_direction", _f32 * 3), ("shadow_samples", _i32), ("sun_size", _f32), ("ao_mode", _i32),
                ("ao_directions", _i32), ("hybrid_ao_directions", _i32), ("reserved48", _u32),
                ("light_scale", _f32), ("sun_strength", _f32), ("sky_strength", _f32), ("sun_color", _f32 * 3),
                ("sky_color", _f32 * 3), ("exposure", _f32), ("reserved92", _u8 * 20), ("sun_enabled", _u8),
                ("sky_enabled", _u8), ("shadows_enabled", _u8), ("ao_enabled", _u8), ("ao_from_caller", _u8),
                ("padding", _u8 * 3)]


class _Mesh(ctypes.Structure):
    _fields_ = [("vertices", _FLOATS), ("vertex_count", _u32), ("reserved0", _u32),
                ("triangles", ctypes.POINTER(_u32)), ("triangle_count", _u32), ("reserved1", _u32)]


class _RasterizerParameters(ctypes.Structure):
    _fields_ = [("width", _i32), ("height", _i32), ("centre", _f32 * 3), ("scale", _f32), ("offset", _f32 * 3),
                ("depth_divisor", _f32), ("shift", _f32), ("reserved", _u8 * 10), ("supersample", _u8),
                ("padding", _u8)]


def _declare(name, restype, *argtypes):
    fn = getattr(_lib, name)
    fn.restype, fn.argtypes = restype, argtypes
    return fn


_QUEUE, _TABLE_P = ctypes.c_void_p, ctypes.POINTER(_Callbacks)
_GetDevices = _declare("GetDevices", None, ctypes.POINTER(ctypes.POINTER(_DeviceRecord)), ctypes.POINTER(_u32))
_FreeDevices = _declare("FreeDevices", None, ctypes.POINTER(_DeviceRecord))
_GetDeviceInfo = _declare("GetDeviceInfo", ctypes.POINTER(_DeviceRecord), _QUEUE)
_FreeDeviceInfo = _declare("FreeDeviceInfo", None, ctypes.POINTER(_DeviceRecord))
_CreateSyclQueue = _declare("CreateSyclQueue", _QUEUE, ctypes.c_char_p, _TABLE_P)
_DestroySyclQueue = _declare("DestroySyclQueue", None, _QUEUE)
_MedianFilter = _declare("MedianFilter", _u32, _QUEUE, _FLOATS, ctypes.POINTER(_MedianParameters))
_ThermalShaper = _declare("ThermalShaper_Process", _u32, _QUEUE, _FLOATS, _FLOATS,
                          ctypes.POINTER(_ThermalParameters), _TABLE_P)
_FlowSimulation = _declare("FlowSimulation", _u32, _QUEUE, ctypes.c_uint64, _FLOATS, _FLOATS,
                           ctypes.POINTER(_FlowParameters), _TABLE_P)
_Shade = _declare("Shade", _u32, _QUEUE, *[_FLOATS] * 10, ctypes.POINTER(_LightingParameters), _TABLE_P)
_RenderMesh = _declare("MeshRasterizer_RenderMesh", _u32, _QUEUE, ctypes.POINTER(_Mesh), _FLOATS, _FLOATS,
                       ctypes.POINTER(_RasterizerParameters), _TABLE_P)
_Blur = _declare("Blur", _u32, _QUEUE, _FLOATS, _i32, _f32, _TABLE_P)

# --- Errors and the callback table -----------------------------------------------

_STATUS_TEXT = {2: "out of device memory", 3: "device or runtime error"}


class HaldenError(RuntimeError):
    """A failure reported by the library.

    status: the library's status code (2 out of device memory, 3 device or
            runtime error, which includes a rejected argument).
    errors: the texts the library sent through its error slot during the call.
    """

    def __init__(self, message, status=3, errors=()):
        self.status = status
        self.errors = list(errors)
        super().__init__(f"{message}: {'; '.join(self.errors)}" if self.errors else message)


class Cancelled(HaldenError):
    """The operation stopped because a progress or cancel callback asked it to."""


class _Call:
    """Collects what the library reports while one call runs on this thread."""

    def __init__(self, progress=None, cancel=None):
        self.status = 0
        self.errors = []
        self.progress, self.cancel = progress, cancel
        self.cancelled = False
        self.exception = None


# .call: the _Call running on this thread, None between calls. The library
# sends a call's reports on the thread that made it, so each thread's reports
# reach its own call while other threads run theirs.
_calls = threading.local()


def _current():
    return getattr(_calls, "call", None)


# Module-level so that they outlive every table the library copies them into.
@_TEXT_FN
def _on_error(text):
    call = _current()
    if call is not None:
        call.errors.append(text.decode("utf-8", "replace") if text else "")


def _ask(slot, *args):
    """Nonzero once the caller's callback for `slot` has asked to stop (or raised)."""
    call = _current()
    if call is None:
        return 0
    fn = getattr(call, slot)
    if fn is not None and not call.cancelled:
        try:
            call.cancelled = bool(fn(*args))
        except BaseException as e:  # must not unwind into C; re-raised after the call
            call.exception, call.cancelled = e, True
    return int(call.cancelled)


@_PROGRESS_FN
def _on_progress(percent):
    return _ask("progress", percent)


@_CANCEL_FN
def _on_cancel():
    return _ask("cancel")


_table = _Callbacks(error=_on_error, progress=_on_progress, cancel=_on_cancel)
_TABLE = ctypes.byref(_table)


@contextlib.contextmanager
def _reported(operation, progress=None, cancel=None):
    """Runs the body as one library call, which sets the yielded call's status,
    and raises for what the library and the callbacks reported."""
    call = _Call(progress, cancel)
    # A callback may run an operation on another queue: its call nests in this one.
    outer, _calls.call = _current(), call
    try:
        yield call
    finally:
        _calls.call = outer
    if call.exception is not None:
        raise call.exception
    if call.status and call.cancelled:
        raise Cancelled(f"{operation} was cancelled", call.status, call.errors)
    if call.status or call.errors:
        # An error text with status 0 (MedianFilter always returns 0) still
        # means the results are not to be trusted.
        status = call.status or 3
        raise HaldenError(f"{operation} failed with status {status} ({_STATUS_TEXT.get(status, 'unknown')})",
                          status, call.errors)


def _run(operation, q, fn, *args, progress=None, cancel=None):
    """Calls fn(handle of q, *args), holding q from reading its handle until fn returns."""
    with _holding(q) as handle, _reported(operation, progress, cancel) as call:
        call.status = fn(handle, *args)


# --- Devices and queues --------------------------------------------------------------

# The class words of halden_device_key. The library recognises the word for
# CPUs of other back-ends by its hash only; this is a word with that hash.
_CLASS_WORDS = {1: "Cpu", 2: "Foreignzjaztx", 3: "GpuIntegrated", 4: "GpuDiscrete", 5: "Accelerator"}


def _text(raw):
    # surrogateescape: a key built from odd bytes must encode back to the same bytes.
    return None if raw is None else raw.decode("utf-8", "surrogateescape")


class Device(NamedTuple):
    """A device as the library describes it; strings the library leaves null are None.

    key:  the text that Queue takes to open this device
    type: 1 CPU of the host back-end, 2 another CPU, 3 integrated GPU,
          4 discrete GPU, 5 accelerator
    """
    name: Optional[str]
    key: str
    backend: Optional[str]
    vendor: Optional[str]
    driver: Optional[str]
    arch: Optional[str]
    type: int


def _device(record):
    strings = [_text(getattr(record, f)) for f in ("backend", "vendor", "driver", "arch")]
    key = "/".join([_CLASS_WORDS.get(record.type, "")] + [s or "" for s in strings])
    return Device(_text(record.name), key, *strings, record.type)


def devices():
    """The usable devices, the host (CPU) device first."""
    records, count = ctypes.POINTER(_DeviceRecord)(), _u32()
    try:
        with _reported("GetDevices"):
            _GetDevices(ctypes.byref(records), ctypes.byref(count))
        return [_device(records[i]) for i in range(count.value)]
    finally:
        _FreeDevices(records)


class Queue:
    """A queue on one device; every operation takes one.

    key: "cpu" (the host device, default) or a Device.key from devices().
    Use it as a context manager or call close(); a closed queue raises
    ValueError when used. It serves one call at a time: a call from another
    thread waits for the running one. Attributes: key, device (a Device).
    """

    def __init__(self, key="cpu"):
        # First, so that close() works on a queue whose construction failed.
        self._handle = None
        self._state = threading.Condition()  # guards _handle and _user
        self._user = None  # the thread whose call holds the queue, None between calls
        if not isinstance(key, str):
            raise TypeError(f"a device key is a str, got {type(key).__name__}")
        if "\0" in key:
            # The library reads the key up to the NUL: "cpu\0x" would open cpu.
            raise ValueError(f"a device key cannot contain a NUL character, got {key!r}")
        self.key = key
        # The table given here becomes the library's process-wide one, which
        # MedianFilter and asynchronous device errors report through.
        with _reported("CreateSyclQueue"):
            self._handle = _CreateSyclQueue(key.encode("utf-8", "surrogateescape"), _TABLE)
        if not self._handle:
            raise HaldenError(f"no device matches the key {key!r}; halden.devices() lists the keys")
        info = None
        try:
            with _reported("GetDeviceInfo") as call:
                info = _GetDeviceInfo(self._handle)
                call.status = 0 if info else 3
            self.device = _device(info.contents)
        except BaseException:
            self.close()
            raise
        finally:
            _FreeDeviceInfo(info)

    def close(self):
        """Waits for the queue's work and frees it; closing twice is harmless.

        A call running on the queue in another thread is waited for; closing
        from a callback of the call running on it raises RuntimeError.
        """
        with self._state:
            if self._user == threading.get_ident():
                raise RuntimeError("the queue is in use by the call running this callback; "
                                   "close it after that call returns")
            self._state.wait_for(lambda: self._user is None)
            handle, self._handle = self._handle, None
        if handle:
            with _reported("DestroySyclQueue"):
                _DestroySyclQueue(handle)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        # A finaliser's exception could only be printed; the interpreter may
        # also be tearing the module down.
        try:
            self.close()
        except BaseException:
            pass

    def __repr__(self):
        return f"halden.Queue({self.key!r}{'' if self._handle else ', closed'})"


@contextlib.contextmanager
def _holding(q):
    """Yields q's handle and keeps q in use by this thread until the body ends,
    so that neither close() nor another call can free or share it meanwhile."""
    if not isinstance(q, Queue):
        raise TypeError(f"expected a halden.Queue, got {type(q).__name__}")
    me = threading.get_ident()
    with q._state:
        if q._user == me:
            raise RuntimeError("the queue is in use by the call running this callback; "
                               "a callback cannot run an operation on it")
        q._state.wait_for(lambda: q._user is None)
        if not q._handle:
            raise ValueError("the queue is closed")
        q._user = me
    try:
        yield q._handle
    finally:
        with q._state:
            q._user = None
            q._state.notify_all()


# --- Arguments ---------------------------------------------------------------------------

_MAX_CELLS = 2**31 - 1  # every record counts cells in int32


def _real(array, what):
    a = np.asarray(array)
    if a.dtype.kind not in "biuf":
        raise ValueError(f"{what} must hold real numbers, got dtype {a.dtype}")
    return a


def _grid(array, what="heights", square=False):
    """A fresh C-ordered float32 copy of a 2-D grid: the library works in place on some grids."""
    a = _real(array, what)
    if a.ndim != 2:
        raise ValueError(f"{what} must be a 2-D grid (rows, columns), got shape {a.shape}")
    if a.size == 0:
        raise ValueError(f"{what} is empty (shape {a.shape})")
    if a.size > _MAX_CELLS:
        raise ValueError(f"{what} has {a.size} cells, more than the 2^31 - 1 the library takes")
    if square and a.shape[0] != a.shape[1]:
        raise ValueError(f"{what} must be a square grid, got shape {a.shape}")
    return np.array(a, dtype=np.float32, order="C", copy=True)


def _mask(mask, shape):
    if mask is None:
        return None
    m = _grid(mask, "mask")
    if m.shape != shape:
        raise ValueError(f"mask shape {m.shape} differs from the height grid's {shape}")
    return m


def _int(value, ctype, what, low=None, high=None):
    """`value` as an integer that `ctype` holds unchanged (ctypes would wrap it
    silently), refused outside [low, high] where they are given."""
    try:
        number = operator.index(value)
    except TypeError:
        raise TypeError(f"{what} must be an integer, got {value!r}") from None
    if ctype(number).value != number:
        raise ValueError(f"{what} = {number} is out of range")
    if (low is not None and number < low) or (high is not None and number > high):
        span = f"at least {low}" if high is None else f"{low} to {high}"
        raise ValueError(f"{what} must be {span}, got {number}")
    return number


def _float(value, what, ok=math.isfinite, rule="finite"):
    """`value` as a float, refused unless `ok` holds for it both as given and
    as the float32 a record keeps (where 1e39 turns infinite and 1e-50 zero)."""
    try:
        stored = _f32(value).value  # first: float() would also parse a string
        number = float(value)
    except TypeError:
        raise TypeError(f"{what} must be a real number, got {value!r}") from None
    except OverflowError:  # an int too large for a float
        number = stored = math.inf
    if not (ok(number) and ok(stored)):
        raise ValueError(f"{what} must be {rule}, got {value!r}")
    return number


def _positive(value, what):
    return _float(value, what, lambda x: 0 < x < math.inf, "finite and > 0")


def _vector(values, what):
    v = tuple(values)
    if len(v) != 3:
        raise ValueError(f"{what} must have 3 components, got {len(v)}")
    return (_f32 * 3)(*(_float(x, what) for x in v))


def _ptr(a):
    return None if a is None else a.ctypes.data_as(_FLOATS)


# --- Operations ------------------------------------------------------------------------------

_MEDIAN_PADDING = np.float32(1e8)  # what the library's sorting network pads its windows with


def median_filter(q, heights, radius=3, iterations=1):
    """Removes spikes and pits from a square grid while keeping edges.

    Each pass replaces every cell by the sum of the middle three values of a
    rounded disc around it times 0.333333 (their mean to about 1e-6; a
    constant grid comes back that little lower); edge cells are repeated.

    radius:     disc radius in cells, 1 to 8 (default 3; larger acts as 8)
    iterations: number of passes (default 1; 0 returns the grid unchanged)
    Returns the filtered grid.

    Values above 1e8, +inf included, come back as about 1e8: the filter
    sorts them below the 1e8 it pads its windows with. A grid holding any
    draws a RuntimeWarning.
    """
    grid = _grid(heights, square=True)
    # The library reads the radius as int32 and refuses 0 and below.
    record = _MedianParameters(grid.shape[0], _int(radius, _i32, "radius", low=1), _int(iterations, _u32, "iterations"),
                               0)
    above = np.count_nonzero(grid > _MEDIAN_PADDING) if record.iterations else 0
    if above:
        warnings.warn(f"{above} cells of the grid exceed 1e8; the median filter maps such values to about 1e8",
                      RuntimeWarning, stacklevel=2)
    _run("MedianFilter", q, _MedianFilter, _ptr(grid), ctypes.byref(record))
    return grid


def thermal_shape(q, heights, mask=None, amount=-0.5, strength=1.0, height_scale=1.0, extent=None,
                  level_factor=0.125):
    """Wears down ridges (or fills valleys) by slope- and curvature-driven lowering.

    mask:         grid of the heights' shape; 0 keeps a cell, 1 shapes it
                  fully (default None: every cell fully)
    amount:       lowering rate per pass (default -0.5); negative wears ridges
                  and peaks, zero or positive shapes valleys
    strength:     blend with the input (default 1.0): 0 gives the input back,
                  1 the shaped grid, above 1 exaggerates
    height_scale: world height of one height unit, > 0 (default 1.0)
    extent:       world width of the whole grid, > 0 (default None: the width
                  in cells, so a cell is one height unit wide); larger is
                  gentler
    level_factor: scales the number of pyramid levels, > 0 (default 0.125:
                  the coarsest level is about 16 cells wide)
    Every number must be finite. Returns the shaped grid.
    """
    grid = _grid(heights)
    weights = _mask(mask, grid.shape)
    rows, columns = grid.shape
    record = _ThermalParameters(columns, rows, _positive(height_scale, "height_scale"),
                                _positive(columns if extent is None else extent, "extent"),
                                _positive(level_factor, "level_factor"), _float(strength, "strength"),
                                _float(amount, "amount"), 0)
    _run("ThermalShaper_Process", q, _ThermalShaper, _ptr(grid), _ptr(weights), ctypes.byref(record), _TABLE)
    return grid


def flow(q, heights, mask=None, length=1.0, accumulation=0.0, seed=1, progress=None, cancel=None):
    """A flow map: where water running downhill from every cell gathers.

    mask:         grid of the heights' shape giving each cell's chance, 0 to
                  1, of releasing a particle (default None: every cell does)
    length:       how far a long trace may run, as a fraction of the width,
                  finite and >= 0 (default 1.0: across the map; 0: one visit
                  per trace); a trace may take at most 2^24 steps
    accumulation: weight of the linear part, finite (default 0.0: only the
                  saturating intensity, below about 0.03 per batch); larger
                  values make big rivers stand out
    seed:         seed of every random choice (default 1), 0 to 2^32 - 1
    progress:     callable(percent: float), called as the run advances; a
                  true return cancels (default None)
    cancel:       callable() polled during the run; a true return cancels
                  (default None)
    Returns the flow map. Raises Cancelled when cancelled; an
    exception raised by a callback cancels the run and is re-raised.
    """
    grid = _grid(heights)
    seeding = _mask(mask, grid.shape)
    # The library reads the seeding mask from the output grid.
    out = np.zeros_like(grid) if seeding is None else seeding
    rows, columns = grid.shape
    record = _FlowParameters(columns, rows, _float(length, "length", lambda x: 0 <= x < math.inf, "finite and >= 0"),
                             _float(accumulation, "accumulation"), _int(seed, _u32, "seed"))
    _run("FlowSimulation", q, _FlowSimulation, 1 if seeding is None else 0, _ptr(grid), _ptr(out),
         ctypes.byref(record), _TABLE, progress=progress, cancel=cancel)
    return out


class Shading(NamedTuple):
    """Results of shade(), each (rows, columns) unless said otherwise.

    rgb:     colour, (rows, columns, 3)
    diffuse: cosine of the sun on each cell's slope, 0 to 1
    shadow:  share of the sun's disc not hidden by terrain, 0 to 1; None
             with shadows=False
    sky:     sky visibility, 4 x the mean cosine of the open sky directions
             (about 2 on open flat ground); None with sky_visibility=False
    """
    rgb: np.ndarray
    diffuse: np.ndarray
    shadow: Optional[np.ndarray]
    sky: Optional[np.ndarray]


_SUN_COLOUR, _SKY_COLOUR, _SKY_STRENGTH = (1.0, 0.95, 0.85), (0.6, 0.7, 1.0), 0.4


def shade(q, heights, sun_azimuth=225.0, sun_elevation=35.0, shadow_rings=1, sun_size=0.53, sky_directions=32,
          hybrid_sky=False, shadows=True, sky_visibility=True, terrain_size=None, height_scale=1.0, exposure=0.6,
          albedo=None):
    """Lights a height grid with sun and sky.

    Colour = (sun colour (1, 0.95, 0.85) x diffuse x shadow + 0.4 x sky colour
    (0.6, 0.7, 1) x sky) x exposure, or x albedo instead of exposure when one
    is given.

    sun_azimuth:    degrees from the +x axis (along a row) towards +y (down
                    the rows), finite (default 225: light from the upper left)
    sun_elevation:  degrees above the horizon, 0 to 90 (default 35)
    shadow_rings:   rings of sun samples across the sun's disc, 0 to 64:
                    3n^2 + 3n + 1 samples (default 1: 7 samples)
    sun_size:       apparent sun diameter in degrees, 0 (hard shadows) to
                    below 180 (default 0.53)
    sky_directions: sky directions for sky visibility, 1 to 4096 (default 32)
    hybrid_sky:     estimate sky visibility on a half-size grid, about a
                    quarter of the work (default False: trace every cell)
    shadows:        trace sun shadows (default True)
    sky_visibility: compute sky visibility (default True); switched off it
                    counts as 1 everywhere, which is less than the about 2
                    that open flat ground gets with it on
    terrain_size:   world width of the grid, > 0 (default None: the width in
                    cells, so a cell is one height unit wide)
    height_scale:   world height of one height unit, > 0 (default 1.0)
    exposure:       factor of the colour without albedo, finite (default 0.6,
                    which keeps sunlit ground below 1)
    albedo:         (rows, columns, 3) surface colour (default None)
    Returns a Shading.

    The library traces shadows and sky visibility on square grids only. Any
    other grid with either switched on is padded to a square by repeating
    its last row or column, shaded with the same cell size, and cropped
    back; the repeated edge then stands in for the terrain beyond it.
    """
    azimuth = math.radians(_float(sun_azimuth, "sun_azimuth"))
    elevation = math.radians(_float(sun_elevation, "sun_elevation", lambda x: 0 <= x <= 90, "0 to 90 degrees"))
    rings = _int(shadow_rings, _i32, "shadow_rings", 0, 64)
    sun_size = _float(sun_size, "sun_size", lambda x: 0 <= x < 180, "0 to below 180 degrees")
    directions = _int(sky_directions, _i32, "sky_directions", 1, 4096)
    height_scale, exposure = _positive(height_scale, "height_scale"), _float(exposure, "exposure")
    grid = _grid(heights)
    rows, columns = grid.shape
    size = columns if terrain_size is None else _positive(terrain_size, "terrain_size")
    colour = None
    if albedo is not None:
        colour = _real(albedo, "albedo")
        if colour.shape != (rows, columns, 3):
            raise ValueError(f"albedo must have shape {(rows, columns, 3)}, got {colour.shape}")
        colour = np.ascontiguousarray(np.moveaxis(colour, -1, 0), dtype=np.float32)
    if (shadows or sky_visibility) and rows != columns:
        side = max(rows, columns)
        grid = np.pad(grid, ((0, side - rows), (0, side - columns)), mode="edge")
        if colour is not None:
            colour = np.pad(colour, ((0, 0), (0, side - rows), (0, side - columns)), mode="edge")
        size = size * side / columns  # the same cell size
    record = _LightingParameters(
        width=grid.shape[1], height=grid.shape[0], terrain_size=size, height_scale=height_scale,
        sun_direction=(_f32 * 3)(math.cos(elevation) * math.cos(azimuth), math.cos(elevation) * math.sin(azimuth),
                                 math.sin(elevation)),
        shadow_samples=rings, sun_size=sun_size, ao_mode=1 if hybrid_sky else 0,
        ao_directions=directions, hybrid_ao_directions=directions, light_scale=1.0, sun_strength=1.0,
        sky_strength=_SKY_STRENGTH, sun_color=(_f32 * 3)(*_SUN_COLOUR), sky_color=(_f32 * 3)(*_SKY_COLOUR),
        exposure=exposure, sun_enabled=1, sky_enabled=1, shadows_enabled=bool(shadows),
        ao_enabled=bool(sky_visibility), ao_from_caller=0)
    planes = np.empty((6,) + grid.shape, np.float32)  # r, g, b, diffuse, shadow, sky
    albedo_planes = [None] * 3 if colour is None else list(colour)
    _run("Shade", q, _Shade, _ptr(grid), _ptr(planes[3]), _ptr(planes[4]) if shadows else None,
         _ptr(planes[5]) if sky_visibility else None, *map(_ptr, planes[:3]), *map(_ptr, albedo_planes),
         ctypes.byref(record), _TABLE)
    planes = planes[:, :rows, :columns]
    return Shading(np.ascontiguousarray(np.moveaxis(planes[:3], 0, -1)), np.ascontiguousarray(planes[3]),
                   np.ascontiguousarray(planes[4]) if shadows else None,
                   np.ascontiguousarray(planes[5]) if sky_visibility else None)


# The library's largest radius (a radius of 3e9 used to crash the process).
_BLUR_MAX_RADIUS = 16777216.0


def blur(q, heights, radius=12.0):
    """Blurs a square grid with an almost-Gaussian filter (edge cells repeated).

    radius: in cells, finite, > 0 and at most 16777216 (default 12.0: four
            passes of a 25-cell box); fractions weight the next cell out
    Returns the blurred grid. The library takes grids up to 46340 cells wide.
    """
    radius = _float(radius, "radius", lambda x: 0 < x <= _BLUR_MAX_RADIUS, "finite, > 0 and at most 16777216")
    grid = _grid(heights, square=True)
    _run("Blur", q, _Blur, _ptr(grid), grid.shape[0], radius, _TABLE)
    return grid


def rasterize(q, vertices, triangles, width, height, centre=(0.0, 0.0, 0.0), scale=1.0, offset=(0.0, 0.0, 0.0),
              depth_divisor=1.0, shift=0.0, supersample=False, ids=False):
    """Renders a triangle mesh into a height grid of `height` rows and `width` columns.

    vertices:  (N, 3) x, y, z; triangles: (M, 3) vertex indices, 0 to N - 1.
    Each vertex is mapped to grid coordinates as
        x' = scale (x - centre[0]) + offset[0] - shift   (column)
        y' = scale (y - centre[1]) + offset[1] - shift   (row)
        z' = (scale (z - centre[2]) + offset[2]) / depth_divisor - shift
    where cell (r, c) has its centre at x' = c + 0.5, y' = r + 0.5 (defaults:
    centre (0, 0, 0), scale 1.0, offset (0, 0, 0), depth_divisor 1.0, not 0,
    shift 0.0; all finite). Only triangles whose corners run anticlockwise
    with x to the right and y down, (x1 - x0)(y2 - y0) - (x2 - x0)(y1 - y0)
    < 0, are drawn.

    width, height: 1 to 16384 cells (8192 with supersample)
    supersample:   render at twice the size and keep the highest of each
                   2 x 2 block (default False)
    ids:           also return a grid naming the triangle that won each cell
                   by a random value in [0, 1) fixed per triangle, -1 where
                   none covers (default False)
    Returns heights (the highest triangle covering each cell centre, or
    numpy.finfo(numpy.float32).min where none does), or (heights, ids).
    """
    points = _real(vertices, "vertices")
    if points.ndim != 2 or points.shape[1] != 3:
        raise ValueError(f"vertices must have shape (N, 3), got {points.shape}")
    corners = np.asarray(triangles)
    if corners.dtype.kind not in "iu":
        raise ValueError(f"triangles must hold integer vertex indices, got dtype {corners.dtype}")
    if corners.ndim != 2 or corners.shape[1] != 3:
        raise ValueError(f"triangles must have shape (M, 3), got {corners.shape}")
    if len(points) > 2**32 - 1 or len(corners) > 2**32 - 1:
        raise ValueError("the library takes at most 2^32 - 1 vertices and triangles")
    if corners.size and (corners.min() < 0 or corners.max() >= len(points)):
        raise ValueError(f"triangle indices must lie in [0, {len(points) - 1}]")
    points = np.ascontiguousarray(points, dtype=np.float32)
    corners = np.ascontiguousarray(corners, dtype=np.uint32)
    side = 8192 if supersample else 16384
    rows, columns = _int(height, _i32, "height", 1, side), _int(width, _i32, "width", 1, side)
    mesh = _Mesh(points.ctypes.data_as(_FLOATS), len(points), 0, corners.ctypes.data_as(ctypes.POINTER(_u32)),
                 len(corners), 0)
    # The library writes the rendered (doubled) size back into this record.
    divisor = _float(depth_divisor, "depth_divisor", lambda x: x != 0 and math.isfinite(x), "finite and not 0")
    record = _RasterizerParameters(width=columns, height=rows, centre=_vector(centre, "centre"),
                                   scale=_float(scale, "scale"), offset=_vector(offset, "offset"),
                                   depth_divisor=divisor, shift=_float(shift, "shift"), supersample=bool(supersample))
    out = np.empty((rows, columns), np.float32)
    winners = np.empty_like(out) if ids else None
    _run("MeshRasterizer_RenderMesh", q, _RenderMesh, ctypes.byref(mesh), _ptr(out), _ptr(winners),
         ctypes.byref(record), _TABLE)
    return (out, winners) if ids else out
