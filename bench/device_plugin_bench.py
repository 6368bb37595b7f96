"""How fast vdx-device-plugin tells the kubelet about a change, and answers Allocate.

- create -> list: from the start of `vdxctl create` to the ListAndWatch answer that shows the
  new virtual device; baseline: the `vdxctl create` command alone.
- Allocate: one Allocate of one device; baseline: a GetDevicePluginOptions round trip (the
  cost of a gRPC call that does nothing).

Run it in the simulator as root, after building (the stubs come from the build tree):
  build/sim/vdx-sim -- /usr/bin/python3 bench/device_plugin_bench.py build [ROUNDS]
"""
import os
import statistics
import subprocess
import sys
import time

build = os.path.abspath(sys.argv[1])
rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 20
top = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
os.environ.update(STUBS=f"{build}/tests/kubernetes/stubs", VDXCTL_BIN=f"{build}/tools/vdxctl",
                  VDXD_BIN=f"{build}/tools/vdxd",
                  PLUGIN_BIN=f"{build}/tools/vdx-device-plugin/vdx-device-plugin")
sys.path.insert(0, f"{top}/tests/kubernetes")
from conftest import PLUGIN, VDXCTL, VDXD, Watch, api  # noqa: E402
from kubelet_standin import Kubelet  # noqa: E402
import tempfile  # noqa: E402


def median_ms(values):
    return statistics.median(values) * 1e3


directory = tempfile.mkdtemp(prefix="kubelet-", dir="/tmp")
kubelet = Kubelet(directory)
kubelet.start()
daemon = subprocess.Popen([VDXD, "--interval", "1"], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL)
plugin = subprocess.Popen([PLUGIN, "--plugin-dir", directory, "--cdi-dir", directory + "/cdi"],
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
try:
    kubelet.wait_for_registrations(1)
    stub = kubelet.plugin("zovdx-vdev.sock")
    watch = Watch(stub)
    watch.until(lambda d: True)
    command, shown = [], []
    for _ in range(rounds):
        start = time.perf_counter()
        subprocess.run([VDXCTL, "create", "0", "--count", "1"], check=True,
                       stdout=subprocess.DEVNULL)
        command.append(time.perf_counter() - start)
        watch.until(lambda d: "vdev0" in d, timeout=5)
        shown.append(time.perf_counter() - start)
        subprocess.run([VDXCTL, "destroy", "--device", "0"], check=True, stdout=subprocess.DEVNULL)
        watch.until(lambda d: "vdev0" not in d, timeout=5)
    subprocess.run([VDXCTL, "create", "0", "--count", "2"], check=True, stdout=subprocess.DEVNULL)
    watch.until(lambda d: "vdev1" in d, timeout=5)
    request = api.AllocateRequest(container_requests=[api.ContainerAllocateRequest(devices_ids=["vdev1"])])
    noop, allocate = [], []
    for _ in range(rounds * 10):
        start = time.perf_counter()
        stub.GetDevicePluginOptions(api.Empty(), timeout=5)
        noop.append(time.perf_counter() - start)
        start = time.perf_counter()
        stub.Allocate(request, timeout=5)
        allocate.append(time.perf_counter() - start)
    watch.close()
finally:
    plugin.terminate()
    plugin.wait()
    daemon.terminate()
    daemon.wait()
    kubelet.stop()

print(f"vdxctl create alone (baseline)     median {median_ms(command):7.2f} ms")
print(f"create -> ListAndWatch shows it    median {median_ms(shown):7.2f} ms  max {max(shown) * 1e3:7.2f} ms"
      f"  ratio {median_ms(shown) / median_ms(command):5.2f}")
print(f"no-op gRPC call (baseline)         median {median_ms(noop):7.2f} ms")
print(f"Allocate of one device             median {median_ms(allocate):7.2f} ms  max {max(allocate) * 1e3:7.2f} ms"
      f"  ratio {median_ms(allocate) / median_ms(noop):5.2f}")
