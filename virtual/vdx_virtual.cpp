// The exported functions: the gates in front of the device manager.
//
// A fully gated function starts the manager once per process (the first call does the whole
// start-up; concurrent first callers wait for it), returns the remembered start-up status
// when that failed (never retried), and otherwise calls one manager method under the
// process-wide gate mutex. The encryption pair reaches the manager without start-up and
// without the mutex. No exception leaves these functions: one that escapes a manager method
// is reported as VDX_STATUS_INTERNAL_EXCEPTION.
#include <atomic>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>

#include "utils/logger.h"
#include "virtual/dmvirtual_labels.h"
#include "virtual/include/dmvirtual.h"
#include "zovdx/vdx.h"

namespace {

std::once_flag gvdxInitialized;
vdxStatus gDmvirtualInitStatus = VDX_STATUS_SUCCESS;
// Set once the start-up has run: later calls pass with one load, without std::call_once,
// which reaches thread-local state on every call.
std::atomic<bool> gvdxInitDone{false};

void vdxInit() {
  // A start-up that throws (a container id that is not hexadecimal, a malformed group entry
  // of the driver) fails like any other start-up, and is remembered like one.
  try {
    utils::MutexLock lock(&gvdxlock);
    gDmvirtualInitStatus = Dmvirtual::Instance().Init();
  } catch (const std::exception& e) {
    gDmvirtualInitStatus = VDX_STATUS_INTERNAL_EXCEPTION;
    try {
      LOG_DEBUG("[%s] %s: failed to initialize virtual singleton. Due to %s\n", __func__,
                kLabelError, e.what());
    } catch (...) {
    }
  } catch (...) {
    gDmvirtualInitStatus = VDX_STATUS_INTERNAL_EXCEPTION;
  }
  gvdxInitDone.store(true, std::memory_order_release);
}

template <typename Method>
vdxStatus FullGate(Method method) {
  try {
    if (!gvdxInitDone.load(std::memory_order_acquire)) std::call_once(gvdxInitialized, vdxInit);
    if (gDmvirtualInitStatus != VDX_STATUS_SUCCESS) return gDmvirtualInitStatus;
    utils::MutexLock lock(&gvdxlock);
    return method(Dmvirtual::Instance());
  } catch (...) {
    return VDX_STATUS_INTERNAL_EXCEPTION;
  }
}

template <typename Method>
vdxStatus InstanceGate(Method method) {
  try {
    return method(Dmvirtual::Instance());
  } catch (...) {
    return VDX_STATUS_INTERNAL_EXCEPTION;
  }
}

}  // namespace

utils::Mutex gvdxlock;

extern "C" {

vdxStatus vdxGetDeviceCount(int* count) {
  return FullGate([&](Dmvirtual& dm) REQUIRES(gvdxlock) { return dm.GetDeviceCount(count); });
}

vdxStatus vdxGetDeviceInfo(int device_id, vdxDeviceInfo* device_info) {
  return FullGate([&](Dmvirtual& dm) REQUIRES(gvdxlock) { return dm.GetDeviceInfo(device_id, device_info); });
}

vdxStatus vdxGetDeviceRemainingInfo(int device_id, size_t* cus, size_t* memories) {
  return FullGate(
      [&](Dmvirtual& dm) REQUIRES(gvdxlock) { return dm.GetDeviceRemainingInfo(device_id, cus, memories); });
}

vdxStatus vdxCreateVDevices(int device_id, int vdev_count, int* vdev_cus, int* vdev_memories) {
  return FullGate([&](Dmvirtual& dm) REQUIRES(gvdxlock) {
    return dm.CreateVirtualDevices(device_id, vdev_count, vdev_cus, vdev_memories);
  });
}

vdxStatus vdxGetVDeviceCount(int* count) {
  return FullGate([&](Dmvirtual& dm) REQUIRES(gvdxlock) { return dm.GetVirualDeviceCount(count); });
}

vdxStatus vdxGetVDeviceInfo(int vdevice_id, vdxDeviceInfo* vdevice_info) {
  return FullGate([&](Dmvirtual& dm) REQUIRES(gvdxlock) { return dm.GetVirtualDeviceInfo(vdevice_id, vdevice_info); });
}

vdxStatus vdxDestroyVDevices(int device_id) {
  return FullGate([&](Dmvirtual& dm) REQUIRES(gvdxlock) { return dm.DestroyVirtualDevices(device_id); });
}

vdxStatus vdxDestroySingleVDevice(int vdevice_id) {
  return FullGate([&](Dmvirtual& dm) REQUIRES(gvdxlock) { return dm.DestroyVirtualDevice(vdevice_id); });
}

vdxStatus vdxUpdateSingleVDevice(int vdevice_id, int vdev_cus, int vdev_memories) {
  return FullGate(
      [&](Dmvirtual& dm) REQUIRES(gvdxlock) { return dm.UpdateVirtualDevice(vdevice_id, vdev_cus, vdev_memories); });
}

vdxStatus vdxStartVDevice(int vdevice_id) {
  return FullGate([&](Dmvirtual& dm) REQUIRES(gvdxlock) { return dm.StartVirtualDevice(&vdevice_id, 1); });
}

vdxStatus vdxStopVDevice(int vdevice_id) {
  return FullGate([&](Dmvirtual& dm) REQUIRES(gvdxlock) { return dm.StopVirtualDevice(&vdevice_id, 1); });
}

vdxStatus vdxGetDevBusyPercent(int device_id, int* busy_percent) {
  return FullGate([&](Dmvirtual& dm) REQUIRES(gvdxlock) { return dm.GetDevBusyPercent(device_id, busy_percent); });
}

vdxStatus vdxGetVDevBusyPercent(int vdevice_id, int* busy_percent) {
  return FullGate([&](Dmvirtual& dm) REQUIRES(gvdxlock) { return dm.GetVDevBusyPercent(vdevice_id, busy_percent); });
}

vdxStatus vdxGetMaxVDeviceCount(int* count) {
  return FullGate([&](Dmvirtual& dm) REQUIRES(gvdxlock) { return dm.GetMaxVirtualDeviceCountSupport(count); });
}

vdxStatus vdxSetLogLevel(const char* log_level) {
  return FullGate([&](Dmvirtual& dm) REQUIRES(gvdxlock) { return dm.SetLogLevel(std::string(log_level)); });
}

vdxStatus vdxSetEncryptionVMStatus(bool status) {
  return InstanceGate([&](Dmvirtual& dm) { return dm.SetEncryptedVMStatus(status); });
}

vdxStatus vdxGetEncryptionVMStatus(bool* status) {
  return InstanceGate([&](Dmvirtual& dm) { return dm.GetEncryptedVMStatus(status); });
}

vdxStatus vdxInitDevice(vdxDeviceInfo* device_info) {
  // A debug line that cannot be written (no memory, a broken lock) is no reason to let an
  // exception into a C caller.
  try {
    LOG_DEBUG("[%s] %s: this api has been deprecated, there's no need to invoked this interface "
              "while using virtual gpus.\n",
              __func__, kLabelInfo);
  } catch (...) {
  }
  if (device_info != nullptr) std::memset(device_info, 0, sizeof(*device_info));
  return VDX_STATUS_SUCCESS;
}

}  // extern "C"
