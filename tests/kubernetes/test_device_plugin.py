"""vdx-device-plugin against the kubelet stand-in, in vdx-sim with vdxd running: registration,
the device list and its changes, health, Allocate, GetPreferredAllocation, a kubelet restart
and both strategies."""
import json
import os
import time
import urllib.request

import grpc
import pytest

import deviceplugin_pb2 as api
from conftest import Watch, vdxctl
from kubelet_standin import PodResources

SINGLE = "zovdx-vdev.sock"


def allocate(stub, *containers):
    request = api.AllocateRequest(container_requests=[
        api.ContainerAllocateRequest(devices_ids=list(ids)) for ids in containers])
    return stub.Allocate(request, timeout=5)


def test_it_serves_first_then_registers(vdxd, kubelet, start_plugin):
    vdxctl("create", "0", "--units", "8,4", "--memory", "1024,2048")
    plugin = start_plugin()
    (_, request, served), = kubelet.wait_for_registrations(1)
    assert request.version == "v1beta1"
    assert request.resource_name == "zovdx.dev/vdev"
    assert request.endpoint == SINGLE
    assert request.options.get_preferred_allocation_available
    assert served, "the kubelet's dial-back found the endpoint serving"
    options = kubelet.plugin(SINGLE).GetDevicePluginOptions(api.Empty(), timeout=5)
    assert options.get_preferred_allocation_available and not options.pre_start_required
    assert plugin.stop() == 0


def test_the_list_follows_every_change_within_a_second(vdxd, kubelet, start_plugin):
    vdxctl("create", "0", "--units", "8,4", "--memory", "1024,2048")
    start_plugin()
    kubelet.wait_for_registrations(1)
    watch = Watch(kubelet.plugin(SINGLE))
    devices, _ = watch.until(lambda d: d == {"vdev0": "Healthy", "vdev1": "Healthy"})
    assert devices == {"vdev0": "Healthy", "vdev1": "Healthy"}

    vdxctl("create", "1", "--units", "8", "--memory", "1024")
    devices, seconds = watch.until(lambda d: "vdev2" in d)
    assert seconds is not None and seconds < 1.0, devices
    devices, _ = watch.until(lambda d: d.get("vdev2") == "Healthy")
    assert devices["vdev2"] == "Healthy", "vdxd started it"

    vdxctl("update", "2", "--units", "4")
    _, seconds = watch.until(lambda d: True)
    assert seconds is not None and seconds < 1.0, "an update is a change too"

    vdxctl("destroy", "2")
    devices, seconds = watch.until(lambda d: "vdev2" not in d)
    assert seconds is not None and seconds < 1.0, devices
    watch.close()


def test_health_goes_down_and_comes_back(vdxd, kubelet, start_plugin):
    vdxctl("create", "0", "--units", "8,4", "--memory", "1024,2048")
    start_plugin()
    kubelet.wait_for_registrations(1)
    watch = Watch(kubelet.plugin(SINGLE))
    watch.until(lambda d: d.get("vdev1") == "Healthy")
    vdxctl("stop", "1")  # vdxd's instance of it goes
    devices, seconds = watch.until(lambda d: d.get("vdev1") == "Unhealthy")
    assert seconds is not None and seconds < 2.0, devices
    assert devices["vdev0"] == "Healthy"
    vdxctl("start", "1")
    devices, seconds = watch.until(lambda d: d.get("vdev1") == "Healthy")
    assert seconds is not None, devices
    watch.close()


def test_a_device_whose_accelerator_is_gone_is_unhealthy_until_it_is_back(vdxd, kubelet,
                                                                          start_plugin):
    vdxctl("create", "1", "--units", "8", "--memory", "1024")
    start_plugin()
    kubelet.wait_for_registrations(1)
    watch = Watch(kubelet.plugin(SINGLE))
    watch.until(lambda d: d.get("vdev0") == "Healthy")
    path = "/etc/vdev/vdev0.conf"
    with open(path) as f:
        original = f.read()
    # The file now names an accelerator this machine does not have.
    with open(path, "w") as f:
        f.write(original.replace("PciBusId: 0000:04:00.0", "PciBusId: 0000:7f:00.0"))
    devices, seconds = watch.until(lambda d: d.get("vdev0") == "Unhealthy")
    assert seconds is not None and seconds < 2.0, devices
    with open(path, "w") as f:
        f.write(original)
    devices, seconds = watch.until(lambda d: d.get("vdev0") == "Healthy", timeout=5)
    assert seconds is not None, devices
    watch.close()


