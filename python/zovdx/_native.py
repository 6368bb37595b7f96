"""Finding and loading libzovdx.so.1, and the C prototypes of its nineteen functions.

The library is loaded on first use, not at import, so that ``import zovdx`` works (for
help(), for type checkers) on a machine without it.
"""
from __future__ import annotations

import ctypes
import ctypes.util
import os
import threading
from typing import List, Optional

SONAME = "libzovdx.so.1"


class LibraryNotFoundError(OSError):
    """libzovdx.so.1 could not be loaded; the message says where it was looked for."""


class DeviceInfo(ctypes.Structure):
    """vdxDeviceInfo: its layout is part of the library's ABI (296 bytes)."""

    _fields_ = [
        ("name", ctypes.c_char * 256),
        ("compute_unit_count", ctypes.c_int),
        ("global_mem_size", ctypes.c_size_t),
        ("usage_mem_size", ctypes.c_size_t),
        ("container_id", ctypes.c_uint64),
        ("device_id", ctypes.c_int),
    ]


assert ctypes.sizeof(DeviceInfo) == 296, "vdxDeviceInfo layout"

_int_p = ctypes.POINTER(ctypes.c_int)
_size_p = ctypes.POINTER(ctypes.c_size_t)
_info_p = ctypes.POINTER(DeviceInfo)

# name: (argument types); every function returns a vdxStatus (an int).
_PROTOTYPES = {
    "vdxGetDeviceCount": [_int_p],
    "vdxGetDeviceInfo": [ctypes.c_int, _info_p],
    "vdxGetMaxVDeviceCount": [_int_p],
    "vdxGetVDeviceCount": [_int_p],
    "vdxGetDeviceRemainingInfo": [ctypes.c_int, _size_p, _size_p],
    "vdxGetVDeviceInfo": [ctypes.c_int, _info_p],
    "vdxCreateVDevices": [ctypes.c_int, ctypes.c_int, _int_p, _int_p],
    "vdxDestroyVDevices": [ctypes.c_int],
    "vdxDestroySingleVDevice": [ctypes.c_int],
    "vdxUpdateSingleVDevice": [ctypes.c_int, ctypes.c_int, ctypes.c_int],
    "vdxStartVDevice": [ctypes.c_int],
    "vdxStopVDevice": [ctypes.c_int],
    "vdxGetDevBusyPercent": [ctypes.c_int, _int_p],
    "vdxGetVDevBusyPercent": [ctypes.c_int, _int_p],
    "vdxSetEncryptionVMStatus": [ctypes.c_bool],
    "vdxGetEncryptionVMStatus": [ctypes.POINTER(ctypes.c_bool)],
    "vdxSetLogLevel": [ctypes.c_char_p],
    "vdxInitDevice": [_info_p],
    "vdxGetStatusString": [ctypes.c_int, ctypes.POINTER(ctypes.c_char_p)],
}

_lock = threading.Lock()
_library: Optional[ctypes.CDLL] = None


def _candidates() -> List[str]:
    """Where the library is looked for, in order, when ZOVDX_LIBRARY is not set."""
    names = []
    found = ctypes.util.find_library("zovdx")
    if found:
        names.append(found)
    if SONAME not in names:
        names.append(SONAME)  # the dynamic linker's own search (LD_LIBRARY_PATH, the cache)
    return names


def _open() -> ctypes.CDLL:
    explicit = os.environ.get("ZOVDX_LIBRARY")
    if explicit:
        # A path the user named is the one they mean: no quiet fallback to another copy.
        try:
            return ctypes.CDLL(explicit)
        except OSError as error:
            raise LibraryNotFoundError(
                f"cannot load libzovdx from ZOVDX_LIBRARY={explicit}: {error}") from None
    tried = []
    for name in _candidates():
        try:
            return ctypes.CDLL(name)
        except OSError as error:
            tried.append(f"{name} ({error})")
    raise LibraryNotFoundError(
        "cannot load libzovdx: ZOVDX_LIBRARY is not set, and the system's search found "
        "nothing usable; tried " + "; ".join(tried) +
        ". Install libzovdx1, or set ZOVDX_LIBRARY to the path of libzovdx.so.1.")


def library() -> ctypes.CDLL:
    """The loaded library, with its prototypes set; loads it on the first call."""
    global _library
    with _lock:
        if _library is None:
            loaded = _open()
            for name, argtypes in _PROTOTYPES.items():
                function = getattr(loaded, name)
                function.argtypes = argtypes
                function.restype = ctypes.c_int
            _library = loaded
        return _library
