// Start-up and lifetime of the manager: the singleton, Init with its run-mode decisions, the
// destructor that undoes at exit what this process did to the driver, the log level, the
// largest number of virtual devices per device, and the by-id accessors of the list.
// Init runs once, under the gate's once flag and its mutex; callers of the accessors hold
// virtual_device_lock (shared to read, exclusive to change).
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/env_check.h"
#include "mkfd/device_names.h"
#include "utils/file.h"
#include "utils/logger.h"
#include "virtual/dmvirtual_labels.h"
#include "virtual/include/dmvirtual.h"

namespace {

// The caller's container: VDX_CONTAINER_ID (hexadecimal) when set, else what container
// detection finds; 0 on bare metal. Detection reports ids as hexadecimal text, of which the
// first 16 digits make the 64-bit id; a text without a leading hexadecimal digit throws.
uint64_t GetContainerId() {
  if (const char* forced = getenv("VDX_CONTAINER_ID")) {
    const uint64_t id = strtoull(forced, nullptr, 16);
    LOG_DEBUG("[%s] Get container id form env(0x%lx).\n", __func__, id);
    return id;
  }
  bool in_container = false;
  std::string id_string;
  if (!CheckContainerEnv(in_container, &id_string)) {
    LOG_DEBUG("[%s] %s: check container environment failed.\n", __func__, kLabelWarning);
    return 0;
  }
  uint64_t id = 0;
  if (in_container) {
    if (id_string.empty()) {
      LOG_DEBUG("[%s] %s: container environment detected, but docker container id string not "
                "found.\n",
                __func__, kLabelWarning);
    } else {
      LOG_DEBUG("[%s] Get docker container id string(0x%s).\n", __func__, id_string.c_str());
      id = std::stoull(id_string.substr(0, 16), nullptr, 16);
    }
  }
  LOG_DEBUG("[%s] Process is running in %s.\n", __func__,
            in_container ? "docker container" : "bare metal");
  return id;
}

device_info DeviceInfoFromProperties(const dmkfdNodeProperties& props) {
  device_info info;
  memset(&info, 0, sizeof(info));
  info.pciDomainID = props.Domain;
  info.pciBus = (props.LocationId >> 8) & 0xff;
  info.pciDevice = (props.LocationId >> 3) & 0x1f;
  info.pciFunction = props.LocationId & 7;
  info.simdCount = props.SimdCount;
  info.simdPerCu = props.SimdPerCu;
  info.vendorId = props.VendorId;
  info.deviceId = props.DeviceId;
  info.wavePerSimd = props.MaxWavePerSimd;
  info.globalMemSize = props.GlobalMemSize;
  snprintf(info.name, sizeof(info.name), "%s", props.MarketingName);
  // A topology that claims no SIMDs per unit has no units, rather than a division by zero.
  info.cuNum = props.SimdPerCu == 0 ? 0 : props.SimdCount / props.SimdPerCu;
  return info;
}

}  // namespace

Dmvirtual::Dmvirtual() {
  // The destructor logs at process exit. Static objects are destroyed in the reverse order
  // of their construction, so the logger must exist before the manager does.
  utils::Logger::GetInstance();
}

Dmvirtual& Dmvirtual::Instance() {
  static Dmvirtual instance;
  return instance;
}

Dmvirtual::~Dmvirtual() {
  try {
    const pid_t self = getpid();
    if (self != dmvirtual_pid) {
      // A forked child (or a process that never started the manager) leaves the driver and
      // the parent's devices alone. The Device objects are kept, not deleted, and stay
      // reachable, so that leak checkers do not count them against the child.
      LOG_DEBUG("[%s] %s: the DMGR(%d) is not initialized by the current process(%d).\n",
                __func__, kLabelWarning, dmvirtual_pid, self);
      static std::vector<Device*>* const kept_by_child = new std::vector<Device*>();
      kept_by_child->insert(kept_by_child->end(), device_lists.begin(), device_lists.end());
      return;
    }
    if (!created_vxcus.empty()) {
      LOG_DEBUG("[%s] Destroy virtual devices marked as created, created count(%llu).\n",
                __func__, static_cast<unsigned long long>(created_vxcus.size()));
      iDestroyOwnInstancesAtExit();
    }
    for (Device* device : device_lists) delete device;
    device_lists.clear();
    dmkfdCloseMkfd();
    dmkfdShutDown();
  } catch (...) {
    // Nothing may leave a destructor that runs at exit.
  }
}

