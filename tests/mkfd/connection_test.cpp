// Opening and closing the device, and what every command does before and after it reaches
// the driver. The device here is a plain file: it opens like the real one and fails every
// ioctl (ENOTTY), so a command that answers with its driver-failure status did issue its
// ioctl, and one that answers "invalid arguments" stopped before it.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "mkfd/include/dmkfd.h"
#include "mkfd/mkfd_interface.h"
#include "tests/mkfd/private_machine.h"
#include "utils/logger.h"

namespace {

using mkfd_test::AcceleratorProperties;
using mkfd_test::CountOpenDescriptors;
using mkfd_test::Node;
using mkfd_test::RunInPrivateMachine;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

void WriteTwoAccelerators() {
  mkfd_test::WriteTopology({Node{0u, "cpu_cores_count 8\n", {}, true},
                            Node{101u, AcceleratorProperties(0x2E70, 0x5010, 0, 240), {}, true},
                            Node{202u, AcceleratorProperties(0x2E70, 0x5020, 0, 256), {}, true}});
}

size_t CountOccurrences(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++count;
  }
  return count;
}

TEST(Connection, OpenFailsWithoutTheDevice) {
  RunInPrivateMachine([] {
    WriteTwoAccelerators();
    const int descriptors = CountOpenDescriptors();
    ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(dmkfdOpenMkfd(), VDX_STATUS_OPEN_MKFD_FAILED);
    EXPECT_EQ(MkfdInterface::mkfd_singleton_->OpenCount(), 0);
    EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_MKFD_NOT_OPENED);
    EXPECT_EQ(CountOpenDescriptors(), descriptors);
    EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
  });
}

TEST(Connection, OpensAreCountedAndTheLastCloseClosesTheDescriptor) {
  RunInPrivateMachine([] {
    mkfd_test::CreateFakeDevice();
    WriteTwoAccelerators();
    const int descriptors = CountOpenDescriptors();
    ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
    ASSERT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(CountOpenDescriptors(), descriptors + 1);

    utils::SetLogLevel(utils::kLogInfo);
    CaptureStdout();
    EXPECT_EQ(dmkfdOpenMkfd(), VDX_STATUS_MKFD_ALREADY_OPENED);
    const std::string out = GetCapturedStdout();
    EXPECT_EQ(CountOccurrences(out, "mkfd has already openned.\n"), 1u) << out;
    EXPECT_EQ(CountOpenDescriptors(), descriptors + 1);

    // The second open needs its own close before the descriptor goes.
    EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(CountOpenDescriptors(), descriptors + 1);
    uint64_t available = 0;
    EXPECT_EQ(dmkfdGetAvailableMem(0, &available), VDX_STATUS_ERROR);  // still open
    EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(CountOpenDescriptors(), descriptors);
    EXPECT_EQ(dmkfdGetAvailableMem(0, &available), VDX_STATUS_MKFD_NOT_OPENED);
    EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_MKFD_NOT_OPENED);
    EXPECT_EQ(MkfdInterface::mkfd_singleton_->OpenCount(), 0);

    // Opening again rescans: the node numbering is unchanged.
    ASSERT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SUCCESS);
    uint32_t count = 0, gpu = 0, node = 0;
    EXPECT_EQ(dmkfdGetNodeCount(&count), VDX_STATUS_SUCCESS);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(dmkfdGetNodeGpuId(1, &gpu), VDX_STATUS_SUCCESS);
    EXPECT_EQ(gpu, 202u);
    EXPECT_EQ(dmkfdGetNodeByGpuId(202, &node), VDX_STATUS_SUCCESS);
    EXPECT_EQ(node, 1u);
    EXPECT_EQ(dmkfdGetNodeGpuId(2, &gpu), VDX_STATUS_ERROR);
    EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(CountOpenDescriptors(), descriptors);
  });
}

