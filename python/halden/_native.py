"""The shared library, its records laid out as in halden.h, and its exports.

A new operation adds its parameter record (registered under its C name, which
the tests compare against the header's size and offset assertions) and its
export declaration here.
"""

import ctypes
import glob
import os

import numpy as np

LIBRARY_NAME = "libHalden.AdaptiveCpp.so"


def _library_path() -> str:
    path = os.environ.get("HALDEN_LIBRARY")
    if path:
        return path
    here = os.path.dirname(os.path.abspath(__file__))
    # Sorted, the unversioned name comes first.
    found = sorted(glob.glob(os.path.join(here, LIBRARY_NAME + "*")))
    if not found:
        raise ImportError(f"the Halden library ({LIBRARY_NAME}) is not in {here}; "
                          "set HALDEN_LIBRARY to its full path")
    return found[0]


def _load() -> ctypes.CDLL:
    path = _library_path()
    try:
        return ctypes.CDLL(path)
    except OSError as e:
        raise ImportError(f"cannot load the Halden library {path!r} ({e}); "
                          f"set HALDEN_LIBRARY to the full path of {LIBRARY_NAME}") from e


lib = _load()

# --- Records --------------------------------------------------------------------

f32, i32, u32, u8 = ctypes.c_float, ctypes.c_int32, ctypes.c_uint32, ctypes.c_uint8
FLOATS = ctypes.POINTER(f32)
UINTS = ctypes.POINTER(u32)

RECORDS: dict[str, type[ctypes.Structure]] = {}  # C name -> record


def _record(c_name):
    def register(cls):
        RECORDS[c_name] = cls
        return cls
    return register


@_record("halden_device_record")
class DeviceRecord(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char_p), ("type", ctypes.c_int64), ("backend", ctypes.c_char_p),
                ("vendor", ctypes.c_char_p), ("driver", ctypes.c_char_p), ("arch", ctypes.c_char_p),
                ("flag1", u8), ("flag2", u8), ("padding", u8 * 6)]


TEXT_FN = ctypes.CFUNCTYPE(None, ctypes.c_char_p)
PROGRESS_FN = ctypes.CFUNCTYPE(i32, f32)
BYTES_FN = ctypes.CFUNCTYPE(None, ctypes.c_uint64)
CANCEL_FN = ctypes.CFUNCTYPE(i32)


@_record("halden_callbacks")
class Callbacks(ctypes.Structure):
    _fields_ = [("debug", TEXT_FN), ("progress", PROGRESS_FN), ("info", TEXT_FN), ("warning", TEXT_FN),
                ("error", TEXT_FN), ("reserve", BYTES_FN), ("release", BYTES_FN), ("cancel", CANCEL_FN)]


@_record("halden_median_filter_parameters")
class MedianParameters(ctypes.Structure):
    _fields_ = [("size", u32), ("radius", u32), ("iterations", u32), ("reserved", u32)]


@_record("halden_thermal_shaper_parameters")
class ThermalParameters(ctypes.Structure):
    _fields_ = [("width", i32), ("height", i32), ("height_scale", f32), ("extent", f32),
                ("level_factor", f32), ("strength", f32), ("amount", f32), ("reserved", u32)]


@_record("halden_thermal_parameters")
class WeatheringParameters(ctypes.Structure):
    _fields_ = [("width", i32), ("height", i32), ("cell_size", f32), ("height_scale", f32), ("talus_angle", f32),
                ("talus_noise", f32), ("rate", f32), ("iterations", i32), ("levels", i32), ("burial_scale", f32),
                ("mask_strength", f32), ("seed", u32)]


@_record("halden_erosion_parameters")
class ErosionParameters(ctypes.Structure):
    _fields_ = [("width", i32), ("height", i32), ("cell_size", f32), ("height_scale", f32), ("droplets", f32),
                ("rounds", i32), ("lifetime", f32), ("inertia", f32), ("capacity", f32), ("min_slope", f32),
                ("erosion_rate", f32), ("deposition_rate", f32), ("evaporation", f32), ("gravity", f32),
                ("brush_radius", f32), ("flow_coupling", i32), ("levels", i32), ("detail_scale", f32),
                ("seed", u32)]


