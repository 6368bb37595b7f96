#include "tests/mkfd/flat_calls.h"

#include <cstdint>

namespace mkfd_test {

namespace {

uint32_t g_mask[4] = {0xFF, 0, 0, 0};
dmkfdVdevInfo g_info;
dmkfdBusyCuInfo g_busy;
uint32_t g_u32, g_u32b;
uint64_t g_u64;
int g_fd = -1;
char g_waves[1 << 16];

}  // namespace

int* ServiceSocket() { return &g_fd; }

const std::vector<FlatCall>& Commands() {
  static const std::vector<FlatCall> commands = {
      {"set-mode", "[dmkfdSetRunMode] mode:2 Node:0 identif:0x1\n", VDX_STATUS_ERROR,
       [] { return dmkfdSetRunMode(DM_PROCESS_VDEV_MODE, 0, 0x1); }},
      {"create-vgpu", "[dmkfdCreateVdev] Node:0 vdevId:7 vram:0x40000000\n",
       VDX_STATUS_CREATE_VDEV_FAILED,
       [] { return dmkfdCreateVdev(0, 7, 1, 0xabc, 0x40000000, 128, g_mask); }},
      {"destroy-vgpu", "[dmkfdDestroyVdev] Node:0 pipeId:0\n", VDX_STATUS_DESTROY_VDEV_FAILED,
       [] { return dmkfdDestroyVdev(0, 0); }},
      {"update-vgpu", "[dmkfdUpdateVdev] Node:0 dmUpdateVdevType:1 pipeId:0 vram:0x800\n",
       VDX_STATUS_ERROR,
       [] { return dmkfdUpdateVdev(0, DM_UPDATE_VDEV_CU_MASK, 0, 0x800, 128, g_mask); }},
      {"create-group",
       "[dmkfdCreateGroup] vdevId: 0x3 indentifier: 0x77 vram_limit:0xffffffffffffffff\n",
       VDX_STATUS_CREATE_VDEV_FAILED, [] { return dmkfdCreateGroup(3, 0x77, UINT64_MAX); }},
      {"destroy-group", "[dmkfdDestroyGroup] indentifier: 0x77\n", VDX_STATUS_DESTROY_VDEV_FAILED,
       [] { return dmkfdDestroyGroup(0x77); }},
      {"update-group", "[dmkfdUpdateGroup] Node: 0 indentifier: 0x77 limit: 0x100000\n",
       VDX_STATUS_ERROR, [] { return dmkfdUpdateGroup(0, 0x77, 0x100000); }},
      {"query-group", "[dmkfdQueryGroupInfo] Node: 0 indentifier:0x77\n",
       VDX_STATUS_QUERY_VDEV_INFO_FAILED, [] { return dmkfdQueryGroupInfo(0, 0x77, &g_info); }},
      {"query-group-by-id", "[dmkfdQueryGroupInfoById] Node: 0 vdevId: 3\n",
       VDX_STATUS_QUERY_VDEV_INFO_FAILED,
       [] { return dmkfdQueryGroupInfoById(0, 3, &g_info); }},
      {"query-vgpu", "[dmkfdQueryVdevInfo] Node:0 pipeId:0\n", VDX_STATUS_QUERY_VDEV_INFO_FAILED,
       [] { return dmkfdQueryVdevInfo(0, 0, &g_info); }},
      {"query-vgpu-se", "[dmkfdQueryVdevSeInfo] Node:0 pipeId:0\n",
       VDX_STATUS_QUERY_VDEV_INFO_FAILED,
       [] { return dmkfdQueryVdevSeInfo(0, 0, 128, g_mask, &g_busy); }},
      {"cu-busy", "[dmkfdGetBusyCUInfo] Node:0\n", VDX_STATUS_ERROR,
       [] { return dmkfdGetBusyCUInfo(0, &g_busy, 8); }},
      {"available-mem", "[dmkfdGetAvailableMem] Node:0\n", VDX_STATUS_ERROR,
       [] { return dmkfdGetAvailableMem(0, &g_u64); }},
      {"codec-busy", "[dmkfdGetBusyCodec] Node:0\n", VDX_STATUS_ERROR,
       [] { return dmkfdGetBusyCodec(0, true, &g_u32, &g_u32b); }},
      {"wave-info", "[dmkfdGetDevWaveInfo] Node:0\n", VDX_STATUS_ERROR,
       [] { return dmkfdGetDevWaveInfo(0, g_waves, sizeof(g_waves), &g_u32, true); }},
      {"vmid-pasid", "[dmkfdGetVmidPasid] Node:0\n", VDX_STATUS_ERROR,
       [] { return dmkfdGetVmidPasid(0, 1, &g_u32); }},
      {"regs", "[dmkfdReadRegister] Node:0\n", VDX_STATUS_ERROR,
       [] { return dmkfdReadRegister(0, 0x2000, &g_u32); }},
      {"regs", "[dmkfdWriteRegister] Node:0\n", VDX_STATUS_ERROR,
       [] { return dmkfdWriteRegister(0, 0x2000, 5); }},
      {"service-socket", "[dmkfdConnectZouds]\n", VDX_STATUS_ERROR,
       [] { return dmkfdConnectZouds(&g_fd); }},
  };
  return commands;
}

}  // namespace mkfd_test
