"""Every function's success path, checked against the simulated driver and the files."""
import os
import re

import pytest

import zovdx
from conftest import GPU0, ctl

GiB = 1 << 30
MiB = 1 << 20


def vdev_file(vdev_id: int) -> str:
    with open(f"/etc/vdev/vdev{vdev_id}.conf") as f:
        return f.read()


def test_queries_match_the_machine():
    dump = ctl("dump")
    gpus = re.findall(r"^gpu \d+ node \d+ cu (\d+) vram (\d+)", dump, re.M)
    devices = zovdx.devices()
    assert zovdx.device_count() == len(devices) == len(gpus) == 2
    for found, (units, vram) in zip(devices, gpus):
        assert (found.compute_units, found.memory_bytes) == (int(units), int(vram))
        assert zovdx.remaining(found.index) == zovdx.Remaining(int(units), int(vram))
    assert devices[0] == zovdx.device(0)
    assert devices[0].name == "ZO XC-100 32G"
    assert zovdx.max_vdevice_count() == 4
    assert zovdx.vdevice_count() == 0 and zovdx.vdevices() == []


def test_create_update_destroy_as_the_files_say():
    assert zovdx.create(0, units=[8, 4], memory_mib=[1024, 2048]) == [0, 1]
    assert "cu_count: 8\n" in vdev_file(0) and "mem: 2048 MiB\n" in vdev_file(1)
    assert zovdx.vdevice(1) == zovdx.VirtualDevice(1, 0, "ZO XC-100 32G", 4, 2 * GiB, 0, 0)
    assert zovdx.remaining(0) == zovdx.Remaining(48, 32 * GiB - 3 * GiB)
    # Left out, the sizes split the rest evenly; the count follows the lists, else is 1.
    assert zovdx.create(1) == [2]
    assert zovdx.vdevice(2).compute_units == 64 and zovdx.vdevice(2).memory_limit_bytes == 16 * GiB

    zovdx.update(1, units=6, memory_mib=4096)
    assert "cu_count: 6\n" in vdev_file(1) and "mem: 4096 MiB\n" in vdev_file(1)
    zovdx.update(1, memory_mib=512)
    assert (zovdx.vdevice(1).compute_units, zovdx.vdevice(1).memory_limit_bytes) == (6, 512 * MiB)

    assert zovdx.create(0, count=2) == [3, 4]
    assert zovdx.vdevice(3).compute_units + zovdx.vdevice(4).compute_units == 60 - 8 - 6
    assert zovdx.vdevice_count() == 5

    zovdx.destroy(2)
    assert not os.path.exists("/etc/vdev/vdev2.conf")
    zovdx.destroy_device(0)
    assert zovdx.vdevices() == []


def test_start_stop_and_busy_as_the_driver_says():
    zovdx.create(0, units=[8, 4], memory_mib=[1024, 1024])
    assert zovdx.vdevice_busy(0) is None, "not started"
    zovdx.start(0)
    assert re.search(r"vgpu 0 .* vram_limit 1073741824", ctl("dump"))
    ctl("busy", GPU0, "0x7")  # 3 of its 8 units, and of the device's 60
    assert zovdx.vdevice_busy(0) == 37
    assert zovdx.device_busy(0) == 5
    zovdx.stop(0)
    assert "vgpu 0 " not in ctl("dump")
    assert zovdx.vdevice_busy(0) is None

    zovdx.create(1, units=[0], memory_mib=[1024])  # shares the device's units
    zovdx.start(2)
    assert "vgpu" in ctl("dump")
    assert zovdx.vdevice_busy(2) is None, "no units of its own to measure"
    zovdx.stop(2)


def test_settings_and_texts(capfd):
    zovdx.set_encryption(True)
    assert zovdx.encryption() is True
    with open(os.path.expanduser("~/.zocu/encryp.conf")) as f:
        assert f.read() == "encryption: 1\n"
    zovdx.set_encryption(False)
    assert zovdx.encryption() is False

    zovdx.set_log_level("debug")
    zovdx.devices()
    assert "] [dmkfdGetAvailableMem] Node:1\n" in capfd.readouterr().out
    zovdx.set_log_level("none")
    zovdx.devices()
    assert capfd.readouterr().out == ""

    assert zovdx.status_text(17) == "The device is exist and may be in use."
    assert zovdx.status_text(0) != zovdx.status_text(1)
    with pytest.warns(DeprecationWarning):
        assert zovdx.init_device() is None