TEST(Connection, WithoutTopologyTheDeviceStaysOpen) {
  RunInPrivateMachine([] {
    mkfd_test::CreateFakeDevice();
    const int descriptors = CountOpenDescriptors();
    ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SYS_NODE_NOT_EXIST);
    EXPECT_EQ(MkfdInterface::mkfd_singleton_->NumSysfsNodes(), 0);
    EXPECT_EQ(CountOpenDescriptors(), descriptors + 1);
    EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(CountOpenDescriptors(), descriptors);

    // An empty nodes directory is no topology either.
    mkfd_test::WriteTopology({});
    EXPECT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SYS_NODE_NOT_EXIST);
    EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
  });
}

TEST(Connection, DescriptorIsCloseOnExec) {
  RunInPrivateMachine([] {
    mkfd_test::CreateFakeDevice();
    WriteTwoAccelerators();
    ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
    ASSERT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SUCCESS);
    int checked = 0;
    for (int fd = 0; fd < 1024; ++fd) {
      char link[64], target[256] = {};
      snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
      if (readlink(link, target, sizeof(target) - 1) <= 0) continue;
      if (strcmp(target, "/dev/mkfd") != 0) continue;
      EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
      ++checked;
    }
    EXPECT_EQ(checked, 1);
    EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
  });
}

struct CommandCase {
  const char* what;
  std::function<vdxStatus()> call;
  vdxStatus expected;
};

uint32_t g_mask[4] = {0xFFFF, 0, 0, 0};
dmkfdBusyCuInfo g_busy;
uint32_t g_u32;
uint64_t g_u64;
int g_fd;
char g_waves[256];

const dmRunMode kBadMode = static_cast<dmRunMode>(3);
const dmUpdateVdevType kBadType = static_cast<dmUpdateVdevType>(2);