@_record("halden_flow_parameters")
class FlowParameters(ctypes.Structure):
    _fields_ = [("width", i32), ("height", i32), ("length", f32), ("accumulation", f32), ("seed", u32)]


@_record("halden_color_transport_parameters")
class ColorTransportParameters(ctypes.Structure):
    _fields_ = [("width", i32), ("height", i32), ("seed", u32), ("length", f32), ("pickup_rate", f32),
                ("deposit_weight", f32), ("strength", f32), ("saturation", f32)]


@_record("halden_lighting_parameters")
class LightingParameters(ctypes.Structure):
    _fields_ = [("width", i32), ("height", i32), ("terrain_size", f32), ("height_scale", f32),
                ("sun_direction", f32 * 3), ("shadow_samples", i32), ("sun_size", f32), ("ao_mode", i32),
                ("ao_directions", i32), ("hybrid_ao_directions", i32), ("reserved48", u32),
                ("light_scale", f32), ("sun_strength", f32), ("sky_strength", f32), ("sun_color", f32 * 3),
                ("sky_color", f32 * 3), ("exposure", f32), ("reserved92", u8 * 20), ("sun_enabled", u8),
                ("sky_enabled", u8), ("shadows_enabled", u8), ("ao_enabled", u8), ("ao_from_caller", u8),
                ("padding", u8 * 3)]


@_record("halden_sunlight_parameters")
class SunLightParameters(ctypes.Structure):
    _fields_ = [("width", i32), ("height", i32), ("terrain_size", f32), ("height_scale", f32), ("latitude", f32),
                ("first_day", i32), ("last_day", i32), ("day_step", i32), ("time_step", f32), ("atmosphere", i32),
                ("linke_turbidity", f32), ("transmittance", f32), ("site_elevation", f32), ("albedo", f32),
                ("sky_directions", i32), ("diffuse", u8), ("relative", u8), ("reserved", u8 * 2)]


@_record("halden_dune_parameters")
class DuneParameters(ctypes.Structure):
    _fields_ = [("size", i32), ("cell_size", f32), ("height_scale", f32), ("wind_direction", f32),
                ("wind_speed", f32), ("second_wind_direction", f32), ("second_wind_speed", f32),
                ("second_wind_share", f32), ("iterations", i32), ("slab", f32), ("hop_length", f32),
                ("speed_up", f32), ("warp_strength", f32), ("shadow_angle_min", f32), ("shadow_angle_max", f32),
                ("sand_repose", f32), ("bedrock_repose", f32), ("periodic", u32), ("abrasion", u32), ("seed", u32)]


@_record("halden_mesh")
class Mesh(ctypes.Structure):
    _fields_ = [("vertices", FLOATS), ("vertex_count", u32), ("reserved0", u32),
                ("triangles", UINTS), ("triangle_count", u32), ("reserved1", u32)]


@_record("halden_mesh_rasterizer_parameters")
class RasterizerParameters(ctypes.Structure):
    _fields_ = [("width", i32), ("height", i32), ("centre", f32 * 3), ("scale", f32), ("offset", f32 * 3),
                ("depth_divisor", f32), ("shift", f32), ("reserved", u8 * 10), ("supersample", u8),
                ("padding", u8)]


@_record("halden_tangent_parameters")
class TangentParameters(ctypes.Structure):
    _fields_ = [("transform", RasterizerParameters), ("terrain_size", f32), ("height_scale", f32),
                ("margin", i32), ("encoding", u32), ("flip_green", u32), ("reserved", u32)]


@_record("halden_texture")
class Texture(ctypes.Structure):
    _fields_ = [("values", FLOATS), ("width", i32), ("height", i32)]


