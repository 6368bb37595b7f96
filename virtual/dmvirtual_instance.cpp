// Driver instances: what makes, destroys and tracks the instance of a virtual device. Start
// and stop (the requests, and the checks they share), iCreateVdev and iDestroyVdev (which
// create also uses through start, and destroy and update through their release), the
// per-process list of instances this process made and the host's record of their owners,
// and the teardown at exit of this process's own. Start and stop take virtual_device_lock
// and bind_vdev_lock exclusively, then the file lock; the i-methods run under them, and
// iDestroyOwnInstancesAtExit takes the file lock itself.
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <optional>
#include <utility>
#include <vector>

#include "utils/file.h"
#include "utils/logger.h"
#include "utils/utils.h"
#include "virtual/cu_mask.h"
#include "virtual/dmvirtual_labels.h"
#include "virtual/include/dmvirtual.h"
#include "virtual/run_state.h"

vdxStatus Dmvirtual::iStartStopFrame(const char* caller, int* vdev_ids, int count,
                                      uint32_t* request) {
  if (iReinitOrSay(caller) != VDX_STATUS_SUCCESS) return VDX_STATUS_ERROR;
  if (vdev_ids == nullptr || count < 1) return VDX_STATUS_INVALID_ARGUMENTS;
  if (static_cast<size_t>(count) > virtual_device_lists.size()) {
    LOG_DEBUG("[%s] %s: input virtual device count(%d) exceeds the actual(%u).\n", caller,
              kLabelError, count, static_cast<unsigned>(virtual_device_lists.size()));
    return VDX_STATUS_INVALID_ARGUMENTS;
  }
  iInitSysGroup();
  if (iAnySysGroup()) {
    LOG_DEBUG("[%s] %s: the virtual group mode and virtual device mode cannot exist at the same "
              "time.\n",
              caller, kLabelError);
    return VDX_STATUS_NOT_SUPPORTED;
  }
  // Nothing is done unless every id is configured; duplicates collapse.
  *request = 0;
  for (int i = 0; i < count; ++i) {
    // An id outside 0..31 is not configured: it never stands for another id.
    if (vdev_ids[i] < 0 || vdev_ids[i] >= kMaxVirtualDevices || (vdev_bitmap & IdBit(vdev_ids[i]))) {
      LOG_DEBUG("[%s] Virtual device(%d) not exist.\n", caller, vdev_ids[i]);
      return VDX_STATUS_VDEV_NOT_EXIST;
    }
    *request |= IdBit(vdev_ids[i]);
  }
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::StartVirtualDevice(int* vdev_ids, int count) {
  return iStartOrStop(true, __func__, vdev_ids, count);
}

vdxStatus Dmvirtual::StopVirtualDevice(int* vdev_ids, int count) {
  return iStartOrStop(false, __func__, vdev_ids, count);
}

vdxStatus Dmvirtual::iStartOrStop(bool start, const char* caller, int* vdev_ids, int count) {
  if (iRefusedInContainer(caller)) return VDX_STATUS_NOT_SUPPORTED;
  if (iRefusedUnderMig(caller)) return VDX_STATUS_NOT_SUPPORTED;
  try {
    utils::WriterLock vdevs(&virtual_device_lock);
    utils::WriterLock binds(&bind_vdev_lock);
    ConfigLock file_lock(FileLocker::kShared);
    uint32_t request = 0;
    vdxStatus status = iStartStopFrame(caller, vdev_ids, count, &request);
    if (status != VDX_STATUS_SUCCESS) return status;
    if (file_lock.held()) {
      // The record of who made which instance changes only under the exclusive lock. The
      // raise is not atomic: the checks are made again on what is there now.
      file_lock.Raise();
      status = iStartStopFrame(caller, vdev_ids, count, &request);
      if (status != VDX_STATUS_SUCCESS) return status;
    }
    // Ascending ids, whatever the order asked for; the first failure ends the request and
    // keeps what was done before it.
    for (int id = 0; id < kMaxVirtualDevices; ++id) {
      if (!(request & IdBit(id))) continue;
      if (start && iCreateVdev(id) != VDX_STATUS_SUCCESS) {
        LOG_DEBUG("[%s] %s: create virtual device(%d) failed via dmkfd.\n", caller, kLabelError,
                  id);
        return VDX_STATUS_ERROR;
      }
      if (!start && iDestroyVdev(id) != VDX_STATUS_SUCCESS) {
        LOG_DEBUG("[%s] %s: destroy virtual device(%d) failed via dmkfd.\n", caller, kLabelError,
                  id);
        return VDX_STATUS_ERROR;
      }
    }
    if (start) {
      iSetRunVirtualDevice(request);
      iGetRunVirtualDevice();
    } else {
      iReleaseRunVirtualDevice();
    }
    return VDX_STATUS_SUCCESS;
  } catch (const std::exception& e) {
    // Stop reports with the start request's text, as the tools that match on it expect.
    LOG_DEBUG("[%s] %s: failed to start virtual devices. Due to %s\n", caller, kLabelError,
              e.what());
    return VDX_STATUS_ERROR;
  }
}

vdxStatus Dmvirtual::iCreateVdev(int vdev_id) {
  virtual_device_info vdev;
  if (iGetVirtualDeviceById(vdev_id, &vdev) != VDX_STATUS_SUCCESS) return VDX_STATUS_VDEV_NOT_EXIST;
  uint32_t words[kCuMaskWord32Count];
  CuMaskToWords32(vdev.cuMask, words);
  const uint64_t limit = MibToBytes(vdev.memLimit);
  const uint32_t device = static_cast<uint32_t>(vdev.device_id);
  const uint32_t pipe = static_cast<uint32_t>(vdev.pipe_id);

  dmkfdVdevInfo instance;
  if (dmkfdQueryVdevInfo(device, pipe, &instance) != VDX_STATUS_SUCCESS || !instance.isExist) {
    if (dmkfdCreateVdev(device, static_cast<uint32_t>(vdev.vdev_id), pipe, docker_id, limit, 128,
                        words) != VDX_STATUS_SUCCESS) {
      LOG_DEBUG("[%s] %s: create virtual device(%d) on physical device(%d) via dmkfd failed.\n",
                __func__, kLabelError, vdev_id, vdev.device_id);
      return VDX_STATUS_ERROR;
    }
    // Made by this process: destroyed again at its exit unless stopped (or replaced) before.
    iRecordInstance(vdev.device_id, vdev.pipe_id);
    LOG_DEBUG("[%s] Created virtual device(%d) on physical device(%d), pipe(%d), created virtual "
              "devices(%llu).\n",
              __func__, vdev_id, vdev.device_id, vdev.pipe_id,
              static_cast<unsigned long long>(created_vxcus.size()));
    return VDX_STATUS_SUCCESS;
  }
  if (instance.vram_limit != limit) {
    LOG_DEBUG("[%s] %s: create virtual device(%d) on physical device(%d) via dmkfd failed, "
              "already exist with different vram limit.\n",
              __func__, kLabelError, vdev_id, vdev.device_id);
    return VDX_STATUS_ERROR;
  }
  if (memcmp(instance.cu_mask, words, sizeof(words)) == 0) {
    LOG_DEBUG("[%s] Virtual device(%d) on physical device(%d), pipe(%d) was already created.\n",
              __func__, vdev_id, vdev.device_id, vdev.pipe_id);
    return VDX_STATUS_SUCCESS;
  }
  LOG_DEBUG("[%s] %s: create virtual device(%d) on physical device(%d) via dmkfd failed, already "
            "exist with different cu mask.\n",
            __func__, kLabelError, vdev_id, vdev.device_id);
  return VDX_STATUS_ERROR;
}

vdxStatus Dmvirtual::iDestroyVdev(int vdev_id) {
  virtual_device_info vdev;
  if (iGetVirtualDeviceById(vdev_id, &vdev) != VDX_STATUS_SUCCESS) return VDX_STATUS_VDEV_NOT_EXIST;
  const uint32_t device = static_cast<uint32_t>(vdev.device_id);
  const uint32_t pipe = static_cast<uint32_t>(vdev.pipe_id);
  dmkfdVdevInfo instance;
  if (dmkfdQueryVdevInfo(device, pipe, &instance) != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] Virtual device(%d) on physical device(%d), pipe(%d) was already destroyed.\n",
              __func__, vdev_id, vdev.device_id, vdev.pipe_id);
    return VDX_STATUS_SUCCESS;
  }
  if (dmkfdDestroyVdev(device, pipe) != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: destroy virtual device(%d) on physical device(%d) via dmkfd failed.\n",
              __func__, kLabelError, vdev_id, vdev.device_id);
    return VDX_STATUS_ERROR;
  }
  iForgetInstance(vdev.device_id, vdev.pipe_id);
  LOG_DEBUG("[%s] Destroyed virtual device(%d) on physical device(%d), pipe(%d), created virtual "
            "devices(%llu).\n",
            __func__, vdev_id, vdev.device_id, vdev.pipe_id,
            static_cast<unsigned long long>(created_vxcus.size()));
  return VDX_STATUS_SUCCESS;
}