const CommandCase kCommandCases[] = {
    // Argument checks: refused before the driver is asked.
    {"mode out of range", [] { return dmkfdSetRunMode(kBadMode, 0, 1); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"run mode on node 2", [] { return dmkfdSetRunMode(DM_PROCESS_VDEV_MODE, 2, 1); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"node that is negative as int", [] { return dmkfdDestroyVdev(0xFFFFFFFF, 0); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"mask of 100 bits", [] { return dmkfdCreateVdev(0, 1, 0, 1, 1 << 20, 100, g_mask); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"mask of 0 bits", [] { return dmkfdCreateVdev(0, 1, 0, 1, 1 << 20, 0, g_mask); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"null mask", [] { return dmkfdCreateVdev(0, 1, 0, 1, 1 << 20, 128, nullptr); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"create on node 2", [] { return dmkfdCreateVdev(2, 1, 0, 1, 1 << 20, 128, g_mask); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"destroy on node 2", [] { return dmkfdDestroyVdev(2, 0); }, VDX_STATUS_INVALID_ARGUMENTS},
    {"update type out of range", [] { return dmkfdUpdateVdev(0, kBadType, 0, 1, 128, g_mask); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"update group on node 2", [] { return dmkfdUpdateGroup(2, 1, 1); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"null vdev info", [] { return dmkfdQueryVdevInfo(0, 0, nullptr); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"null se info", [] { return dmkfdQueryVdevSeInfo(0, 0, 128, g_mask, nullptr); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"null wave buffer",
     [] { return dmkfdGetDevWaveInfo(0, nullptr, sizeof(g_waves), &g_u32, false); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"null wave count",
     [] { return dmkfdGetDevWaveInfo(0, g_waves, sizeof(g_waves), nullptr, false); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"busy words 0", [] { return dmkfdGetBusyCUInfo(0, &g_busy, 0); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"busy words 9", [] { return dmkfdGetBusyCUInfo(0, &g_busy, 9); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"busy on node 2", [] { return dmkfdGetBusyCUInfo(2, &g_busy, 8); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"memory on node 2", [] { return dmkfdGetAvailableMem(2, &g_u64); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"codec on node 2", [] { return dmkfdGetBusyCodec(2, false, &g_u32, &g_u32); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"pasid on node 2", [] { return dmkfdGetVmidPasid(2, 1, &g_u32); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"read register on node 2", [] { return dmkfdReadRegister(2, 0x10, &g_u32); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"null register value", [] { return dmkfdReadRegister(0, 0x10, nullptr); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"write register on node 2", [] { return dmkfdWriteRegister(2, 0x10, 1); },
     VDX_STATUS_INVALID_ARGUMENTS},
    {"null zouds descriptor", [] { return dmkfdConnectZouds(nullptr); },
     VDX_STATUS_INVALID_ARGUMENTS},

    // Valid arguments: the driver is asked, fails, and each command reports its own status.
    {"run mode", [] { return dmkfdSetRunMode(DM_PROCESS_GROUP_MODE, 1, 1); }, VDX_STATUS_ERROR},
    {"create vdev", [] { return dmkfdCreateVdev(1, 1, 0, 1, 1 << 20, 128, g_mask); },
     VDX_STATUS_CREATE_VDEV_FAILED},
    {"destroy vdev", [] { return dmkfdDestroyVdev(1, 0); }, VDX_STATUS_DESTROY_VDEV_FAILED},
    {"memory-only update without a mask",
     [] { return dmkfdUpdateVdev(1, DM_UPDATE_VDEV_VRAM_LIMIT, 0, 1 << 20, 0, nullptr); },
     VDX_STATUS_ERROR},
    {"create group", [] { return dmkfdCreateGroup(3, 1, UINT64_MAX); },
     VDX_STATUS_CREATE_VDEV_FAILED},
    {"destroy group", [] { return dmkfdDestroyGroup(1); }, VDX_STATUS_DESTROY_VDEV_FAILED},
    {"update group", [] { return dmkfdUpdateGroup(0, 1, 1); }, VDX_STATUS_ERROR},
    {"query se info", [] { return dmkfdQueryVdevSeInfo(0, 0, 128, g_mask, &g_busy); },
     VDX_STATUS_QUERY_VDEV_INFO_FAILED},
    {"wave dump", [] { return dmkfdGetDevWaveInfo(0, g_waves, sizeof(g_waves), &g_u32, true); },
     VDX_STATUS_ERROR},
    {"busy units", [] { return dmkfdGetBusyCUInfo(1, &g_busy, 1); }, VDX_STATUS_ERROR},
    {"available memory", [] { return dmkfdGetAvailableMem(1, &g_u64); }, VDX_STATUS_ERROR},
    {"codec", [] { return dmkfdGetBusyCodec(0, true, &g_u32, &g_u32); }, VDX_STATUS_ERROR},
    {"pasid", [] { return dmkfdGetVmidPasid(0, 300, &g_u32); }, VDX_STATUS_ERROR},
    {"read register", [] { return dmkfdReadRegister(1, 0x10, &g_u32); }, VDX_STATUS_ERROR},
    {"write register", [] { return dmkfdWriteRegister(1, 0x10, 1); }, VDX_STATUS_ERROR},
    {"zouds", [] { return dmkfdConnectZouds(&g_fd); }, VDX_STATUS_ERROR},
};

TEST(Commands, ArgumentChecksAndDriverFailures) {
  RunInPrivateMachine([] {
    mkfd_test::CreateFakeDevice();
    WriteTwoAccelerators();
    ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
    ASSERT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SUCCESS);
    for (const CommandCase& c : kCommandCases) EXPECT_EQ(c.call(), c.expected) << c.what;

    // A failed query leaves the caller's record cleared, whatever it held before.
    using Query = std::function<vdxStatus(dmkfdVdevInfo*)>;
    const Query queries[] = {
        [](dmkfdVdevInfo* info) { return dmkfdQueryGroupInfo(0, 1, info); },
        [](dmkfdVdevInfo* info) { return dmkfdQueryGroupInfoById(1, 1, info); },
        [](dmkfdVdevInfo* info) { return dmkfdQueryVdevInfo(1, 3, info); },
    };
    for (const Query& query : queries) {
      dmkfdVdevInfo info;
      memset(&info, 0xA5, sizeof(info));
      EXPECT_EQ(query(&info), VDX_STATUS_QUERY_VDEV_INFO_FAILED);
      const dmkfdVdevInfo zero{};
      EXPECT_EQ(memcmp(&info, &zero, sizeof(info)), 0);
    }
    EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
  });
}

}  // namespace
