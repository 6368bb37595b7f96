"""zovdx: split compute accelerators into virtual devices, from Python.

A typed layer over the shipped C library ``libzovdx.so.1`` (through ctypes, nothing compiled).
Devices and virtual devices come back as frozen dataclasses with sizes in bytes; memory is
passed in MiB, as the library takes it. A failing call raises :class:`VdxError` (or one of
its subclasses); arguments of the wrong type or range raise ``TypeError`` or ``ValueError``
before the library is called.

The library is found through ``ZOVDX_LIBRARY`` (a path) if set, else through the system's
search (``ctypes.util.find_library``, then the dynamic linker for ``libzovdx.so.1``). It is
loaded on the first call, and :class:`LibraryNotFoundError` says what was tried.

Threads: any thread may call any function. The library serialises its calls itself; the
binding keeps no state but the loaded library, and ctypes lets other Python threads run
while one waits in the library.

Changes (create, update, destroy, start, stop, the encryption flag) need root and are refused
inside a container; queries work everywhere. Inside a container the devices are the
virtual devices the container was given.
"""
from __future__ import annotations

import ctypes
import operator
import warnings
from dataclasses import dataclass
from typing import List, Optional, Sequence

from . import _native
from ._native import LibraryNotFoundError
from .errors import (VdxBusyError, VdxError, VdxNotFoundError, VdxNotSupportedError,
                     VdxOutOfResourcesError, VdxPermissionError, error_for)

__version__ = "1.0.0"

__all__ = [
    "Device", "VirtualDevice", "Remaining", "LOG_LEVELS", "MAX_VDEVICES",
    "VdxError", "VdxPermissionError", "VdxNotSupportedError", "VdxOutOfResourcesError",
    "VdxNotFoundError", "VdxBusyError", "LibraryNotFoundError",
    "device_count", "device", "devices", "max_vdevice_count", "vdevice_count", "remaining",
    "vdevice", "vdevices", "create", "update", "destroy", "destroy_device", "start", "stop",
    "device_busy", "vdevice_busy", "set_encryption", "encryption", "set_log_level",
    "init_device", "status_text",
]

#: Virtual device ids run from 0 to MAX_VDEVICES - 1.
MAX_VDEVICES = 32
#: The names set_log_level takes, quietest first.
LOG_LEVELS = ("none", "warning", "info", "debug")

_INT_MAX = 2**31 - 1
_MIB = 1 << 20
_QUERY_VDEV_INFO_FAILED = 12
_VDEV_NOT_EXIST = 15
_UNTOUCHED = -1  # never a percentage: the library did not write one


@dataclass(frozen=True)
class Device:
    """A physical device (inside a container: one the container was given)."""

    index: int
    name: str
    compute_units: int
    memory_bytes: int
    memory_used_bytes: int


@dataclass(frozen=True)
class VirtualDevice:
    """A configured virtual device: a slice of a physical device."""

    id: int
    device: int  #: index of the physical device it lives on
    name: str  #: the physical device's name
    compute_units: int  #: 0 when it shares its device's units
    memory_limit_bytes: int
    memory_used_bytes: int
    container_id: int  #: the container that uses it, 0 when none


@dataclass(frozen=True)
class Remaining:
    """What a physical device has not yet given to virtual devices."""

    compute_units: int
    memory_bytes: int


# --- checks before the call -----------------------------------------------------------------

def _integer(value: object, what: str, low: int = 0, high: int = _INT_MAX) -> int:
    """value as an int within low..high; TypeError for a non-integer (bool included)."""
    if isinstance(value, bool):
        raise TypeError(f"{what} must be an int, not bool")
    try:
        number = operator.index(value)  # int and integer types (numpy's), never float or str
    except TypeError:
        raise TypeError(f"{what} must be an int, not {type(value).__name__}") from None
    if not low <= number <= high:
        raise ValueError(f"{what} must be {low} to {high}, not {number}")
    return number


def _integers(values: object, what: str, low: int) -> List[int]:
    if isinstance(values, (str, bytes)) or not isinstance(values, Sequence):
        raise TypeError(f"{what} must be a sequence of ints, not {type(values).__name__}")
    return [_integer(v, f"{what}[{i}]", low) for i, v in enumerate(values)]


def _vdev_id(value: object) -> int:
    return _integer(value, "vdev_id", 0, MAX_VDEVICES - 1)


# --- calling ----------------------------------------------------------------------------------

def _status_text(status: int) -> str:
    text = ctypes.c_char_p()
    if _native.library().vdxGetStatusString(status, ctypes.byref(text)) != 0 or not text.value:
        return f"unknown status {status}"
    return text.value.decode("utf-8", "replace")


