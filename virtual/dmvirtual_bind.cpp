// Process binding: which virtual devices the calling process is bound to and in which run
// mode (the container's files under /etc/vdev/docker, or VDX_VDEV_MASK on the host), the
// driver's container groups read from sysfs, the group and instances that make a run mode
// real in the driver, and the visible-device variables of the compute runtime.
// iGetRunVirtualDevice, iSetRunVirtualDevice and iReleaseRunVirtualDevice run with
// bind_vdev_lock held exclusively (after virtual_device_lock); CreateProcessGroup and
// iRunProcessVdevMode take bind_vdev_lock shared themselves. Environment variables are
// written only under these locks.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "utils/file.h"
#include "utils/logger.h"
#include "utils/scoped.h"
#include "utils/utils.h"
#include "virtual/dmvirtual_labels.h"
#include "virtual/include/dmvirtual.h"

namespace {

constexpr char kVdevMaskVariable[] = "VDX_VDEV_MASK";

// The mask of a virtual device as the driver takes it, and its limit in bytes.
void DriverShape(const virtual_device_info& vdev, uint32_t words[kCuMaskWord32Count],
                 uint64_t* limit) {
  CuMaskToWords32(vdev.cuMask, words);
  *limit = MibToBytes(vdev.memLimit);
}

}  // namespace

bool Dmvirtual::IsDockerVirtualEnv() { return is_docker_virtual_env; }

