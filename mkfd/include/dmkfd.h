// The library's door to the accelerator driver: the dmkfd* functions and the records they
// fill. Nothing outside mkfd/ touches the driver connection directly.
//
// Expected order: dmkfdInit, dmkfdOpenMkfd (VDX_STATUS_MKFD_ALREADY_OPENED counts as open and
// needs its own close), any command, dmkfdCloseMkfd, dmkfdShutDown. Without dmkfdInit every
// function returns VDX_STATUS_ERROR_NOT_INITIALIZED; before the open, every command returns
// VDX_STATUS_MKFD_NOT_OPENED. Node arguments are user nodes: accelerators numbered from 0 in
// ascending sysfs order, CPU nodes skipped. The functions add no locking of their own: the
// driver serialises commands, and callers order the changes that depend on each other.
#ifndef ZOVDX_MKFD_DMKFD_H_
#define ZOVDX_MKFD_DMKFD_H_

#include <cstdint>

#include "zovdx/vdx.h"

// A fixed underlying type: callers may pass any value, and a bad one must convert to a
// status, not to undefined behaviour.
enum dmRunMode : int {
  DM_PROCESS_NONE_MODE = 0,
  DM_PROCESS_GROUP_MODE = 1,
  DM_PROCESS_VDEV_MODE = 2,
};

enum dmUpdateVdevType : int {
  DM_UPDATE_VDEV_VRAM_LIMIT = 0,
  DM_UPDATE_VDEV_CU_MASK = 1,
};

typedef enum _DMKFD_HEAPTYPE : uint32_t {
  DM_HEAPTYPE_SYSTEM = 0,
  DM_HEAPTYPE_FRAME_BUFFER_PUBLIC = 1,
  DM_HEAPTYPE_FRAME_BUFFER_PRIVATE = 2,
  DM_HEAPTYPE_GPU_GDS = 3,
  DM_HEAPTYPE_GPU_LDS = 4,
  DM_HEAPTYPE_GPU_SCRATCH = 5,
  DM_HEAPTYPE_DEVICE_SVM = 6,
  DM_HEAPTYPE_MMIO_REMAP = 7,
  DM_HEAPTYPE_NUMHEAPTYPES = 8,
  DM_HEAPTYPE_SIZE = 0xFFFFFFFF,  // also: no heap type was read
} DMKFD_HEAPTYPE;

// What the driver says about a virtual device instance or a container group.
struct dmkfdVdevInfo {
  uint64_t vram_limit;   // bytes
  uint64_t vram_usage;   // bytes
  uint64_t indentifier;  // owner of the group or instance, 0 when none
  uint32_t cu_mask[8];   // bit n = compute unit n
  uint32_t se_mask[8];   // one word per shader engine
  uint32_t refcount;     // processes attached
  bool isExist;
};

// Busy compute units: one word per shader engine.
struct dmkfdBusyCuInfo {
  uint32_t se_mask[8];
};

// One accelerator's "properties" file. Fields whose key the file lacks keep what the caller
// put there.
struct dmkfdNodeProperties {
  uint32_t LocationId;
  uint32_t Domain;
  uint32_t SimdCount;
  uint32_t SimdPerCu;
  uint32_t CuPerSimdArray;
  uint32_t SimdArraysPerEngine;
  uint32_t ArrayCount;
  uint32_t VendorId;
  uint32_t DeviceId;
  uint32_t SubSystemId;
  uint32_t MaxWavePerSimd;
  uint32_t Dp4xStatus;
  uint64_t GlobalMemSize;    // public frame-buffer bank, bytes
  char MarketingName[256];   // NUL-terminated; empty for an unknown product
};

// One memory bank's "properties" file.
struct dmkfdMemoryProperties {
  DMKFD_HEAPTYPE HeapType;
  uint64_t SizeInBytes;
  uint32_t Width;
  uint32_t MemoryClockMax;
};

