// Destroying and updating virtual devices: the requests (one device, all of one physical
// device, an update in place) and the release of the container groups and driver instances
// that hold a virtual device. The requests run in the change frame (change_frame.h):
// virtual_device_lock exclusively and the file lock, shared, then exclusive before any change;
// the i-methods run under them. Driver instances are dmvirtual_instance.cpp's.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "utils/file.h"
#include "utils/logger.h"
#include "utils/utils.h"
#include "virtual/change_frame.h"
#include "virtual/dmvirtual_labels.h"
#include "virtual/include/dmvirtual.h"

vdxStatus Dmvirtual::DestroyVirtualDevices(int device_id) {
  const vdxStatus allowed =
      iChangeAllowed(__func__, "destroy virtual devices",
                     "current process is running in docker virtual env, not support.");
  if (allowed != VDX_STATUS_SUCCESS) return allowed;
  try {
    std::vector<int> ids;
    return iUnderExclusiveFileLock(
        false, __func__,
        [&]() REQUIRES(gvdxlock, virtual_device_lock) {
          ids.clear();
          // A physical device holds at most four: more can only be hand-made, and then none
          // is destroyed rather than an arbitrary four.
          for (const virtual_device_info& vdev : virtual_device_lists) {
            if (vdev.device_id != device_id) continue;
            if (ids.size() == static_cast<size_t>(kMaxVdevsPerDevice)) {
              LOG_DEBUG("[%s] %s: The number of virtual devices contained in the current physical "
                        "device exceeds the upper limit.\n",
                        "DestroyVirtualDevices", kLabelError);
              return VDX_STATUS_ERROR;
            }
            ids.push_back(vdev.vdev_id);
          }
          return VDX_STATUS_SUCCESS;
        },
        [&]() REQUIRES(gvdxlock, virtual_device_lock) {
          for (int id : ids) {
            const vdxStatus status = iDestroyVirtualDevice(id);
            if (status != VDX_STATUS_SUCCESS) {
              LOG_DEBUG("[%s] %s: failed to destroy virtual device(%d) belones to physical "
                        "device(%d), the followings are ignored!\n",
                        "DestroyVirtualDevices", kLabelError, id, device_id);
              return status;
            }
          }
          return VDX_STATUS_SUCCESS;
        });
  } catch (const std::exception& e) {
    LOG_DEBUG("[%s] %s: failed to destroy requested virtual devices. Due to %s\n", __func__,
              kLabelError, e.what());
    return VDX_STATUS_ERROR;
  }
}

vdxStatus Dmvirtual::DestroyVirtualDevice(int vdev_id) {
  const vdxStatus allowed =
      iChangeAllowed(__func__, "destroy virtual device",
                     "current process is running in docker virtual env, not support.");
  if (allowed != VDX_STATUS_SUCCESS) return allowed;
  if (vdev_id > kMaxVirtualDevices - 1) {
    LOG_DEBUG("[%s] %s: The virtual device id exceeds the upper limit.\n", __func__, kLabelError);
    return VDX_STATUS_ERROR;
  }
  // A negative id is no id: it never stands for another, and it is refused before anything
  // is looked at.
  if (vdev_id < 0) {
    LOG_DEBUG("[%s] %s: failed to destroy virtual device(%d).\n", __func__, kLabelError, vdev_id);
    return VDX_STATUS_VDEV_NOT_EXIST;
  }
  try {
    return iUnderExclusiveFileLock(
        false, __func__,
        []() { return VDX_STATUS_SUCCESS; },
        [&]() REQUIRES(gvdxlock, virtual_device_lock) {
          const vdxStatus status = iDestroyVirtualDevice(vdev_id);
          if (status != VDX_STATUS_SUCCESS)
            LOG_DEBUG("[%s] %s: failed to destroy virtual device(%d).\n", "DestroyVirtualDevice",
                      kLabelError, vdev_id);
          return status;
        });
  } catch (const std::exception& e) {
    LOG_DEBUG("[%s] %s: failed to destroy requested virtual device. Due to %s\n", __func__,
              kLabelError, e.what());
    return VDX_STATUS_ERROR;
  }
}

