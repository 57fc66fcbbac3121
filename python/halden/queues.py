"""Devices and the queues that every operation runs on."""

import ctypes
from typing import NamedTuple

from . import _calls, _checks, _native

# The class words of halden_device_key. The library recognises the word for
# CPUs of other back-ends by its hash only; this is a word with that hash.
_CLASS_WORDS = {1: "Cpu", 2: "Foreignzjaztx", 3: "GpuIntegrated", 4: "GpuDiscrete", 5: "Accelerator"}


def _text(raw):
    # surrogateescape: a key built from odd bytes must encode back to the same bytes.
    return None if raw is None else raw.decode("utf-8", "surrogateescape")


class Device(NamedTuple):
    """A device as the library describes it; strings the library leaves null are None.

    name:    the device's name, e.g. "AdaptiveCpp OpenMP host device"
    key:     the text that Queue takes to open this device
    backend: the back-end, "Native" (OpenMP on the CPU) or "CUDA"
    vendor, driver, arch: the back-end's identifying texts (e.g. "NVIDIA",
             the driver version, "sm_90")
    type:    1 CPU of the host back-end, 2 another CPU, 3 integrated GPU,
             4 discrete GPU, 5 accelerator
    """
    name: str | None
    key: str
    backend: str | None
    vendor: str | None
    driver: str | None
    arch: str | None
    type: int


def _device(record):
    strings = [_text(getattr(record, f)) for f in ("backend", "vendor", "driver", "arch")]
    key = "/".join([_CLASS_WORDS.get(record.type, "")] + [s or "" for s in strings])
    return Device(_text(record.name), key, *strings, record.type)


def devices() -> list[Device]:
    """The usable devices: the host (CPU) device first, then CUDA devices.

    Returns a list of Device, never empty.
    """
    records, count = _native.DEVICES_P(), _native.u32()
    try:
        with _calls.reported("GetDevices"):
            _native.GetDevices(ctypes.byref(records), ctypes.byref(count))
        return [_device(records[i]) for i in range(count.value)]
    finally:
        _native.FreeDevices(records)


class Queue:
    """A queue on one device; every operation takes one as its first argument.

    key: "cpu" (the host device, the default) or a Device.key from devices().
    Raises HaldenError when no device matches the key.

    Use it as a context manager or call close(); a closed queue raises
    ValueError when used. It serves one call at a time: a call from another
    thread waits for the running one. Attributes: key (str), device (Device).
    """

    key: str
    device: Device

    def __init__(self, key: str = "cpu") -> None:
        # First, so that close() works on a queue whose construction failed.
        self._holder = _calls.Holder()
        encoded = _checks.device_key(key)
        self.key = key
        # The table given here becomes the library's process-wide one, which
        # MedianFilter and asynchronous device errors report through.
        with _calls.reported("CreateSyclQueue"):
            self._holder.handle = _native.CreateSyclQueue(encoded, _calls.TABLE)
        if not self._holder.handle:
            raise _calls.HaldenError(f"no device matches the key {key!r}; halden.devices() lists the keys")
        info = None
        try:
            with _calls.reported("GetDeviceInfo") as call:
                info = _native.GetDeviceInfo(self._holder.handle)
                call.status = 0 if info else 3
            self.device = _device(info.contents)
        except BaseException:
            self.close()
            raise
        finally:
            _native.FreeDeviceInfo(info)

    def close(self) -> None:
        """Waits for the queue's work and frees it; closing twice is harmless.

        A call running on the queue in another thread is waited for; closing
        from a callback of the call running on it raises RuntimeError.
        """
        handle = self._holder.take()
        if handle:
            with _calls.reported("DestroySyclQueue"):
                _native.DestroySyclQueue(handle)

    def __enter__(self) -> "Queue":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __del__(self):
        # A finaliser's exception could only be printed; the interpreter may
        # also be tearing the module down.
        try:
            self.close()
        except BaseException:
            pass

    def __repr__(self) -> str:
        return f"halden.Queue({self.key!r}{'' if self._holder.handle else ', closed'})"
