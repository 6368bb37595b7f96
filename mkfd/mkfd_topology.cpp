// The accelerator topology from sysfs: the node scan that builds the user node map, the map
// look-ups, and the node and memory bank property readers. Failures are reported by status
// only; nothing here logs.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "mkfd/device_names.h"
#include "mkfd/mkfd_interface.h"
#include "mkfd/sysfs_properties.h"
#include "utils/file.h"
#include "utils/scoped.h"

namespace {

// Properties files are small: what does not fit in one page is cut.
constexpr size_t kPropertiesLimit = 4096 - 1;
constexpr size_t kPathSize = 256;

// Number of entries other than "." and "..", or -1 when the directory cannot be opened.
int CountDirectoryEntries(const char* path) {
  int count = 0;
  if (!ForEachDirectoryEntry(path, [&count](const char*) { return ++count, true; })) return -1;
  return count;
}

// The head of a properties file; an unreadable or empty file is an error.
vdxStatus ReadPropertiesText(const char* path, std::string& text) {
  if (!ReadSmallFile(path, text, kPropertiesLimit) || text.empty()) return VDX_STATUS_ERROR;
  return VDX_STATUS_SUCCESS;
}

}  // namespace

// Out of memory anywhere in the scan is a status, never an exception: the flat functions
// above are called from C.
vdxStatus MkfdInterface::GetSysNodeCount() try {
  const int count = CountDirectoryEntries(kSysfsNodesDir);
  if (count <= 0) {
    num_sysfs_nodes = 0;
    return VDX_STATUS_SYS_NODE_NOT_EXIST;
  }
  num_sysfs_nodes = count;

  // The map is not cleared: after a close and a new open the same entries are appended
  // again, and only the first num_xcu_nodes of them are ever looked at.
  num_xcu_nodes = 0;
  for (int sysNode = 0; sysNode < num_sysfs_nodes; ++sysNode) {
    uint32_t gpuId = 0;
    // CPU nodes have gpu id 0; an unreadable node is skipped and later accelerators move
    // down one user number.
    if (SysfsGetGpuId(static_cast<uint32_t>(sysNode), &gpuId) != VDX_STATUS_SUCCESS) continue;
    if (gpuId == 0) continue;
    node_map_gpuId.push_back(NodeGpuId{static_cast<uint32_t>(sysNode), gpuId});
    ++num_xcu_nodes;
  }
  return VDX_STATUS_SUCCESS;
} catch (const std::bad_alloc&) {
  return VDX_STATUS_NO_MEMORY;
}

vdxStatus MkfdInterface::SysfsGetGpuId(uint32_t sysNode, uint32_t* gpuId) {
  if (gpuId == nullptr) return VDX_STATUS_ERROR;
  char path[kPathSize];
  snprintf(path, sizeof(path), "%s/%d/gpu_id", kSysfsNodesDir, static_cast<int>(sysNode));
  utils::FileHandle file(fopen(path, "re"));
  if (!file) return VDX_STATUS_ERROR;
  unsigned int value = 0;
  errno = 0;
  if (fscanf(file.get(), "%ul", &value) != 1) {
    // The driver refuses the read when the caller may not see this device.
    return errno == EPERM ? VDX_STATUS_NOT_SUPPORTED : VDX_STATUS_ERROR;
  }
  *gpuId = value;
  return VDX_STATUS_SUCCESS;
}

