// The topology scan and the property readers, on sysfs trees shaped by each test in a
// private mount namespace.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mkfd/include/dmkfd.h"
#include "tests/mkfd/private_machine.h"

namespace {

using mkfd_test::AcceleratorProperties;
using mkfd_test::BankProperties;
using mkfd_test::Node;
using mkfd_test::RunInPrivateMachine;

constexpr uint32_t kOwnVendor = 0x2E70;
constexpr uint64_t kGiB = 1ull << 30;

Node Cpu() { return Node{0u, "cpu_cores_count 16\nsimd_count 0\n", {}, true}; }

Node Accelerator(uint32_t gpu_id, uint32_t device, uint32_t simd_count, uint64_t memory) {
  return Node{gpu_id, AcceleratorProperties(kOwnVendor, device, 0, simd_count),
              {{BankProperties(DM_HEAPTYPE_FRAME_BUFFER_PUBLIC, memory)}}, true};
}

// Writes the tree, makes the device node, and opens the connection.
void OpenMachine(const std::vector<Node>& nodes) {
  mkfd_test::CreateFakeDevice();
  mkfd_test::WriteTopology(nodes);
  ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
  ASSERT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SUCCESS);
}

void CloseMachine() {
  EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
  EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
}

// Properties of user node `node`, read over a record whose every byte is 0xA5 first, so
// that fields the file does not set are recognisable.
dmkfdNodeProperties ReadProperties(uint32_t node, vdxStatus expected = VDX_STATUS_SUCCESS) {
  dmkfdNodeProperties props;
  memset(&props, 0xA5, sizeof(props));
  EXPECT_EQ(dmkfdGetNodeProperties(node, &props), expected) << "node " << node;
  return props;
}

constexpr uint32_t kUnset32 = 0xA5A5A5A5;
constexpr uint64_t kUnset64 = 0xA5A5A5A5A5A5A5A5;

TEST(Topology, CpuNodesAreSkippedAndAcceleratorsNumberedFromZero) {
  RunInPrivateMachine([] {
    OpenMachine({Cpu(), Accelerator(4097, 0x5010, 240, 32 * kGiB), Cpu(),
                 Accelerator(8193, 0x5020, 256, 16 * kGiB)});
    uint32_t count = 0;
    EXPECT_EQ(dmkfdGetNodeCount(&count), VDX_STATUS_SUCCESS);
    EXPECT_EQ(count, 2u);

    uint32_t gpu = 0, node = 99;
    EXPECT_EQ(dmkfdGetNodeGpuId(0, &gpu), VDX_STATUS_SUCCESS);
    EXPECT_EQ(gpu, 4097u);
    EXPECT_EQ(dmkfdGetNodeGpuId(1, &gpu), VDX_STATUS_SUCCESS);
    EXPECT_EQ(gpu, 8193u);
    EXPECT_EQ(dmkfdGetNodeGpuId(2, &gpu), VDX_STATUS_ERROR);
    EXPECT_EQ(dmkfdGetNodeByGpuId(8193, &node), VDX_STATUS_SUCCESS);
    EXPECT_EQ(node, 1u);
    // A CPU node's gpu id is not an accelerator.
    EXPECT_EQ(dmkfdGetNodeByGpuId(0, &node), VDX_STATUS_ERROR);
    EXPECT_EQ(dmkfdGetNodeByGpuId(4098, &node), VDX_STATUS_ERROR);

    // User node 1 is sysfs node 3.
    const dmkfdNodeProperties props = ReadProperties(1);
    EXPECT_EQ(props.SimdCount, 256u);
    EXPECT_STREQ(props.MarketingName, "ZO XC-200");
    EXPECT_EQ(props.GlobalMemSize, 16 * kGiB);
    ReadProperties(2, VDX_STATUS_INVALID_ARGUMENTS);
    CloseMachine();
  });
}

TEST(Topology, NodeWithoutGpuIdShiftsLaterAcceleratorsDown) {
  RunInPrivateMachine([] {
    Node broken = Accelerator(4097, 0x5010, 240, 32 * kGiB);
    broken.gpu_id.reset();
    OpenMachine({Cpu(), broken, Accelerator(8193, 0x7100, 120, 8 * kGiB)});
    uint32_t count = 0, gpu = 0;
    EXPECT_EQ(dmkfdGetNodeCount(&count), VDX_STATUS_SUCCESS);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(dmkfdGetNodeGpuId(0, &gpu), VDX_STATUS_SUCCESS);
    EXPECT_EQ(gpu, 8193u);
    EXPECT_EQ(ReadProperties(0).SimdCount, 120u);
    CloseMachine();
  });
}

TEST(Topology, EveryFieldIsReadAndAbsentKeysKeepTheCallersValues) {
  RunInPrivateMachine([] {
    // Unknown keys before, between and after the known ones; no "dp4x_status" line.
    const std::string text =
        "cpu_cores_count 0\nlocation_id 1280\nfw_version 99\ndomain 3\nsimd_count 240\n"
        "simd_per_cu 4\nhive_id 12345678901234\ncu_per_simd_array 10\n"
        "simd_arrays_per_engine 2\narray_count 6\nvendor_id 11888\ndevice_id 28944\n"
        "subsystem_device 2049\nmax_waves_per_simd 8\nnum_gws 64\n";
    Node node{7u, text, {{BankProperties(DM_HEAPTYPE_FRAME_BUFFER_PUBLIC, 64 * kGiB)}}, true};
    OpenMachine({Cpu(), node});
    const dmkfdNodeProperties props = ReadProperties(0);
    EXPECT_EQ(props.LocationId, 1280u);
    EXPECT_EQ(props.Domain, 3u);
    EXPECT_EQ(props.SimdCount, 240u);
    EXPECT_EQ(props.SimdPerCu, 4u);
    EXPECT_EQ(props.CuPerSimdArray, 10u);
    EXPECT_EQ(props.SimdArraysPerEngine, 2u);
    EXPECT_EQ(props.ArrayCount, 6u);
    EXPECT_EQ(props.VendorId, 0x2E70u);
    EXPECT_EQ(props.DeviceId, 0x7110u);
    EXPECT_EQ(props.SubSystemId, 0x0801u);
    EXPECT_EQ(props.MaxWavePerSimd, 8u);
    EXPECT_EQ(props.Dp4xStatus, kUnset32);
    EXPECT_EQ(props.GlobalMemSize, 64 * kGiB);
    EXPECT_STREQ(props.MarketingName, "ZO ZX-800 Pro 64G");
    CloseMachine();
  });
}

}  // namespace