vdxStatus Dmvirtual::Init() {
  SetLogLevel("info");
  dmvirtual_pid = getpid();
  docker_id = GetContainerId();
  LOG_DEBUG("[%s] Get docker ID(0x%lx).\n", __func__, docker_id);

  if (!CheckSystemModeViaZomgr(system_mode, true, true, -1)) {
    LOG_DEBUG("[%s] %s: get system mode via zomgr failed.\n", __func__, kLabelError);
    return VDX_STATUS_ERROR_NOT_INITIALIZED;
  }
  vdxStatus status = dmkfdInit();
  if (status != VDX_STATUS_SUCCESS) return status;
  status = dmkfdOpenMkfd();
  if (status != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: open mkfd failed.\n", __func__, kLabelError);
    return status;
  }
  LOG_DEBUG("[%s] Dmvirtual init for pid(%d).\n", __func__, dmvirtual_pid);

  uint32_t count = 0;
  dmkfdGetNodeCount(&count);
  if (count == 0) {
    LOG_DEBUG("[%s] %s: get invalid node count(%d).\n", __func__, kLabelError, count);
    return VDX_STATUS_SYS_NODE_NOT_EXIST;
  }
  for (uint32_t node = 0; node < count; ++node) {
    dmkfdNodeProperties props;
    memset(&props, 0, sizeof(props));
    if (dmkfdGetNodeProperties(node, &props) != VDX_STATUS_SUCCESS) continue;
    // One unsupported accelerator makes the whole library unusable: virtual devices on a
    // mixed machine would bind processes to devices the driver cannot partition.
    if (!IsSupportedAccelerator(props.VendorId, props.DeviceId)) {
      LOG_DEBUG("[%s] %s: Virtual is not supported on device %s.\n", __func__, kLabelError,
                props.MarketingName);
      return VDX_STATUS_NOT_SUPPORTED;
    }
    device_lists.push_back(new Device(DeviceInfoFromProperties(props)));
  }

  iInitSysGroup();

  dmRunMode run_mode = DM_PROCESS_NONE_MODE;  // for the last line, said after the locks
  try {
    utils::WriterLock vdevs(&virtual_device_lock);
    utils::WriterLock binds(&bind_vdev_lock);
    ConfigLock file_lock(FileLocker::kShared);
    if (iInitVirtualDevice() != VDX_STATUS_SUCCESS) {
      LOG_DEBUG("[%s] %s: initialize virtual devices from file system failed.\n", __func__,
                kLabelError);
      return VDX_STATUS_ERROR;
    }
    if (iGetRunVirtualDevice() != VDX_STATUS_SUCCESS) {
      LOG_DEBUG("[%s] %s: initialize bind virtual devices from file system failed.\n", __func__,
                kLabelError);
      return VDX_STATUS_ERROR;
    }
    run_mode = mode;
  } catch (const std::exception& e) {
    LOG_DEBUG("[%s] %s: failed to initialize virtual singleton. Due to %s\n", __func__,
              kLabelError, e.what());
    return VDX_STATUS_ERROR;
  }
  LOG_DEBUG("[%s] Process run mode(%d), system mode(%d), docker virtual env(%d).\n", __func__,
            run_mode, system_mode, is_docker_virtual_env ? 1 : 0);
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::SetLogLevel(std::string log_level) {
  // Errors alone and the trace level are deliberately not offered to callers.
  utils::LogLevel named = utils::kLogInfo;
  if (!utils::LogLevelFromName(log_level, &named) || named == utils::kLogError ||
      named == utils::kLogTrace) {
    LOG_DEBUG("[%s] %s: invalid parameter specified for log level(%s).\n", __func__, kLabelError,
              log_level.c_str());
    return VDX_STATUS_INVALID_ARGUMENTS;
  }
  if (const char* forced = getenv("VDX_LOG_LEVEL")) {
    const int level = atoi(forced);
    utils::SetLogLevel(static_cast<utils::LogLevel>(level));
    LOG_DEBUG("[%s] %s: log level has been overrided by envvar(%d-%s).\n", __func__,
              kLabelWarning, level, utils::LogLevelName(level));
    return VDX_STATUS_SUCCESS;
  }
  utils::SetLogLevel(log_level);
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::GetMaxVirtualDeviceCountSupport(int* count) {
  if (count == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;
  // A process in a container sees only the slices it was given and may make none.
  *count = is_docker_virtual_env ? 0 : kMaxVdevsPerDevice;
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iGetVirtualDeviceById(int vdev_id, virtual_device_info* info) {
  if (info == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;
  for (const virtual_device_info& vdev : virtual_device_lists) {
    if (vdev.vdev_id == vdev_id) {
      *info = vdev;
      return VDX_STATUS_SUCCESS;
    }
  }
  return VDX_STATUS_ERROR;
}

vdxStatus Dmvirtual::iSetVirtualDeviceById(int vdev_id, virtual_device_info* info) {
  if (info == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;
  for (virtual_device_info& vdev : virtual_device_lists) {
    if (vdev.vdev_id == vdev_id) {
      vdev = *info;
      return VDX_STATUS_SUCCESS;
    }
  }
  return VDX_STATUS_ERROR;
}

vdxStatus Dmvirtual::iReleaseVirtualDevice(int vdev_id) {
  // An id outside 0..31 frees nothing: it is not another id.
  if (vdev_id >= 0 && vdev_id < kMaxVirtualDevices) vdev_bitmap |= IdBit(vdev_id);
  for (auto it = virtual_device_lists.begin(); it != virtual_device_lists.end(); ++it) {
    if (it->vdev_id == vdev_id) {
      virtual_device_lists.erase(it);
      break;
    }
  }
  return VDX_STATUS_SUCCESS;
}