def _call(function: str, *args: object, shown: str = "") -> None:
    """Calls the library function; raises the exception for a failing status."""
    status = getattr(_native.library(), function)(*args)
    if status != 0:
        raise error_for(status, _status_text(status), function + shown)


def _info(function: str, number: int) -> _native.DeviceInfo:
    info = _native.DeviceInfo()
    _call(function, number, ctypes.byref(info), shown=f"({number})")
    return info


def _name(info: _native.DeviceInfo) -> str:
    return info.name.decode("utf-8", "replace")


def _count(function: str) -> int:
    count = ctypes.c_int()
    _call(function, ctypes.byref(count))
    return count.value


# --- queries ----------------------------------------------------------------------------------

def device_count() -> int:
    """How many supported physical devices there are (inside a container: devices given)."""
    return _count("vdxGetDeviceCount")


def device(index: int) -> Device:
    """Physical device `index` (0-based)."""
    index = _integer(index, "index")
    info = _info("vdxGetDeviceInfo", index)
    return Device(index, _name(info), info.compute_unit_count, info.global_mem_size,
                  info.usage_mem_size)


def devices() -> List[Device]:
    """Every physical device, by index."""
    return [device(i) for i in range(device_count())]


def max_vdevice_count() -> int:
    """How many virtual devices one physical device can hold (0 inside a container)."""
    return _count("vdxGetMaxVDeviceCount")


def vdevice_count() -> int:
    """How many virtual devices are configured."""
    return _count("vdxGetVDeviceCount")


def remaining(device: int) -> Remaining:
    """Compute units and memory (bytes) of physical device `device` not yet given away."""
    device = _integer(device, "device")
    units, memory = ctypes.c_size_t(), ctypes.c_size_t()
    _call("vdxGetDeviceRemainingInfo", device, ctypes.byref(units), ctypes.byref(memory),
          shown=f"({device})")
    return Remaining(units.value, memory.value)


def vdevice(vdev_id: int) -> VirtualDevice:
    """Virtual device `vdev_id` (0 to 31); VdxNotFoundError when it is not configured."""
    vdev_id = _vdev_id(vdev_id)
    info = _info("vdxGetVDeviceInfo", vdev_id)
    return VirtualDevice(vdev_id, info.device_id, _name(info), info.compute_unit_count,
                         info.global_mem_size, info.usage_mem_size, info.container_id)


def vdevices() -> List[VirtualDevice]:
    """Every configured virtual device, by id. A virtual device whose file the library
    cannot use raises its error (its id is in the message) rather than being left out."""
    found = []
    for vdev_id in range(MAX_VDEVICES):
        try:
            found.append(vdevice(vdev_id))
        except VdxNotFoundError:
            continue
    return found


def device_busy(device: int) -> Optional[int]:
    """Busy percentage (0 to 100) of physical device `device`; None when the library has no
    value (a device with no units of its own to measure)."""
    device = _integer(device, "device")
    percent = ctypes.c_int(_UNTOUCHED)
    _call("vdxGetDevBusyPercent", device, ctypes.byref(percent), shown=f"({device})")
    return percent.value if 0 <= percent.value <= 100 else None


def vdevice_busy(vdev_id: int) -> Optional[int]:
    """Busy percentage (0 to 100) of virtual device `vdev_id`; None when the library has no
    value: the virtual device is not started, or it shares its device's units."""
    vdev_id = _vdev_id(vdev_id)
    percent = ctypes.c_int(_UNTOUCHED)
    status = _native.library().vdxGetVDevBusyPercent(vdev_id, ctypes.byref(percent))
    if status == _QUERY_VDEV_INFO_FAILED:
        return None  # the driver has no instance of it to ask: not started
    if status != 0:
        raise error_for(status, _status_text(status), f"vdxGetVDevBusyPercent({vdev_id})")
    return percent.value if 0 <= percent.value <= 100 else None


# --- changes ----------------------------------------------------------------------------------

def _configured_ids() -> set:
    ids = set()
    info = _native.DeviceInfo()
    for vdev_id in range(MAX_VDEVICES):
        if _native.library().vdxGetVDeviceInfo(vdev_id, ctypes.byref(info)) != _VDEV_NOT_EXIST:
            ids.add(vdev_id)
    return ids


