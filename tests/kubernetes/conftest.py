"""Fixtures of the device plugin's tests. They run as root inside vdx-sim (ctest starts them
there) with the built tools named in the environment: VDXCTL_BIN, VDXD_BIN, PLUGIN_BIN, and
STUBS, the directory of the Python stubs generated from the plugin's .proto files."""
import os
import queue
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

import pytest

sys.path.insert(0, os.environ.get("STUBS", ""))
sys.path.insert(0, os.path.dirname(__file__))

import deviceplugin_pb2 as api  # noqa: E402
from kubelet_standin import Kubelet  # noqa: E402

VDXCTL = os.environ.get("VDXCTL_BIN", "vdxctl")
VDXD = os.environ.get("VDXD_BIN", "vdxd")
PLUGIN = os.environ.get("PLUGIN_BIN", "vdx-device-plugin")
SIM = os.environ.get("VDX_SIM_BIN", "vdx-sim")


def vdxctl(*args):
    """Runs vdxctl; its standard output (it must succeed)."""
    result = subprocess.run([VDXCTL, *args], capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    return result.stdout


def ctl(*args):
    return subprocess.run([SIM, "ctl", *args], check=True, capture_output=True, text=True).stdout


@pytest.fixture
def vdxd():
    """vdxd, which keeps the virtual devices' instances started."""
    daemon = subprocess.Popen([VDXD, "--interval", "1"], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
    time.sleep(0.3)
    yield daemon
    daemon.terminate()
    daemon.wait()


@pytest.fixture
def kubelet():
    # A short path: a socket's path must fit in 108 bytes, as the kubelet's own does.
    directory = tempfile.mkdtemp(prefix="kubelet-", dir="/tmp")
    stand_in = Kubelet(directory)
    stand_in.start()
    yield stand_in
    stand_in.stop()
    shutil.rmtree(directory)


class Plugin:
    def __init__(self, kubelet, cdi_dir, *args):
        self.kubelet = kubelet
        self.cdi_dir = cdi_dir
        self.log_path = os.path.join(kubelet.directory, "plugin.log")
        with open(self.log_path, "w") as log:
            self.process = subprocess.Popen(
                [PLUGIN, "--plugin-dir", kubelet.directory, "--cdi-dir", str(cdi_dir), *args],
                stdout=log, stderr=subprocess.STDOUT)

    def log(self):
        with open(self.log_path) as f:
            return f.read()

    def stop(self):
        """SIGTERM; the exit status."""
        self.process.send_signal(signal.SIGTERM)
        try:
            return self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            return self.process.wait()


@pytest.fixture
def start_plugin(kubelet, tmp_path):
    started = []

    def start(*args):
        plugin = Plugin(kubelet, tmp_path / "cdi", *args)
        started.append(plugin)
        return plugin

    yield start
    for plugin in started:
        if plugin.process.poll() is None:
            plugin.stop()


class Watch:
    """A ListAndWatch stream read on a thread of its own: every list it sent, in order."""

    def __init__(self, stub):
        self.lists = queue.Queue()
        self.call = stub.ListAndWatch(api.Empty())
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()
        self.latest = None

    def _read(self):
        try:
            for response in self.call:
                self.lists.put({d.ID: d.health for d in response.devices})
        except Exception:  # the stream ended: cancelled, or the plugin went away
            self.lists.put(None)

    def until(self, predicate, timeout=5.0):
        """The first list (from now on) for which predicate holds, and the seconds it took;
        (the last list seen, None) when none came in time."""
        start = time.monotonic()
        while time.monotonic() - start < timeout:
            try:
                devices = self.lists.get(timeout=max(0.0, timeout - (time.monotonic() - start)))
            except queue.Empty:
                break
            if devices is None:
                break
            self.latest = devices
            if predicate(devices):
                return devices, time.monotonic() - start
        return self.latest, None

    def close(self):
        self.call.cancel()


@pytest.fixture(autouse=True)
def empty_machine():
    """Every test starts and leaves the machine without virtual devices."""
    yield
    if not os.path.exists(VDXCTL):
        return  # a test that needs no machine (the manifests)
    for device in ("0", "1"):
        subprocess.run([VDXCTL, "destroy", "--device", device], capture_output=True)
