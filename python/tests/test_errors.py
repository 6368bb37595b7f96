"""Each exception from a real cause, wrong arguments refused before the library is called,
and a library that cannot be found."""
import ctypes
import os

import pytest

import zovdx
from zovdx import _native
from conftest import GPU0, ctl, python

RAISES = ("import zovdx\n"
          "try:\n"
          "    {call}\n"
          "    print('no error')\n"
          "except zovdx.VdxError as e:\n"
          "    print(type(e).__name__, e.status)\n")


def test_not_root_is_a_permission_error():
    nobody = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
    result = python(RAISES.format(call="zovdx.create(0)"), prefix=nobody)
    assert result.stdout == "VdxPermissionError 19\n", result.stderr
    result = python("import zovdx; print(zovdx.device_count())", prefix=nobody)
    assert result.stdout == "2\n", "queries work for everyone: " + result.stderr


def test_inside_a_container_changes_are_not_supported():
    zovdx.create(0, units=[8, 4], memory_mib=[1024, 2048])
    os.makedirs("/etc/vdev/docker", exist_ok=True)
    # The container's view: a private mount namespace with the file of virtual device 1.
    enter = ["unshare", "--mount", "--propagation", "private", "sh", "-c",
             "mount -t tmpfs tmpfs /etc/vdev/docker && touch /etc/vdev/docker/vdev1.conf && "
             "mount --bind /etc/vdev/vdev1.conf /etc/vdev/docker/vdev1.conf && exec \"$@\"", "sh"]
    result = python("import zovdx\n"
                    "print([d.compute_units for d in zovdx.devices()], zovdx.max_vdevice_count())\n"
                    + RAISES.format(call="zovdx.create(0)"), prefix=enter)
    assert result.stdout == "[4] 0\nVdxNotSupportedError 6\n", result.stderr
    os.rmdir("/etc/vdev/docker")


def test_a_shortage_is_out_of_resources():
    with pytest.raises(zovdx.VdxOutOfResourcesError) as raised:
        zovdx.create(0, units=[61])
    assert raised.value.status == 11 and "vdxCreateVDevices(0)" in str(raised.value)
    zovdx.create(0, count=4)
    with pytest.raises(zovdx.VdxOutOfResourcesError):
        zovdx.create(0, count=1)  # no pipe left
    assert zovdx.vdevice_count() == 4


def test_an_unknown_id_is_not_found():
    for call in (lambda: zovdx.vdevice(5), lambda: zovdx.update(5, units=1),
                 lambda: zovdx.vdevice_busy(5)):
        with pytest.raises(zovdx.VdxNotFoundError) as raised:
            call()
        assert raised.value.status == 15
        assert raised.value.text == zovdx.status_text(15)


def test_a_virtual_device_in_use_is_busy():
    zovdx.create(0, units=[8], memory_mib=[1024])
    zovdx.start(0)
    ctl("refcount", GPU0, "0", "2")  # another process holds it
    with pytest.raises(zovdx.VdxBusyError) as raised:
        zovdx.destroy(0)
    assert raised.value.status == 17
    assert os.path.exists("/etc/vdev/vdev0.conf")
    ctl("refcount", GPU0, "0", "1")


@pytest.mark.parametrize("call, error", [
    (lambda: zovdx.device("0"), TypeError),
    (lambda: zovdx.device(0.0), TypeError),
    (lambda: zovdx.vdevice(True), TypeError),
    (lambda: zovdx.device(-1), ValueError),
    (lambda: zovdx.device(2**31), ValueError),
    (lambda: zovdx.vdevice(32), ValueError),
    (lambda: zovdx.start(-1), ValueError),
    (lambda: zovdx.create(0, count=5), ValueError),
    (lambda: zovdx.create(0, count=0), ValueError),
    (lambda: zovdx.create(0, units="8"), TypeError),
    (lambda: zovdx.create(0, units=[8], memory_mib=[1, 2]), ValueError),
    (lambda: zovdx.create(0, count=2, units=[8]), ValueError),
    (lambda: zovdx.create(0, units=[-1]), ValueError),
    (lambda: zovdx.create(0, memory_mib=[0]), ValueError),
    (lambda: zovdx.create(0, memory_mib=[2**31]), ValueError),
    (lambda: zovdx.update(0), ValueError),
    (lambda: zovdx.update(0, units=1.5), TypeError),
    (lambda: zovdx.set_log_level("loud"), ValueError),
    (lambda: zovdx.set_log_level(4), TypeError),
    (lambda: zovdx.set_encryption(1), TypeError),
    (lambda: zovdx.status_text(12345), ValueError),
])
def test_wrong_arguments_never_reach_the_library(call, error):
    with pytest.raises(error):
        call()
    assert os.listdir("/etc/vdev") == [] and zovdx.encryption() is False


def test_a_named_library_that_cannot_load():
    result = python("import zovdx\n"
                    "try:\n"
                    "    zovdx.device_count()\n"
                    "except zovdx.LibraryNotFoundError as e:\n"
                    "    print(e)\n",
                    env={"ZOVDX_LIBRARY": "/nonexistent/libzovdx.so.1"})
    assert result.stdout.startswith(
        "cannot load libzovdx from ZOVDX_LIBRARY=/nonexistent/libzovdx.so.1: "), result.stderr


def test_the_search_says_what_it_tried(monkeypatch):
    monkeypatch.delenv("ZOVDX_LIBRARY")
    monkeypatch.setattr(ctypes.util, "find_library", lambda name: "libzovdx.so.1.9")

    def refuse(name, *args, **kwargs):
        raise OSError(f"{name}: cannot open shared object file")

    monkeypatch.setattr(ctypes, "CDLL", refuse)
    with pytest.raises(zovdx.LibraryNotFoundError) as raised:
        _native._open()
    message = str(raised.value)
    assert "ZOVDX_LIBRARY is not set" in message
    assert "tried libzovdx.so.1.9 (" in message and "; libzovdx.so.1 (" in message
