// Physical devices and what is left of them: the device count and information (virtual
// devices stand in for devices inside a container on virtual devices), the units, memory and
// pipes still free on a device, the active instance count from sysfs, and the deprecated
// InitDevice. iGetDevResources runs with virtual_device_lock held by its caller; the public
// methods take the locks they need themselves.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <vector>

#include "utils/file.h"
#include "utils/logger.h"
#include "utils/utils.h"
#include "virtual/dmvirtual_labels.h"
#include "virtual/include/dmvirtual.h"

namespace {

constexpr char kSysfsVgpuDir[] = "/sys/devices/virtual/kfd/kfd/vgpu";

// A virtual device's record as the device information presents it.
void FillFromVirtual(const virtual_device_info& vdev, const std::vector<Device*>& devices,
                     uint64_t docker_id, vdxDeviceInfo* out) {
  out->container_id = docker_id;
  out->device_id = vdev.device_id;
  out->compute_unit_count = vdev.cuCount;
  out->global_mem_size = MibToBytes(vdev.memLimit);
  if (vdev.device_id >= 0 && static_cast<size_t>(vdev.device_id) < devices.size())
    snprintf(out->name, sizeof(out->name), "%s", devices[vdev.device_id]->Info().name);
}

}  // namespace

vdxStatus Dmvirtual::GetDeviceCount(int* count) {
  if (count == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;
  if (!is_docker_virtual_env) {
    *count = static_cast<int>(device_lists.size());
    return VDX_STATUS_SUCCESS;
  }
  // Inside a container on virtual devices, the devices are what the container was given.
  utils::ReaderLock binds(&bind_vdev_lock);
  if (mode == DM_PROCESS_GROUP_MODE)
    iMergeVirtualDevice(nullptr, 0, count);
  else if (mode == DM_PROCESS_VDEV_MODE)
    *count = static_cast<int>(bind_vdev_lists.size());
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::GetDeviceInfo(int index, vdxDeviceInfo* info) {
  int count = 0;
  GetDeviceCount(&count);
  if (index < 0 || index >= count || info == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;
  vdxDeviceInfo record;
  memset(&record, 0, sizeof(record));

  if (!is_docker_virtual_env) {
    const device_info& physical = device_lists[index]->Info();
    snprintf(record.name, sizeof(record.name), "%s", physical.name);
    record.compute_unit_count = static_cast<int>(physical.cuNum);
    record.global_mem_size = physical.globalMemSize;
    record.device_id = index;
    uint64_t available = 0;
    // More free memory than the device has (a driver's odd answer) reads as none in use.
    if (dmkfdGetAvailableMem(static_cast<uint32_t>(index), &available) == VDX_STATUS_SUCCESS &&
        available < physical.globalMemSize)
      record.usage_mem_size = physical.globalMemSize - available;
    *info = record;
    return VDX_STATUS_SUCCESS;
  }

  utils::ReaderLock binds(&bind_vdev_lock);
  if (mode == DM_PROCESS_GROUP_MODE) {
    // Room for every merged entry, so that no index the count admits falls outside.
    std::vector<virtual_device_info> merged(std::max(count, kMaxPhysicalDevices));
    int merged_count = 0;
    iMergeVirtualDevice(merged.data(), static_cast<int>(merged.size()), &merged_count);
    if (index >= merged_count) return VDX_STATUS_INVALID_ARGUMENTS;
    const virtual_device_info& entry = merged[index];
    FillFromVirtual(entry, device_lists, docker_id, &record);
    dmkfdVdevInfo group;
    if (system_mode == SYSTEM_MODE_NONE &&
        dmkfdQueryGroupInfo(static_cast<uint32_t>(entry.device_id), docker_id, &group) ==
            VDX_STATUS_SUCCESS &&
        group.isExist)
      record.usage_mem_size = group.vram_usage;
  } else if (mode == DM_PROCESS_VDEV_MODE) {
    if (static_cast<size_t>(index) >= bind_vdev_lists.size()) return VDX_STATUS_INVALID_ARGUMENTS;
    const virtual_device_info& vdev = bind_vdev_lists[index];
    FillFromVirtual(vdev, device_lists, docker_id, &record);
    dmkfdVdevInfo instance;
    if (system_mode == SYSTEM_MODE_NONE &&
        dmkfdQueryVdevInfo(static_cast<uint32_t>(vdev.device_id),
                           static_cast<uint32_t>(vdev.pipe_id), &instance) == VDX_STATUS_SUCCESS &&
        instance.isExist) {
      record.usage_mem_size = instance.vram_usage;
      record.container_id = instance.indentifier;
    }
  }
  *info = record;
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::GetDeviceRemainingInfo(int device_id, uint64_t* remaining_cus,
                                            uint64_t* remaining_mem) {
  if (is_docker_virtual_env) {
    LOG_DEBUG("[%s] %s: process is running in docker virtual environment, not support.\n",
              __func__, kLabelError);
    return VDX_STATUS_NOT_SUPPORTED;
  }
  if (device_id < 0 || static_cast<size_t>(device_id) >= device_lists.size() ||
      remaining_cus == nullptr || remaining_mem == nullptr)
    return VDX_STATUS_INVALID_ARGUMENTS;
  try {
    // Exclusive: the accounting may reload the list.
    utils::WriterLock vdevs(&virtual_device_lock);
    ConfigLock file_lock(FileLocker::kShared);
    int units = 0, mib = 0;
    const vdxStatus status = iGetDevResources(device_id, &units, &mib, nullptr, nullptr);
    if (status != VDX_STATUS_SUCCESS) {
      LOG_DEBUG("[%s] %s: get the remaining cus and memory size of device(%d) failed.\n",
                __func__, kLabelError, device_id);
      return status;
    }
    *remaining_cus = static_cast<uint64_t>(static_cast<int64_t>(units));
    *remaining_mem = MibToBytes(mib);
    return VDX_STATUS_SUCCESS;
  } catch (const std::exception& e) {
    LOG_DEBUG("[%s] %s: failed to get the remaining cus and memory size of device(%d). Due to "
              "%s\n",
              __func__, kLabelError, device_id, e.what());
    return VDX_STATUS_ERROR;
  }
}

vdxStatus Dmvirtual::InitDevice(vdxDeviceInfo* infos, int capacity, int* count) {
  if (count == nullptr || infos == nullptr || capacity < 1) return VDX_STATUS_INVALID_ARGUMENTS;
  LOG_DEBUG("[%s] %s: this api has been deprecated, there's no need to invoked this interface "
            "while using virtual gpus.\n",
            __func__, kLabelInfo);
  *count = 0;
  memset(infos, 0, sizeof(*infos) * static_cast<size_t>(capacity));
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iGetActiveVdevCountFromSys(int* count) {
  if (count == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;
  int active = 0;
  if (!ForEachDirectoryEntry(kSysfsVgpuDir, [&active](const char*) { return ++active, true; })) {
    LOG_DEBUG("[%s] %s: failed to open directory '%s' - %s.\n", __func__, kLabelError,
              kSysfsVgpuDir, ErrnoMessage(errno).c_str());
    return VDX_STATUS_ERROR;
  }
  LOG_DEBUG("[%s] Get active virtual device count(%d) from sysfs.\n", __func__, active);
  *count = active;
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iGetDevResources(int device_id, int* remaining_cus, int* remaining_mem,
                                      cu_mask_t* free_mask, uint32_t* free_pipes) {
  if (device_id < 0 || static_cast<size_t>(device_id) >= device_lists.size() ||
      remaining_cus == nullptr || remaining_mem == nullptr)
    return VDX_STATUS_INVALID_ARGUMENTS;
  if (iReinitOrSay(__func__) != VDX_STATUS_SUCCESS) return VDX_STATUS_ERROR;

  // Sums of hand-edited files may be anything: count wide enough never to overflow.
  int64_t used_units = 0, used_mib = 0;
  cu_mask_t used_mask;
  uint32_t used_pipes = 0;
  bool pipes_beyond = false;
  for (const virtual_device_info& vdev : virtual_device_lists) {
    if (vdev.device_id != device_id) continue;
    used_units += vdev.cuCount;
    used_mib += vdev.memLimit;
    used_mask |= vdev.cuMask;
    // A device has pipes 0 to 3; any other number is over-commitment, never another pipe.
    if (vdev.pipe_id < 0 || vdev.pipe_id >= kMaxVdevsPerDevice)
      pipes_beyond = true;
    else
      used_pipes |= IdBit(vdev.pipe_id);
  }
  const device_info& physical = device_lists[device_id]->Info();
  const int64_t total_units = physical.cuNum;
  const int64_t total_mib = static_cast<int64_t>(physical.globalMemSize >> 20);

  // Units that do not exist never count as free; one in use among them is over-commitment.
  bool units_beyond = false;
  for (size_t bit = physical.cuNum; bit < used_mask.size(); ++bit) {
    units_beyond = units_beyond || used_mask.test(bit);
    used_mask.set(bit);
  }
  if (used_units > total_units || used_mib > total_mib || pipes_beyond || units_beyond) {
    LOG_DEBUG("[%s] %s: used resources is exceeding the limit of deveice(%d).\n", __func__,
              kLabelError, device_id);
    return VDX_STATUS_OUT_OF_RESOURCES;
  }

  *remaining_cus = static_cast<int>(total_units - used_units);
  *remaining_mem = static_cast<int>(total_mib - used_mib);
  const cu_mask_t free_units = ~used_mask;
  const uint32_t free_pipe_set = ~used_pipes & 0xF;
  if (free_mask != nullptr) *free_mask = free_units;
  if (free_pipes != nullptr) *free_pipes = free_pipe_set;
  LOG_DEBUG("[%s] device_id(%d), cu(%d), memory(%d), cu_mask(0x%016lx%016lx), pipe_mask(0x%x).\n",
            __func__, device_id, *remaining_cus, *remaining_mem, CuMaskWord64(free_units, 1),
            CuMaskWord64(free_units, 0), free_pipe_set);
  return VDX_STATUS_SUCCESS;
}
