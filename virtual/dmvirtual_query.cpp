// The host's view of configured virtual devices (their count and information), the busy
// percentages of a device and of a started virtual device, and the refusals that open
// requests (in a container, under MIG, without root). Queries take virtual_device_lock
// exclusively (the configuration may be reloaded); GetDevBusyPercent takes only
// bind_vdev_lock shared, in a container. Start and stop are dmvirtual_instance.cpp's.
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <exception>
#include <vector>

#include "utils/file.h"
#include "utils/logger.h"
#include "utils/utils.h"
#include "virtual/dmvirtual_labels.h"
#include "virtual/include/dmvirtual.h"

namespace {

constexpr int kShaderEngines = 8;
// A whole physical device: sixteen units on each shader engine.
constexpr uint32_t kWholeEngine = 0x0000FFFF;

// busy units / units in single precision, times 100, truncated toward zero. A quotient with
// no integer value (a sharing device divides by zero) gives INT_MIN, as the processor's
// conversion does, without relying on an undefined conversion.
int BusyPercent(int busy_units, int units) {
  const double percent = static_cast<float>(busy_units) / static_cast<float>(units) * 100.0;
  if (!std::isfinite(percent) || percent <= static_cast<double>(INT_MIN) - 1.0 ||
      percent >= static_cast<double>(INT_MAX) + 1.0)
    return INT_MIN;
  return static_cast<int>(percent);
}

}  // namespace

