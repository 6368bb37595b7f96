// MkfdInterface: the process's one connection with the accelerator driver, shared by every
// user through a reference count. The dmkfd* functions are its only callers outside mkfd/.
//
// Locks: mkfd_init_mutex (file-static) serialises Acquire and Release; mkfd_mutex serialises
// OpenMkfd and CloseMkfd, and the topology scan runs under it. Commands take no lock: the
// driver serialises them, and the node map is written only by the scan, before the open
// count is published; a command that sees the device open therefore sees the whole map.
// Closing and reopening while another thread is inside a command is the caller's race.
#ifndef ZOVDX_MKFD_MKFD_INTERFACE_H_
#define ZOVDX_MKFD_MKFD_INTERFACE_H_

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "mkfd/include/dmkfd.h"
#include "mkfd/include/mkfd_ioctl.h"
#include "zovdx/vdx.h"

// Where the driver publishes its topology, one numbered directory per node.
inline constexpr char kSysfsNodesDir[] = "/sys/devices/virtual/kfd/kfd/topology/nodes";
inline constexpr char kMkfdDevice[] = "/dev/mkfd";

struct NodeGpuId {
  uint32_t sysNode;  // sysfs node directory number
  uint32_t gpuId;    // the driver's id of the device, never 0
};

vdxStatus DmModeToKfdMode(dmRunMode mode, mkfd_process_run_mode* kfdMode);
vdxStatus DmTypeToKfdType(dmUpdateVdevType type, mkfd_update_vgpu_type* kfdType);

class MkfdInterface {
 public:
  static MkfdInterface* mkfd_singleton_;

  static vdxStatus Acquire();
  // Deletes the instance with the last reference; does not close the device.
  static vdxStatus Release();
  static bool IsAcquire();

  vdxStatus OpenMkfd();
  vdxStatus CloseMkfd();

  // ioctl, repeated while the driver answers EINTR or EAGAIN. Returns the ioctl's result;
  // on -1, errno is the driver's.
  static int MkfdIoctl(int fd, unsigned long request, void* args);

  // Commands. Each returns VDX_STATUS_MKFD_NOT_OPENED before anything else when the device is
  // not open, and VDX_STATUS_INVALID_ARGUMENTS, without reaching the driver, for a node
  // outside the map or a missing output.
  vdxStatus SetRunMode(dmRunMode mode, uint32_t node, uint64_t indentifier);
  vdxStatus CreateVdev(uint32_t node, uint32_t group_id, uint32_t vgpu_id, uint64_t indentifier,
                       uint64_t vram_limit, uint32_t num_cu_mask, uint32_t* cu_mask);
  vdxStatus DestroyVdev(uint32_t node, uint32_t vgpu_id);
  vdxStatus UpdateVdev(uint32_t node, dmUpdateVdevType type, uint32_t vgpu_id,
                       uint64_t vram_limit, uint32_t num_cu_mask, uint32_t* cu_mask);
  vdxStatus CreateGroup(uint32_t group_id, uint64_t indentifier, uint64_t vram_limit);
  vdxStatus DestroyGroup(uint64_t indentifier);
  vdxStatus QueryGroupInfo(uint32_t node, uint64_t indentifier, dmkfdVdevInfo* info);
  vdxStatus QueryVdevInfo(uint32_t node, uint32_t vgpu_id, dmkfdVdevInfo* info);
  vdxStatus QueryGroupInfoById(uint32_t node, uint32_t group_id, dmkfdVdevInfo* info);
  vdxStatus UpdateGroup(uint32_t node, uint64_t indentifier, uint64_t vram_limit);
  vdxStatus GetDevWaveInfo(uint32_t node, void* buffer, uint64_t buffer_size,
                           uint32_t* wave_count, bool gpr);
  vdxStatus GetBusyCU(uint32_t node, dmkfdBusyCuInfo* info, int count);
  vdxStatus GetAvailableMem(uint32_t node, uint64_t* available);
  vdxStatus ConnectZouds(int* fd);
  vdxStatus GetVmidPasid(uint32_t node, uint32_t vmid, uint32_t* pasid);
  vdxStatus ReadRegister(uint32_t node, long reg, uint32_t& value);
  vdxStatus WriteRegister(uint32_t node, long reg, uint32_t value);
  vdxStatus QueryVdevSeInfo(uint32_t node, uint32_t vgpu_id, uint32_t num_cu_mask,
                            uint32_t* cu_mask, dmkfdBusyCuInfo* info);
  vdxStatus GetBusyCodec(uint32_t node, bool is_dec, uint32_t* busy, uint32_t* total);

  vdxStatus GetNodeGpuId(uint32_t node, uint32_t* gpuId);
  vdxStatus GetNodeByGpuId(uint32_t gpuId, uint32_t* node);

  // Topology (sysfs). The scan runs under mkfd_mutex from OpenMkfd.
  vdxStatus GetSysNodeCount();
  vdxStatus SysfsGetGpuId(uint32_t sysNode, uint32_t* gpuId);
  vdxStatus UserNodeToGpuId(uint32_t node, uint32_t* gpuId);
  vdxStatus UserNodeMapSysNode(uint32_t node, uint32_t* sysNode);
  vdxStatus GpuIdToUserNode(uint32_t gpuId, uint32_t* node);
  // No lock: may run from any thread once the device has been opened.
  vdxStatus GetNodeProperties(uint32_t node, dmkfdNodeProperties* props);
  vdxStatus GetMemProperties(uint32_t sysNode, uint32_t bank, dmkfdMemoryProperties* props);

  int NumXcuNodes() const { return num_xcu_nodes; }
  int NumSysfsNodes() const { return num_sysfs_nodes; }
  int OpenCount() const { return mkfd_count; }

 private:
  MkfdInterface() = default;
  ~MkfdInterface() = default;
  MkfdInterface(const MkfdInterface&) = delete;
  MkfdInterface& operator=(const MkfdInterface&) = delete;

  bool IsOpen() const { return mkfd_count >= 1; }
  // The gpu id of a user node, or false when the node is outside the map.
  bool NodeToGpuId(uint32_t node, uint32_t* gpuId);

  int mkfd_fd = -1;
  // Read without the lock by every command: atomic, stored after mkfd_fd and the node map,
  // and never below 0.
  std::atomic<int> mkfd_count{0};
  int ref_count_ = 0;
  std::mutex mkfd_mutex;
  int num_xcu_nodes = 0;
  int num_sysfs_nodes = 0;
  std::vector<NodeGpuId> node_map_gpuId;
};

#endif  // ZOVDX_MKFD_MKFD_INTERFACE_H_