vdxStatus Dmvirtual::UpdateVirtualDevice(int vdev_id, int cu, int mem) {
  const vdxStatus allowed = iChangeAllowed(__func__, "update virtual device",
                                           "current is docker virtual env, not support.");
  if (allowed != VDX_STATUS_SUCCESS) return allowed;
  if (vdev_id > kMaxVirtualDevices - 1) {
    LOG_DEBUG("[%s] %s: The virtual device id exceeds the upper limit.\n", __func__, kLabelError);
    return VDX_STATUS_ERROR;
  }
  if (vdev_id < 0) {
    LOG_DEBUG("[%s] %s: failed to update virtual device(%d).\n", __func__, kLabelError, vdev_id);
    return VDX_STATUS_VDEV_NOT_EXIST;
  }
  // -1 keeps the present value; no memory is no virtual device.
  if (mem < -1 || mem == 0 || cu < -1) return VDX_STATUS_INVALID_ARGUMENTS;
  if (cu == -1 && mem == -1) return VDX_STATUS_SUCCESS;
  try {
    return iUnderExclusiveFileLock(
        true, __func__,
        []() { return VDX_STATUS_SUCCESS; },
        [&]() REQUIRES(gvdxlock, virtual_device_lock) {
          const vdxStatus status = iUpdateVirtualDevice(vdev_id, cu, mem);
          if (status != VDX_STATUS_SUCCESS)
            LOG_DEBUG("[%s] %s: failed to update virtual device(%d).\n", "UpdateVirtualDevice",
                      kLabelError, vdev_id);
          return status;
        });
  } catch (const std::exception& e) {
    LOG_DEBUG("[%s] %s: failed to update virtual device(%d). Due to %s\n", __func__, kLabelError,
              vdev_id, e.what());
    return VDX_STATUS_ERROR;
  }
}

