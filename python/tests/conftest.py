"""Fixtures of the binding's tests. They run as root inside vdx-sim (ctest starts them there)
with ZOVDX_LIBRARY naming the built library and VDX_SIM_BIN the simulator."""
import os
import subprocess
import sys

import pytest

import zovdx

SIM = os.environ.get("VDX_SIM_BIN", "vdx-sim")
GPU0 = "21735"  # the simulated machine's first device, as `vdx-sim ctl dump` names it


def ctl(*args: str) -> str:
    """Runs `vdx-sim ctl ARGS` and returns its output."""
    return subprocess.run([SIM, "ctl", *args], check=True, capture_output=True, text=True).stdout


def python(code: str, prefix=(), env=None) -> subprocess.CompletedProcess:
    """Runs `code` in a new interpreter (after `prefix`, a command such as setpriv)."""
    environment = dict(os.environ)
    environment.update(env or {})
    return subprocess.run([*prefix, sys.executable, "-c", code], capture_output=True,
                          text=True, timeout=120, env=environment)


@pytest.fixture(autouse=True)
def empty_machine():
    """Every test starts and leaves the machine without virtual devices."""
    yield
    for index in range(zovdx.device_count()):
        zovdx.destroy_device(index)
    assert not os.path.isdir("/etc/vdev") or os.listdir("/etc/vdev") == []