def test_allocate_hands_out_names_the_runtime_resolves(vdxd, kubelet, start_plugin, tmp_path):
    vdxctl("create", "0", "--units", "8,4", "--memory", "1024,2048")
    vdxctl("create", "1", "--units", "0", "--memory", "1024")  # shares device 1's units
    start_plugin()
    kubelet.wait_for_registrations(1)
    stub = kubelet.plugin(SINGLE)
    answer = allocate(stub, ["vdev0", "vdev1"], ["vdev2"])  # two containers of one pod
    names = [[c.name for c in r.cdi_devices] for r in answer.container_responses]
    assert names == [["zovdx.dev/vdev=0", "zovdx.dev/vdev=1"], ["zovdx.dev/vdev=2"]]
    assert [c.name for c in allocate(stub, ["vdev1"]).container_responses[0].cdi_devices] == \
        ["zovdx.dev/vdev=1"]
    assert all(not r.mounts and not r.devices for r in answer.container_responses)
    # Every name resolves in the CDI file the plugin keeps.
    with open(tmp_path / "cdi" / "zovdx-device-plugin.json") as f:
        cdi_file = json.load(f)
    defined = {f"{cdi_file['kind']}={d['name']}" for d in cdi_file["devices"]}
    assert {n for container in names for n in container} <= defined

    for containers, says in (([["vdev0", "vdev2"]], "cannot be given to a container together"),
                             ([["vdev9"]], "unknown device vdev9"),
                             ([["vdev0"], ["vdev1", "vdev0"]], "asked for by more than one container")):
        with pytest.raises(grpc.RpcError) as refused:
            allocate(stub, *containers)
        assert refused.value.code() == grpc.StatusCode.INVALID_ARGUMENT
        assert says in refused.value.details()


def test_without_cdi_the_node_and_the_files(vdxd, kubelet, start_plugin):
    vdxctl("create", "0", "--units", "8,4", "--memory", "1024,2048")
    start_plugin("--cdi=false")
    kubelet.wait_for_registrations(1)
    answer = allocate(kubelet.plugin(SINGLE), ["vdev1", "vdev0"]).container_responses[0]
    assert not answer.cdi_devices
    assert [(m.host_path, m.container_path, m.read_only) for m in answer.mounts] == [
        ("/etc/vdev/vdev1.conf", "/etc/vdev/docker/vdev1.conf", True),
        ("/etc/vdev/vdev0.conf", "/etc/vdev/docker/vdev0.conf", True)]
    assert [(d.host_path, d.container_path, d.permissions) for d in answer.devices] == [
        ("/dev/mkfd", "/dev/mkfd", "rw")]


def test_preferred_allocation_keeps_a_container_on_one_accelerator(vdxd, kubelet, start_plugin):
    vdxctl("create", "0", "--units", "8,4", "--memory", "1024,2048")  # vdev0, vdev1
    vdxctl("create", "1", "--units", "8,8", "--memory", "1024,1024")  # vdev2, vdev3
    start_plugin()
    kubelet.wait_for_registrations(1)
    stub = kubelet.plugin(SINGLE)

    def prefer(available, must, size):
        request = api.PreferredAllocationRequest(container_requests=[
            api.ContainerPreferredAllocationRequest(available_deviceIDs=available,
                                                    must_include_deviceIDs=must,
                                                    allocation_size=size)])
        return list(stub.GetPreferredAllocation(request, timeout=5).container_responses[0].deviceIDs)

    everything = ["vdev0", "vdev2", "vdev1", "vdev3"]
    assert prefer(everything, ["vdev2"], 2) == ["vdev2", "vdev3"]
    assert prefer(everything, ["vdev1"], 2) == ["vdev1", "vdev0"]
    assert prefer(everything, [], 1) in (["vdev0"], ["vdev2"])
    assert prefer(["vdev0", "vdev2", "vdev3"], [], 2) == ["vdev2", "vdev3"]
    assert prefer(everything, ["vdev1", "vdev2"], 2) == ["vdev1", "vdev2"]