vdxStatus Dmvirtual::iGetRunVirtualDevice() {
  mode = DM_PROCESS_NONE_MODE;
  is_docker_virtual_env = false;
  bind_vdev_lists.clear();

  long shared = 0;
  const uint32_t in_container = PresentVdevIds(kVdevDockerDir);
  for (int id = 0; id < kMaxVirtualDevices; ++id) {
    if (!(in_container & IdBit(id))) continue;
    virtual_device_info info;
    if (iGetVirtualDevice(kVdevDockerDir, VdevFileName(id), &info) != VDX_STATUS_SUCCESS) continue;
    info.file_id = id;
    bind_vdev_lists.push_back(info);
    if (info.cuCount == 0) ++shared;
  }
  const long bound = static_cast<long>(bind_vdev_lists.size());
  if (bound > 0) {
    if (shared == 0) {
      mode = DM_PROCESS_VDEV_MODE;
    } else if (shared == bound) {
      mode = DM_PROCESS_GROUP_MODE;
    } else {
      // Unit-sharing devices live in a group, the others in instances of their own; the
      // driver cannot run one process both ways.
      LOG_DEBUG("[%s] %s: share cu vdev count(%ld) not equal bind vdev(%ld).\n", __func__,
                kLabelError, shared, bound);
      bind_vdev_lists.clear();
      return VDX_STATUS_NOT_SUPPORTED;
    }
    is_docker_virtual_env = true;
    return VDX_STATUS_SUCCESS;
  }

  // Not a container with virtual devices: the host process may have been bound by a start.
  const char* text = getenv(kVdevMaskVariable);
  const long mask = text == nullptr ? 0 : strtol(text, nullptr, 10);
  if (mask == 0) return VDX_STATUS_SUCCESS;
  const uint32_t on_host = PresentVdevIds(kVdevDir);
  for (int id = 0; id < kMaxVirtualDevices; ++id) {
    if (!(static_cast<unsigned long>(mask) & on_host & IdBit(id))) continue;
    virtual_device_info info;
    if (iGetVirtualDevice(kVdevDir, VdevFileName(id), &info) != VDX_STATUS_SUCCESS) continue;
    if (info.cuCount == 0) {
      LOG_DEBUG("[%s] %s: share cu vdev can not be bound in bare-metal environment.\n", __func__,
                kLabelError);
      return VDX_STATUS_NOT_SUPPORTED;
    }
    info.file_id = id;
    bind_vdev_lists.push_back(info);
  }
  if (!bind_vdev_lists.empty()) mode = DM_PROCESS_VDEV_MODE;
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iSetRunVirtualDevice(uint32_t mask) {
  LOG_DEBUG("[%s] Set virtual device mask to 0x%x.\n", __func__, mask);
  setenv(kVdevMaskVariable, std::to_string(mask).c_str(), 1);
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iReleaseRunVirtualDevice() {
  bind_vdev_lists.clear();
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iInitSysGroup() {
  utils::DirHandle dir(opendir(kSysfsGroupDir));
  if (!dir) {
    LOG_DEBUG("[%s] %s: failed to open directory '%s' - %s.\n", __func__, kLabelError,
              kSysfsGroupDir, ErrnoMessage(errno).c_str());
    return VDX_STATUS_ERROR;
  }
  // The new list starts empty: a long-running process refreshes it on many requests, and a
  // list that kept anything of the old one would grow with each.
  std::vector<sys_group_info> fresh;
  while (const struct dirent* entry = readdir(dir.get())) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    unsigned long owner = 0;
    if (sscanf(entry->d_name, "%lx", &owner) != 1) continue;
    bool known = false;
    for (const sys_group_info& old : group_lists) {
      if (old.container_id == owner) {
        fresh.push_back(old);
        known = true;
        break;
      }
    }
    if (known) continue;
    const std::string path = std::string(kSysfsGroupDir) + "/" + entry->d_name + "/entry";
    LOG_DEBUG("[%s] Group file(%s).\n", __func__, path.c_str());
    sys_group_info info{0, 0};
    if (iSysGetGroupInfo(path, &info) != VDX_STATUS_SUCCESS) continue;
    LOG_DEBUG("[%s] Container id(0x%lx).\n", __func__, info.container_id);
    LOG_DEBUG("[%s] Group id(%ld).\n", __func__, static_cast<long>(info.group_id));
    fresh.push_back(info);
  }
  group_lists.swap(fresh);
  return VDX_STATUS_SUCCESS;
}

bool Dmvirtual::iAnySysGroup() const {
  for (const sys_group_info& group : group_lists)
    if (group.container_id != 0 || group.group_id != 0) return true;
  return false;
}

vdxStatus Dmvirtual::iSysGetGroupInfo(std::string path, sys_group_info* info) {
  utils::FileHandle stream(fopen(path.c_str(), "re"));
  if (!stream) {
    LOG_DEBUG("[%s] %s: failed to open file '%s' - %s.\n", __func__, kLabelError, path.c_str(),
              ErrnoMessage(errno).c_str());
    return VDX_STATUS_ERROR;
  }
  ForEachLine(stream.get(), [info](const std::string& line) {
    std::vector<std::string> parts;
    SplitStr(line, " ", parts, false);
    // at(): a matching line without its value is a range error for the caller to handle.
    if (line.find("Group Indentifier:") != std::string::npos)
      info->container_id = strtoull(parts.at(2).c_str(), nullptr, 0);
    else if (line.find("Group Id:") != std::string::npos)
      info->group_id = strtoull(parts.at(2).c_str(), nullptr, 0);
    return true;
  });
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::CreateProcessGroup(virtual_device_info* vdevs, int count) {
  if (count < 1 || vdevs == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;
  if (!is_docker_virtual_env) {
    LOG_DEBUG("[%s] %s: current environment is not virtual in docker, it is not support to "
              "create process group.\n",
              __func__, kLabelError);
    return VDX_STATUS_NOT_SUPPORTED;
  }
  // Groups and per-device instances exclude each other in the driver.
  for (size_t d = 0; d < device_lists.size(); ++d) {
    for (uint32_t pipe = 0; pipe < kMaxVdevsPerDevice; ++pipe) {
      dmkfdVdevInfo instance;
      if (dmkfdQueryVdevInfo(static_cast<uint32_t>(d), pipe, &instance) == VDX_STATUS_SUCCESS) {
        LOG_DEBUG("[%s] %s: virtual device instance already exists, not supported to create "
                  "process group.\n",
                  __func__, kLabelError);
        return VDX_STATUS_NOT_SUPPORTED;
      }
    }
  }

  utils::ReaderLock binds(&bind_vdev_lock);
  uint32_t group_id = 0;
  for (const virtual_device_info& bound : bind_vdev_lists) group_id |= IdBit(bound.vdev_id);
  if (dmkfdCreateGroup(group_id, docker_id, UINT64_MAX) != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: create process group(%u) failed.\n", __func__, kLabelError, group_id);
    return VDX_STATUS_ERROR;
  }
  for (int i = 0; i < count; ++i) {
    const virtual_device_info& vdev = vdevs[i];
    const uint64_t limit = MibToBytes(vdev.memLimit);
    const bool known_device =
        vdev.device_id >= 0 && static_cast<size_t>(vdev.device_id) < device_lists.size();
    const uint64_t total = known_device ? device_lists[vdev.device_id]->Info().globalMemSize : 0;
    if (limit > total) {
      LOG_DEBUG("[%s] %s: the limited memory size(0x%lx) exceeding total memory size(0x%lx).\n",
                __func__, kLabelError, limit, total);
      dmkfdDestroyGroup(docker_id);
      return VDX_STATUS_OUT_OF_RESOURCES;
    }
    if (dmkfdUpdateGroup(static_cast<uint32_t>(vdev.device_id), docker_id, limit) !=
        VDX_STATUS_SUCCESS) {
      LOG_DEBUG("[%s] %s: update process group failed, node(%d), indentifier(0x%lx), limited "
                "memory size(%ld).\n",
                __func__, kLabelError, vdev.device_id, docker_id, static_cast<long>(limit));
      dmkfdDestroyGroup(docker_id);
      return VDX_STATUS_ERROR;
    }
  }
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::DestroyProcessGroup() {
  if (!is_docker_virtual_env) {
    LOG_DEBUG("[%s] %s: current environment is not virtual in docker, it is not support to "
              "destroy process group.\n",
              __func__, kLabelError);
    return VDX_STATUS_NOT_SUPPORTED;
  }
  return dmkfdDestroyGroup(docker_id) == VDX_STATUS_SUCCESS ? VDX_STATUS_SUCCESS
                                                            : VDX_STATUS_ERROR;
}

vdxStatus Dmvirtual::iRunProcessGroupMode(virtual_device_info* vdevs, int count) {
  if (count < 1 || vdevs == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;
  dmkfdVdevInfo group;
  if (dmkfdQueryGroupInfo(0, docker_id, &group) != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: check process group info failed.\n", __func__, kLabelError);
    return VDX_STATUS_ERROR;
  }
  if (!group.isExist && CreateProcessGroup(vdevs, count) != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: create process group via dmkfd failed.\n", __func__, kLabelError);
    return VDX_STATUS_ERROR;
  }
  if (dmkfdSetRunMode(DM_PROCESS_GROUP_MODE, 0, docker_id) != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: set process group mode failed.\n", __func__, kLabelError);
    return VDX_STATUS_ERROR;
  }
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iRunProcessVdevMode() {
  utils::ReaderLock binds(&bind_vdev_lock);
  for (const virtual_device_info& vdev : bind_vdev_lists) {
    uint32_t mask[kCuMaskWord32Count];
    uint64_t limit = 0;
    DriverShape(vdev, mask, &limit);
    const uint32_t device = static_cast<uint32_t>(vdev.device_id);
    const uint32_t pipe = static_cast<uint32_t>(vdev.pipe_id);
    dmkfdVdevInfo instance;
    if (dmkfdQueryVdevInfo(device, pipe, &instance) != VDX_STATUS_SUCCESS) {
      if (dmkfdCreateVdev(device, static_cast<uint32_t>(vdev.vdev_id), pipe, docker_id, limit,
                          128, mask) != VDX_STATUS_SUCCESS) {
        LOG_DEBUG("[%s] %s: create virtual device(%d) on physical device(%d) via dmkfd "
                  "failed.\n",
                  __func__, kLabelError, vdev.vdev_id, vdev.device_id);
        return VDX_STATUS_ERROR;
      }
      continue;
    }
    if (instance.indentifier != 0 && instance.indentifier != docker_id) {
      LOG_DEBUG("[%s] %s: the instance of virtual device(%d) has already created in docker "
                "container(0x%lx).\n",
                __func__, kLabelError, vdev.vdev_id, instance.indentifier);
      return VDX_STATUS_ERROR;
    }
    if (instance.vram_limit != limit &&
        dmkfdUpdateVdev(device, DM_UPDATE_VDEV_VRAM_LIMIT, pipe, limit, 128, mask) !=
            VDX_STATUS_SUCCESS) {
      LOG_DEBUG("[%s] %s: update vram limit failed, device id(%d), pipe(%d), limit(%ld).\n",
                __func__, kLabelError, vdev.device_id, vdev.pipe_id, static_cast<long>(limit));
      return VDX_STATUS_ERROR;
    }
    if (memcmp(instance.cu_mask, mask, sizeof(mask)) != 0 &&
        dmkfdUpdateVdev(device, DM_UPDATE_VDEV_CU_MASK, pipe, limit, 128, mask) !=
            VDX_STATUS_SUCCESS) {
      LOG_DEBUG("[%s] %s: update compute unit mask failed, device id(%d), pipe(%d), "
                "limit(%ld).\n",
                __func__, kLabelError, vdev.device_id, vdev.pipe_id, static_cast<long>(limit));
      return VDX_STATUS_ERROR;
    }
  }
  for (size_t d = 0; d < device_lists.size(); ++d) {
    uint32_t pipes = 0;
    for (const virtual_device_info& vdev : bind_vdev_lists)
      if (vdev.device_id == static_cast<int>(d)) pipes |= IdBit(vdev.pipe_id);
    if (pipes == 0) continue;
    // The set of pipes travels in the identifier argument.
    if (dmkfdSetRunMode(DM_PROCESS_VDEV_MODE, static_cast<uint32_t>(d), pipes & 0xF) !=
        VDX_STATUS_SUCCESS) {
      LOG_DEBUG("[%s] %s: set virtual device mode failed, node(%d), mask(0x%lx).\n", __func__,
                kLabelError, static_cast<int>(d), static_cast<unsigned long>(pipes & 0xF));
      return VDX_STATUS_ERROR;
    }
  }
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iSetVisiableDevice(virtual_device_info* vdevs, int count) {
  std::string devices;
  for (int i = 0; vdevs != nullptr && i < count; ++i) {
    if (i > 0) devices += ",";
    devices += std::to_string(vdevs[i].device_id);
  }
  setenv("HIP_VISIBLE_DEVICES", devices.c_str(), 1);
  setenv("CUDA_VISIBLE_DEVICES", devices.c_str(), 1);
  LOG_DEBUG("[%s] HIP_VISIBLE_DEVICES(%s), CUDA_VISIBLE_DEVICES(%s).\n", __func__,
            devices.c_str(), devices.c_str());
  return VDX_STATUS_SUCCESS;
}
