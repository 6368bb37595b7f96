// The exported functions: the gates in front of the device manager.
#include <cstring>

#include "utils/logger.h"
#include "zovdx/vdx.h"

extern "C" vdxStatus vdxInitDevice(vdxDeviceInfo* device_info) {
  // A debug line that cannot be written (no memory, a broken lock) is no reason to let an
  // exception into a C caller.
  try {
    LOG_DEBUG("[%s] %s: this api has been deprecated, there's no need to invoked this interface "
              "while using virtual gpus.\n",
              __func__, "\033[33mInfo\033[0m");
  } catch (...) {
  }
  if (device_info != nullptr) std::memset(device_info, 0, sizeof(*device_info));
  return VDX_STATUS_SUCCESS;
}