vdxStatus Dmvirtual::iReleaseVdevHolders(const char* caller, const virtual_device_info& vdev,
                                         bool updating) {
  if (vdev.device_id < 0 || static_cast<size_t>(vdev.device_id) >= device_lists.size()) {
    LOG_DEBUG("[%s] %s: the device id(%d) of virtual device(%d) exceed the max physical device "
              "count(%u), virtual device configuration file may damaged.\n",
              caller, kLabelError, vdev.device_id, vdev.vdev_id,
              static_cast<unsigned>(device_lists.size()));
    return VDX_STATUS_ERROR;
  }
  // The container groups that hold the device go when nobody else uses them.
  iInitSysGroup();
  for (const sys_group_info& group : group_lists) {
    if (!(group.group_id & IdBit(vdev.vdev_id))) continue;
    dmkfdVdevInfo info;
    if (dmkfdQueryGroupInfo(static_cast<uint32_t>(vdev.device_id), group.container_id, &info) !=
        VDX_STATUS_SUCCESS) {
      LOG_DEBUG("[%s] %s: query the group info for device %d group %d failed.\n", caller,
                kLabelError, vdev.device_id, static_cast<int>(group.group_id));
      continue;
    }
    if (info.refcount > 1) {
      if (updating)
        LOG_DEBUG("[%s] %s: the vdev %d is used by container(0x%lx) with group mode.\n", caller,
                  kLabelError, vdev.vdev_id, group.container_id);
      else
        LOG_DEBUG("[%s] %s: the virtual device(%d) was used by container(0x%lx) with group "
                  "mode.\n",
                  caller, kLabelError, vdev.vdev_id, group.container_id);
      return VDX_STATUS_DEVICE_BUSY;
    }
    if (dmkfdDestroyGroup(group.container_id) != VDX_STATUS_SUCCESS)
      LOG_DEBUG("[%s] %s: destroy the group %d failed.\n", caller, kLabelError,
                static_cast<int>(group.group_id));
  }

  // The driver instance goes when no container or manager client holds it. An update never
  // changes a live instance: the next start makes the new one.
  if (system_mode != SYSTEM_MODE_NONE) return VDX_STATUS_SUCCESS;
  const uint32_t device = static_cast<uint32_t>(vdev.device_id);
  const uint32_t pipe = static_cast<uint32_t>(vdev.pipe_id);
  dmkfdVdevInfo instance;
  if (dmkfdQueryVdevInfo(device, pipe, &instance) != VDX_STATUS_SUCCESS || !instance.isExist)
    return VDX_STATUS_SUCCESS;
  if (instance.refcount >= 2 || instance.indentifier != 0) {
    LOG_DEBUG("[%s] %s: the virtual device %d is used by container/xdms(0x%lx) with vdev mode, "
              "reference(%u).\n",
              caller, kLabelError, vdev.vdev_id, instance.indentifier, instance.refcount);
    return VDX_STATUS_DEVICE_BUSY;
  }
  if (dmkfdDestroyVdev(device, pipe) != VDX_STATUS_SUCCESS) {
    if (updating)
      LOG_DEBUG("[%s] %s: update virtual device %d failed, unable to destroy previous one via "
                "dmkfd.\n",
                caller, kLabelError, vdev.vdev_id);
    else
      LOG_DEBUG("[%s] %s: destroy virtual device %d via dmkfd failed.\n", caller, kLabelError,
                vdev.vdev_id);
    return VDX_STATUS_ERROR;
  }
  // Gone now: at this process's exit (or at that of the process that made it) it must not be
  // destroyed again, since by then the pipe may hold another process's instance.
  iForgetInstance(vdev.device_id, vdev.pipe_id);
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iDestroyVirtualDevice(int vdev_id) {
  if (!IsDirectoryExist(kVdevDir)) return VDX_STATUS_SUCCESS;
  virtual_device_info vdev;
  if (iGetVirtualDeviceById(vdev_id, &vdev) != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: the virtual device(%d) not exist.\n", __func__, kLabelError, vdev_id);
    return VDX_STATUS_VDEV_NOT_EXIST;
  }
  const vdxStatus status = iReleaseVdevHolders(__func__, vdev, false);
  if (status != VDX_STATUS_SUCCESS) return status;
  // A file that stays (a read-only /etc) keeps its virtual device configured, here and in
  // every process that reads it: the destroy did not happen. Its instance may be gone already;
  // a start makes it again.
  const std::string path = std::string(kVdevDir) + "/" + VdevFileName(vdev_id);
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    LOG_DEBUG("[%s] %s: failed to remove file '%s' - %s.\n", __func__, kLabelError, path.c_str(),
              ErrnoMessage(errno).c_str());
    return VDX_STATUS_ERROR;
  }
  iReleaseVirtualDevice(vdev_id);
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iUpdateVirtualDevice(int vdev_id, int cu, int mem) {
  if (!IsDirectoryExist(kVdevDir)) return VDX_STATUS_VDEV_NOT_EXIST;
  virtual_device_info vdev;
  if (iGetVirtualDeviceById(vdev_id, &vdev) != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: The virtual device not exist(%d)\n", __func__, kLabelError, vdev_id);
    return VDX_STATUS_VDEV_NOT_EXIST;
  }
  vdxStatus status = iReleaseVdevHolders(__func__, vdev, true);
  if (status != VDX_STATUS_SUCCESS) return status;

  int units = 0, mib = 0;
  cu_mask_t free_units;
  status = iGetDevResources(vdev.device_id, &units, &mib, &free_units, nullptr);
  if (status != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: get the available cu or mem failed.\n", __func__, kLabelError);
    return status;
  }
  if (static_cast<int64_t>(units) + vdev.cuCount < cu ||
      static_cast<int64_t>(mib) + vdev.memLimit < mem) {
    LOG_DEBUG("[%s] %s: compute units and memory size to be updated exceed available bound, "
              "cu(%d), mem(%dMib).\n",
              __func__, kLabelError, cu, mem);
    return VDX_STATUS_OUT_OF_RESOURCES;
  }

  if (cu != -1) {
    // The device's own units count as free; the lowest free ones are taken. The test for
    // enough follows the take, so an update to 0 units works only when unit 0 is not free.
    free_units |= vdev.cuMask;
    cu_mask_t chosen;
    const uint32_t last = std::min<uint32_t>(device_lists[vdev.device_id]->Info().cuNum,
                                             static_cast<uint32_t>(chosen.size()));
    int taken = 0;
    for (uint32_t bit = 0; bit < last; ++bit) {
      if (free_units.test(bit)) {
        chosen.set(bit);
        ++taken;
      }
      if (taken >= cu) break;
    }
    if (static_cast<int>(chosen.count()) != cu) {
      LOG_DEBUG("[%s] %s: cu mask to be updated exceed available bound, cu(%d), "
                "cu_mask(0x%016lx%016lx)\n",
                __func__, kLabelError, cu, CuMaskWord64(chosen, 1), CuMaskWord64(chosen, 0));
      return VDX_STATUS_OUT_OF_RESOURCES;
    }
    vdev.cuMask = chosen;
    vdev.cuCount = cu;
  }
  if (mem != -1) vdev.memLimit = mem;

  // A file rewritten in place does not move the directory's time: the writer moves it, so that
  // every process sees the configuration as changed.
  status = iWriteVdevFile(__func__, &vdev, true);
  if (status != VDX_STATUS_SUCCESS) return status;
  return iSetVirtualDeviceById(vdev_id, &vdev);
}