void Dmvirtual::iRecordInstance(int device, int pipe) {
  // One entry per device and pipe: an instance made again where an old one of ours was
  // destroyed by another process replaces it, so the list never outgrows the pipes.
  created_vxcus.remove(std::make_pair(device, pipe));
  created_vxcus.emplace_back(device, pipe);
  if (geteuid() == 0 && !SetInstanceOwner(device, pipe)) {
    LOG_DEBUG("[%s] %s: failed to record the owner of the instance on device(%d), pipe(%d) in "
              "%s.\n",
              __func__, kLabelWarning, device, pipe, kInstanceOwnersFile);
  }
}

void Dmvirtual::iForgetInstance(int device, int pipe) {
  created_vxcus.remove(std::make_pair(device, pipe));
  if (geteuid() == 0 && !ForgetInstanceOwner(device, pipe)) {
    LOG_DEBUG("[%s] %s: failed to forget the owner of the instance on device(%d), pipe(%d) in "
              "%s.\n",
              __func__, kLabelWarning, device, pipe, kInstanceOwnersFile);
  }
}

void Dmvirtual::iDestroyOwnInstancesAtExit() {
  // The driver cannot tell whose an instance is (every host process is owner 0, and a new
  // instance on the same device and pipe looks like the old one): the host's record can. Root
  // destroys what the record says it made; a process that may not take the lock destroys only
  // what the record gives to nobody, since every instance a root process made is in it.
  std::optional<ConfigLock> lock;
  try {
    lock.emplace(FileLocker::kExclusive);
  } catch (const std::exception& e) {
    LOG_DEBUG("[%s] %s: failed to lock the record of instances, none is destroyed. Due to %s\n",
              __func__, kLabelError, e.what());
    return;
  }
  const ProcessIdentity self = SelfIdentity();
  std::vector<InstanceOwner> record = ReadInstanceOwners();
  const size_t recorded = record.size();
  for (const std::pair<int, int>& instance : created_vxcus) {
    const std::optional<ProcessIdentity> owner =
        InstanceOwnerOf(record, instance.first, instance.second);
    const bool ours = lock->held() ? owner.has_value() && *owner == self : !owner.has_value();
    if (!ours) {
      LOG_DEBUG("[%s] The instance on device(%d), pipe(%d) is no longer this process's, left "
                "alone.\n",
                __func__, instance.first, instance.second);
      continue;
    }
    if (dmkfdDestroyVdev(static_cast<uint32_t>(instance.first),
                         static_cast<uint32_t>(instance.second)) != VDX_STATUS_SUCCESS) {
      LOG_DEBUG("[%s] %s: destroy virtual device failed, device(%d), pipe(%d).\n", __func__,
                kLabelError, instance.first, instance.second);
    }
    record.erase(std::remove_if(record.begin(), record.end(),
                                [&](const InstanceOwner& e) {
                                  return e.device == instance.first && e.pipe == instance.second;
                                }),
                 record.end());
  }
  if (lock->held() && record.size() != recorded) WriteInstanceOwners(record);
}