def test_a_kubelet_restart_is_met_with_a_new_registration(vdxd, kubelet, start_plugin):
    vdxctl("create", "0", "--units", "8,4", "--memory", "1024,2048")
    start_plugin()
    kubelet.wait_for_registrations(1)
    kubelet.restart()  # every socket removed, kubelet.sock made anew
    registrations = kubelet.wait_for_registrations(2)
    assert len(registrations) == 2
    assert registrations[1][2], "served again before registering again"
    watch = Watch(kubelet.plugin(SINGLE))
    healthy = {"vdev0": "Healthy", "vdev1": "Healthy"}
    devices, _ = watch.until(lambda d: d == healthy, timeout=5)
    assert devices == healthy
    watch.close()


def test_mixed_offers_one_resource_per_shape(vdxd, kubelet, start_plugin):
    vdxctl("create", "0", "--units", "8,8,4", "--memory", "1024,1024,1024")
    vdxctl("create", "1", "--units", "0", "--memory", "2048")
    plugin = start_plugin("--strategy", "mixed")
    registrations = kubelet.wait_for_registrations(3)
    offered = {r.resource_name: r.endpoint for _, r, _ in registrations}
    assert offered == {"zovdx.dev/vdev-8cu-1024mib": "zovdx-vdev-8cu-1024mib.sock",
                       "zovdx.dev/vdev-4cu-1024mib": "zovdx-vdev-4cu-1024mib.sock",
                       "zovdx.dev/vdev-shared-2048mib": "zovdx-vdev-shared-2048mib.sock"}, plugin.log()
    for resource, expected in (("zovdx.dev/vdev-8cu-1024mib", {"vdev0", "vdev1"}),
                               ("zovdx.dev/vdev-shared-2048mib", {"vdev3"})):
        watch = Watch(kubelet.plugin(offered[resource]))
        devices, _ = watch.until(lambda d: set(d) == expected)
        assert set(devices) == expected, resource
        watch.close()
    # A new shape appearing later gets its endpoint and registration.
    vdxctl("create", "1", "--units", "16", "--memory", "4096")
    registrations = kubelet.wait_for_registrations(4, timeout=5)
    assert registrations[-1][1].resource_name == "zovdx.dev/vdev-16cu-4096mib"


def test_vdxd_labels_the_metrics_with_the_pod_that_holds_a_device(vdxd, kubelet, start_plugin):
    vdxctl("create", "0", "--units", "8,4", "--memory", "1024,2048")
    socket = os.path.join(kubelet.directory, "pod-resources.sock")
    lister = PodResources(socket)
    lister.assigned = [("ml", "trainer-0", "main", "zovdx.dev/vdev", ["vdev1"]),
                       ("other", "cpu-job", "main", "example.com/thing", ["vdev0"])]
    lister.start()
    plugin = start_plugin("--pod-resources-socket", socket)
    kubelet.wait_for_registrations(1)

    def page():
        with urllib.request.urlopen("http://127.0.0.1:9464/metrics", timeout=5) as answer:
            return answer.read().decode()

    labelled = 'vdx_vdev_started{vdev="1",device="0",name="ZO XC-100 32G",container_id="0x0",' \
               'namespace="ml",pod="trainer-0",container="main"} 1'
    deadline = time.monotonic() + 5
    while labelled not in page() and time.monotonic() < deadline:
        time.sleep(0.2)
    text = page()
    assert labelled in text, text
    # Another resource's devices and an unheld device carry no pod.
    assert 'vdx_vdev_started{vdev="0",device="0",name="ZO XC-100 32G",container_id="0x0"} 1' in text
    # The plugin gone, its file goes with it, and so do the labels.
    assert plugin.stop() == 0
    lister.stop()
    deadline = time.monotonic() + 5
    while "trainer-0" in page() and time.monotonic() < deadline:
        time.sleep(0.2)
    assert "trainer-0" not in page()