// Nodes compare as signed ints against the count; a node above INT_MAX turns negative
// there and must not slip through to the map.
vdxStatus MkfdInterface::UserNodeToGpuId(uint32_t node, uint32_t* gpuId) {
  if (static_cast<int>(node) >= num_xcu_nodes || static_cast<int>(node) < 0) {
    return VDX_STATUS_ERROR;
  }
  if (gpuId == nullptr) return VDX_STATUS_ERROR;
  *gpuId = node_map_gpuId[node].gpuId;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::UserNodeMapSysNode(uint32_t node, uint32_t* sysNode) {
  if (static_cast<int>(node) >= num_xcu_nodes || static_cast<int>(node) < 0) {
    return VDX_STATUS_ERROR;
  }
  if (sysNode == nullptr) return VDX_STATUS_ERROR;
  *sysNode = node_map_gpuId[node].sysNode;
  return VDX_STATUS_SUCCESS;
}

vdxStatus MkfdInterface::GpuIdToUserNode(uint32_t gpuId, uint32_t* node) {
  if (node_map_gpuId.empty() || node == nullptr) return VDX_STATUS_ERROR;
  for (size_t i = 0; i < node_map_gpuId.size(); ++i) {
    if (node_map_gpuId[i].gpuId == gpuId) {
      *node = static_cast<uint32_t>(i);
      return VDX_STATUS_SUCCESS;
    }
  }
  return VDX_STATUS_ERROR;
}

vdxStatus MkfdInterface::GetNodeProperties(uint32_t node, dmkfdNodeProperties* props) try {
  uint32_t sysNode = 0;
  if (UserNodeMapSysNode(node, &sysNode) != VDX_STATUS_SUCCESS) {
    return VDX_STATUS_INVALID_ARGUMENTS;
  }
  if (props == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;
  char path[kPathSize];
  snprintf(path, sizeof(path), "%s/%d/properties", kSysfsNodesDir, static_cast<int>(sysNode));
  std::string text;
  const vdxStatus read = ReadPropertiesText(path, text);
  if (read != VDX_STATUS_SUCCESS) return read;

  struct Field {
    const char* key;
    uint32_t* value;
  };
  const Field fields[] = {
      {"location_id", &props->LocationId},
      {"domain", &props->Domain},
      {"simd_count", &props->SimdCount},
      {"simd_per_cu", &props->SimdPerCu},
      {"cu_per_simd_array", &props->CuPerSimdArray},
      {"simd_arrays_per_engine", &props->SimdArraysPerEngine},
      {"array_count", &props->ArrayCount},
      {"vendor_id", &props->VendorId},
      {"device_id", &props->DeviceId},
      {"subsystem_device", &props->SubSystemId},
      {"max_waves_per_simd", &props->MaxWavePerSimd},
      {"dp4x_status", &props->Dp4xStatus},
  };
  ParsePropertyLines(text.c_str(), [&fields](const char* key, uint64_t value) {
    for (const Field& field : fields) {
      if (strcmp(key, field.key) == 0) {
        *field.value = static_cast<uint32_t>(value);
        return;
      }
    }
  });

  const char* name = GetMarketingName(props->VendorId, props->DeviceId, props->SubSystemId);
  snprintf(props->MarketingName, sizeof(props->MarketingName), "%s", name);

  // Memory banks are optional: a node without them keeps the caller's GlobalMemSize.
  snprintf(path, sizeof(path), "%s/%d/mem_banks", kSysfsNodesDir, static_cast<int>(sysNode));
  const int banks = CountDirectoryEntries(path);
  for (int bank = 0; bank < banks; ++bank) {
    dmkfdMemoryProperties memory{};
    memory.HeapType = DM_HEAPTYPE_SIZE;
    if (GetMemProperties(sysNode, static_cast<uint32_t>(bank), &memory) != VDX_STATUS_SUCCESS) {
      continue;
    }
    // With several public banks the highest-numbered one wins.
    if (memory.HeapType == DM_HEAPTYPE_FRAME_BUFFER_PUBLIC) {
      props->GlobalMemSize = memory.SizeInBytes;
    }
  }
  return VDX_STATUS_SUCCESS;
} catch (const std::bad_alloc&) {
  return VDX_STATUS_NO_MEMORY;
}

vdxStatus MkfdInterface::GetMemProperties(uint32_t sysNode, uint32_t bank,
                                          dmkfdMemoryProperties* props) try {
  if (props == nullptr) return VDX_STATUS_INVALID_ARGUMENTS;
  char path[kPathSize];
  snprintf(path, sizeof(path), "%s/%d/mem_banks/%d/properties", kSysfsNodesDir,
           static_cast<int>(sysNode), static_cast<int>(bank));
  std::string text;
  const vdxStatus read = ReadPropertiesText(path, text);
  if (read != VDX_STATUS_SUCCESS) return read;

  ParsePropertyLines(text.c_str(), [props](const char* key, uint64_t value) {
    if (strcmp(key, "heap_type") == 0)
      props->HeapType = static_cast<DMKFD_HEAPTYPE>(static_cast<uint32_t>(value));
    else if (strcmp(key, "size_in_bytes") == 0)
      props->SizeInBytes = value;
    else if (strcmp(key, "width") == 0)
      props->Width = static_cast<uint32_t>(value);
    else if (strcmp(key, "mem_clk_max") == 0)
      props->MemoryClockMax = static_cast<uint32_t>(value);
  });
  return VDX_STATUS_SUCCESS;
} catch (const std::bad_alloc&) {
  return VDX_STATUS_NO_MEMORY;
}
