// Creating virtual devices: the request, its plan (how the remaining units, memory and pipes
// of one physical device are split), and the allocation of ids, pipes and units with the
// files that record them. The request runs in the change frame (change_frame.h):
// virtual_device_lock exclusively and the file lock, shared while planning and exclusive
// while writing; the i-methods run under them. Driver instances are dmvirtual_instance.cpp's.
#include <unistd.h>

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
#include "virtual/vdev_file.h"

namespace {

constexpr int kMaxUnitsPerVdev = 128;

// The lowest unit of a mask. An empty mask has none: std::bitset refuses the position
// 128 with a range error, which the request reports like any exception.
size_t TakeLowestUnit(cu_mask_t& free_units) {
  size_t bit = 0;
  while (bit < free_units.size() && !free_units.test(bit)) ++bit;
  free_units.reset(bit);  // throws std::out_of_range for an empty mask
  return bit;
}

}  // namespace

vdxStatus Dmvirtual::CreateVirtualDevices(int device_id, int count, int* cu_config,
                                          int* mem_config) {
  const vdxStatus allowed =
      iChangeAllowed(__func__, "create virtual devices", "current is docker env, not support.");
  if (allowed != VDX_STATUS_SUCCESS) return allowed;
  if (count < 1 || count > kMaxVdevsPerDevice || device_id < 0 ||
      static_cast<size_t>(device_id) >= device_lists.size())
    return VDX_STATUS_INVALID_ARGUMENTS;
  LOG_DEBUG("[%s] Request to create %d virtual device on physical device(%d).\n", __func__, count,
            device_id);
  try {
    std::vector<int> cus, mems;
    cu_mask_t free_units;
    uint32_t free_pipes = 0;
    return iUnderExclusiveFileLock(
        false, __func__,
        // The plan, made on the configuration as it is under the lock held at the time.
        [&]() REQUIRES(gvdxlock, virtual_device_lock) {
          const vdxStatus status = iGenerateVirtualDevicesConfig(
              device_id, count, cu_config, mem_config, cus, mems, free_units, free_pipes);
          if (status != VDX_STATUS_SUCCESS)
            LOG_DEBUG("[%s] %s: calculate and generate virtual devices' configuration failed.\n",
                      "CreateVirtualDevices", kLabelError);
          return status;
        },
        [&]() REQUIRES(gvdxlock, virtual_device_lock) {
          const vdxStatus status =
              iCreateVirtualDevices(device_id, count, cus, mems, free_units, free_pipes);
          if (status != VDX_STATUS_SUCCESS)
            LOG_DEBUG("[%s] %s: create requested virtual devices failed.\n",
                      "CreateVirtualDevices", kLabelError);
          return status;
        });
  } catch (const std::exception& e) {
    LOG_DEBUG("[%s] %s: failed to create requested virtual devices. Due to %s\n", __func__,
              kLabelError, e.what());
    return VDX_STATUS_ERROR;
  }
}

