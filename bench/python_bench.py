"""What the zovdx Python package adds to a call: zovdx.vdevice() against the same library
function called through bare ctypes, in the same run. Run it in the simulator:

  ZOVDX_LIBRARY=$PWD/build/libzovdx.so.1 PYTHONPATH=$PWD/python \
    build/sim/vdx-sim -- /usr/bin/python3 bench/python_bench.py [CALLS]
"""
import ctypes
import sys
import timeit

import zovdx
from zovdx import _native

calls = int(sys.argv[1]) if len(sys.argv) > 1 else 20000
zovdx.create(0, units=[8], memory_mib=[1024])
library = _native.library()
info = _native.DeviceInfo()
bare = min(timeit.repeat(lambda: library.vdxGetVDeviceInfo(0, ctypes.byref(info)),
                         number=calls, repeat=3)) / calls
typed = min(timeit.repeat(lambda: zovdx.vdevice(0), number=calls, repeat=3)) / calls
print(f"vdxGetVDeviceInfo through bare ctypes  {bare * 1e6:8.2f} us  (baseline)")
print(f"zovdx.vdevice                         {typed * 1e6:8.2f} us  ratio {typed / bare:.2f}")
zovdx.destroy_device(0)