def create(device: int, count: Optional[int] = None, units: Optional[Sequence[int]] = None,
           memory_mib: Optional[Sequence[int]] = None) -> List[int]:
    """Creates 1 to 4 virtual devices on physical device `device` and returns their ids.

    `units` gives each one's compute units (0: it shares the device's units; those come
    first), `memory_mib` each one's memory in MiB; either left out splits the remainder
    evenly. `count` defaults to the length of the lists given, else 1. Root only. The files
    are written; driver instances appear when the virtual devices are started.

    The ids returned are those configured after the call and not before it: another root
    process creating at the same moment could add to them.
    """
    device = _integer(device, "device")
    unit_list = None if units is None else _integers(units, "units", 0)
    memory_list = None if memory_mib is None else _integers(memory_mib, "memory_mib", 1)
    lengths = {len(x) for x in (unit_list, memory_list) if x is not None}
    if len(lengths) > 1:
        raise ValueError("units and memory_mib need one value per virtual device each")
    if count is None:
        count = lengths.pop() if lengths else 1
    count = _integer(count, "count", 1, 4)
    if lengths and count not in lengths:
        raise ValueError(f"count is {count} but the lists have {lengths.pop()} values")

    def array(values: Optional[List[int]]):
        return None if values is None else (ctypes.c_int * len(values))(*values)

    before = _configured_ids()
    _call("vdxCreateVDevices", device, count, array(unit_list), array(memory_list),
          shown=f"({device})")
    return sorted(_configured_ids() - before)


def update(vdev_id: int, units: Optional[int] = None, memory_mib: Optional[int] = None) -> None:
    """Resizes virtual device `vdev_id`: new compute units and/or memory in MiB (what is
    left out stays). Its driver instance, if started, is removed; start it again. Root only."""
    vdev_id = _vdev_id(vdev_id)
    if units is None and memory_mib is None:
        raise ValueError("update needs units or memory_mib")
    cu = -1 if units is None else _integer(units, "units")
    mem = -1 if memory_mib is None else _integer(memory_mib, "memory_mib", 1)
    _call("vdxUpdateSingleVDevice", vdev_id, cu, mem, shown=f"({vdev_id})")


def destroy(vdev_id: int) -> None:
    """Destroys virtual device `vdev_id`: its file and its driver instance. Root only;
    VdxBusyError while a container uses it."""
    vdev_id = _vdev_id(vdev_id)
    _call("vdxDestroySingleVDevice", vdev_id, shown=f"({vdev_id})")


def destroy_device(device: int) -> None:
    """Destroys every virtual device of physical device `device`. Root only."""
    device = _integer(device, "device")
    _call("vdxDestroyVDevices", device, shown=f"({device})")


def start(vdev_id: int) -> None:
    """Creates the driver instance of virtual device `vdev_id` and binds this process to it.

    The instance lives as long as this process: when the process exits, the library
    destroys the instances it started. To keep virtual devices started, run the ``vdxd``
    service (``vdxctl start`` asks it), not a short script. Root only.
    """
    vdev_id = _vdev_id(vdev_id)
    _call("vdxStartVDevice", vdev_id, shown=f"({vdev_id})")


def stop(vdev_id: int) -> None:
    """Removes the driver instance of virtual device `vdev_id`. Root only."""
    vdev_id = _vdev_id(vdev_id)
    _call("vdxStopVDevice", vdev_id, shown=f"({vdev_id})")


# --- settings ---------------------------------------------------------------------------------

def set_encryption(enabled: bool) -> None:
    """Records whether this host runs encrypted virtual machines (for the real user)."""
    if not isinstance(enabled, bool):
        raise TypeError(f"enabled must be a bool, not {type(enabled).__name__}")
    _call("vdxSetEncryptionVMStatus", enabled)


def encryption() -> bool:
    """The flag recorded by set_encryption."""
    flag = ctypes.c_bool()
    _call("vdxGetEncryptionVMStatus", ctypes.byref(flag))
    return flag.value


def set_log_level(level: str) -> None:
    """The library's log level: one of LOG_LEVELS. Its lines go to standard output (errors
    to standard error). The VDX_LOG_LEVEL environment variable (0 to 5) overrides it."""
    if not isinstance(level, str):
        raise TypeError(f"level must be a str, not {type(level).__name__}")
    if level not in LOG_LEVELS:
        raise ValueError(f"level must be one of {', '.join(LOG_LEVELS)}, not {level!r}")
    _call("vdxSetLogLevel", level.encode())


def init_device() -> None:
    """Deprecated: the library needs no initialisation; this does nothing."""
    warnings.warn("zovdx.init_device does nothing and will go", DeprecationWarning, stacklevel=2)
    _call("vdxInitDevice", ctypes.byref(_native.DeviceInfo()))


def status_text(status: int) -> str:
    """The library's sentence for a status number; ValueError for a number it does not know."""
    status = _integer(status, "status", -_INT_MAX - 1)
    text = ctypes.c_char_p()
    if _native.library().vdxGetStatusString(status, ctypes.byref(text)) != 0:
        raise ValueError(f"{status} is not a status of libzovdx")
    return (text.value or b"").decode("utf-8", "replace")
