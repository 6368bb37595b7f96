"""The DaemonSet and the sample pod carry what the plugin and vdxd need on a node."""
import os

import yaml

HERE = os.path.dirname(os.path.abspath(__file__))
DEPLOY = os.path.join(HERE, "..", "..", "deploy", "kubernetes")


def load(name):
    with open(os.path.join(DEPLOY, name)) as f:
        return yaml.safe_load(f)


def test_the_daemonset_carries_the_node_paths_and_namespaces():
    daemonset = load("daemonset.yaml")
    assert (daemonset["apiVersion"], daemonset["kind"]) == ("apps/v1", "DaemonSet")
    pod = daemonset["spec"]["template"]["spec"]
    assert pod["hostNetwork"] is True, "the host manager service lives in the host's network"
    assert pod["nodeSelector"] == {"zovdx.dev/accelerator": "true"}
    selector = daemonset["spec"]["selector"]["matchLabels"]
    assert selector.items() <= daemonset["spec"]["template"]["metadata"]["labels"].items()
    host_paths = {v["name"]: v["hostPath"]["path"] for v in pod["volumes"]}
    assert set(host_paths.values()) >= {"/etc/vdev", "/dev/mkfd", "/var/lib/kubelet/device-plugins",
                                         "/var/lib/kubelet/pod-resources", "/var/run/cdi"}
    containers = {c["name"]: c for c in pod["containers"]}
    assert set(containers) == {"vdxd", "device-plugin"}
    for container in containers.values():
        assert {"name": "VDX_RUNTIME_ENV_OVERRIDE", "value": "bare-metal"} in container["env"]
        mounts = {m["name"]: m["mountPath"] for m in container["volumeMounts"]}
        for name, path in mounts.items():
            assert name in host_paths, name
            assert path == host_paths[name], "mounted where the host has it"
        assert {"/etc/vdev", "/dev/mkfd"} <= set(mounts.values())
    plugin_mounts = {m["mountPath"] for m in containers["device-plugin"]["volumeMounts"]}
    assert {"/var/lib/kubelet/device-plugins", "/var/lib/kubelet/pod-resources",
            "/var/run/cdi"} <= plugin_mounts
    assert containers["device-plugin"]["command"][0] == "/usr/bin/vdx-device-plugin"
    assert containers["vdxd"]["command"][0] == "/usr/sbin/vdxd"


def test_the_sample_pod_asks_for_one_virtual_device():
    pod = load("sample-pod.yaml")
    assert (pod["apiVersion"], pod["kind"]) == ("v1", "Pod")
    limits = pod["spec"]["containers"][0]["resources"]["limits"]
    assert limits == {"zovdx.dev/vdev": 1}