@_record("halden_triplanar_parameters")
class TriplanarParameters(ctypes.Structure):
    _fields_ = [("transform", RasterizerParameters), ("texture_size", f32), ("amplitude", f32), ("midlevel", f32),
                ("sharpness", f32), ("edge_length", f32), ("max_subdivision", u32)]


@_record("halden_cellular3d_parameters")
class CellularParameters(ctypes.Structure):
    _fields_ = [("width", i32), ("height", i32), ("frequency", f32), ("z", f32), ("z_scale", f32), ("seed", u32),
                ("jitter", f32), ("metric", i32), ("exponent", f32), ("result", i32), ("smoothness", f32),
                ("octaves", i32), ("lacunarity", f32), ("gain", f32), ("period", i32), ("scale", f32),
                ("offset", f32), ("reserved", u32)]


@_record("halden_debris_parameters")
class DebrisParameters(ctypes.Structure):
    _fields_ = [("width", i32), ("height", i32), ("cell_size", f32), ("height_scale", f32), ("seed", u32),
                ("density", f32), ("size_min", f32), ("size_max", f32), ("size_exponent", f32),
                ("source_slope", f32), ("friction_angle", f32), ("restitution", f32), ("max_steps", i32),
                ("mode", i32), ("batches", i32), ("shape", i32), ("facets", i32), ("roundness", f32),
                ("embedding", f32), ("warp_amplitude", f32), ("warp_frequency", f32)]


@_record("halden_stamp_entry")
class StampEntry(ctypes.Structure):
    _fields_ = [("width", u32), ("height", u32), ("offset", ctypes.c_uint64)]


@_record("halden_stamps")
class Stamps(ctypes.Structure):
    _fields_ = [("atlas", FLOATS), ("atlas_size", ctypes.c_uint64), ("entries", ctypes.POINTER(StampEntry)),
                ("count", u32), ("reserved", u32)]


@_record("halden_stamp_instance")
class StampInstance(ctypes.Structure):
    _fields_ = [("x", f32), ("y", f32), ("scale", f32), ("rotation", f32), ("cos_rotation", f32),
                ("sin_rotation", f32), ("height", f32), ("stamp", u32)]


@_record("halden_stamp_parameters")
class StampParameters(ctypes.Structure):
    _fields_ = [("width", i32), ("height", i32), ("seed", u32), ("count", u32), ("spacing", f32),
                ("scale_min", f32), ("scale_max", f32), ("rotation_min", f32), ("rotation_max", f32),
                ("height_min", f32), ("height_max", f32), ("height_mode", i32), ("blend", i32), ("opacity", f32),
                ("smoothness", f32), ("falloff", f32), ("filter", i32), ("slope_min", f32), ("slope_max", f32),
                ("elevation_min", f32), ("elevation_max", f32), ("reserved", u32)]


@_record("halden_points")
class Points(ctypes.Structure):
    _fields_ = [("points", FLOATS), ("count", u32), ("reserved", u32)]


@_record("halden_point_parameters")
class PointParameters(ctypes.Structure):
    _fields_ = [("transform", RasterizerParameters), ("mode", i32), ("fill", i32), ("radius", f32), ("power", f32),
                ("max_fill", f32), ("empty", f32)]


def floats(array: np.ndarray | None):
    """A float32 array's data as the float* the exports take; None as null."""
    return None if array is None else array.ctypes.data_as(FLOATS)


def uints(array: np.ndarray):
    return array.ctypes.data_as(UINTS)


# --- Exports ------------------------------------------------------------------------

def _declare(name, restype, *argtypes):
    fn = getattr(lib, name)
    fn.restype, fn.argtypes = restype, argtypes
    return fn


QUEUE, TABLE_P = ctypes.c_void_p, ctypes.POINTER(Callbacks)
DEVICES_P = ctypes.POINTER(DeviceRecord)

