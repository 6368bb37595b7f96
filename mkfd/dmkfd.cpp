// The flat driver functions: each logs its call at debug level, checks that the connection
// object exists, and forwards to it. Statuses pass through unchanged.
#include "mkfd/include/dmkfd.h"

#include "mkfd/mkfd_interface.h"
#include "utils/logger.h"

namespace {

MkfdInterface& Mkfd() { return *MkfdInterface::mkfd_singleton_; }

}  // namespace

vdxStatus dmkfdInit() { return MkfdInterface::Acquire(); }

vdxStatus dmkfdShutDown() {
  LOG_DEBUG("[%s]\n", __func__);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return MkfdInterface::Release();
}

vdxStatus dmkfdOpenMkfd() {
  LOG_DEBUG("[%s]\n", __func__);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().OpenMkfd();
}

vdxStatus dmkfdCloseMkfd() {
  LOG_DEBUG("[%s] Close Over!\n", __func__);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().CloseMkfd();
}

vdxStatus dmkfdGetNodeCount(uint32_t* count) {
  // The only function that checks before it logs: the line reports the count.
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  if (count == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;
  *count = static_cast<uint32_t>(Mkfd().NumXcuNodes());
  LOG_DEBUG("[%s] count: %d\n", __func__, *count);
  return VDX_STATUS_SUCCESS;
}

vdxStatus dmkfdGetNodeGpuId(uint32_t node, uint32_t* gpuId) {
  LOG_DEBUG("[%s] Node:%d\n", __func__, node);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().GetNodeGpuId(node, gpuId);
}

vdxStatus dmkfdGetNodeByGpuId(uint32_t gpuId, uint32_t* node) {
  LOG_DEBUG("[%s] Node:%d\n", __func__, gpuId);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().GetNodeByGpuId(gpuId, node);
}

vdxStatus dmkfdGetNodeProperties(uint32_t node, dmkfdNodeProperties* props) {
  LOG_DEBUG("[%s] Node:%d\n", __func__, node);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().GetNodeProperties(node, props);
}

vdxStatus dmkfdSetRunMode(dmRunMode mode, uint32_t node, uint64_t indentifier) {
  LOG_DEBUG("[%s] mode:%d Node:%d identif:0x%lx\n", __func__, mode, node, indentifier);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().SetRunMode(mode, node, indentifier);
}

vdxStatus dmkfdCreateGroup(uint32_t group_id, uint64_t indentifier, uint64_t vram_limit) {
  LOG_DEBUG("[%s] vdevId: 0x%x indentifier: 0x%lx vram_limit:0x%lx\n", __func__, group_id,
            indentifier, vram_limit);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().CreateGroup(group_id, indentifier, vram_limit);
}

vdxStatus dmkfdDestroyGroup(uint64_t indentifier) {
  LOG_DEBUG("[%s] indentifier: 0x%lx\n", __func__, indentifier);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().DestroyGroup(indentifier);
}

vdxStatus dmkfdUpdateGroup(uint32_t node, uint64_t indentifier, uint64_t vram_limit) {
  LOG_DEBUG("[%s] Node: %d indentifier: 0x%lx limit: 0x%lx\n", __func__, node, indentifier,
            vram_limit);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().UpdateGroup(node, indentifier, vram_limit);
}

vdxStatus dmkfdQueryGroupInfo(uint32_t node, uint64_t indentifier, dmkfdVdevInfo* info) {
  LOG_DEBUG("[%s] Node: %d indentifier:0x%lx\n", __func__, node, indentifier);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().QueryGroupInfo(node, indentifier, info);
}

vdxStatus dmkfdQueryGroupInfoById(uint32_t node, uint32_t group_id, dmkfdVdevInfo* info) {
  LOG_DEBUG("[%s] Node: %d vdevId: %d\n", __func__, node, group_id);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().QueryGroupInfoById(node, group_id, info);
}

vdxStatus dmkfdCreateVdev(uint32_t node, uint32_t group_id, uint32_t vgpu_id,
                          uint64_t indentifier, uint64_t vram_limit, uint32_t num_cu_mask,
                          uint32_t* cu_mask) {
  LOG_DEBUG("[%s] Node:%d vdevId:%d vram:0x%lx\n", __func__, node, group_id, vram_limit);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().CreateVdev(node, group_id, vgpu_id, indentifier, vram_limit, num_cu_mask,
                           cu_mask);
}

vdxStatus dmkfdDestroyVdev(uint32_t node, uint32_t vgpu_id) {
  // The driver's vgpu id of a virtual device is its pipe.
  LOG_DEBUG("[%s] Node:%d pipeId:%d\n", __func__, node, vgpu_id);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().DestroyVdev(node, vgpu_id);
}

vdxStatus dmkfdUpdateVdev(uint32_t node, dmUpdateVdevType type, uint32_t vgpu_id,
                          uint64_t vram_limit, uint32_t num_cu_mask, uint32_t* cu_mask) {
  LOG_DEBUG("[%s] Node:%d dmUpdateVdevType:%d pipeId:%d vram:0x%lx\n", __func__, node, type,
            vgpu_id, vram_limit);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().UpdateVdev(node, type, vgpu_id, vram_limit, num_cu_mask, cu_mask);
}

vdxStatus dmkfdQueryVdevInfo(uint32_t node, uint32_t vgpu_id, dmkfdVdevInfo* info) {
  LOG_DEBUG("[%s] Node:%d pipeId:%d\n", __func__, node, vgpu_id);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().QueryVdevInfo(node, vgpu_id, info);
}

vdxStatus dmkfdQueryVdevSeInfo(uint32_t node, uint32_t vgpu_id, uint32_t num_cu_mask,
                               uint32_t* cu_mask, dmkfdBusyCuInfo* info) {
  LOG_DEBUG("[%s] Node:%d pipeId:%d\n", __func__, node, vgpu_id);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().QueryVdevSeInfo(node, vgpu_id, num_cu_mask, cu_mask, info);
}

vdxStatus dmkfdGetBusyCUInfo(uint32_t node, dmkfdBusyCuInfo* info, int count) {
  LOG_DEBUG("[%s] Node:%d\n", __func__, node);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().GetBusyCU(node, info, count);
}

vdxStatus dmkfdGetAvailableMem(uint32_t node, uint64_t* available) {
  LOG_DEBUG("[%s] Node:%d\n", __func__, node);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().GetAvailableMem(node, available);
}

vdxStatus dmkfdGetBusyCodec(uint32_t node, bool is_dec, uint32_t* busy, uint32_t* total) {
  LOG_DEBUG("[%s] Node:%d\n", __func__, node);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().GetBusyCodec(node, is_dec, busy, total);
}

vdxStatus dmkfdGetDevWaveInfo(uint32_t node, void* buffer, uint64_t buffer_size,
                              uint32_t* wave_count, bool gpr) {
  LOG_DEBUG("[%s] Node:%d\n", __func__, node);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().GetDevWaveInfo(node, buffer, buffer_size, wave_count, gpr);
}

vdxStatus dmkfdGetVmidPasid(uint32_t node, uint32_t vmid, uint32_t* pasid) {
  LOG_DEBUG("[%s] Node:%d\n", __func__, node);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().GetVmidPasid(node, vmid, pasid);
}

vdxStatus dmkfdReadRegister(uint32_t node, long reg, uint32_t* value) {
  LOG_DEBUG("[%s] Node:%d\n", __func__, node);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  // The member takes the value by reference, so a null pointer must stop here; still the
  // connection is judged first, as every command does.
  if (value == nullptr) {
    if (Mkfd().OpenCount() < 1) return VDX_STATUS_MKFD_NOT_OPENED;
    return VDX_STATUS_INVALID_ARGUMENTS;
  }
  return Mkfd().ReadRegister(node, reg, *value);
}

vdxStatus dmkfdWriteRegister(uint32_t node, long reg, uint32_t value) {
  LOG_DEBUG("[%s] Node:%d\n", __func__, node);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().WriteRegister(node, reg, value);
}

vdxStatus dmkfdConnectZouds(int* fd) {
  LOG_DEBUG("[%s]\n", __func__);
  if (!MkfdInterface::IsAcquire()) return VDX_STATUS_ERROR_NOT_INITIALIZED;
  return Mkfd().ConnectZouds(fd);
}