vdxStatus Dmvirtual::GetVirualDeviceCount(int* count) {
  if (count == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;
  *count = 0;
  if (is_docker_virtual_env) return VDX_STATUS_SUCCESS;
  try {
    utils::WriterLock vdevs(&virtual_device_lock);
    ConfigLock file_lock(FileLocker::kShared);
    if (iReinitOrSay(__func__) != VDX_STATUS_SUCCESS) return VDX_STATUS_ERROR;
    *count = static_cast<int>(virtual_device_lists.size());
    return VDX_STATUS_SUCCESS;
  } catch (const std::exception& e) {
    LOG_DEBUG("[%s] %s: failed to get virtual device count. Due to %s\n", __func__, kLabelError,
              e.what());
    return VDX_STATUS_ERROR;
  }
}

vdxStatus Dmvirtual::GetVirtualDeviceInfo(int vdev_id, vdxDeviceInfo* info) {
  if (info == nullptr || vdev_id < 0 || vdev_id >= kMaxVirtualDevices)
    return VDX_STATUS_INVALID_ARGUMENTS;
  if (iRefusedInContainer(__func__)) return VDX_STATUS_NOT_SUPPORTED;
  try {
    utils::WriterLock vdevs(&virtual_device_lock);
    virtual_device_info vdev;
    {
      ConfigLock file_lock(FileLocker::kShared);
      const vdxStatus status = iCheckAndGetVirtualDeviceInfo(vdev_id, &vdev);
      if (status == VDX_STATUS_VDEV_NOT_EXIST) {
        LOG_DEBUG("[%s] Virtual device(%d) not exist.\n", __func__, vdev_id);
        return status;
      }
      if (status != VDX_STATUS_SUCCESS) {
        LOG_DEBUG("[%s] %s: failed to get the configuration of virtual device(%d).\n", __func__,
                  kLabelError, vdev_id);
        return status;
      }
    }
    if (vdev.device_id < 0 || static_cast<size_t>(vdev.device_id) >= device_lists.size()) {
      LOG_DEBUG("[%s] %s: the device id(%d) of virtual device(%d) exceed the max physical device "
                "count(%d), virtual device configuration file may damaged.\n",
                __func__, kLabelError, vdev.device_id, vdev_id,
                static_cast<int>(device_lists.size()));
      return VDX_STATUS_ERROR;
    }
    const device_info& physical = device_lists[vdev.device_id]->Info();
    vdxDeviceInfo record;
    memset(&record, 0, sizeof(record));
    snprintf(record.name, sizeof(record.name), "%s", physical.name);
    record.compute_unit_count = vdev.cuCount;
    record.global_mem_size = MibToBytes(vdev.memLimit);
    record.device_id = vdev.device_id;
    if (system_mode == SYSTEM_MODE_MIG) {
      *info = record;
      return VDX_STATUS_SUCCESS;
    }

    const uint32_t device = static_cast<uint32_t>(vdev.device_id);
    iInitSysGroup();
    if (!iAnySysGroup()) {
      dmkfdVdevInfo instance;
      if (dmkfdQueryVdevInfo(device, static_cast<uint32_t>(vdev.pipe_id), &instance) ==
              VDX_STATUS_SUCCESS &&
          instance.isExist) {
        record.usage_mem_size = instance.vram_usage;
        record.container_id = instance.indentifier;
      }
    } else {
      // Group members share the device's units; the container's use of the group's memory
      // is shared out by the virtual device's part of the group's limit.
      uint64_t owner = 0;
      for (const sys_group_info& group : group_lists) {
        if (group.group_id & IdBit(vdev_id)) {
          owner = group.container_id;
          break;
        }
      }
      record.container_id = owner;
      LOG_DEBUG("[%s] The virtual device(%d) belongs to container(0x%lx).\n", __func__, vdev_id,
                owner);
      record.compute_unit_count = static_cast<int>(physical.cuNum);
      dmkfdVdevInfo group;
      if (dmkfdQueryGroupInfo(device, owner, &group) == VDX_STATUS_SUCCESS && group.isExist) {
        const float share =
            static_cast<float>(record.global_mem_size) / static_cast<float>(group.vram_limit);
        LOG_DEBUG("[%s] The virtual device(%d) in container percent(%0.2f).\n", __func__, vdev_id,
                  static_cast<double>(share));
        const float usage = static_cast<float>(group.vram_usage) * share;
        // A limit of 0 has no share; a usage beyond the range of the field has no value.
        if (std::isfinite(usage) && usage >= 0.0f && usage < 18446744073709551616.0f)
          record.usage_mem_size = static_cast<uint64_t>(usage);
      }
    }
    *info = record;
    return VDX_STATUS_SUCCESS;
  } catch (const std::exception& e) {
    LOG_DEBUG("[%s] %s: failed to get the configuration of virtual device(%d). Due to %s\n",
              __func__, kLabelError, vdev_id, e.what());
    return VDX_STATUS_ERROR;
  }
}

bool Dmvirtual::iRefusedInContainer(const char* caller) const {
  if (!is_docker_virtual_env) return false;
  LOG_DEBUG("[%s] %s: current process is running in docker virtual env, not support.\n", caller,
            kLabelError);
  return true;
}

vdxStatus Dmvirtual::iChangeAllowed(const char* caller, const char* request,
                                    const char* in_container) const {
  if (geteuid() != 0) {
    LOG_DEBUG("[%s] %s: %s failed, root privilege required.\n", caller, kLabelError, request);
    return VDX_STATUS_PERMISSION;
  }
  if (is_docker_virtual_env) {
    LOG_DEBUG("[%s] %s: %s\n", caller, kLabelError, in_container);
    return VDX_STATUS_NOT_SUPPORTED;
  }
  return VDX_STATUS_SUCCESS;
}

bool Dmvirtual::iRefusedUnderMig(const char* caller) const {
  if (system_mode != SYSTEM_MODE_MIG) return false;
  LOG_DEBUG("[%s] %s: mig mode has been enabled, which is not compatible with virtual.\n", caller,
            kLabelError);
  return true;
}

vdxStatus Dmvirtual::GetDevBusyPercent(int index, int* percent) {
  if (iRefusedUnderMig(__func__)) return VDX_STATUS_NOT_SUPPORTED;
  int count = 0;
  GetDeviceCount(&count);
  if (percent == nullptr || index < 0 || index >= count) return VDX_STATUS_INVALID_ARGUMENTS;

  int device = index;
  int units = 0;
  uint32_t mask[kShaderEngines];
  for (uint32_t& word : mask) word = kWholeEngine;
  if (!is_docker_virtual_env) {
    units = static_cast<int>(device_lists[index]->Info().cuNum);
  } else {
    utils::ReaderLock binds(&bind_vdev_lock);
    if (mode == DM_PROCESS_VDEV_MODE) {
      if (static_cast<size_t>(index) >= bind_vdev_lists.size()) return VDX_STATUS_INVALID_ARGUMENTS;
      const virtual_device_info& vdev = bind_vdev_lists[index];
      device = vdev.device_id;
      units = vdev.cuCount;
      dmkfdVdevInfo instance;
      if (dmkfdQueryVdevInfo(static_cast<uint32_t>(vdev.device_id),
                             static_cast<uint32_t>(vdev.pipe_id), &instance) == VDX_STATUS_SUCCESS &&
          instance.isExist)
        memcpy(mask, instance.se_mask, sizeof(mask));
      else
        memset(mask, 0, sizeof(mask));
    } else if (mode == DM_PROCESS_GROUP_MODE) {
      std::vector<virtual_device_info> merged(std::max(count, kMaxPhysicalDevices));
      int merged_count = 0;
      iMergeVirtualDevice(merged.data(), static_cast<int>(merged.size()), &merged_count);
      if (index >= merged_count) return VDX_STATUS_INVALID_ARGUMENTS;
      device = merged[index].device_id;
      if (device < 0 || static_cast<size_t>(device) >= device_lists.size())
        return VDX_STATUS_INVALID_ARGUMENTS;
      units = static_cast<int>(device_lists[device]->Info().cuNum);
    } else {
      LOG_DEBUG("[%s] %s: process running in docker virtual environment but process mode has not "
                "been set.\n",
                __func__, kLabelError);
      return VDX_STATUS_ERROR;
    }
  }

  dmkfdBusyCuInfo busy;
  const vdxStatus status = dmkfdGetBusyCUInfo(static_cast<uint32_t>(device), &busy, kShaderEngines);
  if (status != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: get compute unit busy info on node(%d) failed.\n", __func__, kLabelError,
              device);
    return status;
  }
  int busy_units = 0;
  for (int se = 0; se < kShaderEngines; ++se) {
    LOG_DEBUG("[%s] SE busy info: se(%d), dev se mask(0x%x), se busy mask(0x%x).\n", __func__, se,
              mask[se], busy.se_mask[se]);
    busy_units += BitsCount(busy.se_mask[se] & mask[se]);
  }
  *percent = BusyPercent(busy_units, units);
  LOG_DEBUG("[%s] Dev busy info: dev(%d), cu count(%d), busy cu(%d), busy percent(%d).\n",
            __func__, device, units, busy_units, *percent);
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::GetVDevBusyPercent(int vdev_id, int* percent) {
  if (iRefusedUnderMig(__func__)) return VDX_STATUS_NOT_SUPPORTED;
  if (percent == nullptr || vdev_id < 0) return VDX_STATUS_INVALID_ARGUMENTS;
  if (iRefusedInContainer(__func__)) return VDX_STATUS_NOT_SUPPORTED;
  try {
    iInitSysGroup();
    if (iAnySysGroup()) {
      LOG_DEBUG("[%s] %s: the current virtualization mode is cu sharing, query a single virtual "
                "device is not supported.\n",
                __func__, kLabelError);
      return VDX_STATUS_NOT_SUPPORTED;
    }
    utils::WriterLock vdevs(&virtual_device_lock);
    {
      ConfigLock file_lock(FileLocker::kShared);
      if (iReinitOrSay(__func__) != VDX_STATUS_SUCCESS) return VDX_STATUS_ERROR;
    }
    virtual_device_info vdev;
    if (iGetVirtualDeviceById(vdev_id, &vdev) != VDX_STATUS_SUCCESS) {
      LOG_DEBUG("[%s] %s: the virtual device(%d) not exist.\n", __func__, kLabelError, vdev_id);
      return VDX_STATUS_VDEV_NOT_EXIST;
    }
    dmkfdVdevInfo instance;
    vdxStatus status = dmkfdQueryVdevInfo(static_cast<uint32_t>(vdev.device_id),
                                          static_cast<uint32_t>(vdev.pipe_id), &instance);
    if (status != VDX_STATUS_SUCCESS || !instance.isExist) {
      // Not started. A query that succeeded without an instance leaves the percent alone and
      // reports success, as callers of this function have always seen it.
      LOG_DEBUG("[%s] %s: get created virtual device(%d) instance failed.\n", __func__,
                kLabelError, vdev_id);
      return status;
    }
    dmkfdBusyCuInfo busy;
    status = dmkfdGetBusyCUInfo(static_cast<uint32_t>(vdev.device_id), &busy, kShaderEngines);
    if (status != VDX_STATUS_SUCCESS) {
      LOG_DEBUG("[%s] %s: get compute unit busy info on node(%d) failed.\n", __func__,
                kLabelError, vdev.device_id);
      return status;
    }
    int busy_units = 0;
    for (int se = 0; se < kShaderEngines; ++se)
      busy_units += BitsCount(busy.se_mask[se] & instance.se_mask[se]);
    *percent = BusyPercent(busy_units, vdev.cuCount);
    LOG_DEBUG("[%s] VDev busy info: vdev(%d), cu count(%d), busy cu(%d), busy percent(%d).\n",
              __func__, vdev_id, vdev.cuCount, busy_units, *percent);
    return VDX_STATUS_SUCCESS;
  } catch (const std::exception& e) {
    LOG_DEBUG("[%s] %s: failed to get virtual device busy percent. Due to %s\n", __func__,
              kLabelError, e.what());
    return VDX_STATUS_ERROR;
  }
}
