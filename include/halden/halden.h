/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Halden: terrain-processing compute kernels behind a plain C interface.
 *
 * The application lists the usable devices (GetDevices), turns a device key
 * into a queue (CreateSyclQueue), calls one export per operation with host
 * arrays and a parameter record, and destroys the queue at the end. Every
 * operation runs on the queue's device and writes its results into the
 * caller's arrays before it returns. Results are bit-identical on every
 * device.
 *
 * Valid as C and as C++. C++ users see the records in their namespaces
 * (median_filter::Parameters, thermal_shaper::Parameters, halden::DeviceRecord,
 * halden::Callbacks).
 */
#ifndef HALDEN_HALDEN_H
#define HALDEN_HALDEN_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#if defined(_WIN32)
#  if defined(HALDEN_BUILDING)
#    define HALDEN_API __declspec(dllexport)
#  else
#    define HALDEN_API __declspec(dllimport)
#  endif
#else
#  define HALDEN_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
#  define HALDEN_NOEXCEPT noexcept
#  define HALDEN_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
extern "C" {
#else
#  define HALDEN_NOEXCEPT
#  define HALDEN_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* ------------------------------------------------------------------------ */
/* Status codes of the operation exports.                                    */

#define HALDEN_STATUS_OK 0u              /* ran, no asynchronous error reported */
#define HALDEN_STATUS_OUT_OF_MEMORY 2u   /* device memory pre-check (or an allocation) failed */
#define HALDEN_STATUS_DEVICE_ERROR 3u    /* an asynchronous device error or a runtime error was
                                            reported; the results are not to be trusted */

/* ------------------------------------------------------------------------ */
/* Device record (56 bytes).                                                  */
/*
 * name      the device's name, e.g. "AdaptiveCpp OpenMP host device"
 * type      device class: 1 CPU of the host back-end, 2 another CPU,
 *           3 integrated GPU, 4 discrete GPU, 5 accelerator
 * backend   the back-end's name: "Native" (OpenMP on the CPU) or "CUDA"
 * vendor    second identifying text ("NVIDIA" for CUDA devices)
 * driver    third identifying text (the driver version)
 * arch      fourth identifying text (e.g. "sm_90"; the CPU architecture for
 *           the host device)
 * flag1     cleared
 * flag2     set for devices of the host back-end (no architecture test)
 *
 * All strings are owned by the record and freed by FreeDevices or
 * FreeDeviceInfo; none of them contains '/'. Any string may be null.
 */
typedef struct halden_device_record {
    char* name;
    int64_t type;
    char* backend;
    char* vendor;
    char* driver;
    char* arch;
    uint8_t flag1;
    uint8_t flag2;
    uint8_t padding[6];
} halden_device_record;

HALDEN_STATIC_ASSERT(sizeof(halden_device_record) == 56, "device record is 56 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_device_record, type) == 8, "type at 8");
HALDEN_STATIC_ASSERT(offsetof(halden_device_record, backend) == 16, "backend at 16");
HALDEN_STATIC_ASSERT(offsetof(halden_device_record, vendor) == 24, "vendor at 24");
HALDEN_STATIC_ASSERT(offsetof(halden_device_record, driver) == 32, "driver at 32");
HALDEN_STATIC_ASSERT(offsetof(halden_device_record, arch) == 40, "arch at 40");
HALDEN_STATIC_ASSERT(offsetof(halden_device_record, flag1) == 48, "flag1 at 48");
HALDEN_STATIC_ASSERT(offsetof(halden_device_record, flag2) == 49, "flag2 at 49");

/* ------------------------------------------------------------------------ */
/* Callback table (64 bytes, eight slots).                                    */
/*
 * Given to CreateSyclQueue (copied into one process-wide table: the last
 * call wins) and, as the last argument, to operation exports (copied for the
 * call on every call). A null slot means the do-nothing default. An
 * operation called with a null table sends its information and error texts
 * to the process-wide table and calls nothing else. Message texts are valid
 * only during the call.
 *
 * Threads: an operation calls back only on the thread that called it, and
 * only through its own record (or, without one, the process-wide table's
 * text slots), never through another call's. Operations may run at the same
 * time on different queues from different threads: progress, cancel,
 * reserve, release, error texts and device errors stay with their own call
 * and queue. One queue must be used by one thread at a time, and must not be
 * destroyed while a call on it runs. GetDevices, GetDeviceInfo,
 * CreateSyclQueue and DestroySyclQueue may be called from any thread; they
 * report through the process-wide table, which CreateSyclQueue replaces.
 *
 * slot 0 debug     debug text
 * slot 1 progress  progress in percent; a nonzero return asks to cancel
 * slot 2 info      information text
 * slot 3 warning   warning text
 * slot 4 error     error text
 * slot 5 reserve   the operation is about to use this many bytes of device memory
 * slot 6 release   the operation has released the bytes it reserved
 * slot 7 cancel    polled by long operations; a nonzero return asks to cancel
 */
typedef void (*halden_text_fn)(const char* text);
typedef int32_t (*halden_progress_fn)(float percent);
typedef void (*halden_bytes_fn)(uint64_t bytes);
typedef int32_t (*halden_cancel_fn)(void);

typedef struct halden_callbacks {
    halden_text_fn debug;
    halden_progress_fn progress;
    halden_text_fn info;
    halden_text_fn warning;
    halden_text_fn error;
    halden_bytes_fn reserve;
    halden_bytes_fn release;
    halden_cancel_fn cancel;
} halden_callbacks;

HALDEN_STATIC_ASSERT(sizeof(halden_callbacks) == 64, "callback table is 64 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_callbacks, progress) == 8, "slot 1 at 8");
HALDEN_STATIC_ASSERT(offsetof(halden_callbacks, info) == 16, "slot 2 at 16");
HALDEN_STATIC_ASSERT(offsetof(halden_callbacks, error) == 32, "slot 4 at 32");
HALDEN_STATIC_ASSERT(offsetof(halden_callbacks, reserve) == 40, "slot 5 at 40");
HALDEN_STATIC_ASSERT(offsetof(halden_callbacks, release) == 48, "slot 6 at 48");
HALDEN_STATIC_ASSERT(offsetof(halden_callbacks, cancel) == 56, "slot 7 at 56");

/* The class word that a key carries for a record's type; "" for none. */
static inline const char* halden_class_word(int64_t type) {
    switch (type) {
        case 1: return "Cpu";
        case 2: return "Foreignzjaztx"; /* recognised by its hash only */
        case 3: return "GpuIntegrated";
        case 4: return "GpuDiscrete";
        case 5: return "Accelerator";
        default: return "";
    }
}

/*
 * Writes the key that selects a record's device, class word and strings
 * joined by '/', into key[capacity] like snprintf, and returns its length.
 *
 *   char key[256]; halden_device_key(&list[i], key, sizeof key);
 */
static inline int halden_device_key(const halden_device_record* record, char* key, size_t capacity) {
    return snprintf(key, capacity, "%s/%s/%s/%s/%s", halden_class_word(record->type),
                    record->backend ? record->backend : "", record->vendor ? record->vendor : "",
                    record->driver ? record->driver : "", record->arch ? record->arch : "");
}

/* Opaque queue handle: one in-order queue bound to one device. */
typedef struct halden_queue halden_queue;

/* ------------------------------------------------------------------------ */
/* Devices and queues.                                                        */

/*
 * Lists the usable devices: the host (OpenMP) device first, then CUDA
 * devices of sm_60 or newer with at least 1 GiB of memory. Writes the count
 * and an array owned by the caller, to be freed with FreeDevices. Sends
 * "Device scan started (AdaptiveCpp)" and "Device scan finished" through the
 * information slot of the process-wide table.
 *
 *   halden_device_record* list; uint32_t n;
 *   GetDevices(&list, &n); ... FreeDevices(list);
 */
HALDEN_API void GetDevices(halden_device_record** devices, uint32_t* count) HALDEN_NOEXCEPT;

/* Frees an array returned by GetDevices. Null is ignored. */
HALDEN_API void FreeDevices(halden_device_record* devices) HALDEN_NOEXCEPT;

/* Describes the device behind a queue; null (with an error text) on failure.
 * Free the record with FreeDeviceInfo. */
HALDEN_API halden_device_record* GetDeviceInfo(halden_queue* queue) HALDEN_NOEXCEPT;

/* Frees a record returned by GetDeviceInfo. Null is ignored. */
HALDEN_API void FreeDeviceInfo(halden_device_record* info) HALDEN_NOEXCEPT;

/*
 * Installs `callbacks` as the process-wide table and returns a queue on the
 * device named by `key`, or null when no device matches. A key is "cpu" (the
 * host device) or the class word and strings backend/vendor/driver/arch of a
 * listed record joined by '/', e.g. "GpuDiscrete/CUDA/NVIDIA/13.0/sm_90"; the
 * class words are "Cpu", "GpuIntegrated", "GpuDiscrete" and "Accelerator".
 * The standard error stream object (std::cerr) is pointed at the null device
 * on every call: the library's messages arrive only through the callbacks.
 *
 *   halden_queue* q = CreateSyclQueue("cpu", &callbacks);
 *   ... DestroySyclQueue(q);
 */
HALDEN_API halden_queue* CreateSyclQueue(const char* key, const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* Waits for the queue's work and frees it. Null is ignored. If waiting fails
 * the failure is reported and the queue is kept. */
HALDEN_API void DestroySyclQueue(halden_queue* queue) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Median filter.                                                             */
/*
 * size        side of the square grid in cells (any size of at least 1)
 * radius      radius of the circular window in cells, 1 to 8; larger values
 *             act as 8, 0 or negative (as int32) is rejected
 * iterations  number of passes; 0 leaves the grid unchanged
 * reserved    carried, not read
 *
 * Defaults worth starting from: radius 2, iterations 1.
 */
typedef struct halden_median_filter_parameters {
    uint32_t size;
    uint32_t radius;
    uint32_t iterations;
    uint32_t reserved;
} halden_median_filter_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_median_filter_parameters) == 16, "median filter record is 16 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_median_filter_parameters, radius) == 4, "radius at 4");
HALDEN_STATIC_ASSERT(offsetof(halden_median_filter_parameters, iterations) == 8, "iterations at 8");

/*
 * Smooths the size x size row-major grid in place: each cell becomes the
 * mean of the median and its two neighbours in sorted order of the values in
 * a rounded disc of the given radius (edge cells replicated), times
 * 0.333333f. Removes spikes and pits, keeps edges.
 *
 * Values must not exceed 1e8: each cell's values are sorted in a network of
 * 256 slots whose unused slots hold 1e8, so larger values (and +Inf) sort
 * behind the padding and come out as about 1e8, with no error. Scale such
 * grids down first. NaN cells give unspecified results around them.
 *
 * Always returns 0. Errors (null arguments, a bad radius, a device failure)
 * are reported through the error slot of the process-wide table, and the grid
 * is then left as it was.
 *
 *   halden_median_filter_parameters p = {1024, 3, 1, 0};
 *   MedianFilter(q, heights, &p);
 */
HALDEN_API uint32_t MedianFilter(halden_queue* queue, float* grid,
                                 const halden_median_filter_parameters* parameters) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Thermal shaper.                                                            */
/*
 * Reshapes a height field by slope- and curvature-driven lowering of cells on
 * every level of a Laplacian pyramid, coarse to fine, then blends the result
 * with the input.
 *
 * width, height  grid size in cells (at least 1 each, at most 2^31 - 1 cells)
 * height_scale   world height of one height unit (> 0). Raises the slopes the
 *                shaper sees (gradient scale = level width * height_scale /
 *                extent) and lowers the level count.
 * extent         world width of the whole grid (> 0). Larger values mean
 *                gentler slopes, so less material moves.
 * level_factor   scales the level count (> 0): the pyramid has
 *                ceil(log2(width * level_factor / height_scale)) levels (at
 *                least 1), so larger values reach larger features.
 * strength       blend with the input: 0 returns the input bit for bit, 1 the
 *                shaped field; values between mix, values past 1 exaggerate.
 * amount         lowering rate per pass; its sign picks the direction. Zero or
 *                positive works on the negated field, shaping valleys (their
 *                floors widen and fill); negative works on ridges and peaks,
 *                wearing them down. A larger magnitude also weights the finer
 *                levels more heavily.
 * reserved       carried, not read
 *
 * Defaults worth starting from, for heights in the same unit as one cell:
 * height_scale 1, extent = width, level_factor 0.125 (the coarsest level is
 * about 16 cells wide), strength 1, amount -0.5 (ridges) or 0.5 (valleys).
 */
typedef struct halden_thermal_shaper_parameters {
    int32_t width;
    int32_t height;
    float height_scale;
    float extent;
    float level_factor;
    float strength;
    float amount;
    uint32_t reserved;
} halden_thermal_shaper_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_thermal_shaper_parameters) == 32, "thermal shaper record is 32 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_thermal_shaper_parameters, height_scale) == 8, "height_scale at 8");
HALDEN_STATIC_ASSERT(offsetof(halden_thermal_shaper_parameters, extent) == 12, "extent at 12");
HALDEN_STATIC_ASSERT(offsetof(halden_thermal_shaper_parameters, level_factor) == 16, "level_factor at 16");
HALDEN_STATIC_ASSERT(offsetof(halden_thermal_shaper_parameters, strength) == 20, "strength at 20");
HALDEN_STATIC_ASSERT(offsetof(halden_thermal_shaper_parameters, amount) == 24, "amount at 24");

/*
 * Shapes the width x height row-major grid `heights` in place. `mask`, when
 * not null, is a grid of the same size whose value scales the lowering per
 * cell (0 keeps a cell, 1 shapes it fully). Needs about 16 bytes per cell of
 * device memory (21 with a mask).
 *
 * Returns 0 when done; 2 when the device lacks the memory (nothing is run);
 * 3 when the queue, the heights or the record is null, the record is invalid
 * (the heights are then left as they were), or a device error was reported.
 * A record is invalid when a field is out of range, when the pyramid would
 * need more than 64 levels, or when a level's slope scale, level width x
 * height_scale / extent, or its inverse is not finite and non-zero.
 * Errors are described through the error slot of `callbacks` (the
 * process-wide table when `callbacks` is null); slots 5 and 6 receive the
 * announced byte count.
 *
 *   halden_thermal_shaper_parameters p = {1024, 1024, 1.0f, 1024.0f, 0.125f, 1.0f, -0.5f, 0};
 *   uint32_t status = ThermalShaper_Process(q, heights, NULL, &p, &callbacks);
 */
HALDEN_API uint32_t ThermalShaper_Process(halden_queue* queue, float* heights, const float* mask,
                                          const halden_thermal_shaper_parameters* parameters,
                                          const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Thermal weathering.                                                        */
/*
 * Material on slopes steeper than the angle of repose slides to lower
 * neighbours until the slopes settle, over a pyramid of levels from coarse
 * to fine, so that long slopes settle in a few iterations.
 *
 * width, height   grid size in cells (at least 1 each, at most 2^31 - 1 cells)
 * cell_size       world width of one cell, > 0
 * height_scale    world height of one height unit, > 0
 * talus_angle     angle of repose in degrees, above 0 and below 90: steeper
 *                 slopes shed material
 * talus_noise     0 to 1: each cell's angle varies by up to this share of
 *                 the distance to 0 or 90 degrees, from a hashed noise of the
 *                 seed and the cell, so that settled slopes are not uniform
 * rate            share of the excess moved per iteration, above 0 and at
 *                 most 1
 * iterations      iterations per level, 0 to 100000
 * levels          pyramid levels, 1 to 64, or 0 for as many as halve the
 *                 shorter side down to at most 48 cells
 * burial_scale    world height of moved material at which a finer level's
 *                 relief is half restored where it sticks out of what was
 *                 laid down on it, > 0: larger keeps more fine detail
 * mask_strength   0 to 1: where the mask rises from a coarse level to the
 *                 finer one, that share of the loose material is released
 *                 (only with a mask)
 * seed            seed of the angle noise
 *
 * Defaults worth starting from: talus_angle 35, talus_noise 0.2, rate 0.5,
 * iterations 64, levels 0, burial_scale 1, mask_strength 1, seed 1.
 */
typedef struct halden_thermal_parameters {
    int32_t width;
    int32_t height;
    float cell_size;
    float height_scale;
    float talus_angle;
    float talus_noise;
    float rate;
    int32_t iterations;
    int32_t levels;
    float burial_scale;
    float mask_strength;
    uint32_t seed;
} halden_thermal_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_thermal_parameters) == 48, "thermal record is 48 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_thermal_parameters, cell_size) == 8, "cell_size at 8");
HALDEN_STATIC_ASSERT(offsetof(halden_thermal_parameters, talus_angle) == 16, "talus_angle at 16");
HALDEN_STATIC_ASSERT(offsetof(halden_thermal_parameters, iterations) == 28, "iterations at 28");
HALDEN_STATIC_ASSERT(offsetof(halden_thermal_parameters, burial_scale) == 36, "burial_scale at 36");
HALDEN_STATIC_ASSERT(offsetof(halden_thermal_parameters, seed) == 44, "seed at 44");

/*
 * Weathers the width x height row-major grid `heights` in place. In each
 * iteration every cell whose drop to a neighbour exceeds the talus height for
 * that neighbour's distance sends rate x its largest excess (at most half its
 * largest drop) to its lower neighbours in proportion to the drops; then
 * every cell takes what it receives, in a fixed order, so the result has the
 * same bits on every device and thread count. The borders are closed: the
 * total height is kept up to float rounding.
 *
 * `mask` (optional, 0 to 1) scales the effect per cell; `hardness`
 * (optional, 0 to 1) slows it: a cell of hardness 1 sends nothing.
 * `deposition` (optional, out) receives the thickness of loose material laid
 * down on each cell, in height units. Needs about 68 bytes per cell of device
 * memory.
 *
 * Progress goes to slot 1 of `callbacks` after every iteration; a nonzero
 * return from slot 1 or slot 7 cancels and leaves the grids unchanged.
 * Returns 0 when done; 2 when the device lacks the memory; 3 for a null
 * queue, heights or record, an invalid record (the heights are left
 * unchanged; the error text names the field), a cancel or a device error.
 *
 *   halden_thermal_parameters p = {1024, 1024, 1.0f, 1.0f, 35.0f, 0.2f, 0.5f, 64, 0, 1.0f, 1.0f, 1};
 *   uint32_t status = ThermalSimulation(q, heights, NULL, NULL, NULL, &p, &callbacks);
 */
HALDEN_API uint32_t ThermalSimulation(halden_queue* queue, float* heights, const float* mask, float* deposition,
                                      const float* hardness, const halden_thermal_parameters* parameters,
                                      const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Hydraulic erosion by droplets.                                             */
/*
 * Water droplets run downhill with inertia, take up sediment where their
 * capacity exceeds their load, lay it down where it does not, and
 * evaporate; run coarse to fine over a pyramid of levels.
 *
 * width, height    grid size in cells (at least 1 each, at most 2^31 - 1 cells)
 * cell_size        world width of one cell, > 0
 * height_scale     world height of one height unit, > 0
 * droplets         droplets per cell per round, above 0 and at most 16
 * rounds           rounds per level, 0 to 100000: each spawns its droplets at
 *                  hashed positions and runs them against the heights as the
 *                  round found them; the changes apply after the round
 * lifetime         world length a droplet may run, > 0 (the same on every
 *                  level: a coarse level's droplets take fewer, longer steps)
 * inertia          0 to below 1: how much of its direction a droplet keeps
 * capacity         sediment a droplet can carry per unit of slope, speed and
 *                  water, >= 0
 * min_slope        the slope capacity never drops below, >= 0
 * erosion_rate     share of the free capacity taken up per step, 0 to 1
 * deposition_rate  share of the excess load laid down per step, 0 to 1
 * evaporation      share of the water lost per step, 0 to below 1
 * gravity          speed gained per unit of drop, >= 0
 * brush_radius     radius in cells over which a step's erosion is spread,
 *                  0 to 8 (0: the droplet's cell alone)
 * flow_coupling    0 or 1: droplets lean towards the mean direction of the
 *                  water of the round before, so rivers form and persist
 * levels           pyramid levels, 1 to 64, or 0 for as many as halve the
 *                  shorter side down to about 48 cells
 * detail_scale     world depth of erosion at which a finer level keeps all
 *                  of its own relief where it sticks out of the sediment;
 *                  deeper erosion keeps less of it (down to a tenth), > 0
 * seed             seed of every random choice
 *
 * Defaults worth starting from: droplets 0.25, rounds 8, lifetime 64 x
 * cell_size, inertia 0.3, capacity 0.05, min_slope 0.01, erosion_rate 0.3,
 * deposition_rate 0.3, evaporation 0.02, gravity 4, brush_radius 3,
 * flow_coupling 1, levels 0, detail_scale 10 x height_scale, seed 1.
 */
typedef struct halden_erosion_parameters {
    int32_t width;
    int32_t height;
    float cell_size;
    float height_scale;
    float droplets;
    int32_t rounds;
    float lifetime;
    float inertia;
    float capacity;
    float min_slope;
    float erosion_rate;
    float deposition_rate;
    float evaporation;
    float gravity;
    float brush_radius;
    int32_t flow_coupling;
    int32_t levels;
    float detail_scale;
    uint32_t seed;
} halden_erosion_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_erosion_parameters) == 76, "erosion record is 76 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_erosion_parameters, droplets) == 16, "droplets at 16");
HALDEN_STATIC_ASSERT(offsetof(halden_erosion_parameters, capacity) == 32, "capacity at 32");
HALDEN_STATIC_ASSERT(offsetof(halden_erosion_parameters, brush_radius) == 56, "brush_radius at 56");
HALDEN_STATIC_ASSERT(offsetof(halden_erosion_parameters, detail_scale) == 68, "detail_scale at 68");
HALDEN_STATIC_ASSERT(offsetof(halden_erosion_parameters, seed) == 72, "seed at 72");

/*
 * Erodes the width x height row-major grid `heights` in place. Sediment is
 * counted in 64-bit fixed point (2^-24 height units), so what droplets take
 * up equals what they lay down plus what leaves the grid with them, exactly,
 * and the result has the same bits on every device and thread count.
 *
 * `rain` (optional, 0 to 1): the chance that a droplet spawned on a cell
 * runs. `hardness` (optional, 0 to 1) scales erosion per cell: ground of
 * hardness 1 is never cut. Optional outputs, in height units or 0 to 1:
 * `erosion` the depth removed, `deposition` the thickness laid down,
 * `discharge` a water-flow map, 0 where no water ran and towards 1 along
 * rivers. Needs about 140 bytes per cell of device memory.
 *
 * Progress goes to slot 1 of `callbacks` after every round; a nonzero return
 * from slot 1 or slot 7 cancels and leaves the grids unchanged. Returns 0
 * when done; 2 when the device lacks the memory; 3 for a null queue, heights
 * or record, an invalid record (the heights are left unchanged; the error
 * text names the field), a fixed-point overflow (heights beyond about 2^37
 * units), a cancel or a device error.
 */
HALDEN_API uint32_t ParallelErosionSimulation(halden_queue* queue, float* heights, const float* rain,
                                              const float* hardness, float* erosion, float* deposition,
                                              float* discharge, const halden_erosion_parameters* parameters,
                                              const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Flow simulation.                                                           */
/*
 * width, height  grid size in cells (at least 1 each, at most 2^31 - 1 cells)
 * length         how far a long trace may run, as a fraction of the width: a
 *                long trace takes up to width * length + 2 steps (>= 0; the
 *                step count may not pass 2^24). 0 gives one visit per long
 *                trace, 1 lets rivers cross the whole map.
 * accumulation   weight of the linear part of the map: every visit adds
 *                accumulation * 1e-5 to it (finite). 0 keeps only the
 *                saturating intensity, which stays below about 0.03125 per
 *                batch; larger values let big rivers stand out.
 * seed           seed of every random choice (particle jitter, shuffles,
 *                turns); the same seed gives the same map on every device.
 *
 * Defaults worth starting from: length 0.5, accumulation 1, seed 1.
 */
typedef struct halden_flow_parameters {
    int32_t width;
    int32_t height;
    float length;
    float accumulation;
    uint32_t seed;
} halden_flow_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_flow_parameters) == 20, "flow record is 20 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_flow_parameters, length) == 8, "length at 8");
HALDEN_STATIC_ASSERT(offsetof(halden_flow_parameters, seed) == 16, "seed at 16");

/* `no_mask` value of FlowSimulation: every cell emits a particle. */
#define HALDEN_FLOW_NO_MASK 1u

/*
 * Computes a flow map of the width x height row-major grid `heights` (only
 * read): the pits are filled, one particle per cell runs downhill with some
 * inertia and randomness, and the visits are folded into a saturating
 * intensity plus a linear accumulation. `flow` holds width * height floats:
 * unless `no_mask` is HALDEN_FLOW_NO_MASK it is first read as the seeding mask
 * (a cell emits with the probability of its value, 0 to 1); on return it holds
 * the flow map. Needs about 28 bytes per cell of device memory.
 *
 * Progress goes to slot 1 of `callbacks` in percent; a nonzero return from
 * slot 1 or slot 7 cancels, and `flow` then holds the map of the particles
 * that ran. Returns 0 when done; 2 when the device lacks the memory; 3 for
 * null arrays or record, an invalid record, a cancel or a device error.
 *
 *   halden_flow_parameters p = {1024, 1024, 0.5f, 1.0f, 1};
 *   uint32_t status = FlowSimulation(q, HALDEN_FLOW_NO_MASK, heights, map, &p, &callbacks);
 */
HALDEN_API uint32_t FlowSimulation(halden_queue* queue, uint64_t no_mask, const float* heights, float* flow,
                                   const halden_flow_parameters* parameters,
                                   const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Shading.                                                                   */
/*
 * width, height          grid size in cells. Shadows and traced sky
 *                        visibility take the grid as square (width used for
 *                        both axes); a non-square grid with either enabled
 *                        is rejected.
 * terrain_size           world width of the grid (cell size = terrain_size /
 *                        width), > 0
 * height_scale           world height of one height unit, > 0
 * sun_direction          unit vector towards the sun: x along columns, y along
 *                        rows, z up (used as given by the diffuse term)
 * shadow_samples         sun-disc sampling: n >= 0 rings (3n^2 + 3n + 1
 *                        samples; 0 is the centre alone), -4 or -8 fixed
 *                        sub-cell patterns on the sun direction, other
 *                        negative -n: n samples on the sun direction. More
 *                        samples give softer, smoother shadow edges.
 * sun_size               apparent sun diameter in degrees (0: a point sun,
 *                        hard shadows); about 0.53 for the real sun
 * ao_mode                0 traces sky visibility; otherwise the faster
 *                        hybrid estimate is used
 * ao_directions          sky directions traced when ao_mode is 0
 * hybrid_ao_directions   sky directions of the hybrid estimate
 * light_scale            common factor of sun and sky light
 * sun_strength, sky_strength   factors of the sun and sky light
 * sun_color, sky_color   RGB
 * exposure               final factor of the colour when no albedo is given
 * sun_enabled            direct light on (diffuse and shadow are written)
 * sky_enabled            sky light on
 * shadows_enabled        trace sun shadows (else shadow counts as 1)
 * ao_enabled             use sky visibility (else it counts as 1)
 * ao_from_caller         use the caller's ao grid as given, trace nothing
 * reserved...            carried, not read
 *
 * Defaults worth starting from: sun_direction normalise(1, 1, 1),
 * shadow_samples 1, sun_size 0.53, ao_mode 0, ao_directions 32,
 * hybrid_ao_directions 32, light_scale 1, sun_strength 1, sky_strength 0.4,
 * sun_color (1, 0.95, 0.85), sky_color (0.6, 0.7, 1), exposure 1, every
 * switch on but ao_from_caller.
 */
typedef struct halden_lighting_parameters {
    int32_t width;
    int32_t height;
    float terrain_size;
    float height_scale;
    float sun_direction[3];
    int32_t shadow_samples;
    float sun_size;
    int32_t ao_mode;
    int32_t ao_directions;
    int32_t hybrid_ao_directions;
    uint32_t reserved48;
    float light_scale;
    float sun_strength;
    float sky_strength;
    float sun_color[3];
    float sky_color[3];
    float exposure;
    uint8_t reserved92[20];
    uint8_t sun_enabled;
    uint8_t sky_enabled;
    uint8_t shadows_enabled;
    uint8_t ao_enabled;
    uint8_t ao_from_caller;
    uint8_t padding[3];
} halden_lighting_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_lighting_parameters) == 120, "lighting record is 120 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_lighting_parameters, shadow_samples) == 28, "shadow_samples at 28");
HALDEN_STATIC_ASSERT(offsetof(halden_lighting_parameters, light_scale) == 52, "light_scale at 52");
HALDEN_STATIC_ASSERT(offsetof(halden_lighting_parameters, sky_color) == 76, "sky_color at 76");
HALDEN_STATIC_ASSERT(offsetof(halden_lighting_parameters, exposure) == 88, "exposure at 88");
HALDEN_STATIC_ASSERT(offsetof(halden_lighting_parameters, sun_enabled) == 112, "switches at 112");
HALDEN_STATIC_ASSERT(offsetof(halden_lighting_parameters, ao_from_caller) == 116, "ao_from_caller at 116");

/*
 * Lights the width x height row-major grid `heights` (only read). Writes,
 * per cell: `diffuse` (max(0, n . sun_direction)) and `shadow` (sun
 * visibility, 0 to 1) when the sun is on, `ao` (sky visibility) when sky
 * visibility is computed, and the colour `out_r`, `out_g`, `out_b`:
 * (sun colour x diffuse x shadow + sky colour x ao) times the albedo when all
 * three albedo grids are given, else times exposure. Output pointers may be
 * null (that output is not returned); outputs a switch turns off keep their
 * contents; with ao_from_caller `ao` is an input. Needs about 72 bytes per
 * cell of device memory.
 *
 * Sky directions (traced and hybrid) are the upper-hemisphere vertices of a
 * subdivided icosahedron, coarser ones first: 4, 17, 73, 305, 1249 and 5057
 * of them after 0 to 5 subdivisions; the first ao_directions are used. The
 * hybrid path sweeps the sky over a half-size grid and carries the mean open
 * direction to each cell: about a quarter of the traced path's work.
 *
 * Returns 0 when done; 2 when the device lacks the memory; 3 for a null
 * queue, heights or record, an invalid record (including a non-square grid
 * with shadows or sky visibility on, and light factors, colours and exposure
 * whose colour would overflow a float), a cancel (slot 7, asked before the
 * colour is composed; nothing is written then) or a device error.
 */
HALDEN_API uint32_t Shade(halden_queue* queue, const float* heights, float* diffuse, float* shadow, float* ao,
                          float* out_r, float* out_g, float* out_b, const float* albedo_r, const float* albedo_g,
                          const float* albedo_b, const halden_lighting_parameters* parameters,
                          const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Mesh rasterisation.                                                        */

/* A triangle mesh in host memory: vertices as packed (x, y, z) floats,
 * triangles as packed triples of vertex indices. */
typedef struct halden_mesh {
    const float* vertices;
    uint32_t vertex_count;
    uint32_t reserved0;
    const uint32_t* triangles;
    uint32_t triangle_count;
    uint32_t reserved1;
} halden_mesh;

HALDEN_STATIC_ASSERT(sizeof(halden_mesh) == 32, "mesh record is 32 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_mesh, triangles) == 16, "triangles at 16");

/*
 * width, height   output grid size in cells (at least 1 each, at most 2^31 - 1
 *                 cells, 16384 on a side); doubled in place when supersample
 *                 is set
 * centre          subtracted from every vertex first
 * scale           then every component is multiplied by it
 * offset          and offset[0], offset[1], offset[2] added to x, y, z:
 *                   x' = scale (x - centre.x) + offset[0]   (grid column)
 *                   y' = scale (y - centre.y) + offset[1]   (grid row)
 *                   z' = (scale (z - centre.z) + offset[2]) / depth_divisor
 * depth_divisor   divides the height (not 0)
 * shift           finally subtracted from x', y' and z'. Cell (row r,
 *                 column c) has its centre at x' = c + 0.5, y' = r + 0.5.
 * supersample     nonzero: render at twice the width and height (grid
 *                 coordinates doubled) and reduce each 2 x 2 block, heights
 *                 by their maximum, ids by the id of the maximum's cell
 * reserved        carried, not read
 *
 * To fit a mesh whose x and y span [x0, x1] x [y0, y1] into a W x H grid:
 * centre (x0, y0, 0), scale min(W / (x1 - x0), H / (y1 - y0)), offset 0,
 * depth_divisor 1 (heights then scale with the grid), shift 0.
 */
typedef struct halden_mesh_rasterizer_parameters {
    int32_t width;
    int32_t height;
    float centre[3];
    float scale;
    float offset[3];
    float depth_divisor;
    float shift;
    uint8_t reserved[10];
    uint8_t supersample;
    uint8_t padding;
} halden_mesh_rasterizer_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_mesh_rasterizer_parameters) == 56, "mesh rasterizer record is 56 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_mesh_rasterizer_parameters, scale) == 20, "scale at 20");
HALDEN_STATIC_ASSERT(offsetof(halden_mesh_rasterizer_parameters, shift) == 40, "shift at 40");
HALDEN_STATIC_ASSERT(offsetof(halden_mesh_rasterizer_parameters, supersample) == 54, "supersample at 54");

/*
 * Renders the mesh into `heights` (width x height floats): every cell gets
 * the greatest height of the triangles covering its centre, or -FLT_MAX when
 * none does. Triangles wound one way only are drawn: those with
 * (x1 - x0)(y2 - y0) - (x2 - x0)(y1 - y0) > 0 in grid coordinates are culled
 * (with x to the right and y down the rows, their corners run clockwise in
 * a picture whose first row is at the top). Each triangle is enlarged by 0.5 % about its centroid, so shared
 * edges leave no gaps. `triangle_ids` (optional, same size) receives a
 * random value in [0, 1) fixed per triangle index for the winning triangle,
 * or -1 where none covers; when two triangles give a cell the same height
 * either may be named. Triangles with an index past the vertex array are
 * skipped; triangles covering 2^28 cells or more are left out.
 *
 * Returns 0 when done; 2 when the device lacks the memory; 3 for null
 * arguments, an invalid record, a mesh of more than 2^31 - 1 fragments, a
 * cancel (slot 7) or a device error; the grids are then left as they were.
 */
HALDEN_API uint32_t MeshRasterizer_RenderMesh(halden_queue* queue, const halden_mesh* mesh, float* heights,
                                              float* triangle_ids, halden_mesh_rasterizer_parameters* parameters,
                                              const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Fast blur.                                                                 */
/*
 * Blurs the size x size row-major grid in place with an almost-Gaussian
 * filter: two running-sum box passes along the rows and two along the
 * columns. Each output of a pass is (f s[j-r-1] + s[j-r] + ... + s[j+r] +
 * f s[j+r+1]) / (2 radius + 1) with r = trunc(radius), f = radius - r,
 * edge cells replicated: the weights sum to one, so a constant grid stays
 * constant and outputs stay within the input's range (up to rounding).
 * radius 12 is a 25-wide box per pass; larger radii blur more, at the same
 * cost. Needs 12 bytes per cell of device memory.
 *
 * Returns 0 when done; 2 when the device lacks the memory; 3 for a null
 * queue or grid, a size outside [1, 46340], a radius outside (0, 16777216]
 * (past that a float radius has no fraction and only the edge cells count),
 * or a device error; the grid is then left as it was.
 */
HALDEN_API uint32_t Blur(halden_queue* queue, float* grid, int32_t size, float radius,
                         const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Stamp instancing.                                                          */
/*
 * Stamps are small height grids (rocks, craters, mesas, dunes) kept in one
 * float atlas; a table gives each stamp's size and where its texels start.
 * A stamp's texels are row-major, width per row, and need not be packed.
 */
typedef struct halden_stamp_entry {
    uint32_t width;  /* texels per row, 1 to 8192 */
    uint32_t height; /* rows, 1 to 8192 */
    uint64_t offset; /* index of the stamp's first texel in the atlas */
} halden_stamp_entry;

HALDEN_STATIC_ASSERT(sizeof(halden_stamp_entry) == 16, "stamp entry is 16 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_stamp_entry, offset) == 8, "offset at 8");

/*
 * atlas       every stamp's texels (finite values), read only
 * atlas_size  floats in the atlas: every stamp must lie inside it
 * entries     one entry per stamp
 * count       stamps, 1 to 65536
 * reserved    carried, not read
 */
typedef struct halden_stamps {
    const float* atlas;
    uint64_t atlas_size;
    const halden_stamp_entry* entries;
    uint32_t count;
    uint32_t reserved;
} halden_stamps;

HALDEN_STATIC_ASSERT(sizeof(halden_stamps) == 32, "stamps record is 32 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_stamps, atlas_size) == 8, "atlas_size at 8");
HALDEN_STATIC_ASSERT(offsetof(halden_stamps, entries) == 16, "entries at 16");
HALDEN_STATIC_ASSERT(offsetof(halden_stamps, count) == 24, "count at 24");

/*
 * One placed copy of a stamp.
 *
 * x, y          centre, in cells along the columns and down the rows; cell
 *               (row r, column c) has its centre at (c + 0.5, r + 0.5)
 * scale         cells per stamp texel (> 0): the copy covers width x scale
 *               by height x scale cells
 * rotation      degrees (finite), turning the stamp clockwise as seen with
 *               the grid's first row at the top
 * cos_rotation, sin_rotation
 *               the rotation's cosine and sine, written by the placement so
 *               that an application can draw the footprint; for instances
 *               the caller passes in they are worked out again from
 *               `rotation` and the caller's values are not read
 * height        factor of the stamp's texels (finite; negative turns a
 *               mound into a pit)
 * stamp         index into the stamp table
 */
typedef struct halden_stamp_instance {
    float x;
    float y;
    float scale;
    float rotation;
    float cos_rotation;
    float sin_rotation;
    float height;
    uint32_t stamp;
} halden_stamp_instance;

HALDEN_STATIC_ASSERT(sizeof(halden_stamp_instance) == 32, "stamp instance is 32 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_stamp_instance, rotation) == 12, "rotation at 12");
HALDEN_STATIC_ASSERT(offsetof(halden_stamp_instance, height) == 24, "height at 24");
HALDEN_STATIC_ASSERT(offsetof(halden_stamp_instance, stamp) == 28, "stamp at 28");

/* height_mode: where a stamp's heights are measured from. */
#define HALDEN_STAMP_ABSOLUTE 0 /* from 0 */
#define HALDEN_STAMP_RELATIVE 1 /* from the terrain's height in the cell under the centre */

/* blend: how a copy's height p (height x texel, plus the base of height_mode)
 * meets the terrain's t, with weight a = opacity x edge falloff. */
#define HALDEN_STAMP_REPLACE 0    /* t + a (p - t), exactly p where a is 1 */
#define HALDEN_STAMP_ADD 1        /* t + a height texel (no base) */
#define HALDEN_STAMP_SUBTRACT 2   /* t - a height texel (no base) */
#define HALDEN_STAMP_MAX 3        /* towards max(t, p) by a */
#define HALDEN_STAMP_MIN 4        /* towards min(t, p) by a */
#define HALDEN_STAMP_SMOOTH_MAX 5 /* towards a max rounded over `smoothness` */
#define HALDEN_STAMP_SMOOTH_MIN 6 /* towards a min rounded over `smoothness` */
#define HALDEN_STAMP_MULTIPLY 7   /* t x (1 + a (height texel - 1)) (no base) */

/* filter: how a stamp is sampled between its texels. */
#define HALDEN_STAMP_BILINEAR 0
#define HALDEN_STAMP_BICUBIC 1 /* Catmull-Rom: sharper, may overshoot the texels' range */

/*
 * width, height   grid size in cells (at least 1 each, at most 2^31 - 1 cells)
 * seed            seed of every random choice of the placement
 * count           instances to place, 1 to 2^24; also the capacity of the
 *                 caller's instance array
 * spacing         0: centres drawn uniformly over the grid, up to 64 x count
 *                 candidates; > 0: a Poisson disk (Bridson's method) over
 *                 the whole grid, points at least this many cells apart,
 *                 taken in a seeded random order until `count` are placed.
 *                 The disk's lookup grid (cells of spacing / sqrt 2) may
 *                 have at most 2^24 cells; its cost grows with the grid's
 *                 area over the spacing squared.
 * scale_min, scale_max        range of the scale (cells per texel, > 0)
 * rotation_min, rotation_max  range of the rotation in degrees
 * height_min, height_max      range of the height factor
 * height_mode     HALDEN_STAMP_ABSOLUTE or HALDEN_STAMP_RELATIVE
 * blend           one of HALDEN_STAMP_REPLACE ... HALDEN_STAMP_MULTIPLY
 * opacity         0 to 1: weight of every copy
 * smoothness      width in height units of the smooth max and min's rounding
 *                 (> 0 for those blends; read by no other)
 * falloff         0 to 1: share of the way from a stamp's edge to its centre
 *                 over which its weight rises from 0 (smoothly) to 1;
 *                 0 gives hard edges
 * filter          HALDEN_STAMP_BILINEAR or HALDEN_STAMP_BICUBIC
 * slope_min, slope_max          placement only where the terrain's slope
 *                 under the centre (height units per cell, central
 *                 differences) lies in this range; infinities allowed
 * elevation_min, elevation_max  likewise for the terrain's height there
 * reserved        carried, not read
 *
 * The placement fields (seed to height_max, slope and elevation limits) are
 * read only when the call places instances. Each range needs min <= max; a
 * range's value is min + u (max - min) for a uniform u in [0, 1).
 *
 * Defaults worth starting from: count 100, spacing 0, scale 0.5 to 2,
 * rotation 0 to 360, height 1 to 1, relative heights, blend max, opacity 1,
 * smoothness 1, falloff 0.25, bilinear, no slope or elevation limits
 * (-INFINITY to INFINITY).
 */
typedef struct halden_stamp_parameters {
    int32_t width;
    int32_t height;
    uint32_t seed;
    uint32_t count;
    float spacing;
    float scale_min;
    float scale_max;
    float rotation_min;
    float rotation_max;
    float height_min;
    float height_max;
    int32_t height_mode;
    int32_t blend;
    float opacity;
    float smoothness;
    float falloff;
    int32_t filter;
    float slope_min;
    float slope_max;
    float elevation_min;
    float elevation_max;
    uint32_t reserved;
} halden_stamp_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_stamp_parameters) == 88, "stamp record is 88 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_stamp_parameters, spacing) == 16, "spacing at 16");
HALDEN_STATIC_ASSERT(offsetof(halden_stamp_parameters, height_mode) == 44, "height_mode at 44");
HALDEN_STATIC_ASSERT(offsetof(halden_stamp_parameters, opacity) == 52, "opacity at 52");
HALDEN_STATIC_ASSERT(offsetof(halden_stamp_parameters, filter) == 64, "filter at 64");
HALDEN_STATIC_ASSERT(offsetof(halden_stamp_parameters, slope_min) == 68, "slope_min at 68");
HALDEN_STATIC_ASSERT(offsetof(halden_stamp_parameters, elevation_max) == 80, "elevation_max at 80");

/*
 * Blends copies of the stamps into the width x height row-major grid
 * `heights`, in place, in instance order: every cell takes the copies that
 * cover its centre one after another. A copy is sampled from the level of
 * its stamp's mip pyramid (magic-kernel halvings) whose texels come closest
 * to a cell without being larger, so small copies of large stamps do not
 * alias.
 *
 * Instances: when `instance_count` is not null and *instance_count is not
 * zero, the first *instance_count records of `instances` (at most 2^24) are
 * the copies, used as given; the caller's records are not written. Otherwise
 * the library places parameters->count copies from the seed, on the host,
 * the same on every device: candidate centres (uniform, or Poisson-disk with
 * `spacing`) are kept with the probability of `density` (optional, 0 to 1
 * per cell, of the heights' size; the cell under the centre counts) where
 * the slope and elevation limits allow; then each copy draws its stamp,
 * scale, rotation and height. When `instances` is
 * not null it must hold parameters->count records: the placed copies are
 * written there in order, so that an application can show them, edit them
 * and pass them back; their number goes to *instance_count (when not null).
 *
 * `instance_ids` (optional, out, width x height floats) receives for each
 * cell the index of the last copy that blended into it (for max and min:
 * the last whose height was taken), or -1 where none did.
 *
 * Needs about 8 bytes per cell, 6 per atlas texel and 112 per copy of
 * device memory. Returns 0 when done; 2 when the device lacks the memory; 3
 * for null arguments, an invalid record, stamp table or instance (the error
 * text names the field), or a device error. Nothing is written to the
 * caller's arrays unless the call returns 0.
 *
 *   uint32_t n = 0;
 *   StampInstancer_Populate(q, heights, &stamps, NULL, placed, &n, NULL, &p, &callbacks);
 */
HALDEN_API uint32_t StampInstancer_Populate(halden_queue* queue, float* heights, const halden_stamps* stamps,
                                            const float* density, halden_stamp_instance* instances,
                                            uint32_t* instance_count, float* instance_ids,
                                            const halden_stamp_parameters* parameters,
                                            const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Debris simulation.                                                         */
/*
 * Rocks break off slopes steeper than the source slope, fall, bounce and
 * roll down the terrain, and come to rest as scree and boulders, which are
 * rendered into the heights.
 *
 * width, height   grid size in cells (at least 1 each, at most 2^31 - 1 cells)
 * cell_size       world width of one cell, > 0
 * height_scale    world height of one height unit, > 0
 * seed            seed of every random choice
 * density         expected rocks per source cell of full weight, 0 to 16
 * size_min        smallest rock radius, world units, > 0
 * size_max        largest rock radius, world units, >= size_min and at most
 *                 64 cells
 * size_exponent   radii follow a power law of density r^-size_exponent
 *                 between the two, 0 (uniform) to 8: larger values give more
 *                 small rocks (scree) and few boulders
 * source_slope    degrees, above 0 and below 90: steeper cells shed rocks
 * friction_angle  degrees, above 0 and below 90: rolling friction is its
 *                 tangent, and rocks rest only on gentler slopes, so runouts
 *                 end about where a line at this angle below the source meets
 *                 the ground
 * restitution     0 to below 1: share of the normal speed kept in a bounce
 * max_steps       time steps a rock may take, 1 to 100000 (a step is a fifth
 *                 of sqrt(cell_size / 9.81) seconds); a rock still moving
 *                 then stays where it is
 * mode            HALDEN_DEBRIS_SYNCHRONOUS: every rock runs on the input
 *                 terrain, independently; HALDEN_DEBRIS_ASYNCHRONOUS: the
 *                 rocks run in `batches`, each rendered before the next runs,
 *                 so that later rocks pile up on earlier ones into cones
 * batches         1 to 1024 (asynchronous mode; rock k is in batch k mod
 *                 batches)
 * shape           HALDEN_DEBRIS_SHARP: faceted, the lowest of `facets`
 *                 random planes; HALDEN_DEBRIS_ROUNDED: superellipsoid caps
 * facets          planes of a sharp rock, 4 to 32
 * roundness       0 to 1: rounded rocks go from boxy (0) to ellipsoidal (1)
 * embedding       0 to below 1: share of a rock's height below the ground
 *                 (0.5 sits its widest outline on the ground; less perches
 *                 it, with steep sides)
 * warp_amplitude  cells the warp noise's domain is displaced by, 0 to 10000
 * warp_frequency  features of the warp noise per cell, above 0 and at most 1
 *
 * Defaults worth starting from: density 0.5, size_min 0.5 x cell_size,
 * size_max 3 x cell_size, size_exponent 2.5, source_slope 40,
 * friction_angle 32, restitution 0.3, max_steps 4000, asynchronous with 8
 * batches, sharp with 7 facets, roundness 0.5, embedding 0.4,
 * warp_amplitude 8, warp_frequency 0.02, seed 1.
 */
typedef enum halden_debris_mode {
    HALDEN_DEBRIS_SYNCHRONOUS = 0,
    HALDEN_DEBRIS_ASYNCHRONOUS = 1
} halden_debris_mode;

typedef enum halden_debris_shape {
    HALDEN_DEBRIS_SHARP = 0,
    HALDEN_DEBRIS_ROUNDED = 1
} halden_debris_shape;

typedef struct halden_debris_parameters {
    int32_t width;
    int32_t height;
    float cell_size;
    float height_scale;
    uint32_t seed;
    float density;
    float size_min;
    float size_max;
    float size_exponent;
    float source_slope;
    float friction_angle;
    float restitution;
    int32_t max_steps;
    int32_t mode;
    int32_t batches;
    int32_t shape;
    int32_t facets;
    float roundness;
    float embedding;
    float warp_amplitude;
    float warp_frequency;
} halden_debris_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_debris_parameters) == 84, "debris record is 84 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_debris_parameters, seed) == 16, "seed at 16");
HALDEN_STATIC_ASSERT(offsetof(halden_debris_parameters, size_exponent) == 32, "size_exponent at 32");
HALDEN_STATIC_ASSERT(offsetof(halden_debris_parameters, max_steps) == 48, "max_steps at 48");
HALDEN_STATIC_ASSERT(offsetof(halden_debris_parameters, facets) == 64, "facets at 64");
HALDEN_STATIC_ASSERT(offsetof(halden_debris_parameters, warp_frequency) == 80, "warp_frequency at 80");

/*
 * Runs the debris over the width x height row-major grid `heights` and
 * writes the terrain with the rocks laid on it back into it: no cell ends
 * lower than it was. The result has the same bits on every device and thread
 * count, whatever order the rocks run in.
 *
 * `sources` (optional, 0 to 1): weight of each cell as a source (times the
 * warp's modulation); without it every steep cell is a full source.
 * `debris` (optional, out): thickness of rock laid on each cell, in height
 * units. `rock_ids` (optional, out): the id of the rock that tops each cell,
 * as a float, or -1 where none does; ids number the rocks in row order of
 * their source cells, at most 2^24 rocks (later ones are dropped).
 * `warp` (optional, -1 to 1, clamped): a modulation field used instead of
 * the built-in warp noise; a source's weight is scaled by
 * clamp(1 + 2 warp, 0, 1), so none breaks off at -0.5 and below, and a rock's
 * outline over a cell is stretched by 1 / (1 - 0.3 warp), from 0.77 at -1 to
 * 1.43 at 1. A grid of zeros gives unmodulated sources and outlines.
 *
 * Always returns 0. Errors (null queue, heights or record, an invalid
 * record, a device failure) are reported through the error slot of the
 * process-wide table, naming the field, and the grids are then left as they
 * were.
 *
 *   halden_debris_parameters p = {1024, 1024, 1.0f, 1.0f, 1, 0.5f, 0.5f, 3.0f, 2.5f, 40.0f, 32.0f,
 *                                 0.3f, 4000, HALDEN_DEBRIS_ASYNCHRONOUS, 8, HALDEN_DEBRIS_SHARP, 7,
 *                                 0.5f, 0.4f, 8.0f, 0.02f};
 *   DebrisSimulation(q, heights, NULL, NULL, NULL, NULL, &p);
 */
HALDEN_API uint32_t DebrisSimulation(halden_queue* queue, float* heights, const float* sources, float* debris,
                                     float* rock_ids, const float* warp,
                                     const halden_debris_parameters* parameters) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* 3-D cellular noise.                                                        */
/*
 * Feature points scattered one per cell of a 3-D lattice, and per grid cell
 * a function of the distances to the nearest of them, sampled on a slice of
 * that space: x along the columns, y along the rows and z either one
 * constant or a per-cell grid (the heights, so that the cells follow the
 * terrain). Distances are in lattice units: neighbouring features lie about
 * one apart.
 */
typedef enum halden_cellular3d_metric {
    HALDEN_CELLULAR3D_EUCLIDEAN = 0,
    HALDEN_CELLULAR3D_SQUARED = 1,   /* squared Euclidean */
    HALDEN_CELLULAR3D_MANHATTAN = 2, /* |dx| + |dy| + |dz| */
    HALDEN_CELLULAR3D_CHEBYSHEV = 3, /* max(|dx|, |dy|, |dz|) */
    HALDEN_CELLULAR3D_MINKOWSKI = 4  /* (|dx|^e + |dy|^e + |dz|^e)^(1/e) */
} halden_cellular3d_metric;

typedef enum halden_cellular3d_result {
    HALDEN_CELLULAR3D_F1 = 0,           /* distance to the nearest feature */
    HALDEN_CELLULAR3D_F2 = 1,           /* distance to the second nearest */
    HALDEN_CELLULAR3D_F2_MINUS_F1 = 2,  /* cracks: 0 on the cells' borders */
    HALDEN_CELLULAR3D_F1_TIMES_F2 = 3,
    HALDEN_CELLULAR3D_CELL_VALUE = 4,   /* a value in [0, 1) fixed per feature: flat cells */
    HALDEN_CELLULAR3D_EDGE = 5,         /* Euclidean distance to the nearest cell border */
    HALDEN_CELLULAR3D_SMOOTH_F1 = 6     /* F1 with rounded creases (see smoothness) */
} halden_cellular3d_result;

/*
 * width, height  grid size in cells (at least 1 each, at most 2^31 - 1 cells)
 * frequency      features across the grid's width in the first octave, > 0
 * z              third coordinate of every cell, in grid cells, when no z
 *                grid is given
 * z_scale        grid cells per unit of z (of the record's and of the grid's),
 *                finite: 0 gives one flat slice
 * seed           seed of the feature points; each octave takes its own stream
 * jitter         0 to 1: how far the features stray from their lattice
 *                cells' centres (0: a regular lattice, 1: anywhere in the cell)
 * metric         a halden_cellular3d_metric
 * exponent       Minkowski exponent, 1 to 64 (only read for that metric)
 * result         a halden_cellular3d_result; EDGE takes the Euclidean metric
 * smoothness     SMOOTH_F1's rounding width in lattice units, 1e-6 to 0.125
 *                (only read for that result): F1 - s log2(sum of
 *                2^-((d - F1) / s)) over the features
 * octaves        1 to 16: octave k has frequency x lacunarity^k and
 *                amplitude gain^k, and the octaves are summed
 * lacunarity     above 0 and at most 16; a whole number with a period
 * gain           -16 to 16
 * period         0, or the tiling period in features along x and y (1 to
 *                2^24): the lattice wraps, so the result repeats every
 *                period x width / frequency cells, which must be a whole
 *                number; z does not tile
 * scale, offset  the result is octave sum x scale + offset (finite)
 * reserved       carried, not read
 *
 * frequency x lacunarity^(octaves - 1), and the period times it, may not
 * pass 2^24, nor may |z x z_scale| in lattice units pass 2^30.
 *
 * Defaults worth starting from: frequency 16, z 0, z_scale 1, seed 1,
 * jitter 1, Euclidean, F1, exponent 3, smoothness 0.05, octaves 1,
 * lacunarity 2, gain 0.5, period 0, scale 1, offset 0.
 */
typedef struct halden_cellular3d_parameters {
    int32_t width;
    int32_t height;
    float frequency;
    float z;
    float z_scale;
    uint32_t seed;
    float jitter;
    int32_t metric;
    float exponent;
    int32_t result;
    float smoothness;
    int32_t octaves;
    float lacunarity;
    float gain;
    int32_t period;
    float scale;
    float offset;
    uint32_t reserved;
} halden_cellular3d_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_cellular3d_parameters) == 72, "cellular noise record is 72 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_cellular3d_parameters, frequency) == 8, "frequency at 8");
HALDEN_STATIC_ASSERT(offsetof(halden_cellular3d_parameters, seed) == 20, "seed at 20");
HALDEN_STATIC_ASSERT(offsetof(halden_cellular3d_parameters, metric) == 28, "metric at 28");
HALDEN_STATIC_ASSERT(offsetof(halden_cellular3d_parameters, result) == 36, "result at 36");
HALDEN_STATIC_ASSERT(offsetof(halden_cellular3d_parameters, octaves) == 44, "octaves at 44");
HALDEN_STATIC_ASSERT(offsetof(halden_cellular3d_parameters, period) == 56, "period at 56");
HALDEN_STATIC_ASSERT(offsetof(halden_cellular3d_parameters, reserved) == 68, "reserved at 68");

/*
 * Writes the noise of the width x height grid into `out` (width x height
 * floats, row-major). `z` (optional, same size, only read) gives each cell's
 * third coordinate; without it every cell takes the record's z. Every result
 * is exact whatever the jitter (the search widens past the 3 x 3 x 3
 * neighbourhood wherever a farther feature could be nearer), except
 * SMOOTH_F1, which leaves out features more than four lattice cells away.
 * The same record gives the same bits on every device. Needs 4 bytes per
 * cell of device memory (8 with a z grid).
 *
 * Progress goes to slot 1 of `callbacks`; a nonzero return from slot 1 or
 * slot 7 cancels and leaves `out` unchanged. Returns 0 when done; 2 when the
 * device lacks the memory; 3 for a null queue, out or record, an invalid
 * record or z grid (non-finite or too large values; the error text names
 * the field), a cancel or a device error; `out` is then left as it was.
 *
 *   halden_cellular3d_parameters p = {1024, 1024, 16.0f, 0.0f, 1.0f, 1, 1.0f, HALDEN_CELLULAR3D_EUCLIDEAN, 3.0f,
 *                                     HALDEN_CELLULAR3D_F1, 0.05f, 1, 2.0f, 0.5f, 0, 1.0f, 0.0f, 0};
 *   uint32_t status = Cellular3D_Render(q, out, heights, &p, &callbacks);
 */
HALDEN_API uint32_t Cellular3D_Render(halden_queue* queue, float* out, const float* z,
                                      const halden_cellular3d_parameters* parameters,
                                      const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Sun-light integral.                                                        */
/*
 * Clear-sky sunlight summed over the days and times of a period, with the
 * terrain's own shadows: beam light on each cell's slope, diffuse sky light
 * and light reflected from the surroundings. Row 0 is the north edge and the
 * columns run east; solar time, no refraction of the horizon.
 *
 * width, height     grid size in cells; square (the shadows sweep a square
 *                   grid), at most 16384 wide
 * terrain_size      horizontal extent of the grid's width in metres, > 0
 * height_scale      metres per unit of the height grid, > 0
 * latitude          degrees, -90 to 90 (positive north)
 * first_day, last_day   days of the year, 1 <= first_day <= last_day <= 366
 * day_step          every day_step-th day from first_day is sampled (>= 1);
 *                   each sample stands for day_step days (the last one for
 *                   what is left of the period)
 * time_step         minutes between sun positions, 1 to 240; positions lie
 *                   at the middle of each step from midnight
 * atmosphere        0: Linke turbidity (linke_turbidity, 0.5 to 10);
 *                   1: a plain transmittance per air mass (0 to 1]
 * site_elevation    metres above sea level, -500 to 9000: thins the air mass
 * albedo            ground reflectance 0 to 1 for the reflected light
 * sky_directions    0: diffuse light sees the whole sky of the slope; 1 to
 *                   4096: sky view is traced from that many hemisphere
 *                   directions and shades the diffuse light
 * diffuse           nonzero: add diffuse and reflected light
 * relative          nonzero: irradiation relative to flat open ground (1
 *                   there) instead of Wh/m^2
 * reserved          carried, not read
 *
 * Defaults worth starting from: latitude 45, days 172 to 172, day_step 1,
 * time_step 10, Linke turbidity 3, site_elevation 0, albedo 0.2,
 * sky_directions 32, diffuse on, relative off.
 */
typedef struct halden_sunlight_parameters {
    int32_t width;
    int32_t height;
    float terrain_size;
    float height_scale;
    float latitude;
    int32_t first_day;
    int32_t last_day;
    int32_t day_step;
    float time_step;
    int32_t atmosphere;
    float linke_turbidity;
    float transmittance;
    float site_elevation;
    float albedo;
    int32_t sky_directions;
    uint8_t diffuse;
    uint8_t relative;
    uint8_t reserved[2];
} halden_sunlight_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_sunlight_parameters) == 64, "sunlight record is 64 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_sunlight_parameters, latitude) == 16, "latitude at 16");
HALDEN_STATIC_ASSERT(offsetof(halden_sunlight_parameters, time_step) == 32, "time_step at 32");
HALDEN_STATIC_ASSERT(offsetof(halden_sunlight_parameters, atmosphere) == 36, "atmosphere at 36");
HALDEN_STATIC_ASSERT(offsetof(halden_sunlight_parameters, sky_directions) == 56, "sky_directions at 56");
HALDEN_STATIC_ASSERT(offsetof(halden_sunlight_parameters, diffuse) == 60, "switches at 60");

/*
 * Sums the sunlight of the period over the width x height grid `heights`
 * (only read) into `irradiation` (Wh/m^2, or relative to flat open ground);
 * `sun_hours` (optional) gets the hours each cell sees the sun, `sky_view`
 * (optional, needs sky_directions > 0) the share of the sky it sees, 1 on
 * flat open ground. The sun's path, air mass and atmosphere are worked out
 * on the host; each sun position above the horizon is one shadow sweep over
 * the grid, summed in 64-bit fixed point, so the result is the same on
 * every device. Needs about 72 bytes per cell of device memory.
 *
 * Progress goes to slot 1 once per sun position; a nonzero return from slot
 * 1 or slot 7 cancels and leaves every output unchanged. Returns 0 when done;
 * 2 when the device lacks the memory; 3 for a null queue, heights,
 * irradiation or record, an invalid record (the error text names the
 * field), a cancel or a device error; the outputs are then left as they were.
 *
 *   halden_sunlight_parameters p = {1024, 1024, 10240.0f, 1.0f, 45.0f, 172, 172, 1, 10.0f,
 *                                   0, 3.0f, 0.7f, 0.0f, 0.2f, 32, 1, 0, {0, 0}};
 *   uint32_t status = SunLightIntegral(q, heights, irradiation, hours, NULL, &p, &callbacks);
 */
HALDEN_API uint32_t SunLightIntegral(halden_queue* queue, const float* heights, float* irradiation,
                                     float* sun_hours, float* sky_view,
                                     const halden_sunlight_parameters* parameters,
                                     const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Dunes.                                                                     */
/*
 * Wind-blown sand over a fixed bedrock: sand is lifted where the wind is
 * exposed, carried downwind in hops, laid down in expected shares (no random
 * draw per hop), and slides where it is steeper than its angle of repose.
 * Crescent (barchan) dunes, transverse ridges and slip faces form on their
 * own; small dunes move faster than large ones.
 *
 * size                side of the square grid in cells, 1 to 46340
 * cell_size           world width of one cell, > 0
 * height_scale        world height of one height unit, > 0
 * wind_direction      degrees from +x (along a row) towards +y (down the
 *                     rows): the way the wind blows towards
 * wind_speed          0 to 8: relative speed (1 = nominal); 0 is calm
 * second_wind_*       an optional second wind, used for a share 0 to 1 of
 *                     the iterations, spread evenly over them (share 0: off)
 * iterations          0 to 100000
 * slab                sand lifted per iteration from an exposed cell at
 *                     nominal speed, in height units, >= 0
 * hop_length          cells a grain travels per hop at nominal speed,
 *                     above 0 and at most 64
 * speed_up            0 to 16: the wind's relative gain per cell_size of
 *                     height above the terrain blurred over 25 cells
 * warp_strength       0 to 1: how much of the wind's climb up the blurred
 *                     terrain turns aside, so wind flows around large dunes
 * shadow_angle_min/max  0 < min <= max < 90 degrees: a cell whose upwind
 *                     horizon rises steeper than max is sheltered (nothing is
 *                     lifted, everything landing stays), below min exposed,
 *                     smoothly between
 * sand_repose         0 to 90 degrees (exclusive): sand slides above it
 * bedrock_repose      0 to 90 degrees (exclusive): rock faces steeper than
 *                     it hold no sand (it slides off them at any slope)
 * periodic            0 or 1: sand leaving one edge enters at the opposite
 *                     one (the sand volume is then kept exactly); with 0
 *                     sand blown off the grid is gone. Slides stop at the
 *                     edges either way
 * abrasion            0 or 1: grains landing on bare rock scour and bounce
 *                     on more often than on sand (they stay 40% of the time
 *                     instead of 60%); the bedrock itself is not changed
 * seed                seed of the per-hop variation of the hop length
 *
 * Defaults worth starting from: wind_speed 1, iterations 200, slab 0.1,
 * hop_length 3, speed_up 0.2, warp_strength 0.5, shadow angles 5 and 15,
 * sand_repose 33, bedrock_repose 68, periodic 1, abrasion 1, seed 1
 * (cell_size and height_scale equal).
 */
typedef struct halden_dune_parameters {
    int32_t size;
    float cell_size;
    float height_scale;
    float wind_direction;
    float wind_speed;
    float second_wind_direction;
    float second_wind_speed;
    float second_wind_share;
    int32_t iterations;
    float slab;
    float hop_length;
    float speed_up;
    float warp_strength;
    float shadow_angle_min;
    float shadow_angle_max;
    float sand_repose;
    float bedrock_repose;
    uint32_t periodic;
    uint32_t abrasion;
    uint32_t seed;
} halden_dune_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_dune_parameters) == 80, "dune record is 80 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_dune_parameters, wind_direction) == 12, "wind_direction at 12");
HALDEN_STATIC_ASSERT(offsetof(halden_dune_parameters, iterations) == 32, "iterations at 32");
HALDEN_STATIC_ASSERT(offsetof(halden_dune_parameters, shadow_angle_min) == 52, "shadow_angle_min at 52");
HALDEN_STATIC_ASSERT(offsetof(halden_dune_parameters, periodic) == 68, "periodic at 68");
HALDEN_STATIC_ASSERT(offsetof(halden_dune_parameters, seed) == 76, "seed at 76");

/*
 * Runs the dune simulation on the size x size row-major grids `bedrock`
 * (read) and `sand` (thickness in height units, read and overwritten). The
 * sand volume is kept in 64-bit fixed point (units of 2^-20 height), so with
 * periodic borders it is conserved exactly: the output's cells are those
 * units, exact in float for cells thinner than 16. Cells no grain left or
 * reached keep their input bits. `vegetation` (optional, 0 to 1) holds sand:
 * a cell of cover 1 loses none and keeps all that lands on it. Needs about
 * 68 bytes per cell of device memory; the same bits on every device and
 * thread count.
 *
 * Progress goes to slot 1 of `callbacks` after every iteration; a nonzero
 * return from slot 1 or slot 7 cancels and leaves the sand unchanged.
 * Returns 0 when done; 2 when the device lacks the memory; 3 for a null
 * queue, bedrock, sand or record, an invalid record or grid (non-finite
 * bedrock, negative, non-finite or thicker than 2^20 sand, vegetation
 * outside 0 to 1; the error text names the field), a cancel or a device
 * error; `sand` is then left as it was.
 *
 *   halden_dune_parameters p = {1024, 1.0f, 1.0f, 0.0f, 1.0f, 90.0f, 0.0f, 0.0f, 200, 0.1f, 3.0f, 0.2f, 0.5f,
 *                               5.0f, 15.0f, 33.0f, 68.0f, 1, 1, 1};
 *   uint32_t status = DuneSimulation(q, bedrock, sand, NULL, &p, &callbacks);
 */
HALDEN_API uint32_t DuneSimulation(halden_queue* queue, const float* bedrock, float* sand, const float* vegetation,
                                   const halden_dune_parameters* parameters,
                                   const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Colour transport.                                                          */
/*
 * width, height   grid size in cells (at least 1 each, at most 2^31 - 1 cells)
 * seed            seed of every random choice, as in the flow simulation:
 *                 the same seed sends the colour down the same paths as
 *                 FlowSimulation's particles
 * length          how far a long trace may run, as in the flow simulation
 *                 (>= 0; width * length + 2 may not pass 2^24)
 * pickup_rate     how far the carried colour moves toward each crossed
 *                 cell's colour, 0 to 1: 0 carries the source colour all the
 *                 way, 1 takes on each cell's colour at once (no change)
 * deposit_weight  weight of one visit, > 0
 * strength        how far a colour moves toward the carried mean, 0 to 1
 * saturation      visit weight at which the move reaches half of strength:
 *                 the move is strength * w / (w + saturation) with w the
 *                 cell's visit count times deposit_weight (>= 0; 0 moves
 *                 every visited cell by strength)
 *
 * Defaults worth starting from: length 0.5, pickup_rate 0.05,
 * deposit_weight 1, strength 0.8, saturation 4, seed 1.
 */
typedef struct halden_color_transport_parameters {
    int32_t width;
    int32_t height;
    uint32_t seed;
    float length;
    float pickup_rate;
    float deposit_weight;
    float strength;
    float saturation;
} halden_color_transport_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_color_transport_parameters) == 32, "colour transport record is 32 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_color_transport_parameters, seed) == 8, "seed at 8");
HALDEN_STATIC_ASSERT(offsetof(halden_color_transport_parameters, length) == 12, "length at 12");
HALDEN_STATIC_ASSERT(offsetof(halden_color_transport_parameters, saturation) == 28, "saturation at 28");

/*
 * Carries colour along the flow of water over the width x height row-major
 * grid `heights` (only read): the pits are filled, one particle per cell
 * starts with its cell's colour and runs downhill as in FlowSimulation,
 * taking on the colour of the cells it crosses at pickup_rate, and each cell
 * moves toward the mean colour of the particles that crossed it. Rivers and
 * gullies take on the colour of the material upstream.
 *
 * `red`, `green` and `blue` (width * height floats each, any finite range)
 * are read and overwritten with the result. `mask` (may be NULL; values 0 to
 * 1) scales the change per cell. Needs about 92 bytes per cell of device
 * memory; on the host also 32 bytes per cell and worker thread, while those
 * fit in an eighth of the memory. A uniform colour, a flat terrain and cells that nothing flows into
 * keep their colours exactly.
 *
 * Progress goes to slot 1 of `callbacks` in percent; a nonzero return from
 * slot 1 or slot 7 cancels and leaves the colours unchanged. Returns 0 when
 * done; 2 when the device lacks the memory; 3 for null arrays or record, an
 * invalid record or grid value, a cancel or a device error.
 *
 *   halden_color_transport_parameters p = {1024, 1024, 1, 0.5f, 0.05f, 1.0f, 0.8f, 4.0f};
 *   uint32_t status = ColorTransportSimulation(q, heights, r, g, b, NULL, &p, &callbacks);
 */
HALDEN_API uint32_t ColorTransportSimulation(halden_queue* queue, const float* heights, float* red, float* green,
                                             float* blue, const float* mask,
                                             const halden_color_transport_parameters* parameters,
                                             const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Tangent-space normals.                                                     */
/*
 * transform       the mesh's vertex transform as MeshRasterizer_RenderMesh
 *                 takes it; width and height are the height grid's and the
 *                 output's size; supersample must be 0
 * terrain_size    world width of the height grid (cell size = terrain_size /
 *                 width), > 0, as Shade takes it
 * height_scale    world height of one height unit, > 0; the mesh's heights
 *                 (after the transform) are in height units too
 * margin          0 to 64: cells no triangle covers within this many cells
 *                 (8-neighbour steps) of the covered ones take the mean of
 *                 their filled neighbours, one ring per step; cells beyond
 *                 get the flat normal (0, 0, 1)
 * encoding        HALDEN_TANGENT_SIGNED: components in -1 to 1;
 *                 HALDEN_TANGENT_UNSIGNED: 0.5 c + 0.5, for 8-bit textures
 * flip_green      0: OpenGL convention (green points up the picture, toward
 *                 row 0); 1: DirectX convention (green points down the rows)
 * reserved        carried, not read
 */
#define HALDEN_TANGENT_SIGNED 0u
#define HALDEN_TANGENT_UNSIGNED 1u

typedef struct halden_tangent_parameters {
    halden_mesh_rasterizer_parameters transform;
    float terrain_size;
    float height_scale;
    int32_t margin;
    uint32_t encoding;
    uint32_t flip_green;
    uint32_t reserved;
} halden_tangent_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_tangent_parameters) == 80, "tangent record is 80 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_tangent_parameters, terrain_size) == 56, "terrain_size at 56");
HALDEN_STATIC_ASSERT(offsetof(halden_tangent_parameters, margin) == 64, "margin at 64");
HALDEN_STATIC_ASSERT(offsetof(halden_tangent_parameters, flip_green) == 72, "flip_green at 72");

/*
 * Bakes the detail of the width x height grid `heights` (only read) into a
 * tangent-space normal map for `mesh`, a low-polygon mesh of the same
 * terrain, written as three planes `red`, `green` and `blue` (width * height
 * floats each). The texture coordinates are the mesh's top-down projection:
 * u = x / width, v = 1 - y / height in grid coordinates after the transform.
 *
 * The tangent frame is the one engines rebuild from per-vertex data: vertex
 * normals sum the face normals (the drawn winding faces up, area weighted),
 * vertex tangents sum each face's dP/du weighted by its texture area and are
 * made orthogonal to the normal, and the sign of the bitangent is that of
 * (normal x tangent) . dP/dv. Per cell, the winning triangle of the
 * rasterisation (MeshRasterizer_RenderMesh's coverage and depth rules) gives
 * barycentrics of the cell centre; normal, tangent and sign are interpolated
 * without renormalising, bitangent = sign (n x t), and the height grid's
 * normal (Shade's stencil) is solved for in that frame and normalised. A mesh
 * that follows the heights gives (0, 0, 1). Needs about 84 bytes per cell,
 * 52 per vertex and 28 per triangle of device memory; the same bits on every
 * device and thread count.
 *
 * Returns 0 when done; 2 when the device lacks the memory; 3 for null
 * arguments, an invalid record or non-finite heights (the text names the
 * field), a cancel (slot 7) or a device error; the planes are then left as
 * they were.
 *
 *   halden_tangent_parameters p = {{1024, 1024, {0, 0, 0}, 1.0f, {0, 0, 0}, 1.0f}, 1024.0f, 1.0f, 2};
 *   uint32_t status = MeshRasterizer_ComputeTangentSpaceNormals(q, &mesh, heights, r, g, b, &p, &callbacks);
 */
HALDEN_API uint32_t MeshRasterizer_ComputeTangentSpaceNormals(halden_queue* queue, const halden_mesh* mesh,
                                                              const float* heights, float* red, float* green,
                                                              float* blue, const halden_tangent_parameters* parameters,
                                                              const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Point clouds.                                                              */

/* Points in host memory (lidar, photogrammetry): packed (x, y, z) floats. */
typedef struct halden_points {
    const float* points;
    uint32_t count;
    uint32_t reserved;
} halden_points;

HALDEN_STATIC_ASSERT(sizeof(halden_points) == 16, "points record is 16 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_points, count) == 8, "count at 8");

/* What a cell takes from the points gathered for it. */
typedef enum halden_point_mode {
    HALDEN_POINTS_MAX = 0,
    HALDEN_POINTS_MIN = 1,
    HALDEN_POINTS_MEAN = 2,
    HALDEN_POINTS_IDW = 3,     /* inverse-distance weighting: sum(z / d^power) / sum(1 / d^power),
                                  d from the cell's centre; a point on the centre decides alone */
    HALDEN_POINTS_NEAREST = 4, /* z of the point nearest the cell's centre */
    HALDEN_POINTS_COUNT = 5,   /* the number of points (every cell gets one, 0 included) */
    HALDEN_POINTS_STDEV = 6    /* population standard deviation of z */
} halden_point_mode;

/* How cells that gathered no point are filled. */
typedef enum halden_point_fill {
    HALDEN_POINTS_FILL_NONE = 0,      /* they keep `empty` */
    HALDEN_POINTS_FILL_PULL_PUSH = 1, /* pull-push interpolation from the cells around */
    HALDEN_POINTS_FILL_INNER = 2      /* pull-push, but only holes enclosed by data: empty cells connected
                                         to the grid's border through empty cells keep `empty` */
} halden_point_fill;

/*
 * transform   the vertex transform of MeshRasterizer_RenderMesh (width and
 *             height give the grid; supersample must be 0): points and
 *             meshes given the same record share coordinates. A point
 *             belongs to the cell whose square [c, c + 1) x [r, r + 1) holds
 *             its transformed (x, y); points outside the grid are left out.
 * mode        a halden_point_mode
 * fill        a halden_point_fill (not read in COUNT mode)
 * radius      0: a cell gathers the points inside it; > 0 (up to 256): the
 *             points within this many cells of its centre, in x and y
 * power       IDW exponent, above 0 and at most 16 (only read for IDW)
 * max_fill    fill only cells at most this many cells (Euclidean) from a
 *             cell that gathered points, >= 0; 0 for no limit
 * empty       the value of cells left without data (NaN allowed)
 *
 * Defaults worth starting from: MEAN, radius 0, power 2, fill none,
 * max_fill 0, empty NaN.
 */
typedef struct halden_point_parameters {
    halden_mesh_rasterizer_parameters transform;
    int32_t mode;
    int32_t fill;
    float radius;
    float power;
    float max_fill;
    float empty;
} halden_point_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_point_parameters) == 80, "point parameters record is 80 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_point_parameters, mode) == 56, "mode at 56");
HALDEN_STATIC_ASSERT(offsetof(halden_point_parameters, radius) == 64, "radius at 64");
HALDEN_STATIC_ASSERT(offsetof(halden_point_parameters, empty) == 76, "empty at 76");

/*
 * Grids a point cloud into `heights` (width x height floats): every cell
 * takes the mode's value of the points it gathers, or `empty` where it
 * gathers none, and the fill then interpolates the holes (cells with points
 * keep their value exactly). `counts` (optional, same size) receives the
 * number of points each cell's value used, 0 for filled and empty cells.
 * The points are sorted by cell on the device, and every cell reads its
 * points in an order fixed by their values: the result is the same bits on
 * every device and thread count, whatever order the points come in. Needs
 * about 44 bytes per point and 16 to 40 per cell of device memory.
 *
 * Returns 0 when done; 2 when the device lacks the memory; 3 for null
 * arguments, no points, a non-finite coordinate, an invalid record (the
 * text names the field), a cancel (slot 7) or a device error; the grids are
 * then left as they were.
 *
 *   halden_point_parameters p = {{1024, 1024, {x0, y0, 0}, s, {0, 0, 0}, 1.0f}, HALDEN_POINTS_MEAN,
 *                                HALDEN_POINTS_FILL_PULL_PUSH, 0.0f, 2.0f, 0.0f, NAN};
 *   uint32_t status = MeshRasterizer_RenderPointCloud(q, &points, heights, NULL, &p, &callbacks);
 */
HALDEN_API uint32_t MeshRasterizer_RenderPointCloud(halden_queue* queue, const halden_points* points, float* heights,
                                                    float* counts, const halden_point_parameters* parameters,
                                                    const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Triplanar displacement.                                                    */

/* A repeating displacement texture: width x height floats, row-major. */
typedef struct halden_texture {
    const float* values;
    int32_t width;
    int32_t height;
} halden_texture;

HALDEN_STATIC_ASSERT(sizeof(halden_texture) == 16, "texture record is 16 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_texture, width) == 8, "width at 8");

/*
 * transform        the vertex transform as MeshRasterizer_RenderMesh takes
 *                  it; with supersample set the mesh is rendered at twice
 *                  the size and reduced as RenderMesh does, but this record
 *                  is not changed
 * texture_size     world units (the mesh's own, before the transform) that
 *                  one repeat of the texture spans on each plane, > 0
 * amplitude        world units of displacement per texture unit, finite
 *                  (0: the mesh is rendered exactly as RenderMesh renders it)
 * midlevel         the texture value that displaces nothing, finite (0.5)
 * sharpness        k of the blend weights |n|^k, 0 to 64 (4)
 * edge_length      wanted length of a micro-edge in cells of the output grid,
 *                  measured in 3-D (heights scaled like x and y), > 0 (1)
 * max_subdivision  most pieces one edge is cut into, 1 to 1024 (64)
 */
typedef struct halden_triplanar_parameters {
    halden_mesh_rasterizer_parameters transform;
    float texture_size;
    float amplitude;
    float midlevel;
    float sharpness;
    float edge_length;
    uint32_t max_subdivision;
} halden_triplanar_parameters;

HALDEN_STATIC_ASSERT(sizeof(halden_triplanar_parameters) == 80, "triplanar record is 80 bytes");
HALDEN_STATIC_ASSERT(offsetof(halden_triplanar_parameters, texture_size) == 56, "texture_size at 56");
HALDEN_STATIC_ASSERT(offsetof(halden_triplanar_parameters, sharpness) == 68, "sharpness at 68");
HALDEN_STATIC_ASSERT(offsetof(halden_triplanar_parameters, max_subdivision) == 76, "max_subdivision at 76");

/*
 * Renders the mesh into `heights` (and optionally `triangle_ids`) as
 * MeshRasterizer_RenderMesh does, after displacing its surface with
 * `texture` projected along the three axes, so that steep faces and cliffs
 * get detail without texture coordinates.
 *
 * Vertex normals are the normalised sums of the area-weighted normals
 * (v2 - v0) x (v1 - v0) of each vertex's triangles, summed in an order set
 * by the triangles' corners, so the order of the triangle list changes
 * nothing: for the winding that is drawn they point up. Every edge is cut into
 * n = ceil(length / edge_length) pieces (at most max_subdivision), a count
 * that depends on the edge alone, and every triangle into a regular grid of
 * the largest of its three counts whose border points are moved onto its
 * edges' own cut points; two triangles sharing an edge (by vertex index)
 * therefore meet at the same points and the surface has no cracks. Each
 * point moves along its interpolated normal n by amplitude * (t - midlevel),
 * t the blend of three bilinear, wrapping texture reads at (y, z), (x, z)
 * and (x, y) / texture_size with weights |n.x|^k, |n.y|^k, |n.z|^k. A
 * constant texture reads as exactly its value. Pieces name their triangle in
 * `triangle_ids`. Up to 2^30 pieces are rendered, in batches; the mesh's
 * memory, the texture and a batch are announced through slot 5 (there is no
 * memory pre-check).
 *
 * Returns 0 when done; 3 for null arguments, an invalid record or texture
 * (sizes, non-finite values), too many pieces, a cancel (slot 7, asked
 * between batches) or a device error; the grids are then left as they were.
 *
 *   halden_texture t = {noise, 256, 256};
 *   halden_triplanar_parameters p = {transform, 64.0f, 2.0f, 0.5f, 4.0f, 1.0f, 64};
 *   uint32_t status = MeshRasterizer_RenderMeshWithTriplanarDisplacement(q, &mesh, heights, NULL, &t, &p, &cb);
 */
HALDEN_API uint32_t MeshRasterizer_RenderMeshWithTriplanarDisplacement(
    halden_queue* queue, const halden_mesh* mesh, float* heights, float* triangle_ids, const halden_texture* texture,
    const halden_triplanar_parameters* parameters, const halden_callbacks* callbacks) HALDEN_NOEXCEPT;

#ifdef __cplusplus
} /* extern "C" */

namespace halden {
using DeviceRecord = ::halden_device_record;
using Callbacks = ::halden_callbacks;
using Queue = ::halden_queue;
}  // namespace halden

namespace median_filter {
using Parameters = ::halden_median_filter_parameters;
}  // namespace median_filter

namespace thermal_shaper {
using Parameters = ::halden_thermal_shaper_parameters;
}  // namespace thermal_shaper

namespace thermal {
using Parameters = ::halden_thermal_parameters;
}  // namespace thermal

namespace parallel_erosion {
using Parameters = ::halden_erosion_parameters;
}  // namespace parallel_erosion

namespace flow {
using Parameters = ::halden_flow_parameters;
}  // namespace flow

namespace lighting {
using Parameters = ::halden_lighting_parameters;
}  // namespace lighting

namespace mesh_rasterizer {
using Parameters = ::halden_mesh_rasterizer_parameters;
using Mesh = ::halden_mesh;
}  // namespace mesh_rasterizer

namespace stamp_instancer {
using Parameters = ::halden_stamp_parameters;
using Stamps = ::halden_stamps;
using Entry = ::halden_stamp_entry;
using Instance = ::halden_stamp_instance;
}  // namespace stamp_instancer

namespace debris {
using Parameters = ::halden_debris_parameters;
}  // namespace debris

namespace cellular3d {
using Parameters = ::halden_cellular3d_parameters;
using Metric = ::halden_cellular3d_metric;
using Result = ::halden_cellular3d_result;
}  // namespace cellular3d

namespace lighting {
using SunLightParameters = ::halden_sunlight_parameters;
}  // namespace lighting
namespace arrakis {
using Parameters = ::halden_dune_parameters;
}  // namespace arrakis

namespace color_transport {
using Parameters = ::halden_color_transport_parameters;
}  // namespace color_transport

namespace mesh_rasterizer {
using TangentParameters = ::halden_tangent_parameters;
}  // namespace mesh_rasterizer

namespace mesh_rasterizer {
using Texture = ::halden_texture;
using TriplanarParameters = ::halden_triplanar_parameters;
}  // namespace mesh_rasterizer

namespace mesh_rasterizer {
using Points = ::halden_points;
using PointParameters = ::halden_point_parameters;
}  // namespace mesh_rasterizer
#endif

#endif /* HALDEN_HALDEN_H */
