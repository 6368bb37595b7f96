"""The exceptions of zovdx: every failing status of the library is raised as VdxError or, for
the statuses a caller usually handles on its own, one of its subclasses."""
from __future__ import annotations

from typing import Dict, Type


class VdxError(Exception):
    """A call to libzovdx failed.

    Attributes:
        status: the library's status number (``vdxStatus``).
        text: the library's sentence for that status.
        function: the library function that returned it.
    """

    def __init__(self, status: int, text: str, function: str) -> None:
        super().__init__(f"{function}: {text} (status {status})")
        self.status = status
        self.text = text
        self.function = function


class VdxPermissionError(VdxError):
    """Root is needed (status 19): changes to virtual devices need effective uid 0."""


class VdxNotSupportedError(VdxError):
    """Not supported here (6, 14): inside a container, in a mode that excludes virtual devices,
    an unsupported device or a combination the library refuses."""


class VdxOutOfResourcesError(VdxError):
    """Not enough compute units, memory or pipes left on the device (status 11)."""


class VdxNotFoundError(VdxError):
    """No such virtual device (15) or thing (23)."""


class VdxBusyError(VdxError):
    """In use (17, 29): a container still uses the virtual device."""


_CLASSES: Dict[int, Type[VdxError]] = {
    19: VdxPermissionError,
    6: VdxNotSupportedError,
    14: VdxNotSupportedError,
    11: VdxOutOfResourcesError,
    15: VdxNotFoundError,
    23: VdxNotFoundError,
    17: VdxBusyError,
    29: VdxBusyError,
}


def error_for(status: int, text: str, function: str) -> VdxError:
    """The exception that stands for `status`."""
    return _CLASSES.get(status, VdxError)(status, text, function)