// Takes a reference on the driver connection object, creating it on first use.
vdxStatus dmkfdInit();
// Drops the reference; the last one deletes the object (close the device first).
vdxStatus dmkfdShutDown();
// Opens "/dev/mkfd" and scans the topology; a second open only counts up.
vdxStatus dmkfdOpenMkfd();
// Counts down; the last close closes the descriptor.
vdxStatus dmkfdCloseMkfd();

// Number of accelerator nodes found by the last open. On failure *count is untouched.
vdxStatus dmkfdGetNodeCount(uint32_t* count);
vdxStatus dmkfdGetNodeGpuId(uint32_t node, uint32_t* gpuId);
vdxStatus dmkfdGetNodeByGpuId(uint32_t gpuId, uint32_t* node);
// Reads sysfs only: works without the device being open once the topology is known.
vdxStatus dmkfdGetNodeProperties(uint32_t node, dmkfdNodeProperties* props);

vdxStatus dmkfdSetRunMode(dmRunMode mode, uint32_t node, uint64_t indentifier);
// A group that exists already counts as created.
vdxStatus dmkfdCreateGroup(uint32_t group_id, uint64_t indentifier, uint64_t vram_limit);
vdxStatus dmkfdDestroyGroup(uint64_t indentifier);
vdxStatus dmkfdUpdateGroup(uint32_t node, uint64_t indentifier, uint64_t vram_limit);
// The query functions clear *info before asking, so a failed query leaves it zero.
vdxStatus dmkfdQueryGroupInfo(uint32_t node, uint64_t indentifier, dmkfdVdevInfo* info);
vdxStatus dmkfdQueryGroupInfoById(uint32_t node, uint32_t group_id, dmkfdVdevInfo* info);

// vgpu_id is the pipe (0 to 3) of the virtual device on its node. num_cu_mask counts mask
// bits and must be a non-zero multiple of 32.
vdxStatus dmkfdCreateVdev(uint32_t node, uint32_t group_id, uint32_t vgpu_id,
                          uint64_t indentifier, uint64_t vram_limit, uint32_t num_cu_mask,
                          uint32_t* cu_mask);
vdxStatus dmkfdDestroyVdev(uint32_t node, uint32_t vgpu_id);
// A memory-only update may pass 0 and null for the mask.
vdxStatus dmkfdUpdateVdev(uint32_t node, dmUpdateVdevType type, uint32_t vgpu_id,
                          uint64_t vram_limit, uint32_t num_cu_mask, uint32_t* cu_mask);
// On success isExist is always set.
vdxStatus dmkfdQueryVdevInfo(uint32_t node, uint32_t vgpu_id, dmkfdVdevInfo* info);
// Only the se_mask of *info is written.
vdxStatus dmkfdQueryVdevSeInfo(uint32_t node, uint32_t vgpu_id, uint32_t num_cu_mask,
                               uint32_t* cu_mask, dmkfdBusyCuInfo* info);

// Writes the first count (1 to 8) words of info->se_mask.
vdxStatus dmkfdGetBusyCUInfo(uint32_t node, dmkfdBusyCuInfo* info, int count);
vdxStatus dmkfdGetAvailableMem(uint32_t node, uint64_t* available);
vdxStatus dmkfdGetBusyCodec(uint32_t node, bool is_dec, uint32_t* busy, uint32_t* total);
vdxStatus dmkfdGetDevWaveInfo(uint32_t node, void* buffer, uint64_t buffer_size,
                              uint32_t* wave_count, bool gpr);
vdxStatus dmkfdGetVmidPasid(uint32_t node, uint32_t vmid, uint32_t* pasid);
vdxStatus dmkfdReadRegister(uint32_t node, long reg, uint32_t* value);
vdxStatus dmkfdWriteRegister(uint32_t node, long reg, uint32_t value);
// *fd receives a new socket connected to the manager service; the caller closes it. It
// stays valid after the device is closed.
vdxStatus dmkfdConnectZouds(int* fd);

#endif  // ZOVDX_MKFD_DMKFD_H_