// The plan depends on the loaded configuration alone and changes nothing: ids, pipes, units
// and files are taken only by iCreateVirtualDevices.
vdxStatus Dmvirtual::iGenerateVirtualDevicesConfig(int device_id, int count, int* cu_config,
                                                   int* mem_config, std::vector<int>& cus,
                                                   std::vector<int>& mems,
                                                   cu_mask_t& free_mask, uint32_t& free_pipes) {
  int units = 0, mib = 0;
  cu_mask_t free_units;
  uint32_t pipes = 0;
  vdxStatus status = iGetDevResources(device_id, &units, &mib, &free_units, &pipes);
  if (status != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: get the available cu, memory and other resources failed.\n", __func__,
              kLabelError);
    return status;
  }
  if (units == 0 || mib == 0 || free_units.none() || pipes == 0) {
    LOG_DEBUG("[%s] %s: the remaining resources are not enough.\n", __func__, kLabelError);
    return VDX_STATUS_OUT_OF_RESOURCES;
  }
  if (units > kMaxUnitsPerVdev) {
    LOG_DEBUG("[%s] %s: the maximum supported compute unit count is %d, now is %d.\n", __func__,
              kLabelError, kMaxUnitsPerVdev, units);
    return VDX_STATUS_OUT_OF_RESOURCES;
  }
  if (BitsCount(pipes) < count) {
    LOG_DEBUG("[%s] %s: only %d virtual devices can be created on device %d.\n", __func__,
              kLabelError, BitsCount(pipes), device_id);
    return VDX_STATUS_OUT_OF_RESOURCES;
  }
  cus.assign(count, 0);
  mems.assign(count, 0);
  free_mask = free_units;
  free_pipes = pipes;

  // An even split; the last virtual device also gets what does not divide.
  for (int i = 0; i < count; ++i) {
    cus[i] = units / count;
    mems[i] = mib / count;
  }
  cus[count - 1] += units % count;
  mems[count - 1] += mib % count;
  LOG_DEBUG("[%s] Remain cus(%d), memories(%d MiB).\n", __func__, units % count, mib % count);

  if (cu_config != nullptr) {
    // Once a virtual device of the request has units of its own, a later one may not share
    // them: sharing devices come first or alone.
    int64_t sum = 0;
    for (int i = 0; i < count; ++i) {
      if (i > 0 && sum > 0 && cu_config[i] == 0) {
        LOG_DEBUG("[%s] %s: cu sharing requires that the cu of each virtual device be 0!\n",
                  __func__, kLabelError);
        return VDX_STATUS_NOT_SUPPORTED;
      }
      cus[i] = cu_config[i];
      sum += cu_config[i];
    }
    if (units < sum) {
      LOG_DEBUG("[%s] %s: config cu num(%d) beyond real cu num(%d).\n", __func__, kLabelError,
                static_cast<int>(sum), units);
      return VDX_STATUS_OUT_OF_RESOURCES;
    }
  }
  if (mem_config != nullptr) {
    int64_t sum = 0;
    for (int i = 0; i < count; ++i) {
      mems[i] = mem_config[i];
      sum += mem_config[i];
    }
    if (mib < sum) {
      LOG_DEBUG("[%s] %s: config mem(%d) is larger than the mem of the physical device(%d).\n",
                __func__, kLabelError, static_cast<int>(sum), mib);
      return VDX_STATUS_OUT_OF_RESOURCES;
    }
  }
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iCreateVirtualDevices(int device_id, int count, std::vector<int>& cus,
                                           std::vector<int>& mems, cu_mask_t& free_mask,
                                           uint32_t& free_pipes) {
  for (int i = 0; i < count; ++i) {
    // No units is a sharing virtual device; no memory is no virtual device.
    if (cus[i] < 0 || mems[i] <= 0) {
      LOG_DEBUG("[%s] %s: invalid cu_config[%d](%d) or mem_config[%d](%d).\n", __func__,
                kLabelError, i, cus[i], i, mems[i]);
      return VDX_STATUS_ERROR;
    }
  }
  // 0755 whatever the caller's umask: only root may write the configuration.
  if (!CreateDirectoryWithMode(kVdevDir, 0755)) {
    LOG_DEBUG("[%s] %s: create directory %s failed.\n", __func__, kLabelError, kVdevDir);
    return VDX_STATUS_ERROR;
  }
  // No rollback: what a failure leaves written stays, and the next reload from the files
  // makes memory agree with the disk again.
  for (int i = 0; i < count; ++i) {
    // An id whose file name is taken by something a file cannot replace (a directory) is left
    // alone: the next free id is taken instead.
    int vdev_id = -1;
    do {
      if (iAllocateVdevId(&vdev_id) != VDX_STATUS_SUCCESS) {
        LOG_DEBUG("[%s] %s: allocate vdev id failed.\n", __func__, kLabelError);
        return VDX_STATUS_OUT_OF_RESOURCES;
      }
    } while (IsDirectoryExist(std::string(kVdevDir) + "/" + VdevFileName(vdev_id)));
    if (free_pipes == 0) {
      LOG_DEBUG("[%s] %s: allocate pipe id failed.\n", __func__, kLabelError);
      return VDX_STATUS_OUT_OF_RESOURCES;
    }
    const int pipe = LowestIdBit(free_pipes);
    free_pipes &= ~IdBit(pipe);

    // Lowest units first, in one sweep across the request.
    cu_mask_t units;
    for (int taken = 0; taken < cus[i]; ++taken) {
      units.set(TakeLowestUnit(free_mask));
      if (free_mask.none()) break;
    }
    if (static_cast<int>(units.count()) != cus[i]) {
      LOG_DEBUG("[%s] %s: cu config(%d) not equal to bit counts of mask(0x%lx).\n", __func__,
                kLabelError, cus[i], CuMaskWord64(units, 0));
      return VDX_STATUS_OUT_OF_RESOURCES;
    }

    virtual_device_info vdev{};
    vdev.cuMask = units;
    vdev.cuCount = cus[i];
    vdev.memLimit = mems[i];
    vdev.device_id = device_id;
    vdev.vdev_id = vdev_id;
    vdev.file_id = vdev_id;
    vdev.pipe_id = pipe;
    const vdxStatus written = iWriteVdevFile(__func__, &vdev, false);
    if (written != VDX_STATUS_SUCCESS) return written;
    virtual_device_lists.push_back(vdev);
  }
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iAllocateVdevId(int* vdev_id) {
  if (vdev_bitmap == 0) return VDX_STATUS_OUT_OF_RESOURCES;
  // The lowest free id is always reused first.
  const int id = LowestIdBit(vdev_bitmap);
  vdev_bitmap &= ~IdBit(id);
  *vdev_id = id;
  LOG_DEBUG("[%s] Allocated virtual device id(%d).\n", __func__, id);
  return VDX_STATUS_SUCCESS;
}