GetDevices = _declare("GetDevices", None, ctypes.POINTER(DEVICES_P), ctypes.POINTER(u32))
FreeDevices = _declare("FreeDevices", None, DEVICES_P)
GetDeviceInfo = _declare("GetDeviceInfo", DEVICES_P, QUEUE)
FreeDeviceInfo = _declare("FreeDeviceInfo", None, DEVICES_P)
CreateSyclQueue = _declare("CreateSyclQueue", QUEUE, ctypes.c_char_p, TABLE_P)
DestroySyclQueue = _declare("DestroySyclQueue", None, QUEUE)

MedianFilter = _declare("MedianFilter", u32, QUEUE, FLOATS, ctypes.POINTER(MedianParameters))
Blur = _declare("Blur", u32, QUEUE, FLOATS, i32, f32, TABLE_P)
ThermalShaper_Process = _declare("ThermalShaper_Process", u32, QUEUE, FLOATS, FLOATS,
                                 ctypes.POINTER(ThermalParameters), TABLE_P)
ThermalSimulation = _declare("ThermalSimulation", u32, QUEUE, FLOATS, FLOATS, FLOATS, FLOATS,
                            ctypes.POINTER(WeatheringParameters), TABLE_P)
ParallelErosionSimulation = _declare("ParallelErosionSimulation", u32, QUEUE, *[FLOATS] * 6,
                                     ctypes.POINTER(ErosionParameters), TABLE_P)
FlowSimulation = _declare("FlowSimulation", u32, QUEUE, ctypes.c_uint64, FLOATS, FLOATS,
                          ctypes.POINTER(FlowParameters), TABLE_P)
ColorTransportSimulation = _declare("ColorTransportSimulation", u32, QUEUE, *[FLOATS] * 5,
                                    ctypes.POINTER(ColorTransportParameters), TABLE_P)
Shade = _declare("Shade", u32, QUEUE, *[FLOATS] * 10, ctypes.POINTER(LightingParameters), TABLE_P)
SunLightIntegral = _declare("SunLightIntegral", u32, QUEUE, *[FLOATS] * 4, ctypes.POINTER(SunLightParameters),
                            TABLE_P)
MeshRasterizer_RenderMesh = _declare("MeshRasterizer_RenderMesh", u32, QUEUE, ctypes.POINTER(Mesh), FLOATS,
                                     FLOATS, ctypes.POINTER(RasterizerParameters), TABLE_P)
Cellular3D_Render = _declare("Cellular3D_Render", u32, QUEUE, FLOATS, FLOATS, ctypes.POINTER(CellularParameters),
                             TABLE_P)
DebrisSimulation = _declare("DebrisSimulation", u32, QUEUE, FLOATS, FLOATS, FLOATS, FLOATS, FLOATS,
                            ctypes.POINTER(DebrisParameters))
DuneSimulation = _declare("DuneSimulation", u32, QUEUE, FLOATS, FLOATS, FLOATS, ctypes.POINTER(DuneParameters),
                          TABLE_P)
StampInstancer_Populate = _declare("StampInstancer_Populate", u32, QUEUE, FLOATS, ctypes.POINTER(Stamps), FLOATS,
                                   ctypes.POINTER(StampInstance), UINTS, FLOATS, ctypes.POINTER(StampParameters),
                                   TABLE_P)
MeshRasterizer_RenderPointCloud = _declare("MeshRasterizer_RenderPointCloud", u32, QUEUE, ctypes.POINTER(Points),
                                           FLOATS, FLOATS, ctypes.POINTER(PointParameters), TABLE_P)
MeshRasterizer_ComputeTangentSpaceNormals = _declare("MeshRasterizer_ComputeTangentSpaceNormals", u32, QUEUE,
                                                     ctypes.POINTER(Mesh), FLOATS, FLOATS, FLOATS, FLOATS,
                                                     ctypes.POINTER(TangentParameters), TABLE_P)
MeshRasterizer_RenderMeshWithTriplanarDisplacement = _declare(
    "MeshRasterizer_RenderMeshWithTriplanarDisplacement", u32, QUEUE, ctypes.POINTER(Mesh), FLOATS, FLOATS,
    ctypes.POINTER(Texture), ctypes.POINTER(TriplanarParameters), TABLE_P)
