// The driver commands: each checks the connection and its arguments, fills its record,
// issues one ioctl and copies the driver's answer out. Records start zeroed, so nothing the
// driver reads is left to chance.
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "mkfd/mkfd_interface.h"

namespace {

uint64_t UserAddress(const void* pointer) {
  return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(pointer));
}

}  // namespace

bool MkfdInterface::NodeToGpuId(uint32_t node, uint32_t* gpuId) {
  return UserNodeToGpuId(node, gpuId) == VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::SetRunMode(dmRunMode mode, uint32_t node, uint64_t indentifier) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;
  mkfd_process_run_mode kfdMode;
  if (DmModeToKfdMode(mode, &kfdMode) != VDX_STATUS_SUCCESS) return VDX_STATUS_INVALID_ARGUMENTS;

  mkfd_ioctl_set_process_mode_args args{};
  args.mode = kfdMode;
  args.indentifier = indentifier;
  args.gpu_id = gpuId;
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_SET_PROCESS_MODE, &args) < 0) return VDX_STATUS_ERROR;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::CreateVdev(uint32_t node, uint32_t group_id, uint32_t vgpu_id,
                                    uint64_t indentifier, uint64_t vram_limit,
                                    uint32_t num_cu_mask, uint32_t* cu_mask) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;
  if (num_cu_mask == 0 || cu_mask == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;
  // The driver copies whole 32-bit words of mask.
  if (num_cu_mask % 32 != 0) return VDX_STATUS_INVALID_ARGUMENTS;

  mkfd_ioctl_create_vgpu_args args{};
  args.gpu_id = gpuId;
  args.vgpu_id = vgpu_id;
  args.group_id = group_id;
  args.indentifier = indentifier;
  args.vram_limit = vram_limit;
  args.num_cu_mask = num_cu_mask;
  args.cu_mask_ptr = UserAddress(cu_mask);
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_CREATE_VGPU, &args) < 0) return VDX_STATUS_CREATE_VDEV_FAILED;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::DestroyVdev(uint32_t node, uint32_t vgpu_id) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;

  mkfd_ioctl_destroy_vgpu_args args{};
  args.gpu_id = gpuId;
  args.vgpu_id = vgpu_id;
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_DESTROY_VGPU, &args) < 0) return VDX_STATUS_DESTROY_VDEV_FAILED;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::UpdateVdev(uint32_t node, dmUpdateVdevType type, uint32_t vgpu_id,
                                    uint64_t vram_limit, uint32_t num_cu_mask,
                                    uint32_t* cu_mask) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;
  mkfd_update_vgpu_type kfdType;
  if (DmTypeToKfdType(type, &kfdType) != VDX_STATUS_SUCCESS) return VDX_STATUS_INVALID_ARGUMENTS;

  // The mask is not checked: a memory-only update may pass 0 and null.
  mkfd_ioctl_update_vgpu_args args{};
  args.type = kfdType;
  args.gpu_id = gpuId;
  args.vgpu_id = vgpu_id;
  args.vram_limit = vram_limit;
  args.num_cu_mask = num_cu_mask;
  args.cu_mask_ptr = UserAddress(cu_mask);
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_UPDATE_VGPU, &args) < 0) return VDX_STATUS_ERROR;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::CreateGroup(uint32_t group_id, uint64_t indentifier,
                                     uint64_t vram_limit) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;

  mkfd_ioctl_create_group_args args{};
  args.indentifier = indentifier;
  args.vram_limit = vram_limit;
  args.group_id = group_id;
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_CREATE_GROUP, &args) < 0) {
    // The group of this identifier exists already: what the caller wanted is there.
    if (errno == EBUSY) return VDX_STATUS_SUCCESS;
    return VDX_STATUS_CREATE_VDEV_FAILED;
  }
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::DestroyGroup(uint64_t indentifier) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;

  mkfd_ioctl_destroy_group_args args{};
  args.indentifier = indentifier;
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_DESTROY_GROUP, &args) < 0) {
    return VDX_STATUS_DESTROY_VDEV_FAILED;
  }
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::UpdateGroup(uint32_t node, uint64_t indentifier, uint64_t vram_limit) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;

  mkfd_ioctl_update_group_args args{};
  args.indentifier = indentifier;
  args.gpu_id = gpuId;
  args.vram_limit = vram_limit;
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_UPDATE_GROUP, &args) < 0) return VDX_STATUS_ERROR;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::QueryGroupInfo(uint32_t node, uint64_t indentifier,
                                        dmkfdVdevInfo* info) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;
  if (info == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;

  // Cleared first, so that a failed query reads as "no such group".
  *info = dmkfdVdevInfo{};
  mkfd_ioctl_query_group_info_args args{};
  args.indentifier = indentifier;
  args.gpu_id = gpuId;
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_QUERY_GROUP_INFO, &args) < 0) {
    return VDX_STATUS_QUERY_VDEV_INFO_FAILED;
  }
  info->vram_limit = args.vram_limit;
  info->vram_usage = args.vram_usage;
  info->isExist = args.result != 0;
  info->refcount = args.refcount;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::QueryGroupInfoById(uint32_t node, uint32_t group_id,
                                            dmkfdVdevInfo* info) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;
  if (info == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;

  *info = dmkfdVdevInfo{};
  mkfd_ioctl_query_group_info_by_id_args args{};
  args.group_id = group_id;
  args.gpu_id = gpuId;
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_QUERY_GROUP_INFO_BY_ID, &args) < 0) {
    return VDX_STATUS_QUERY_VDEV_INFO_FAILED;
  }
  info->vram_limit = args.vram_limit;
  info->vram_usage = args.vram_usage;
  info->isExist = args.result != 0;
  info->indentifier = args.indentifier;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::QueryVdevInfo(uint32_t node, uint32_t vgpu_id, dmkfdVdevInfo* info) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;
  if (info == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;

  *info = dmkfdVdevInfo{};
  mkfd_ioctl_query_vgpu_info_args args{};
  args.gpu_id = gpuId;
  args.vgpu_id = vgpu_id;
  // 128 bits: the four words a virtual device's mask spans; the driver writes them in place.
  args.num_cu_mask = 128;
  args.cu_mask_ptr = UserAddress(info->cu_mask);
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_QUERY_VGPU_INFO, &args) < 0) {
    return VDX_STATUS_QUERY_VDEV_INFO_FAILED;
  }
  info->vram_limit = args.vram_limit;
  info->vram_usage = args.vram_usage;
  info->indentifier = args.indentifier;
  memcpy(info->se_mask, args.se_mask, sizeof(info->se_mask));
  info->refcount = args.refcount;
  // The driver answers only for an instance that exists.
  info->isExist = true;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::QueryVdevSeInfo(uint32_t node, uint32_t vgpu_id, uint32_t num_cu_mask,
                                         uint32_t* cu_mask, dmkfdBusyCuInfo* info) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;
  if (info == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;

  mkfd_ioctl_query_vgpu_se_info_args args{};
  args.gpu_id = gpuId;
  args.vgpu_id = vgpu_id;
  args.num_cu_mask = num_cu_mask;
  args.cu_mask_ptr = UserAddress(cu_mask);
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_QUERY_VGPU_SE_INFO, &args) < 0) {
    return VDX_STATUS_QUERY_VDEV_INFO_FAILED;
  }
  memcpy(info->se_mask, args.se_mask, sizeof(info->se_mask));
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::GetDevWaveInfo(uint32_t node, void* buffer, uint64_t buffer_size,
                                        uint32_t* wave_count, bool gpr) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;
  if (buffer == nullptr || wave_count == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;

  mkfd_ioctl_get_wave_info_args args{};
  args.gpu_id = gpuId;
  args.wave_count = 0;
  args.buffer = UserAddress(buffer);
  args.buffer_size = buffer_size;
  args.gpr = gpr ? 1 : 0;
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_GET_WAVE_INFO, &args) < 0) return VDX_STATUS_ERROR;
  *wave_count = args.wave_count;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::GetBusyCU(uint32_t node, dmkfdBusyCuInfo* info, int count) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  constexpr int kShaderEngines = sizeof(info->se_mask) / sizeof(info->se_mask[0]);
  if (count < 1 || count > kShaderEngines) return VDX_STATUS_INVALID_ARGUMENTS;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;
  if (info == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;

  mkfd_ioctl_get_cu_busy_args args{};
  args.gpu_id = gpuId;
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_GET_CU_BUSY, &args) < 0) return VDX_STATUS_ERROR;
  memcpy(info->se_mask, args.se_mask, sizeof(info->se_mask[0]) * count);
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::GetAvailableMem(uint32_t node, uint64_t* available) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;
  if (available == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;

  mkfd_ioctl_get_available_mem_size_args args{};
  args.gpu_id = gpuId;
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_GET_AVAILABLE_MEM, &args) < 0) return VDX_STATUS_ERROR;
  *available = args.available;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::ConnectZouds(int* fd) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  if (fd == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;

  mkfd_ioctl_create_zouds_conn_args args{};
  args.fd = 0;
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_CREATE_ZOUDS_CONN, &args) < 0) return VDX_STATUS_ERROR;
  *fd = args.fd;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::GetVmidPasid(uint32_t node, uint32_t vmid, uint32_t* pasid) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;
  if (pasid == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;

  mkfd_ioctl_atc_vmid_pasid_mapping_info_args args{};
  args.gpu_id = gpuId;
  args.vmid = static_cast<uint8_t>(vmid & 0xFF);
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_VMID_PASID_MAPPING, &args) < 0) return VDX_STATUS_ERROR;
  *pasid = args.pasid;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::ReadRegister(uint32_t node, long reg, uint32_t& value) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;

  // Plain register access: no bank or ring selection, no power-gating lock.
  mkfd_ioctl_regs_op_args args{};
  args.gpu_id = gpuId;
  args.read = true;
  args.reg = static_cast<uint32_t>(reg);
  args.value = 0;
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_REGS_OP, &args) < 0) return VDX_STATUS_ERROR;
  value = args.value;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::WriteRegister(uint32_t node, long reg, uint32_t value) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;

  mkfd_ioctl_regs_op_args args{};
  args.gpu_id = gpuId;
  args.read = false;
  args.reg = static_cast<uint32_t>(reg);
  args.value = value;
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_REGS_OP, &args) < 0) return VDX_STATUS_ERROR;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::GetBusyCodec(uint32_t node, bool is_dec, uint32_t* busy,
                                      uint32_t* total) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  uint32_t gpuId = 0;
  if (!NodeToGpuId(node, &gpuId)) return VDX_STATUS_INVALID_ARGUMENTS;
  if (busy == nullptr || total == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;

  mkfd_ioctl_get_codec_busy_args args{};
  args.gpu_id = gpuId;
  args.is_dec = is_dec;
  if (MkfdIoctl(mkfd_fd, MKFD_IOC_GET_CODEC_BUSY, &args) < 0) return VDX_STATUS_ERROR;
  *busy = args.busy_instance;
  *total = args.total_instance;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::GetNodeGpuId(uint32_t node, uint32_t* gpuId) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  return UserNodeToGpuId(node, gpuId);
}

vdxStatus MkfdInterface::GetNodeByGpuId(uint32_t gpuId, uint32_t* node) {
  if (!IsOpen()) return VDX_STATUS_MKFD_NOT_OPENED;
  return GpuIdToUserNode(gpuId, node);
}
